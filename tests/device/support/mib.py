"""Served values, checked with the project's MIB."""
from __future__ import annotations

import functools
import sys

from .device import CHECKOUT
from .snmp import Variable

sys.path.append(str(CHECKOUT / "monitoring"))

import walks  # noqa: E402, F401  (the path has to be set first)
from mib import BASE_MODULES, MIB_FILE, MODULE, Mib, Object, compile_mib  # noqa: E402, F401

MIB_ENVIRONMENT = {"MIBDIRS": f"{MIB_FILE.parent}:{BASE_MODULES}", "MIBS": MODULE}  # for net-snmp's tools
SERVED_TYPE = {"INTEGER": "INTEGER", "Integer32": "INTEGER", "Gauge32": "Gauge32", "OCTET STRING": "STRING"}


class ServedMib(Mib):
    @functools.cached_property
    def by_oid(self) -> dict[str, Object]:
        return {f".{item.oid}": item for item in self.objects.values()}

    def resolve(self, oid: str) -> tuple[Object, list[int]]:
        """The object of an instance, and the arcs after the object's OID."""
        head, instance = oid, []
        while head and head not in self.by_oid:
            head, _, arc = head.rpartition(".")
            instance.insert(0, int(arc))
        assert head, f"{oid} is not in the MIB"
        return self.by_oid[head], instance

    def complaint(self, variable: Variable) -> str:
        """The error in a served value; empty if it is good."""
        item, instance = self.resolve(variable.oid)
        if not item.table and instance != [0]:
            return f"{item.name}: a scalar has the instance 0, not {instance}"
        if item.table:
            ranges = self.objects[item.index].ranges
            if len(instance) != 1 or not any(low <= instance[0] <= high for low, high in ranges):
                return f"{item.name}: {instance} is no index in {ranges}"
        if variable.type != SERVED_TYPE[item.base]:
            return f"{item.name}: served as {variable.type}, the MIB says {item.base}"
        if item.is_text:
            number, allowed, what = len(variable.text.encode("latin-1")), item.sizes, "size"
        else:
            number, allowed, what = int(variable.text), item.ranges, "value"
        if item.enumeration and number not in item.enumeration:
            return f"{item.name}: {number} is not in its enumeration"
        if allowed and not any(low <= number <= high for low, high in allowed):
            return f"{item.name}: {what} {number} is not in {allowed}"
        return ""


@functools.cache
def mib() -> ServedMib:
    return ServedMib.read()
