"""A build for another image, as in docs/integration.md: with an installed platform library (here the stand-in), without
systemd."""
from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

CHECKOUT = Path(__file__).resolve().parents[2]
WORK = CHECKOUT / "build/package/maker-library"


def cmake(*arguments: object, check: bool = True) -> subprocess.CompletedProcess[str]:
    done = subprocess.run(["cmake", *map(str, arguments)], cwd=CHECKOUT, capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, check=False)
    assert not check or done.returncode == 0, done.stdout[-4000:] + done.stderr[-4000:]
    return done


def configure(folder: Path, *options: str, check: bool = True) -> subprocess.CompletedProcess[str]:
    """Without optimization: the programs are only linked."""
    return cmake("-G", "Ninja", "-S", CHECKOUT, "-B", folder, "-DCMAKE_BUILD_TYPE=", "-DBUILD_TESTING=OFF", *options, check=check)


@pytest.fixture(scope="module")
def library() -> Path:
    """include/xrcommon and lib/libxrcommon.so."""
    shutil.rmtree(WORK, ignore_errors=True)
    configure(WORK / "stand-in", "-DBUILD_SHARED_LIBS=ON")
    cmake("--build", WORK / "stand-in", "--target", "xrcommon")
    cmake("--install", WORK / "stand-in", "--component", "xrcommon", "--prefix", WORK / "library")
    return WORK / "library"


def test_the_daemon_links_to_the_library_of_the_root_and_not_to_systemd_s(library: Path) -> None:
    configure(WORK / "build", f"-DKVSNMP_XRCOMMON_ROOT={library}", "-DKVSNMP_SYSTEMD=OFF")
    cmake("--build", WORK / "build", "--target", "kvsnmp")
    loaded, needed = (subprocess.run([*command, WORK / "build/bin/kvsnmp"], capture_output=True, text=True, check=True).stdout
                      for command in (["ldd"], ["objdump", "-p"]))
    assert f"libxrcommon.so => {library}/lib/libxrcommon.so " in loaded, loaded
    assert not list((WORK / "build").rglob("talinterface.cpp.o")), "the stand-in was built, too"
    # The D-Bus library may need systemd's, the daemon does not.
    assert re.search(r"NEEDED +libxrcommon\.so", needed) and not re.search(r"NEEDED +libsystemd", needed)


@pytest.mark.parametrize("missing", ["include/xrcommon/TalInterface.h", "lib/libxrcommon.so"])
def test_a_root_in_which_something_is_missing_is_refused(library: Path, missing: str) -> None:
    broken = WORK / "broken"
    shutil.rmtree(broken, ignore_errors=True)
    shutil.copytree(library, broken)
    os.unlink(broken / missing)
    done = configure(WORK / "refused", f"-DKVSNMP_XRCOMMON_ROOT={broken}", check=False)
    assert done.returncode != 0
    said = " ".join(done.stderr.split())  # cmake wraps its lines
    assert f"KVSNMP_XRCOMMON_ROOT: {broken} has no" in said, said
