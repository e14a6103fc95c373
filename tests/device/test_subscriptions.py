"""The subscriptions of the daemon at the data service, in exact order. The unit test has every model."""
from __future__ import annotations

from support.catalogue import read
from support.dataservice import DataService, Subscription
from support.polling import stays, wait_until


def expected(block: str) -> list[Subscription]:
    return [Subscription(row["reference"], row["path"], "change", "true", "0") for row in read("subscriptions")
            if row["block"] == block and (row["models"] == "all" or "6420" in row["models"].split())]


def test_settings_come_at_once_and_data_three_seconds_later_on_every_connection(start_device):
    device = start_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    service = DataService(device.path("/run/tal.sock"))
    for connection in (1, 2):
        wait_until(lambda: service.has("custom_config"), 30, what="settings subscribed")
        assert service.subscriptions == expected("settings")
        stays(lambda: len(service.subscriptions) == 5, 2.5, what="no data subscription before 3 s")
        wait_until(lambda: service.has("kvsnmp_sys_messages"), 5, what="data subscribed")
        assert service.subscriptions == expected("settings") + expected("data")
        assert (service.others, service.connections) == ([], connection)
        assert device.kvsnmp_err().count("dbgTimeout\n") == connection
        service.subscriptions.clear()
        service.hang_up()
    service.close()
