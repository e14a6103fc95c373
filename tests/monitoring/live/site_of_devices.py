"""Devices that are played from golden walks, the exporter, Prometheus and a browser, in a separate network
(scripts/test-monitoring)."""
from __future__ import annotations

import functools
import json
import re
import subprocess
import sys
import urllib.error
import urllib.parse
import urllib.request
from pathlib import Path
from typing import Any

from selenium.webdriver.remote.webdriver import WebDriver

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))

from prometheus_files import BEFORE, CHECKOUT, DEVICES, FOLDER, RULES, UNPACKED, walks  # noqa: E402  (the path has to be set first)
from support.browser import chromium, resize  # noqa: E402
from support.polling import wait_until  # noqa: E402
from support.walkagent import Agents, Answer, WalkAgent  # noqa: E402

EXPORTER, PROMETHEUS, ALERTMANAGER = "127.0.0.1:9116", "127.0.0.1:9090", "127.0.0.1:9093"
PICTURES = CHECKOUT / "build/monitoring/pictures"
NAMES = [name for name in walks.NAMES if name.isdigit()] + ["6214-extended"]


class Site:
    def __init__(self, folder: Path, names: list[str]) -> None:
        self.folder = folder
        self.addresses = {name: f"127.0.60.{number}:161" for number, name in enumerate(names, 1)}
        self.devices = {name: WalkAgent(name, "pa-device") for name in names}
        self.agents = Agents({self._place(name): device.answer for name, device in self.devices.items()})
        self.agents.start()
        self.processes: list[subprocess.Popen] = []

    def _place(self, name: str) -> tuple[str, int]:
        return self.addresses[name].partition(":")[0], 161

    def answering(self, name: str, answer: Answer) -> None:
        self.agents.answers[self._place(name)] = answer

    # Prometheus and its exporter

    def start_exporter(self) -> None:
        self._spawn("exporter", [f"{UNPACKED}/usr/bin/prometheus-snmp-exporter", f"--config.file={BEFORE}",
                                 f"--web.listen-address={EXPORTER}"])
        wait_until(lambda: fetch(f"http://{EXPORTER}/") is not None, 20, 0.2, "exporter")

    def start_prometheus(self, interval: str = "3s") -> None:
        """With the files of monitoring/prometheus, but with seconds instead of minutes."""
        etc = self.folder / "etc"  # /etc/prometheus
        (etc / "data").mkdir(parents=True)
        config = replaced(FOLDER / "prometheus.yml", {
            "scrape_interval: 60s": f"scrape_interval: {interval}", "scrape_timeout: 30s": f"scrape_timeout: {interval}",
            "localhost:9116": EXPORTER, "localhost:9093": ALERTMANAGER})
        (etc / "prometheus.yml").write_text("global: {evaluation_interval: 1s}\n" + config)
        (etc / DEVICES.name).write_text(json.dumps([
            {"targets": [address], "labels": {"__meta_kvsnmp_name": name}} for name, address in self.addresses.items()]))
        rules, changed = re.subn(r"^( +for: )\d+m$", r"\g<1>1s", RULES.read_text(), flags=re.MULTILINE)
        assert changed == RULES.read_text().count("- alert:")
        (etc / RULES.name).write_text(rules.replace("keep_firing_for: 5m", "keep_firing_for: 5s"))
        self.spawn_packaged("prometheus", etc, "--config.file=/etc/prometheus/prometheus.yml",
                            "--storage.tsdb.path=/etc/prometheus/data", f"--web.listen-address={PROMETHEUS}")
        wait_until(lambda: fetch(f"http://{PROMETHEUS}/-/ready") is not None, 30, 0.2, "Prometheus")

    def spawn_packaged(self, name: str, etc: Path, *options: str) -> None:
        """A program of an unpacked package that reads its pages or templates in /usr/share; `etc` is its
        /etc/prometheus."""
        for place in ("lib", "lib64"):
            (UNPACKED / "usr" / place).mkdir(exist_ok=True)
        self._spawn(name, [
            "bwrap", "--die-with-parent", "--ro-bind", f"{UNPACKED}/usr", "/usr", "--ro-bind", "/usr/lib", "/usr/lib",
            "--ro-bind", "/usr/lib64", "/usr/lib64", "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
            "--dev", "/dev", "--proc", "/proc", "--bind", str(etc), "/etc/prometheus", f"/usr/bin/{name}", *options])

    def _spawn(self, name: str, command: list[str]) -> None:
        with open(self.folder / f"{name}.log", "wb") as log:
            self.processes.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log))

    def ask(self, path: str, **parameters: str) -> Any:
        text = fetch(f"http://{PROMETHEUS}/api/v1/{path}?{urllib.parse.urlencode(parameters)}")
        assert text is not None, self.log("prometheus")
        answer = json.loads(text)
        assert answer["status"] == "success", answer
        return answer["data"]

    def query(self, query: str) -> list[tuple[dict[str, str], float]]:
        return [(item["metric"], float(item["value"][1])) for item in self.ask("query", query=query)["result"]]

    def log(self, name: str) -> str:
        return (self.folder / f"{name}.log").read_text()[-3000:]

    # Alerts

    def name_of(self, address: str) -> str:
        return next(name for name, found in self.addresses.items() if found == address)

    def alerts(self) -> dict[tuple[str, str, str], dict[str, Any]]:
        """All alerts, pending ones too, by name, device and index or ""."""
        return {(alert["labels"]["alertname"], self.name_of(alert["labels"]["instance"]), alert["labels"].get("index", "")):
                alert for alert in self.ask("alerts")["alerts"]}

    # Browser

    @functools.cached_property
    def browser(self) -> WebDriver:
        return chromium(self.folder / "chromium", 1200)

    def picture(self, path: str, name: str, height: int, *texts: str) -> None:
        """Of a page once it shows these."""
        PICTURES.mkdir(parents=True, exist_ok=True)
        resize(self.browser, 1200, height)
        self.browser.get(f"http://{PROMETHEUS}/{path}")
        wait_until(lambda: all(text in self.browser.find_element("tag name", "body").text for text in texts), 60, 0.2,
                   f"{texts} on {path}")
        self.browser.execute_script("document.documentElement.style.overflow = 'hidden'")
        self.browser.save_screenshot(str(PICTURES / name))
        assert (PICTURES / name).stat().st_size > 20000, name

    # The end

    def stop(self) -> None:
        if "browser" in vars(self):
            self.browser.quit()
        for process in reversed(self.processes):
            process.terminate()
            process.wait(20)
        self.agents.stop()


def replaced(file: Path, words: dict[str, str]) -> str:
    """The text with other words, each of which is there once."""
    text = file.read_text()
    for old, new in words.items():
        assert text.count(old) == 1, old
        text = text.replace(old, new)
    return text


def fetch(url: str) -> str | None:
    try:
        with urllib.request.urlopen(url, timeout=20) as answer:
            return answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.read().decode() if error.code == 400 else None
    except OSError:
        return None


def graph(*queries: str, seconds: int = 0) -> str:
    """The path of Prometheus' page with each query's graph of the newest seconds, or its values now."""
    shown = {"tab": "0", "range_input": f"{seconds}s"} if seconds else {"tab": "1"}
    return "graph?" + urllib.parse.urlencode({f"g{number}.{key}": text for number, query in enumerate(queries)
                                              for key, text in ({"expr": query} | shown).items()})
