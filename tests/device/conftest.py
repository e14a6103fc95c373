"""Fixtures of the device tests, and the devices' logs in the report of a test that failed."""
from __future__ import annotations

import os
import sys
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).parent))

from support.device import Device  # noqa: E402

StartDevice = Callable[..., Device]
_living: list[Device] = []


def _factory() -> Iterator[StartDevice]:
    """Starts devices and, at the end, ends them and fails when one of them complained."""
    mine: list[Device] = []

    def start(model: int, *options: str, wait: bool = True) -> Device:
        device = Device(model, *options)
        mine.append(device)
        _living.append(device)
        return device.wait_ready() if wait else device

    yield start
    complaints = []
    if os.environ.get("KVSNMP_KEEP") and mine:
        print("\nkept until scripts/device stop:", *(f"{device.name} ({device.root})" for device in mine))
        for device in mine:
            device.wait_stopped()
    for device in mine:
        try:
            complaints += device.stop()
        except Exception as failure:  # the others have to end, too
            complaints.append(f"{device.name}: {failure}")
        _living.remove(device)
    assert not complaints, "\n".join(complaints)


@pytest.fixture
def start_device() -> Iterator[StartDevice]:
    yield from _factory()


@pytest.fixture(scope="module")
def start_shared_device() -> Iterator[StartDevice]:
    """Devices that the tests of a module share."""
    yield from _factory()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if report.failed and call.when == "call":
        for device in _living:
            if device.first_process:
                report.sections.append((f"device {device.name}", device.logs()))
