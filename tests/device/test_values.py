"""A value on its way from the data service to a manager, and every kind of request."""
from __future__ import annotations

import pytest
from support.catalogue import VOLTAGES
from support.snmp import NO_SUCH_INSTANCE, NO_SUCH_OBJECT, TABLES

WITHOUT_VOLTAGES = [6211, 6214, 6259, 6601, 6602, 6891, 6913, 6914]

COUNT = f"{TABLES}.4.1.0"
TABLE = f"{TABLES}.4.2"
COLUMN = {"index": f"{TABLE}.1.1", "description": f"{TABLE}.1.2", "value": f"{TABLE}.1.3"}
CACHE_SECONDS = 61


def voltage_path(key: str) -> str:
    return f"/state/power_lines/power_line[kid='{key}']/voltage"


@pytest.fixture(scope="module")
def devices(start_shared_device):
    """The models with voltages and one without, started side by side."""
    devices = {model: start_shared_device(model, "--clock-shift", "--no-traps", wait=False) for model in [*VOLTAGES, 6211]}
    for device in devices.values():
        device.wait_ready()
    for device in devices.values():
        device.wait_answering().wait_subscribed()
    return devices


def values(device) -> list[str]:
    return [text for _, text in device.snmp.get(*(f"{COLUMN['value']}.{index}" for index, _, _ in VOLTAGES[device.model]))]


@pytest.mark.parametrize("model", VOLTAGES)
def test_voltage_table_is_the_catalogues(devices, model):
    device, rows = devices[model], VOLTAGES[model]
    walk = device.snmp.walk(f"{TABLES}.4")
    assert [variable.oid for variable in walk] == [COUNT] + [
        f"{column}.{index}" for column in COLUMN.values() for index, _, _ in rows]
    assert [variable.value for variable in walk[:1 + 2 * len(rows)]] == (
        [("INTEGER", str(len(rows)))] + [("INTEGER", str(index)) for index, _, _ in rows]
        + [("STRING", description) for _, description, _ in rows])
    assert {variable.type for variable in walk[1 + 2 * len(rows):]} == {"Gauge32"}


@pytest.mark.parametrize("model", VOLTAGES)
def test_every_voltage_that_is_set_is_read_when_the_cache_has_expired(devices, model):
    device, rows = devices[model], VOLTAGES[model]
    device.shift_clock(CACHE_SECONDS)
    before = values(device)
    assert all(text != "0" for text in before), "the simulator's own values have arrived"

    millivolts = {key: 1000 + 111 * place for place, (_, _, key) in enumerate(rows)}
    for key, value in millivolts.items():
        device.talctl("set", voltage_path(key), f"{value / 1000:.3f}")
    assert values(device) == before, "the cache holds for 60 s"
    device.shift_clock(CACHE_SECONDS)
    assert values(device) == [str(value) for value in millivolts.values()]


def test_walks_of_models_without_voltages_give_a_count_of_0_and_no_row(start_device):
    devices = [start_device(model, "--no-dbus", "--no-traps", wait=False) for model in WITHOUT_VOLTAGES]
    for device in devices:
        device.wait_ready().wait_answering()
        assert [tuple(variable) for variable in device.snmp.walk(f"{TABLES}.4")] == [(COUNT, "INTEGER", "0")]


# Requests


def test_get_of_an_absent_index_is_no_such_instance(devices):
    snmp = devices[6720].snmp
    assert snmp.get(f"{COLUMN['value']}.2") == [NO_SUCH_INSTANCE]
    assert snmp.get(f"{COLUMN['description']}.99", f"{COLUMN['index']}.1") == [NO_SUCH_INSTANCE, ("INTEGER", "1")]


def test_get_of_a_column_beyond_the_last_is_no_such_object(devices):
    assert devices[6720].snmp.get(f"{TABLE}.1.4.1") == [NO_SUCH_OBJECT]


def test_getnext_follows_rows_then_columns(devices):
    snmp = devices[6720].snmp
    following = [variable.oid for start in (f"{COLUMN['value']}.1", f"{COLUMN['index']}.14", TABLE)
                 for variable in snmp.getnext(start)]
    assert following == [f"{COLUMN['value']}.3", f"{COLUMN['description']}.1", f"{COLUMN['index']}.1"]


@pytest.mark.parametrize("repetitions", [1, 10, 25, 50])
def test_getbulk_walk_is_the_getnext_walk(devices, repetitions):
    snmp = devices[6420].snmp
    assert snmp.bulkwalk(repetitions=repetitions) == snmp.walk()


def test_one_getbulk_gives_as_many_rows_as_asked(devices):
    answer = devices[6420].snmp.bulkget(5, COLUMN["value"])
    assert [variable.oid for variable in answer] == [f"{COLUMN['value']}.{index}" for index in range(1, 6)]


def test_v1_managers_are_answered_too(devices):
    answer = devices[6420].snmp.get(COUNT, access=["-v1", "-c", "public"])
    assert answer == [("INTEGER", "13")]


@pytest.mark.parametrize("oid, kind, value", [
    (COUNT, "i", "1"), (f"{COLUMN['value']}.1", "u", "1"), (f"{COLUMN['description']}.1", "s", "text"),
    (f"{TABLES}.1.1.0", "s", "text"),
], ids=["count", "value", "description", "information"])
def test_set_is_refused(devices, oid, kind, value):
    snmp = devices[6420].snmp
    before = snmp.get(oid)
    refused = snmp.set(oid, kind, value)
    assert refused.returncode != 0
    assert any(reason in refused.stderr for reason in ("noAccess", "notWritable", "noSuchName", "readOnly"))
    assert snmp.get(oid) == before


def test_ipv6_managers_are_answered_too(devices):
    assert devices[6420].snmp.get(COUNT, address="udp6:[::1]") == [("INTEGER", "13")]


def test_other_communities_are_not_answered(devices):
    done = devices[6420].snmp.tool("snmpget", [COUNT], check=False,
                                   access=["-v2c", "-c", "guess", "-r", "0", "-t", "0.5"])
    assert done.returncode != 0 and "Timeout" in done.stderr
