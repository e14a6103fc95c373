"""kvsnmp-discover among devices, other agents and silent addresses on loopback, and its output in each format."""
from __future__ import annotations

import csv
import importlib.machinery
import importlib.util
import json
import os
import pty
import re
import shlex
import signal
import socket
import subprocess
import sys
import threading
import time
from collections import Counter
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import NamedTuple

import pytest
import yaml
from agents import PLAYED, PORT, REAL, Agents, Answer, played, snmpd
from prometheus_files import CHECKOUT, program, walks
from support import ber
from support.device import Device
from support.polling import wait_until

sys.dont_write_bytecode = True  # the program is loaded here, too
PROGRAM = CHECKOUT / "monitoring/discover/kvsnmp-discover"
SILENT_PORT = 31160  # a socket here receives every packet and never answers
RANGES = ["127.0.10.0/26", "127.0.20.0/28", "127.0.30.1-127.0.30.6", "127.0.40.1"]
VERSION, TEXT, NUMBER = (f"{walks.BASE}.1.{arc}.0" for arc in (1, 2, 3))
USER, PHRASES = "monitor", ('it\'s a "long" one', "back\\slash and spaces")
V3_TEXT = "Orvane Mervio Controller, far more than one line of snmpget's output"


class Row(NamedTuple):
    name: str
    model: int
    description: str
    firmware: str


def quoted(text: str) -> str:
    return '"' + re.sub(r'(["\\])', r"\\\1", text) + '"'


@pytest.fixture(scope="module", autouse=True)
def expected(tmp_path_factory) -> Iterator[dict[str, Row]]:
    """Starts everything; each device's address and what is known of it."""
    folder = tmp_path_factory.mktemp("agents")
    devices = [Device(model, "--no-traps", "--port", str(port)) for model, port in REAL.values()]
    agents = Agents()
    agents.start()
    plain = [snmpd(folder / "foreign", "127.0.20.1", "sysName foreign"),
             snmpd(folder / "v3", "127.0.40.1", "sysName by-user",
                   f"createUser {USER} SHA-256 {quoted(PHRASES[0])} AES {quoted(PHRASES[1])}", f"rouser {USER} priv",
                   f"override .{VERSION} octet_str 4.12.3", f"override .{TEXT} octet_str \"{V3_TEXT}\"",
                   f"override .{NUMBER} integer 6410")]
    try:
        for device in devices:
            device.wait_ready()
        for device, (model, port) in zip(devices, REAL.values()):
            asked = ["snmpget", "-v2c", "-cpublic", "-Oqv", f"127.0.0.1:{port}", NUMBER]
            wait_until(lambda: device.run(asked, check=False).stdout.strip() == str(model), 30, what=f"{model} answers")
        rows = {"127.0.40.1": Row("by-user", 6410, V3_TEXT, "4.12.3")}
        for address, (name, model) in (PLAYED | {one: ("pa-device", str(model)) for one, (model, _) in REAL.items()}).items():
            firmware, text, *_ = (item.value for item in walks.read(model))
            rows[address] = Row(name, int(model[:4]), text, firmware)
        yield rows
    finally:
        complaints = [complaint for device in devices for complaint in device.stop()]
        agents.stop()
        for process in plain:
            process.terminate()
            process.wait(10)
    assert complaints == []


def discover(*words: str, timeout: float = 60, **environment: str) -> subprocess.CompletedProcess:
    return subprocess.run([PROGRAM, "--port", str(PORT), *words], capture_output=True, text=True, timeout=timeout, check=False,
                          stdin=subprocess.DEVNULL, env=os.environ | environment)


@pytest.fixture(scope="module")
def outputs(expected) -> dict[str, str]:
    """Of each format, for all ranges. The lossy device misses the first two requests of the first search."""
    made = {}
    for name in ("table", "csv", "icinga2", "nagios", "prometheus", "zabbix"):
        retries = [] if name == "table" else ["--retries", "0", "--timeout", "0.5"]
        done = discover("--format", name, *retries, *RANGES)
        assert (done.returncode, done.stderr) == (0, ""), name
        made[name] = done.stdout
    return made


# What is found


def test_every_device_is_found_and_nothing_else(expected, outputs):
    found = {}
    for cells in list(csv.reader(outputs["csv"].splitlines()))[1:]:
        assert 0 < float(cells[5]) < 500
        found[cells[0]] = (int(cells[2]), cells[3], cells[4])
    assert found == {address: row[1:] for address, row in expected.items()}
    assert len(found) == 23 and list(found) == sorted(found, key=lambda address: [int(part) for part in address.split(".")])
    assert {line.split()[0] for line in outputs["table"].splitlines()[1:]} == set(found)


@pytest.mark.parametrize("settings", [
    ["defVersion 3", f"defSecurityName {USER}"], [f"DEFSECURITYNAME\t{quoted(USER)}", "mibs +ALL", "# a comment"]])
def test_version_3_with_a_user(expected, tmp_path, settings):
    """Other agents answer the search for engines, too. The folder with the passphrases is private and removed."""
    calls = tmp_path / "calls"
    (tmp_path / "snmpget").write_text(f"""#!/bin/sh
{{ echo "$*"; ls -ld "$SNMPCONFPATH"; echo "$SNMPCONFPATH"; }} >> {calls}
exec /usr/bin/snmpget "$@"
""")
    (tmp_path / "snmpget").chmod(0o755)
    secrets = ["defSecurityLevel authPriv", "defAuthType SHA-256", f"defAuthPassphrase {quoted(PHRASES[0])}",
               "defPrivType AES", f"defPrivPassphrase {quoted(PHRASES[1])}"]
    file = tmp_path / "credentials"
    file.write_text("\n".join([*settings, *secrets]))
    path = f"{tmp_path}:{os.environ['PATH']}"
    done = discover("--credentials", str(file), "--format", "prometheus", "--retries", "0", *RANGES, PATH=path)
    assert (done.returncode, done.stderr) == (0, "kvsnmp-discover: Unknown user name (4 addresses)\n")
    assert devices_of(done.stdout) == {"127.0.40.1": expected["127.0.40.1"]}
    said = calls.read_text()
    assert "127.0.40.1" in said and not any(phrase in said for phrase in PHRASES) and USER not in said
    for mode, folder in re.findall(r"^(d\S+) .*\n(/.*)$", said, re.MULTILINE):
        assert mode == "drwx------" and not Path(folder).exists()

    file.write_text("\n".join([*settings, *secrets]).replace("back", "front"))
    done = discover("--credentials", str(file), "--timeout", "0.5", "127.0.40.1")
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(r"kvsnmp-discover: .+ \(1 address\)\nkvsnmp-discover: no device found\n", done.stderr)


@pytest.fixture
def module(monkeypatch) -> ModuleType:
    """The program in this process."""
    loader = importlib.machinery.SourceFileLoader("discover", str(PROGRAM))
    made = importlib.util.module_from_spec(importlib.util.spec_from_loader("discover", loader))
    loader.exec_module(made)
    monkeypatch.setattr(made, "hide", lambda *secrets: None)
    return made


def visible(text: str) -> str:
    return "".join(char if char.isprintable() else char.encode("unicode_escape").decode() for char in text)


def devices_of(text: str) -> dict[str, Row]:
    """From the output for Prometheus."""
    found = {}
    for group in json.loads(text):
        (target,) = group["targets"]
        name, model, description, firmware = (
            group["labels"][f"__meta_kvsnmp_{label}"] for label in ("name", "model", "description", "firmware"))
        found[target.removesuffix(f":{PORT}")] = Row(name, int(model), description, firmware)
    return found


@pytest.mark.parametrize("words", [["-c", "other-community"], ["--community=other-community"], ["-uother-user"]])
def test_the_process_list_shows_no_community_and_no_user(words):
    with subprocess.Popen([PROGRAM, *words, "--port", str(PORT), "--timeout", "1.5", "--retries", "0", "127.0.50.1"],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        shown = Path(f"/proc/{process.pid}/cmdline")
        wait_until(lambda: b"kvsnmp-discover" in shown.read_bytes() and b"other-" not in shown.read_bytes(), 1, what="hidden")
        assert re.search(rb"\*{8,}", shown.read_bytes()) and b"127.0.50.1" in shown.read_bytes()
        assert process.communicate()[1].endswith(b"kvsnmp-discover: no device found\n") and process.returncode == 1


def test_the_community_decides_who_answers(tmp_path):
    (tmp_path / "file").write_text('# for these\nmibs +ALL\ndefCommunity "pub\\lic"\n')
    for words, found in [(["-c", "public"], 0), (["-c", "private"], 1), (["--credentials", str(tmp_path / "file")], 0)]:
        assert discover(*words, "--retries", "0", "--timeout", "0.5", "127.0.10.1").returncode == found, words


# How it asks


class Listener(threading.Thread):
    """Receives what is sent to any address, and answers for those of one network."""

    def __init__(self, network: str = "", answer: Answer | None = None) -> None:
        super().__init__(daemon=True)
        self.network, self.answer = network, answer
        self.packets: list[tuple[float, str]] = []
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.IPPROTO_IP, IP_PKTINFO, 1)
        self.socket.bind(("", SILENT_PORT))

    def run(self) -> None:
        while True:
            data, ancillary, _, sender = self.socket.recvmsg(65535, 512)
            if not data:
                return
            address = socket.inet_ntoa(ancillary[0][2][8:12])
            self.packets.append((time.monotonic(), address))
            if self.network and address.startswith(self.network):
                pktinfo = bytes(4) + socket.inet_aton(address) + bytes(4)  # the answer comes from there
                self.socket.sendmsg(self.answer(ber.answer(data), data), [(socket.IPPROTO_IP, IP_PKTINFO, pktinfo)], 0, sender)

    def __enter__(self) -> Listener:
        self.start()
        return self

    def __exit__(self, *_) -> None:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            one.sendto(b"", ("127.0.0.1", SILENT_PORT))
        self.join()
        self.socket.close()


IP_PKTINFO = 8  # of Linux


def test_a_silent_24_takes_five_seconds_at_most():
    with Listener() as listener:
        started = time.monotonic()
        done = discover("--port", str(SILENT_PORT), "127.0.60.0/24")
        took = time.monotonic() - started
    assert (done.returncode, done.stdout, done.stderr) == (1, "", "kvsnmp-discover: no device found\n")
    asked = Counter(address for _, address in listener.packets)
    assert asked == {f"127.0.60.{number}": 3 for number in range(1, 255)}
    assert took < 5, took


def test_the_pace():
    with Listener() as listener:
        discover("--port", str(SILENT_PORT), "--retries", "0", "127.0.60.0/22", "127.0.62.7", "127.0.63.0-127.0.63.255")
    times = [at for at, _ in listener.packets]
    assert len(times) == len(set(address for _, address in listener.packets)) == 1023, "each once, although given twice"
    # A second of the sender may be a little shorter here: packets wait in the socket.
    busiest = max(sum(first <= at < first + 0.98 for at in times) for first in times)
    assert 400 < busiest <= 500, "500 a second, and not much less"


def test_large_ranges_are_asked_again_only_around_answers(monkeypatch, module):
    """With less time than the default, so that the range need not be large."""
    addresses = module.addresses_of(["127.0.72.0-127.0.73.255"])
    access = module.Access(SILENT_PORT, "public", {}, "")
    assert not module.Scan(list(range(39200)), access, 1.0, None).scarce
    assert module.Scan(list(range(39201)), access, 1.0, None).scarce
    assert not module.Scan(list(range(39201)), access, 1.0, 2).scarce, "as asked for"
    monkeypatch.setattr(module, "TIME_FOR_RETRIES", 3.0)
    monkeypatch.setattr(module, "LAST_RETRY", 3.0)
    answer = played("neighbour", "6425")
    with Listener("127.0.73.77", lambda asked, data: answer(asked, data)) as listener:
        scan = module.Scan(addresses, access, 0.5, None)
        scan.run(lambda: None)
    asked = Counter(address for _, address in listener.packets)
    assert [device.name for device in scan.found.values()] == ["neighbour"]
    assert {asked[f"127.0.72.{number}"] for number in range(256)} == {1}
    assert {asked[f"127.0.73.{number}"] for number in range(256) if number != 77} == {3} and asked["127.0.73.77"] == 1
    assert listener.packets[-1][0] - listener.packets[0][0] < 4


def test_progress_on_a_terminal_and_an_interruption_lists_what_was_found(expected):
    ours, theirs = pty.openpty()
    with subprocess.Popen([PROGRAM, "--port", str(PORT), *RANGES, "127.0.60.0/20"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=theirs, text=True) as process:
        os.close(theirs)
        shown = ""
        while not re.search(r"\d+ of at most 12,\d+ questions asked, 2\d devices found, \d+ s left", shown):
            shown += os.read(ours, 1000).decode()
        process.send_signal(signal.SIGINT)
        out = process.communicate(timeout=5)[0]
    os.close(ours)
    assert process.returncode == 130
    assert len(out.splitlines()) in (22, 23, 24) and {line.split()[0] for line in out.splitlines()[1:]} <= set(expected)


def test_nothing_found():
    heading = "address,name,model,description,firmware,milliseconds\n"
    for name, text in [("table", ""), ("prometheus", "[]\n"), ("csv", heading)]:
        done = discover("--format", name, "--timeout", "0.1", "127.0.50.1-127.0.50.3", "127.0.20.1")
        assert (done.returncode, done.stdout, done.stderr) == (1, text, "kvsnmp-discover: no device found\n")


def test_addresses_without_a_route():
    done = subprocess.run(["unshare", *["--map-root-user"] * (os.geteuid() != 0), "--net", PROGRAM, "192.0.2.0/30"],
                          capture_output=True, text=True, timeout=30, check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == "kvsnmp-discover: Network is unreachable (2 addresses)\nkvsnmp-discover: no device found\n"


@pytest.mark.parametrize("words", [
    "", "10.1", "10.1.0.0/33", "10.0.0.9-10.0.0.1", "10.0.0.1-", "hall.example", "::1", "10.0.0.0/8", "224.0.0.0/24", "0.0.0.0",
    "255.255.255.254", "--retries 7 10.0.0.1", "--port 0 10.0.0.1", "--timeout nan 10.0.0.1", "--format xml 10.0.0.1",
    "--nope 10.0.0.1", "-c a -u b 10.0.0.1", "-c '' 10.0.0.1", "-c 'a\nb' 10.0.0.1", "-u '' 10.0.0.1",
    "--credentials /nothing/there 10.0.0.1", "--credentials /proc/self/exe 10.0.0.1", "-u name --format nagios 10.0.0.1"])
def test_bad_usage_is_one_line(monkeypatch, capsys, module, words):
    monkeypatch.setattr("sys.argv", ["kvsnmp-discover", *shlex.split(words)])
    assert module.main() == 2
    said = capsys.readouterr()
    assert said.out == "" and re.fullmatch(r"kvsnmp-discover: .{10,200}; --help prints the usage\n", said.err)


def test_help():
    done = discover("--help")
    assert done.returncode == 0 and done.stdout.startswith("usage: kvsnmp-discover")
    assert max(map(len, done.stdout.splitlines())) <= 100


# What is written


def test_no_text_of_a_device_controls_the_terminal(outputs):
    for name in ("table", "csv", "icinga2", "nagios"):
        assert all(line.isprintable() for line in outputs[name].splitlines()), name
    assert outputs["table"].count("\n") == 24
    assert all(text in outputs["table"] for text in (r"\x1b[31mred", r"right\u202eleft\u2028", "Größe 5 名"))


def test_csv_calculates_nothing(expected, outputs):
    rows = list(csv.reader(outputs["csv"].splitlines()))
    assert rows[0] == ["address", "name", "model", "description", "firmware", "milliseconds"]
    assert {len(row) for row in rows} == {6}
    names = {row[0]: row[1] for row in rows[1:]}
    assert "'=cmd|' /C calc'!A0" in names.values()
    for address, row in expected.items():
        if row.name.isprintable() and row.name[:1] != "=":
            assert names[address] == row.name


def test_prometheus_discovers_the_devices(expected, outputs, tmp_path):
    """With the shipped configuration and the relabelling of the manual."""
    shown = {address: row._replace(name=visible(row.name)) for address, row in expected.items()}
    assert devices_of(outputs["prometheus"]) == shown
    (tmp_path / "kvsnmp-devices.json").write_text(outputs["prometheus"])
    config = (CHECKOUT / "monitoring/prometheus/prometheus.yml").read_text()
    assert "[/etc/prometheus/kvsnmp-devices.json]" in config
    config = config.replace("/etc/prometheus/kvsnmp-devices.json", f"{tmp_path}/kvsnmp-devices.json")
    manual = (CHECKOUT / "docs/operators.md").read_text()
    (relabelling,) = re.findall(r"- (\{source_labels: \[__meta_kvsnmp_name\].*\})", manual)
    config = config.replace("    relabel_configs:\n", f"    relabel_configs:\n      - {relabelling}\n")
    config = config.replace("/etc/prometheus", str(CHECKOUT / "monitoring/prometheus"))
    (tmp_path / "prometheus.yml").write_text(config)
    for words in (["config"], ["service-discovery", "kvsnmp", "--timeout=2s"]):
        done = subprocess.run([program("promtool"), "check", words[0], str(tmp_path / "prometheus.yml"), *words[1:]],
                              capture_output=True, text=True, timeout=60, check=False)
        assert done.returncode == 0, done.stdout + done.stderr
    found = {target["labels"]["instance"]: target["labels"] for target in json.loads(done.stdout)}
    assert set(found) == {f"{address}:{PORT}" for address in expected}
    for address, row in shown.items():
        labels = found[f"{address}:{PORT}"]
        assert labels.get("device", "") == row.name and not [name for name in labels if name.startswith("__meta")]
        assert labels["__param_target"] == f"{address}:{PORT}" and labels["__address__"] == "localhost:9116"


def test_zabbix_hosts(expected, outputs):
    """scripts/test-zabbix imports them into a server."""
    exported = json.loads(outputs["zabbix"])["zabbix_export"]
    template = (CHECKOUT / "monitoring/zabbix/kvsnmp-template.yaml").read_text()
    (template,) = yaml.safe_load(template)["zabbix_export"]["templates"]
    assert [host["host"] for host in exported["hosts"]] == list(devices_of(outputs["prometheus"]))
    assert len({host["name"] for host in exported["hosts"]}) == len(expected)
    for host in exported["hosts"]:
        row = expected[host["host"]]
        (interface,) = host["interfaces"]
        assert host["name"].isprintable() and len(host["name"]) <= 128
        assert host["templates"] == [{"name": template["template"]}]
        assert host["groups"] == [{"name": exported["groups"][0]["name"]}]
        assert (interface["ip"], interface["port"]) == (host["host"], str(PORT))
        assert host["tags"] == [{"tag": "model", "value": str(row.model)}]


def test_nothing_is_injected_into_configuration_files(expected, outputs):
    """The live tests load them into Nagios and Icinga 2."""
    nagios = re.findall(r"^define (\w+) \{\n((?:    \w+ +[^\n;$]*\n)+)\}\n(?:\n|\Z)", outputs["nagios"], re.MULTILINE)
    assert "".join(f"define {kind} {{\n{body}}}\n\n" for kind, body in nagios).rstrip() == outputs["nagios"].rstrip()
    hosts = [dict(re.findall(r"^    (\w+) +(.*)$", body, re.MULTILINE)) for _, body in nagios]
    assert [host.get("host_name") for host in hosts] == [None, *devices_of(outputs["prometheus"])]
    assert all(host["address"] in host["alias"] for host in hosts[1:])
    text = r'"[^"\\$\n]*"'
    icinga = re.findall(rf"^object Host ({text}) \{{\n  import {text}\n  address = {text}\n  display_name = {text}\n"
                        rf"  notes = {text}\n  vars.kvsnmp_model = \d+\n\}}\n(?:\n|\Z)", outputs["icinga2"], re.MULTILINE)
    assert [json.loads(name) for name in icinga] == list(devices_of(outputs["prometheus"]))
    assert len(re.findall("^[^ }\n]", outputs["icinga2"], re.MULTILINE)) == 24
