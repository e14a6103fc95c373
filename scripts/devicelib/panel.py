"""Starts the front panel, a web page of running devices."""
from __future__ import annotations

import importlib.util
import os
import socket
import subprocess
from pathlib import Path

from .registry import DeviceError
from .settings import CHECKOUT, INSTALLED


def check(port: int) -> None:
    """Refuses a panel that could not start, before a device does."""
    if not importlib.util.find_spec("aiohttp"):
        raise DeviceError("--panel needs python3-aiohttp")
    try:
        socket.create_server(("127.0.0.1", port)).close()
    except OSError as error:
        raise DeviceError(f"TCP port {port}: {os.strerror(error.errno)}; choose another with --panel") from error


def start(port: int, name: str | None) -> subprocess.Popen:
    """A panel of one device, or of all that run. It prints its address, and ends when this program ends or closes its
    standard input."""
    folder = (Path(__file__).parents[1] if INSTALLED else CHECKOUT / "simulator") / "panel"
    command = ["/usr/bin/python3", str(folder / "server.py"), "--port", str(port), "--until-eof"]
    return subprocess.Popen(command + (["--name", name] if name else []), stdin=subprocess.PIPE, start_new_session=True)


def stop(panel: subprocess.Popen) -> None:
    panel.terminate()
    panel.communicate()
