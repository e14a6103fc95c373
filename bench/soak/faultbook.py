"""Every raised fault, and the result of its trap."""
from __future__ import annotations

from dataclasses import dataclass
from typing import NamedTuple


@dataclass
class Fault:
    kind: str  # the name of its trap's switch
    raised: float
    held: bool  # its trap is disabled, so none may arrive yet
    handed_over: float | None = None
    dying: bool = False  # it was sent to a dying master
    received: int = 0
    cleared: bool = False


class Totals(NamedTuple):
    raised: int
    handed_over: int  # faults that the daemon has sent at least once
    received: int  # different ones
    lost: int
    lost_with_master: int
    doubled: int
    unwanted: int  # received while their trap was disabled


class FaultBook:
    """A fault is lost if its trap has not arrived this long after it was raised, or after its trap was enabled."""

    PATIENCE = 30.0

    def __init__(self) -> None:
        self._faults: dict[str, Fault] = {}
        self._disabled: set[str] = set()
        self._unwanted = 0

    @property
    def disabled(self) -> set[str]:
        return set(self._disabled)

    def raised(self, text: str, kind: str, now: float) -> None:
        self._faults[text] = Fault(kind, now, kind in self._disabled)

    def disable(self, kind: str) -> None:
        self._disabled.add(kind)

    def enable(self, kind: str, now: float) -> None:
        self._disabled.discard(kind)
        for fault in self._faults.values():
            if fault.held and fault.kind == kind:
                fault.held, fault.raised = False, now

    def handed_over(self, text: str, dying: bool, now: float) -> None:
        if fault := self._faults.get(text):
            fault.handed_over = fault.handed_over or now
            fault.dying |= dying

    def received(self, text: str) -> bool:
        """True for the first trap of a fault of this book."""
        fault = self._faults.get(text)
        if not fault:
            return False
        self._unwanted += fault.held
        fault.received += 1
        return fault.received == 1

    def cleared(self, text: str) -> None:
        self._faults[text].cleared = True

    def active(self) -> list[str]:
        return [text for text, fault in self._faults.items() if not fault.cleared]

    def waiting(self) -> list[str]:
        """The faults with a pending trap."""
        return [text for text, fault in self._faults.items() if not fault.received and not fault.held]

    def lost(self, now: float) -> list[str]:
        return [text for text in self.waiting() if self._given_up(self._faults[text], now)
                and not self._faults[text].dying]

    def _given_up(self, fault: Fault, now: float) -> bool:
        return now - (fault.handed_over or fault.raised) > self.PATIENCE

    def doubled(self) -> list[str]:
        return [text for text, fault in self._faults.items() if fault.received > 1]

    def totals(self, now: float) -> Totals:
        faults = self._faults.values()
        given_up = [fault for fault in faults if not fault.received and not fault.held and self._given_up(fault, now)]
        with_master = sum(fault.dying for fault in given_up)
        return Totals(len(faults), sum(fault.handed_over is not None for fault in faults),
                      sum(fault.received > 0 for fault in faults), len(given_up) - with_master, with_master,
                      sum(fault.received > 1 for fault in faults), self._unwanted)
