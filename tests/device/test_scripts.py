"""Every program in scripts/ answers --help and refuses an unknown option before it does anything."""
from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest
from support.device import CHECKOUT, bin_dir

SCRIPTS = sorted(path.name for path in (CHECKOUT / "scripts").iterdir() if path.is_file() and os.access(path, os.X_OK))
COMMANDS = [[script] for script in SCRIPTS] + [[script, command] for script in ("device", "fleet")
                                               for command in ("exec", "list", "stop")]
HARMLESS = ["dirname", "sed"]  # more than these, and nothing beside scripts/, would be an action


@pytest.fixture(scope="module")
def tree(tmp_path_factory) -> Path:
    """A tree with nothing but the scripts, and a folder of the programs that they may run."""
    tree = tmp_path_factory.mktemp("tree")
    shutil.copytree(CHECKOUT / "scripts", tree / "scripts", ignore=shutil.ignore_patterns("__pycache__"))
    (tree / "programs").mkdir()
    for program in HARMLESS:
        (tree / "programs" / program).symlink_to(shutil.which(program))
    return tree


def run(tree: Path, command: list[str], *arguments: str) -> subprocess.CompletedProcess[str]:
    before = sorted(tree.rglob("*"))
    script, *words = command
    done = subprocess.run([f"../scripts/{script}", *words, *arguments], cwd=tree / "programs", capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, check=False, timeout=60, env={"PATH": str(tree / "programs")})
    assert sorted(tree.rglob("*")) == before, done
    return done


def shows_usage(text: str, command: list[str]) -> bool:
    return bool(re.search(rf"^(usage:)? +(scripts/|kvsnmp-)?{' '.join(command)}( |$)", text, re.MULTILINE))


@pytest.mark.parametrize("command", COMMANDS, ids=" ".join)
def test_help_and_an_unknown_option_print_the_usage_and_nothing_happens(tree, command):
    for option in ("--help", "-h"):
        done = run(tree, command, option)
        assert (done.returncode, done.stderr) == (0, "")
        assert shows_usage(done.stdout, command), done.stdout
    done = run(tree, command, "--no-such-option")
    assert (done.returncode, done.stdout) == (2, "")
    assert shows_usage(done.stderr, command), done.stderr


@pytest.mark.parametrize("script", ["device", "fleet"])
def test_device_prints_the_version_of_the_tree_and_of_a_package(tmp_path, script):
    version = re.search(r"^project\(kvsnmp VERSION (\S+)", (CHECKOUT / "CMakeLists.txt").read_text(), re.MULTILINE)[1]
    shutil.copytree(CHECKOUT / "scripts", tmp_path / "scripts", ignore=shutil.ignore_patterns("__pycache__"))
    for scripts, name in [(CHECKOUT / "scripts", script), (tmp_path / "scripts", f"kvsnmp-{script}")]:
        done = subprocess.run([scripts / script, "--version"], capture_output=True, text=True, check=True, timeout=60,
                              env={"PATH": f"{bin_dir()}:/usr/bin"})
        assert done.stdout == f"{name} {version}\n"


def test_there_are_scripts():
    assert {"cross", "demo", "device", "fleet", "install-deps", "test"} <= set(SCRIPTS)
