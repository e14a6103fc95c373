"""kvsnmp's unit on a booted Debian: what it shows, what snmpd answers, and waits for both."""
from __future__ import annotations

from pathlib import Path

import guide
import walks  # the path is set by conftest.py
from debianroot import Booted, wait_until
from support.snmp import TABLES

MODEL_NUMBER = f"{TABLES}.1.3.0"
GOLDEN_WALK = walks.text_of("6420")


def write_shown_file(booted: Booted, path: str, mode: int = 0o644) -> None:
    file = booted.root.path(path)
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(guide.files()[path])
    file.chmod(mode)


def shown(booted: Booted, name: str) -> str:
    return booted.output("systemctl", "show", "-P", name, "kvsnmp.service")


def main_pid(booted: Booted) -> int:
    return int(shown(booted, "MainPID") or 0)


def snmpd_pids(booted: Booted) -> list[str]:
    return booted.output("pgrep", "-x", "snmpd").split()


def answers(booted: Booted) -> bool:
    answer = booted.output("snmpget", "-v2c", "-c", "public", "-On", "-r", "0", "-t", "1", "127.0.0.1", MODEL_NUMBER)
    return answer == f"{MODEL_NUMBER} = INTEGER: 6420"


def wait_answering(booted: Booted) -> None:
    try:
        wait_until(lambda: answers(booted), 20, what="the model number through snmpd")
    except AssertionError:
        print(booted.output("systemctl", "status", "--no-pager", "-l", "kvsnmp.service"))
        print(booted.output("journalctl", "--no-pager", "-n", "60"))
        raise


def restart(booted: Booted) -> None:
    booted.run("systemctl", "daemon-reload")
    booted.run("systemctl", "restart", "kvsnmp.service")
    wait_answering(booted)


def wait_new_snmpd(booted: Booted, before: list[str], what: str) -> None:
    wait_until(lambda: snmpd_pids(booted) not in ([], before), 20, what=what)
    wait_answering(booted)


def add_drop_in(booted: Booted, name: str, setting: str) -> Path:
    file = booted.root.path(f"/etc/systemd/system/kvsnmp.service.d/{name}.conf")
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(f"[Service]\n{setting}\n")
    booted.run("systemctl", "daemon-reload")
    return file


def walk(booted: Booted) -> str:
    return booted.output("snmpwalk", "-v2c", "-c", "public", "-On", "-Oe", "-OU", "127.0.0.1", TABLES) + "\n"


def wait_golden_walk(booted: Booted) -> None:
    """A walk before the data have come shows the starting values, and keeps those of the tables for 60 s."""
    wait_until(lambda: "kvsnmp_sys_messages" in booted.output("talctl", "subscriptions"), 20, what="subscriptions")
    wait_until(lambda: walk(booted) == GOLDEN_WALK, 75, what="the golden walk")


def wait_next_tick(booted: Booted, poll: bool = False) -> None:
    """The daemon has written its watchdog file again, with a walk in between if `poll`."""
    def written() -> str:
        return booted.output("stat", "-c", "%y", "/tmp/kvsnmp.watchdogtest")

    before = written()
    wait_until(lambda: (not poll or walk(booted)) and written() != before, 10, what="a tick of 5 s")
