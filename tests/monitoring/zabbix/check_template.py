"""The template in a real Zabbix server that watches four simulated devices; scripts/test-zabbix runs this."""
from __future__ import annotations

import json
import re
import time
from collections.abc import Iterator
from typing import Any, NamedTuple

import pytest
import yaml
from server import Server
from support import catalogue, steps
from support.catalogue import EXTENDED, TRAPS
from support.device import CHECKOUT, Device
from support.mib import mib
from support.polling import wait_until
from support.snmp import COMMUNITY, NUMERIC, TABLES, parse
from support.traps import E, Faults
from agents import PORT, Agents
from prometheus_files import loaded
from test_discover import PROGRAM, discover

TEMPLATE = (CHECKOUT / "monitoring/zabbix/kvsnmp-template.yaml").read_text()
EXPORTED = yaml.safe_load(TEMPLATE)["zabbix_export"]["templates"][0]
RULES = EXPORTED["discovery_rules"]
TRAPS_TO = "/state/config/snmp_settings/trap_settings/trap_address=127.0.0.1:1162"
# Short times; the 60 s of a device's cache pass by moving its clock.
MACROS = {"{$KV.INTERVAL}": "3s", "{$KV.INTERVAL.TEXT}": "5s", "{$KV.INTERVAL.DISCOVERY}": "5s", "{$KV.NODATA}": "40s",
          "{$KV.HOLD}": "6s", "{$KV.TRAP.HOLD}": "60s"}


class Watched(NamedTuple):
    """A device and its host in the server."""
    device: Device
    name: str
    address: str
    port: int
    hostid: str

    def walk(self) -> dict[str, str]:
        """Name and instance, e.g. voltageValue.1, to the served text."""
        out = self.device.run(["snmpwalk", *NUMERIC, *COMMUNITY, f"{self.address}:{self.port}", TABLES]).stdout
        values = {}
        for variable in parse(out):
            item, instance = mib().resolve(variable.oid)
            values[f"{item.name}.{instance[0]}"] = "" if variable.text == '""' else variable.text
        return values

    def refresh(self) -> None:
        self.device.shift_clock(steps.CACHE_SECONDS)


# Name, model, options of the device, address. A trap has only the sender's address, so only the first device sends
# traps.
HOSTS = [
    ("pa-6420", 6420, ["--set", TRAPS_TO], "127.0.0.1"),
    ("pa-6410", 6410, [], "127.0.0.2"),
    ("pa-6764", 6764, [], "127.0.0.3"),
    ("pa-6214", 6214, ["--model-text", EXTENDED], "127.0.0.4"),
]


def interface(address: str, port: int) -> dict[str, Any]:
    return {"type": 2, "main": 1, "useip": 1, "ip": address, "dns": "", "port": str(port),
            "details": {"version": 2, "bulk": 1, "community": "public"}}


class Bench:
    def __init__(self) -> None:
        self.devices: list[Device] = []
        self.hosts: dict[str, Watched] = {}
        self.server: Server | None = None

    def start(self) -> None:
        ports = {}
        for number, (name, model, options, _) in enumerate(HOSTS):
            ports[name] = 21161 + 10 * number
            self.devices.append(Device(model, "--clock-shift", "--no-traps", "--port", str(ports[name]), *options))
        self.server = Server()
        self.server.import_template(TEMPLATE)
        template = self.server.call("template.get", filter={"host": EXPORTED["template"]})[0]["templateid"]
        group = self.server.call("hostgroup.create", name="Public address")["groupids"][0]
        for device, (name, _, _, address) in zip(self.devices, HOSTS):
            device.wait_ready().wait_subscribed(60)
            host = self.server.call(
                "host.create", host=name, groups=[{"groupid": group}], interfaces=[interface(address, ports[name])],
                inventory_mode=1, templates=[{"templateid": template}],
                macros=[{"macro": macro, "value": value} for macro, value in MACROS.items()])["hostids"][0]
            self.hosts[name] = Watched(device, name, address, ports[name], host)
        wait_until(lambda: self.relays_read(), 90, 1.0, what="all relays of the station read")

    def relays_read(self) -> bool:
        station = self.hosts["pa-6214"]
        station.refresh()
        states = [value for name, value in station.walk().items() if name.startswith("relayStatus.")]
        return len(states) == 12 and "1" not in states

    def items(self, host: str) -> dict[str, dict[str, Any]]:
        found = self.server.call("item.get", hostids=[self.hosts[host].hostid], output=[
            "itemid", "key_", "name", "lastvalue", "lastclock", "state", "error", "value_type", "units"])
        return {item["key_"]: item for item in found}

    def problems(self, host: str) -> set[str]:
        found = self.server.call("trigger.get", hostids=[self.hosts[host].hostid], filter={"value": 1},
                                 output=["description"], expandDescription=True)
        return {trigger["description"] for trigger in found}

    def severities(self, host: str) -> set[tuple[str, str]]:
        """Name and priority of the problems."""
        found = self.server.call("trigger.get", hostids=[self.hosts[host].hostid], filter={"value": 1},
                                 output=["description", "priority"])
        return {(trigger["description"], trigger["priority"]) for trigger in found}

    def wait_problem(self, host: str, name: str, there: bool, timeout: float = 120) -> None:
        def look() -> bool:
            self.hosts[host].refresh()
            return (name in self.problems(host)) == there

        wait_until(look, timeout, 1.0, what=f"{host}: {name!r} {'is' if there else 'is no longer'} a problem")

    def stop(self) -> list[str]:
        complaints = []
        if self.server:
            self.server.stop()
        for device in self.devices:
            complaints += device.stop()
        return complaints


@pytest.fixture(scope="session")
def bench() -> Iterator[Bench]:
    bench = Bench()
    try:
        bench.start()
        yield bench
    except Exception:
        if bench.server:
            print(bench.server.logs())
        raise
    finally:
        complaints = bench.stop()
    assert complaints == []


KINDS = [("item", "key_", [item["key"] for item in EXPORTED["items"]]),
         ("discoveryrule", "key_", [rule["key"] for rule in RULES]),
         ("itemprototype", "key_", [item["key"] for rule in RULES for item in rule["item_prototypes"]]),
         ("trigger", "description", [one["name"] for item in EXPORTED["items"] for one in item.get("triggers", [])]),
         ("triggerprototype", "description", [one["name"] for rule in RULES for place in [rule, *rule["item_prototypes"]]
                                              for one in place.get("trigger_prototypes", [])])]


def test_import_creates_everything_and_a_second_one_changes_nothing(bench):
    def facts() -> list[list[dict[str, str]]]:
        template = bench.server.call("template.get", filter={"host": EXPORTED["template"]})[0]["templateid"]
        found = [bench.server.call(f"{kind}.get", templateids=[template], output=[name]) for kind, name, _ in KINDS]
        found.append(bench.server.call("valuemap.get", hostids=[template], output=["name"]))
        return [sorted(one, key=str) for one in found]

    first = facts()
    bench.server.import_template(TEMPLATE)
    assert facts() == first
    for (_, name, expected), made in zip(KINDS, first):
        assert expected and sorted(one[name] for one in made) == sorted(expected)
    assert {one["name"] for one in first[-1]} == {one["name"] for one in EXPORTED["valuemaps"]}


def shown(name: str, text: str) -> str | float:
    """A served value as Zabbix has it: in volts and degrees."""
    item = mib().objects[name]
    if item.base == "OCTET STRING":
        return text
    if "Voltage" in name or name == "voltageValue":
        return int(text) / 1000
    if name in ("tempCurrent", "tempPeak", "tempAverage"):
        return int(text) / 10
    return float(text)


def expected_values(watched: Watched) -> dict[str, str | float]:
    """Every served value but indices, descriptions and labels, which name the others."""
    values = {}
    for name, text in watched.walk().items():
        column, _, instance = name.partition(".")
        if column in catalogue.SCALAR_OIDS:
            values[f"kvsnmp.{column}"] = shown(column, text)
        elif not column.endswith(("Index", "Description", "Label")):
            values[f"kvsnmp.{column}[{instance}]"] = shown(column, text)
    return values


@pytest.mark.parametrize("host", [entry[0] for entry in HOSTS])
def test_every_served_value_is_an_item(bench, host):
    watched = bench.hosts[host]
    differing: dict[str, Any] = {}

    def same() -> bool:
        watched.refresh()
        expected, items = expected_values(watched), bench.items(host)
        seen = {key: item for key, item in items.items() if not key.startswith(("snmptrap[", "zabbix[", "kvsnmp.sys", "kvsnmp.hrSystem"))}
        differing.clear()
        differing.update({f"{key}: not in the server": value for key, value in expected.items() if key not in seen})
        differing.update({f"{key}: not served": item["lastvalue"] for key, item in seen.items() if key not in expected})
        for key in seen.keys() & expected.keys():
            item, value = seen[key], expected[key]
            got = item["lastvalue"] if isinstance(value, str) else round(float(item["lastvalue"] or "nan"), 9)
            if got != value or item["lastclock"] == "0" or item["state"] != "0":
                differing[key] = (value, item["lastvalue"], item["error"])
        return not differing

    try:
        wait_until(same, 120, 1.0)
    except AssertionError as failure:
        raise AssertionError(f"{failure}\n{differing}\n{bench.server.logs()}") from failure
    tables = [name for name, table in catalogue.TABLES.items() if f"{table.columns[0][0]}." in "\n".join(watched.walk())]
    assert len(tables) == {"pa-6420": 11, "pa-6410": 8, "pa-6764": 10, "pa-6214": 6}[host]


def test_every_table_is_seen_on_some_device(bench):
    names = {name.partition(".")[0] for watched in bench.hosts.values() for name in watched.walk()}
    assert [name for name, table in catalogue.TABLES.items() if table.columns[0][0] not in names] == []


def test_names_units_and_words(bench):
    items = bench.items("pa-6420")
    assert items["kvsnmp.voltageValue[3]"]["name"] == "Internal voltage 3.3V: value"
    assert items["kvsnmp.voltageValue[3]"]["units"] == "V"
    assert items["kvsnmp.tempCurrent[1]"]["name"] == "Temperature Sensor: Channel 1: current"
    assert items["kvsnmp.tempCurrent[1]"]["units"] == "°C"
    assert items["kvsnmp.fanSpeed[2]"]["name"] == "Right Fan: speed"
    template = bench.server.call("template.get", filter={"host": EXPORTED["template"]})[0]["templateid"]
    maps = {one["name"]: one for one in bench.server.call(
        "valuemap.get", hostids=[template], selectMappings=["value", "newvalue"])}
    assert {(row["value"], row["newvalue"]) for row in maps["KvLineState"]["mappings"]} == {
        (str(code), word) for code, word in mib().objects["ampChannelLineState"].enumeration.items()}


def test_inventory_is_filled(bench):
    def inventory() -> dict[str, str]:
        return bench.server.call("host.get", hostids=[bench.hosts["pa-6420"].hostid], selectInventory="extend")[0]["inventory"]

    wait_until(lambda: inventory()["model"] and inventory()["name"], 60, 1.0)
    found = inventory()
    assert {key: found[key] for key in ("name", "model", "type", "type_full", "software", "os", "hardware", "location")} == {
        "name": "pa-device", "model": "Orvane Mervio Amplifier VQ9D", "type": "6420", "type_full": "VQ9D",
        "software": "4.12.3", "os": "5.15.71", "hardware": "6420-2.1", "location": "Equipment room 1"}


# Zabbix's stock templates that discover the IETF's sensors: what to run; columns of the private MIB with the first
# index, key and name of their items, and the divisor.
SENSORS = [("tempDescription", "tempCurrent", 2000, "temp.value", "Temperature", 10),
           ("fanDescription", "fanSpeed", 3100, "fan.speed", "Fan speed", 1)]
STOCK = {
    "Arista by SNMP": (["sensors.get"], [
        *SENSORS, ("voltageDescription", "voltageValue", 1000, "voltage.value", "Voltage", 1)]),  # ignores the scale
    "Mellanox by SNMP": (["temp.discovery", "fan.discovery"], SENSORS),
}


@pytest.mark.parametrize("template", STOCK)
def test_stock_templates_discover_the_standard_sensors(bench, template):
    """Their intervals are hours, so rules and items are run until each has a value."""
    runs, kinds = STOCK[template]
    server, watched = bench.server, bench.hosts["pa-6420"]
    group = server.call("hostgroup.get", filter={"name": "Public address"})[0]["groupid"]
    stock = server.call("template.get", filter={"host": template})[0]["templateid"]
    hostid = server.call("host.create", host=f"stock-{stock}", groups=[{"groupid": group}],
                         interfaces=[interface(watched.address, watched.port)], templates=[{"templateid": stock}],
                         macros=[{"macro": "{$SNMP_COMMUNITY}", "value": "public"}])["hostids"][0]
    seen: dict[tuple[str, str], float] = {}

    def same() -> bool:
        watched.refresh()
        items = server.call("item.get", hostids=[hostid], search={"key_": "entPhySensorValue"},
                            output=["itemid", "key_", "name", "lastvalue", "lastclock"])
        seen.clear()
        seen.update({(item["key_"], item["name"]): round(float(item["lastvalue"]), 9)
                     for item in items if item["lastclock"] != "0"})
        waiting = [item["itemid"] for item in items if item["lastclock"] == "0"]
        if not items:
            waiting = [found["itemid"] for kind in ("item", "discoveryrule") for found in server.call(
                f"{kind}.get", hostids=[hostid], filter={"key_": runs}, output=["itemid"])]
        for itemid in waiting:
            server.call("task.create", type=6, request={"itemid": itemid})
        walk = watched.walk()
        return seen == {
            (f"sensor.{key}[entPhySensorValue.{base + row}]", f"{walk[f'{name}.{row}']}: {word}"):
            int(walk[f"{column}.{row}"]) / divisor
            for name, column, base, key, word, divisor in kinds for row in range(1, 21) if f"{name}.{row}" in walk}

    try:
        wait_until(same, 150, 2.0, what=f"{template}: the sensors' values")
    finally:
        server.call("host.massupdate", hosts=[{"hostid": hostid}], status=1)  # polled no more


def imported(server: Server, text: str) -> list[dict[str, Any]]:
    """The hosts as the server has them; it does not poll them."""
    server.import_hosts(text)
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
    try:
        text = discover("--format", "zabbix", "127.0.10.1-127.0.10.7").stdout
    finally:
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
    program, hosts = loaded(PROGRAM), []
    algorithms = [("MD5", "DES"), ("SHA", "AES"), ("SHA-224", "AES-192"), ("SHA-256", "AES-256"), ("SHA-384", "AES"),
                  ("SHA-512", "AES")]
    for number, (authentication, privacy) in enumerate(algorithms, 101):
        access = program.Access(PORT, "", {"defSecurityName": '"monitor"', "defSecurityLevel": "authPriv",
                                           "defAuthType": authentication, "defPrivType": privacy}, "")
        text = program.zabbix([program.Device(f"127.0.10.{number}", "hall", 6420, "", "", 1.0)], access)
        export = json.loads(text)
        hosts += [host | {"templates": []} for host in export["zabbix_export"]["hosts"]]
    export["zabbix_export"]["hosts"] = hosts
    details = [host["interfaces"][0]["details"] for host in imported(bench.server, json.dumps(export))]
    assert [(one["authprotocol"], one["privprotocol"]) for one in details] == [
        ("0", "0"), ("1", "1"), ("2", "2"), ("3", "3"), ("4", "1"), ("5", "1")]
    assert all((one["version"], one["securityname"], one["securitylevel"], one["authpassphrase"], one["privpassphrase"]) == (
        "3", "monitor", "2", "{$SNMP_AUTH}", "{$SNMP_PRIV}") for one in details)


class Fault(NamedTuple):
    host: str
    problem: str
    cause: list[str]  # words of talctl
    end: list[str]


LINE, LINE_STATE = "lines/line[kid='{}']/{}", "lines/line[kid='{}']/characteristics/line_state"
SENSOR = "temp_sensors/temp_sensor[kid='{}']/temp_current"
# Host, problem; what causes it and what ends it are the last two words.
FAULTS = [Fault(host, problem, [*order, bad], [*order, good]) for host, problem, *order, bad, good in [
    *[(host, problem, "set", f"/state/{path}", bad, good) for host, problem, path, bad, good in [
        ("pa-6420", "Temperature Sensor: Channel 1: high", SENSOR.format("amp_class_d_amp_1"), "71.5", "52.4"),
        ("pa-6420", "Temperature Sensor: Main Board: critical", SENSOR.format("amp_main_board"), "90.0", "43.5"),
        ("pa-6420", "Temperature Sensor: AC Power: far above its average", SENSOR.format("amp_ac_power"), "69.0", "46.2"),
        ("pa-6420", "Left Fan stands still", "fans/fan[kid='amp_power']/speed_sensor_rpm", "0", "1450"),
        ("pa-6420", "Internal voltage 3.3V is out of order", "power_lines/power_line[kid='3v3']/voltage", "2.1", "3.312"),
        ("pa-6420", "Internal voltage 5.0V drifts", "power_lines/power_line[kid='5v0']/voltage", "5.3", "5.04"),
        ("pa-6410", "ac_power does not deliver", "power_sources/power_source[kid='ac_power']/live", "false", "true"),
        ("pa-6410", "Line In 1 has lost its pilot tone", LINE.format("ln1", "pilot_tone_state"), "failed", "ok"),
        ("pa-6214", "Microphone Extern is disconnected or shorted", "lines/mic_status_extern", "shorted", "connected"),
        ("pa-6764", "Channel 1 is switched off", "config/" + LINE.format("ch1", "enable"), "false", "true"),
        ("pa-6420", "Channel 1: loudspeaker line faulty", LINE_STATE.format("ch1"), "shorted", "ok"),
        ("pa-6420", "Channel 2: loudspeaker line not fed", LINE_STATE.format("ch2"), "voltage_low", "ok"),
        ("pa-6764", "Channel 2: line monitoring without result", LINE_STATE.format("ch2"), "indecisive", "ok"),
        ("pa-6420", "Eth 1 is no longer supervised", "config/os_ip/eth_switch/port[port_id='Eth1']/monitored", "false", "true")]],
    ("pa-6420", "Channel 2 is out of order", "monitor", "amp", "1", "1", "2"),
    ("pa-6420", "LET 1 Channel 1 is missing", "monitor", "let", "0", "1", "1", "2"),
    ("pa-6764", "LET 2 Channel 2 is missing", "monitor", "let", "1", "2", "1", "2"),
    ("pa-6420", "Control Input 2 is shorted or unconnected", "monitor", "gpi", "1", "fail_shorted", "ok_open"),
    ("pa-6410", "Control Output 1 does not follow its command", "monitor", "gpo", "0", "fail_set", "ok_set"),
    ("pa-6214", "External Relay 3 has failed or cannot be read", "gpio", "e_relay3", "unreadable", "0")]]


@pytest.fixture(scope="session")
def healthy(bench) -> Bench:
    """Fresh from the simulator, when no host has a problem."""
    def quiet() -> bool:
        for watched in bench.hosts.values():
            watched.refresh()
        return not any(bench.problems(name) for name in bench.hosts)

    wait_until(quiet, 120, 1.0, what="no problem on any host")
    return bench


def test_each_trigger_fires_on_its_fault_and_recovers(healthy):
    bench = healthy
    for fault in FAULTS:
        bench.hosts[fault.host].device.talctl(*fault.cause)
    for fault in FAULTS:
        bench.wait_problem(fault.host, fault.problem, True)
    for fault in FAULTS:
        bench.hosts[fault.host].device.talctl(*fault.end)
    for fault in FAULTS:
        bench.wait_problem(fault.host, fault.problem, False)


def test_every_trigger_prototype_has_a_fault_here():
    assert [name for name in KINDS[-1][2] if not any(
        re.fullmatch(re.escape(name).replace(re.escape("{#DESCRIPTION}"), ".+"), fault.problem) for fault in FAULTS)] == []


@pytest.fixture(scope="session")
def faults(bench) -> Faults:
    return Faults(bench.hosts["pa-6420"].device)


def test_each_notification_is_a_value_of_its_item_alone(bench, faults):
    others = f"see {E}.2.8.3 and ZBXTRAP 127.0.0.2 {E}.2.8.4 "  # in a text, these are neither traps nor other hosts
    texts = {row.name: f"text of {row.name}, {others}" for row in TRAPS}
    for row in TRAPS:
        faults.raise_one(row.identifiers[0], texts[row.name])

    def values() -> dict[str, list[str]]:
        items = {key: item for key, item in bench.items("pa-6420").items() if key.startswith("snmptrap[")}
        found: dict[str, list[str]] = {key: [] for key in items}
        by_id = {item["itemid"]: key for key, item in items.items()}
        for entry in bench.server.call("history.get", history=2, itemids=list(by_id), output="extend"):
            found[by_id[entry["itemid"]]].append(entry["value"])
        return found

    wait_until(lambda: sum(map(len, values().values())) >= len(TRAPS), 60, 1.0, what="all traps in the server")
    found = values()
    for row in TRAPS:
        number = f"{E}.2.8.{row.arc}".replace(".", "\\.")
        [value] = found.pop(f'snmptrap["(^\\S+ +|OID: ){number}(\\s|$)"]')
        text = re.escape(texts[row.name].replace("ZBXTRAP", "ZBX-TRAP").strip())
        since = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
        assert re.fullmatch(rf"\S+ +{number} error pa-device \(device\): {row.name} error since {since}: {text}", value)
    assert found == {}
    for other in ("pa-6410", "pa-6764", "pa-6214"):
        assert all(item["lastclock"] == "0" for key, item in bench.items(other).items() if key.startswith("snmptrap["))

    bench.wait_problem("pa-6420", "Trap: Cooling Fan Fault (error)", True)
    bench.wait_problem("pa-6420", "Trap: Cooling Fan Fault (error)", False, timeout=200)  # 60 s after the trap


def test_a_trap_is_a_problem_of_its_level(bench, faults):
    for number, level in enumerate(["crit", "err", "odd", "warning", "info"], 1):
        faults.raise_one("let_fail", f"level {level}: {E}.2.8.5 critical ", level=level)
        # As another receiver writes it.
        bench.server.add_trap(f"127.0.0.2\nVARBINDS:\n  .1.3.6.1.6.3.1.1.4.1.0  type=6  value=OID: {E}.2.8.19\n"
                              f"  {E}.2.4.3.0  type=2  value=INTEGER: {number}\n")
    severities = {"critical": "4", "error": "3", "unclassified": "2", "warning": "2", "notice": "1"}
    for host, kind in [("pa-6420", "LET Fault"), ("pa-6410", "Overtemperature")]:
        expected = {(f"Trap: {kind} ({word})", severity) for word, severity in severities.items()}
        wait_until(lambda: {problem for problem in bench.severities(host) if kind in problem[0]} == expected, 60, 1.0,
                   what=f"problems of each severity on {host}")


def test_dashboard_has_a_graph_for_each_measurement(bench):
    template = bench.server.call("template.get", filter={"host": EXPORTED["template"]})[0]["templateid"]
    [dashboard] = bench.server.call("templatedashboard.get", templateids=[template], selectPages="extend")
    shown = [field["value"] for page in dashboard["pages"] for widget in page["widgets"] for field in widget["fields"]
             if field["name"] == "itemid" or field["name"].startswith("itemid")]
    prototypes = bench.server.call("itemprototype.get", hostids=[template], output=["key_"])
    keys = {item["itemid"]: item["key_"] for item in prototypes}
    assert {keys[item] for item in shown} >= {
        f"kvsnmp.{column}[{{#SNMPINDEX}}]" for column in ("voltageValue", "tempCurrent", "fanSpeed", "ampChannelStatus")}


def test_a_restart_and_other_firmware_are_problems(bench):
    """The second problem stays until somebody closes it."""
    watched = bench.hosts["pa-6764"]
    macro = bench.server.call("usermacro.create", hostid=watched.hostid, macro="{$KV.RESTART}",
                              value="100000d")["hostmacroids"]
    bench.wait_problem("pa-6764", "The device has restarted", True)
    bench.server.call("usermacro.update", hostmacroid=macro[0], value="1s")
    bench.wait_problem("pa-6764", "The device has restarted", False)
    assert "Firmware has changed" not in bench.problems("pa-6764")
    watched.device.end_kvsnmp()
    watched.device.path("/etc/xr-pkgver").write_text("4.13.0\n")
    watched.device.start_kvsnmp("-d", clock_shift=True)
    bench.wait_problem("pa-6764", "Firmware has changed", True)


def test_a_missing_daemon_and_a_missing_device_are_different_problems(healthy):
    bench = healthy
    silent, unreachable = "Nothing of KVSNMP-MIB is answered", "No answer by SNMP"
    device = bench.hosts["pa-6410"].device
    device.run(["sh", "-c", "kill -STOP $(pidof kvsnmp)"])
    dead = bench.hosts["pa-6764"].device
    assert dead.stop() == []
    bench.devices.remove(dead)
    limit = time.monotonic() + 150
    while unreachable not in bench.problems("pa-6764") and time.monotonic() < limit:
        time.sleep(1)
    assert unreachable in bench.problems("pa-6764")
    wait_until(lambda: silent in bench.problems("pa-6410"), 150, 1.0, what=f"{silent} on pa-6410")
    assert unreachable not in bench.problems("pa-6410")
    device.run(["sh", "-c", "kill -CONT $(pidof kvsnmp)"])
    wait_until(lambda: silent not in bench.problems("pa-6410"), 150, 1.0, what=f"{silent} is over")
