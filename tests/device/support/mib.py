"""The project's MIB as Debian's pysmi reads it."""
from __future__ import annotations

import functools
import json
import subprocess
import tempfile
from pathlib import Path
from typing import NamedTuple

from .device import CHECKOUT
from .snmp import Variable

MODULE = "KVSNMP-MIB"
MIB_FILE = CHECKOUT / f"mibs/{MODULE}.txt"
BASE_MODULES = CHECKOUT / "build/npm/node_modules/net-snmp/lib/mibs"  # scripts/install-deps fetches them
MIB_ENVIRONMENT = {"MIBDIRS": f"{MIB_FILE.parent}:{BASE_MODULES}", "MIBS": MODULE}  # for net-snmp's tools
SERVED_TYPE = {"INTEGER": "INTEGER", "Integer32": "INTEGER", "Gauge32": "Gauge32", "OCTET STRING": "STRING"}


class Object(NamedTuple):
    name: str
    oid: str
    kind: str  # scalar or column
    access: str
    base: str  # INTEGER, Integer32, Gauge32 or OCTET STRING
    enumeration: dict[int, str]
    ranges: list[tuple[int, int]]
    sizes: list[tuple[int, int]]

    @property
    def served_type(self) -> str:
        return SERVED_TYPE[self.base]

    def complaint(self, variable: Variable) -> str:
        """What is wrong with a served value; empty when nothing is."""
        if variable.type != self.served_type:
            return f"{self.name}: served as {variable.type}, the MIB says {self.base}"
        if self.base == "OCTET STRING":
            number, allowed, what = len(variable.text.encode("latin-1")), self.sizes, "size"
        else:
            number, allowed, what = int(variable.text), self.ranges, "value"
        if self.enumeration and number not in self.enumeration:
            return f"{self.name}: {number} is not in its enumeration"
        if allowed and not any(low <= number <= high for low, high in allowed):
            return f"{self.name}: {what} {number} is not in {allowed}"
        return ""


class Mib:
    def __init__(self, nodes: dict) -> None:
        self.nodes = nodes
        conventions = {name: node["type"] for name, node in nodes.items() if node.get("class") == "textualconvention"}
        self.objects: dict[str, Object] = {}
        for name, node in nodes.items():
            if node.get("nodetype") in ("scalar", "column"):
                self.objects[name] = _object(node, conventions)
        self._by_oid = {item.oid: item for item in self.objects.values()}
        self.index_of = {  # column to the index of its table
            column: self.objects[row["indices"][0]["object"]]
            for row in nodes.values() if row.get("nodetype") == "row"
            for column, item in self.objects.items() if item.oid.rpartition(".")[0] == f".{row['oid']}"}

    def resolve(self, oid: str) -> tuple[Object, list[int]]:
        """The object that an instance belongs to, and what stands behind the object's own OID."""
        head, instance = oid, []
        while head and head not in self._by_oid:
            head, _, arc = head.rpartition(".")
            instance.insert(0, int(arc))
        assert head, f"{oid} is not in the MIB"
        return self._by_oid[head], instance

    def complaint(self, variable: Variable) -> str:
        item, instance = self.resolve(variable.oid)
        if item.kind == "scalar":
            if instance != [0]:
                return f"{item.name}: a scalar has the instance 0, not {instance}"
        else:
            index = self.index_of[item.name]
            if len(instance) != 1 or not any(low <= instance[0] <= high for low, high in index.ranges):
                return f"{item.name}: {instance} is no index in {index.ranges}"
        return item.complaint(variable)


def _object(node: dict, conventions: dict[str, dict]) -> Object:
    syntax = node["syntax"]
    convention = conventions.get(syntax["type"], {})
    constraints = convention.get("constraints", {}) | syntax.get("constraints", {})
    enumeration = {code: name for name, code in constraints.get("enumeration", {}).items()}

    def spans(what: str) -> list[tuple[int, int]]:
        return [(span["min"], span["max"]) for span in constraints.get(what, [])]

    return Object(node["name"], f".{node['oid']}", node["nodetype"], node["maxaccess"],
                  convention.get("type", syntax["type"]), enumeration, spans("range"), spans("size"))


def compile_mib(folder: Path) -> str:
    """Runs pysmi; what it says. The module lands in the folder as JSON, its texts included."""
    assert BASE_MODULES.is_dir(), f"no base modules in {BASE_MODULES}; scripts/install-deps fetches them"
    done = subprocess.run(
        ["mibdump", f"--mib-source=file://{MIB_FILE.parent}", f"--mib-source=file://{BASE_MODULES}",
         "--destination-format=json", f"--destination-directory={folder}", "--generate-mib-texts",
         "--keep-texts-layout", MODULE], capture_output=True, text=True, timeout=60, check=True)
    return done.stdout + done.stderr


@functools.cache
def mib() -> Mib:
    with tempfile.TemporaryDirectory() as folder:
        said = compile_mib(Path(folder))
        file = Path(folder, f"{MODULE}.json")
        assert file.exists(), said
        return Mib(json.loads(file.read_text()))
