"""scripts/soak: it finds what is lost, doubled or grows, and a short run finds nothing."""
from __future__ import annotations

import os
import re
import subprocess
import sys

from support.device import CHECKOUT, bin_dir

sys.path.insert(0, str(CHECKOUT / "bench"))

from soak.faultbook import FaultBook  # noqa: E402
from soak.process import RSS_GROWTH_LIMIT_KB, Growth, Sample  # noqa: E402


def test_lost_and_doubled_faults_and_growth_are_found():
    book = FaultBook()
    for text in ("lost", "doubled", "late", "to a dying master"):
        book.raised(text, "LET Fault", 1.0)
    book.handed_over("late", False, 20.0)
    book.handed_over("to a dying master", True, 2.0)
    assert book.received("doubled") and not book.received("doubled")
    assert book.doubled() == ["doubled"]
    for seconds, lost in [(1.0, []), (2.0, ["lost"]), (21.0, ["lost", "late"])]:
        assert book.lost(seconds + FaultBook.PATIENCE) == lost
    for kilobytes, descriptors, word in [(20000 + RSS_GROWTH_LIMIT_KB, 16, ""),
                                         (20001 + RSS_GROWTH_LIMIT_KB, 16, "RSS grew"), (20000, 17, "descriptors")]:
        growth = Growth(1200)
        for at in range(1200):
            growth.add(Sample(at, 20000 if at < 600 else kilobytes, 7000, 16, 2, 0, 0))
        findings = growth.findings(Sample(0, 20000, 7000, 16, 2, 0, 0), Sample(0, 20000, 7000, descriptors, 2, 0, 0))
        assert [word in finding for finding in findings] == [True] * bool(word)


def test_a_short_run_finds_nothing(tmp_path):
    log = tmp_path / "soak.log"
    with open(log, "w", encoding="utf-8") as output:
        process = subprocess.run(["/usr/bin/python3", str(CHECKOUT / "bench/soak"), "0.3"], stdout=output, check=False,
                                 stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, timeout=120,
                                 env=os.environ | {"KVSNMP_BIN_DIR": str(bin_dir())})
    report = log.read_text()
    print(report)
    assert process.returncode == 0, report
    assert report.endswith("soak: nothing lost, nothing doubled, nothing grew\n")
    counts = re.search(r"(\d+) faults raised: (\d+) sent, (\d+) received", report)
    raised, handed_over, received = map(int, counts.groups())
    restarts = int(re.search(r"(\d+) restarts of snmpd", report)[1])
    assert raised > 50 and restarts >= 2
    assert raised == handed_over >= received
    kinds = re.findall(r"^    (\S.*?) +(\d+) answers:", report, re.MULTILINE)
    assert {kind for kind, count in kinds if int(count)} == {"GET", "GET v1", "GETNEXT", "GETBULK 10", "GETBULK 50"}
