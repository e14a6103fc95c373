"""Managers that send what is no request, or a broken one. Sanitizers look on."""
from __future__ import annotations

import random

import pytest
from support import ber
from support.ber import GET, GETBULK, GETNEXT, SET, V1, V2C
from support.snmp import PRIVATE_MIB
from support.target import GREATEST, MODEL, NULL, SEED, VOLTAGE, target_of, unharmed  # noqa: F401


def samples(version: int, community: bytes = b"public") -> dict[str, bytes]:
    """A right message of each kind."""
    voltage = VOLTAGE + (3,)
    messages = {
        "GET": ber.message(GET, 1000, [ber.varbind(MODEL), ber.varbind(voltage)], version, community),
        "GETNEXT": ber.message(GETNEXT, 1000, [ber.varbind(VOLTAGE)], version, community),
        "SET": ber.message(SET, 1000, [ber.varbind(voltage, ber.integer(1, ber.GAUGE))], version, community),
    }
    if version == V2C:
        messages["GETBULK"] = ber.message(GETBULK, 1000, [ber.varbind(VOLTAGE)], version, community, second=10)
    return messages


each_sample = pytest.mark.parametrize("version, kind", [
    (version, kind) for version in (V1, V2C) for kind in samples(version)],
    ids=lambda value: {V1: "v1", V2C: "v2c"}.get(value, value) if isinstance(value, int) else value)


def test_random_bytes(unharmed):
    chance = random.Random(SEED)
    packets = [chance.randbytes(chance.choice((0, 1, 2, 10, 100, 1000))) for _ in range(1500)]
    for _ in range(1500):  # behind a right beginning
        pdu = ber.field(chance.choice((GET, GETNEXT, SET, GETBULK, 0xA4, 0xA6, 0xA7, 0xA8)),
                        chance.randbytes(chance.randrange(80)))
        packets.append(ber.sequence(ber.integer(chance.choice((V1, V2C, ber.V3, 2, -1))),
                                    ber.field(ber.OCTETS, b"public"), pdu))
    unharmed.flood(packets)


@each_sample
def test_truncated_messages_are_not_answered(unharmed, version, kind):
    message = samples(version)[kind]
    cut = [message[:size] for size in range(len(message))]
    # The same with lengths that are right on the outside, as far as there is an outside.
    inner = message[2:]
    cut += [ber.field(ber.SEQUENCE, inner[:size]) for size in range(len(inner))]
    assert unharmed.flood(cut) == []


@each_sample
def test_each_bit_flipped(unharmed, version, kind):
    """A changed name or number makes another request, answered as such; a changed community none."""
    message = samples(version)[kind]
    community = message.index(b"public")
    asked, silent = [], []
    for bit in range(8 * len(message)):
        flipped = bytearray(message)
        flipped[bit // 8] ^= 1 << bit % 8
        (silent if community <= bit // 8 < community + 6 else asked).append(bytes(flipped))
    assert unharmed.flood(silent) == []
    answers = unharmed.flood(asked)
    assert len(answers) < len(asked)
    assert {answer.kind for answer in answers} == {ber.RESPONSE}


def request(*, version: bytes = ber.integer(V2C), community: bytes = ber.field(ber.OCTETS, b"public"),
            number: bytes = ber.integer(1000), first: bytes = ber.integer(0), second: bytes = ber.integer(0),
            name: bytes = ber.field(ber.OBJECT, ber.arcs(MODEL)), value: bytes = NULL, kind: int = GET) -> bytes:
    """A message of one's own fields."""
    pdu = ber.sequence(number, first, second, ber.sequence(ber.sequence(name, value)), tag=kind)
    return ber.sequence(version, community, pdu)


OWN_LENGTH = {  # a length that stands before fewer bytes than it says, or in an odd form
    "indefinite": b"\x80", "none follows": b"\x81", "one byte of four": b"\x84\x01", "2 GiB": b"\x84\x7f\xff\xff\xff",
    "negative": b"\x84\xff\xff\xff\xff", "5 bytes": b"\x85\x01\x00\x00\x00\x00", "127 bytes": b"\xff" + b"\xff" * 127,
    "one too many": b"\x0a",
}
BROKEN = {f"{name} length of a text": request(community=bytes([ber.OCTETS]) + form + b"public")
          for name, form in OWN_LENGTH.items()}
BROKEN |= {f"{name} length of a number": request(number=bytes([ber.INTEGER]) + form + b"\1")
           for name, form in OWN_LENGTH.items()}
BROKEN |= {f"{name} length of a name": request(name=bytes([ber.OBJECT]) + form + ber.arcs(MODEL))
           for name, form in OWN_LENGTH.items() if name != "one too many"}
BROKEN |= {f"{name} length of it all": bytes([ber.SEQUENCE]) + form + request()[2:]
           for name, form in OWN_LENGTH.items()}
BROKEN |= {
    "number of no byte": request(number=ber.field(ber.INTEGER, b"")),
    "number of 200 bytes": request(number=ber.field(ber.INTEGER, b"\1" * 200)),
    "number that is a text": request(number=ber.field(ber.OCTETS, b"1000")),
    "version 2": request(version=ber.integer(2)), "version 3": request(version=ber.integer(3)),
    "version -1": request(version=ber.integer(-1)), "version 2^31 - 1": request(version=ber.integer(GREATEST)),
    "community of 60,000 bytes": request(community=ber.field(ber.OCTETS, b"public" * 10000)),
    "community with a NUL": request(community=ber.field(ber.OCTETS, b"public\0")),
    "name that does not end": request(name=ber.field(ber.OBJECT, ber.arcs(MODEL) + b"\x81")),
    "name with an arc above 2^32": request(name=ber.field(ber.OBJECT, ber.arcs(MODEL) + b"\xff" * 9 + b"\x7f")),
    "name of 129 arcs": request(name=ber.field(ber.OBJECT, ber.arcs(MODEL + (1,) * 118))),
    "name of 20,000 arcs": request(name=ber.field(ber.OBJECT, ber.arcs(MODEL + (1,) * 20000))),
    "response": request(kind=ber.RESPONSE), "trap": request(kind=0xA4), "report": request(kind=0xA8),
    "unknown kind": request(kind=0xBF),
    "nested 1,000 times": b"".join(ber.SEQUENCE.to_bytes(1, "big") + b"\x82\x10\x00" for _ in range(1000)),
}
ODD = {  # and still a request
    "negative number": request(number=ber.integer(-5)), "greatest number": request(number=ber.integer(GREATEST)),
    "number of 5 bytes": request(number=ber.field(ber.INTEGER, b"\1\0\0\0\0")),  # of which 32 bits count
    "least number": request(number=ber.integer(-GREATEST - 1)),
    "error status and index in a request": request(first=ber.integer(-7), second=ber.integer(99)),
    "value in a GET": request(value=ber.field(ber.OCTETS, b"x" * 60000)),
    "length in 4 bytes": b"\x30\x84" + (len(request()) - 2).to_bytes(4, "big") + request()[2:],
    "bytes behind the message": request() + b"\xff" * 1000,
}


@pytest.mark.parametrize("message", BROKEN.values(), ids=BROKEN)
def test_broken_message_is_not_answered(unharmed, message):
    assert unharmed.flood([message]) == []


@pytest.mark.parametrize("message", ODD.values(), ids=ODD)
def test_odd_request_is_answered(unharmed, message):
    answer, = unharmed.flood([message])
    assert (answer.error, answer.bindings) == (0, [(MODEL, ("INTEGER", "6420"))])


def test_unknown_user_of_version_3_is_told_nothing(unharmed):
    done = unharmed.device.snmp.tool("snmpwalk", [PRIVATE_MIB], check=False,
                                     access=["-v3", "-u", "nobody", "-l", "noAuthNoPriv", "-r", "0", "-t", "1"])
    assert done.returncode != 0 and done.stdout == ""
    assert "Unknown user name" in done.stderr


@pytest.mark.parametrize("size", [1472, 1473, 9000, 65507])
def test_datagram_of_one_long_value(unharmed, size):
    frame = len(request(value=ber.field(ber.OCTETS, b"x" * (size - 100)))) - (size - 100)
    message = request(kind=SET, value=ber.field(ber.OCTETS, b"x" * (size - frame)))
    assert len(message) == size
    answer, = unharmed.flood([message])
    assert answer.error == ber.NO_ACCESS
