"""The files for Debian, Yocto and Buildroot fit the tree. Nothing here builds the latter two."""
from __future__ import annotations

import hashlib
import re

import pytest
from support.device import CHECKOUT

BUILD = (CHECKOUT / "CMakeLists.txt").read_text()
YOCTO = (CHECKOUT / "packaging/yocto/kvsnmp_git.bb").read_text()
BUILDROOT = (CHECKOUT / "packaging/buildroot/kvsnmp/kvsnmp.mk").read_text()
VERSION = re.search(r"project\(kvsnmp VERSION ([\d.]+)", BUILD)[1]


@pytest.mark.parametrize("recipe, version", [(YOCTO, f'PV = "{VERSION}+git"'), (BUILDROOT, f"KVSNMP_VERSION = {VERSION}")],
                         ids=["yocto", "buildroot"])
def test_the_version_and_the_options_are_the_build_s(recipe, version):
    assert version in recipe.splitlines()
    options = re.findall(r"-D(KVSNMP_\w+)=", recipe)
    assert "KVSNMP_SYSTEMD" in options
    assert [name for name in options if not re.search(rf"^(option|set)\({name} ", BUILD, re.MULTILINE)] == []


def test_debian_has_the_version_of_the_changelog():
    released = not re.search(r"^## Unreleased$", (CHECKOUT / "CHANGELOG.md").read_text(), re.MULTILINE)
    version = VERSION if released else f"{VERSION}~unreleased"
    assert (CHECKOUT / "debian/changelog").read_text().startswith(f"kvsnmp ({version}) ")


def test_yocto_knows_the_licence_by_its_checksum():
    assert f"file://LICENSE;md5={hashlib.md5((CHECKOUT / 'LICENSE').read_bytes()).hexdigest()}" in YOCTO


def test_buildroot_installs_a_component_of_the_build():
    component = re.search(r"--component (\w+)", BUILDROOT)[1]
    assert f"set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME {component})" in BUILD
