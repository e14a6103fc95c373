#!/usr/bin/python3
"""Forty devices: 10.1.0.11 to 10.1.0.50, port 161, community public, with the objects of the golden walks. Started as a
program, answers for all of them."""
from __future__ import annotations

import itertools
import sys
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "monitoring"), str(CHECKOUT / "tests/device")]

from support.walkagent import Agents, WalkAgent  # noqa: E402  (the path has to be set first)

AMPLIFIERS = ["6420", "6410", "6720", "6764", "6425"]
OTHERS = ["6214-extended", "6259", "6211", "6891", "6601", "6602", "6913", "6914"]
ROOMS = ["platform", "hall", "foyer", "stairs", "tunnel", "kitchen", "gate", "office"]
MODELS = {f"10.1.0.{number}": model for number, model in zip(
    range(11, 51), [*(AMPLIFIERS * 4), *itertools.islice(itertools.cycle(OTHERS), 20)])}
NAMES = dict(zip(MODELS, (f"{room}-{floor}" for floor in itertools.count(1) for room in ROOMS)))
FAULTS = {"10.1.0.16": {"ampChannelLineState.1": "3"}, "10.1.0.23": {"fanSpeed.1": "0"}, "10.1.0.29": {"voltageValue.3": "2810"}}
HEALTHY = {"6410": {"lineInStatus.1": "2"}}  # of the golden walks, whose first line input has no pilot tone


if __name__ == "__main__":
    Agents({(address, 161): WalkAgent(model, NAMES[address], HEALTHY.get(model, {}) | FAULTS.get(address, {})).answer
            for address, model in MODELS.items()}).run()
