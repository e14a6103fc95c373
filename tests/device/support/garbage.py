"""Messages of a faulty data service: bytes by kind, the same on every run."""
from __future__ import annotations

import random
from collections.abc import Callable
from xml.sax.saxutils import escape

from .catalogue import PARSERS, path_of, read
from .dataservice import SETTINGS

MESSAGE_LIMIT = 4 * 1024 * 1024  # longer ones are dropped, and the connection is opened again

# Each reference with a path below it that the daemon reads, on model 6420 if it has any.
PATHS = {row["reference"]: row["leaf"] for row in read("settings")}
for key in sorted(read("keys"), key=lambda row: "6420" in row["models"] or row["models"] == "all"):
    for parser in map(PARSERS.get, key["parser"].split()):
        PATHS[parser["reference"]] = path_of(parser, key["key"])
PATHS |= {"trap_settings": f"{SETTINGS}/trap_settings/traps/trap[name='LET Fault']/enabled",
          "access_control": f"{SETTINGS}/access_control/nms_ipv6",
          "kvsnmp_gpio_type": "/state/config/gpios/gpio[kid='gpio8']/gpio_type",
          "kvsnmp_class_d_status": PARSERS["class_d"]["path"],
          "kvsnmp_sys_messages": "/state/sys_messages/sys_message[reporter='x'][rep_ref='y']",
          "": "/", "nobody": "/state"}
_OPERATIONS = ["create", "replace", "delete", "merge", "", "CREATE"]
_TEXTS = ["", " ", "0", "-1", "4294967296", "99999999999999999999", "1e308", "-1e999", "nan", "inf", "0x10", "true",
          "TRUE", "%s%n%1%2", "'", '"', "]", "..", "\u20ac\U0001f600", "x" * 5000, "1.5.5", "\n\n",
          "ok\nextend evil /bin/sh"]
_PATHS = ["", "/", "//", "/state", "state", "/state/", "/state[", "/state/lines/line[kid='", "/state/lines/line[kid=]",
          "/state/lines/line[kid='ch9999999999']/lets/let[kid='-1']/let_vcc", "/" + "a/" * 3000, "[']']", "/state/'"]


def notification(ref: str, op: str, path: str, node: str) -> bytes:
    return (f"<notify><ref>{escape(ref)}</ref><op>{escape(op)}</op><rpath>{escape(path)}</rpath>"
            f"<spath>{escape(path)}</spath><data>{node}</data></notify>").encode()


def _voltage(node: str) -> bytes:
    return notification("kvsnmp_voltage", "replace", PATHS["kvsnmp_voltage"], node)


def random_bytes() -> bytes:
    """With a NUL in every 256 bytes or so."""
    return random.Random(1).randbytes(1 << 20) + b"\0"


def cut_frames() -> bytes:
    """A good message cut at each of its bytes."""
    good = _voltage("<voltage>66.6</voltage>")
    return b"".join(good[:at] + b"\0" + good[at + 1:] + b"\0" for at in range(len(good)))


def document_types() -> bytes:
    """Entities that grow to 3 GiB, and one that reads a file."""
    levels = "".join(f'<!ENTITY e{n} "{f"&e{n - 1};" * 10}">' for n in range(1, 9))
    bomb = f'<!DOCTYPE notify [<!ENTITY e0 "{"x" * 30}">{levels}]>'
    file = '<!DOCTYPE notify [<!ENTITY e8 SYSTEM "file:///etc/passwd">]>'
    node = _voltage("<voltage>&e8;</voltage>")
    return bomb.encode() + node + b"\0" + file.encode() + node + b"\0"


def deep_nesting() -> bytes:
    depth = 200000
    return _voltage(("<a>" * depth + "</a>" * depth)[:-4]) + b"\0"


# The daemon drops each message of these. The units of the data service's client test many more.
REFUSED: list[Callable[[], bytes]] = [random_bytes, cut_frames, document_types, deep_nesting]


def senseless_messages() -> bytes:
    """Well-formed messages: every reference with every operation, and texts and paths without a meaning."""
    messages = []
    chooser = random.Random(2)

    def leaf(path: str, text: str) -> str:
        name = path.rpartition("/")[2].partition("[")[0] or "leaf"
        return f"<{name}>{escape(text)}</{name}>"

    for ref, path in PATHS.items():
        for op in _OPERATIONS:
            messages += [notification(ref, op, path, leaf(path, text)) for text in chooser.sample(_TEXTS, 8)]
            messages += [notification(ref, op, odd, leaf(path, chooser.choice(_TEXTS)))
                         for odd in chooser.sample(_PATHS, 3)]
            node = chooser.choice(["", "text", "<a/><b/>", "<!-- x -->", "<?y z?>"])
            messages.append(notification(ref, op, path, node))
    chooser.shuffle(messages)
    return b"".join(message + b"\0" for message in messages)
