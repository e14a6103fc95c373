"""One Debian for all files: the tests run in order, test_packages, test_service, test_upgrade, and depend on each other."""
from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path

import pytest

from debianroot import Booted, DebianRoot

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path.append(str(CHECKOUT / "monitoring"))


@pytest.fixture(scope="session")
def debs() -> Path:
    return CHECKOUT / "build/package"


@pytest.fixture(scope="session")
def root(debs: Path) -> DebianRoot:
    made = DebianRoot(CHECKOUT / "build/package/debian/root", debs)
    made.make(["systemd", "dbus", "ca-certificates"])
    made.path("/etc/apt/apt.conf.d/90yes").write_text('APT::Get::Assume-Yes "true";\n')
    # Every installed Debian has it. snmpd sends traps to 127.0.0.1 from "localhost"; without that name it sends none.
    made.path("/etc/hosts").write_text("127.0.0.1 localhost\n")
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
