"""The generators of monitoring/ make the tracked files, and --check finds each stale file."""
from __future__ import annotations

import os
import shutil
import subprocess
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
UNTRACKED = "recordings"  # the device tests read what it makes
NAMES = sorted({script.parent.name for script in (CHECKOUT / "monitoring").glob("*/generate")} - {UNTRACKED})


@pytest.fixture(scope="module")
def tree(tmp_path_factory) -> Path:
    tree = tmp_path_factory.mktemp("tree")
    for folder in ("docs", "monitoring"):
        shutil.copytree(CHECKOUT / folder, tree / folder, ignore=shutil.ignore_patterns("__pycache__"))
    for beside in ("build", "mibs", "tests"):
        (tree / beside).symlink_to(CHECKOUT / beside)
    return tree


def texts(tree: Path) -> dict[Path, str]:
    return {file: file.read_text() for folder in ("docs", "monitoring") for file in (tree / folder).rglob("*")
            if file.is_file() and file.suffix not in (".png", ".pyc")}


@pytest.mark.parametrize("name", NAMES)
def test_makes_what_is_tracked_and_finds_what_is_stale(tree, name):
    def generate(*options: str) -> tuple[int, list[str]]:
        done = subprocess.run([tree / "monitoring" / name / "generate", *options], capture_output=True, text=True, timeout=120,
                              check=False)
        assert not done.stderr, done.stderr
        return done.returncode, sorted(done.stdout.splitlines())

    tracked = texts(tree)
    made = {file: text for file, text in tracked.items()  # JSON has no comments: the first key
            if f"Made by monitoring/{name}/generate; changes are lost" in "".join(text.splitlines()[:2])}
    stale = 1, sorted(f"{os.path.relpath(file, tree)} is stale; run monitoring/{name}/generate" for file in made)
    assert made and generate("--check") == (0, []), f"run monitoring/{name}/generate"
    for file, text in made.items():
        file.write_text(text + "\n")
    assert generate("--check") == stale, "a line was added to each"
    for file in made:
        file.unlink()
    assert generate("--check") == stale, "there is no file"
    assert generate()[0] == 0
    assert texts(tree) == tracked
