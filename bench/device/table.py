"""The table of a run: a line for each figure, a column for each subject, the daemon's ratios to the floor and to the
best peer."""
from __future__ import annotations

from .subjects import FLOOR, KVSNMP, PEERS, SUBJECTS, Subject


class Table:
    def __init__(self) -> None:
        self._rows: dict[str, dict[Subject, float]] = {}
        self._without_ratio: set[str] = set()

    def add(self, figure: str, subject: Subject, value: float, ratio: bool = True) -> None:
        """`figure` includes the unit: "GET, p50, us"."""
        self._rows.setdefault(figure, {})[subject] = value
        if not ratio:
            self._without_ratio.add(figure)

    def value(self, figure: str, subject: Subject = KVSNMP) -> float | None:
        return self._rows.get(figure, {}).get(subject)

    def best_peer(self, figure: str) -> float | None:
        best = max if "per second" in figure else min
        return best([values[peer] for values in [self._rows.get(figure, {})] for peer in PEERS if peer in values],
                    default=None)

    def text(self) -> str:
        lines = [["figure", *(subject.name for subject in SUBJECTS), "to the floor", "to the best peer"]]
        for figure, values in self._rows.items():
            own = None if figure in self._without_ratio else values.get(KVSNMP)
            lines.append([figure, *(number(values.get(subject)) for subject in SUBJECTS),
                          _ratio(own, values.get(FLOOR)), _ratio(own, self.best_peer(figure))])
        return markdown(lines)


def markdown(lines: list[list[str]], words: int = 1) -> str:
    """GitHub's Markdown, aligned as plain text; the first line is the heading, `words` columns are not numbers."""
    widths = [max(map(len, column)) for column in zip(*lines)]
    rule = ["-" * width if place < words else "-" * (width - 1) + ":" for place, width in enumerate(widths)]
    return "\n".join("| " + " | ".join(word.ljust(width) if place < words else word.rjust(width)
                                       for place, (word, width) in enumerate(zip(line, widths))) + " |"
                     for line in [lines[0], rule, *lines[1:]])


def number(value: float | None) -> str:
    if value is None:
        return ""
    if value == int(value) or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def _ratio(own: float | None, other: float | None) -> str:
    return f"{own / other:.2f}" if own is not None and other else ""
