"""The daemon's resource use, and the limits of its growth."""
from __future__ import annotations

import statistics
import time
from typing import NamedTuple

from device.processes import Process, kilobytes, spent

RSS_GROWTH_LIMIT_KB = 512


class Sample(NamedTuple):
    at: float
    rss: int  # kB
    pss: int  # kB
    descriptors: int
    threads: int
    cpu: int  # nanoseconds so far, of living threads
    wakes: int  # voluntary context switches so far, of living threads


def sample(process: Process) -> Sample:
    used = spent([process])
    return Sample(time.monotonic(), kilobytes([process], "Rss"), kilobytes([process], "Pss"),
                  len(list((process.folder / "fd").iterdir())), len(process.tasks()), used.nanoseconds, used.wakes)


class Rates(NamedTuple):
    cpu: float  # milliseconds a second
    wakes: float  # a second


def rates(early: Sample, late: Sample) -> Rates:
    seconds = late.at - early.at
    if seconds <= 0:
        return Rates(0.0, 0.0)
    return Rates((late.cpu - early.cpu) / 1e6 / seconds, (late.wakes - early.wakes) / seconds)


class Growth:
    """Memory is compared under the same load: the median of a span after the warm-up with that of the last span.
    Descriptors and threads are compared while idle."""

    def __init__(self, seconds: float) -> None:
        self.warm_up = min(300.0, seconds / 3)
        self.span = max(5.0, min(120.0, seconds / 6))
        self._samples: list[Sample] = []

    def add(self, sample: Sample) -> None:
        self._samples.append(sample)

    def memory(self) -> tuple[float, float] | None:
        """RSS in kB after the warm-up and at the end; None if the run was too short for two spans."""
        if not self._samples:
            return None
        begin, end = self._samples[0].at + self.warm_up, self._samples[-1].at
        if begin + self.span > end - self.span:
            return None
        return self._median(begin, begin + self.span), self._median(end - self.span, end)

    def _median(self, begin: float, end: float) -> float:
        return statistics.median(sample.rss for sample in self._samples if begin <= sample.at <= end)

    def findings(self, before: Sample, after: Sample, memory_counts: bool = True) -> list[str]:
        """The growth; `before` and `after` are idle samples."""
        found = []
        if after.descriptors != before.descriptors:
            found.append(f"idle descriptors: {before.descriptors} before, {after.descriptors} after")
        if after.threads != before.threads:
            found.append(f"idle threads: {before.threads} before, {after.threads} after")
        memory = self.memory()
        if memory_counts and memory and memory[1] - memory[0] > RSS_GROWTH_LIMIT_KB:
            found.append(f"RSS grew by {memory[1] - memory[0]:.0f} kB after the warm-up; "
                         f"the limit is {RSS_GROWTH_LIMIT_KB} kB")
        return found
