"""The command line of scripts/device."""
from __future__ import annotations

import argparse
import json
import os
import re
import select
import selectors
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path

from . import panel, registry, sandbox
from .folders import make_folders
from .identity import MODELS, identity_files
from .programs import wake_at_the_end
from .registry import DeviceError
from .settings import CHECKOUT, COMMAND, FLEET_COMMAND, INSTALLED, TRAP_LOG, Settings

NEEDED = ["bwrap", "nsenter", "snmpd", "snmptrapd", "dbus-daemon", "killall"]
END_TIMEOUT = 10.0
ANSWER_SECONDS = 30
# A table that is read before the daemon has its first values serves its starting values for a minute.
WAIT_FOR_VALUES = f"""\
until talctl subscriptions | grep -q kvsnmp_sys_messages &&
    snmpget -v2c -c public -r 0 -t 1 "127.0.0.1:$1" .1.3.6.1.4.1.52717.3.1.3.0; do sleep 0.1; done > /dev/null 2>&1"""
PROGRAM = COMMAND.rpartition("/")[2]

DESCRIPTION = f"""\
Starts a throw-away device: a sandbox with its own processes, /etc, /run, /tmp and /var, in which the data
service's simulator, a system bus, snmptrapd and kvsnmp run. Ctrl-C ends it and leaves nothing behind.

  {COMMAND} --model 6420 --port 1161    then: snmpwalk -v2c -c public 127.0.0.1:1161 .1.3.6.1.4.1.52717
  {COMMAND} exec -- CMD [ARG]...        run a command inside the device
  {COMMAND} list                        the devices that run now
  {COMMAND} stop [--name NAME]          end one"""


def main(arguments: list[str]) -> int:
    return dispatch("device", {"exec": run_exec, "list": run_list, "stop": run_stop, "start": run_start}, arguments)


def dispatch(program: str, commands: dict[str, Callable[[list[str]], int]], arguments: list[str]) -> int:
    """Runs the command that the first argument names, without one "start"."""
    os.environ["PATH"] = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    try:
        if arguments and arguments[0] in commands:
            return commands[arguments[0]](arguments[1:])
        return commands["start"](arguments)
    except DeviceError as error:
        print(f"{program}: {error}", file=sys.stderr)
        return 1


# Starting


def start_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog=PROGRAM, description=DESCRIPTION, allow_abbrev=False,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--model", type=int, choices=MODELS, default=6420, metavar="N",
                        help="model number: " + ", ".join(map(str, MODELS)) + " (default 6420)")
    parser.add_argument("--name", help="name for exec and stop (default: the model number)")
    parser.add_argument("--port", type=port_number, default=0, metavar="N",
                        help="share the host's network and answer on this UDP port (default: a separate network, "
                             "port 161)")
    parser.add_argument("--panel", type=port_number, metavar="N",
                        help="serve the front panel, a web page of the device, on this TCP port of 127.0.0.1; the device "
                             "shares the host's network, by default with the first free port from 1161")
    parser.add_argument("--trap-port", type=port_number, metavar="N",
                        help="where the device's snmptrapd listens (default: 162, with --port one above it)")
    parser.add_argument("--bin", metavar="DIR", help="folder of kvsnmp, talservice and talctl "
                                                     "(default: the build found in the tree)")
    parser.add_argument("--daemon", action="store_true", help="start kvsnmp in daemon mode")
    parser.add_argument("--no-kvsnmp", action="store_true", help="everything but kvsnmp")
    parser.add_argument("--no-simulator", action="store_true", help="everything but the data service")
    parser.add_argument("--no-dbus", action="store_true", help="no system bus")
    parser.add_argument("--no-traps", action="store_true", help="no snmptrapd")
    parser.add_argument("--numeric-traps", action="store_true", help="print traps with OIDs and types")
    parser.add_argument("--kvsnmp-arg", action="append", default=[], metavar="ARG", help="a further argument of kvsnmp")
    parser.add_argument("--kvsnmp-wrapper", default="", metavar="CMD",
                        help='run kvsnmp under this command, e.g. "valgrind --leak-check=full"')
    parser.add_argument("--clock-shift", action="store_true",
                        help="let a test move kvsnmp's monotonic clock (needs the build's libclockshift.so)")
    parser.add_argument("--snmpd-rss", default="8192", type=snmpd_rss, metavar="KB|real",
                        help="what the device's ps says of snmpd's memory (default 8192; a desktop's snmpd is larger "
                             "than the device's)")
    parser.add_argument("--model-text", metavar="TEXT", help="the model text, /etc/xr-model")
    parser.add_argument("--etc", action="append", default=[], type=assignment, metavar="NAME=TEXT",
                        help="write TEXT and a line end into /etc/NAME; with an empty TEXT an empty file")
    parser.add_argument("--no-etc", action="append", default=[], metavar="NAME", help="leave /etc/NAME out")
    parser.add_argument("--set", action="append", default=[], metavar="PATH=VALUE",
                        help="a value of the data service's tree at start")
    parser.add_argument("--writable", action="append", default=[], metavar="DIR",
                        help="a folder of the host that the device may write into")
    parser.add_argument("--quiet", action="store_true", help="print only traps and errors; do not wait for an answer")
    parser.add_argument("--version", action=PrintVersion, nargs=0, help="print the version and end")
    return parser


class PrintVersion(argparse.Action):
    def __call__(self, parser: argparse.ArgumentParser, *_) -> None:
        print(f"{parser.prog} {version()}")
        parser.exit()


def version() -> str:
    """That of the package, which has the simulator too, or of the tree."""
    if INSTALLED:
        return subprocess.run(["talservice", "--version"], capture_output=True, text=True, check=True).stdout.split()[-1]
    return re.search(r"^project\(\w+ VERSION ([\d.]+)", (CHECKOUT / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


def port_number(text: str) -> int:
    number = int(text)
    if not 1 <= number <= 65535:
        raise argparse.ArgumentTypeError("a port is 1 to 65535")
    return number


def snmpd_rss(text: str) -> str:
    if text != "real" and not text.isdigit():
        raise argparse.ArgumentTypeError('a number of kB or "real"')
    return text


def assignment(text: str) -> tuple[str, str]:
    name, equals, value = text.partition("=")
    if not equals or not name or "/" in name:
        raise argparse.ArgumentTypeError("NAME=TEXT, NAME without a slash")
    return name, value


def find_bin_dir(given: str | None) -> str:
    places = [given or os.environ.get("KVSNMP_BIN_DIR")]
    if not places[0]:
        places = [CHECKOUT / "build/release/bin", CHECKOUT / "build/dev/bin", CHECKOUT / "build/demo/bin",
                  Path("/usr/sbin")]
        if INSTALLED:
            places = places[-1:]
    for place in places:
        if os.access(Path(place) / "kvsnmp", os.X_OK):
            return str(Path(place).absolute())
    raise DeviceError("no kvsnmp in " + ", ".join(map(str, places)) +
                      "; build it: cmake --preset release && cmake --build --preset release")


def check_programs() -> None:
    missing = [program for program in NEEDED if not shutil.which(program)]
    if missing:
        hint = "" if INSTALLED else "; scripts/install-deps installs what is missing"
        raise DeviceError(f"not installed: {', '.join(missing)}{hint}")


def check_ports(settings: Settings) -> None:
    """In the host's network a port may be in use; snmpd would end without a message."""
    if not settings.port:
        return
    for port, address in ((settings.port, ""), (settings.trap_port, "127.0.0.1")):
        if error := bind_error(port, address):
            raise DeviceError(f"UDP port {port}: {error.strerror}; choose another with --port and --trap-port") from error


def bind_error(port: int, address: str) -> OSError | None:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind((address, port))
        except OSError as error:
            return error
    return None


def free_port() -> int:
    """The first of two free UDP ports: one for snmpd, one for the receiver of traps."""
    return next(port for port in range(1161, 65535, 2) if not bind_error(port, "") and not bind_error(port + 1, ""))


def settings_from(options: argparse.Namespace, name: str) -> Settings:
    simulator_args = [part for value in options.set for part in ("--set", value)]
    trap_port = options.trap_port or (options.port + 1 if options.port else 162)
    settings = Settings(
        model=options.model, name=name, bin_dir=find_bin_dir(options.bin), port=options.port, trap_port=trap_port,
        kvsnmp="none" if options.no_kvsnmp else "daemon" if options.daemon else "foreground",
        kvsnmp_args=options.kvsnmp_arg, wrapper=shlex.split(options.kvsnmp_wrapper), clock_shift=options.clock_shift,
        simulator=not options.no_simulator, simulator_args=simulator_args, dbus=not options.no_dbus,
        traps=not options.no_traps, numeric_traps=options.numeric_traps,
        writable=[os.path.realpath(folder) for folder in options.writable])
    if settings.clock_shift and not os.path.exists(settings.clock_library()):
        raise DeviceError(f"--clock-shift needs {settings.clock_library()}, which the build of the tests makes")
    return settings


def etc_files(options: argparse.Namespace) -> dict[str, str]:
    files = identity_files(options.model)
    if options.model_text is not None:
        files["xr-model"] = options.model_text + "\n"
    for name, text in options.etc:
        files[name] = text + "\n" if text else ""
    return {name: text for name, text in files.items() if name not in options.no_etc}


def run_start(arguments: list[str]) -> int:
    options = start_parser().parse_args(arguments)
    check_programs()
    find_bin_dir(options.bin)
    if options.panel:
        panel.check(options.panel)
        options.port = options.port or free_port()
    registry.sweep()
    claim = registry.claim(options.name, options.model)
    try:
        settings = settings_from(options, claim.folder.name)
        check_ports(settings)
        make_folders(claim.root, settings, etc_files(options), options.snmpd_rss)
        page = panel.start(options.panel, settings.name) if options.panel else None
        try:
            return Session(claim, settings, options.quiet).run()
        finally:
            if page:
                panel.stop(page)
    finally:
        claim.remove()


class Session:
    """The sandbox from its start to its end, on the host."""

    def __init__(self, claim: registry.Claim, settings: Settings, quiet: bool) -> None:
        self.claim = claim
        self.settings = settings
        self.quiet = quiet
        self.asker: subprocess.Popen | None = None
        self.signalled = False
        self.first_process_end: int | None = None
        self.wake_read = wake_at_the_end(self._on_signal)

    def _on_signal(self, *_) -> None:
        self.signalled = True

    def run(self) -> int:
        info_read, info_write = os.pipe()
        status_read, status_write = os.pipe()
        control_read, control_write = os.pipe()
        inside = ["/usr/bin/python3", str(Path(__file__).with_name("inside.py")), str(status_write)]
        command = sandbox.bwrap_command(self.claim.root, self.settings, info_write, inside)
        bwrap = subprocess.Popen(command, stdin=control_read, pass_fds=(info_write, status_write),
                                 start_new_session=True)
        for descriptor in (info_write, status_write, control_read):
            os.close(descriptor)
        try:
            return self._follow(bwrap, info_read, status_read)
        finally:
            if self.asker:
                self.asker.kill()
                self.asker.wait()
            os.close(control_write)  # makes the device end
            self._wait_for_the_end(bwrap)
            for descriptor in (info_read, status_read):
                os.close(descriptor)

    def _wait_for_the_end(self, bwrap: subprocess.Popen) -> None:
        try:
            bwrap.wait(END_TIMEOUT)
        except subprocess.TimeoutExpired:
            bwrap.kill()
            bwrap.wait()
        # bwrap does not wait for background processes; the first process ends only after all of them.
        if self.first_process_end is not None:
            select.select([self.first_process_end], [], [], END_TIMEOUT)
            os.close(self.first_process_end)

    def _follow(self, bwrap: subprocess.Popen, info_read: int, status_read: int) -> int:
        facts = {"model": self.settings.model, "port": self.settings.port, "address": self.settings.address,
                 "traps": str(self.claim.root) + TRAP_LOG, "ready": False}
        words, asker_end = "", -1
        with selectors.DefaultSelector() as selector:
            selector.register(status_read, selectors.EVENT_READ)
            selector.register(self.wake_read, selectors.EVENT_READ)
            while not self.signalled:
                for key, _ in selector.select():
                    if key.fd == self.wake_read:
                        continue
                    if key.fd == asker_end:
                        selector.unregister(asker_end)
                        os.close(asker_end)
                        self._print_how_to_go_on(self._how_to_ask(answers=self.asker.wait() == 0))
                        continue
                    word = os.read(status_read, 4096).decode()
                    if not word:
                        bwrap.wait(END_TIMEOUT)
                        raise DeviceError("the device ended by itself" if "started" in words else sandbox.FAILED_HINT)
                    words += word
                    if "started" in word:
                        facts["first_process"] = first_process(os.read(info_read, 4096))
                        self.first_process_end = os.pidfd_open(facts["first_process"])
                        self.claim.publish(**facts)
                    if "ready" in word:
                        facts["ready"] = True
                        self.claim.publish(**facts)
                        asker_end = self._begin_to_ask(facts["first_process"])
                        if asker_end >= 0:
                            selector.register(asker_end, selectors.EVENT_READ)
        return 0

    def _begin_to_ask(self, process: int) -> int:
        """A descriptor that can be read when the device has answered with its first values; -1: nobody waits for it."""
        if self.quiet:
            return -1
        print(f"device {self.settings.name}: model {self.settings.model}, files in {self.claim.root}", flush=True)
        if self.settings.kvsnmp == "none" or not self.settings.simulator:
            self._print_how_to_go_on("")
            return -1
        ask = ["timeout", str(ANSWER_SECONDS), "sh", "-c", WAIT_FOR_VALUES, "sh", str(self.settings.snmp_port)]
        self.asker = subprocess.Popen(sandbox.enter_command(process, ask, own_network=not self.settings.port),
                                      stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return os.pidfd_open(self.asker.pid)

    def _how_to_ask(self, answers: bool) -> str:
        name, port = self.settings.name, self.settings.port
        inside = f"{COMMAND} exec --name {name} --"
        if not answers:
            return f"  it has not answered the community public; why: {inside} kvsnmp-check\n"
        walk = f"snmpwalk -v2c -c public 127.0.0.1:{port}" if port else f"{inside} snmpwalk -v2c -c public 127.0.0.1"
        return f"  ask it:    {walk} .1.3.6.1.4.1.52717\n"

    def _print_how_to_go_on(self, how_to_ask: str) -> None:
        name = self.settings.name
        print(f"{how_to_ask}  change it: {COMMAND} exec --name {name} -- talctl --help\n"
              f"  end it:    Ctrl-C, or {COMMAND} stop --name {name}", flush=True)


def first_process(info: bytes) -> int:
    return int(json.loads(info)["child-pid"])


# Commands on running devices


def run_exec(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog=f"{PROGRAM} exec", description="Runs a command inside a running device.")
    parser.add_argument("--name", help="which device, when several run")
    parser.add_argument("command", nargs="+", metavar="CMD", help="put -- before it when it has options")
    options = parser.parse_args(arguments)
    command = into(registry.find(options.name), options.command)
    os.execvp(command[0], command)


def into(device: registry.Running, command: list[str]) -> list[str]:
    return sandbox.enter_command(device.first_process, command, own_network=sandbox.has_other_network(device.first_process))


def run_list(arguments: list[str]) -> int:
    argparse.ArgumentParser(prog=f"{PROGRAM} list", description="Lists the running devices.").parse_args(arguments)
    registry.sweep()
    show(registry.running())
    return 0


def show(devices: list[registry.Running]) -> None:
    for device in devices:
        where = f"{device.address}:{device.port}" if device.port else "own network"
        state = "running" if device.ready else "starting"
        print(f"{device.name}\tmodel {device.model}\t{where}\t{state}\t{device.root}")


def run_stop(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog=f"{PROGRAM} stop", description="Ends a running device.")
    parser.add_argument("--name", help="which device, when several run")
    parser.add_argument("--all", action="store_true", help="every device")
    options = parser.parse_args(arguments)
    devices = registry.running() if options.all else [registry.find(options.name)]
    if not options.all and devices[0].is_in_fleet:
        raise DeviceError(f"{devices[0].name} is in a fleet, which ends as a whole: {FLEET_COMMAND} stop")
    end(devices)
    return 0


def end(devices: list[registry.Running]) -> None:
    """Ends the owners of these devices."""
    for owner in {device.owner for device in devices}:
        os.kill(owner, signal.SIGTERM)
    limit = time.monotonic() + 2 * END_TIMEOUT
    while any(device.folder.exists() for device in devices):
        if time.monotonic() > limit:
            raise DeviceError("the device does not end")
        time.sleep(0.02)
