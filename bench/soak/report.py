"""The output of a run: a line for each minute, and the summary."""
from __future__ import annotations

from .answers import Answers, Times
from .daemonlog import Restarts
from .faultbook import Totals
from .process import Rates, Sample

COLUMNS = ["minute", "RSS kB", "PSS kB", "descr.", "threads", "CPU ms/s", "wakes/s", "restarts", "raised", "sent",
           "received", "lost", "with master", "doubled", "p50 ms", "p99 ms", "max ms", "timeouts"]


def heading() -> str:
    return "  ".join(COLUMNS)


def minute_line(minute: str, sample: Sample, spent: Rates, restarts: int, totals: Totals, times: Times,
                timeouts: int) -> str:
    """Counts are since the start, rates and times of the minute."""
    values = [minute, sample.rss, sample.pss, sample.descriptors, sample.threads, f"{spent.cpu:.1f}",
              f"{spent.wakes:.0f}", restarts, totals.raised, totals.handed_over, totals.received, totals.lost,
              totals.lost_with_master, totals.doubled, f"{times.p50:.2f}", f"{times.p99:.2f}", f"{times.longest:.1f}",
              timeouts]
    return "  ".join(str(value).rjust(len(column)) for value, column in zip(values, COLUMNS))


def end_lines(before: Sample, after: Sample, whole: Rates, memory: tuple[float, float] | None, restarts: Restarts,
              totals: Totals, answers: Answers) -> list[str]:
    seconds = after.at - before.at
    lines = [f"ran {seconds / 60:.1f} minutes",
             f"  idle before and after: RSS {before.rss} and {after.rss} kB, PSS {before.pss} and {after.pss} kB, "
             f"descriptors {before.descriptors} and {after.descriptors}, threads {before.threads} and {after.threads}"]
    if memory:
        lines.append(f"  RSS under load, after the warm-up and at the end: {memory[0]:.0f} and {memory[1]:.0f} kB")
    lines += [
        f"  CPU {(after.cpu - before.cpu) / 1e9:.1f} s, {whole.cpu:.1f} ms a second; "
        f"{whole.wakes:.0f} wake-ups a second",
        f"  {restarts.count} restarts of snmpd, the longest {restarts.longest:.1f} s from the order to the new session",
        f"  {totals.raised} faults raised: {totals.handed_over} sent, {totals.received} received, {totals.lost} lost, "
        f"{totals.lost_with_master} lost with a master that was killed, {totals.doubled} doubled, "
        f"{totals.unwanted} received while disabled",
        f"  during restarts {answers.answered_during_restarts} requests answered, "
        f"{answers.unanswered_during_restarts} not",
        f"  outside restarts {answers.timeouts} timeouts, {len(answers.wrong)} wrong answers"]
    for kind, times in answers.by_kind().items():
        lines.append(f"    {kind:<10} {times.count:>8} answers: p50 {times.p50:.2f}, p99 {times.p99:.2f}, "
                     f"longest {times.longest:.1f} ms")
    return lines
