"""The files of monitoring, and the programs that read them."""
from __future__ import annotations

import functools
import importlib.util
import json
import os
import re
import shutil
import subprocess
import sys
from importlib.machinery import SourceFileLoader
from pathlib import Path
from types import ModuleType
from typing import Any

import yaml

CHECKOUT = Path(__file__).resolve().parents[2]
FOLDER = CHECKOUT / "monitoring/prometheus"
sys.path[:0] = [str(FOLDER.parent), str(FOLDER.parent / "checks"), str(CHECKOUT / "tests/device"), str(FOLDER)]
sys.dont_write_bytecode = True

import walks  # noqa: E402, F401  (the path has to be set first)

BEFORE, SINCE = FOLDER / "snmp-before-0.23.yml", FOLDER / "snmp-from-0.23.yml"
RULES = FOLDER / "kvsnmp.rules.yml"
FLEET, ONE_DEVICE = (FOLDER / f"kvsnmp-{name}.json" for name in ("fleet", "device"))  # dashboards of Grafana
DEVICES, ALERTMANAGER = FOLDER / "kvsnmp-devices.json", FOLDER / "alertmanager.yml"
ALERTS_MD = CHECKOUT / "docs/alerts.md"
UNPACKED = CHECKOUT / "build/monitoring/root"  # by scripts/install-deps monitoring

METRIC = re.compile(r"\b(kvsnmp[_:][\w:]+|up|ALERTS|snmp_\w+)\b(?=[{\[\s)=+*/-]|$)")


def loaded(file: Path) -> ModuleType:
    """One of our programs, in this process."""
    loader = SourceFileLoader(file.name, str(file))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(file.name, loader))
    loader.exec_module(module)
    return module


def program(name: str) -> str:
    """A program of a Debian package that is installed or only unpacked."""
    found = shutil.which(name, path=f"{os.environ.get('PATH', '')}:{UNPACKED}/usr/bin")
    assert found, f"no {name}; scripts/install-deps monitoring fetches it"
    return found


def run(name: str, *arguments: str) -> str:
    done = subprocess.run([program(name), *arguments], capture_output=True, text=True, timeout=120, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


promtool, amtool = functools.partial(run, "promtool"), functools.partial(run, "amtool")


def evaluate(folder: Path, tests: list[dict]) -> None:
    """Runs promtool's unit tests of the rules."""
    file = folder / "rules.test.yml"
    file.write_text(json.dumps({"rule_files": [str(RULES)], "evaluation_interval": "1m", "tests": tests}))
    promtool("test", "rules", str(file))


@functools.cache
def modules() -> dict[str, dict[str, Any]]:
    """The module of each flavour, by file name."""
    before, since = (yaml.safe_load(file.read_text()) for file in (BEFORE, SINCE))
    return {BEFORE.name: before["kvsnmp"], SINCE.name: since["modules"]["kvsnmp"]}


def states() -> dict[str, set[str]]:
    """The words of each metric that has a series for each of them."""
    return {metric["name"]: set(metric["enum_values"].values()) for metric in modules()[BEFORE.name]["metrics"]
            if metric["type"] == "EnumAsStateSet"}


@functools.cache
def groups() -> list[dict[str, Any]]:
    return yaml.safe_load(RULES.read_text())["groups"]


def rules() -> list[dict[str, Any]]:
    return [rule for group in groups() for rule in group["rules"]]


def alerts() -> dict[str, dict[str, Any]]:
    return {rule["alert"]: rule for rule in rules() if "alert" in rule}


def names_in(query: str) -> set[str]:
    """The metrics that a query asks for."""
    without_texts = re.sub(r'"[^"]*"', '""', query)
    without_labels = re.sub(r"\b(by|without|on|ignoring)\s*\([^)]*\)", "", without_texts)
    without_labels = re.sub(r"(?<=[{,])\s*\w+\s*(?==|!)", "", without_labels)
    return set(METRIC.findall(without_labels))


def panels(dashboard: Path) -> list[dict[str, Any]]:
    return json.loads(dashboard.read_text())["panels"]


def queries(dashboard: Path, kind: str = "", instance: str = "$instance") -> list[str]:
    """Of all panels, or of those of a kind; with the instance that Grafana inserts for its variable."""
    return [target["expr"].replace("$instance", instance) for panel in panels(dashboard)
            if kind in ("", panel["type"]) for target in panel["targets"]]
