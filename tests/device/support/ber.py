"""SNMPv1 and v2c messages as bytes: good and bad requests, and their answers."""
from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple

from .snmp import END_OF_VIEW, NO_SUCH_INSTANCE, NO_SUCH_OBJECT

V1, V2C = 0, 1
GET, GETNEXT, RESPONSE, SET, GETBULK = 0xA0, 0xA1, 0xA2, 0xA3, 0xA5
INTEGER, OCTETS, NULL, OBJECT, SEQUENCE = 0x02, 0x04, 0x05, 0x06, 0x30
COUNTER, GAUGE, TICKS = 0x41, 0x42, 0x43

TOO_BIG, NO_SUCH_NAME, BAD_VALUE, GENERAL_ERROR, NO_ACCESS, WRONG_TYPE, NOT_WRITABLE = 1, 2, 3, 5, 6, 7, 17

Oid = tuple[int, ...]


class Malformed(Exception):
    pass


# Writing


def field(tag: int, content: bytes) -> bytes:
    return bytes([tag]) + length(len(content)) + content


def length(size: int) -> bytes:
    if size < 0x80:
        return bytes([size])
    octets = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(octets)]) + octets


def integer(number: int, tag: int = INTEGER) -> bytes:
    return field(tag, number.to_bytes(number.bit_length() // 8 + 1, "big", signed=True))


def sequence(*fields: bytes, tag: int = SEQUENCE) -> bytes:
    return field(tag, b"".join(fields))


def arcs(oid: Oid) -> bytes:
    """An object identifier's content."""
    encoded = b""
    for arc in (oid[0] * 40 + oid[1], *oid[2:]):
        groups = [arc & 0x7F]
        while arc := arc >> 7:
            groups.append(arc & 0x7F | 0x80)
        encoded += bytes(reversed(groups))
    return encoded


def varbind(oid: Oid, value: bytes = field(NULL, b"")) -> bytes:
    return sequence(field(OBJECT, arcs(oid)), value)


def message(kind: int, number: int, varbinds: Sequence[bytes], version: int = V2C, community: bytes = b"public",
            first: int = 0, second: int = 0) -> bytes:
    """`first` and `second`: the error status and index of a request, the non-repeaters and repetitions of a GETBULK."""
    pdu = sequence(integer(number), integer(first), integer(second), sequence(*varbinds), tag=kind)
    return sequence(integer(version), field(OCTETS, community), pdu)


def dotted(oid: Oid) -> str:
    return "." + ".".join(str(arc) for arc in oid)


def numbers(dotted_oid: str) -> Oid:
    return tuple(int(arc) for arc in dotted_oid.strip(".").split("."))


# Reading


class Binding(NamedTuple):
    oid: Oid
    value: tuple[str, str]  # type and text, as net-snmp's tools name them


class Answer(NamedTuple):
    version: int
    community: bytes
    kind: int
    number: int
    error: int
    index: int
    bindings: list[Binding]


def split(data: bytes) -> list[tuple[int, bytes]]:
    """Fields that fill the data exactly: their tags and contents."""
    fields = []
    at = 0
    while at < len(data):
        if at + 2 > len(data):
            raise Malformed("no length")
        tag, size = data[at], data[at + 1]
        at += 2
        if size & 0x80:
            octets = data[at:at + (size & 0x7F)]
            at += len(octets)
            size = int.from_bytes(octets, "big")
        if at + size > len(data):
            raise Malformed("longer than its surroundings")
        fields.append((tag, data[at:at + size]))
        at += size
    return fields


def answer(data: bytes) -> Answer:
    """A message of version 1 or 2c; Malformed when it is none."""
    (outer,) = split(data)
    version, community, (kind, pdu) = split(_content(outer, SEQUENCE))
    number, error, index, bindings = split(pdu)
    return Answer(_integer(version), community[1], kind, _integer(number), _integer(error), _integer(index),
                  [_binding(pair) for pair in split(_content(bindings, SEQUENCE))])


def _content(item: tuple[int, bytes], tag: int) -> bytes:
    if item[0] != tag:
        raise Malformed(f"tag {item[0]:#x} instead of {tag:#x}")
    return item[1]


def _integer(item: tuple[int, bytes]) -> int:
    return int.from_bytes(_content(item, INTEGER), "big", signed=True)


def _binding(pair: tuple[int, bytes]) -> Binding:
    name, (tag, content) = split(_content(pair, SEQUENCE))
    return Binding(_arcs(_content(name, OBJECT)), _value(tag, content))


def _arcs(content: bytes) -> Oid:
    found, arc = [], 0
    for octet in content:
        arc = arc << 7 | octet & 0x7F
        if not octet & 0x80:
            found.append(arc)
            arc = 0
    return (*divmod(found[0], 40), *found[1:]) if found[0] < 80 else (2, found[0] - 80, *found[1:])


def _value(tag: int, content: bytes) -> tuple[str, str]:
    exceptions = {0x80: NO_SUCH_OBJECT, 0x81: NO_SUCH_INSTANCE, 0x82: END_OF_VIEW, NULL: ("NULL", "")}
    if tag in exceptions:
        return exceptions[tag]
    if tag == OCTETS:
        return ("STRING", content.decode("latin-1"))
    if tag == OBJECT:
        return ("OID", dotted(_arcs(content)))
    names = {INTEGER: "INTEGER", GAUGE: "Gauge32", COUNTER: "Counter32", TICKS: "Timeticks"}
    if tag not in names:  # of a SET, sent back with the refusal
        return (f"type {tag:#x}", content.hex())
    return (names[tag], str(int.from_bytes(content, "big", signed=tag == INTEGER)))
