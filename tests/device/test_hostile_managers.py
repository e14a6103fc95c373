"""Managers that send what they should not, ask for too much, set what nobody may set, or are simply many.

Whatever a test has sent, afterwards the same daemon and the same snmpd serve the same values; sanitizers look on.
"""
from __future__ import annotations

import bisect
import itertools
import json
import random
import selectors
import threading
import time
import xml.etree.ElementTree as ElementTree
from collections import defaultdict
from collections.abc import Iterable, Iterator
from contextlib import closing
from typing import NamedTuple

import pytest
from support import ber, catalogue, steps
from support.ber import GET, GETBULK, GETNEXT, SET, V1, V2C
from support.catalogue import COLUMN_OIDS, COMPACT, OBJECTS, Table
from support.dataservice import SETTINGS
from support.device import MODEL_NUMBER, Device
from support.mib import mib
from support.polling import wait_until
from support.rawmanager import ROOT, RawManager, sockets
from support.snmp import END_OF_VIEW, NO_SUCH_INSTANCE, NO_SUCH_OBJECT, PRIVATE_MIB, parse
from support.walks import Expected, Walk, wait_for_lines

SEED = 52717
MODEL = ber.numbers(MODEL_NUMBER)
VOLTAGE = ber.numbers(COLUMN_OIDS["voltageValue"])
NULL = ber.field(ber.NULL, b"")
NO_SUCH = (NO_SUCH_INSTANCE, NO_SUCH_OBJECT)
GREATEST = 2 ** 31 - 1  # of an INTEGER
MANY = 1200  # names of one GET, whose answers snmpd still takes from a sub-agent


class Target(NamedTuple):
    device: Device
    manager: RawManager
    walk: list[ber.Binding]  # what it serves all the time

    def oids(self) -> list[ber.Oid]:
        return [binding.oid for binding in self.walk]

    def following(self, oid: ber.Oid) -> list[ber.Binding]:
        return self.walk[bisect.bisect_right(self.oids(), oid):]

    def flood(self, packets: list[bytes]) -> list[ber.Answer]:
        """Sends them all, no faster than snmpd reads; the answers, each of which is well-formed."""
        answers: list[ber.Answer] = []
        for start in range(0, len(packets), 50):
            for packet in packets[start:start + 50]:
                self.manager.send(packet)
            # Twice: snmpd answers what it asks a sub-agent in any order, but asks it in that of the requests.
            answers += self._answers_before(self.manager.begin(GET, [MODEL]))
            answers += self._answers_before(self.manager.begin(GET, [MODEL]))
        return answers

    def _answers_before(self, number: int) -> list[ber.Answer]:
        answers = []
        while (data := self.manager.receive(5)) is not None:
            answer = ber.answer(data)
            if answer.number == number:
                assert answer.bindings == [(MODEL, ("INTEGER", str(self.device.model)))]
                return answers
            answers.append(answer)
        raise AssertionError("no answer to a GET behind what was sent")


AMPLIFIER = Walk(6420)
STATION = Walk(6214, COMPACT)  # with microphones, and with expanders: all the relays
OPTIONS = ["--no-dbus", "--no-traps", "--clock-shift"]


def options(model: Walk) -> list[str]:
    return [*OPTIONS, *(["--model-text", model.text] if model.text else [])]


def make_target(device: Device, model: Walk) -> Target:
    device.wait_answering().wait_subscribed()
    steps.apply(device, dbus=False)
    wait_for_lines(device, model)
    manager = RawManager.of(device)
    return Target(device, manager, manager.walk())


@pytest.fixture(scope="module")
def target_of(start_shared_device):
    """One of each model that is asked for."""
    targets: dict[Walk, Target] = {}

    def find(model: Walk) -> Target:
        if model not in targets:
            targets[model] = make_target(start_shared_device(model.model, *options(model)), model)
        return targets[model]

    yield find
    for target in targets.values():
        target.manager.close()


@pytest.fixture
def unharmed(target_of, request):
    """The target, an amplifier unless the test names another, and what holds behind the test."""
    yield from intact(target_of(getattr(request, "param", AMPLIFIER)))


def intact(target: Target) -> Iterator[Target]:
    before = target.device.kvsnmp_pid(), target.device.wait_snmpd()
    yield target
    target.manager.drain()
    assert (target.device.kvsnmp_pid(), target.device.wait_snmpd()) == before
    target.device.shift_clock(steps.CACHE_SECONDS)
    assert target.manager.walk() == target.walk
    assert target.device.complaints() == []


# What is no request, or a broken one


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


# Names that nothing has


def strange_names(known: list[ber.Oid]) -> list[ber.Oid]:
    """Beside, below, above and between the known ones, up to the longest that there are."""
    chance = random.Random(SEED)
    arcs = (0, 1, 2, 3, 99, 127, 128, 255, 65536, 2 ** 31 - 1, 2 ** 31, 2 ** 32 - 1)
    names = []
    for _ in range(1500):
        name = list(chance.choice(known))
        at = chance.randrange(len(ROOT), len(name))
        names.append(chance.choice((
            (*name[:at], chance.choice(arcs), *name[at + 1:]),
            (*name[:at],),
            (*name, *chance.choices(arcs, k=chance.choice((1, 2, 10, 128 - len(name))))),
            (*ROOT, *chance.choices(arcs, k=chance.randrange(1, 8))),
        )))
    return names


def test_get_of_a_strange_name_finds_nothing(unharmed):
    values = {binding.oid: binding.value for binding in unharmed.walk}
    for name in strange_names(unharmed.oids()):
        answer = unharmed.manager.ask(GET, [name])
        (oid, value), = answer.bindings
        assert (answer.error, oid) == (0, name)
        assert value == values[name] if name in values else value in NO_SUCH


def test_getnext_and_getbulk_behind_a_strange_name_find_what_follows(unharmed):
    for name in strange_names(unharmed.oids()):
        following = unharmed.following(name)
        answer = unharmed.manager.ask(GETNEXT, [name])
        assert answer.error == 0
        if following:
            assert answer.bindings == following[:1]
        else:
            (oid, value), = answer.bindings
            assert oid[:len(ROOT)] != ROOT or value == END_OF_VIEW
        bulk = unharmed.manager.ask(GETBULK, [name], second=5)
        assert bulk.bindings[:min(5, len(following))] == following[:5]


# Too much


def test_get_of_many_names_has_all_the_values(unharmed):
    wanted = [unharmed.walk[place % len(unharmed.walk)] for place in range(MANY)]
    answer = unharmed.manager.ask(GET, [binding.oid for binding in wanted])
    assert (answer.error, answer.bindings) == (0, wanted)


def test_get_that_is_too_long_for_the_agents_connection_fails_and_costs_it_that_connection(unharmed):
    """snmpd takes no message above 64 KiB from a sub-agent, which it gives up after its six attempts. Other managers
    are answered in these 6 s; the sub-agent is back a second later."""
    device = unharmed.device
    other = RawManager.of(device)
    begin = time.monotonic()
    number = unharmed.manager.begin(GET, [unharmed.walk[place % len(unharmed.walk)].oid for place in range(2000)])
    served: list[tuple[str, str] | None] = []
    while (answer := unharmed.manager.answer_to(number, 0.2)) is None:
        served.append(other.try_get(MODEL))
        assert time.monotonic() < begin + 20
    failed = time.monotonic()
    assert answer.error == ber.GENERAL_ERROR
    assert len(served) > 10 and set(served[:-1]) == {("INTEGER", "6420")}
    wait_until(lambda: other.try_get(MODEL) == ("INTEGER", "6420"), 10, what="sub-agent back")
    print(f"refused after {failed - begin:.1f} s, sub-agent back {time.monotonic() - failed:.1f} s later, "
          f"{len(served)} other GETs meanwhile")
    other.close()


@pytest.mark.parametrize("repeaters, first, repetitions", [
    (1, 0, GREATEST), (1, 0, 65536), (10, 0, GREATEST), (100, 0, GREATEST), (1000, 0, 1000), (2000, 0, GREATEST),
    (10, 10, GREATEST), (100, 5, GREATEST), (10, GREATEST, GREATEST), (0, 0, GREATEST),
    (1, -1, 10), (1, 0, -1), (1, -GREATEST - 1, -GREATEST - 1), (1, 0, 0),
], ids=str)
def test_getbulk_without_measure_is_answered_in_measure(unharmed, repeaters, first, repetitions):
    """snmpd gives 100 variables at most; negative numbers count as 0."""
    names = [unharmed.oids()[place % 40] for place in range(repeaters)]
    begin = time.monotonic()
    answer = unharmed.manager.ask(GETBULK, names, first=first, second=repetitions)
    taken = time.monotonic() - begin
    assert answer.error == 0
    assert len(answer.bindings) <= 100 and taken < 1
    first, repetitions = min(max(first, 0), repeaters), max(repetitions, 0)
    assert (answer.bindings == []) == (repetitions == 0 and first == 0 or repeaters in (0, 1000, 2000))
    for place, binding in enumerate(answer.bindings):
        if place < first:
            assert binding == unharmed.following(names[place])[0]
        else:
            row, column = divmod(place - first, repeaters - first)
            assert binding == unharmed.following(names[first + column])[row]


@pytest.mark.parametrize("size", [1472, 1473, 9000, 65507])
def test_datagram_of_one_long_value(unharmed, size):
    frame = len(request(value=ber.field(ber.OCTETS, b"x" * (size - 100)))) - (size - 100)
    message = request(kind=SET, value=ber.field(ber.OCTETS, b"x" * (size - frame)))
    assert len(message) == size
    answer, = unharmed.flood([message])
    assert answer.error == ber.NO_ACCESS


# Setting


WRITABLE = """\
master agentx
rocommunity public 127.0.0.1
rwcommunity private 127.0.0.1
"""


@pytest.fixture(scope="module", params=[AMPLIFIER, STATION], ids=lambda model: model.name)
def writable(request, start_shared_device):
    """A device whose own snmpd.conf lets a community write whatever can be written."""
    model = request.param
    device = start_shared_device(model.model, *options(model), "--no-kvsnmp", "--set", f"{SETTINGS}/custom_config=true")
    device.path("/etc/snmp/snmpd.conf").write_text(WRITABLE)
    device.start_kvsnmp("-d", clock_shift=True)
    target = make_target(device, model)
    assert {name for name, table in TABLES.items() if has_rows(table, target.oids())} == set(tables_of(model))
    yield target
    target.manager.close()


TABLES = {item.name: item for item in OBJECTS if isinstance(item, Table)}


def entry_of(table: Table) -> ber.Oid:
    return ber.numbers(table.oid(table.columns[0][0]))[:-1]


def has_rows(table: Table, oids: Iterable[ber.Oid]) -> bool:
    return any(oid[:len(entry_of(table))] == entry_of(table) for oid in oids)


def tables_of(model: Walk) -> list[str]:
    """Those that have rows, as told by its golden file."""
    oids = [ber.numbers(variable.oid) for variable in parse(model.file.read_text())]
    return [name for name, table in TABLES.items() if has_rows(table, oids)]


def value_like(binding: ber.Binding) -> bytes:
    """Another value of the same type."""
    kind, text = binding.value
    if kind == "STRING":
        return ber.field(ber.OCTETS, b"changed")
    return ber.integer(int(text) + 1, ber.GAUGE if kind == "Gauge32" else ber.INTEGER)


@pytest.mark.parametrize("community, version, error", [
    ("public", V1, ber.NO_SUCH_NAME), ("public", V2C, ber.NO_ACCESS),
    ("private", V1, ber.NO_SUCH_NAME), ("private", V2C, ber.NOT_WRITABLE),
], ids=["read-only v1", "read-only v2c", "read-write v1", "read-write v2c"])
def test_set_of_every_object_is_refused_and_changes_nothing(writable, community, version, error):
    access = {"version": version, "community": community.encode()}
    refused = []
    for binding in writable.walk:
        for value in (value_like(binding), ber.integer(1), ber.field(ber.OCTETS, b"x" * 1000)):
            refused.append(writable.manager.ask(SET, [binding.oid], value, **access))
    absent = [binding.oid[:-1] + (77,) for binding in writable.walk] + [  # rows and columns that are not there, tables
        entry_of(table) + tail for table in TABLES.values() for tail in ((), (len(table.columns) + 1, 1))]
    absent += [ber.numbers(item.oid) + (0,) for item in mib().objects.values() if "notify" in item.access]
    refused += [writable.manager.ask(SET, [oid], ber.integer(1), **access) for oid in absent]
    refused.append(writable.manager.ask(SET, writable.oids()[:100], ber.integer(1), **access))
    assert {(answer.error, answer.index) for answer in refused} == {(error, 1)}
    no_value = [writable.manager.ask(SET, [binding.oid], NULL, **access).error for binding in writable.walk]
    assert set(no_value) == {ber.BAD_VALUE if version == V1 else ber.WRONG_TYPE}
    writable.device.shift_clock(steps.CACHE_SECONDS)
    assert writable.manager.walk() == writable.walk


def test_the_community_that_may_write_writes_what_snmpd_lets_it(writable):
    contact = ber.numbers(".1.3.6.1.2.1.1.4.0")
    assert writable.manager.ask(SET, [contact], ber.field(ber.OCTETS, b"me"), community=b"private").error == 0
    assert writable.manager.ask(GET, [contact]).bindings == [(contact, ("STRING", "me"))]


# A request that mixes what is absent in two ways

ABSENT_ROW, ANOTHER_ROW = 99, 98


@pytest.mark.parametrize("version", [V1, V2C], ids=["v1", "v2c"])
@pytest.mark.parametrize("unharmed, name", [
    (model, name) for model in (AMPLIFIER, STATION) for name in tables_of(model)
], indirect=["unharmed"], ids=lambda value: value.name if isinstance(value, Walk) else value)
def test_absent_index_beside_a_column_beyond_the_last_fails_the_whole_pdu(unharmed, name, version):
    """In each order: no value, not even that of the cell which is there. Intended."""
    table = TABLES[name]
    entry = entry_of(table)
    present = next(oid for oid in unharmed.oids() if oid[:len(entry)] == entry)
    absent = entry + (1, ABSENT_ROW)
    beyond = entry + (len(table.columns) + 1, present[-1])
    for names in itertools.permutations((absent, beyond, present)):
        answer = unharmed.manager.ask(GET, names, version=version)
        # Version 1 has another word for it, and snmpd then names the last of the variables, whichever that is.
        assert (answer.error, answer.index) == ((ber.NO_SUCH_NAME, 3) if version == V1 else (ber.GENERAL_ERROR, 1))
        assert [binding.oid for binding in answer.bindings] == list(names)
        assert not any(value[0] in ("INTEGER", "Gauge32", "STRING") for _, value in answer.bindings)
    # Each of the two alone does no harm.
    assert unharmed.manager.ask(GET, [absent]).bindings == [(absent, NO_SUCH_INSTANCE)]
    assert unharmed.manager.ask(GET, [beyond]).bindings == [(beyond, NO_SUCH_OBJECT)]
    another = entry + (1, ANOTHER_ROW)
    values = [value for _, value in unharmed.manager.ask(GET, [absent, present, another]).bindings]
    assert values[0] == values[2] == NO_SUCH_INSTANCE and values[1] not in NO_SUCH


# Many, and many kinds of walk


@pytest.mark.parametrize("version, repetitions", [
    (V1, 0), (V2C, 0), (V2C, 1), (V2C, 10), (V2C, 25), (V2C, 50), (V2C, GREATEST),
], ids=["GETNEXT v1", "GETNEXT v2c", "GETBULK 1", "GETBULK 10", "GETBULK 25", "GETBULK 50", "GETBULK 2^31 - 1"])
def test_every_kind_of_walk_gives_the_same(unharmed, version, repetitions):
    assert unharmed.manager.walk(repetitions=repetitions, version=version) == unharmed.walk


def test_two_hundred_and_fifty_six_managers_each_get_their_own_answers(unharmed):
    """Each asks for cells of its own, all at once, and the next when it has its answer."""
    count, questions = 256, 20
    managers = [RawManager(one) for one in sockets(unharmed.device, count)]
    asked: dict[RawManager, tuple[int, ber.Binding, float]] = {}
    left = {manager: [unharmed.walk[(place * 7 + turn * 13) % len(unharmed.walk)] for turn in range(questions)]
            for place, manager in enumerate(managers)}
    repeated = 0

    def ask(manager: RawManager) -> None:
        asked[manager] = (manager.begin(GET, [left[manager][-1].oid]), left[manager][-1], time.monotonic())

    begin = time.monotonic()
    with selectors.DefaultSelector() as selector:
        for manager in managers:
            selector.register(manager.socket, selectors.EVENT_READ, manager)
        for manager in managers:
            ask(manager)
        while asked:
            for key, _ in selector.select(0.5):
                manager = key.data
                data = manager.receive(0)
                if data is None or manager not in asked:
                    continue
                answer = ber.answer(data)
                number, wanted, _ = asked[manager]
                if answer.number == number:
                    assert (answer.error, answer.bindings) == (0, [wanted])
                    left[manager].pop()
                    del asked[manager]
                    if left[manager]:
                        ask(manager)
            for manager, (_, _, since) in list(asked.items()):
                if time.monotonic() > since + 2:
                    repeated += 1
                    ask(manager)
            assert time.monotonic() < begin + 60, f"{len(asked)} managers wait"
    taken = time.monotonic() - begin
    print(f"{count} managers: {count * questions / taken:.0f} GETs per second, {repeated} repeated")
    for manager in managers:
        manager.close()


# Values that change meanwhile


def changes(turn: int) -> list[steps.Command]:
    """A new text for everything that has one on the model, as told by the catalogue."""
    def word(words) -> str:
        texts = sorted(words)
        return texts[turn % len(texts)]

    truth = "true" if turn % 2 else "false"
    new = {f"power_lines/power_line[kid='{key}']/voltage": f"{20 + place + turn / 1000:.3f}"
           for place, (_, _, key) in enumerate(catalogue.VOLTAGES[6420])}
    new |= {f"temp_sensors/temp_sensor[kid='{key}']/temp_{kind}": f"{20 + place + turn / 10:.1f}"
            for place, (_, _, key) in enumerate(catalogue.TEMPERATURES[6420])
            for kind in ("current", "peak", "average")}
    new |= {f"fans/fan[kid='{key}']/speed_sensor_rpm": str(1000 + turn) for _, _, key in catalogue.FANS[6420]}
    for line in ("ch1", "ch2"):
        new[f"lines/line[kid='{line}']/characteristics/line_state"] = word(catalogue.LINE_STATES)
        for let in range(1, 11):
            path = f"lines/line[kid='{line}']/lets/let[kid='{let}']"
            new |= {f"{path}/let_vcc": f"{let + turn / 1000:.3f}", f"{path}/sw_version": f"1.{turn}",
                    f"{path}/hw_version": "A" * (1 + turn % 20)}
    for line in ("ln1", "ln2"):  # the two alike: a row may show the other's
        new[f"lines/line[kid='{line}']/pilot_tone_state"] = word(catalogue.PILOT_TONES)
        new[f"config/lines/line[kid='{line}']/pilot_tone_sensing_enable"] = truth
    for source in ("ac_power", "dc_power"):
        new[f"power_sources/power_source[kid='{source}']/live"] = truth
        new[f"config/power_sources/power_source[kid='{source}']/monitored"] = truth
    new |= {f"config/gpis/gpi[kid='gpi{index}']/monitored": truth for index in range(1, 7)}
    new |= {f"config/os_ip/eth_switch/port[port_id='Eth{index}']/monitored": truth for index in (1, 2)}
    step = turn % 5  # of the channels: in operation, a fault, disabled, no class-D amplifier, in operation
    new["class_d_amp_status/status"] = "failed" if step == 3 else "ok"
    commands = []
    for channel, line in enumerate(("ch1", "ch2")):
        new[f"config/lines/line[kid='{line}']/enable"] = "false" if step == 2 else "true"
        commands.append(["monitor", "amp", str(channel), "1" if step == 1 else "2"])
    for words, kind in ((catalogue.INPUT_STATES, "gpi"), (catalogue.OUTPUT_STATES, "gpo")):
        commands += [["monitor", kind, str(place), word(words)] for place in range(6)]
    return [*(steps.put(f"/state/{path}", text) for path, text in new.items()), *commands, *let_changes(turn)]


def let_changes(turn: int) -> list[steps.Command]:
    """Of the transponders' states, which are worked out when one is announced, for the channel as it is then."""
    return [["monitor", "let", channel, str(let), str(1 + turn // 5 % 2)] for channel in "01" for let in range(1, 11)]


def codes(*values: int) -> set[tuple[str, str]]:
    return {("INTEGER", str(value)) for value in values}


# What comes of both the data service and the amplifier monitor, whichever is the faster: rows, and the states that
# `changes` can lead to. The data service's tree alone does not tell them.
ANNOUNCED = {
    "ampChannelStatus": (2, codes(2, 3, 4, 5)),
    "letChannel1Status": (10, codes(1, 3, 4)),
    "letChannel2Status": (10, codes(1, 3, 4)),
    "controlInputStatus": (6, codes(*catalogue.INPUT_STATES.values())),
    "controlOutputState": (6, codes(*catalogue.OUTPUT_STATES.values())),
}


def begin_anew(device: Device) -> None:
    """The state of turn 0, whatever was before."""
    enabled = [steps.put(f"/state/config/lines/line[kid='{line}']/lets/let[kid='{let}']/enabled", "true")
               for line in ("ch1", "ch2") for let in range(1, 11)]
    steps.apply(device, [*enabled, *changes(0)])
    steps.apply(device, let_changes(0))


@pytest.fixture
def announced(start_device):
    """An amplifier whose monitor has announced all that it can."""
    device = start_device(6420, "--no-traps", "--clock-shift").wait_answering().wait_subscribed()
    begin_anew(device)
    with closing(RawManager.of(device)) as manager:
        yield from intact(Target(device, manager, manager.walk()))


def test_walks_while_every_value_changes(announced):
    """Each walk is whole and in order, and each value in it one that the device had (`ANNOUNCED`: can have had)."""
    device, manager = announced.device, announced.manager
    model = Walk(device.model)
    had: dict[ber.Oid, set[tuple[str, str]]] = defaultdict(set)
    turns = itertools.count(1)
    failures: list[Exception] = []
    done = threading.Event()

    def note(tree: str) -> None:
        for variable in Expected(model, ElementTree.fromstring(tree)).variables():
            had[ber.numbers(variable.oid)].add(variable.value)

    def change() -> None:
        try:
            while not done.is_set():
                device.talctl_batch([json.dumps(command) for command in changes(next(turns))])
                note(device.talctl("get", "/state"))
                device.shift_clock(steps.CACHE_SECONDS)
        except Exception as failure:  # reported by the test itself
            failures.append(failure)

    note(device.talctl("get", "/state"))
    changer = threading.Thread(target=change)
    changer.start()
    walks = []
    try:
        until = time.monotonic() + 10
        while time.monotonic() < until or len(walks) < 10:
            walks.append(manager.walk(repetitions=(0, 10, 50)[len(walks) % 3]))
    finally:
        done.set()
        changer.join()
        begin_anew(device)
    assert not failures
    for column, (rows, states) in ANNOUNCED.items():
        had |= {ber.numbers(f"{COLUMN_OIDS[column]}.{index}"): states for index in range(1, rows + 1)}
    seen: dict[ber.Oid, set[tuple[str, str]]] = defaultdict(set)
    for walk in walks:
        assert [binding.oid for binding in walk] == announced.oids()
        for oid, value in walk:
            seen[oid].add(value)
    strangers = {ber.dotted(oid): values - had[oid] for oid, values in seen.items() if values - had[oid]}
    assert strangers == {}
    changing = [oid for oid, values in had.items() if len(values) > 1]
    unmoved = [ber.dotted(oid) for oid in changing if len(seen[oid]) == 1]
    print(f"{len(walks)} walks over {next(turns) - 1} changes of {len(changing)} values")
    assert len(changing) > 140 and unmoved == []
