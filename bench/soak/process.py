"""The daemon's resource use, and the limits of its growth."""
from __future__ import annotations

import statistics
from typing import NamedTuple

RSS_GROWTH_LIMIT_KB = 512

# The pid is the shell's first argument.
LOOK = """cd /proc/$1 && echo at: $(cut -d' ' -f1 /proc/uptime) && echo descriptors: $(ls fd | wc -l) &&
cat smaps_rollup && for t in task/*; do echo task: $(cut -d' ' -f1 $t/schedstat); cat $t/status; done"""


class Sample(NamedTuple):
    at: float
    rss: int  # kB
    pss: int  # kB
    descriptors: int
    threads: int
    cpu: int  # nanoseconds so far, of living threads
    wakes: int  # voluntary context switches so far, of living threads


def sample_from(text: str) -> Sample:
    """Parses the output of LOOK."""
    found: dict[str, list[str]] = {}
    for line in text.splitlines():
        key, colon, value = line.partition(":")
        if colon:
            found.setdefault(key, []).append(value.split()[0] if value.split() else "")
    return Sample(float(found["at"][0]), int(found["Rss"][0]), int(found["Pss"][0]), int(found["descriptors"][0]),
                  len(found["task"]), sum(map(int, found["task"])), sum(map(int, found["voluntary_ctxt_switches"])))


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
