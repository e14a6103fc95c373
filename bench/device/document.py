"""The generated parts of docs/performance.md, between their markers, and the picture."""
from __future__ import annotations

import re
import textwrap
from collections.abc import Iterable
from pathlib import Path

from .daemon import PLAIN
from .picture import picture
from .requests import FREE, PINNED
from .results import Results, Spread
from .subjects import KVSNMP, SUBJECTS, Subject
from .targets import PEER_GRIDS, Verdict, against_best_peer, single_targets

STANDARD_FIGURES = ["start to first answer, s", "RSS at start, kB", "PSS at start, kB",
                    "start: walk of all objects, CPU per variable, us"]


def document_parts(results: Results) -> dict[str, str]:
    """The texts by the names of their markers."""
    return {"conditions": results.about, "targets": _targets(results),
            "standard tables": _table(results, STANDARD_FIGURES, {"on": KVSNMP, "off": PLAIN}),
            "all figures": _all_figures(results)}


def write_documents(results: Results, docs: Path) -> None:
    page = docs / "performance.md"
    text = page.read_text()
    for name, part in document_parts(results).items():
        begin, end = f"<!-- begin: {name} -->", f"<!-- end: {name} -->"
        if text.count(begin) != 1 or text.count(end) != 1:
            raise SystemExit(f"bench-device: no part \"{name}\" in {page}")
        before, _, rest = text.partition(begin)
        text = f"{before}{begin}\n\n{_wrapped(part)}\n\n{end}{rest.partition(end)[2]}"
    page.write_text(text)
    (docs / "pictures/performance.svg").write_text(picture(results))


def _wrapped(part: str) -> str:
    return part if "|" in part else "\n".join(textwrap.wrap(part, 99, break_long_words=False, break_on_hyphens=False))


def _targets(results: Results) -> str:
    grids = [(objects, {label: [against_best_peer(results, figure.format(which)) for which in objects]
                        for label, figure in lines.items()}) for objects, lines in PEER_GRIDS]
    singles = single_targets(results)
    verdicts = [verdict for _, lines in grids for line in lines.values() for verdict in line] + list(singles.values())
    judged = [verdict for verdict in verdicts if verdict]
    met = sum(verdict.met for verdict in judged)
    parts = [f"**Met: {met} of {len(judged)} figures.** " + ("" if met == len(judged) else "The others are bold.")]
    for objects, lines in grids:
        parts.append(_markdown([["here / best peer", *objects],
                                *([label, *map(_verdict, line)] for label, line in lines.items())]))
    parts.append(_markdown([["target", "here / bound"],
                            *([label, _verdict(verdict)] for label, verdict in singles.items())]))
    return "\n\n".join(parts)


def _verdict(verdict: Verdict | None) -> str:
    if not verdict:
        return "not measured"
    text = f"{_number(verdict.measured)} / {_number(verdict.bound)}"
    return f"{text} met" if verdict.met else f"**{text} NOT MET**"


def _all_figures(results: Results) -> str:
    """In groups: what all have alone, free, pinned, and of the daemon alone."""
    groups: dict[str, list[str]] = {"": [], f"{FREE}: ": [], f"{PINNED}: ": [], "start: ": [], KVSNMP.name: []}
    for figure, values in results.figures.items():
        alone = KVSNMP.name if set(values) <= {KVSNMP.name} else ""
        place = next((group for group in groups if group and figure.startswith(group)), alone)
        if not re.search(r"at once, context switches", figure) and (any(map(any, values.values())) or alone):
            groups[place].append(figure)
    subjects = {subject.name: subject for subject in SUBJECTS}
    return "\n\n".join([*(_table(results, groups[group], subjects) for group in ("", f"{FREE}: ", f"{PINNED}: ")),
                        _table(results, groups[KVSNMP.name], {KVSNMP.name: KVSNMP})])


def _table(results: Results, figures: Iterable[str], columns: dict[str, Subject]) -> str:
    return _markdown([["median (quartiles)", *columns],
                      *([figure, *(_spread(results.spread(figure, subject)) for subject in columns.values())]
                        for figure in figures)])


def _spread(spread: Spread | None) -> str:
    if not spread:
        return ""
    if spread.low == spread.high:
        return _number(spread.median)
    return f"{_number(spread.median)} ({_number(spread.low)} to {_number(spread.high)})"


def _number(value: float) -> str:
    if value == int(value) or abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.1f}" if abs(value) >= 10 else f"{value:.2f}"


def _markdown(lines: list[list[str]]) -> str:
    """GitHub's Markdown, aligned as plain text; the first line is the heading."""
    widths = [max(map(len, column)) for column in zip(*lines)]
    rule = ["-" * widths[0], *("-" * (width - 1) + ":" for width in widths[1:])]
    return "\n".join("| " + " | ".join([line[0].ljust(widths[0]), *map(str.rjust, line[1:], widths[1:])]) + " |"
                     for line in [lines[0], rule, *lines[1:]])
