"""The command line of scripts/fleet."""
from __future__ import annotations

import argparse
import ipaddress
import itertools
import json
import subprocess
import time
from pathlib import Path

from . import cli, panel, registry
from .fleet import Fleet, Member, note
from .identity import IDENTITIES, MODELS, identity_files, served_text
from .registry import DeviceError
from .settings import FLEET_COMMAND, Settings

PROGRAM = FLEET_COMMAND.rpartition("/")[2]
MOST = 200
KINDS = ["Amplifier", "Controller", "Switch", "Desk", "Outdoor"]  # a station has none of these words
PLACES = ["Entrance hall", "Terminal A", "Terminal B", "Platform 1", "Platform 2", "Concourse", "Control room"]
SETTINGS = "/state/config/snmp_settings/"

DESCRIPTION = f"""\
Starts many throw-away devices in the network of this process, each at its own address, with values that
change slowly. One receiver prints the traps of all. Ctrl-C ends them and leaves nothing behind.

  {FLEET_COMMAND} --models 6420:30,6214:20   then: snmpwalk -v2c -c public 127.1.0.1 .1.3.6.1.4.1.52717
  {FLEET_COMMAND} list                       the devices that run now
  {FLEET_COMMAND} exec --name NAME -- CMD    run a command inside one device, without --name in each
  {FLEET_COMMAND} stop                       end the fleet"""


def main(arguments: list[str]) -> int:
    return cli.dispatch("fleet", {"exec": run_exec, "list": run_list, "stop": run_stop, "start": run_start}, arguments)


# Starting


def start_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog=PROGRAM, description=DESCRIPTION, allow_abbrev=False,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    which = parser.add_mutually_exclusive_group()
    which.add_argument("--count", type=count, default=len(MODELS), metavar="N",
                       help=f"number of devices, all models in turn (default {len(MODELS)})")
    which.add_argument("--models", type=models, metavar="MODEL:N,...", help="models and the number of devices of each")
    add = parser.add_argument
    add("--address", type=ipaddress.IPv4Address, metavar="A", help="of the first device (default 127.1.0.1)")
    add("--base-port", type=cli.port_number, metavar="N",
        help="one address (default 127.0.0.1) with the UDP ports from here on (default: port 161, which needs root)")
    add("--trap-target", type=trap_target, metavar="ADDRESS[:PORT]", help="where all traps go, instead of the fleet's "
        "receiver at port 162 of 127.0.0.1 or, with --base-port, the port after the last device's")
    add("--panel", type=cli.port_number, metavar="N", help="serve the front panel, a web page, on this port")
    add("--inventory", metavar="FILE", help='write the devices for file_sd of Prometheus ("-": standard output)')
    add("--seed", type=int, default=1, metavar="N", help="of the random values and faults (default 1)")
    add("--step", type=float, default=10.0, metavar="SECONDS", help="change values of each device so often (10)")
    add("--faults-per-hour", type=float, default=0.0, metavar="N", help="of the whole fleet (default 0)")
    add("--bin", metavar="DIR", help="folder of kvsnmp, talservice and talctl (default: the build)")
    add("--version", action=cli.PrintVersion, nargs=0, help="print the version and end")
    return parser


def count(text: str) -> int:
    if not text.isdigit() or not 1 <= int(text) <= MOST:
        raise argparse.ArgumentTypeError(f"a fleet has 1 to {MOST} devices")
    return int(text)


def models(text: str) -> list[int]:
    pairs = [part.partition(":")[::2] for part in text.split(",")]
    for model, _ in pairs:
        if model not in map(str, MODELS):
            raise argparse.ArgumentTypeError(f"no model {model}; there are " + ", ".join(map(str, MODELS)))
    found = [int(model) for model, number in pairs for _ in range(count(number or "1"))]
    count(str(len(found)))
    return found


def trap_target(text: str) -> str:
    host, _, port = text.partition(":")
    return f"{ipaddress.IPv4Address(host)}:{cli.port_number(port or '162')}"


def settings_of(options: argparse.Namespace) -> list[Settings]:
    """Of each device, in order, and of the receiver of traps."""
    bin_dir = cli.find_bin_dir(options.bin)
    chosen = options.models or list(itertools.islice(itertools.cycle(MODELS), options.count))
    first = options.address or ipaddress.IPv4Address("127.0.0.1" if options.base_port else "127.1.0.1")
    receiver = Settings(0, "fleet", bin_dir, port=161, is_in_fleet=True, hostname="fleet",
                        trap_port=options.base_port + len(chosen) if options.base_port else 162)
    if options.base_port and receiver.trap_port > 65535:
        raise DeviceError("not enough ports above --base-port")
    found, numbers = [], dict.fromkeys(chosen, 0)
    for place, model in enumerate(chosen):
        numbers[model] += 1
        kind = next((kind for kind in KINDS if kind in IDENTITIES[model].text), "Station").lower()
        name = f"{kind}-{model}-{numbers[model]:02}"
        location = f"{PLACES[place % len(PLACES)]}, rack {place // len(PLACES) + 1}"
        leaves = [f"mib_2_settings/sys_name={name}", f"mib_2_settings/sys_location={location}",
                  "access_control/nms_ip=default"]
        found.append(Settings(
            model, name, bin_dir, hostname=name, is_in_fleet=True, traps=False,
            address=str(first if options.base_port else first + place),
            port=options.base_port + place if options.base_port else 161,
            trap_target=options.trap_target or f"127.0.0.1:{receiver.trap_port}",
            simulator_args=[word for leaf in leaves for word in ("--set", SETTINGS + leaf)]))
    return found + [receiver]


def wait_for_ports(places: list[tuple[str, int]]) -> None:
    """A fleet whose starter was killed may be ending still."""
    limit = time.monotonic() + 3
    for address, port in places:
        while error := cli.bind_error(port, address):
            if isinstance(error, PermissionError):
                raise DeviceError(f"UDP port {port} needs root; as another user choose --base-port 2161") from error
            if time.monotonic() > limit:
                raise DeviceError(f"{address}, UDP port {port}: {error.strerror}; "
                                  "choose another with --base-port, --address or --trap-target") from error
            time.sleep(0.1)


def run_start(arguments: list[str]) -> int:
    options = start_parser().parse_args(arguments)
    cli.check_programs()
    *devices, receiver = settings_of(options)
    if options.panel:
        panel.check(options.panel)
    registry.sweep()
    started = time.monotonic()
    fleet = Fleet(Member(registry.claim("fleet", 0), receiver), not options.trap_target)
    page = None
    try:
        wait_for_ports([(settings.address, settings.port) for settings in devices]
                       + ([] if options.trap_target else [("127.0.0.1", receiver.trap_port)]))
        for settings in devices:
            fleet.members.append(Member(registry.claim(settings.name, settings.model), settings))
        if fleet.start():
            note(f"{len(devices)} devices answer after {time.monotonic() - started:.0f} s; "
                 f"list them: {FLEET_COMMAND} list; end them: Ctrl-C, or {FLEET_COMMAND} stop")
            if options.inventory:
                write_inventory(options.inventory, devices)
            page = panel.start(options.panel, None) if options.panel else None
            fleet.run(options.seed, options.step, options.faults_per_hour)
        return 0
    finally:
        if page:
            panel.stop(page)
        fleet.close()


def write_inventory(file: str, devices: list[Settings]) -> None:
    """As kvsnmp-discover writes it for Prometheus."""
    found = []
    for settings in devices:
        texts = {"name": settings.name, "model": str(settings.model), "description": served_text(settings.model),
                 "firmware": identity_files(settings.model)["xr-pkgver"].strip()}
        place = settings.address if settings.port == 161 else f"{settings.address}:{settings.port}"
        found.append({"targets": [place], "labels": {f"__meta_kvsnmp_{name}": text for name, text in texts.items()}})
    text = json.dumps(found, indent=1) + "\n"
    try:
        if file == "-":
            print(text, end="", flush=True)
        else:
            part = Path(f"{file}.part")  # Prometheus never reads half of it
            part.write_text(text)
            part.replace(file)
    except OSError as error:
        raise DeviceError(f"{file}: {error.strerror}") from error


# Commands on the running fleet


def running(command: str, arguments: list[str]) -> list[registry.Running]:
    argparse.ArgumentParser(prog=f"{PROGRAM} {command}").parse_args(arguments)
    registry.sweep()
    found = [device for device in registry.running() if device.is_in_fleet]
    if not found:
        raise DeviceError(f"no fleet is running; start one with: {FLEET_COMMAND} --count 5")
    return sorted(found, key=lambda device: (ipaddress.IPv4Address(device.address), device.port))


def run_exec(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog=f"{PROGRAM} exec", description="Runs a command in one device or in each.")
    parser.add_argument("--name", help="which device (default: all, one after the other)")
    parser.add_argument("command", nargs="+", metavar="CMD", help="put -- before it when it has options")
    options = parser.parse_args(arguments)
    status = 0
    for device in [registry.find(options.name)] if options.name else running("exec", []):
        if not options.name:
            print(f"== {device.name}", flush=True)
        status = max(status, abs(subprocess.run(cli.into(device, options.command), check=False).returncode))
    return status


def run_list(arguments: list[str]) -> int:
    cli.show(running("list", arguments))
    return 0


def run_stop(arguments: list[str]) -> int:
    cli.end(running("stop", arguments))
    return 0
