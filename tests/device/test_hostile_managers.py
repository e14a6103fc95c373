"""Managers that ask for what is not there or for too much, or are simply many."""
from __future__ import annotations

import itertools
import random
import selectors
import time

import pytest
from support import ber
from support.ber import GET, GETBULK, GETNEXT, V1, V2C
from support.rawmanager import ROOT, RawManager, sockets
from support.snmp import END_OF_VIEW, NO_SUCH_INSTANCE, NO_SUCH_OBJECT
from support.target import (AMPLIFIER, GREATEST, MODEL, SEED, STATION, TABLES, entry_of, tables_of,
                            target_of, unharmed)  # noqa: F401
from support.walks import Walk

NO_SUCH = (NO_SUCH_INSTANCE, NO_SUCH_OBJECT)
MANY = 1200  # names of one GET, whose answers snmpd still takes from a sub-agent

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
