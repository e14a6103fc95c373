"""Debian's Prometheus and Alertmanager with our files: what arrives at the receivers. Run by scripts/test-monitoring."""
from __future__ import annotations

import json
from collections.abc import Iterator
from typing import Any, NamedTuple

import pytest
from site_of_devices import ALERTMANAGER, Site, fetch, replaced

import prometheus_files  # the paths are set by the one above
from prometheus_files import alerts
from jsonreceiver import JsonReceiver
from series import codes
from support.polling import stays, wait_until
from support.walkagent import WalkAgent, silent

HALL, TOWER = "127.0.60.1:161", "127.0.60.2:161"
QUIET = 5.0  # seconds: five times the interval in which Alertmanager notifies an end


class Notification(NamedTuple):
    receiver: str  # critical, warning or info
    status: str
    alert: str
    device: str


class Alerting(Site):
    """Seconds stand for minutes in the rules and for the times of Alertmanager."""

    def __init__(self, folder) -> None:
        super().__init__(folder, ["6420", "6764"])
        self.notifications: list[tuple[Notification, dict[str, Any]]] = []
        self.receivers = JsonReceiver(self.notified, ("127.0.0.1", 8080))

    def notified(self, path: str, message: dict[str, Any]) -> None:
        for alert in message["alerts"]:
            labels = alert["labels"]
            self.notifications.append((
                Notification(path.strip("/"), alert["status"], labels["alertname"], labels["instance"]), alert))

    def start_alertmanager(self) -> None:
        config = replaced(prometheus_files.ALERTMANAGER, {"group_wait: 30s": "group_wait: 1s",
                                                          "group_interval: 5m": "group_interval: 1s"})
        etc = self.folder / "alertmanager"
        etc.mkdir()
        (etc / "alertmanager.yml").write_text(config.replace("localhost:8080", "127.0.0.1:8080"))
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

    def stop(self) -> None:
        super().stop()
        self.receivers.stop()


@pytest.fixture(scope="module")
def site(tmp_path_factory) -> Iterator[Alerting]:
    site = Alerting(tmp_path_factory.mktemp("alerting"))
    try:
        site.start_exporter()
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


def test_notifications(site):
    """Each severity reaches its receiver; a device that vanishes is one notification, and resolves nothing; the other
    device is not muted."""
    hall, tower = site.devices.values()
    hall.change({"fanSpeed.1": "0", "tempCurrent.1": "705", **codes({"ethMonitoringMonitored.1": "notMonitored"})})
    site.wait_received(FAULTS)
    for notification, alert in site.notifications:
        rule = alerts()[notification.alert]
        assert alert["labels"]["severity"] == rule["labels"]["severity"] == notification.receiver
        assert alert["annotations"]["runbook"] == rule["annotations"]["runbook"]
        assert alert["annotations"]["summary"].startswith(HALL)
    assert set(site.received()) == FAULTS, "the other device is in order"

    before = len(site.notifications)
    site.answering("6420", silent)
    site.wait_received({UNREACHABLE}, before)
    wait_until(lambda: site.inhibited() == {(fault.alert, HALL) for fault in FAULTS}, 10, 0.1, "the rest muted")
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "6420"} == {"KvsnmpDeviceUnreachable"},
               30, 0.5, "the rest ended in Prometheus")
    stays(lambda: site.received(before) == [UNREACHABLE], QUIET, 0.2, "nothing else about the device")

    tower.change({"fanSpeed.1": "0"})
    site.wait_received({Notification(*FAN, TOWER)}, before)
    assert set(site.received(before)) == {UNREACHABLE, Notification(*FAN, TOWER)}

    before = len(site.notifications)
    site.answering("6420", hall.answer)
    site.wait_received({UNREACHABLE._replace(status="resolved")}, before)
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "6420"} == {fault.alert for fault in FAULTS},
               30, 0.5, "its faults fire again")
    wait_until(lambda: not site.inhibited(), 10, 0.1, "nothing is muted")
    for device in (hall, tower):
        device.change({"fanSpeed.1": "1450"})
    site.wait_received({Notification("critical", "resolved", "KvsnmpFanStopped", device) for device in (HALL, TOWER)}, before)
    repeated = {found.alert for found in site.received(before) if found.status == "firing"}
    assert repeated <= {"KvsnmpFanStopped"}, "what was never resolved waits for its repetition"


def test_a_device_whose_daemon_has_ended(site):
    """It answers without kvsnmp, which mutes its faults."""
    site.devices["6764"].change(codes({"controlOutputState.1": "failSet"}))
    fault = Notification("critical", "firing", "KvsnmpControlOutputFault", TOWER)
    site.wait_received({fault})
    before = len(site.notifications)
    site.answering("6764", WalkAgent("", "pa-device").answer)
    gone = Notification("critical", "firing", "KvsnmpSubagentGone", TOWER)
    site.wait_received({gone}, before)
    wait_until(lambda: {name for name, device, _ in site.alerts() if device == "6764"} == {"KvsnmpSubagentGone"},
               30, 0.5, "the fault ended in Prometheus")
    stays(lambda: [found for found in site.received(before) if found.device == TOWER] == [gone], QUIET, 0.2,
          "nothing else about the device")
