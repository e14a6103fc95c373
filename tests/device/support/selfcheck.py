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
        self.errors = done.stderr
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

    def consequences(self) -> list[str]:
        return [check["id"] for check in self.report["checks"] if check["because"]]

    def __str__(self) -> str:
        return "\n".join(f"{check['status']:15}{check['id']:22}{check['text']} [{check['because']}]"
                         for check in self.report["checks"])


def assert_healthy(check: SelfCheck) -> None:
    assert check.ids("warning", "failed", "skipped") == [], str(check)
    assert check.status == 0 and check.causes == [], str(check)


def assert_cause(check: SelfCheck, cause: str, *texts: str) -> None:
    """One cause is named, with these words, and every other failure follows from it."""
    assert check.causes == [cause], str(check)
    assert check.status == 1
    found = check.checks[cause]
    assert found["status"] == "failed"
    for text in texts:
        assert text in found["text"]
    others = set(check.ids("failed")) - {cause}
    assert others <= set(check.consequences()), str(check)
    assert {check.checks[other]["because"] for other in check.consequences()} <= {cause}, str(check)


def assert_reports(check: SelfCheck, report: str) -> None:
    """Each line of the report holds: "cause ID: TEXT" the only cause, "warning IDS: TEXT" all warnings, and TEXT is part of
    the first one's text, "text ID: TEXT" and "hint ID: TEXT" part of that check's text or hint, "ok IDS", "because IDS"
    checks that fail or are skipped because of the cause, "because only IDS" all of these."""
    for line in report.strip().splitlines():
        word, _, rest = line.strip().partition(" ")
        name, _, text = rest.partition(": ")
        if word == "cause":
            assert_cause(check, name, text)
        elif word == "warning":
            assert check.ids("warning") == name.split(), str(check)
            assert check.status == 0 and check.causes == [], str(check)
        if word in ("warning", "text", "hint"):
            assert text in check.checks[name.split()[0]]["hint" if word == "hint" else "text"], str(check)
        elif word == "ok":
            assert set(rest.split()) <= set(check.ids("ok")), str(check)
        elif word == "because":
            names, consequences = set(rest.split()), set(check.consequences())
            assert names <= consequences or "only" in names and names == {"only"} | consequences, str(check)
        else:
            assert word == "cause", line
