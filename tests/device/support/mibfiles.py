"""MIB files for programs that need them, made of python3-pysnmp4-mibs: Debian has IETF modules only in pysnmp's form."""
from __future__ import annotations

from collections.abc import Iterator
from functools import lru_cache
from pathlib import Path

from pysnmp.proto import rfc1902
from pysnmp.smi import builder

BASES = [(rfc1902.TimeTicks, "TimeTicks"), (rfc1902.IpAddress, "IpAddress"), (rfc1902.Counter32, "Counter32"),
         (rfc1902.Counter64, "Counter64"), (rfc1902.Unsigned32, "Unsigned32"), (rfc1902.Integer32, "Integer32"),
         (rfc1902.ObjectIdentifier, "OBJECT IDENTIFIER")]
ROOT = (1, 3, 6, 1, 2, 1)


@lru_cache(maxsize=None)
def _builder() -> builder.MibBuilder:
    modules = builder.MibBuilder()
    modules.addMibSources(builder.ZipMibSource("pysnmp_mibs"))
    return modules


def write_mib(folder: Path, module: str) -> None:
    """The objects with their names and numbers, in SMIv2, without descriptions and groups."""
    _builder().loadModules(module)
    found = _builder().mibSymbols[module]
    objects = {symbol.name: name for name, symbol in found.items() if getattr(symbol, "name", ())[:6] == ROOT}
    indexes = {(source, name) for symbol in found.values() if type(symbol).__name__ == "MibTableRow"
               for _, source, name in symbol.getIndexNames() if source != module}
    imports = [f"{name} FROM {source}" for source, name in [("SNMPv2-SMI", "mib-2"), *sorted(indexes)]]
    lines = [f"{module} DEFINITIONS ::= BEGIN", f"IMPORTS {' '.join(imports)};"]
    for oid in sorted(objects):
        lines += _definition(found, objects, oid)
    (folder / f"{module}.txt").write_text("\n".join([*lines, "END", ""]))


def _definition(found: dict, objects: dict[tuple[int, ...], str], oid: tuple[int, ...]) -> Iterator[str]:
    name, symbol = objects[oid], found[objects[oid]]
    place = next(length for length in range(len(oid) - 1, 5, -1) if oid[:length] in objects or length == 6)
    value = f"::= {{ {objects.get(oid[:place], 'mib-2')} {' '.join(map(str, oid[place:]))} }}"
    kind = type(symbol).__name__
    if kind in ("MibIdentifier", "ModuleIdentity"):
        yield f"{name} OBJECT IDENTIFIER {value}"
    elif kind in ("MibScalar", "MibTableColumn", "MibTable", "MibTableRow"):
        index = ""
        if kind == "MibTable":
            syntax = f"SEQUENCE OF {_capital(objects[oid + (1,)])}"
        elif kind == "MibTableRow":
            syntax = _capital(name)
            columns = [f"{objects[column]} {_syntax(found[objects[column]].syntax, False)}"
                       for column in sorted(objects) if column[:-1] == oid]
            yield f"{syntax} ::= SEQUENCE {{ {', '.join(columns)} }}"
            index = f"INDEX {{ {', '.join(item for _, _, item in symbol.getIndexNames())} }} "
        else:
            syntax = _syntax(symbol.syntax, True)
        access = "read-only" if "read" in (getattr(symbol, "maxAccess", "") or "") else "not-accessible"
        yield f"{name} OBJECT-TYPE SYNTAX {syntax} MAX-ACCESS {access} STATUS current DESCRIPTION \"\" {index}{value}"


def _capital(name: str) -> str:
    return name[0].upper() + name[1:]


def _syntax(syntax: object, names: bool) -> str:
    if getattr(syntax, "namedValues", None) and not isinstance(syntax, rfc1902.OctetString):
        if not names:
            return "INTEGER"
        return "INTEGER { %s }" % ", ".join(f"{name}({number})" for name, number in syntax.namedValues.items())
    return next((name for base, name in BASES if isinstance(syntax, base)), "OCTET STRING")
