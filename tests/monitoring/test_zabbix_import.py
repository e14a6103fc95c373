"""zabbix-import against a stand-in for the API; scripts/test-zabbix and scripts/test-packages run it with a real server."""
from __future__ import annotations

import json
import os
import subprocess
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
from jsonreceiver import JsonReceiver

FOLDER = Path(__file__).resolve().parents[2] / "monitoring/zabbix"
HOSTS = {"zabbix_export": {"version": "6.0", "groups": [{"name": "Public address"}], "hosts": [
    {"host": f"192.0.2.{number}", "name": f"hall ({number})"} for number in (1, 2, 3)]}}


class Api:
    """Takes the password "right"; refuses hosts named so."""

    def __init__(self) -> None:
        self.calls: list[dict[str, Any]] = []
        self.refused = ""
        self.server = JsonReceiver(self.answer)
        self.url = f"http://127.0.0.1:{self.server.server_port}/zabbix"

    def answer(self, path: str, call: dict[str, Any]) -> dict[str, Any]:
        assert path == "/zabbix/api_jsonrpc.php"
        if call["method"] == "user.login":
            if call["params"] != {"username": "Admin", "password": "right"}:
                return {"error": {"message": "Invalid params.", "data": "Incorrect user name or password."}}
            return {"result": "token"}
        assert call["auth"] == "token"
        self.calls.append(call)
        if self.refused and self.refused in call["params"].get("source", ""):
            return {"error": {"message": "Application error."}}
        return {"result": True}


@pytest.fixture
def api() -> Iterator[Api]:
    api = Api()
    yield api
    api.server.stop()


def run(api: Api, *files: Path, password: str = "right") -> tuple[int, str, str]:
    done = subprocess.run([FOLDER / "zabbix-import", api.url, *files], capture_output=True, text=True, check=False,
                          timeout=60, stdin=subprocess.DEVNULL, env=os.environ | {"ZABBIX_PASSWORD": password})
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def hosts(tmp_path) -> Path:
    file = tmp_path / "hosts.json"
    file.write_text(json.dumps(HOSTS))
    return file


def test_the_template_is_imported_whole_then_each_host(api, hosts):
    template = FOLDER / "kvsnmp-template.yaml"
    assert run(api, template, hosts) == (0, "kvsnmp-template.yaml: imported\n" + "".join(
        f"hosts.json: {number} of 3: hall ({number})\n" for number in (1, 2, 3)), "")
    first, *others = [call["params"] for call in api.calls if call["method"] == "configuration.import"]
    assert (first["format"], first["source"]) == ("yaml", template.read_text())
    exports = [json.loads(one["source"])["zabbix_export"] for one in others]
    assert [export["hosts"] for export in exports] == [[host] for host in HOSTS["zabbix_export"]["hosts"]]
    assert all(export["groups"] == HOSTS["zabbix_export"]["groups"] for export in exports)
    assert not any(rule.get("deleteMissing") for one in others for rule in one["rules"].values())
    assert api.calls[-1]["method"] == "user.logout"


def test_what_is_refused_ends_it_with_the_server_s_words(api, hosts):
    api.refused = "192.0.2.2"
    assert run(api, hosts) == (1, "hosts.json: 1 of 3: hall (1)\n", "zabbix-import: configuration.import: Application error.\n")
    assert run(api, hosts, password="wrong") == (1, "", "zabbix-import: user.login: Incorrect user name or password.\n")


@pytest.mark.parametrize("text", ["", "[]", "{}", '{"zabbix_export": {"hosts": []}}'])
def test_a_file_without_hosts_is_refused(api, tmp_path, text):
    """As kvsnmp-discover leaves it that has found nothing."""
    (tmp_path / "none.json").write_text(text)
    assert run(api, tmp_path / "none.json") == (
        1, "", f"zabbix-import: {tmp_path}/none.json: no hosts of kvsnmp-discover --format zabbix\n")
    assert api.calls == []
