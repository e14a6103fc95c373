"""kvsnmp-check run in a device, its JSON as an object."""
from __future__ import annotations

import json
from typing import Any

from .device import Device


class SelfCheck:
    """One run. The waits are short: on a throw-away device everything answers at once or never. Each failure and each
    warning has a hint."""

    def __init__(self, device: Device, *arguments: str, timeout: str = "2") -> None:
        done = device.run(["kvsnmp-check", "--json", "--timeout", timeout, *arguments], check=False)
        self.status = done.returncode
        self.report: dict[str, Any] = json.loads(done.stdout)
        self.checks: dict[str, dict[str, str]] = {check["id"]: check for check in self.report["checks"]}
        hintless = [name for name in self.ids("failed", "warning") if not self.checks[name]["hint"]]
        assert hintless == [], str(self)

    @property
    def causes(self) -> list[str]:
        return self.report["causes"]

    def ids(self, *statuses: str) -> list[str]:
        return [check["id"] for check in self.report["checks"] if check["status"] in statuses]

    def text(self, check: str) -> str:
        return self.checks[check]["text"]

    def __str__(self) -> str:
        return "\n".join(f"{check['status']:15}{check['id']:22}{check['text']} [{check['because']}]"
                         for check in self.report["checks"])


def assert_healthy(check: SelfCheck) -> None:
    assert check.ids("warning", "failed", "skipped") == [], str(check)
    assert check.status == 0 and check.causes == [], str(check)


def assert_reports(check: SelfCheck, report: str) -> None:
    """Each line of the report holds:
    "cause IDS: TEXT" the only causes, from which every other failure follows, with TEXT in the first one's text
    "warning IDS: TEXT" all warnings, with TEXT in the first one's text; nothing failed
    "text ID: TEXT", "hint ID: TEXT" in that check's text or hint
    "ok IDS"
    "because IDS" these fail or are skipped because of the first cause; "because only IDS" no others do"""
    consequences = {one["id"]: one["because"] for one in check.report["checks"] if one["because"]}
    for line in report.strip().splitlines():
        word, _, rest = line.strip().partition(" ")
        name, _, text = rest.partition(": ")
        names = name.split()
        if word == "cause":
            assert (check.status, check.causes) == (1, names), str(check)
            assert set(consequences.values()) <= set(names), str(check)
            assert set(check.ids("failed")) <= {*names, *consequences}, str(check)
        elif word == "warning":
            assert check.ids("warning") == names, str(check)
            assert check.status == 0 and check.causes == [], str(check)
        elif word == "ok":
            assert set(names) <= set(check.ids("ok")), str(check)
        elif word == "because":
            only, awaited = names[0] == "only", dict.fromkeys(names, check.causes[0])
            awaited.pop("only", "")
            assert awaited == consequences if only else awaited.items() <= consequences.items(), str(check)
        else:
            assert word in ("text", "hint"), line
        assert text in check.checks.get(names[0], {"text": ""})["hint" if word == "hint" else "text"], str(check)
