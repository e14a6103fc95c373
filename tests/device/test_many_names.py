"""One request with many names: each name of a GETNEXT or GETBULK gets the answer that it gets when asked alone."""
from __future__ import annotations

import time
from typing import NamedTuple

import pytest
from support import ber
from support.ber import GET, GETBULK, GETNEXT, V1, V2C
from support.rawmanager import RawManager
from support.snmp import PRIVATE_MIB
from support.target import MODEL, Target, options, target_of, unharmed  # noqa: F401
from support.walks import Walk


class Question(NamedTuple):
    """A way to ask: GETNEXT or, with repetitions, GETBULK."""
    version: int = V2C
    repetitions: int = 0

    def __str__(self) -> str:
        return f"GETBULK {self.repetitions}" if self.repetitions else f"GETNEXT {'v1' if self.version == V1 else 'v2c'}"


QUESTIONS = [Question(V1), Question(V2C), Question(repetitions=1), Question(repetitions=5)]

# By what the names did to the daemon together: model and names below the enterprise arc.
CASES = {
    "crash: a cell beside a name behind the entry": (6420, ["3.4.2.1.3.1", "3.4.2.2"]),
    "crash: a name behind the entry beside a cell": (6420, ["3.4.2.2", "3.4.2.1.3.1"]),
    "crash: an empty table beside a name behind its entry": (6720, ["3.12.1", "3.12.1.2"]),
    "endless: a column of an empty table beside one beyond its last": (6720, ["3.12.1.1.1", "3.12.1.1.9"]),
    "endless: the empty voltage table of a station": (6211, ["3.4.2.1.1", "3.4.2.1.9"]),
    "backwards: a count beside the last cell of its table": (6420, ["3.4.1.0", "3.4.2.1.3.13"]),
    "backwards: a count beside the columns of its table": (6720, ["3.3.1", "3.3.2.1.1", "3.3.2.1.2", "3.3.2.1.3"]),
    "backwards: a cell beside a column beyond the last": (6420, ["3.4.2.1.3.1", "3.4.2.1.4"]),
    "backwards: a relay beside a column beyond the last": (6211, ["3.12.1.1.1.1", "3.12.1.1.6"]),
    "backwards: the last relay cell beside a column beyond the last": (6211, ["3.12.1.1.5.1", "3.12.1.1.6"]),
    "one name many times": (6420, ["3.4.2.1.3.13"] * 20),
}


def below_enterprise(arcs: str) -> ber.Oid:
    return ber.numbers(f"{PRIVATE_MIB}.{arcs}")


def answers_alone(target: Target, name: ber.Oid, question: Question) -> list[ber.Binding]:
    found, last = [], name
    for _ in range(max(1, question.repetitions)):
        binding, = target.manager.ask(GETNEXT, [last], version=question.version).bindings
        found.append(binding)
        last = binding.oid
    return found


@pytest.mark.parametrize("question", QUESTIONS, ids=str)
@pytest.mark.parametrize("unharmed, names", [
    pytest.param(Walk(model), [below_enterprise(name) for name in names], id=case)
    for case, (model, names) in CASES.items()], indirect=["unharmed"])
def test_each_name_gets_the_answer_that_it_gets_alone(unharmed, names, question):
    alone = [answers_alone(unharmed, name, question) for name in names]
    together = unharmed.manager.ask(GETBULK if question.repetitions else GETNEXT, names, version=question.version,
                                    second=question.repetitions)
    assert together.error == 0
    assert together.bindings == [answers[turn] for turn in range(len(alone[0])) for answers in alone]
    assert all(following.oid > name for name, (following, *_) in zip(names, alone))


@pytest.mark.parametrize("unharmed", [Walk(6420), Walk(6211), Walk(6720)], indirect=True, ids=lambda walk: walk.name)
def test_all_names_at_once(unharmed):
    names = unharmed.oids()
    answer = unharmed.manager.ask(GETNEXT, names)
    assert (answer.error, answer.bindings[:-1]) == (0, unharmed.walk[1:])
    assert answer.bindings[-1] == answers_alone(unharmed, names[-1], Question())[0]


def test_a_manager_that_reads_a_count_and_columns_together_gets_past_the_table(unharmed):
    """As snmpbulkwalk and graphing tools do: the answers to the last request are the names of the next."""
    module = below_enterprise("3.4")
    names = [below_enterprise(name) for name in ("3.4.1", "3.4.2.1.1", "3.4.2.1.2", "3.4.2.1.3")]
    found: list[list[ber.Binding]] = [[] for _ in names]
    while any(name[:len(module)] == module for name in names):
        answer = unharmed.manager.ask(GETNEXT, names)
        for name, column, binding in zip(names, found, answer.bindings):
            assert binding.oid > name
            column.append(binding)
        names = [binding.oid for binding in answer.bindings]
    for column in found:
        first = unharmed.walk.index(column[0])
        assert column == unharmed.walk[first:first + len(column)]


# More names than one message between snmpd and the sub-agent holds, of 64 KiB. In AgentX a name of 13 arcs below the
# enterprise arc takes 36 bytes, the end of the search behind it 24, a Gauge32's answer 44, its text's at least 40.

CELL = below_enterprise("3.4.2.1.3.1")
TEXT = below_enterprise("3.4.2.1.2.1")
GET_LIMIT = (65536 - 28) // 44
GETNEXT_LIMIT = (65536 - 20) // 60
TOO_MANY = {  # kind, name, number of names, fields of the message; what is too long
    "GET, the answer": (GET, CELL, GET_LIMIT + 1, {}),
    "GET v1, the answer": (GET, CELL, GET_LIMIT + 1, {"version": V1}),
    "GET, the request": (GET, CELL, 1700, {}),
    "GETNEXT, the request": (GETNEXT, CELL, GETNEXT_LIMIT + 1, {}),
    "GETNEXT v1, the request": (GETNEXT, CELL, GETNEXT_LIMIT + 1, {"version": V1}),
    "GETNEXT, the answer": (GETNEXT, TEXT, GETNEXT_LIMIT, {}),
    "GETNEXT, as many short names as a datagram holds": (GETNEXT, ber.numbers(PRIVATE_MIB), 4600, {}),
    "GETBULK, the request for its non-repeaters": (GETBULK, CELL, GETNEXT_LIMIT + 1, {"first": 5000, "second": 5}),
}


@pytest.mark.parametrize("kind, name, count, fields", TOO_MANY.values(), ids=TOO_MANY)
def test_too_many_names_are_refused_at_once_and_cost_nothing(unharmed, kind, name, count, fields):
    """The session to snmpd stays. A sub-agent that is silent loses it after 6 s."""
    begin = time.monotonic()
    number = unharmed.manager.begin(kind, [name] * count, **fields)
    answer = unharmed.manager.answer_to(number, 20)
    refused = time.monotonic()
    assert unharmed.manager.ask(GET, [CELL], timeout=10).bindings == [(CELL, unharmed.value_of(CELL))]
    served = time.monotonic()
    print(f"refused after {1000 * (refused - begin):.0f} ms, one name answered in {1000 * (served - refused):.1f} ms")
    # snmpd has another word for the failure of any GET of version 1, and names the last variable.
    failed = (ber.NO_SUCH_NAME, count) if kind == GET and fields else (ber.TOO_BIG, 1)
    assert (answer.error, answer.index, len(answer.bindings)) == (*failed, count)
    assert refused - begin < 5 and served - refused < 1
    assert unharmed.device.kvsnmp_err().count("AgentX subagent connected") == 1


def test_too_many_names_are_refused_after_a_restart_of_snmpd(start_device):
    device = start_device(6420, *options(Walk(6420))).wait_answering()
    former = device.wait_snmpd()
    device.stir_snmpd_folder()
    device.wait_snmpd(other_than=[former])
    device.wait_answering()
    manager = RawManager.of(device)
    assert manager.ask(GETNEXT, [CELL] * (GETNEXT_LIMIT + 1), timeout=5, tries=1).error == ber.TOO_BIG
    assert manager.ask(GET, [CELL], timeout=1, tries=1).error == 0
    manager.close()


@pytest.mark.parametrize("kind, count", [(GET, GET_LIMIT), (GETNEXT, GETNEXT_LIMIT)], ids=["GET", "GETNEXT"])
def test_as_many_names_as_there_is_room_for(unharmed, kind, count):
    answer = unharmed.manager.ask(kind, [CELL] * count, timeout=10)
    expected = [(CELL, unharmed.value_of(CELL))] if kind == GET else unharmed.following(CELL)[:1]
    assert (answer.error, answer.bindings) == (0, expected * count)


def test_eight_hundred_names_always_fit(unharmed):
    """Those whose answers are longest, as docs/mib.md says."""
    longest = max(unharmed.walk, key=lambda binding: len(binding.value[1]) if binding.value[0] == "STRING" else 0)
    for kind, expected in ((GET, longest), (GETNEXT, unharmed.following(longest.oid)[0])):
        answer = unharmed.manager.ask(kind, [longest.oid] * 800, timeout=10)
        assert (answer.error, answer.bindings) == (0, [expected] * 800)


def test_getbulk_is_cut_to_what_passes(unharmed):
    """snmpd gives 100 variables at most, in whole rows, and asks the sub-agent for a row at a time."""
    for columns in (1, 40, 100):
        answer = unharmed.manager.ask(GETBULK, [TEXT] * columns, second=2000)
        rows = [unharmed.following(TEXT)[row] for row in range(100 // columns)]
        assert (answer.error, answer.bindings) == (0, [binding for binding in rows for _ in range(columns)])


@pytest.mark.parametrize("model, names", [
    pytest.param(*case, id=name) for name, case in CASES.items() if name.startswith("endless")])
def test_the_daemon_still_ends_when_it_is_told_to(start_device, model, names):
    device = start_device(model, *options(Walk(model))).wait_answering()
    manager = RawManager.of(device)
    manager.begin(GETNEXT, [below_enterprise(name) for name in names])
    assert manager.ask(GET, [MODEL]).error == 0
    manager.close()
    device.end_kvsnmp()
    assert device.kvsnmp_status() == 0
