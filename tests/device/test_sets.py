"""SET requests: every one is refused."""
from __future__ import annotations

import pytest
from support import ber, steps
from support.ber import GET, SET, V1, V2C
from support.catalogue import COMPACT, TABLES
from support.dataservice import SETTINGS
from support.mib import mib
from support.rawmanager import ROOT
from support.standard import ROOTS
from support.target import NULL, OPTIONS, Target, entry_of, make_target
from support.walks import Walk

WRITABLE = """\
master agentx
rocommunity public 127.0.0.1
rwcommunity private 127.0.0.1
"""


@pytest.fixture(scope="module")
def writable(start_shared_device):
    """A device whose snmpd.conf allows a community to write everything."""
    model = Walk(6214, COMPACT)  # with microphones, and with expanders: all the relays
    device = start_shared_device(model.model, *OPTIONS, *model.options, "--no-kvsnmp",
                                 "--set", f"{SETTINGS}/custom_config=true")
    device.path("/etc/snmp/snmpd.conf").write_text(WRITABLE)
    device.start_kvsnmp("-d", clock_shift=True)
    target = make_target(device, model)
    yield target
    target.manager.close()


def everything(target: Target) -> list[ber.Binding]:
    return [binding for root in (ROOT, *ROOTS) for binding in target.manager.walk(root)]


def value_like(binding: ber.Binding) -> bytes:
    """Another value of the same type."""
    kind, text = binding.value
    if kind == "STRING":
        return ber.field(ber.OCTETS, b"changed")
    if kind not in ("INTEGER", "Gauge32"):
        return ber.integer(1, ber.TICKS)
    return ber.integer(int(text) + 1, ber.GAUGE if kind == "Gauge32" else ber.INTEGER)


@pytest.mark.parametrize("community, version, error", [
    ("public", V1, ber.NO_SUCH_NAME), ("public", V2C, ber.NO_ACCESS),
    ("private", V1, ber.NO_SUCH_NAME), ("private", V2C, ber.NOT_WRITABLE),
], ids=["read-only v1", "read-only v2c", "read-write v1", "read-write v2c"])
def test_set_of_every_object_is_refused_and_changes_nothing(writable, community, version, error):
    access = {"version": version, "community": community.encode()}
    refused = []
    served = everything(writable)
    for binding in served:
        for value in (value_like(binding), ber.integer(1), ber.field(ber.OCTETS, b"x" * 1000)):
            refused.append(writable.manager.ask(SET, [binding.oid], value, **access))
    absent = [binding.oid[:-1] + (77,) for binding in served] + [  # absent rows and columns, and tables
        entry_of(table) + tail for table in TABLES.values() for tail in ((), (len(table.columns) + 1, 1))]
    absent += [ber.numbers(item.oid) + (0,) for item in mib().objects.values() if "notify" in item.access]
    refused += [writable.manager.ask(SET, [oid], ber.integer(1), **access) for oid in absent]
    refused.append(writable.manager.ask(SET, writable.oids()[:100], ber.integer(1), **access))
    assert {(answer.error, answer.index) for answer in refused} == {(error, 1)}
    no_value = [writable.manager.ask(SET, [binding.oid], NULL, **access).error for binding in served]
    assert set(no_value) == {ber.BAD_VALUE if version == V1 else ber.WRONG_TYPE}
    writable.device.shift_clock(steps.CACHE_SECONDS)
    assert everything(writable) == served


def test_the_community_that_may_write_can_write_an_object_of_snmpd(writable):
    contact = ber.numbers(".1.3.6.1.2.1.1.4.0")
    assert writable.manager.ask(SET, [contact], ber.field(ber.OCTETS, b"me"), community=b"private").error == 0
    assert writable.manager.ask(GET, [contact]).bindings == [(contact, ("STRING", "me"))]
