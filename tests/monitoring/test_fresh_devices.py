"""No alert fires on a device fresh from the simulator."""
from __future__ import annotations

from concurrent.futures import ThreadPoolExecutor

from prometheus_files import alerts, evaluate
from series import Series, expected_series
from support import steps
from support.catalogue import MODELS
from support.device import Device
from support.snmp import TABLES
from support.walks import Walk, wait_for_lines

AT_A_TIME = 7  # devices that run at once
MINUTES = 40  # every alert waits for less


def metrics(model: int) -> Series:
    device = Device(model, "--clock-shift", "--no-traps")
    try:
        device.wait_ready().wait_answering(60).wait_subscribed(60)
        steps.apply(device)
        wait_for_lines(device, Walk(model))
        return expected_series(device.snmp.walk(TABLES))
    except Exception as error:
        raise AssertionError(f"model {model}: {error}\n{device.logs()}") from error
    finally:
        device.stop()


def test_no_alert_on_any_model(tmp_path):
    assert all(int(rule["for"].removesuffix("m")) < MINUTES for rule in alerts().values())
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        devices = dict(zip(MODELS, pool.map(metrics, MODELS)))
    tests = []
    for model, found in devices.items():
        device = {"job": "kvsnmp", "instance": str(model)}
        found |= {("up", frozenset()): 1, ("kvsnmp_sys_up_time_centiseconds", frozenset()): 100}
        series = []
        for (name, labels), value in found.items():
            text = ", ".join(f'{key}="{label}"' for key, label in (device | dict(labels)).items())
            series.append({"series": f"{name}{{{text}}}", "values": f"{value}x{MINUTES}"})
        assert len(series) > 30
        tests.append({"name": str(model), "interval": "1m", "input_series": series, "alert_rule_test": [
            {"eval_time": f"{MINUTES}m", "alertname": alert, "exp_alerts": []} for alert in alerts()]})
    evaluate(tmp_path, tests)
