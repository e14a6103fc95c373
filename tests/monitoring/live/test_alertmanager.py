"""Debian's Prometheus and Alertmanager with our files: what arrives at the receivers. A stand-in for the exporter answers
for two devices. Run by scripts/test-monitoring."""
from __future__ import annotations

import json
import threading
from collections.abc import Iterator
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, NamedTuple
from urllib.parse import parse_qs, urlparse

import pytest
from site_of_devices import ALERTMANAGER, EXPORTER, Site, fetch, replaced

import prometheus_files  # the paths are set by the one above
import walks
from prometheus_files import alerts
from series import Series, expected_series
from support.polling import stays, wait_until
from support.snmp import Variable

HALL, TOWER = "192.0.2.10", "192.0.2.11"
RECEIVERS = "127.0.0.1:8080"
QUIET = 5.0  # seconds: five times the interval in which Alertmanager notifies an end


class Notification(NamedTuple):
    receiver: str  # critical, warning or info
    status: str
    alert: str
    device: str


class Exporter:
    """The metrics of a model 6420 for each device; a device without metrics does not answer."""

    def __init__(self) -> None:
        walk = [Variable(f".{item.oid}", item.type, item.value) for item in walks.read("6420")]
        self.devices: dict[str, Series | None] = {device: expected_series(walk) for device in (HALL, TOWER)}

    def set(self, device: str, metric: str, index: str, value: float) -> None:
        (key,) = [key for key in self.devices[device] if key[0] == metric and ("index", index) in key[1]]
        self.devices[device][key] = value

    def set_state(self, device: str, metric: str, index: str, word: str) -> None:
        found = [key for key in self.devices[device] if key[0] == metric and ("index", index) in key[1]]
        assert word in [dict(labels)[metric] for _, labels in found]
        for name, labels in found:
            self.devices[device][name, labels] = float(dict(labels)[metric] == word)

    def page(self, device: str) -> str | None:
        series = self.devices[device]
        return None if series is None else "kvsnmp_sys_up_time_centiseconds 4200\n" + "".join(
            f"{name}{{{','.join(f'{key}={json.dumps(text, ensure_ascii=False)}' for key, text in sorted(labels))}}} {value}\n"
            for (name, labels), value in series.items())


class Alerting(Site):
    """Seconds stand for minutes in the rules and for the times of Alertmanager."""

    def __init__(self, folder) -> None:
        super().__init__(folder)
        self.addresses = {"hall": HALL, "tower": TOWER}
        self.exporter = Exporter()
        self.notifications: list[tuple[Notification, dict[str, Any]]] = []
        self.servers = [self._serve(EXPORTER, self._scraped), self._serve(RECEIVERS, self._notified)]

    def _serve(self, address: str, answer) -> ThreadingHTTPServer:
        class Handler(BaseHTTPRequestHandler):
            def do_GET(self) -> None:
                body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
                text = answer(urlparse(self.path), body)
                self.send_response(500 if text is None else 200)
                self.end_headers()
                self.wfile.write((text or "no answer").encode())

            do_POST = do_GET

            def log_message(self, *_) -> None:
                pass

        host, port = address.split(":")
        server = ThreadingHTTPServer((host, int(port)), Handler)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        return server

    def _scraped(self, url, _body: bytes) -> str | None:
        return self.exporter.page(parse_qs(url.query)["target"][0])

    def _notified(self, url, body: bytes) -> str:
        for alert in json.loads(body)["alerts"]:
            labels = alert["labels"]
            self.notifications.append((
                Notification(url.path.strip("/"), alert["status"], labels["alertname"], labels["instance"]), alert))
        return "ok"

    def start_alertmanager(self) -> None:
        config = replaced(prometheus_files.ALERTMANAGER, {"group_wait: 30s": "group_wait: 1s",
                                                          "group_interval: 5m": "group_interval: 1s"})
        etc = self.folder / "alertmanager"
        etc.mkdir()
        (etc / "alertmanager.yml").write_text(config.replace("localhost:8080", RECEIVERS))
        self.spawn_packaged("prometheus-alertmanager", etc, "--config.file=/etc/prometheus/alertmanager.yml",
                            "--storage.path=/etc/prometheus/data", f"--web.listen-address={ALERTMANAGER}",
                            "--cluster.listen-address=")
        wait_until(lambda: fetch(f"http://{ALERTMANAGER}/-/ready") is not None, 30, 0.2, "Alertmanager")

    def received(self, since: int = 0) -> list[Notification]:
        return [notification for notification, _ in self.notifications[since:]]

    def wait_received(self, expected: set[Notification], since: int = 0) -> None:
        try:
            wait_until(lambda: expected <= set(self.received(since)), 40, 0.2, "notifications")
        except AssertionError as error:
            raise AssertionError(f"{self.received(since)}\n{self.log('prometheus-alertmanager')}") from error

    def inhibited(self) -> set[tuple[str, str]]:
        """Alert and device of what Alertmanager mutes now."""
        return {(alert["labels"]["alertname"], alert["labels"]["instance"])
                for alert in json.loads(fetch(f"http://{ALERTMANAGER}/api/v2/alerts") or "[]") if alert["status"]["inhibitedBy"]}

    def stop(self) -> list[str]:
        complaints = super().stop()
        for server in self.servers:
            server.shutdown()
            server.server_close()
        return complaints


@pytest.fixture(scope="module")
def site(tmp_path_factory) -> Iterator[Alerting]:
    site = Alerting(tmp_path_factory.mktemp("alerting"))
    try:
        site.start_alertmanager()
        site.start_prometheus("1s")
        wait_until(lambda: len(site.query("up == 1")) == 2, 30, 0.5, "both devices scraped")
        # The supervision of a port has to be seen before it is switched off.
        wait_until(lambda: site.query('kvsnmp:state{object="ethMonitoringMonitored"}'), 30, 0.5, "a recorded state")
        yield site
    finally:
        site.stop()


FAN = ("critical", "firing", "KvsnmpFanStopped")
FAULTS = {Notification(*FAN, HALL), Notification("warning", "firing", "KvsnmpTempHigh", HALL),
          Notification("info", "firing", "KvsnmpEthSupervisionOff", HALL)}
UNREACHABLE = Notification("critical", "firing", "KvsnmpDeviceUnreachable", HALL)


def stop_fan(site: Alerting, device: str) -> None:
    site.exporter.set(device, "kvsnmp_fan_speed_rpm", "1", 0)


def test_notifications(site):
    """Each severity reaches its receiver; a device that vanishes is one notification, and resolves nothing; the other
    device is not muted."""
    stop_fan(site, HALL)
    site.exporter.set(HALL, "kvsnmp_temp_current_celsius", "1", 70.5)
    site.exporter.set_state(HALL, "kvsnmp_eth_monitoring_monitored", "1", "notMonitored")
    site.wait_received(FAULTS)
    for notification, alert in site.notifications:
        rule = alerts()[notification.alert]
        assert alert["labels"]["severity"] == rule["labels"]["severity"] == notification.receiver
        assert alert["annotations"]["runbook"] == rule["annotations"]["runbook"]
        assert alert["annotations"]["summary"].startswith(HALL)
    assert set(site.received()) == FAULTS, "the other device is in order"

    before, answered = len(site.notifications), site.exporter.devices[HALL]
    site.exporter.devices[HALL] = None
    site.wait_received({UNREACHABLE}, before)
    wait_until(lambda: site.inhibited() == {(fault.alert, HALL) for fault in FAULTS}, 10, 0.1, "the rest muted")
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "hall"} == {"KvsnmpDeviceUnreachable"},
               30, 0.5, "the rest ended in Prometheus")
    stays(lambda: site.received(before) == [UNREACHABLE], QUIET, 0.2, "nothing else about the device")

    stop_fan(site, TOWER)
    site.wait_received({Notification(*FAN, TOWER)}, before)
    assert set(site.received(before)) == {UNREACHABLE, Notification(*FAN, TOWER)}

    before = len(site.notifications)
    site.exporter.devices[HALL] = answered
    site.wait_received({UNREACHABLE._replace(status="resolved")}, before)
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "hall"} == {fault.alert for fault in FAULTS},
               30, 0.5, "its faults fire again")
    wait_until(lambda: not site.inhibited(), 10, 0.1, "nothing is muted")
    for device in (HALL, TOWER):
        site.exporter.set(device, "kvsnmp_fan_speed_rpm", "1", 1450)
    site.wait_received({Notification("critical", "resolved", "KvsnmpFanStopped", device) for device in (HALL, TOWER)}, before)
    repeated = {found.alert for found in site.received(before) if found.status == "firing"}
    assert repeated <= {"KvsnmpFanStopped"}, "what was never resolved waits for its repetition"


def test_a_device_whose_daemon_has_ended(site):
    """It answers without kvsnmp, which mutes its faults."""
    site.exporter.set_state(TOWER, "kvsnmp_control_output_state", "1", "failSet")
    fault = Notification("critical", "firing", "KvsnmpControlOutputFault", TOWER)
    site.wait_received({fault})
    before = len(site.notifications)
    site.exporter.devices[TOWER] = {}
    gone = Notification("critical", "firing", "KvsnmpSubagentGone", TOWER)
    site.wait_received({gone}, before)
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "tower"} == {"KvsnmpSubagentGone"},
               30, 0.5, "the fault ended in Prometheus")
    stays(lambda: [found for found in site.received(before) if found.device == TOWER] == [gone], QUIET, 0.2,
          "nothing else about the device")
