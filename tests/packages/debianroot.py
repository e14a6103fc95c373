"""A separate Debian in a folder: made with mmdebstrap, entered with bubblewrap, started with its systemd."""
from __future__ import annotations

import os
import shutil
import signal
import subprocess
from pathlib import Path

from support.polling import wait_until  # the path is set by conftest.py

ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LANG": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive"}
DEBS = "/debs"  # the packages, as the root sees them
PACKAGES = ["kvsnmp", "kvsnmp-monitoring", "kvsnmp-simulator"]
BOOT_SCRIPT = Path(__file__).with_name("boot")


def files_of(package: str, debs: Path) -> set[str]:
    deb = next(debs.glob(f"{package}_*.deb"))
    listing = subprocess.run(["dpkg-deb", "--contents", str(deb)], capture_output=True, text=True, check=True).stdout
    return {line.split()[5].lstrip(".") for line in listing.splitlines()}


def debian_sources() -> str:
    """This machine's sources of Debian packages: one line per suite and component, for apt."""
    command = ["apt-get", "indextargets", "--format", "deb $(REPO_URI) $(RELEASE) $(COMPONENT)",
               "Identifier: Packages", "Origin: Debian"]
    if not (lines := subprocess.run(command, capture_output=True, text=True, check=True).stdout):
        subprocess.run(["apt-get", "-q", "update"], check=True, stdin=subprocess.DEVNULL)
        lines = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    assert lines, "apt knows no package source of Debian"
    return "\n".join(sorted(set(lines.splitlines()))) + "\n"


class DebianRoot:
    def __init__(self, folder: Path, debs: Path) -> None:
        self.folder = folder
        self.debs = debs

    def make(self, include: list[str]) -> None:
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.parent.mkdir(parents=True, exist_ok=True)
        sources = debian_sources()
        settings = subprocess.run(["apt-config", "dump"], capture_output=True, text=True, check=True).stdout.splitlines()
        proxies = [f"--aptopt={line}" for line in settings if line.startswith(("Acquire::http::Proxy ", "Acquire::https::Proxy "))]
        suite = min((line.split()[2] for line in sources.splitlines()), key=len)
        subprocess.run(["mmdebstrap", "--quiet", "--mode=root", "--variant=minbase", "--include=" + ",".join(include),
                        "--skip=cleanup/apt/lists", *proxies, suite, str(self.folder), "-"],
                       input=sources, text=True, check=True)
        (self.folder / DEBS[1:]).mkdir()
        self.path("/etc/apt/apt.conf.d/90yes").write_text('APT::Get::Assume-Yes "true";\n')
        # Every installed Debian has it. snmpd sends traps to 127.0.0.1 from "localhost"; without that name it sends none.
        self.path("/etc/hosts").write_text("127.0.0.1 localhost\n")
        # No service is started before its systemd runs.
        self.service_policy.write_text("#!/bin/sh\nexit 101\n")
        self.service_policy.chmod(0o755)

    @property
    def service_policy(self) -> Path:
        return self.path("/usr/sbin/policy-rc.d")

    def run(self, *command: str, check: bool = True) -> subprocess.CompletedProcess[str]:
        """In the root, with a separate process namespace, and the machine's network for apt."""
        return _run(["bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--bind", str(self.folder), "/",
                     "--dev", "/dev", "--proc", "/proc", "--bind", str(self.debs), DEBS,
                     "--ro-bind", "/etc/resolv.conf", "/etc/resolv.conf", "--clearenv",
                     *[word for name, value in ENVIRONMENT.items() for word in ("--setenv", name, value)],
                     "--chdir", "/", "--", *command], check)

    def path(self, inside: str) -> Path:
        return self.folder / inside.lstrip("/")


def _run(command: list[str], check: bool) -> subprocess.CompletedProcess[str]:
    done = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL, errors="replace", check=False)
    if check:
        assert done.returncode == 0, f"{command[-6:]}: status {done.returncode}\n{done.stdout}\n{done.stderr}"
    return done


class Booted:
    """The root, with its systemd as the first process of its namespaces."""

    def __init__(self, root: DebianRoot) -> None:
        self.root = root
        self.group = cgroup_folder() / f"kvsnmp-packages-{os.getpid()}"
        self.group.mkdir()
        self.log_file = root.folder.with_name("boot.log")
        self.log = open(self.log_file, "wb")
        self.process = subprocess.Popen([str(BOOT_SCRIPT), str(root.folder), str(root.debs), str(self.group)],
                                        stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)
        self.first = 0
        wait_until(self._find_first, 10, what="the first process of the root")
        wait_until(lambda: self.output("systemctl", "is-system-running") in ("running", "degraded"), 60, what="systemd's start")

    def _find_first(self) -> bool:
        """unshare's one child."""
        assert self.process.poll() is None, self.log_file.read_text(errors="replace")
        try:
            children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
            if children and Path(f"/proc/{children[0]}/comm").read_text() == "systemd\n":
                self.first = int(children[0])
        except FileNotFoundError:
            pass
        return self.first != 0

    def run(self, *command: str, check: bool = True) -> subprocess.CompletedProcess[str]:
        variables = [f"{name}={value}" for name, value in ENVIRONMENT.items()]
        return _run(["nsenter", "--target", str(self.first), "--all", "--", "/usr/bin/env", "-i", *variables, *command],
                    check)

    def output(self, *command: str) -> str:
        return self.run(*command, check=False).stdout.strip()

    def stop(self) -> None:
        if self.first:
            os.kill(self.first, signal.SIGKILL)  # ends all that it has started
        self.process.wait(30)
        self.log.close()

        def removed(folder: str) -> bool:
            try:
                os.rmdir(folder)
                return True
            except OSError:  # its last processes are still ending
                return False

        for folder, _, _ in os.walk(self.group, topdown=False):
            wait_until(lambda: removed(folder), 10, what=f"{folder} removed")


def cgroup_folder() -> Path:
    for line in Path("/proc/self/mountinfo").read_text().splitlines():
        fields = line.split()
        if fields[fields.index("-") + 1] == "cgroup2":
            return Path(fields[4])
    raise AssertionError("no cgroup2 file system is mounted: systemd cannot be started")
