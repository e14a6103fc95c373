"""The subscriptions of the daemon at the data service, in exact order, for every model."""
from __future__ import annotations

import pytest
from support.catalogue import MODELS, read
from support.dataservice import DataService, Subscription
from support.polling import stays, wait_until


def expected(block: str, model: int) -> list[Subscription]:
    return [Subscription(row["reference"], row["path"], "change", "true", "0") for row in read("subscriptions")
            if row["block"] == block and (row["models"] == "all" or str(model) in row["models"].split())]


@pytest.fixture(scope="module")
def subscribed(start_shared_device):
    """All models, each with a data service that only listens."""
    devices = {model: start_shared_device(model, "--no-simulator", "--no-dbus", "--no-traps", wait=False)
               for model in MODELS}
    services = {model: DataService(device.wait_ready().path("/run/tal.sock")) for model, device in devices.items()}
    for service in services.values():
        wait_until(lambda service=service: service.has("kvsnmp_sys_messages"), 30, what="last subscription")
    yield devices, services
    for service in services.values():
        service.close()


@pytest.mark.parametrize("model", MODELS)
def test_subscriptions_in_order(subscribed, model):
    service = subscribed[1][model]
    assert service.subscriptions == expected("settings", model) + expected("data", model)
    assert service.others == []


def test_settings_come_at_once_and_data_three_seconds_later_on_every_connection(subscribed):
    device, service = subscribed[0][6420], subscribed[1][6420]
    service.subscriptions.clear()
    service.hang_up()
    wait_until(lambda: service.has("custom_config"), 5, what="settings subscribed again")
    assert service.subscriptions == expected("settings", 6420)
    stays(lambda: len(service.subscriptions) == 5, 2.5, what="no data subscription before 3 s")
    wait_until(lambda: service.has("kvsnmp_sys_messages"), 5, what="data subscribed again")
    assert service.subscriptions == expected("settings", 6420) + expected("data", 6420)
    assert service.connections == 2
    assert device.kvsnmp_err().count("dbgTimeout\n") == 2
