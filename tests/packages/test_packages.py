"""The packages in a separate Debian: what they hold, and the programs without the service."""
from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import guide
import pytest
import walks  # the path is set by conftest.py
from debianroot import DEBS, PACKAGES, DebianRoot, files_of


def test_the_packages_install_into_a_fresh_debian(root: DebianRoot, debs: Path) -> None:
    guide.type_in(root, "apt-get install ./kvsnmp_*.deb", DEBS)
    root.run("/bin/sh", "-c", f"cd {DEBS} && apt-get install ./kvsnmp*.deb")
    for package in PACKAGES:
        assert root.run("dpkg-query", "-W", "-f", "${db:Status-Abbrev}", package).stdout == "ii "
    assert root.run("systemctl", "is-enabled", "kvsnmp.service", check=False).stdout == "disabled\n"
    assert not list(root.path("/etc").glob("rc[2-5].d/S*kvsnmp"))
    conffiles = root.run("dpkg-query", "-W", "-f", "${Conffiles}", "snmpd").stdout
    assert " /etc/snmp/snmpd.conf " in conffiles, "as the guide says"


@pytest.mark.parametrize("package, documents", [("kvsnmp", {"gpio.md", "integration.md"}), ("kvsnmp-simulator", set()),
                                                ("kvsnmp-monitoring", {"operators.md", "traps.md", "README.md"})])
def test_the_links_and_paths_in_a_package_s_documents_lead_to_files(root: DebianRoot, debs: Path, package: str,
                                                                 documents: set[str]) -> None:
    """Inside the package alone."""
    own = {file.rstrip("/") for file in files_of(package, debs)}
    assert not [file for file in own if file.endswith(".md.gz")], "links lead to names without .gz"
    found = sorted(file for file in own if file.endswith(".md"))
    assert documents <= {Path(document).name for document in found}
    top, dead, followed = root.folder.resolve(), [], 0
    for document in [*found, "/lib/systemd/system/kvsnmp.service"]:
        text = root.path(document).read_text()
        dead += [f"{document}: {path}" for path in re.findall(r"/usr/share/(?:doc/)?kvsnmp[\w./-]*[\w/]", text)
                 if not root.path(path).exists()]
        for link in re.findall(r"\]\(([^)\s]+)\)", text):
            if re.match(r"#|[a-z]+:", link):
                continue
            target = (root.path(document).parent / link.partition("#")[0]).resolve()
            followed += 1
            if not target.exists() or not target.is_relative_to(top) or f"/{target.relative_to(top)}" not in own:
                dead.append(f"{document}: {link}")
    assert dead == []
    assert followed > 0 or package != "kvsnmp-monitoring"


def test_each_model_has_its_recording_and_each_program_its_manual_page(debs: Path) -> None:
    recordings = {Path(file).stem for file in files_of("kvsnmp-monitoring", debs) if file.endswith(".snmprec")}
    assert recordings == set(walks.NAMES)
    files = set().union(*(files_of(package, debs) for package in PACKAGES))
    programs = {Path(file).name for file in files if re.fullmatch(r"/usr/s?bin/[^/]+", file)}
    assert programs == {"kvsnmp", "kvsnmp-check", "kvsnmp-device", "kvsnmp-discover", "kvsnmp-fleet", "talctl", "talservice"}
    assert {Path(file).name.split(".")[0] for file in files if file.endswith((".1.gz", ".8.gz"))} == programs


def test_the_packages_hold_what_cmake_installs(debs: Path, tmp_path: Path) -> None:
    """Beside it only Debian's own files."""
    build = next((debs / "source").glob("obj-*"))
    components = dict.fromkeys(["runtime", "simulator", "monitoring", "doc"], set())
    for component in components:
        subprocess.run(["cmake", "--install", str(build), "--component", component], check=True, stdout=subprocess.DEVNULL,
                       env=os.environ | {"DESTDIR": str(tmp_path / component)})
        components[component] = {f"/{path.relative_to(tmp_path / component)}" for path in (tmp_path / component).rglob("*")
                                 if path.is_symlink() or not path.is_dir()}
    for package, component in zip(PACKAGES, ("runtime", "monitoring", "simulator")):
        files = {file.removesuffix(".gz") for file in files_of(package, debs) if not file.endswith("/")}
        own = {f"/usr/share/doc/{package}/{name}" for name in ("changelog", "copyright", "monitoring")}
        documents = {file for file in components["doc"] if file.startswith(f"/usr/share/doc/{package}/")}
        assert files - own == components[component] | documents


def test_the_programs_find_their_libraries(root: DebianRoot) -> None:
    for command, said in (("kvsnmp -h", "kvsnmp main()\n\nUsage: kvsnmp options\n"), ("talservice --version", "talservice"),
                          ("talctl --help", "usage: talctl "), ("kvsnmp-check --help", ""),
                          ("kvsnmp-device --help", "kvsnmp-device exec -- CMD")):
        printed = root.run(*command.split()).stdout
        assert printed and said in printed, command


def test_a_device_of_the_simulator_passes_the_packages_own_test(root: DebianRoot) -> None:
    """debian/tests, which first installs the packages. A sandbox inside the sandbox."""
    root.run("apt-get", "install", "--no-install-recommends", "autopkgtest")
    root.run("apt-get", "purge", *PACKAGES)
    done = root.run("/bin/sh", "-c", f"autopkgtest {DEBS}/kvsnmp*.deb {DEBS}/source/ -- null")
    assert re.search(r"^device +PASS$", done.stdout, re.MULTILINE), done.stdout


def test_the_unit_is_sound_and_hardened(root: DebianRoot) -> None:
    unit = "/lib/systemd/system/kvsnmp.service"
    done = root.run("systemd-analyze", "verify", "--man=no", unit)
    assert "kvsnmp" not in done.stdout + done.stderr, done.stderr
    done = root.run("systemd-analyze", "security", "--no-pager", "--offline=true", "--threshold=40", unit)
    exposure = re.search(r"Overall exposure level for kvsnmp.service: (\S+)", done.stdout)
    print(exposure[0])
    text = " ".join(guide.GUIDE.read_text().split())
    assert f"--threshold=40 {unit}` rates it {exposure[1]}" in text
