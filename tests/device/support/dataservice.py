"""A data service for tests: it knows which references were subscribed to, and sends the messages of the test."""
from __future__ import annotations

import contextlib
import socket
import socketserver
import threading
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from xml.sax.saxutils import escape

SETTINGS = "/state/config/snmp_settings"


class DataService(socketserver.ThreadingUnixStreamServer):
    daemon_threads = True

    def __init__(self, socket_path: Path) -> None:
        super().__init__(str(socket_path), _Connection)
        self.subscriptions: set[str] = set()  # their references
        self.connections = 0
        self.client: socket.socket | None = None
        self.lock = threading.Lock()
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def has(self, ref: str) -> bool:
        return ref in self.subscriptions

    def notify(self, ref: str, op: str, path: str, node: str, subscribed: str | None = None) -> None:
        """One notification; `node` is XML, the subscribed path is the changed one unless given."""
        text = (f"<notify><ref>{escape(ref)}</ref><op>{escape(op)}</op><rpath>{escape(path)}</rpath>"
                f"<spath>{escape(subscribed or path)}</spath><data>{node}</data></notify>")
        self.send(text.encode() + b"\0")

    def send(self, data: bytes) -> None:
        with self.lock:
            assert self.client, "the daemon is not connected"
            self.client.sendall(data)

    def close(self) -> None:
        self.shutdown()
        self.server_close()
        with self.lock:
            if self.client:
                self.client.shutdown(socket.SHUT_RDWR)


class _Connection(socketserver.BaseRequestHandler):
    def handle(self) -> None:
        with self.server.lock:
            self.server.client = self.request
        self.server.connections += 1
        pending = b""
        with contextlib.suppress(ConnectionError):
            while chunk := self.request.recv(65536):
                *messages, pending = (pending + chunk).split(b"\0")
                self.server.subscriptions |= {ElementTree.fromstring(message).findtext("ref") for message in messages}
        with self.server.lock:
            if self.server.client is self.request:
                self.server.client = None
