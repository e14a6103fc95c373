"""kvsnmp-discover among devices, other agents and silent addresses on loopback, and its output in each format."""
from __future__ import annotations

import csv
import json
import os
import pty
import re
import shlex
import signal
import subprocess
from collections import Counter
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType, SimpleNamespace
from typing import NamedTuple

import pytest
import yaml
from agents import PLAYED, PORT, Agents, snmpd
from prometheus_files import CHECKOUT, loaded, promtool, walks
from support import ber
from support.walkagent import Answer, WalkAgent

PROGRAM = CHECKOUT / "monitoring/discover/kvsnmp-discover"
RANGES = ["127.0.10.0/26", "127.0.20.1-127.0.20.9", "127.0.40.1"]
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
    agents = Agents()
    agents.start()
    plain = [snmpd(folder / "foreign", "127.0.20.1", "sysName foreign"),
             snmpd(folder / "v3", "127.0.40.1", "sysName by-user",
                   f"createUser {USER} SHA-256 {quoted(PHRASES[0])} AES {quoted(PHRASES[1])}", f"rouser {USER} priv",
                   f"override .{VERSION} octet_str 4.12.3", f"override .{TEXT} octet_str \"{V3_TEXT}\"",
                   f"override .{NUMBER} integer 6410")]
    rows = {"127.0.40.1": Row("by-user", 6410, V3_TEXT, "4.12.3")}
    for address, (name, model) in PLAYED.items():
        firmware, text, *_ = (item.value for item in walks.read(model))
        rows[address] = Row(name, int(model[:4]), text, firmware)
    yield rows
    agents.stop()
    for process in plain:
        process.terminate()
        process.wait(10)


def discover(*words: str, timeout: float = 60, **environment: str) -> subprocess.CompletedProcess:
    return subprocess.run([PROGRAM, "--port", str(PORT), *words], capture_output=True, text=True, timeout=timeout, check=False,
                          stdin=subprocess.DEVNULL, env=os.environ | environment)


@pytest.fixture(scope="module")
def outputs(expected) -> dict[str, str]:
    """Of each format, for all ranges. The lossy device misses the first two requests of the first search."""
    done = discover(*RANGES)
    assert (done.returncode, done.stderr) == (0, "")
    program = loaded(PROGRAM)
    access = program.Access(PORT, "public", {}, "")
    scan = program.Scan(program.addresses_of(RANGES), access, 1.0, 0)
    scan.run(lambda: None)
    found = [scan.found[address] for address in sorted(scan.found)]
    return {name: write(found, access) for name, write in program.FORMATS.items()} | {"table": done.stdout}


# What is found


def test_every_device_is_found_and_nothing_else(expected, outputs):
    """A spreadsheet calculates none of the cells."""
    heading, *rows = csv.reader(outputs["csv"].splitlines())
    assert heading == ["address", "name", "model", "description", "firmware", "milliseconds"]
    assert all(float(row[5]) > 0 for row in rows)
    assert {row[0]: Row(row[1], int(row[2]), row[3], row[4]) for row in rows} == {
        address: row._replace(name="'" * row.name.startswith("=") + visible(row.name)) for address, row in expected.items()}
    found = [row[0] for row in rows]
    assert len(found) == 20 and found == sorted(found, key=lambda address: [int(part) for part in address.split(".")])
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
    done = discover("--credentials", str(file), "--format", "prometheus", "--retries", "0", "--timeout", "2", *RANGES, PATH=path)
    assert (done.returncode, done.stderr) == (0, "kvsnmp-discover: Unknown user name (1 address)\n")
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
    made = loaded(PROGRAM)
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
def test_the_process_list_shows_no_community_and_no_user(tmp_path, words):
    """From before the SNMP library is loaded, or snmpget started."""
    shown = tmp_path / "shown"
    (tmp_path / "pyasn1.py").write_text(f"import shutil\nshutil.copy('/proc/self/cmdline', '{shown}')\nraise ImportError\n")
    (tmp_path / "snmpget").write_text(f"#!/bin/sh\ncat /proc/$PPID/cmdline > {shown}\n")
    (tmp_path / "snmpget").chmod(0o755)
    discover(*words, "127.0.40.1", PYTHONPATH=str(tmp_path), PATH=f"{tmp_path}:{os.environ['PATH']}")
    assert b"other-" not in shown.read_bytes() and re.search(rb"\*{8,}.*127.0.40.1", shown.read_bytes())


def test_the_community_decides_who_answers(tmp_path):
    (tmp_path / "file").write_text('# for these\nmibs +ALL\ndefCommunity "pub\\lic"\n')
    for words, found in [(["-c", "public"], 0), (["-c", "private"], 1), (["--credentials", str(tmp_path / "file")], 0)]:
        assert discover(*words, "--retries", "0", "--timeout", "2", "127.0.10.1").returncode == found, words


# How it asks


class Net:
    """In place of the kernel's sockets and clock, which goes on only while the scan waits; the third wait is a long one."""

    def __init__(self, module: ModuleType, monkeypatch, answers: dict[str, Answer]) -> None:
        self.now, self.waits, self.answers = 1000.0, 0, answers
        self.packets: list[tuple[float, str]] = []
        self.arrived: list[tuple[bytes, tuple[str, int]]] = []
        monkeypatch.setattr(module, "time", SimpleNamespace(monotonic=lambda: self.now))
        monkeypatch.setattr(module, "send_to", self.send)

    def send(self, _, packet: bytes, to: tuple[str, int]) -> None:
        self.packets.append((self.now, to[0]))
        if to[0] in self.answers:
            self.arrived += [(data, to) for data in self.answers[to[0]](ber.answer(packet), packet)]

    def poll(self, milliseconds: float) -> list[tuple[int, int]]:
        self.waits += 1
        self.now += milliseconds / 1000 + (0.2 if self.waits == 3 else 1e-5)
        return [(self.fileno(), 1)] * bool(self.arrived)

    def fileno(self) -> int:
        return -1

    def recvfrom(self, _: int) -> tuple[bytes, tuple[str, int]]:
        return self.arrived.pop(0)


@pytest.fixture
def scan_of(module, monkeypatch):
    def scan(ranges: list[str], timeout: float = 1.0, retries: int | None = None, answers: dict[str, Answer] = {}):
        """The scan when it has ended, the network, and how often each address was asked."""
        net = Net(module, monkeypatch, answers)
        made = module.Scan(module.addresses_of(ranges), module.Access(161, "public", {}, ""), timeout, retries)
        made.poll, made.sockets = net, [net] * len(made.sockets)
        made.run(lambda: None)
        return made, net, Counter(address for _, address in net.packets)

    return scan


def test_a_silent_24_takes_five_seconds_at_most(scan_of):
    scan, net, asked = scan_of(["10.1.60.0/24"])
    assert asked == {f"10.1.60.{number}": 3 for number in range(1, 255)}
    assert scan.found == scan.failures == {} and 3 < net.now - scan.started < 5


def test_the_pace(scan_of):
    _, net, asked = scan_of(["10.1.60.0/22", "10.1.62.7", "10.1.63.0-10.1.63.255"], retries=0)
    assert set(asked.values()) == {1} and len(asked) == 1023, "each once, although given twice"
    busiest = max(sum(first <= at < first + 1 for at, _ in net.packets) for first, _ in net.packets)
    assert 480 < busiest <= 500, "500 a second, also after a delay, and not much less"


def test_large_ranges_are_asked_again_only_around_answers(monkeypatch, module, scan_of):
    """With less time than the default, so that the range need not be large."""
    access = module.Access(PORT, "public", {}, "")
    assert not module.Scan(list(range(39200)), access, 1.0, None).scarce
    assert module.Scan(list(range(39201)), access, 1.0, None).scarce
    assert not module.Scan(list(range(39201)), access, 1.0, 2).scarce, "as asked for"
    monkeypatch.setattr(module, "TIME_FOR_RETRIES", 3.0)
    monkeypatch.setattr(module, "LAST_RETRY", 3.0)
    answers = {"10.1.73.77": WalkAgent("6425", "neighbour").answer}
    scan, net, asked = scan_of(["10.1.72.0-10.1.73.255"], 0.5, answers=answers)
    assert [device.name for device in scan.found.values()] == ["neighbour"]
    assert {asked[f"10.1.72.{number}"] for number in range(256)} == {1}
    assert {asked[f"10.1.73.{number}"] for number in range(256) if number != 77} == {3} and asked["10.1.73.77"] == 1
    assert net.packets[-1][0] - scan.started < 4


def test_progress_on_a_terminal_and_an_interruption_lists_what_was_found(expected):
    ours, theirs = pty.openpty()
    with subprocess.Popen([PROGRAM, "--port", str(PORT), *RANGES, "127.0.60.0/20"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=theirs, text=True) as process:
        os.close(theirs)
        shown = ""
        while not re.search(r"\d+ of at most 12,\d+ questions asked, (19|20) devices found, \d+ s left", shown):
            shown += os.read(ours, 1000).decode()
        process.send_signal(signal.SIGINT)
        out = process.communicate(timeout=30)[0]
    os.close(ours)
    assert process.returncode == 130
    assert len(out.splitlines()) in (20, 21) and {line.split()[0] for line in out.splitlines()[1:]} <= set(expected)


def test_nothing_found_and_no_route():
    heading = "address,name,model,description,firmware,milliseconds\n"
    for name, text in [("table", ""), ("prometheus", "[]\n"), ("csv", heading)]:
        done = discover("--format", name, "--timeout", "0.1", "127.0.50.1-127.0.50.3", "127.0.20.1")
        assert (done.returncode, done.stdout, done.stderr) == (1, text, "kvsnmp-discover: no device found\n")
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
    assert outputs["table"].count("\n") == 21
    assert all(text in outputs["table"] for text in (r"\x1b[31mred", r"right\u202eleft\u2028", "Größe 5 名"))


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
    promtool("check", "config", str(tmp_path / "prometheus.yml"))
    listed = promtool("check", "service-discovery", str(tmp_path / "prometheus.yml"), "kvsnmp", "--timeout=2s")
    found = {target["labels"]["instance"]: target["labels"] for target in json.loads(listed)}
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
        assert host["name"].isprintable() and len(host["name"]) <= 128
        assert [(place["ip"], place["port"]) for place in host["interfaces"]] == [(host["host"], str(PORT))]
        assert (host["templates"], host["groups"], host["tags"]) == (
            [{"name": template["template"]}], [{"name": exported["groups"][0]["name"]}],
            [{"tag": "model", "value": str(expected[host["host"]].model)}])


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
    assert len(re.findall("^[^ }\n]", outputs["icinga2"], re.MULTILINE)) == 21
