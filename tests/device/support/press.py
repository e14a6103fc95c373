"""A manager that walks the private MIB again and again, whatever happens to the device."""
from __future__ import annotations

import threading

from . import ber
from .device import Device
from .rawmanager import ROOT, RawManager


class Press:
    """Walks in a thread inside a `with` block. Each answer about the private MIB must be one of the reference's values;
    missing answers are ignored."""

    def __init__(self, device: Device, reference: list[ber.Binding], repetitions: int = 25) -> None:
        self._manager = RawManager.of(device)
        self._reference = set(reference)
        self._repetitions = repetitions
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._walk)
        self.answered = 0
        self.strangers: set[ber.Binding] = set()
        self.failure: Exception | None = None

    def __enter__(self) -> Press:
        self._thread.start()
        return self

    def __exit__(self, *_) -> None:
        self._done.set()
        self._thread.join()
        self._manager.close()

    def check(self) -> None:
        assert self.failure is None and self.strangers == set(), (self.failure, self.strangers)

    def _walk(self) -> None:
        last = ROOT
        try:
            while not self._done.is_set():
                number = self._manager.begin(ber.GETBULK, [last], second=self._repetitions)
                answer = self._manager.answer_to(number, 0.1)
                if answer is None or answer.error or not answer.bindings:
                    last = ROOT
                    continue
                self.answered += 1
                ours = {binding for binding in answer.bindings if binding.oid[:len(ROOT)] == ROOT}
                self.strangers |= {binding for binding in ours - self._reference if binding.value[0] != "endOfMibView"}
                last = answer.bindings[-1].oid if len(ours) == len(answer.bindings) else ROOT
        except Exception as failure:  # check() reports it
            self.failure = failure
