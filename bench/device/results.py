"""The figures of a run: samples of each subject by the figure's name, which ends with the unit."""
from __future__ import annotations

import json
import statistics
from pathlib import Path
from typing import NamedTuple

from .subjects import KVSNMP, PEERS, Subject


class Spread(NamedTuple):
    low: float  # the lower quartile
    median: float
    high: float


class Results:
    def __init__(self) -> None:
        self.about = ""  # the machine, the day and the subjects' versions
        self.figures: dict[str, dict[str, list[float]]] = {}

    def add(self, figure: str, subject: Subject, *samples: float) -> None:
        self.figures.setdefault(figure, {}).setdefault(subject.name, []).extend(samples)

    def spread(self, figure: str, subject: Subject = KVSNMP) -> Spread | None:
        samples = self.figures.get(figure, {}).get(subject.name, [])
        if len(samples) < 2:
            return Spread(*samples * 3) if samples else None
        return Spread(*statistics.quantiles(samples, n=4, method="inclusive"))

    def median(self, figure: str, subject: Subject = KVSNMP) -> float | None:
        spread = self.spread(figure, subject)
        return spread.median if spread else None

    def best_peer(self, figure: str) -> float | None:
        best = max if "per second" in figure else min
        return best([median for peer in PEERS if (median := self.median(figure, peer)) is not None], default=None)

    def save(self, file: Path) -> None:
        file.write_text(json.dumps(vars(self), indent=1) + "\n")

    @staticmethod
    def load(file: Path) -> Results:
        results = Results()
        vars(results).update(json.loads(file.read_text()))
        return results
