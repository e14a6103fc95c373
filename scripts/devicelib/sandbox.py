"""Namespaces: the command lines that create and enter those of a device."""
from __future__ import annotations

import os
from pathlib import Path

from .folders import HOST_FOLDERS
from .settings import CHECKOUT, Settings, environment

FAILED_HINT = """\
The sandbox could not be made. A device needs bubblewrap and the right to create namespaces:
  - as an ordinary user: user namespaces enabled (sysctl kernel.unprivileged_userns_clone=1 and
    user.max_user_namespaces above 0, no AppArmor rule against them), or run it as root;
  - in a container: one that may mount and create namespaces (docker: --privileged, or --cap-add SYS_ADMIN
    with --security-opt seccomp=unconfined --security-opt apparmor=unconfined)."""


def bwrap_command(root: Path, settings: Settings, info_fd: int, command: list[str], *options: str) -> list[str]:
    """bubblewrap with `command` as the first process of the device."""
    bwrap = ["bwrap", "--die-with-parent", "--new-session", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
             "--hostname", settings.hostname, "--info-fd", str(info_fd), *options]
    if os.geteuid() != 0:
        bwrap += ["--unshare-user", "--uid", "0", "--gid", "0", "--cap-add", "ALL"]
    if not settings.port:
        bwrap.append("--unshare-net")
    bwrap += ["--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc"]
    for folder in ("etc", "run", "tmp", "var"):
        bwrap += ["--bind", str(root / folder), f"/{folder}"]
    for folder in HOST_FOLDERS:
        if os.path.isdir(f"/etc/{folder}"):
            bwrap += ["--ro-bind", f"/etc/{folder}", f"/etc/{folder}"]
    for folder in _hidden_by_the_private_ones(settings):
        bwrap += ["--ro-bind", folder, folder]
    for folder in settings.writable:
        bwrap += ["--bind", folder, folder]
    bwrap += ["--symlink", "/run/devlog", "/dev/log", "--chdir", "/", "--clearenv"]
    for name, value in environment().items():
        bwrap += ["--setenv", name, value]
    return bwrap + ["--"] + command


def _hidden_by_the_private_ones(settings: Settings) -> list[str]:
    """The checkout and the programs, if they are below the device's separate folders."""
    folders = {str(CHECKOUT), os.path.realpath(Path(settings.bin_dir).parent)}
    return sorted(folder for folder in folders if folder.startswith(("/tmp/", "/var/", "/run/", "/etc/")))


def enter_command(first_process: int, command: list[str], extra_env: dict[str, str] | None = None,
                  own_network: bool = True) -> list[str]:
    """Runs `command` in the device whose first process has this number."""
    enter = ["nsenter", "--target", str(first_process)]
    if os.geteuid() != 0:
        enter += ["--user", "--preserve-credentials"]
    if own_network:
        enter.append("--net")
    enter += ["--mount", "--uts", "--ipc", "--pid", "--wd=/"]
    variables = environment() | (extra_env or {})
    if term := os.environ.get("TERM"):
        variables.setdefault("TERM", term)
    return enter + ["--", "/usr/bin/env", "-i"] + [f"{name}={value}" for name, value in variables.items()] + command


def has_other_network(process: int) -> bool:
    """Whether the process is in another network than this one."""
    return os.readlink(f"/proc/{process}/ns/net") != os.readlink("/proc/self/ns/net")
