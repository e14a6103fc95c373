"""A Zabbix server in a sandbox made of Debian's packages, and its API."""
from __future__ import annotations

import datetime
import json
import os
import subprocess
import tempfile
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any

from support.device import CHECKOUT
from support.polling import wait_until

SNMPTRAPD = CHECKOUT / "monitoring/snmptrapd"
IMPORT = CHECKOUT / "monitoring/zabbix/zabbix-import"
API, PASSWORD = "http://127.0.0.1:8080", "zabbix"
USER, GROUP = "100", "102"  # anybody but root, whom PostgreSQL refuses; the packages' users are not needed

SERVER_CONF = """\
ListenIP=127.0.0.1
LogType=console
DBHost=/srv/run
DBName=zabbix
DBUser=zabbix
SocketDir=/srv/run
CacheUpdateFrequency=1
StartPollers=4
StartPollersUnreachable=1
StartDiscoverers=0
StartHTTPPollers=0
StartPingers=0
StartSNMPTrapper=1
SNMPTrapperFile=/srv/traps.log
UnreachableDelay=3
UnavailableDelay=3
UnreachablePeriod=6
Timeout=4
"""
FRONTEND_CONF = """\
<?php
$DB = ['TYPE' => 'POSTGRESQL', 'SERVER' => '/srv/run', 'PORT' => '0', 'DATABASE' => 'zabbix', 'USER' => 'zabbix',
       'PASSWORD' => '', 'SCHEMA' => '', 'ENCRYPTION' => false, 'KEY_FILE' => '', 'CERT_FILE' => '', 'CA_FILE' => '',
       'VERIFY_HOST' => false, 'CIPHER_LIST' => '', 'VAULT_URL' => '', 'VAULT_DB_PATH' => '', 'VAULT_TOKEN' => '',
       'DOUBLE_IEEE754' => true];
$ZBX_SERVER = '127.0.0.1';
$ZBX_SERVER_PORT = '10051';
$ZBX_SERVER_NAME = '';
$IMAGE_FORMAT_DEFAULT = IMAGE_FORMAT_PNG;
"""


class ApiError(Exception):
    pass


class Server:
    """Runs until `stop`. The API's user is the one that Debian's database script makes."""

    def __init__(self) -> None:
        self._folder = tempfile.TemporaryDirectory(prefix="kvsnmp-zabbix-")
        self.folder = Path(self._folder.name)
        self._token: str | None = None
        (self.folder / "etc").mkdir()
        (self.folder / "zabbix_server.conf").write_text(SERVER_CONF)
        (self.folder / "etc/zabbix.conf.php").write_text(FRONTEND_CONF)
        # The shipped configuration with the handler of the Zabbix manual.
        shipped = (SNMPTRAPD / "snmptrapd.conf").read_text()
        handler = "/usr/local/bin/kvsnmp-trap-line"
        assert f" {handler}\n" in shipped
        (self.folder / "snmptrapd.conf").write_text(
            shipped.replace(f" {handler}\n", " /opt/kvsnmp-trap-line --zabbix /srv/traps.log\n"))
        self._process = subprocess.Popen(self._command(), stdin=subprocess.DEVNULL)
        wait_until(self._answers, 180, 0.2, what="the API answers")
        self._token = self.call("user.login", username="Admin", password=PASSWORD)

    def _command(self) -> list[str]:
        root = os.environ["KVSNMP_ZABBIX_ROOT"]
        return ["bwrap", "--die-with-parent", "--new-session", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                "--unshare-user", "--uid", USER, "--gid", GROUP, "--ro-bind", root, "/", "--dev", "/dev",
                "--proc", "/proc", "--tmpfs", "/tmp", "--tmpfs", "/run", "--bind", str(self.folder), "/srv",
                "--ro-bind", str(self.folder / "etc"), "/etc/zabbix", "--ro-bind", str(SNMPTRAPD), "/opt",
                "--ro-bind", str(Path(__file__).parent), "/mnt", "--clearenv", "--chdir", "/srv", "--",
                "/bin/sh", "/mnt/inside.sh"]

    def _answers(self) -> bool:
        if self._process.poll() is not None:
            raise AssertionError(f"the sandbox ended with status {self._process.returncode}\n{self.logs()}")
        try:
            return bool(self.call("apiinfo.version"))
        except (OSError, ApiError, ValueError):
            return False

    def call(self, method: str, /, **parameters: Any) -> Any:
        request = {"jsonrpc": "2.0", "method": method, "params": parameters, "id": 1}
        if self._token and method not in ("apiinfo.version", "user.login"):
            request["auth"] = self._token
        with urllib.request.urlopen(urllib.request.Request(
                f"{API}/api_jsonrpc.php", json.dumps(request).encode(),
                {"Content-Type": "application/json-rpc"}), timeout=120) as reply:
            answer = json.load(reply)
        if "error" in answer:
            raise ApiError(f"{method}: {answer['error']}")
        return answer["result"]

    def add_trap(self, text: str) -> None:
        """As a trap receiver writes it: the sender's address and the rest."""
        with open(self.folder / "traps.log", "a", encoding="utf-8") as file:
            file.write(f"{datetime.datetime.now().astimezone():%Y-%m-%dT%H:%M:%S%z} ZBXTRAP {text}")

    def import_text(self, name: str, text: str) -> None:
        (self.folder / name).write_text(text)
        done = subprocess.run([IMPORT, API, self.folder / name], capture_output=True, text=True, check=False,
                              stdin=subprocess.DEVNULL, env=os.environ | {"ZABBIX_PASSWORD": PASSWORD})
        assert (done.returncode, done.stderr) == (0, ""), done

    def logs(self) -> str:
        return "\n".join(f"--- {file.name}\n" + "\n".join(file.read_text(errors="replace").splitlines()[-40:])
                         for file in sorted(self.folder.glob("*.log")) if file.name not in ("initdb.log", "php.log"))

    def stop(self) -> None:
        self._process.terminate()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._folder.cleanup()
