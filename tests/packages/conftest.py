"""One Debian for all files: the tests run in order, test_packages, test_service, test_upgrade, and depend on each other."""
from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path += [str(CHECKOUT / "monitoring"), str(CHECKOUT / "tests/device")]

from debianroot import Booted, DebianRoot  # noqa: E402  (the path has to be set first)


@pytest.fixture(scope="session")
def debs() -> Path:
    return CHECKOUT / "build/package"


@pytest.fixture(scope="session")
def root(debs: Path) -> DebianRoot:
    made = DebianRoot(CHECKOUT / "build/package/debian/root", debs)
    made.make(["systemd", "dbus", "ca-certificates"])
    return made


@pytest.fixture(scope="session")
def booted(root: DebianRoot) -> Iterator[Booted]:
    """From the first test that asks for it to the end."""
    # The booted one has no network.
    root.run("apt-get", "install", "--no-install-recommends", "--download-only", "snmptt")
    root.service_policy.unlink()  # from here on services start as on any Debian
    system = Booted(root)
    yield system
    system.stop()
