"""Packets that are no requests, and broken requests. snmpd drops most of them; the sanitizers watch the daemon."""
from __future__ import annotations

import random

import pytest
from support import ber
from support.ber import GET, GETBULK, GETNEXT, SET, V1, V2C
from support.snmp import PRIVATE_MIB
from support.target import GREATEST, MODEL, SEED, VOLTAGE, target_of, unharmed  # noqa: F401


def samples(version: int) -> dict[str, bytes]:
    """A good message of each kind."""
    voltage = VOLTAGE + (3,)
    messages = {
        "GET": ber.message(GET, 1000, [ber.varbind(MODEL), ber.varbind(voltage)], version),
        "GETNEXT": ber.message(GETNEXT, 1000, [ber.varbind(VOLTAGE)], version),
        "SET": ber.message(SET, 1000, [ber.varbind(voltage, ber.integer(1, ber.GAUGE))], version),
    }
    if version == V2C:
        messages["GETBULK"] = ber.message(GETBULK, 1000, [ber.varbind(VOLTAGE)], version, second=10)
    return messages


def test_random_bytes(unharmed):
    chance = random.Random(SEED)
    packets = [chance.randbytes(chance.choice((0, 1, 2, 10, 100, 1000))) for _ in range(1000)]
    for _ in range(1000):  # after a good beginning
        pdu = ber.field(chance.choice((GET, GETNEXT, SET, GETBULK, 0xA4, 0xA6, 0xA7, 0xA8)),
                        chance.randbytes(chance.randrange(80)))
        packets.append(ber.sequence(ber.integer(chance.choice((V1, V2C, ber.V3, 2, -1))),
                                    ber.field(ber.OCTETS, b"public"), pdu))
    unharmed.flood(packets)


@pytest.mark.parametrize("version", [V1, V2C], ids=["v1", "v2c"])
def test_each_message_cut_and_with_each_bit_flipped(unharmed, version):
    """A changed name or number is another request, which is answered; one with a changed community is not."""
    asked = []
    for message in samples(version).values():
        # Cut, also with an outer length that fits.
        cut = [message[:size] for size in range(len(message))]
        cut += [ber.field(ber.SEQUENCE, message[2:size]) for size in range(2, len(message))]
        assert unharmed.flood(cut) == []
        community = message.index(b"public")
        silent = []
        for bit in range(8 * len(message)):
            flipped = bytearray(message)
            flipped[bit // 8] ^= 1 << bit % 8
            (silent if community <= bit // 8 < community + 6 else asked).append(bytes(flipped))
        assert unharmed.flood(silent) == []
    answers = unharmed.flood(asked)  # last: an answer may be late
    assert len(answers) < len(asked) and {answer.kind for answer in answers} == {ber.RESPONSE}


ODD = {  # and still requests
    "greatest number": ber.message(GET, GREATEST, [ber.varbind(MODEL)]),
    "error status and index in a request": ber.message(GET, 1000, [ber.varbind(MODEL)], first=-7, second=99),
    "value in a GET": ber.message(GET, 1000, [ber.varbind(MODEL, ber.field(ber.OCTETS, b"x" * 60000))]),
    "bytes behind the message": ber.message(GET, 1000, [ber.varbind(MODEL)]) + b"\xff" * 1000,
}


@pytest.mark.parametrize("message", ODD.values(), ids=ODD)
def test_odd_request_is_answered(unharmed, message):
    answer, = unharmed.flood([message])
    assert (answer.error, answer.bindings) == (0, [(MODEL, ("INTEGER", "6420"))])


def test_unknown_user_of_version_3_receives_nothing(unharmed):
    done = unharmed.device.snmp.tool("snmpwalk", [PRIVATE_MIB], check=False,
                                     access=["-v3", "-u", "nobody", "-l", "noAuthNoPriv", "-r", "0", "-t", "1"])
    assert done.returncode != 0 and done.stdout == "" and "Unknown user name" in done.stderr
