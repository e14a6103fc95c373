"""Requests for too much, and from many managers. test_walks.py has every kind of request for up to 64 names."""
from __future__ import annotations

import time

import pytest
from support import ber
from support.ber import GET, GETBULK, GETNEXT, V1
from support.rawmanager import RawManager, sockets
from support.snmp import PRIVATE_MIB
from support.target import GREATEST, OPTIONS, Target, intact, make_target
from support.walks import Walk


def below_enterprise(arcs: str) -> ber.Oid:
    return ber.numbers(f"{PRIVATE_MIB}.{arcs}")


@pytest.fixture(scope="module")
def target(start_shared_device) -> Target:
    return make_target(start_shared_device(6420, *OPTIONS), Walk(6420))


@pytest.fixture
def unharmed(target):
    yield from intact(target)


def test_all_names_at_once(unharmed):
    names = unharmed.oids()
    answer = unharmed.manager.ask(GETNEXT, names)
    assert (answer.error, answer.bindings[:-1]) == (0, unharmed.walk[1:])
    assert answer.bindings[-1:] == unharmed.manager.ask(GETNEXT, names[-1:]).bindings
    assert unharmed.manager.ask(GET, names).bindings == unharmed.walk


# More names than a message of 64 KiB between snmpd and the sub-agent holds. In AgentX a name of 13 arcs below the
# enterprise arc is 36 bytes long, the end of its search 24, the answer with a Gauge32 44, with a text at least 40.

CELL, TEXT = below_enterprise("3.4.2.1.3.1"), below_enterprise("3.4.2.1.2.1")
GET_LIMIT = (65536 - 28) // 44
GETNEXT_LIMIT = (65536 - 20) // 60
TOO_MANY = {  # kind, name, number of names, fields of the message; what is too long
    "GET, the answer": (GET, CELL, GET_LIMIT + 1, {}),
    "GET v1, the answer": (GET, CELL, GET_LIMIT + 1, {"version": V1}),
    "GET, the request": (GET, CELL, 1700, {}),
    "GETNEXT, the request": (GETNEXT, CELL, GETNEXT_LIMIT + 1, {}),
    "GETNEXT, the answer": (GETNEXT, TEXT, GETNEXT_LIMIT, {}),
    "GETNEXT, as many short names as a datagram holds": (GETNEXT, ber.numbers(PRIVATE_MIB), 4600, {}),
    "GETBULK, the request for its non-repeaters": (GETBULK, CELL, GETNEXT_LIMIT + 1, {"first": 5000, "second": 5}),
}


@pytest.mark.parametrize("kind, name, count, fields", TOO_MANY.values(), ids=TOO_MANY)
def test_too_many_names_are_refused_at_once(unharmed, kind, name, count, fields):
    """The session with snmpd stays. A sub-agent that does not answer loses it after 6 s."""
    begin = time.monotonic()
    answer = unharmed.manager.answer_to(unharmed.manager.begin(kind, [name] * count, **fields), 20)
    refused = time.monotonic()
    assert unharmed.manager.ask(GET, [CELL], timeout=10).bindings == [(CELL, unharmed.value_of(CELL))]
    # For any failed GET of version 1 snmpd reports another error, at the last variable.
    failed = (ber.NO_SUCH_NAME, count) if kind == GET and fields else (ber.TOO_BIG, 1)
    assert (answer.error, answer.index, len(answer.bindings)) == (*failed, count)
    assert refused - begin < 5 and time.monotonic() - refused < 1
    assert unharmed.device.kvsnmp_err().count("AgentX subagent connected") == 1


@pytest.mark.parametrize("names", [100, GETNEXT_LIMIT])
def test_long_requests_in_a_row_block_nobody(start_device, names):
    """snmpd does not read while it sends: a sub-agent that waits until snmpd reads would block both. snmpd sends faster
    than the sub-agent answers: one that reads ahead without limit would need a gigabyte, and half a minute to answer."""
    device = start_device(6420, "--no-dbus", "--no-traps").wait_answering()
    flooding = [RawManager.of(device, address) for address in ("127.0.0.1", "::1")]
    end = time.monotonic() + 3
    while time.monotonic() < end:
        for manager in flooding:
            manager.begin(GETNEXT, [CELL] * names)
        time.sleep(0.002 * names / GETNEXT_LIMIT)
        for manager in flooding:
            manager.drain()
    begin = time.monotonic()
    device.wait_answering()
    print(f"answered {time.monotonic() - begin:.1f} s after the last of the long requests")
    assert device.kvsnmp_err().count("AgentX subagent connected") == 1
    for manager in flooding:
        manager.close()
    device.end_kvsnmp()


def test_as_many_names_as_there_is_room_for(unharmed):
    """Eight hundred names always fit (docs/mib.md), also those with the longest answers."""
    longest = max(unharmed.walk, key=lambda binding: len(binding.value[1]) if binding.value[0] == "STRING" else 0).oid
    for kind, name, count in [(GET, CELL, GET_LIMIT), (GETNEXT, CELL, GETNEXT_LIMIT), (GET, longest, 800),
                              (GETNEXT, longest, 800)]:
        answer = unharmed.manager.ask(kind, [name] * count, timeout=10)
        expected = [(name, unharmed.value_of(name))] if kind == GET else unharmed.following(name)[:1]
        assert (answer.error, answer.bindings) == (0, expected * count)


@pytest.mark.parametrize("repeaters, first, repetitions", [
    (40, 0, 2000), (100, 5, GREATEST), (1000, 0, 1000), (2000, 0, GREATEST), (0, 0, GREATEST)], ids=str)
def test_getbulk_for_too_much_is_answered_with_100_variables(unharmed, repeaters, first, repetitions):
    """At most, in whole rows."""
    names = [unharmed.oids()[place % 40] for place in range(repeaters)]
    begin = time.monotonic()
    answer = unharmed.manager.ask(GETBULK, names, first=first, second=repetitions)
    assert answer.error == 0
    assert len(answer.bindings) <= 100 and time.monotonic() - begin < 1
    assert (answer.bindings == []) == (repeaters in (0, 1000, 2000))
    for place, binding in enumerate(answer.bindings):
        if place < first:
            assert binding == unharmed.following(names[place])[0]
        else:
            row, column = divmod(place - first, repeaters - first)
            assert binding == unharmed.following(names[first + column])[row]


def test_each_of_256_managers_gets_its_answers(unharmed):
    """All ask at once, each for another cell."""
    managers = [RawManager(one) for one in sockets(unharmed.device, 256)]
    for turn in range(20):
        wanted = [unharmed.walk[(place * 7 + turn * 13) % len(unharmed.walk)] for place in range(len(managers))]
        asked = [manager.begin(GET, [binding.oid]) for manager, binding in zip(managers, wanted)]
        for manager, number, binding in zip(managers, asked, wanted):
            answer = manager.answer_to(number, 2) or manager.ask(GET, [binding.oid])
            assert (answer.error, answer.bindings) == (0, [binding])
    for manager in managers:
        manager.close()
