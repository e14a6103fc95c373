"""The subjects: sub-agents of snmpd, and, as the floor, objects of snmpd itself."""
from __future__ import annotations

from typing import NamedTuple


class Subject(NamedTuple):
    name: str
    program: str  # the process that serves the objects, with its children
    cell: str  # the object of a GET
    scalar: str  # the object of a GET without rows
    root: str  # the root of a walk


KVSNMP = Subject("kvsnmp", "kvsnmp", ".1.3.6.1.4.1.52717.3.4.2.1.3.1", ".1.3.6.1.4.1.52717.3.1.3.0",
                 ".1.3.6.1.4.1.52717.3")
FLOOR = Subject("snmpd", "snmpd", *[".1.3.6.1.2.1.1.3.0"] * 2, ".1.3.6.1.2.1.1")
LLDPD = Subject("lldpd", "lldpd", *[".1.0.8802.1.1.2.1.1.1.0"] * 2, ".1.0.8802.1.1.2")
KEEPALIVED = Subject("keepalived", "keepalived", *[".1.3.6.1.4.1.9586.100.5.1.4.0"] * 2, ".1.3.6.1.4.1.9586.100.5")
PEERS = [LLDPD, KEEPALIVED]
SUBJECTS = [KVSNMP, FLOOR, *PEERS]
