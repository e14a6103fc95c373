"""Who is measured: programs behind one and the same snmpd, and that snmpd's own objects as the floor."""
from __future__ import annotations

from typing import NamedTuple


class Subject(NamedTuple):
    name: str
    program: str  # the process that serves the objects
    cell: str  # what a GET asks for
    root: str  # what a walk walks


KVSNMP = Subject("kvsnmp", "kvsnmp", ".1.3.6.1.4.1.52717.3.4.2.1.3.1", ".1.3.6.1.4.1.52717.3")
FLOOR = Subject("snmpd", "snmpd", ".1.3.6.1.2.1.1.3.0", ".1.3.6.1.2.1.1")
