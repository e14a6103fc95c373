"""One manager inside a device: manager.py KIND PAUSE_MS. It sends requests until it is killed and prints each second one
line of JSON for answers.py: the results and times of its requests."""
from __future__ import annotations

import json
import os
import random
import socket
import sys
import time
from collections.abc import Callable
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests/device"))

from support import ber  # noqa: E402
from support.snmp import END_OF_VIEW, PRIVATE_MIB  # noqa: E402

ADDRESS = ("127.0.0.1", 161)
ROOT = ber.numbers(PRIVATE_MIB)
TIMEOUT = 2.0
REPORT_INTERVAL = 1.0


class Manager:
    def __init__(self, kind: str, version: int = ber.V2C) -> None:
        self._kind = kind
        self._version = version
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.connect(ADDRESS)
        self._number = random.randrange(1, 1 << 30)
        self._good: list[tuple[float, float]] = []  # end, milliseconds
        self._bad: list[tuple[float, float, str]] = []  # begin, end, error
        self._reported = time.monotonic()

    def ask(self, kind: int, name: ber.Oid, repetitions: int = 0,
            flaw: Callable[[list[ber.Binding]], str] = lambda _: "") -> list[ber.Binding] | None:
        """One request, added to the next report; None if it was not answered. `flaw` returns the error of an
        answer."""
        self._number += 1
        begin = time.monotonic()
        bindings = None
        try:
            answer = self._exchange(ber.message(kind, self._number, [ber.varbind(name)], self._version,
                                                second=repetitions))
            bindings = answer.bindings
            what = f"error {answer.error}" if answer.error else flaw(bindings)
        except TimeoutError:
            what = "timeout"
        except (OSError, ber.Malformed) as failure:  # without snmpd the port is closed
            what = f"{failure}"
            time.sleep(0.1)
        end = time.monotonic()
        if what:
            self._bad.append((begin, end, what))
        else:
            self._good.append((end, 1000 * (end - begin)))
        if end - self._reported >= REPORT_INTERVAL:
            self._report(end)
        return bindings

    def _exchange(self, message: bytes) -> ber.Answer:
        self._socket.send(message)
        limit = time.monotonic() + TIMEOUT
        while True:
            self._socket.settimeout(max(0.001, limit - time.monotonic()))
            answer = ber.answer(self._socket.recv(65536))
            if answer.number == self._number:  # not a late one
                return answer

    def _report(self, now: float) -> None:
        print(json.dumps({"kind": self._kind, "good": self._good, "bad": self._bad}), flush=True)
        self._good, self._bad, self._reported = [], [], now

    def walk(self, repetitions: int = 0) -> list[ber.Binding] | None:
        """With GETBULK unless `repetitions` is 0; None if it was incomplete."""
        kind = ber.GETBULK if repetitions else ber.GETNEXT
        walked: list[ber.Binding] = []
        name = ROOT
        while True:
            bindings = self.ask(kind, name, repetitions)
            if not bindings:
                return None
            for binding in bindings:
                if binding.oid[:len(ROOT)] != ROOT or binding.value == END_OF_VIEW:
                    return walked
                walked.append(binding)
            name = bindings[-1].oid

    def first_walk(self, repetitions: int = 10) -> list[ber.Binding]:
        while not (walked := self.walk(repetitions)):
            pass
        return walked

    def enter_walk(self, begin: float, shape: list[tuple[ber.Oid, str]], walked: list[ber.Binding]) -> None:
        """The rows and types of a device never change, only its values."""
        if shape_of(walked) != shape:
            self._bad.append((begin, time.monotonic(), f"a walk of {len(walked)} instead of {len(shape)} variables"))


def shape_of(bindings: list[ber.Binding]) -> list[tuple[ber.Oid, str]]:
    """Names and types."""
    return [(binding.oid, binding.value[0]) for binding in bindings]


def run_gets(manager: Manager, pause: float) -> None:
    cells = shape_of(Manager("").first_walk())
    while True:
        cell = random.choice(cells)
        manager.ask(ber.GET, cell[0], flaw=lambda got: "" if shape_of(got) == [cell] else f"a {shape_of(got)}")
        time.sleep(pause)


def run_walks(manager: Manager, pause: float, repetitions: int) -> None:
    shape = shape_of(Manager("").first_walk())
    while True:
        begin = time.monotonic()
        if walked := manager.walk(repetitions):
            manager.enter_walk(begin, shape, walked)
        time.sleep(pause)


KINDS: dict[str, Callable[[float], None]] = {
    "GET": lambda pause: run_gets(Manager("GET"), pause),
    "GET v1": lambda pause: run_gets(Manager("GET v1", ber.V1), pause),
    "GETNEXT": lambda pause: run_walks(Manager("GETNEXT"), pause, 0),
    "GETBULK 10": lambda pause: run_walks(Manager("GETBULK 10"), pause, 10),
    "GETBULK 50": lambda pause: run_walks(Manager("GETBULK 50"), pause, 50),
}

if __name__ == "__main__":
    try:
        KINDS[sys.argv[1]](float(sys.argv[2]) / 1000)
    except BrokenPipeError:  # the reports are no longer read
        os._exit(0)
