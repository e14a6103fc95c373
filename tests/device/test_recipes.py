"""The files for Debian, Yocto and Buildroot fit the tree. Nothing here builds the latter two."""
from __future__ import annotations

import hashlib
import re

import pytest
from support.device import CHECKOUT

BUILD = (CHECKOUT / "CMakeLists.txt").read_text()
YOCTO, BUILDROOT = "packaging/yocto/kvsnmp_git.bb", "packaging/buildroot/kvsnmp/kvsnmp.mk"
VERSION = re.search(r"project\(kvsnmp VERSION ([\d.]+)", BUILD)[1]
UNRELEASED = "\n## Unreleased\n" in (CHECKOUT / "CHANGELOG.md").read_text()


@pytest.mark.parametrize("file, pattern, value", [
    (YOCTO, r'^PV = "(.*)"$', f"{VERSION}+git"),
    (YOCTO, r"file://LICENSE;md5=(\w+)", hashlib.md5((CHECKOUT / "LICENSE").read_bytes()).hexdigest()),
    (BUILDROOT, r"^KVSNMP_VERSION = (.*)$", VERSION),
    (BUILDROOT, r"--component (\w+)", re.search(r"set\(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME (\w+)\)", BUILD)[1]),
    ("debian/changelog", r"\Akvsnmp \((.*?)\) ", f"{VERSION}~unreleased" if UNRELEASED else VERSION)])
def test_a_file_has_the_fact_of_the_tree(file, pattern, value):
    assert re.findall(pattern, (CHECKOUT / file).read_text(), re.MULTILINE) == [value]


@pytest.mark.parametrize("recipe", [YOCTO, BUILDROOT])
def test_the_options_are_the_build_s(recipe):
    options = re.findall(r"-D(KVSNMP_\w+)=", (CHECKOUT / recipe).read_text())
    assert "KVSNMP_SYSTEMD" in options
    assert [name for name in options if not re.search(rf"^(option|set)\({name} ", BUILD, re.MULTILINE)] == []
