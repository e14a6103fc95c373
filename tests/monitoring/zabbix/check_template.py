"""The template in a real Zabbix server that watches four devices, played from golden walks; scripts/test-zabbix runs
this."""
from __future__ import annotations

import json
import re
import subprocess
from collections.abc import Iterator
from typing import Any

import pytest
import yaml
from agents import PORT, Agents, walkagent
from prometheus_files import CHECKOUT, loaded
from series import codes
from server import Server
from support import catalogue, steps
from support.catalogue import TRAPS
from support.device import Device
from support.mib import mib
from support.polling import wait_until
from support.traps import E
from support.walkagent import WalkAgent
from test_discover import PROGRAM, discover

TEMPLATE = (CHECKOUT / "monitoring/zabbix/kvsnmp-template.yaml").read_text()
EXPORTED = yaml.safe_load(TEMPLATE)["zabbix_export"]["templates"][0]
RULES = EXPORTED["discovery_rules"]
MACROS = {"{$KV.INTERVAL}": "3s", "{$KV.INTERVAL.TEXT}": "5s", "{$KV.INTERVAL.DISCOVERY}": "5s", "{$KV.NODATA}": "40s",
          "{$KV.HOLD}": "6s", "{$KV.TRAP.HOLD}": "60s"}
WALKS = {"pa-6420": "6420", "pa-6410": "6410", "pa-6764": "6764", "pa-6214": "6214-extended"}
ADDRESSES = {name: f"127.0.60.{number}" for number, name in enumerate(WALKS, 1)}


class Bench:
    def __init__(self) -> None:
        self.devices = {name: WalkAgent(walk, "pa-device") for name, walk in WALKS.items()}
        self.agents = walkagent.Agents({(ADDRESSES[name], PORT): device.answer for name, device in self.devices.items()})
        self.agents.start()
        self.server = Server()
        self.server.import_text("template.yaml", TEMPLATE)
        self.template = self.server.call("template.get", filter={"host": EXPORTED["template"]})[0]["templateid"]
        group = self.server.call("hostgroup.create", name="Public address")["groupids"][0]
        self.hosts = {name: self.add_host(name, self.template, group, (address, PORT), MACROS, inventory_mode=1)
                      for name, address in ADDRESSES.items()}

    def add_host(self, name: str, template: str, group: str, place: tuple[str, int], macros: dict[str, str], **facts) -> str:
        interface = {"type": 2, "main": 1, "useip": 1, "ip": place[0], "dns": "", "port": str(place[1]),
                     "details": {"version": 2, "bulk": 1, "community": "public"}}
        return self.server.call(
            "host.create", host=name, groups=[{"groupid": group}], interfaces=[interface], templates=[{"templateid": template}],
            macros=[{"macro": macro, "value": value} for macro, value in macros.items()], **facts)["hostids"][0]

    def answering(self, name: str, answer: walkagent.Answer) -> None:
        self.agents.answers[ADDRESSES[name], PORT] = answer

    def walk(self, name: str) -> dict[str, str]:
        """Name and instance, e.g. voltageValue.1, to the served text."""
        resolved = ((mib().resolve(variable.oid), variable.text) for variable in self.devices[name].variables)
        return {f"{item.name}.{instance[0]}": text for (item, instance), text in resolved}

    def items(self, host: str) -> dict[str, dict[str, Any]]:
        found = self.server.call("item.get", hostids=[self.hosts[host]], output=[
            "itemid", "key_", "name", "lastvalue", "lastclock", "state", "error", "units"])
        return {item["key_"]: item for item in found}

    def problems(self, host: str) -> dict[str, str]:
        """Their texts and priorities."""
        found = self.server.call("trigger.get", hostids=[self.hosts[host]], filter={"value": 1},
                                 output=["description", "priority"], expandDescription=True)
        return {trigger["description"]: trigger["priority"] for trigger in found}

    def wait_problem(self, host: str, name: str, there: bool, timeout: float = 150) -> None:
        wait_until(lambda: (name in self.problems(host)) == there, timeout, 1.0,
                   what=f"{host}: {name!r} {'is' if there else 'is no longer'} a problem")


@pytest.fixture(scope="session")
def bench() -> Iterator[Bench]:
    bench = Bench()
    yield bench
    bench.server.stop()
    bench.agents.stop()


KINDS = [("item", "key_", [item["key"] for item in EXPORTED["items"]]),
         ("discoveryrule", "key_", [rule["key"] for rule in RULES]),
         ("itemprototype", "key_", [item["key"] for rule in RULES for item in rule["item_prototypes"]]),
         ("trigger", "description", [one["name"] for item in EXPORTED["items"] for one in item.get("triggers", [])]),
         ("triggerprototype", "description", [one["name"] for rule in RULES for place in [rule, *rule["item_prototypes"]]
                                              for one in place.get("trigger_prototypes", [])]),
         ("templatedashboard", "name", [one["name"] for one in EXPORTED["dashboards"]])]


def test_import_creates_everything_and_a_second_one_changes_nothing(bench):
    def facts() -> list[list[dict[str, str]]]:
        found = [bench.server.call(f"{kind}.get", templateids=[bench.template], output=[name]) for kind, name, _ in KINDS]
        found.append(bench.server.call("valuemap.get", hostids=[bench.template], output=["name"]))
        return [sorted(one, key=str) for one in found]

    first = facts()
    bench.server.import_text("template.yaml", TEMPLATE)
    assert facts() == first
    for (_, name, expected), made in zip(KINDS, first):
        assert expected and sorted(one[name] for one in made) == sorted(expected)
    assert {one["name"] for one in first[-1]} == {one["name"] for one in EXPORTED["valuemaps"]}


def shown(name: str, text: str) -> str | float:
    """A served value as Zabbix has it: in volts and degrees."""
    if mib().objects[name].base == "OCTET STRING":
        return text
    tenth = name in ("tempCurrent", "tempPeak", "tempAverage")
    return int(text) / (1000 if "oltage" in name and "Count" not in name else 10 if tenth else 1)


@pytest.mark.parametrize("host", WALKS)
def test_every_served_value_is_an_item(bench, host):
    """But indices, descriptions and labels, which name the others."""
    expected = {}
    for name, text in bench.walk(host).items():
        column, _, instance = name.partition(".")
        if not column.endswith(("Index", "Description", "Label")):
            expected[f"kvsnmp.{column}" + (f"[{instance}]" if column in catalogue.COLUMN_OIDS else "")] = shown(column, text)
    seen: dict[str, Any] = {}

    def same() -> bool:
        seen.clear()
        for key, item in bench.items(host).items():
            if not key.startswith(("snmptrap[", "zabbix[", "kvsnmp.sys", "kvsnmp.hrSystem")):
                value = item["lastvalue"] if isinstance(expected.get(key), str) else round(float(item["lastvalue"] or "nan"), 9)
                seen[key] = value if item["lastclock"] != "0" and item["state"] == "0" else item["error"]
        return seen == expected

    try:
        wait_until(same, 120, 1.0)
    except AssertionError as failure:
        differing = {key: (expected.get(key), seen.get(key)) for key in expected.keys() | seen.keys()
                     if expected.get(key) != seen.get(key)}
        raise AssertionError(f"{failure}\n{differing}\n{bench.server.logs()}") from failure


def test_names_units_and_inventory(bench):
    """And every table is seen on some device."""
    served = {name.partition(".")[0] for host in WALKS for name in bench.walk(host)}
    assert [name for name, table in catalogue.TABLES.items() if table.columns[0][0] not in served] == []
    items = bench.items("pa-6420")
    assert [(items[f"kvsnmp.{key}"]["name"], items[f"kvsnmp.{key}"]["units"]) for key in (
        "voltageValue[3]", "tempCurrent[1]", "fanSpeed[2]")] == [
        ("Internal voltage 3.3V: value", "V"), ("Temperature Sensor: Channel 1: current", "°C"), ("Right Fan: speed", "rpm")]
    expected = {"name": "pa-device", "model": "Orvane Mervio Amplifier VQ9D", "type": "6420", "type_full": "VQ9D",
                "software": "4.12.3", "os": "5.15.71", "hardware": "6420-2.1", "location": "Equipment room 1"}
    wait_until(lambda: expected.items() <= bench.server.call(
        "host.get", hostids=[bench.hosts["pa-6420"]], selectInventory="extend")[0]["inventory"].items(), 60, 1.0)


# Zabbix's stock templates that discover the IETF's sensors: what to run; columns of the private MIB with the first
# index, key and name of their items, and the divisor.
SENSORS = [("tempDescription", "tempCurrent", 2000, "temp.value", "Temperature", 10),
           ("fanDescription", "fanSpeed", 3100, "fan.speed", "Fan speed", 1)]
STOCK = {
    "Arista by SNMP": (["sensors.get"], [
        *SENSORS, ("voltageDescription", "voltageValue", 1000, "voltage.value", "Voltage", 1)]),  # ignores the scale
    "Mellanox by SNMP": (["temp.discovery", "fan.discovery"], SENSORS),
}


@pytest.fixture(scope="module")
def amplifier() -> Iterator[Device]:
    """A real one, whose values are those of its walk."""
    device = Device(6420, "--clock-shift", "--no-traps", "--port", "21161").wait_ready().wait_subscribed(60)
    yield device
    assert device.stop() == []


@pytest.mark.parametrize("template", STOCK)
def test_stock_templates_discover_the_standard_sensors(bench, amplifier, template):
    """Their intervals are hours, so rules and items are run until each has a value."""
    (runs, kinds), server, walk = STOCK[template], bench.server, bench.walk("pa-6420")
    group = server.call("hostgroup.get", filter={"name": "Public address"})[0]["groupid"]
    stock = server.call("template.get", filter={"host": template})[0]["templateid"]
    hostid = bench.add_host(f"stock-{stock}", stock, group, ("127.0.0.1", 21161), {"{$SNMP_COMMUNITY}": "public"})
    expected = {
        (f"sensor.{key}[entPhySensorValue.{base + row}]", f"{walk[f'{name}.{row}']}: {word}"):
        int(walk[f"{column}.{row}"]) / divisor
        for name, column, base, key, word, divisor in kinds for row in range(1, 21) if f"{name}.{row}" in walk}

    def same() -> bool:
        amplifier.shift_clock(steps.CACHE_SECONDS)
        items = server.call("item.get", hostids=[hostid], search={"key_": "entPhySensorValue"},
                            output=["itemid", "key_", "name", "lastvalue", "lastclock"])
        waiting = [item["itemid"] for item in items]
        if not items:
            waiting = [found["itemid"] for kind in ("item", "discoveryrule") for found in server.call(
                f"{kind}.get", hostids=[hostid], filter={"key_": runs}, output=["itemid"])]
        for itemid in waiting:
            server.call("task.create", type=6, request={"itemid": itemid})
        return expected == {(item["key_"], item["name"]): round(float(item["lastvalue"]), 9)
                            for item in items if item["lastclock"] != "0"}

    try:
        wait_until(same, 150, 2.0, what=f"{template}: the sensors' values")
    finally:
        server.call("host.massupdate", hosts=[{"hostid": hostid}], status=1)  # polled no more


def imported(server: Server, text: str) -> list[dict[str, Any]]:
    """The hosts as the server has them; it does not poll them."""
    server.import_text("hosts.json", text)
    names = [host["host"] for host in json.loads(text)["zabbix_export"]["hosts"]]
    found = server.call("host.get", filter={"host": names}, output=["host", "name", "inventory_mode"], sortfield="host",
                        selectInterfaces=["ip", "port", "details"], selectParentTemplates=["host"], selectTags=["tag", "value"])
    server.call("host.massupdate", hosts=[{"hostid": host["hostid"]} for host in found], status=1)
    assert [host["host"] for host in found] == names
    return found


def test_hosts_of_the_discovery_are_imported(bench):
    """Their names are an attack."""
    agents = Agents()
    agents.start()
    text = discover("--format", "zabbix", "127.0.10.1-127.0.10.7").stdout
    agents.stop()
    exported = json.loads(text)["zabbix_export"]["hosts"]
    assert [host["host"] for host in exported] == ["127.0.10.1", "127.0.10.4", "127.0.10.7"]
    for host, facts in zip(imported(bench.server, text), exported):
        (interface,) = host["interfaces"]
        assert (host["host"], host["name"], host["tags"]) == (facts["host"], facts["name"], facts["tags"])
        assert host["inventory_mode"] == "1"
        assert [template["host"] for template in host["parentTemplates"]] == [EXPORTED["template"]]
        assert (interface["ip"], interface["port"]) == (host["host"], str(PORT))
        assert (interface["details"]["version"], interface["details"]["community"]) == ("2", "{$SNMP_COMMUNITY}")


def test_hosts_with_version_3_are_imported(bench):
    """With every algorithm; without the template, whose items take the server seconds a host."""
    program, export, hosts = loaded(PROGRAM), {}, []
    algorithms = [("MD5", "DES"), ("SHA", "AES"), ("SHA-224", "AES-192"), ("SHA-256", "AES-256"), ("SHA-384", "AES"),
                  ("SHA-512", "AES")]
    for number, (authentication, privacy) in enumerate(algorithms, 101):
        access = program.Access(PORT, "", {"defSecurityName": '"monitor"', "defSecurityLevel": "authPriv",
                                           "defAuthType": authentication, "defPrivType": privacy}, "")
        export = json.loads(program.zabbix([program.Device(f"127.0.10.{number}", "hall", 6420, "", "", 1.0)], access))
        hosts += [host | {"templates": []} for host in export["zabbix_export"]["hosts"]]
    export["zabbix_export"]["hosts"] = hosts
    details = [host["interfaces"][0]["details"] for host in imported(bench.server, json.dumps(export))]
    assert [(one["authprotocol"], one["privprotocol"]) for one in details] == [
        ("0", "0"), ("1", "1"), ("2", "2"), ("3", "3"), ("4", "1"), ("5", "1")]
    common = {"version": "3", "securityname": "monitor", "securitylevel": "2", "authpassphrase": "{$SNMP_AUTH}",
              "privpassphrase": "{$SNMP_PRIV}"}
    assert all(common.items() <= one.items() for one in details)


FAULTS = [  # host, problem, object, its number or word
    ("pa-6420", "Temperature Sensor: Channel 1: high", "tempCurrent.1", "715"),
    ("pa-6420", "Temperature Sensor: Main Board: critical", "tempCurrent.3", "900"),
    ("pa-6420", "Temperature Sensor: AC Power: far above its average", "tempCurrent.4", "690"),
    ("pa-6420", "Left Fan stands still", "fanSpeed.1", "0"),
    ("pa-6420", "Internal voltage 3.3V is out of order", "voltageValue.3", "2100"),
    ("pa-6420", "Internal voltage 5.0V drifts", "voltageValue.4", "5300"),
    ("pa-6410", "ac_power does not deliver", "powerLive.1", "notLive"),
    ("pa-6410", "Line In 1 has lost its pilot tone", "lineInStatus.1", "failed"),
    ("pa-6214", "Microphone Extern is disconnected or shorted", "lineInMicStatus.3", "shorted"),
    ("pa-6764", "Channel 1 is switched off", "ampChannelStatus.1", "disabled"),
    ("pa-6420", "Channel 2 is out of order", "ampChannelStatus.2", "monitorFault"),
    ("pa-6420", "Channel 1: loudspeaker line faulty", "ampChannelLineState.1", "shorted"),
    ("pa-6420", "Channel 2: loudspeaker line not fed", "ampChannelLineState.2", "voltageLow"),
    ("pa-6764", "Channel 2: line monitoring without result", "ampChannelLineState.2", "indecisive"),
    ("pa-6420", "LET 1 Channel 1 is missing", "letChannel1Status.1", "missing"),
    ("pa-6764", "LET 2 Channel 2 is missing", "letChannel2Status.2", "missing"),
    ("pa-6420", "Control Input 2 is shorted or unconnected", "controlInputStatus.2", "shorted"),
    ("pa-6410", "Control Output 1 does not follow its command", "controlOutputState.1", "failSet"),
    ("pa-6420", "Eth 1 is no longer supervised", "ethMonitoringMonitored.1", "notMonitored"),
    ("pa-6214", "External Relay 3 has failed or cannot be read", "relayStatus.7", "unknown")]


def test_each_trigger_fires_on_its_fault_and_recovers(bench):
    wait_until(lambda: not any(bench.problems(host) for host in WALKS), 120, 1.0, what="no problem on any host")
    former = [bench.devices[host].change(codes({name: text})) for host, _, name, text in FAULTS]
    for host, problem, *_ in FAULTS:
        bench.wait_problem(host, problem, True)
    for (host, *_), values in zip(FAULTS, former):
        bench.devices[host].change(values)
    for host, problem, *_ in FAULTS:
        bench.wait_problem(host, problem, False)
    assert [name for name in KINDS[4][2] if not any(re.fullmatch(
        re.escape(name).replace(re.escape("{#DESCRIPTION}"), ".+"), problem) for _, problem, *_ in FAULTS)] == []


def send_trap(host: str, arc: int, level: int, text: str) -> None:
    subprocess.run(walkagent.trap_command(ADDRESSES[host], "127.0.0.1:1162", arc, level=level, text=text), check=True)


def test_each_notification_is_a_value_of_its_item_alone(bench):
    others = f"see {E}.2.8.3 and ZBXTRAP {ADDRESSES['pa-6410']} {E}.2.8.4"  # here neither a trap nor another host
    for row in TRAPS:
        send_trap("pa-6420", row.arc, 2, f"text of {row.name}, {others}")

    def values() -> dict[str, list[str]]:
        items = {item["itemid"]: key for key, item in bench.items("pa-6420").items() if key.startswith("snmptrap[")}
        found: dict[str, list[str]] = {key: [] for key in items.values()}
        for entry in bench.server.call("history.get", history=2, itemids=list(items), output="extend"):
            found[items[entry["itemid"]]].append(entry["value"])
        return found

    wait_until(lambda: sum(map(len, values().values())) >= len(TRAPS), 60, 1.0, what="all traps in the server")
    found = values()
    for row in TRAPS:
        number = f"{E}.2.8.{row.arc}".replace(".", "\\.")
        [value] = found.pop(f'snmptrap["(^\\S+ +|OID: ){number}(\\s|$)"]')
        text = re.escape(f"text of {row.name}, {others.replace('ZBXTRAP', 'ZBX-TRAP')}")
        assert re.fullmatch(rf"\S+ +{number} error pa-device \(device\): {row.name} error since 2024-06-01 10:02:03: {text}",
                            value)
    assert found == {}
    for other in ("pa-6410", "pa-6764", "pa-6214"):
        assert all(item["lastclock"] == "0" for key, item in bench.items(other).items() if key.startswith("snmptrap["))

    bench.wait_problem("pa-6420", "Trap: Cooling Fan Fault (error)", True)
    bench.wait_problem("pa-6420", "Trap: Cooling Fan Fault (error)", False, timeout=200)  # 60 s after the trap


def test_a_trap_is_a_problem_of_its_level(bench):
    for level in range(1, 6):
        send_trap("pa-6420", 5, level, f"level {level}: {E}.2.8.5 critical ")
        # As another receiver writes it.
        bench.server.add_trap(f"{ADDRESSES['pa-6410']}\nVARBINDS:\n  .1.3.6.1.6.3.1.1.4.1.0  type=6  value=OID: {E}.2.8.19\n"
                              f"  {E}.2.4.3.0  type=2  value=INTEGER: {level}\n")
    severities = {"critical": "4", "error": "3", "unclassified": "2", "warning": "2", "notice": "1"}
    for host, kind in [("pa-6420", "LET Fault"), ("pa-6410", "Overtemperature")]:
        expected = {f"Trap: {kind} ({word})": severity for word, severity in severities.items()}
        wait_until(lambda: {text: severity for text, severity in bench.problems(host).items() if kind in text} == expected,
                   60, 1.0, what=f"problems of each severity on {host}")


def test_a_restart_and_other_firmware_are_problems(bench):
    """The second problem stays until somebody closes it."""
    [macro] = bench.server.call("usermacro.create", hostid=bench.hosts["pa-6764"], macro="{$KV.RESTART}",
                                value="100000d")["hostmacroids"]
    bench.wait_problem("pa-6764", "The device has restarted", True)
    bench.server.call("usermacro.update", hostmacroid=macro, value="1s")
    bench.wait_problem("pa-6764", "The device has restarted", False)
    assert "Firmware has changed" not in bench.problems("pa-6764")
    bench.devices["pa-6764"].change({"infoPackageVersion": "4.13.0"})
    bench.wait_problem("pa-6764", "Firmware has changed", True)


def test_a_missing_daemon_and_a_missing_device_are_different_problems(bench):
    silent, unreachable = "Nothing of KVSNMP-MIB is answered", "No answer by SNMP"
    bench.answering("pa-6410", WalkAgent("", "pa-device").answer)
    bench.answering("pa-6764", walkagent.silent)
    bench.wait_problem("pa-6764", unreachable, True)
    bench.wait_problem("pa-6410", silent, True)
    assert unreachable not in bench.problems("pa-6410")
    bench.answering("pa-6410", bench.devices["pa-6410"].answer)
    bench.wait_problem("pa-6410", silent, False)
