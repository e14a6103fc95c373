"""The recipes of docs/operators.md, typed as they are on a fresh Debian with systemd, and forty devices on its network.

With KVSNMP_PICTURES=1 also the pictures in docs/pictures (scripts/test-packages --pictures).
"""
from __future__ import annotations

import json
import os
import re
import subprocess
import textwrap
import urllib.parse
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from debianroot import DEBS, Booted, DebianRoot, wait_until
from network import FAULTS, NAMES, Network

CHECKOUT = Path(__file__).resolve().parents[2]
WORK = CHECKOUT / "build/package/manager"
PICTURES = CHECKOUT / "docs/pictures" if os.environ.get("KVSNMP_PICTURES") else None
ZABBIX = "http://127.0.0.1/zabbix"
PASSWORD = "zabbix"  # that of Admin in Debian's package
BROKEN = sorted(FAULTS)


def recipes() -> dict[str, list[str]]:
    """The commands of each tool."""
    text = (CHECKOUT / "docs/operators.md").read_text()
    text = text.split("\n## From nothing to forty devices on one screen\n")[1].split("\n## ")[0]
    found = {}
    for section in text.split("\n### ")[1:]:
        heading, _, rest = section.partition("\n")
        block = re.search(r"^((?: {4}.*\n)+)", rest, re.MULTILINE)
        found[heading] = re.sub(r"\\\n *", "", textwrap.dedent(block[1])).splitlines()
    return found


RECIPES = recipes()


@pytest.fixture(scope="module")
def manager(debs: Path) -> Iterator[Booted]:
    root = DebianRoot(WORK / "root", debs)
    root.make(["systemd-sysv", "dbus", "ca-certificates", "locales"])
    # A Debian that was installed in English has this locale.
    root.path("/etc/locale.gen").write_text("en_US.UTF-8 UTF-8\n")
    root.run("locale-gen")
    # The booted one has a network of its devices alone.
    for line in (lines[0] for lines in RECIPES.values()):
        assert line.startswith("apt-get install ./kvsnmp-monitoring_*.deb "), line
        root.run("/bin/sh", "-c", f"cd {DEBS} && {line} --download-only")
    root.service_policy.unlink()
    system = Booted(root)
    yield system
    system.stop()


@pytest.fixture(scope="module")
def network(manager: Booted) -> Iterator[Network]:
    network = Network(manager)
    yield network
    network.stop()


def eventually(look: Callable[[], object], seconds: float, what: str) -> None:
    """A program that has just started may refuse the connection, or have no data yet."""
    def seen() -> object:
        try:
            return look()
        except (subprocess.CalledProcessError, ValueError, KeyError):
            return False

    wait_until(seen, seconds, what=what)


def type_recipe(manager: Booted, lines: list[str]) -> str:
    """In one shell; the one question is answered in advance."""
    script = "\n".join([f"export ZABBIX_PASSWORD={PASSWORD}", f"cd {DEBS}", "set -e -o pipefail", *lines])
    return manager.run("/bin/bash", "-c", script).stdout


def query(network: Network, text: str) -> dict[str, float]:
    """By device."""
    answer = json.loads(network.page(f"http://127.0.0.1:9090/api/v1/query?{urllib.parse.urlencode({'query': text})}"))
    return {item["metric"].get("instance", ""): float(item["value"][1]) for item in answer["data"]["result"]}


def take_pictures(network: Network, *steps: dict[str, Any]) -> None:
    if PICTURES is None:
        return
    PICTURES.mkdir(exist_ok=True)
    subprocess.run(network.entering("/usr/bin/python3", str(Path(__file__).with_name("pictures.py")), str(PICTURES)),
                   input=json.dumps(steps), text=True, check=True, timeout=600)
    for name in [step["picture"] for step in steps if "picture" in step]:
        subprocess.run(["pngquant", "--force", "--output", str(PICTURES / name), "32", str(PICTURES / name)], check=True)
        assert (PICTURES / name).stat().st_size < 150_000, name


def test_each_recipe_has_at_most_ten_commands() -> None:
    assert len(RECIPES) == 5
    assert {name: len(lines) for name, lines in RECIPES.items() if len(lines) > 10} == {}


def test_only_snmptrapd(manager: Booted, network: Network) -> None:
    *first, follow = RECIPES["Only snmptrapd"]
    listed = type_recipe(manager, first)
    assert follow.startswith("journalctl -f ")
    assert re.findall(r"^(10\.1\.0\.\d+) +(\S+)", listed, re.MULTILINE) == list(NAMES.items())
    for address in NAMES:
        network.send_trap(address)

    def lines() -> list[str]:
        return re.findall(r" kvsnmp-trap\[\d+\]: (.*)", manager.output("/bin/sh", "-c", follow.replace(" -f", "")))

    eventually(lambda: len(lines()) == len(NAMES), 30, "a line for each trap")
    assert sorted(lines()) == sorted(
        f"{address} {name} (device): coolingFanFault critical since 2024-06-01 10:02:03: Fan 1 stands still"
        for address, name in NAMES.items())


def test_prometheus_and_alertmanager(manager: Booted, network: Network) -> None:
    type_recipe(manager, RECIPES["Prometheus and Alertmanager"])
    eventually(lambda: query(network, 'up{job="kvsnmp"} == 1').keys() == NAMES.keys(), 120, "forty devices scraped")
    eventually(lambda: sorted(query(network, "count by (instance) (ALERTS)")) == BROKEN, 120, "alerts of the broken devices")
    assert manager.output("systemctl", "is-active", "prometheus", "prometheus-alertmanager", "prometheus-snmp-exporter"
                          ).split() == ["active"] * 3


def test_nagios(manager: Booted, network: Network) -> None:
    type_recipe(manager, RECIPES["Nagios"])
    cgi = "http://127.0.0.1/cgi-bin/nagios4"

    def states() -> dict[str, str]:
        found = json.loads(network.page(
            f"{cgi}/statusjson.cgi?query=servicelist&formatoptions=enumerate&hostgroup=kvsnmp-devices"))
        return {host: services["kvsnmp"] for host, services in found["data"]["servicelist"].items()}

    wanted = {address: "critical" if address in BROKEN else "ok" for address in NAMES}
    eventually(lambda: states() == wanted, 300, "forty services")
    take_pictures(network, {"url": f"{cgi}/status.cgi?hostgroup=kvsnmp-devices&style=detail&limit=0", "height": 1500,
                            "element": "table.status", "picture": "nagios-services.png"})
    manager.run("systemctl", "disable", "--now", "nagios4")


def test_icinga(manager: Booted, network: Network) -> None:
    *first, password, listing = RECIPES["Icinga 2"]
    type_recipe(manager, first)

    def states() -> dict[str, str]:
        text = manager.run("/bin/bash", "-c", f"{password}\n{listing}", check=False).stdout
        return dict(re.findall(r'^ *"(10\.1\.0\.\d+) KVSNMP (\w+) - ', text, re.MULTILINE))

    wanted = {address: "CRITICAL" if address in BROKEN else "OK" for address in NAMES}
    eventually(lambda: states() == wanted, 300, "forty services")
    manager.run("systemctl", "disable", "--now", "icinga2")


def test_alertmanager_has_the_alerts(manager: Booted, network: Network) -> None:
    """They have fired by now, minutes after Prometheus has started."""
    def alerts() -> list[str]:
        found = json.loads(network.page("http://127.0.0.1:9093/api/v2/alerts?active=true"))
        return sorted(alert["labels"]["instance"] for alert in found)

    eventually(lambda: alerts() == BROKEN, 400, "the alerts in Alertmanager")
    listed = manager.run("amtool", "--alertmanager.url=http://localhost:9093", "alert", "query").stdout
    print(listed)
    shown = network.page("http://127.0.0.1:9090/consoles/kvsnmp.html")
    assert f"<h1>40 devices,\n{len(BROKEN)} alerts</h1>" in shown
    rows = re.findall(r'^<tr class="(\w*)"><td><a [^>]*>([\d.]+)</a></td>\n<td>(.*?)</td>', shown, re.MULTILINE)
    assert {address: name for _, address, name in rows} == NAMES
    assert sorted(address for worst, address, _ in rows if worst) == BROKEN
    assert {worst for worst, address, _ in rows if address in BROKEN} == {"critical"}
    take_pictures(network, {"url": "http://127.0.0.1:9090/consoles/kvsnmp.html", "element": "body", "width": 1200,
                            "picture": "prometheus-devices.png"},
                  {"url": "http://127.0.0.1:9090/classic/alerts", "element": "#alertsTable", "width": 1000,
                   "press": ["label:has(#inactiveAlerts)", ".alert-danger.alert_header"],
                   "picture": "prometheus-alerts.png"})
    manager.run("systemctl", "disable", "--now", "prometheus", "prometheus-snmp-exporter", "prometheus-alertmanager")


def test_zabbix(manager: Booted, network: Network) -> None:
    print(type_recipe(manager, RECIPES["Zabbix"]))
    token = None

    def call(method: str, listed: list[dict] | None = None, **parameters: Any) -> Any:
        request = {"jsonrpc": "2.0", "method": method, "params": listed or parameters, "id": 1, "auth": token}
        answer = json.loads(network.page(f"{ZABBIX}/api_jsonrpc.php", json.dumps(request)))
        assert "result" in answer, answer
        return answer["result"]

    def problems() -> set[tuple[str, str]]:
        found = call("trigger.get", groupids=[group], filter={"value": 1}, output=["description"], expandDescription=True,
                     selectHosts=["host"])
        return {(trigger["hosts"][0]["host"], trigger["description"]) for trigger in found}

    token = call("user.login", username="Admin", password=PASSWORD)
    group = call("hostgroup.get", filter={"name": "Public address"})[0]["groupid"]
    hosts = call("host.get", groupids=[group], output=["hostid", "host", "name"])
    assert {host["host"]: host["name"] for host in hosts} == {
        address: f"{name} ({address})" for address, name in NAMES.items()}
    # Not to wait 15 minutes: "Execute now", as in the template's README.
    rules = call("discoveryrule.get", groupids=[group], output=["itemid"])
    eventually(lambda: all(host["interfaces"][0]["available"] == "1" for host in call(
        "host.get", groupids=[group], selectInterfaces=["available"])), 180, "forty devices answer the server")
    call("task.create", [{"type": 6, "request": {"itemid": rule["itemid"]}} for rule in rules])
    faults = {("10.1.0.16", "Channel 1: loudspeaker line faulty"), ("10.1.0.23", "Left Fan stands still"),
              ("10.1.0.29", "Internal voltage 3.3V is out of order")}
    eventually(lambda: problems() >= faults, 600, "a problem of each broken device")
    assert problems() == faults
    by_name = {host["host"]: host["hostid"] for host in hosts}
    dashboard = call("templatedashboard.get", output=["dashboardid"], templateids=[
        template["templateid"] for template in call("template.get", filter={"name": "kvsnmp device by SNMP"})])
    take_pictures(
        network, {"url": f"{ZABBIX}/index.php", "fill": {"name": "Admin", "password": PASSWORD}, "press": ["#enter"]},
        {"url": f"{ZABBIX}/zabbix.php?action=host.view&groupids%5B%5D={group}&filter_set=1", "width": 1550,
         "height": 2000, "element": ".list-table", "picture": "zabbix-hosts.png"},
        {"url": f"{ZABBIX}/zabbix.php?action=problem.view&show=3&filter_set=1", "width": 1550,
         "element": ".list-table", "picture": "zabbix-problems.png"},
        {"url": f"{ZABBIX}/zabbix.php?action=host.dashboard.view&hostid={by_name['10.1.0.29']}"
                f"&dashboardid={dashboard[0]['dashboardid']}&from=now-15m&to=now", "width": 1550, "height": 1200,
         "element": ".dashboard-grid", "picture": "zabbix-dashboard.png"})
