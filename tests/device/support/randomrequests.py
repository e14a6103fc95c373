"""Random requests for many names, and the answers that a plain walk gives to each name."""
from __future__ import annotations

import bisect
import os
import random
from collections.abc import Iterator, Sequence
from typing import NamedTuple

from . import ber
from .ber import GET, GETBULK, GETNEXT, V1, V2C
from .catalogue import SCALAR_OIDS, TABLES
from .device import Device
from .rawmanager import ROOT, RawManager
from .snmp import END_OF_VIEW, NO_SUCH_INSTANCE, NO_SUCH_OBJECT
from .standard import LAST_CHANGE, PHYSICAL, PHYSICAL_COLUMNS, ROOTS, SENSOR, SENSOR_COLUMNS
from .target import GREATEST, entry_of

PDUS = int(os.environ.get("KVSNMP_PDUS", 500))
SEED = int(os.environ.get("KVSNMP_SEED", 52717))
NAMES_AT_MOST, LONGEST_NAME = 64, 128
NAMES_OF_A_POOL, PDUS_OF_A_POOL = 300, 500
VARIABLES_OF_A_GETBULK = 100  # at most, in whole rows

ODD_ARCS = (0, 1, 2, 3, 9, 98, 127, 128, 255, 65536, 2 ** 31 - 1, 2 ** 31, 2 ** 32 - 1)
ENTRIES = {entry_of(table): range(1, len(table.columns) + 1) for table in TABLES.values()} | {
    PHYSICAL: PHYSICAL_COLUMNS, SENSOR: SENSOR_COLUMNS}
SCALARS = [*(ber.numbers(oid)[:-1] for oid in SCALAR_OIDS.values()), LAST_CHANGE]
OURS = [ROOT, *ROOTS]
REGISTERED = [*SCALARS, *(entry[:-1] for entry in ENTRIES)]


def is_below(name: ber.Oid, roots: Sequence[ber.Oid]) -> bool:
    return any(name[:len(root)] == root for root in roots)


def random_name(chance: random.Random, served: Sequence[Sequence[ber.Oid]]) -> ber.Oid:
    entry, accessible = chance.choice(list(ENTRIES.items()))
    columns = accessible[-1]
    instance = chance.choice(chance.choice(served))
    arc = chance.choice(ODD_ARCS)
    return chance.choice((
        lambda: instance,
        lambda: instance[:-1],
        lambda: instance[:-1] + (instance[-1] + chance.choice((-1, 1)),) if instance[-1] else instance,
        lambda: instance + (arc,),
        lambda: instance[:chance.randrange(len(ROOT), len(instance))] + (arc,),
        lambda: instance + tuple(chance.choices(ODD_ARCS, k=LONGEST_NAME - len(instance))),
        lambda: entry + (chance.randint(1, columns),),
        lambda: entry + (chance.randint(1, columns), arc),
        lambda: entry + (chance.randint(1, columns), 1, arc),
        lambda: entry + (chance.choice((0, columns + 1, arc)),),
        lambda: entry + (chance.choice((0, columns + 1, arc)), 1),
        lambda: entry,
        lambda: entry[:-1],
        lambda: entry[:-1] + (arc,),
        lambda: entry[:-2] + (entry[-2] + chance.choice((-1, 1)),),
        lambda: chance.choice(SCALARS),
        lambda: chance.choice(SCALARS) + (arc,),
        lambda: chance.choice(SCALARS) + (0, arc),
        lambda: ROOT + chance.choice(((), (0,), (2,), (2, 4, 1, 0), (3,), (3, 0), (3, 13), (4,), (arc,))),
        lambda: ROOT[:-1] + (ROOT[-1] + chance.choice((-1, 1)), *chance.choices(ODD_ARCS, k=chance.randrange(3))),
    ))()


class Question(NamedTuple):
    kind: int
    version: int
    first: int
    second: int
    names: list[ber.Oid]


def random_question(chance: random.Random, pool: Sequence[ber.Oid]) -> Question:
    count = chance.choice((1, 2, 2, 3, chance.randint(1, 10), chance.randint(1, NAMES_AT_MOST)))
    names = chance.choices(pool, k=count)
    kind = chance.choice((GETNEXT, GETNEXT, GETBULK, GETBULK, GET))
    if kind != GETBULK:
        return Question(kind, chance.choice((V1, V2C)), 0, 0, names)
    non_repeaters = chance.choice((0, 0, 1, chance.randint(0, count), count, count + 5, -1, GREATEST))
    repetitions = chance.choice((0, 1, 2, 3, 10, 100, chance.randint(0, 60), -1, -GREATEST - 1, GREATEST))
    return Question(GETBULK, V2C, non_repeaters, repetitions, names)


class Subject:
    """A device, and what it should answer."""

    def __init__(self, manager: RawManager, chance: random.Random) -> None:
        self.manager, self.chance = manager, chance
        self.walk: list[ber.Binding] = []  # from the standard tables to the end of all that snmpd has
        last = ROOTS[0]
        while (binding := manager.ask(GETNEXT, [last]).bindings[0]).value != END_OF_VIEW:
            assert binding.oid > last
            self.walk.append(binding)
            last = binding.oid
        self.oids = [binding.oid for binding in self.walk]
        self.values = {oid: value for oid, value in self.walk if is_below(oid, OURS)}
        self.served = [[oid for oid in self.values if is_below(oid, [ROOT])],
                       [oid for oid in self.values if is_below(oid, ROOTS)]]
        self.alone: dict[ber.Oid, tuple[str, str]] = {}  # a GET of nothing else

    def new_pool(self) -> list[ber.Oid]:
        pool = [random_name(self.chance, self.served) for _ in range(NAMES_OF_A_POOL)]
        self.alone = {}
        for name in pool:
            (oid, value), = self.manager.ask(GET, [name]).bindings
            absent = NO_SUCH_INSTANCE if is_well_formed(name) else value if value == NO_SUCH_INSTANCE else NO_SUCH_OBJECT
            if (oid, value) != (name, self.values.get(name, absent)):
                raise AssertionError(f"GET of {ber.dotted(name)}: {value}")
            self.alone[name] = value
        return pool

    def following(self, name: ber.Oid, count: int) -> list[ber.Binding]:
        start = bisect.bisect_right(self.oids, name)
        found = self.walk[start:start + count]
        return found + [ber.Binding((found or [(name,)])[-1][0], END_OF_VIEW)] * (count - len(found))

    def check(self, question: Question) -> None:
        answer = self.manager.ask(question.kind, question.names, version=question.version, first=question.first,
                                  second=question.second, timeout=20, tries=1)  # a repeated one could hide a failure
        if question.kind == GET:
            expected = self.expected_get(question)
            served = [binding for binding in answer.bindings
                      if not answer.error or binding.value[0] in ("INTEGER", "Gauge32", "STRING", "OID", "Timeticks")]
            got = (answer.error, answer.index, served)  # a refusal has no value
        else:
            rows = self.expected_rows(question)
            expected = (0, 0, [comparable(binding) for row in rows for binding in row])
            got = (answer.error, answer.index, [comparable(binding) for binding in answer.bindings])
            # After the end of everything snmpd may omit further rows.
            ended = any(binding.value == END_OF_VIEW for binding in answer.bindings[-len(question.names):])
            if ended and len(got[2]) < len(expected[2]):
                expected[2][len(got[2]):] = []
        if got != expected:
            raise AssertionError(f"{question}\nexpected {expected}\ngot {got}")

    def expected_rows(self, question: Question) -> Iterator[list[ber.Binding]]:
        first = len(question.names)
        repetitions = 0
        if question.kind == GETBULK:
            first = min(max(question.first, 0), len(question.names))
            repeaters = len(question.names) - first
            repetitions = min(max(question.second, 0), VARIABLES_OF_A_GETBULK // max(repeaters, 1))
        yield [self.following(name, 1)[0] for name in question.names[:first]]
        columns = [self.following(name, repetitions) for name in question.names[first:]]
        yield from (list(row) for row in zip(*columns))

    def expected_get(self, question: Question) -> tuple[int, int, list[ber.Binding]]:
        """Intended: a malformed name fails the request if that also has a well-formed one of its table."""
        count = len(question.names)
        if any(len({is_well_formed(name) for name in question.names if is_below(name, [entry[:-1]])}) == 2
               for entry in ENTRIES):
            ours = next(place for place, name in enumerate(question.names, 1) if is_below(name, REGISTERED))
            return (ber.NO_SUCH_NAME, count, []) if question.version == V1 else (ber.GENERAL_ERROR, ours, [])
        bindings = [ber.Binding(name, self.alone[name]) for name in question.names]
        absent = [place for place, binding in enumerate(bindings, 1)
                  if binding.value in (NO_SUCH_INSTANCE, NO_SUCH_OBJECT)]
        if question.version == V1 and absent:  # snmpd names the last
            return ber.NO_SUCH_NAME, absent[-1], []
        return 0, 0, bindings


def is_well_formed(name: ber.Oid) -> bool:
    """A column that exists, and an index of one arc."""
    entry, rest = name[:-2], name[-2:]
    return entry in ENTRIES and rest[0] in ENTRIES[entry]


def comparable(binding: ber.Binding) -> tuple[ber.Oid, tuple[str, str] | None]:
    """Between and after our arcs are values of snmpd that change."""
    known = is_below(binding.oid, OURS) or binding.value == END_OF_VIEW
    return binding.oid, binding.value if known else None


def ask_at_random(device: Device, name: str) -> list[str]:
    """The first failure, which shows the request."""
    pid, manager = device.kvsnmp_pid(), RawManager.of(device)
    try:
        subject = Subject(manager, random.Random(f"{SEED} {name}"))
        for number in range(PDUS):
            if number % PDUS_OF_A_POOL == 0:
                pool = subject.new_pool()
                os.truncate(device.path("/var/log/kvsnmp.out"), 0)  # a line for each step along a table
            subject.check(random_question(subject.chance, pool))
        assert device.kvsnmp_pid() == pid
    except Exception as error:
        return [f"{error!r:.5000}\n{device.logs()}"]
    finally:
        manager.close()
    return []
