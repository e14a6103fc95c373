"""The generators of monitoring/ make the tracked files, and --check finds each stale file."""
from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
MADE = {
    "checks": ["check_kvsnmp.json", "kvsnmp-services.cfg"],
    "prometheus": ["../../docs/alerts.md", "generator.yml", "kvsnmp-device.json", "kvsnmp-fleet.json", "metrics.md",
                   "snmp-before-0.23.yml", "snmp-from-0.23.yml"],
    "snmptrapd": ["snmptt.conf.kvsnmp"],
    "zabbix": ["kvsnmp-template.yaml"],
}
READ = "prometheus/kvsnmp.rules.yml"  # written by hand
UNTRACKED = "recordings"  # the device tests read what it makes


@pytest.fixture(scope="module")
def copy(tmp_path_factory) -> Path:
    """The folder monitoring/ with the generators only, beside what they read."""
    tree = tmp_path_factory.mktemp("tree")
    for scripts in ("*.py", "*/*.py", "*/generate", READ):
        for script in (CHECKOUT / "monitoring").glob(scripts):
            place = tree / script.relative_to(CHECKOUT)
            place.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(script, place)
    (tree / "docs").mkdir()
    for beside in ("build", "mibs", "tests"):
        (tree / beside).symlink_to(CHECKOUT / beside)
    return tree / "monitoring"


def generate(folder: Path, *options: str) -> tuple[int, list[str]]:
    done = subprocess.run([folder / "generate", *options], capture_output=True, text=True, timeout=120, check=False)
    assert not done.stderr, done.stderr
    return done.returncode, done.stdout.splitlines()


def texts(folder: Path) -> dict[str, str]:
    """What was made, by path from the folder."""
    return {os.path.relpath(file, folder): file.read_text()
            for place in {(folder / made).resolve().parent for made in MADE[folder.name]} for file in place.iterdir()
            if file.suffix != ".py" and file.name != "generate" and not READ.endswith(file.name)}


@pytest.mark.parametrize("name", MADE)
def test_makes_what_is_tracked_and_finds_what_is_stale(copy, name):
    tracked = {file: (CHECKOUT / "monitoring" / name / file).read_text() for file in MADE[name]}
    stale = [f"{os.path.normpath(f'monitoring/{name}/{file}')} is stale; run monitoring/{name}/generate" for file in MADE[name]]
    status, said = generate(copy / name, "--check")
    assert (status, sorted(said), texts(copy / name)) == (1, stale, {}), "there is no file yet"
    assert generate(copy / name)[0] == 0
    assert texts(copy / name) == tracked, f"run monitoring/{name}/generate"
    assert generate(copy / name, "--check") == (0, [])
    for file, text in tracked.items():
        (copy / name / file).write_text(text + "\n")
    status, said = generate(copy / name, "--check")
    assert (status, sorted(said)) == (1, stale), "a line was added to each"
    for file, text in tracked.items():
        first = text.splitlines()[file.endswith(".json")]  # JSON has no comments: the first key
        assert f"Made by monitoring/{name}/generate; changes are lost" in first


def test_every_generator_is_tested():
    assert {script.parent.name for script in (CHECKOUT / "monitoring").glob("*/generate")} == {*MADE, UNTRACKED}
