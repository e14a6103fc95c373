"""The events of the device: values, faults, enabled and disabled traps, announcements of the amplifier monitor, restarts
of snmpd. Each has an interval; due events become lines for `talctl batch`."""
from __future__ import annotations

import heapq
import random
import signal
from collections.abc import Callable
from typing import NamedTuple

from support.catalogue import TRAPS
from support.device import Device

from .daemonlog import DyingWindow, Restarts
from .faultbook import FaultBook

SETTINGS = "/state/config/snmp_settings"
LEVELS = ["emerg", "crit", "err", "warning", "notice", "odd"]

VOLTAGES = ["1v8SW", "1v8", "3v3", "5v0", "12v7", "15v0", "24v0", "24v0FB", "50v0", "50v0AC", "50v0DC", "15v0CDA",
            "12v0PM"]
TEMPERATURES = ["amp_class_d_amp_1", "amp_class_d_amp_2", "amp_main_board", "amp_ac_power", "amp_dc_power"]
FANS = ["amp_power", "amp_class_d"]
TRUTH = ["true", "false"]


class Leaf(NamedTuple):
    path: str
    text: Callable[[random.Random], str]


def one_of(*words: str) -> Callable[[random.Random], str]:
    return lambda chance: chance.choice(words)


LEAVES = [
    *(Leaf(f"/state/power_lines/power_line[kid='{key}']/voltage", lambda c: f"{c.uniform(0, 60):.3f}")
      for key in VOLTAGES),
    *(Leaf(f"/state/temp_sensors/temp_sensor[kid='{key}']/{leaf}", lambda c: f"{c.uniform(-20, 90):.1f}")
      for key in TEMPERATURES for leaf in ("temp_current", "temp_peak", "temp_average")),
    *(Leaf(f"/state/fans/fan[kid='{key}']/speed_sensor_rpm", lambda c: str(c.randrange(5000))) for key in FANS),
    *(Leaf(f"/state/lines/line[kid='{line}']/characteristics/line_state", one_of("ok", "short", "open", "unknown"))
      for line in ("ch1", "ch2")),
    *(Leaf(f"/state/config/lines/line[kid='{line}']/enable", one_of(*TRUTH)) for line in ("ch1", "ch2")),
    *(Leaf(f"/state/config/lines/line[kid='{line}']/lets/let[kid='{let}']/{leaf}", text)
      for line in ("ch1", "ch2") for let in range(1, 11)
      for leaf, text in (("enabled", one_of(*TRUTH)),
                         ("let_description", lambda c: f"Loudspeaker {c.randrange(10**6)}"))),
    *(Leaf(f"/state/lines/line[kid='{line}']/pilot_tone_state", one_of("ok", "fail")) for line in ("ln1", "ln2")),
    *(Leaf(f"/state/config/gpis/gpi[kid='gpi{number}']/monitored", one_of(*TRUTH)) for number in range(1, 7)),
    *(Leaf(f"/state/power_sources/power_source[kid='{source}']/live", one_of(*TRUTH))
      for source in ("ac_power", "dc_power")),
]

# States of the amplifier monitor; the last two are invalid.
ANNOUNCEMENTS: list[Callable[[random.Random], list[str]]] = [
    lambda c: ["monitor", "gpo", str(c.randrange(6)), c.choice(["set", "cleared"]),
               c.choice(["ok_set", "ok_clear", "fail_set"])],
    lambda c: ["monitor", "gpi", str(c.randrange(6)), c.choice(["open", "closed", "shorted", "disconnected"])],
    lambda c: ["monitor", "amp", str(c.randrange(2)), str(c.randrange(4))],
    lambda c: ["monitor", "let", str(c.randrange(2)), str(c.randrange(10)), str(c.randrange(3)), "--any"],
    lambda c: ["monitor", "power", str(c.randrange(500)), str(c.randrange(500))],
    lambda c: ["monitor", "gpi", str(c.randrange(1 << 32)), "x" * 2000],
    lambda c: ["monitor", "let", *(str(c.randrange(1 << 32)) for _ in range(3)), "--any"],
]


class Life:
    """`order` sends the words of a command to the simulator."""

    def __init__(self, device: Device, order: Callable[..., None], faults: FaultBook, restarts: Restarts,
                 dying: DyingWindow, seconds: float, seed: int) -> None:
        self._device = device
        self._order = order
        self._faults = faults
        self._restarts = restarts
        self._dying = dying
        self._chance = random.Random(seed)
        self._count = 0
        self._clears: list[tuple[float, str]] = []
        self._references: dict[str, str] = {}
        slow = max(3.0, min(20.0, seconds / 8))  # a short run also has events of every kind
        self._intervals: list[tuple[float, Callable[[float], None]]] = [
            (0.2, self._change_values), (0.3, self._announce), (0.5, self._raise_some), (1.5 * slow, self._raise_many),
            (slow, self._restart), (slow / 2, self._switch)]
        self._due: list[float] = []
        # Every third restart is not the daemon's.
        self._ways = [self._change_settings, self._touch, self._kill, self._change_settings, self._touch, self._end]

    def step(self, now: float) -> None:
        if not self._due:
            self._due = [now + interval * self._chance.random() for interval, _ in self._intervals]
        for place, (interval, action) in enumerate(self._intervals):
            if now >= self._due[place]:
                action(now)
                self._due[place] = now + interval * self._chance.uniform(0.7, 1.3)
        while self._clears and self._clears[0][0] <= now:
            self._clear(heapq.heappop(self._clears)[1])

    def received(self, text: str, now: float) -> None:
        """The trap of a fault has arrived: the fault ends some time later."""
        heapq.heappush(self._clears, (now + self._chance.uniform(0, 8), text))

    def enable_everything(self, now: float) -> None:
        for kind in self._faults.disabled:
            self._enable(kind, now)

    def clear_everything(self) -> None:
        for text in self._faults.active():
            self._clear(text)
        self._clears = []

    # Events

    def _change_values(self, _: float) -> None:
        for leaf in self._chance.sample(LEAVES, 5):
            name = leaf.path.rsplit("/", 1)[-1]
            self._order("patch", leaf.path, f"<{name}>{leaf.text(self._chance)}</{name}>")

    def _announce(self, _: float) -> None:
        self._order(*self._chance.choice(ANNOUNCEMENTS)(self._chance))

    def _raise_some(self, now: float) -> None:
        for _ in range(self._chance.randint(1, 3)):
            self._raise(now)

    def _raise_many(self, now: float) -> None:
        for _ in range(60):
            self._raise(now)

    def _raise(self, now: float) -> None:
        self._count += 1
        row = self._chance.choice(TRAPS)
        text, reference = f"soak {self._count}", f"s{self._count}"
        self._references[text] = reference
        self._faults.raised(text, row.switch, now)
        self._order("fault", "raise", "soak", reference, self._chance.choice(row.identifiers),
                            self._chance.choice(LEVELS), text, "--any")

    def _clear(self, text: str) -> None:
        if reference := self._references.pop(text, None):
            self._faults.cleared(text)
            self._order("fault", "clear", "soak", reference)

    def _switch(self, now: float) -> None:
        """Disables the trap of one kind, or enables it again."""
        if disabled := self._faults.disabled:
            self._enable(disabled.pop(), now)
            return
        kind = self._chance.choice(TRAPS).switch
        self._order("trap", "disable", kind)
        self._faults.disable(kind)

    def _enable(self, kind: str, now: float) -> None:
        self._faults.enable(kind, now)
        self._order("trap", "enable", kind)

    # Restarts of snmpd

    def _restart(self, now: float) -> None:
        if self._restarts.under_way:
            return
        self._ways.append(way := self._ways.pop(0))
        self._restarts.order(now)
        way(now)

    def _change_settings(self, _: float) -> None:
        self._count += 1
        self._order("set", f"{SETTINGS}/mib_2_settings/sys_contact", f"contact {self._count}")

    def _touch(self, _: float) -> None:
        self._device.stir_snmpd_folder()

    def _kill(self, now: float) -> None:
        self._kill_with(signal.SIGKILL, now)

    def _end(self, now: float) -> None:
        self._kill_with(signal.SIGTERM, now)

    def _kill_with(self, number: signal.Signals, now: float) -> None:
        """The daemon notices the closed connection; the changed settings start the next snmpd."""
        self._dying.killing(now)
        for pid in self._device.pids("snmpd"):
            self._device.kill(pid, number)
        self._change_settings(now)
