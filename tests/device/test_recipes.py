"""What the recipes for Yocto and Buildroot name is in the tree. They are not built: that takes Yocto and Buildroot."""
from __future__ import annotations

import hashlib
import re
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parents[2]
YOCTO = (TREE / "packaging/yocto/kvsnmp_git.bb").read_text()
BUILDROOT = (TREE / "packaging/buildroot/kvsnmp/kvsnmp.mk").read_text()
BUILDROOT_CONFIG = (TREE / "packaging/buildroot/kvsnmp/Config.in").read_text()
RECIPES = {"yocto": YOCTO, "buildroot": BUILDROOT, "buildroot's menu": BUILDROOT_CONFIG}


@pytest.mark.parametrize("recipe", RECIPES.values(), ids=RECIPES.keys())
def test_says_that_nobody_builds_it_here(recipe: str) -> None:
    assert "NOT BUILT" in recipe.partition("\n\n")[0].replace("#\n", "")


@pytest.mark.parametrize("recipe, sources", [(YOCTO, r"\$\{S\}/(\S+)"), (BUILDROOT, r"\$\(@D\)/(\S+)")],
                         ids=["yocto", "buildroot"])
def test_installs_files_of_the_tree(recipe: str, sources: str) -> None:
    named = re.findall(sources, recipe)
    assert {Path(path).name for path in named} == {"kvsnmp", "kvsnmp.service", "kvsnmp.tmpfiles"}
    assert [path for path in named if not (TREE / path).is_file()] == []


@pytest.mark.parametrize("recipe, version", [(YOCTO, r'^PV = "([\d.]+)\+git"$'), (BUILDROOT, r"^KVSNMP_VERSION = (.*)$")],
                         ids=["yocto", "buildroot"])
def test_has_the_projects_version(recipe: str, version: str) -> None:
    project = re.search(r"project\(kvsnmp VERSION ([\d.]+)", (TREE / "CMakeLists.txt").read_text())
    assert re.search(version, recipe, re.MULTILINE)[1] == project[1]


@pytest.mark.parametrize("recipe", [YOCTO, BUILDROOT], ids=["yocto", "buildroot"])
def test_sets_options_of_the_build(recipe: str) -> None:
    options = re.findall(r"-D(KVSNMP_\w+)=", recipe)
    assert sorted(options) == ["KVSNMP_SYSTEMD", "KVSNMP_SYSTEMD", "KVSNMP_XRCOMMON_ROOT"]
    cmake = (TREE / "CMakeLists.txt").read_text()
    assert [name for name in options if not re.search(rf"^(option|set)\({name} ", cmake, re.MULTILINE)] == []


def test_yocto_knows_the_licence_by_its_checksum() -> None:
    checksum = re.search(r"file://LICENSE;md5=(\w+)", YOCTO)[1]
    assert checksum == hashlib.md5((TREE / "LICENSE").read_bytes()).hexdigest()


def test_buildroot_selects_what_it_depends_on() -> None:
    dependencies = re.search(r"^KVSNMP_DEPENDENCIES = host-pkgconf (.*)$", BUILDROOT, re.MULTILINE)[1].split()
    selected = re.findall(r"^\tselect BR2_PACKAGE_(\w+)", BUILDROOT_CONFIG, re.MULTILINE)
    assert [name for name in dependencies if name.upper() not in selected] == []
