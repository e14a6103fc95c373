"""A data service for tests: it records the requests, and sends the messages of the test."""
from __future__ import annotations

import select
import socket
import threading
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import NamedTuple
from xml.sax.saxutils import escape

SETTINGS = "/state/config/snmp_settings"


class Subscription(NamedTuple):
    ref: str
    path: str
    operation: str
    single_level: str
    target: str


class DataService:
    def __init__(self, socket_path: Path) -> None:
        self.subscriptions: list[Subscription] = []
        self.others: list[str] = []  # other requests
        self.connections = 0
        self._client: socket.socket | None = None
        self._lock = threading.Lock()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(socket_path))
        self._listener.listen()
        self._wake_read, self._wake_write = socket.socketpair()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def paths(self) -> list[str]:
        return [subscription.path for subscription in list(self.subscriptions)]

    def has(self, ref: str) -> bool:
        return any(subscription.ref == ref for subscription in list(self.subscriptions))

    def notify(self, ref: str, op: str, path: str, node: str, subscribed: str | None = None) -> None:
        """One notification; `node` is XML, the subscribed path is the changed one unless given."""
        text = (f"<notify><ref>{escape(ref)}</ref><op>{escape(op)}</op><rpath>{escape(path)}</rpath>"
                f"<spath>{escape(subscribed or path)}</spath><data>{node}</data></notify>")
        self.send(text.encode() + b"\0")

    def send(self, data: bytes) -> None:
        with self._lock:
            assert self._client, "the daemon is not connected"
            self._client.sendall(data)

    def hang_up(self) -> None:
        with self._lock:
            if self._client:
                self._client.shutdown(socket.SHUT_RDWR)

    def close(self) -> None:
        self._wake_write.send(b"x")
        self._thread.join(5)
        for end in (self._listener, self._wake_read, self._wake_write):
            end.close()

    def _serve(self) -> None:
        pending = b""
        while True:
            waiting = [self._listener, self._wake_read] + ([self._client] if self._client else [])
            readable = select.select(waiting, [], [])[0]
            if self._wake_read in readable:
                break
            if self._listener in readable:
                client, _ = self._listener.accept()
                with self._lock:
                    self._client, pending = client, b""
                self.connections += 1
            elif self._client in readable:
                try:
                    chunk = self._client.recv(65536)
                except OSError:
                    chunk = b""
                if not chunk:
                    with self._lock:
                        self._client.close()
                        self._client = None
                    continue
                *messages, pending = (pending + chunk).split(b"\0")
                for message in messages:
                    self._receive(message.decode())
        if self._client:
            self._client.close()

    def _receive(self, message: str) -> None:
        request = ElementTree.fromstring(message)
        subscribe = request.find("subscribe")
        if subscribe is None:
            self.others.append(message)
            return
        self.subscriptions.append(Subscription(
            request.findtext("ref", ""), subscribe.findtext("path", ""), subscribe.findtext("operation", ""),
            subscribe.findtext("single_level", ""), subscribe.findtext("target", "")))
