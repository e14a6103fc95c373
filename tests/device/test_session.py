"""One whole session under ASan or valgrind, and the daemon at rest."""
from __future__ import annotations

import signal
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from support.device import is_sanitized
from support.snmp import TABLES

VALGRIND_LOG = "/var/log/valgrind.xml"
VALGRIND = (f"valgrind --leak-check=full --show-leak-kinds=definite,indirect --num-callers=40 "
            f"--xml=yes --xml-file={VALGRIND_LOG} --child-silent-after-fork=yes "
            f"--suppressions={Path(__file__).with_name('valgrind.supp')}")
NOTIFICATIONS = 1000
GETS = 1000


def valgrind_errors(device) -> list[str]:
    """Every error, and every leak, as kind and stack."""
    errors = []
    for error in ElementTree.fromstring(device.read(VALGRIND_LOG)).iter("error"):
        stack = [f"{frame.findtext('fn', '?')} ({frame.findtext('obj', '')})" for frame in error.iter("frame")]
        errors.append(f"{error.findtext('kind')}: {error.findtext('what') or error.findtext('xwhat/text')}\n  "
                      + "\n  ".join(stack))
    return errors


def test_session_without_an_error_or_a_leak(start_device):
    """Start, 1,000 notifications, 1,000 GETs, SIGTERM: sanitizers look on, or valgrind in a build without them."""
    wrapper = [] if is_sanitized() else ["--kvsnmp-wrapper", VALGRIND]
    device = start_device(6420, "--clock-shift" if is_sanitized() else "--no-traps", *wrapper)
    device.wait_answering(60)
    device.wait_subscribed(60)

    device.talctl_batch([f"set /state/power_lines/power_line[kid='3v3']/voltage {number / 1000:.3f}"
                         for number in range(1, NOTIFICATIONS + 1)])
    oid = f"{TABLES}.4.2.1.3.3"
    device.run(["sh", "-c", f'n=0; while [ $n -lt {GETS} ]; do snmpget -v2c -c public -t 10 127.0.0.1 {oid} || exit 1; '
                            f"n=$((n + 1)); done > /tmp/answers"], timeout=300)
    assert device.read("/tmp/answers").count("Gauge32: ") == GETS
    device.snmp.walk()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert device.kvsnmp_status(60) == 0
    assert device.complaints() == []
    if not is_sanitized():
        errors = valgrind_errors(device)
        assert not errors, "\n".join(errors)


def test_wake_ups_at_rest(start_device):
    """Ten a second of the process timer, one a second of the agent's ping, one in 5 s of the watchdog file."""
    device = start_device(6420, "--no-traps").wait_answering().wait_subscribed()
    pid = device.kvsnmp_pid()

    def wake_ups() -> tuple[float, int]:
        status = device.run(["cat", f"/proc/{pid}/status"]).stdout
        return time.monotonic(), int(status.partition("voluntary_ctxt_switches:")[2].split()[0])

    time.sleep(2)  # the values have come in, the idle passes after the last answer are over
    begin, count = wake_ups()
    time.sleep(10)
    end, count_at_end = wake_ups()
    rate = (count_at_end - count) / (end - begin)
    print(f"{rate:.1f} wake-ups a second at rest")
    assert rate < 14
