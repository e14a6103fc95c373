"""Waiting for a condition, never for a time."""
from __future__ import annotations

import time
from collections.abc import Callable
from typing import TypeVar

T = TypeVar("T")


def wait_until(condition: Callable[[], T], timeout: float = 10.0, interval: float = 0.02, what: str = "") -> T:
    """The first true result of `condition`; fails the test if there is none in time."""
    limit = time.monotonic() + timeout
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > limit:
            raise AssertionError(f"not within {timeout} s: {what or condition!r}; last answer {answer!r}")
        time.sleep(interval)


def stays(condition: Callable[[], bool], duration: float, interval: float = 0.02, what: str = "") -> None:
    """Fails the test when `condition` becomes false within the duration."""
    limit = time.monotonic() + duration
    while time.monotonic() < limit:
        assert condition(), f"no longer true: {what}"
        time.sleep(interval)
