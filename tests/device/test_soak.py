"""scripts/soak: what it counts, and a short run of the whole."""
from __future__ import annotations

import json
import os
import re
import signal
import subprocess
import sys
from array import array
from pathlib import Path

import pytest
from support.device import CHECKOUT, bin_dir, registry
from support.polling import wait_until

sys.path.insert(0, str(CHECKOUT / "bench"))

from soak.answers import Answers, times_of  # noqa: E402
from soak.daemonlog import DISCONNECTED, RESTARTING, DyingWindow, Line, LogFollower, Restarts  # noqa: E402
from soak.faultbook import FaultBook  # noqa: E402
from soak.process import RSS_GROWTH_LIMIT_KB, Growth, Sample, rates, sample_from  # noqa: E402

CONNECTED = "NET-SNMP version 5.9.3 AgentX subagent connected"
TOLD = f"{DISCONNECTED}, reconnecting in 1"


def sent(text: str) -> str:
    return f"FaultHandler reportTraps Trap fault ID: 5 description: {text} ->Send SUCCESS"


def lines(*texts: str, after: float = 9.9, before: float = 10.0) -> list[Line]:
    return [Line(after, before, text) for text in texts]


# The daemon's log


def test_log_is_read_by_whole_lines(tmp_path: Path):
    path = tmp_path / "log"
    path.write_bytes(b"one\ntw")
    follower = LogFollower(path, 1.0)
    assert follower.look(2.0) == [Line(1.0, 2.0, "one")]
    with open(path, "ab") as log:
        log.write(b"o\n\xff\n")
    assert follower.look(3.0) == [Line(2.0, 3.0, "two"), Line(2.0, 3.0, "\ufffd")]
    assert follower.look(4.0) == []
    follower.close()


def test_restart_lasts_from_the_order_to_the_new_session():
    restarts = Restarts()
    restarts.order(5.0)
    for line in (*lines(CONNECTED), *lines(RESTARTING), *lines(TOLD), *lines(CONNECTED, after=11.9, before=12.0)):
        assert restarts.under_way
        restarts.take(line)
    assert (restarts.under_way, restarts.count, restarts.longest) == (False, 1, 7.0)
    end = 12.0 + Restarts.MARGIN
    overlaps = [(4.0, 4.9, False), (4.0, 5.0, True), (6.0, 7.0, True), (1.0, 99.0, True), (end, end + 1, True),
                (end + 0.1, end + 1, False)]
    assert [restarts.overlap(begin, stop) for begin, stop, _ in overlaps] == [expected for _, _, expected in overlaps]


def test_restart_that_nobody_ordered_begins_before_its_line_was_read():
    restarts = Restarts()
    assert not restarts.overlap(0.0, 99.0)
    restarts.take(Line(20.0, 20.1, RESTARTING))
    assert restarts.overlap(19.0, 20.0) and not restarts.overlap(19.0, 19.9)
    assert restarts.waits(25.0) == 5.0
    restarts.take(Line(21.0, 21.1, CONNECTED))
    assert restarts.waits(25.0) == 0.0
    assert restarts.overlap(20.5, 20.6) and not restarts.overlap(22.0, 23.0)


def test_handed_over_to_a_dying_master_until_the_daemon_knows():
    dying = DyingWindow()
    assert list(dying.handed_over(lines(sent("a")))) == [("a", False)]
    dying.killing(20.0)
    assert list(dying.handed_over(lines(sent("b"), before=19.7))) == [("b", False)]
    assert list(dying.handed_over(lines(sent("c"), before=19.9))) == [("c", True)]
    assert list(dying.handed_over(lines(sent("d"), TOLD, sent("e ->Send SUCCESS"), before=20.2))) == [
        ("d", True), ("e ->Send SUCCESS", False)]
    assert list(dying.handed_over(lines(sent("f").replace("SUCCESS", "FAILED")))) == []


# Faults


def test_fault_received_once_is_neither_lost_nor_doubled():
    book = FaultBook()
    book.raised("a", "LET Fault", 1.0)
    assert book.waiting() == ["a"]
    book.handed_over("a", False, 1.1)
    assert book.received("a") and not book.received("not of this book")
    assert book.waiting() == book.lost(99.0) == book.doubled() == []
    assert book.totals(99.0) == (1, 1, 1, 0, 0, 0, 0)
    assert book.active() == ["a"]
    book.cleared(["a"])
    assert book.active() == []


def test_fault_whose_trap_never_comes_is_lost():
    book = FaultBook()
    book.raised("a", "LET Fault", 1.0)
    book.raised("sent late", "LET Fault", 1.0)
    book.handed_over("sent late", False, 20.0)
    assert book.lost(1.0 + FaultBook.PATIENCE) == []
    assert book.lost(2.0 + FaultBook.PATIENCE) == ["a"]
    assert book.lost(21.0 + FaultBook.PATIENCE) == ["a", "sent late"]
    assert book.totals(99.0) == (2, 1, 0, 2, 0, 0, 0)


def test_fault_handed_over_to_a_dying_master_is_counted_apart():
    book = FaultBook()
    book.raised("a", "LET Fault", 1.0)
    book.handed_over("a", True, 2.0)
    assert book.lost(99.0) == []
    assert book.totals(99.0) == (1, 1, 0, 0, 1, 0, 0)
    assert book.received("a")
    assert book.totals(99.0) == (1, 1, 1, 0, 0, 0, 0)


def test_fault_received_twice_is_doubled_whenever_it_was_handed_over():
    book = FaultBook()
    book.raised("a", "LET Fault", 1.0)
    book.handed_over("a", True, 2.0)
    assert book.received("a")
    assert not book.received("a")
    assert book.doubled() == ["a"]
    assert book.totals(99.0).doubled == 1


def test_disabled_trap_is_awaited_from_the_moment_it_is_enabled():
    book = FaultBook()
    book.raised("before", "LET Fault", 1.0)
    book.disable("LET Fault")
    book.raised("a", "LET Fault", 2.0)
    book.raised("b", "Fuse Broken", 2.0)
    assert book.disabled == {"LET Fault"}
    assert book.waiting() == ["before", "b"]
    book.enable("LET Fault", 90.0)
    assert (book.disabled, book.waiting()) == (set(), ["before", "a", "b"])
    assert book.lost(91.0) == ["before", "b"]
    assert book.lost(121.0) == ["before", "a", "b"]


def test_trap_that_comes_while_it_is_disabled_is_told():
    book = FaultBook()
    book.raised("before", "LET Fault", 1.0)
    book.disable("LET Fault")
    book.raised("a", "LET Fault", 2.0)
    assert book.received("before") and book.received("a")
    assert book.totals(3.0).unwanted == 1


# Answers


def report(kind: str, good=(), bad=()) -> str:
    return json.dumps({"kind": kind, "good": good, "bad": bad})


def test_percentiles_are_of_the_ordered_times():
    assert times_of(array("d", range(101))) == (101, 50.0, 99.0, 100.0)
    assert times_of(array("d", [7.0])) == (1, 7.0, 7.0, 7.0)
    assert times_of(array("d")) == (0, 0.0, 0.0, 0.0)


def test_answers_are_added_up_by_kind_once_restarts_are_known():
    restarts = Restarts()
    answers = Answers(restarts)
    answers.report(report("GET", good=[(10.0, 1.0), (20.0, 3.0)],
                          bad=[(18.0, 20.0, "timeout"), (1.0, 3.0, "timeout")]), 20.1)
    answers.report(report("walk", good=[(10.0, 5.0)], bad=[(2.0, 3.0, "a NULL"), (19.9, 20.0, "a NULL")]), 20.2)
    answers.report(report("", bad=[(1.0, 2.0, "timeout")]), 20.2)  # still looking for something to ask
    answers.settle(20.3)
    assert answers.by_kind() == {}
    restarts.take(Line(19.5, 20.15, RESTARTING))  # read after the report had come
    answers.settle(20.2 + Answers.DELAY)
    assert answers.by_kind() == {"GET": (1, 1.0, 1.0, 1.0), "walk": (1, 5.0, 5.0, 5.0)}
    assert (answers.answered_during_restarts, answers.unanswered_during_restarts) == (1, 2)
    assert (answers.timeouts, answers.wrong) == (1, ["walk: a NULL"])
    assert answers.minute() == (2, 1.0, 5.0, 5.0)
    assert answers.minute().count == 0


# The process

LOOKED = """\
at: 1234.5
descriptors: 16
5640648de000-7fffffc50000 ---p 00000000 00:00 0                          [rollup]
Rss:               20628 kB
Pss:                7410 kB
Pss_Dirty:          3056 kB
task: 1000000
Name:	kvsnmp
voluntary_ctxt_switches:	7
nonvoluntary_ctxt_switches:	100
task: 500000
Name:	QDBusConnection
voluntary_ctxt_switches:	3
nonvoluntary_ctxt_switches:	50
"""


def at_rest(rss: int = 20000, descriptors: int = 16, threads: int = 2, at: float = 0.0) -> Sample:
    return Sample(at, rss, 7000, descriptors, threads, 0, 0)


def test_sample_adds_up_the_threads():
    assert sample_from(LOOKED) == Sample(1234.5, 20628, 7410, 16, 2, 1500000, 10)


def test_rates_are_per_second():
    early, late = Sample(10, 1, 1, 1, 1, 5_000_000, 10), Sample(14, 1, 1, 1, 1, 25_000_000, 50)
    assert rates(early, late) == (5.0, 10.0)
    assert rates(early, early) == (0.0, 0.0)


@pytest.mark.parametrize("after, word", [
    (at_rest(descriptors=17), "descriptors"), (at_rest(descriptors=15), "descriptors"), (at_rest(threads=3), "threads"),
], ids=["one descriptor more", "one descriptor less", "one thread more"])
def test_descriptors_and_threads_come_back_to_what_they_were(after: Sample, word: str):
    assert Growth(600).findings(at_rest(), at_rest()) == []
    assert [word in finding for finding in Growth(600).findings(at_rest(), after)] == [True]


def grown(seconds: int, *steps: tuple[int, int]) -> Growth:
    """Memory that is so many kB from each of the moments on."""
    growth = Growth(seconds)
    for at in range(seconds):
        growth.add(at_rest([rss for begin, rss in steps if at >= begin][-1], at=at))
    return growth


def test_memory_may_grow_during_the_warm_up_and_not_after_it():
    assert grown(1200, (0, 20000), (250, 90000)).findings(at_rest(), at_rest()) == []
    limit = 20000 + RSS_GROWTH_LIMIT_KB
    assert grown(1200, (0, 20000), (600, limit)).findings(at_rest(), at_rest()) == []
    late = grown(1200, (0, 20000), (600, limit + 1))
    assert late.memory() == (20000, limit + 1)
    assert ["RSS grew" in finding for finding in late.findings(at_rest(), at_rest())] == [True]
    assert late.findings(at_rest(), at_rest(), memory_counts=False) == []


def test_a_moment_of_more_memory_is_no_growth():
    assert grown(1200, (0, 20000), (1190, 90000)).findings(at_rest(), at_rest()) == []


def test_a_run_too_short_for_two_spans_says_nothing_of_memory():
    assert grown(12, (0, 20000), (8, 90000)).memory() is None


# The whole


@pytest.fixture
def log(tmp_path: Path) -> Path:
    return tmp_path / "soak.log"


@pytest.fixture
def soak(log: Path):
    """Starts scripts/soak's program in a session of its own; ends what a failed test leaves behind."""
    started: list[subprocess.Popen] = []

    def start(minutes: float) -> subprocess.Popen:
        with open(log, "w", encoding="utf-8") as output:
            started.append(subprocess.Popen(["/usr/bin/python3", str(CHECKOUT / "bench/soak"), str(minutes)],
                                            stdout=output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            start_new_session=True,
                                            env=os.environ | {"KVSNMP_BIN_DIR": str(bin_dir())}))
        return started[-1]

    yield start
    for process in started:
        if process.poll() is None:
            process.terminate()
            process.wait(30)


def test_a_short_run_finds_nothing(soak, log):
    process = soak(0.3)
    process.wait(120)
    told = log.read_text()
    print(told)
    assert process.returncode == 0, told
    assert told.endswith("soak: nothing lost, nothing doubled, nothing grew\n")
    counts = re.search(r"(\d+) faults raised: (\d+) sent, (\d+) received", told)
    raised, handed_over, received = map(int, counts.groups())
    restarts = int(re.search(r"(\d+) restarts of snmpd", told)[1])
    assert raised > 50 and restarts >= 2
    assert raised == handed_over >= received
    kinds = re.findall(r"^    (\S.*?) +(\d+) answers:", told, re.MULTILINE)
    assert {kind for kind, count in kinds if int(count)} == {"GET", "GET v1", "GETNEXT", "GETBULK 10", "GETBULK 50"}


def test_interrupted_run_leaves_nothing_behind(soak, log):
    process = soak(5)
    wait_until(lambda: "minute" in log.read_text(), 30, what="run begun")
    name = next(device.name for device in registry.running() if device.name.startswith(f"t{process.pid}-"))
    processes = inside(name)
    assert len(processes) > 5
    os.killpg(process.pid, signal.SIGINT)
    assert process.wait(30) == 130
    assert "soak: interrupted" in log.read_text()
    assert name not in [device.name for device in registry.running()]
    wait_until(lambda: not [one for one in processes if one.exists()], 10, what="every process of the device gone")


def inside(name: str) -> list[Path]:
    """The processes of a device, as the host sees them."""
    first = next(device.first_process for device in registry.running() if device.name == name)
    namespace = os.readlink(f"/proc/{first}/ns/pid")
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "ns/pid") == namespace:
                found.append(process)
        except OSError:  # gone, or somebody else's
            continue
    return found
