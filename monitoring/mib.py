"""KVSNMP-MIB as Debian's pysmi compiles it: the one reader for the generators and for the tests.

Needs mibdump (Debian: python3-pysmi) and the modules SNMPv2-SMI, SNMPv2-TC and SNMPv2-CONF, which
scripts/install-deps fetches.
"""
from __future__ import annotations

import json
import re
import subprocess
import tempfile
from pathlib import Path
from typing import Any, NamedTuple

CHECKOUT = Path(__file__).resolve().parents[1]
MODULE = "KVSNMP-MIB"
MIB_FILE = CHECKOUT / f"mibs/{MODULE}.txt"
BASE_MODULES = CHECKOUT / "build/npm/node_modules/net-snmp/lib/mibs"

# Suffixes of columns that name the row or its values instead of having a value.
ROLES = {"Index": "index", "Description": "description", "Label": "label"}

Spans = list[tuple[int, int]]


class Object(NamedTuple):
    """A scalar or a column."""
    name: str
    oid: str
    table: str  # empty: a scalar
    index: str  # name of the table's index
    access: str
    syntax: str  # name of the textual convention, or the base
    base: str  # INTEGER, Integer32, Gauge32 or OCTET STRING
    enumeration: dict[int, str]
    ranges: Spans
    sizes: Spans
    decimals: int  # displayed digits after the point
    units: str
    description: str  # on one line

    @property
    def is_text(self) -> bool:
        return self.base == "OCTET STRING"

    @property
    def role(self) -> str:
        return next((role for ending, role in ROLES.items() if self.table and self.name.endswith(ending)), "")


class Notification(NamedTuple):
    name: str
    oid: str
    title: str  # Cooling Fan Fault
    description: str  # on one line, without the title
    messages: list[str]  # identifiers of the system messages that raise it


class Mib:
    def __init__(self, nodes: dict[str, Any]) -> None:
        self.nodes = nodes  # by pysmi's names
        rows = {node["oid"]: (f"{name.removesuffix('Entry')}Table", node["indices"][0]["object"])
                for name, node in nodes.items() if node.get("nodetype") == "row"}
        found = sorted((node for node in nodes.values() if "oid" in node), key=lambda node: arcs(node["oid"]))
        self.objects = {node["name"]: self._object(node, *rows.get(node["oid"].rpartition(".")[0], ("", "")))
                        for node in found if node.get("nodetype") in ("scalar", "column")}
        self.readable = [item for item in self.objects.values() if item.access == "read-only"]
        self.tables: dict[str, dict[str, Object]] = {}
        for item in self.readable:
            if item.table:
                self.tables.setdefault(item.table, {})[item.name] = item
        self.notifications = {node["name"]: _notification(node) for node in found
                              if node.get("class") == "notificationtype"}

    @classmethod
    def read(cls) -> Mib:
        with tempfile.TemporaryDirectory() as folder:
            printed = compile_mib(Path(folder))
            file = Path(folder, f"{MODULE}.json")
            if not file.exists():
                raise RuntimeError(f"mibdump made nothing of {MODULE}; scripts/install-deps fetches what it needs\n{printed}")
            return cls(json.loads(file.read_text()))

    def row_description(self, table: str) -> Object:
        """The column that describes each row."""
        return next(item for item in self.tables[table].values() if item.role == "description")

    def _object(self, node: dict[str, Any], table: str, index: str) -> Object:
        syntax = node["syntax"]
        convention = self.nodes.get(syntax["type"], {})
        type_ = convention.get("type", syntax)
        constraints = type_.get("constraints", {}) | syntax.get("constraints", {})
        hint = re.fullmatch(r"d-(\d+)", convention.get("displayhint", ""))

        def spans(kind: str) -> Spans:
            return [(span["min"], span["max"]) for span in constraints.get(kind, [])]

        return Object(node["name"], node["oid"], table, index, node["maxaccess"], syntax["type"], type_["type"],
                      {code: word for word, code in constraints.get("enumeration", {}).items()}, spans("range"),
                      spans("size"), int(hint[1]) if hint else 0, node.get("units", ""), one_line(node["description"]))


def _notification(node: dict[str, Any]) -> Notification:
    title, _, description = one_line(node["description"]).partition(": ")
    messages = re.search(r"system messages? (\w+(?:, \w+)*)", description)
    if not messages:
        raise RuntimeError(f"{node['name']}: its description names no system message")
    return Notification(node["name"], node["oid"], title, description, messages[1].split(", "))


def compile_mib(folder: Path) -> str:
    """Runs pysmi's compiler, which writes the module to the folder as JSON; returns its output."""
    done = subprocess.run(
        ["mibdump", f"--mib-source=file://{MIB_FILE.parent}", f"--mib-source=file://{BASE_MODULES}",
         "--destination-format=json", f"--destination-directory={folder}", "--generate-mib-texts",
         "--keep-texts-layout", MODULE], capture_output=True, text=True, timeout=120, check=False)
    return done.stdout + done.stderr


def arcs(oid: str) -> list[int]:
    return [int(arc) for arc in oid.split(".")]


def one_line(text: str) -> str:
    return " ".join(text.split())
