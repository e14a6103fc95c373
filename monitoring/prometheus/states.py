"""States in the dashboards: the colour of each word, and the queries. limits.py defines the faulty words."""
from __future__ import annotations

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "checks"))

from dashboard import Mappings, Steps, values_shown  # noqa: E402  (the path has to be set first)
from limits import CHECKS, SETTINGS, Check  # noqa: E402
from mib import Object  # noqa: E402

CRITICAL, WARNING, GREY, GOOD = "red", "orange", "#808080", ["green", "blue", "purple"]
SWITCHED_OFF = ("disabled", "notMonitored")
NOT_KNOWN = ("notReported", "unknown")
LEVELS = values_shown({0: ("in order", GOOD[0]), 1: ("warning", WARNING), 2: ("critical", CRITICAL)})

CHECK_OF = {check.column: check for check in CHECKS}


def mappings(state: Object) -> Mappings:
    """Each code of a state as its word: faulty ones as in limits.py, unknown and switched off ones grey."""
    check = CHECK_OF.get(state.name)
    judged = check is not None and check.name not in SETTINGS
    good, words = list(GOOD), {}
    for code, word in state.enumeration.items():
        if judged and word in check.critical.split():
            colour = CRITICAL
        elif word in NOT_KNOWN:
            colour = GREY
        elif judged and word in check.warning.split():
            colour = WARNING
        else:
            colour = GREY if word in SWITCHED_OFF else good.pop(0)
        words[code] = word, colour
    return values_shown(words)


def code_query(state: Object, metric: str, here: str) -> str:
    """The current code of each row; a state has one series for each word, 1 for the current one."""
    terms = [f'{metric}{{{here}, {metric}="{word}"}} * {code}' for code, word in state.enumeration.items()]
    return f"sum without ({metric}) (" + " or ".join(terms) + ")"


def steps(column: str, factor: float = 1) -> Steps:
    """The ranges of a measurement as thresholds of Grafana."""
    check = CHECK_OF[column]
    (low, high), (lowest, highest) = ([float(end) * factor if end else None for end in limits.split(":")]
                                      for limits in (check.warning, check.critical))
    ends = [(lowest, WARNING), (low, GOOD[0]), (high, WARNING), (highest, CRITICAL)]
    return [{"value": None, "color": CRITICAL}] + [
        {"value": end, "color": colour} for end, colour in ends if end is not None]


# The worst state


def state(column: str, words: str, more: str = "") -> str:
    return f'kvsnmp:state{{object="{column}", state=~"{"|".join(words.split())}"{more}}}'


def condition(check: Check) -> str:
    """The models that serve the state, and when it is in order whatever it is."""
    text = ""
    if check.models:
        models = " or ".join(f"kvsnmp_info_model_number == {model}" for model in check.models)
        text += f" and on (job, instance) ({models})"
    if check.unless:
        column, words = check.unless.split(maxsplit=1)
        column, _, row = column.partition(".")
        same, chosen = ("job, instance", f', index="{row}"') if row else ("job, instance, index", "")
        text += f" unless on ({same}) {state(column, words, chosen)}"
    return text


def worst_query() -> str:
    """For each device that serves anything: 2 critical, 1 warning, 0 in order; the label worst names the state."""
    terms = []
    for check in CHECKS:
        if check.name in SETTINGS or check.measurement:
            continue
        terms += [f"({state(check.column, words)} * {level}{condition(check)})"
                  for level, words in ((2, check.critical), (1, check.warning)) if words]
    named = f'label_join({" or ".join(terms)}, "worst", ": ", "description", "state")'
    return (f"topk by (instance) (1, max by (instance, worst) ({named})"
            " or on (instance) max by (instance) (kvsnmp_info_model_number) * 0)")
