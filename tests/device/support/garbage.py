"""What a data service gone wrong may send: bytes by kind, the same on every run."""
from __future__ import annotations

import random
from collections.abc import Callable
from xml.sax.saxutils import escape

MESSAGE_LIMIT = 4 * 1024 * 1024  # longer ones are dropped, and the connection is opened anew

SETTINGS = "/state/config/snmp_settings"
# Each reference with a path below it that the daemon looks at.
PATHS = {
    "mib2_settings": f"{SETTINGS}/mib_2_settings/sys_contact",
    "access_control": f"{SETTINGS}/access_control/nms_ipv6",
    "trap_settings": f"{SETTINGS}/trap_settings/traps/trap[name='LET Fault']/enabled",
    "version_control": f"{SETTINGS}/version_control/version_3",
    "kvsnmp_voltage": "/state/power_lines/power_line[kid='3v3']/voltage",
    "kvsnmp_temp": "/state/temp_sensors/temp_sensor[kid='amp_main_board']/temp_peak",
    "kvsnmp_fan": "/state/fans/fan[kid='amp_power']/speed_sensor_rpm",
    "kvsnmp_control_input_monitored": "/state/config/gpis/gpi[kid='gpi6']/monitored",
    "kvsnmp_amp_enable": "/state/config/lines/line[kid='ch1']/enable",
    "kvsnmp_class_d_status": "/state/class_d_amp_status/status",
    "kvsnmp_gpio_type": "/state/config/gpios/gpio[kid='gpio8']/gpio_type",
    "kvsnmp_let_enable": "/state/config/lines/line[kid='ch1']/lets/let[kid='2']/enabled",
    "kvsnmp_let_description": "/state/config/lines/line[kid='ch1']/lets/let[kid='2']/let_description",
    "kvsnmp_let_hw_version": "/state/lines/line[kid='ch1']/lets/let[kid='2']/hw_version",
    "kvsnmp_let_sw_version": "/state/lines/line[kid='ch1']/lets/let[kid='2']/sw_version",
    "kvsnmp_let_voltage": "/state/lines/line[kid='ch1']/lets/let[kid='2']/let_vcc",
    "kvsnmp_lineIn_monitoring": "/state/config/lines/line[kid='ln1']/pilot_tone_sensing_enable",
    "kvsnmp_lineIn_status": "/state/lines/line[kid='ln2']/pilot_tone_state",
    "kvsnmp_line_channel_state": "/state/lines/line[kid='ch2']/characteristics/line_state",
    "kvsnmp_eth_monitoring": "/state/config/os_ip/eth_switch/port[port_id='Eth2']/monitored",
    "kvsnmp_power_monitoring": "/state/config/power_sources/power_source[kid='dc_power']/monitored",
    "kvsnmp_power_status": "/state/power_sources/power_source[kid='ac_power']/live",
    "kvsnmp_relay_delay": "/state/config/gpos/gpo[kid='relay2']/delay",
    "kvsnmp_relay_idle_mode": "/state/config/gpos/gpo[kid='relay2']/idle_mode",
    "kvsnmp_sys_messages": "/state/sys_messages/sys_message[reporter='x'][rep_ref='y']",
    "": "/", "nobody": "/state",
}
_OPERATIONS = ["create", "replace", "delete", "merge", "", "CREATE"]
_TEXTS = ["", " ", "0", "-1", "4294967296", "99999999999999999999", "1e308", "-1e999", "nan", "inf", "0x10", "true",
          "TRUE",
          "%s%n%1%2", "'", '"', "]", "..", "\u20ac\U0001f600", "x" * 5000, "1.5.5", "\n\n", "ok\nextend evil /bin/sh"]
_PATHS = ["", "/", "//", "/state", "state", "/state/", "/state[", "/state/lines/line[kid='", "/state/lines/line[kid=]",
          "/state/lines/line[kid='ch9999999999']/lets/let[kid='-1']/let_vcc", "/" + "a/" * 3000, "[']']", "/state/'"]


def notification(ref: str, op: str, path: str, node: str) -> bytes:
    return (f"<notify><ref>{escape(ref)}</ref><op>{escape(op)}</op><rpath>{escape(path)}</rpath>"
            f"<spath>{escape(path)}</spath><data>{node}</data></notify>").encode()


def _leaf(path: str, text: str) -> str:
    name = path.rpartition("/")[2].partition("[")[0] or "leaf"
    return f"<{name}>{escape(text)}</{name}>"


_good = notification("kvsnmp_voltage", "replace", PATHS["kvsnmp_voltage"], "<voltage>66.6</voltage>")


def random_bytes() -> bytes:
    """With a NUL in every 256 bytes or so."""
    return random.Random(1).randbytes(1 << 20) + b"\0"


def cut_frames() -> bytes:
    """The message cut at each of its bytes."""
    return b"".join(_good[:at] + b"\0" for at in range(len(_good))) + b"".join(
        _good[at:] + b"\0" for at in range(1, len(_good)))


def no_utf8() -> bytes:
    return b"".join(_good.replace(b"66.6", bad) + b"\0" for bad in (
        b"\xff", b"\xc3", b"\xe2\x82", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xc0\xaf", b"K\xf6ln"))


def broken_xml() -> bytes:
    nodes = ["<voltage>66.6</voltag>", "<voltage>66.6", "</voltage>", "<voltage a=1>66.6</voltage>",
             "<voltage>&x;</voltage>",
             "<voltage>&#0;</voltage>", "<voltage><voltage></data>", "<1>66.6</1>", "<voltage>]]></voltage>",
             "<!-- -- -->"]
    return b"".join(notification("kvsnmp_voltage", "replace", PATHS["kvsnmp_voltage"], node) + b"\0" for node in nodes)


def document_types() -> bytes:
    """Entities that grow to 3 GiB, and one that stands in a file."""
    levels = "".join(f'<!ENTITY e{n} "{f"&e{n - 1};" * 10}">' for n in range(1, 9))
    bomb = f'<!DOCTYPE notify [<!ENTITY e0 "{"x" * 30}">{levels}]>'
    file = '<!DOCTYPE notify [<!ENTITY e8 SYSTEM "file:///etc/passwd">]>'
    node = _good.replace(b"66.6", b"&e8;")
    return bomb.encode() + node + b"\0" + file.encode() + node + b"\0"


def deep_nesting() -> bytes:
    depth = 200000
    node = "<a>" * depth + "</a>" * depth
    return notification("kvsnmp_voltage", "replace", PATHS["kvsnmp_voltage"], node[:-4]) + b"\0"


# Nothing in any of these is a message that may be taken.
REFUSED: list[Callable[[], bytes]] = [random_bytes, cut_frames, no_utf8, broken_xml, document_types, deep_nesting]


def senseless_messages() -> bytes:
    """Well-formed to the last byte: every reference with every operation, and texts and paths of no sense."""
    messages = []
    chooser = random.Random(2)
    for ref, path in PATHS.items():
        for op in _OPERATIONS:
            messages += [notification(ref, op, path, _leaf(path, text)) for text in chooser.sample(_TEXTS, 8)]
            messages += [notification(ref, op, odd, _leaf(path, chooser.choice(_TEXTS)))
                         for odd in chooser.sample(_PATHS, 3)]
            node = chooser.choice(["", "text", "<a/><b/>", "<!-- x -->", "<?y z?>"])
            messages.append(notification(ref, op, path, node))
    chooser.shuffle(messages)
    return b"".join(message + b"\0" for message in messages)
