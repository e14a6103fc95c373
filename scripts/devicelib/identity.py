"""The content of each model's /etc/xr-* files."""
from __future__ import annotations

from typing import NamedTuple


class Identity(NamedTuple):
    text: str
    amp_type: str = ""
    power_type: str = ""


IDENTITIES = {
    6211: Identity("Orvane Brisel Compact - IP-QRM"),
    6214: Identity("Orvane Brisel Extended - IP-QRM"),
    6259: Identity("Orvane Brisel Station - IP-QRM-V"),
    6410: Identity("Orvane Mervio Controller"),
    6420: Identity("Orvane Mervio Amplifier VQ9D", amp_type="VQ9D"),
    6425: Identity("Orvane Mervio Amplifier VQ9C-RX", amp_type="VQ9C"),
    6601: Identity("Orvane Brisel Desk - IP-QDM"),
    6602: Identity("Orvane Brisel Desk - IP-QDM-V"),
    6720: Identity("Orvane Mervio Amplifier VQ9B-AC", amp_type="VQ9B"),
    6764: Identity("Orvane Mervio Amplifier VQ9D-P2", power_type="400"),
    6891: Identity("Orvane Brisel Outdoor - IP-QRM-W"),
    6913: Identity("Orvane Mervio Switch 8"),
    6914: Identity("Orvane Mervio Switch 16"),
}

MODELS = sorted(IDENTITIES)
RENAMED_TYPE, RENAMED_TEXT = "VQ9B", "Orvane Mervio Amplifier VQ9"


def served_text(model: int) -> str:
    """The model text that a manager reads; kvsnmp replaces that of one amplifier type."""
    identity = IDENTITIES[model]
    return RENAMED_TEXT if identity.amp_type == RENAMED_TYPE else identity.text


def identity_files(model: int) -> dict[str, str]:
    """File names in /etc with their texts, for one model."""
    identity = IDENTITIES[model]
    files = {
        "xr-modelnumber": f"{model}\n",
        "xr-model": f"{identity.text}\n",
        "xr-pkgver": "4.12.3\n",
        "xr-kernelver": "5.15.71\n",
        "xr-oftreever": f"{model}-2.1\n",
    }
    if identity.amp_type:
        files["xr-amptype"] = f"{identity.amp_type}\n"
    if identity.power_type:
        files["xr-powertype"] = f"{identity.power_type}\n"
    return files
