"""The IETF's sensor tables: the state of a sensor, the setting that switches them on, another sub-agent's registration.
test_walks.py has the walks of all models and random requests."""
from __future__ import annotations

import pytest
from support import ber, steps
from support.catalogue import SCALAR_OIDS
from support.device import Device
from support.polling import wait_until
from support.snmp import NO_SUCH_OBJECT
from support.standard import LAST_CHANGE, PHYSICAL, ROOTS, SENSOR

CONFIGURATION = "/etc/snmp/kvagent.conf"
CHANGE = f"{ber.dotted(LAST_CHANGE)}.0"
OTHER = "127.0.0.1:1161"  # of another master
# Another manager, with the IETF's own names. Arguments: module, columns.
NAMED_TABLE = """
import sys
from pysnmp.hlapi import *
columns = [ObjectType(ObjectIdentity(sys.argv[1], name)) for name in sys.argv[2:]]
for _, error, _, row in nextCmd(SnmpEngine(), CommunityData("public"), UdpTransportTarget(("127.0.0.1", 161)),
                                ContextData(), *columns, lexicographicMode=False):
    assert not error
    print(row[0][0].getMibSymbol()[2][0], *(value.prettyPrint() for _, value in row), sep="|")
"""


def cell(column: int, index: int) -> str:
    return ber.dotted((*SENSOR, column, index))


def sensor(device: Device, index: int) -> tuple[str, str]:
    """entPhySensorValue and entPhySensorOperStatus."""
    (_, value), (_, status) = device.snmp.get(cell(4, index), cell(5, index))
    return value, {"1": "ok", "2": "unavailable", "3": "nonoperational"}[status]


def restart(device: Device, configuration: str) -> None:
    """Another daemon, with this configuration of the agent library."""
    device.end_kvsnmp()
    device.path(CONFIGURATION).write_text(f"agentXPingInterval 1\n{configuration}")
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering(30)


@pytest.fixture(scope="module")
def device(start_shared_device):
    return start_shared_device(6420, "--no-traps", "--clock-shift").wait_answering()


@pytest.mark.parametrize("index, path, text, value", [
    (1003, "/state/power_lines/power_line[kid='3v3']/voltage", " -24.5 ", "24500"),  # intended: as the private MIB
    (1003, "/state/power_lines/power_line[kid='3v3']/voltage", "4000000", "1000000000"),  # the RFC's overflow
    (1003, "/state/power_lines/power_line[kid='3v3']/voltage", "4294967296", "1000000000"),  # the private MIB: 0
    (2003, "/state/temp_sensors/temp_sensor[kid='amp_main_board']/temp_current", "41.2", "412"),
    (3102, "/state/fans/fan[kid='amp_class_d']/speed_sensor_rpm", "1450", "1450"),
])
def test_state_of_a_sensor_follows_what_was_reported(device, index, path, text, value):
    leaf = path.rsplit("/", 1)[1]
    for words, expected in [(["patch", path, f"<{leaf}>{text}</{leaf}>"], (value, "ok")),
                            (["patch", path, f"<{leaf}>41.2345</{leaf}>"], ("0", "unavailable")),  # too many decimals
                            (["patch", path, f"<{leaf}>2 or 3</{leaf}>"], None),
                            (["delete", path], ("0", "unavailable")),
                            (["patch", path, f"<{leaf}>{text}</{leaf}>"], (value, "ok"))]:
        steps.apply(device, [words])
        got = sensor(device, index)
        assert got == expected or expected is None and got[1] == "nonoperational", words
    assert device.complaints() == []


def test_before_the_first_report_all_sensors_are_unavailable(start_device):
    device = start_device(6420, "--no-kvsnmp", "--no-traps", "--clock-shift")
    device.talctl("delete", "/state/power_lines")
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering(30).wait_subscribed()
    steps.apply(device, dbus=False)
    assert (sensor(device, 1001), sensor(device, 2001)[1]) == (("0", "unavailable"), "ok")


def test_switched_off_nothing_outside_the_enterprise_arc_is_served(device):
    for configuration, complaints in [("kvStandardSensors no\n", 0), ("", 0), ("kvStandardSensors perhaps\n", 1),
                                      ("kvStandardSensors yes\nkvStandardSensors no\n", 0)]:
        before = len(device.kvsnmp_err())
        restart(device, configuration)
        assert device.snmp.get(*[f"{ber.dotted(root)}.1" for root in ROOTS]) == [NO_SUCH_OBJECT] * 2, configuration
        assert device.kvsnmp_err()[before:].count("kvagent.conf: line 2") == complaints, configuration
    restart(device, "kvStandardSensors yes\n")
    assert sensor(device, 1001)[1] in ("ok", "unavailable")


def test_another_program_names_everything(device):
    restart(device, "kvStandardSensors yes\n")
    device.wait_subscribed()
    steps.apply(device, dbus=False)

    def table(module: str, *columns: str) -> list[str]:
        return device.run(["/usr/bin/python3", "-c", NAMED_TABLE, module, *columns]).stdout.splitlines()

    entities = table("ENTITY-MIB", *(f"entPhysical{name}" for name in (
        "Class", "ContainedIn", "ParentRelPos", "Name", "HardwareRev", "FirmwareRev", "SoftwareRev")))
    assert len(entities) == 1 + 20 + 2
    for row in ("1|chassis|0|-1|Orvane Mervio Amplifier VQ9D|6420-2.1|4.12.3|5.15.71",
                "1001|sensor|1|1|Network Switch 1.8V|||", "2005|sensor|1|18|Temperature Sensor: DC Power|||",
                "3002|fan|1|2|Right Fan|||", "3102|sensor|3002|1|Right Fan|||"):
        assert row in entities
    sensors = table("ENTITY-SENSOR-MIB", *(f"entPhySensor{name}" for name in (
        "Type", "Scale", "Precision", "Value", "OperStatus", "UnitsDisplay", "ValueTimeStamp", "ValueUpdateRate")))
    assert [row for row in sensors if row.startswith(("1001", "2001", "3101"))] == [
        "1001|voltsDC|milli|0|1802|ok|millivolts DC|0|60000", "2001|celsius|units|1|524|ok|degrees Celsius|0|60000",
        "3101|rpm|units|0|1450|ok|revolutions per minute|0|60000"]


def test_arcs_of_another_agent_are_left_to_it(device):
    """The library logs one line for each; everything else is served."""
    device.path("/etc/snmp/snmpd.local.conf").write_text(f"pass {ber.dotted(SENSOR[:-1])} /bin/true\n")
    before = len(device.kvsnmp_err())
    restart(device, "kvStandardSensors yes\n")
    wait_until(lambda: device.kvsnmp_err()[before:].count("registering pdu failed: 263!") == 1, what="refusal logged")
    steps.apply(device, dbus=False)
    assert device.snmp.get(ber.dotted((*PHYSICAL, 5, 1001))) == [("INTEGER", "8")]
    assert device.snmp.get(SCALAR_OIDS["infoModelNumber"]) == [("INTEGER", "6420")]


UPTIME = "1.3.6.1.2.1.1.3.0"


def ticks(device: Device, *oids: str) -> list[int]:
    """At the other master."""
    return [int(text.split("(")[1].split(")")[0]) for _, text in device.snmp.get(*oids, address=OTHER)]


def test_a_session_that_opens_at_once_has_its_time(device):
    """A master that runs before the daemon. It is not called snmpd, so the daemon does not end it. The last test of the
    device."""
    device.end_kvsnmp()
    device.kill_and_wait(device.wait_snmpd())
    device.path("/tmp/master.conf").write_text("master agentx\nrocommunity public\n")
    device.run(["cp", "/usr/sbin/snmpd", "/tmp/master"])
    device.popen(["/tmp/master", "-f", "-Lf", "/tmp/master.log", "-C", "-c", "/tmp/master.conf", "-p", "/tmp/master.pid",
                  f"udp:{OTHER}"], env={"MIBS": ""})
    wait_until(lambda: device.path("/tmp/master.pid").exists(), what="the other master")
    wait_until(lambda: ticks(device, UPTIME)[0] > 100, what="a second")
    before = ticks(device, UPTIME)[0]
    device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: device.snmp.get(CHANGE, address=OTHER) != [NO_SUCH_OBJECT], what="tables at the other master")
    change, now = ticks(device, CHANGE, UPTIME)
    assert before <= change <= now
    wait_until(lambda: ticks(device, UPTIME)[0] > now + 100, what="a second")
    assert ticks(device, CHANGE) == [change]
