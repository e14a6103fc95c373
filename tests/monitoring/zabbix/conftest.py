"""The support code of the device tests serves here, too, and the agents of the discovery."""
import sys
from pathlib import Path

sys.dont_write_bytecode = True
sys.path[:0] = [str(Path(__file__).resolve().parents[2] / "device"), str(Path(__file__).resolve().parents[1])]
