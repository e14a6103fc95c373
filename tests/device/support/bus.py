"""A client of a device's system bus that can send what no D-Bus library would."""
from __future__ import annotations

import socket
import struct
from pathlib import Path

BUS_SOCKET = "/run/dbus/system_bus_socket"
MONITOR = "com.orvane.pamon"  # the amplifier monitor's name, and that of its interface
OBJECT = "/monitor"
_BUS = "org.freedesktop.DBus"

_METHOD_CALL, _ERROR, _SIGNAL = 1, 3, 4
_PATH, _INTERFACE, _MEMBER, _REPLY_SERIAL, _DESTINATION, _SIGNATURE = 1, 2, 3, 5, 6, 8
_NUMBERS = {"y": "<B", "b": "<I", "n": "<h", "u": "<I", "i": "<i", "t": "<Q", "d": "<d"}


class BusRefused(Exception):
    """The bus has answered with an error, or has closed the connection."""


class BusClient:
    def __init__(self, bus_socket: Path) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(10)
        self._socket.connect(str(bus_socket))
        self._serial = 0
        self._socket.sendall(b"\0AUTH EXTERNAL " + b"0".hex().encode() + b"\r\n")
        if not self._socket.recv(512).startswith(b"OK "):
            raise BusRefused("not let in")
        self._socket.sendall(b"BEGIN\r\n")
        self.name = self._call("Hello").decode()

    def close(self) -> None:
        self._socket.close()

    def own(self, name: str) -> None:
        self._call("RequestName", "su", name, 4)  # or not at all: do not queue

    def announce(self, member: str, signature: str, *values: object, destination: str = "", path: str = OBJECT,
                 interface: str = MONITOR) -> None:
        """A signal; with a destination it goes to that connection alone."""
        self._send(_SIGNAL, path, interface, member, signature, values, destination)

    def call(self, member: str, signature: str = "", *values: object, destination: str, path: str = OBJECT,
             interface: str = MONITOR) -> None:
        """Calls a method without waiting for its answer."""
        self._send(_METHOD_CALL, path, interface, member, signature, values, destination)

    def sync(self) -> None:
        """Until the bus has passed on all messages so far."""
        self._call("GetId")

    def send_raw(self, data: bytes) -> None:
        self._socket.sendall(data)

    def is_connected(self) -> bool:
        try:
            self.sync()
            return True
        except (BusRefused, OSError):
            return False

    def _call(self, member: str, signature: str = "", *values: object) -> bytes:
        """The first text of the answer, if it begins with one."""
        self.call(member, signature, *values, destination=_BUS, path="/org/freedesktop/DBus", interface=_BUS)
        asked = self._serial
        while True:
            kind, answered, body = self._receive()
            if answered != asked:  # a signal, or an answer to another call
                continue
            text = body[4:4 + struct.unpack_from("<I", body)[0]] if len(body) > 4 else b""
            if kind == _ERROR:
                raise BusRefused(text.decode(errors="replace"))
            return text

    def _send(self, kind: int, path: str, interface: str, member: str, signature: str, values: tuple[object, ...],
              destination: str) -> None:
        body = bytearray()
        for letter, value in zip(signature, values, strict=True):
            _put(body, letter, value)
        self._serial += 1
        fields = bytearray()
        for code, letter, text in ((_PATH, "o", path), (_INTERFACE, "s", interface), (_MEMBER, "s", member),
                                   (_DESTINATION, "s", destination), (_SIGNATURE, "g", signature)):
            if text:
                _align(fields, 8)
                fields += bytes([code, 1]) + letter.encode() + b"\0"
                _put(fields, letter, text)
        message = bytearray(struct.pack("<4BIII", ord("l"), kind, 0, 1, len(body), self._serial, len(fields)))
        message += fields
        _align(message, 8)
        self._socket.sendall(message + body)

    def _receive(self) -> tuple[int, int, bytes]:
        """Kind, serial of the call that it answers or 0, body."""
        head = self._exactly(16)
        body_size, _, fields_size = struct.unpack_from("<III", head, 4)
        rest = self._exactly(fields_size + -fields_size % 8 + body_size)
        return head[1], _answered(rest[:fields_size]), rest[len(rest) - body_size:]

    def _exactly(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            chunk = self._socket.recv(size - len(data))
            if not chunk:
                raise BusRefused("the connection was closed")
            data += chunk
        return data


def _answered(fields: bytes) -> int:
    """The serial in the header of an answer."""
    place = 0
    while place < len(fields):
        place += -place % 8
        code, letter = fields[place], chr(fields[place + 2])
        place += 4
        if letter == "g":
            place += fields[place] + 2
            continue
        number, = struct.unpack_from("<I", fields, place)
        if code == _REPLY_SERIAL:
            return number
        place += 4 + (number + 1 if letter in "so" else 0)
    return 0


def _align(data: bytearray, boundary: int) -> None:
    data += b"\0" * (-len(data) % boundary)


def _put(data: bytearray, letter: str, value: object) -> None:
    if letter in "so":
        text = value if isinstance(value, bytes) else str(value).encode()
        _align(data, 4)
        data += struct.pack("<I", len(text)) + text + b"\0"
    elif letter == "g":
        data += bytes([len(str(value))]) + str(value).encode() + b"\0"
    else:
        _align(data, struct.calcsize(_NUMBERS[letter]))
        data += struct.pack(_NUMBERS[letter], value)
