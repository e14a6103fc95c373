"""What the daemon asks the data service for, in exact order, for every model."""
from __future__ import annotations

import pytest
from support.dataservice import SETTINGS, DataService, Subscription
from support.polling import stays, wait_until

ALL = {6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914}
MEASURED = {6410, 6420, 6425, 6720, 6764}
AMPLIFIERS = {6420, 6425, 6720, 6764}
LETS = {6420, 6720, 6764}
STATIONS = {6211, 6214, 6259, 6891}
PILOT_TONE = {6410, 6420, 6425}
MICROPHONES = {6214, 6259, 6601, 6602}

SETTINGS_IN_ORDER = [(ref, f"{SETTINGS}/{leaf}") for ref, leaf in [
    ("mib2_settings", "mib_2_settings"),
    ("access_control", "access_control"),
    ("trap_settings", "trap_settings"),
    ("version_control", "version_control"),
    ("custom_config", "custom_config"),
]]

DATA_IN_ORDER = [
    ("kvsnmp_voltage", "/state/power_lines/power_line/voltage", MEASURED),
    ("kvsnmp_temp", "/state/temp_sensors", MEASURED),
    ("kvsnmp_fan", "/state/fans", MEASURED - {6425}),
    ("kvsnmp_control_input_monitored", "/state/config/gpis/gpi/monitored", MEASURED),
    ("kvsnmp_amp_enable", "/state/config/lines/line/enable", AMPLIFIERS),
    ("kvsnmp_class_d_status", "/state/class_d_amp_status", AMPLIFIERS),
    ("kvsnmp_gpio_type", "/state/config/gpios/gpio/gpio_type", STATIONS),
    ("kvsnmp_let_enable", "/state/config/lines/line/lets/let/enabled", LETS),
    ("kvsnmp_let_description", "/state/config/lines/line/lets/let/let_description", LETS),
    ("kvsnmp_let_hw_version", "/state/lines/line/lets/let/hw_version", LETS),
    ("kvsnmp_let_sw_version", "/state/lines/line/lets/let/sw_version", LETS),
    ("kvsnmp_let_voltage", "/state/lines/line/lets/let/let_vcc", LETS),
    ("kvsnmp_lineIn_monitoring", "/state/config/lines/line/pilot_tone_sensing_enable", PILOT_TONE),
    ("kvsnmp_lineIn_monitoring", "/state/config/lines/line/mic_monitor_enable", MICROPHONES),
    ("kvsnmp_lineIn_status", "/state/lines/line/pilot_tone_state", PILOT_TONE),
    ("kvsnmp_lineIn_status", "/state/lines/mic_status_extern", MICROPHONES),
    ("kvsnmp_lineIn_status", "/state/lines/mic_status_intern", MICROPHONES),
    ("kvsnmp_line_channel_state", "/state/lines/line/characteristics/line_state", AMPLIFIERS),
    ("kvsnmp_eth_monitoring", "/state/config/os_ip/eth_switch/port/monitored", ALL - {6211, 6891}),
    ("kvsnmp_power_monitoring", "/state/config/power_sources/power_source/monitored", MEASURED),
    ("kvsnmp_power_status", "/state/power_sources/power_source/live", {6410, 6420}),
    ("kvsnmp_relay_delay", "/state/config/gpos/gpo/delay", STATIONS),
    ("kvsnmp_relay_idle_mode", "/state/config/gpos/gpo/idle_mode", STATIONS),
    ("kvsnmp_sys_messages", "/state/sys_messages/sys_message", ALL),
]


def expected_data(model: int) -> list[Subscription]:
    return [Subscription(ref, path, "change", "true", "0") for ref, path, models in DATA_IN_ORDER if model in models]


def expected_settings() -> list[Subscription]:
    return [Subscription(ref, path, "change", "true", "0") for ref, path in SETTINGS_IN_ORDER]


@pytest.fixture(scope="module")
def subscribed(start_shared_device):
    """All models side by side, each with a data service that only listens."""
    devices = {model: start_shared_device(model, "--no-simulator", "--no-dbus", "--no-traps", wait=False)
               for model in sorted(ALL)}
    services = {model: DataService(device.wait_ready().path("/run/tal.sock")) for model, device in devices.items()}
    for service in services.values():
        wait_until(lambda service=service: service.has("kvsnmp_sys_messages"), 30, what="last subscription")
    yield devices, services
    for service in services.values():
        service.close()


@pytest.mark.parametrize("model", sorted(ALL))
def test_subscriptions_in_order(subscribed, model):
    _, services = subscribed
    assert services[model].subscriptions == expected_settings() + expected_data(model)
    assert services[model].others == []


def test_settings_come_at_once_and_data_three_seconds_later_on_every_connection(subscribed):
    devices, services = subscribed
    device, service = devices[6420], services[6420]
    service.subscriptions.clear()
    service.hang_up()
    wait_until(lambda: service.has("custom_config"), 5, what="settings subscribed anew")
    assert service.subscriptions == expected_settings()
    stays(lambda: len(service.subscriptions) == 5, 2.5, what="no data subscription before 3 s")
    wait_until(lambda: service.has("kvsnmp_sys_messages"), 5, what="data subscribed anew")
    assert service.subscriptions == expected_settings() + expected_data(6420)
    assert service.connections == 2
    assert device.kvsnmp_err().count("dbgTimeout\n") == 2
