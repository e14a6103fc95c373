"""The manager's side: net-snmp's command line tools run inside a device, their answers as (type, text)."""
from __future__ import annotations

import re
import subprocess
from collections.abc import Callable, Sequence
from typing import NamedTuple

PRIVATE_MIB = ".1.3.6.1.4.1.52717"
TABLES = f"{PRIVATE_MIB}.3"
COMMUNITY = ["-v2c", "-c", "public"]
NUMERIC = ["-On", "-Oe", "-OU"]

NO_SUCH_INSTANCE = ("noSuchInstance", "")
NO_SUCH_OBJECT = ("noSuchObject", "")
END_OF_VIEW = ("endOfMibView", "")

_EXCEPTIONS = {
    "No Such Instance currently exists at this OID": NO_SUCH_INSTANCE,
    "No Such Object available on this agent at this OID": NO_SUCH_OBJECT,
    "No more variables left in this MIB View (It is past the end of the MIB tree)": END_OF_VIEW,
}


class Variable(NamedTuple):
    oid: str
    type: str
    text: str

    @property
    def value(self) -> tuple[str, str]:
        return (self.type, self.text)


def parse(output: str) -> list[Variable]:
    """net-snmp's numeric lines; a text with line feeds continues in the next lines."""
    variables: list[Variable] = []
    for line in output.splitlines():
        match = re.match(r"(\.[\d.]+) = (.*)$", line)
        if not match:
            if variables:
                last = variables[-1]
                variables[-1] = last._replace(text=f"{last.text}\n{line}")
            continue
        oid, rest = match.groups()
        if rest in _EXCEPTIONS:
            variables.append(Variable(oid, *_EXCEPTIONS[rest]))
        elif rest == '""':
            variables.append(Variable(oid, "STRING", '""'))
        else:
            kind, _, text = rest.partition(": ")
            variables.append(Variable(oid, kind, text))
    return [variable._replace(text=_unquoted(variable)) for variable in variables]


def _unquoted(variable: Variable) -> str:
    text = variable.text
    if variable.type == "STRING" and len(text) >= 2 and text[0] == text[-1] == '"':
        return text[1:-1].replace('\\"', '"').replace("\\\\", "\\")
    return text


class Snmp:
    def __init__(self, run: Callable[..., subprocess.CompletedProcess]) -> None:
        self._run = run

    def tool(self, tool: str, arguments: Sequence[str], check: bool = True, address: str = "127.0.0.1",
             access: Sequence[str] = COMMUNITY, timeout: float = 60.0) -> subprocess.CompletedProcess:
        return self._run([tool, *NUMERIC, *access, address, *arguments], check=check, timeout=timeout)

    def get(self, *oids: str, **arguments) -> list[tuple[str, str]]:
        """One GET request for all the objects."""
        return [variable.value for variable in parse(self.tool("snmpget", oids, **arguments).stdout)]

    def try_get(self, oid: str) -> tuple[str, str] | None:
        """None if no answer arrives within 1 s."""
        done = self.tool("snmpget", [oid], check=False, access=[*COMMUNITY, "-r", "0", "-t", "1"])
        return parse(done.stdout)[0].value if done.returncode == 0 else None

    def walk(self, oid: str = PRIVATE_MIB) -> list[Variable]:
        return [variable for variable in parse(self.tool("snmpwalk", [oid]).stdout)
                if variable.value not in (NO_SUCH_INSTANCE, NO_SUCH_OBJECT, END_OF_VIEW)]
