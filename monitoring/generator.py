"""The command line of the generators, and the first line of their files."""
from __future__ import annotations

import argparse
from collections.abc import Callable
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[1]


def made_by(script: str) -> str:
    return f"Made by {Path(script).resolve().relative_to(CHECKOUT)}; changes are lost when it runs again."


def main(script: str, description: str, make: Callable[[], dict[str, str]]) -> int:
    """Writes the files that `make` returns, path from the script's folder to text; returns the exit status."""
    parser = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="write nothing; exit with 1 when a file is stale")
    options = parser.parse_args()
    folder = Path(script).resolve().parent
    files = {(folder / name).resolve(): text for name, text in make().items()}
    stale = [file for file, text in files.items() if not file.exists() or file.read_text() != text]
    for file in stale:
        if options.check:
            print(f"{file.relative_to(CHECKOUT)} is stale; run {folder.relative_to(CHECKOUT)}/generate")
        else:
            file.write_text(files[file])
            print(f"{file.relative_to(CHECKOUT)} written")
    return int(options.check and bool(stale))
