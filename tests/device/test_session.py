"""One whole session under ASan or valgrind."""
from __future__ import annotations

import signal
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from support.device import is_sanitized
from support.snmp import TABLES

VALGRIND_LOG = "/var/log/valgrind.xml"
VALGRIND = (f"valgrind --leak-check=full --show-leak-kinds=definite,indirect --num-callers=40 "
            f"--xml=yes --xml-file={VALGRIND_LOG} --child-silent-after-fork=yes "
            # mimalloc's operator delete is its free()
            f"--soname-synonyms=somalloc=libmimalloc* --show-mismatched-frees=no "
            f"--suppressions={Path(__file__).with_name('valgrind.supp')}")
COUNT = 1000  # of notifications, and of GETs


def valgrind_errors(device) -> list[str]:
    """Every error, and every leak, as kind and stack."""
    errors = []
    for error in ElementTree.fromstring(device.read(VALGRIND_LOG)).iter("error"):
        stack = [f"{frame.findtext('fn', '?')} ({frame.findtext('obj', '')})" for frame in error.iter("frame")]
        text = error.findtext("what") or error.findtext("xwhat/text")
        errors.append("\n  ".join([f"{error.findtext('kind')}: {text}", *stack]))
    return errors


def test_session_without_an_error_or_a_leak(start_device):
    """Start, 1,000 notifications, 1,000 GETs, SIGTERM, under sanitizers, or under valgrind in a build without them."""
    wrapper = [] if is_sanitized() else ["--kvsnmp-wrapper", VALGRIND]
    device = start_device(6420, "--clock-shift" if is_sanitized() else "--no-traps", *wrapper)
    device.wait_answering(60).wait_subscribed(60)
    device.talctl_batch([f"set /state/power_lines/power_line[kid='3v3']/voltage {number / 1000:.3f}"
                         for number in range(1, COUNT + 1)])
    oid = f"{TABLES}.4.2.1.3.3"
    device.run(["sh", "-c", f'n=0; while [ $n -lt {COUNT} ]; do snmpget -v2c -c public -t 10 127.0.0.1 {oid} || exit 1; '
                            f"n=$((n + 1)); done > /tmp/answers"], timeout=300)
    assert device.read("/tmp/answers").count("Gauge32: ") == COUNT
    device.snmp.walk()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert device.kvsnmp_status(60) == 0
    assert device.complaints() == []
    assert is_sanitized() or valgrind_errors(device) == []
