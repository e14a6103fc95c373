"""The device's /etc, /run, /tmp and /var, newly created in one folder of the host."""
from __future__ import annotations

import os
import shutil
import struct
from pathlib import Path

from . import settings as inside
from .settings import CHECKOUT, Settings

# The part of the host's /etc that programs need, without SNMP and D-Bus settings.
HOST_FILES = ["passwd", "group", "nsswitch.conf", "services", "protocols", "ld.so.cache", "localtime", "timezone"]
HOST_FOLDERS = ["alternatives", "ssl", "fonts"]  # mounted read-only, for commands of users in the device

FOLDERS = [
    "etc/snmp", "etc/dbus-1", "etc/ld.so.conf.d",
    "run/device/bin", "run/dbus", "run/lock", "run/device/mibs",
    "tmp",
    "var/agentx", "var/lib/snmp", "var/lib/dbus", "var/log", "var/tmp", "var/cache",
]

DBUS_CONFIG = """\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow send_type="method_call"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
"""

# The health probe's arguments are for a device's ps; a desktop's ps refuses them.
PS_SHIM = f"""\
#!/bin/sh
if [ "$#" != 3 ] || [ "$1" != --noheaders ] || [ "$2" != "-C snmpd" ] || [ "$3" != "-o rss" ]; then
    exec /usr/bin/ps "$@"
fi
echo "$*" >> {inside.PROBE_LOG}
read -r answer < {inside.SNMPD_RSS_FILE}
for status in /proc/[0-9]*/status; do
    name= state= rss=
    while read -r key value rest; do
        case $key in
            Name:) name=$value; [ "$name" = snmpd ] || break ;;
            State:) state=$value ;;
            VmRSS:) rss=$value; break ;;
        esac
    done < "$status" 2>/dev/null
    [ "$name" = snmpd ] && [ "$state" != Z ] || continue
    if [ "$answer" = real ]; then echo "$rss"; else echo "$answer"; fi
done
"""

# Only the parts of the imported modules that the project's MIB needs; the project does not ship the IETF's texts.
BASE_MODULES = {
    "SNMPv2-SMI": """\
SNMPv2-SMI DEFINITIONS ::= BEGIN
org            OBJECT IDENTIFIER ::= { iso 3 }
dod            OBJECT IDENTIFIER ::= { org 6 }
internet       OBJECT IDENTIFIER ::= { dod 1 }
mgmt           OBJECT IDENTIFIER ::= { internet 2 }
mib-2          OBJECT IDENTIFIER ::= { mgmt 1 }
system         OBJECT IDENTIFIER ::= { mib-2 1 }
sysUpTime      OBJECT IDENTIFIER ::= { system 3 }
sysName        OBJECT IDENTIFIER ::= { system 5 }
private        OBJECT IDENTIFIER ::= { internet 4 }
enterprises    OBJECT IDENTIFIER ::= { private 1 }
snmpV2         OBJECT IDENTIFIER ::= { internet 6 }
snmpModules    OBJECT IDENTIFIER ::= { snmpV2 3 }
snmpMIB        OBJECT IDENTIFIER ::= { snmpModules 1 }
snmpMIBObjects OBJECT IDENTIFIER ::= { snmpMIB 1 }
snmpTrap       OBJECT IDENTIFIER ::= { snmpMIBObjects 4 }
snmpTrapOID    OBJECT IDENTIFIER ::= { snmpTrap 1 }
snmpTrapEnterprise OBJECT IDENTIFIER ::= { snmpTrap 3 }
snmpTraps      OBJECT IDENTIFIER ::= { snmpMIBObjects 5 }
coldStart      OBJECT IDENTIFIER ::= { snmpTraps 1 }
END
""",
    "SNMPv2-TC": """\
SNMPv2-TC DEFINITIONS ::= BEGIN
DisplayString ::= TEXTUAL-CONVENTION
    DISPLAY-HINT "255a"
    STATUS       current
    DESCRIPTION  "Text."
    SYNTAX       OCTET STRING (SIZE (0..255))
END
""",
    "SNMPv2-CONF": "SNMPv2-CONF DEFINITIONS ::= BEGIN\nEND\n",
}


def write(path: Path, text: str, mode: int = 0o644) -> None:
    path.write_text(text)
    path.chmod(mode)


def make_folders(root: Path, settings: Settings, etc_files: dict[str, str], snmpd_rss: str) -> None:
    for folder in FOLDERS:
        (root / folder).mkdir(parents=True)
    for folder in ("tmp", "var/tmp"):
        (root / folder).chmod(0o1777)
    (root / "var/run").symlink_to("/run")
    (root / "var/lock").symlink_to("/run/lock")
    _fill_etc(root / "etc", settings, etc_files)
    _fill_run(root / "run/device", settings, snmpd_rss)


def _fill_etc(etc: Path, settings: Settings, etc_files: dict[str, str]) -> None:
    for name in HOST_FILES:
        if os.path.exists(f"/etc/{name}"):
            shutil.copyfile(f"/etc/{name}", etc / name)
    write(etc / "hostname", f"{settings.hostname}\n")
    write(etc / "hosts", f"127.0.0.1 localhost {settings.hostname}\n::1 localhost\n")
    write(etc / "machine-id", os.urandom(16).hex() + "\n")
    write(etc / "dbus-1/device.conf", DBUS_CONFIG)
    sender = f"clientaddr {settings.address}\n" if settings.sends_from_address else ""
    write(etc / "snmp/snmp.conf", f"mibs :\n{sender}")
    shutil.copyfile(_agent_config(), etc / "snmp/kvagent.conf")
    for name, text in etc_files.items():
        write(etc / name, text)
    # Not in the folder that the daemon watches. Non-text bytes separate the times and values of a record.
    source = "snmpTrapAddress.0 = %B\x1f" if settings.is_in_fleet else ""
    write(etc / "snmptrapd.conf", "disableAuthorization yes\n"
          "[snmp] serverRecvBuf 8000000\n"
          "doNotLogTraps no\n"
          f"format2 \x02%02.2h:%02.2j:%02.2k\x1d{source}%V\x1f%v\x1e\\n\n")


def _agent_config() -> Path:
    """The agent library's file for the daemon: from the tree, or installed with this script."""
    tree = CHECKOUT / "etc/kvagent.conf"
    return tree if tree.exists() else Path("/etc/snmp/kvagent.conf")


def _fill_run(run: Path, settings: Settings, snmpd_rss: str) -> None:
    write(run / "settings.json", settings.to_json())
    write(run / "snmpd-rss", f"{snmpd_rss}\n")
    (run / "clockshift").write_bytes(struct.pack("qq", 0, 0))
    write(run / "bin/ps", PS_SHIM, 0o755)
    for program in ("kvsnmp", "kvsnmp-check", "talservice", "talctl"):
        (run / "bin" / program).symlink_to(settings.program(program))
    for name, text in BASE_MODULES.items():
        write(run / "mibs" / name, text)
    for mib in (CHECKOUT / "mibs/KVSNMP-MIB.txt", Path("/usr/share/snmp/mibs/KVSNMP-MIB.txt")):
        if mib.exists():
            shutil.copyfile(mib, run / "mibs/KVSNMP-MIB")
            break
