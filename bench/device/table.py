"""The one table of a run: a line for each figure, a column for each subject, the first subject's ratio to the floor."""
from __future__ import annotations

from .subjects import FLOOR, KVSNMP


class Table:
    def __init__(self, subjects: list[str]) -> None:
        self._subjects = subjects
        self._rows: dict[str, dict[str, float]] = {}

    def add(self, figure: str, subject: str, value: float) -> None:
        """`figure` names the unit, too: "GET, p50, us"."""
        self._rows.setdefault(figure, {})[subject] = value

    def text(self) -> str:
        """As GitHub's Markdown, aligned to be read as it is."""
        peers = [name for name in self._subjects if name not in (KVSNMP.name, FLOOR.name)]
        lines = [["figure", *self._subjects, "to the floor", *(["to the best peer"] if peers else [])]]
        for figure, values in self._rows.items():
            own, floor = values.get(KVSNMP.name), values.get(FLOOR.name)
            line = [figure, *(_number(values.get(name)) for name in self._subjects), _ratio(own, floor)]
            if peers:
                best = max if "per second" in figure else min
                line.append(_ratio(own, best([values[name] for name in peers if name in values], default=None)))
            lines.append(line)
        widths = [max(map(len, column)) for column in zip(*lines)]
        lines.insert(1, ["-" * widths[0], *("-" * (width - 1) + ":" for width in widths[1:])])
        return "\n".join("| " + " | ".join(word.ljust(width) if number == 0 else word.rjust(width)
                                           for number, (word, width) in enumerate(zip(line, widths))) + " |"
                         for line in lines)


def _number(value: float | None) -> str:
    if value is None:
        return ""
    if value == int(value) or value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def _ratio(own: float | None, other: float | None) -> str:
    return f"{own / other:.2f}" if own is not None and other else ""
