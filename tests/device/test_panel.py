"""The front panel: what it shows and changes in a real browser, and what its server refuses."""
from __future__ import annotations

import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select
from support.browser import chromium, complaints, resize
from support.catalogue import COLUMN_OIDS, EXTENDED, MODELS, TABLES, TRAPS, WORDS, feeds, rows
from support.device import CHECKOUT, Device, registry
from support.polling import wait_until
from support.steps import CACHE_SECONDS

sys.path[:0] = [str(CHECKOUT / "simulator/panel"), str(CHECKOUT / "monitoring/checks")]

import limits  # noqa: E402
import rows as panel_rows  # noqa: E402
from devicelib import panel  # noqa: E402

SERVER = CHECKOUT / "simulator/panel/server.py"
MIB = (CHECKOUT / "mibs/KVSNMP-MIB.txt").read_text()
HOSTILE = "<img src=x onerror=\"document.title='owned'\">"


def free_port(kind: int = socket.SOCK_STREAM) -> int:
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    def __init__(self, *options: str, address: str = "127.0.0.1", script: Path = SERVER) -> None:
        self.address, self.port = address, free_port()
        self.process = subprocess.Popen(["/usr/bin/python3", script, "--port", str(self.port), *options], text=True,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == f"panel: http://{address}:{self.port}/\n"

    @property
    def url(self) -> str:
        return f"http://{self.address}:{self.port}"

    def ask(self, method: str, path: str, body: str = "", **headers: str) -> tuple[int, str, http.client.HTTPMessage]:
        connection = http.client.HTTPConnection(self.address, self.port, timeout=20)
        connection.request(method, path, body.encode() or None,
            {name.replace("_", "-"): value for name, value in headers.items()})
        answer = connection.getresponse()
        return answer.status, answer.read().decode(), answer.headers

    def is_idle(self) -> bool:
        """Not woken for longer than any of its cycles."""
        def wakes() -> str:
            return Path(f"/proc/{self.process.pid}/status").read_text().partition("voluntary_ctxt_switches:")[2]

        before = wakes()
        time.sleep(6)
        return wakes() == before

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(20)
        self.process.stdout.close()


@pytest.fixture(scope="module")
def server() -> Iterator[Server]:
    """A panel of all devices."""
    made = Server()
    yield made
    made.stop()


def ports() -> list[str]:
    port = free_port(socket.SOCK_DGRAM)
    return ["--port", str(port), "--trap-port", str(free_port(socket.SOCK_DGRAM))]


@pytest.fixture(scope="module")
def device(start_shared_device) -> Device:
    return start_shared_device(6420, "--clock-shift", *ports()).wait_subscribed(60)


@pytest.fixture(scope="module")
def browser(tmp_path_factory) -> Iterator[webdriver.Chrome]:
    made = chromium(tmp_path_factory.mktemp("chromium"))
    yield made
    made.quit()


class Page:
    """A page in the browser; texts are those that a user sees."""

    def __init__(self, browser: webdriver.Chrome, url: str) -> None:
        self.browser = browser
        browser.get("about:blank")
        complaints(browser)
        browser.get(url)

    def text(self, selector: str) -> str:
        """Of all elements, on one line; they may be replaced while they are read."""
        script = "return [...document.querySelectorAll(arguments[0])].map((found) => found.textContent).join(' ')"
        return self.browser.execute_script(script, selector)

    def wait_text(self, selector: str, part: str, timeout: float = 40.0) -> None:
        wait_until(lambda: part in self.text(selector), timeout, what=f"{part!r} in {selector}")

    def click(self, selector: str, name: str = "") -> None:
        def press() -> bool:
            script = """const found = [...document.querySelectorAll(arguments[0])].find((item) => item.textContent.includes(arguments[1]));
                        found?.scrollIntoView({block: 'center'}); found?.dispatchEvent(new MouseEvent('click',
                            {bubbles: true, cancelable: true}));
                        return Boolean(found)"""
            return self.browser.execute_script(script, selector, name)
        wait_until(press, 40, what=f"{selector} {name}")

    def select(self, cell: str) -> None:
        self.click(f'.item[data-cell="{cell}"]')

    def figures(self, cell: str) -> tuple[str, str]:
        """Device, manager."""
        return self.text(f'[data-cell="{cell}"] .figure:not(.reads)'), self.text(f'[data-cell="{cell}"] .reads')


@pytest.fixture
def page(browser: webdriver.Chrome, server: Server, device: Device) -> Iterator[Page]:
    resize(browser, 1280)
    opened = Page(browser, f"{server.url}/device/{device.name}")
    wait_until(lambda: opened.figures("fanSpeed.1")[1] not in ("", "–"), 60, what="a value that the manager read")
    yield opened
    assert complaints(browser) == []


# What the page shows


def test_the_drawing_has_each_row_of_the_model(page):
    shown = page.browser.execute_script("return [...document.querySelectorAll('.item')].map((item) => item.dataset.cell)")
    expected = {f"{column}.{index}" for table, column in [
        ("tempTable", "tempCurrent"), ("fanTable", "fanSpeed"), ("voltageTable", "voltageValue"), ("powerTable",
            "powerLive"),
        ("lineInTable", "lineInStatus"), ("ampChannelTable", "ampChannelStatus"), ("ampChannelTable",
            "ampChannelLineState"),
        ("letChannel1Table", "letChannel1Status"), ("letChannel2Table", "letChannel2Status"),
        ("controlInputTable", "controlInputStatus"), ("controlOutputTable", "controlOutputState"),
        ("ethMonitoringTable", "ethMonitoringMonitored")] for index, _ in rows(table, 6420)}
    assert set(shown) == expected and len(shown) == len(expected)


def test_a_changed_value_reaches_the_manager_when_the_cache_expires(page, device):
    page.select("voltageValue.3")
    page.browser.execute_script("document.querySelector('.inspector input').value = '3.41'")
    page.click(".inspector form button")
    wait_until(lambda: page.figures("voltageValue.3") == ("3.41 V", "3.31 V"), 20,
        what="only the device's value is new")
    command = "talctl set \"/state/power_lines/power_line[kid='3v3']/voltage\" 3.41"
    page.wait_text(".log", command)
    assert "cache" in page.text(".inspector .why")
    device.shift_clock(CACHE_SECONDS)
    wait_until(lambda: page.figures("voltageValue.3") == ("3.41 V", "3.41 V"), 40, what="the manager's value follows")
    page.wait_text(".inspector .why", "The manager reads the value that the device has.")
    assert "KVSNMP-MIB::voltageValue.3" in page.text(".inspector .oid")
    assert f"{COLUMN_OIDS['voltageValue']}.3" in page.text(".inspector .oid")


def test_the_age_of_a_cache_counts_from_the_last_read(page, device):
    device.shift_clock(CACHE_SECONDS)
    page.select("fanSpeed.1")
    wait_until(lambda: page.text(".inspector .oid span") in {f"cache {age} s old" for age in range(20)}, 40,
        what="a new cache")


def test_a_broken_line_and_a_switched_input(page, device):
    page.select("ampChannelLineState.1")
    page.click(".inspector .choices button", "open")
    page.wait_text('[data-cell="ampChannelLineState.1"] .figure:not(.reads)', "open")
    page.wait_text(".state", "Fault")
    page.click(".inspector .choices button", "ok")
    page.select("controlInputStatus.1")
    page.click(".inspector .choices button", "ok_closed")
    page.wait_text('[data-cell="controlInputStatus.1"] .figure:not(.reads)', "closed")
    device.shift_clock(CACHE_SECONDS)
    page.wait_text('[data-cell="controlInputStatus.1"] .reads', "closed")
    page.wait_text(".state", "In order")
    assert "talctl monitor gpi 0 ok_closed" in page.text(".log")


def test_a_message_raises_its_trap_and_is_cleared(page):
    Select(page.browser.find_element(By.CSS_SELECTOR, ".raise select")).select_by_visible_text("let_fail")
    page.browser.execute_script("document.querySelector('.raise input').value = arguments[0]", HOSTILE)
    page.click(".raise button")
    page.wait_text(".traps", "letFault")
    page.wait_text(".traps .text", HOSTILE)
    page.wait_text(".faults", "let_fail")
    page.click(".faults button", "Clear")
    page.wait_text(".faults", "No message is active.")
    assert "talctl fault clear panel let_fail" in page.text(".log")


def test_all_messages_can_be_raised(page):
    options = page.browser.execute_script("return [...document.querySelectorAll('.raise option')].map((item) => item.value)")
    for trap in TRAPS:
        assert set(trap.identifiers) <= set(options), trap.name
    assert len(set(options) - {"crit", "err", "warning", "notice"}) == 38


def test_a_trap_is_disabled_and_enabled(page, device):
    page.click(".switches input")
    wait_until(lambda: "Cooling Fan Fault\tfalse" in device.talctl("trap", "list"), what="disabled")
    page.wait_text("aside summary", "Traps enabled: 19 of 20")
    page.click(".switches input")
    wait_until(lambda: "Cooling Fan Fault\ttrue" in device.talctl("trap", "list"), what="enabled")


def test_a_scenario_runs(page):
    page.click(".choices button", "fault flood")
    page.wait_text(".faults", "fan_not_running")
    page.click(".choices button", "mains lost")
    page.wait_text(".log li:first-child", "talctl scenario mains-lost fault-flood is running")
    page.wait_text("aside", "fault-flood has ended", 60)
    page.wait_text(".faults", "No message is active.")


def test_texts_of_a_device_are_never_markup(page, device):
    path = "/state/config/snmp_settings/mib_2_settings/sys_location"
    before = device.talctl("get", path).strip()
    device.talctl("set", path, HOSTILE)
    page.wait_text("header p", HOSTILE)
    assert page.browser.find_elements(By.TAG_NAME, "img") == []
    assert page.browser.title == f"{device.name} · Front panel"
    device.talctl("set", path, before)
    page.wait_text("header p", before)


def test_snmpd_is_killed_and_restarted(page):
    page.click("aside button", "Kill snmpd")
    page.wait_text(".state", "No answer")
    page.click("aside button", "Restart snmpd")
    page.wait_text(".state", "In order", 60)


def test_the_keyboard_opens_and_closes_a_value(page):
    page.browser.execute_script("document.querySelector('[data-cell=\"fanSpeed.1\"]').focus()")
    webdriver.ActionChains(page.browser).send_keys(Keys.ENTER).perform()
    page.wait_text(".inspector h2", "Left Fan")
    webdriver.ActionChains(page.browser).send_keys(Keys.ESCAPE).perform()
    page.wait_text(".inspector h2", "Selected value")
    assert page.browser.execute_script("return document.activeElement.dataset.cell") == "fanSpeed.1"
    unnamed = page.browser.execute_script("""return [...document.querySelectorAll('button, input, select, .item')].filter((item) =>
        !(item.getAttribute('aria-label') || item.textContent.trim() || item.closest('label'))).length""")
    assert unnamed == 0


@pytest.mark.parametrize("path", ["", "/device/{name}"], ids=["fleet", "device"])
def test_a_narrow_page_has_nothing_beside_it(page, server, device, path):
    resize(page.browser, 390, 844)
    page.browser.get(server.url + path.format(name=device.name))
    page.wait_text(".tile" if not path else ".module", device.name if not path else "Voltages")
    if path:
        page.select("voltageValue.1")
    assert page.browser.execute_script("return document.documentElement.scrollWidth") == 390


def test_a_tile_opens_its_device(page, server, device):
    page.browser.get(server.url)
    page.wait_text(".tile strong", device.name)
    page.wait_text(f'.tile[href$="{device.name}"]', "6420")
    page.browser.execute_script("document.querySelector(arguments[0]).click()", f'.tile[href$="{device.name}"]')
    page.wait_text(".module", "Voltages")


def test_the_worst_device_comes_first(page, server):
    page.browser.get(server.url)
    shown = page.browser.execute_async_script("""const [states, done] = arguments;
        import('/page/fleet.js').then(({ Fleet }) => {
            const fleet = new Fleet();
            document.body.append(fleet.node);
            fleet.take({ tiles: Object.fromEntries(states.map((state) => [state, { name: `is-${state}`, state }])) });
            done([...fleet.node.querySelectorAll('strong')].map((name) => name.textContent));
        });""", ["ok", "notice", "warn", "bad", "silent"])
    assert shown == ["is-silent", "is-bad", "is-warn", "is-notice", "is-ok"]


def test_a_closed_page_costs_nothing(server, device, browser):
    browser.get("about:blank")
    wait_until(lambda: server.is_idle(), 60, what="the panel has stopped")
    size = device.path("/var/log/kvsnmp.out").stat().st_size
    Page(browser, f"{server.url}/device/{device.name}").wait_text(".module", "Voltages")
    wait_until(lambda: device.path("/var/log/kvsnmp.out").stat().st_size > size, 30, what="the panel asks")


def test_a_lost_device_comes_back(server, start_device, browser):
    options = ports()
    lost = start_device(6913, *options)
    page = Page(browser, f"{server.url}/device/{lost.name}")
    page.wait_text(".state", "In order", 60)
    lost.stop()
    page.wait_text(".state", "The device is gone")
    subprocess.run([str(CHECKOUT / "scripts/device"), "list"], check=True, stdout=subprocess.DEVNULL)
    again = start_device(6913, "--name", lost.name, *options, wait=False)
    again.name = lost.name
    again.wait_ready()
    page.wait_text(".state", "In order", 60)
    assert complaints(browser) == []


def test_a_lost_server_comes_back(tmp_path, device, browser):
    server = Server()
    page = Page(browser, f"{server.url}/device/{device.name}")
    page.wait_text(".module", "Voltages", 60)
    server.stop()
    wait_until(lambda: not browser.execute_script("return document.getElementById('link').hidden"), 40, what="noticed")
    port, server.port = server.port, server.port
    server.process = subprocess.Popen(["/usr/bin/python3", SERVER, "--port", str(port)], text=True,
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    wait_until(lambda: browser.execute_script("return document.getElementById('link').hidden"), 40,
        what="connected again")
    server.stop()
    complaints(browser)  # of the lost connection


# What the server refuses


@pytest.mark.parametrize("host", ["evil.example", "evil.example:{port}", "127.0.0.1.evil.example:{port}", "127.0.0.1:1",
                                  "127.0.0.2:{port}", "localhost.evil.example", "[::2]:{port}", "0.0.0.0:{port}", ":", "[", "127.0.0.1:{port}:1"])
def test_a_foreign_host_is_refused(server, host):
    for path in ("/", "/events", "/page/app.js"):
        assert server.ask("GET", path, Host=host.format(port=server.port))[0] == 403


@pytest.mark.parametrize("host", ["127.0.0.1:{port}", "localhost:{port}", "127.0.0.1"])
def test_the_own_host_is_served(server, host):
    assert server.ask("GET", "/", Host=host.format(port=server.port))[0] == 200


def click(server: Server, device: Device, **headers: str) -> int:
    headers = {"Content_Type": "application/json"} | headers
    return server.ask("POST", f"/device/{device.name}/talctl", json.dumps(["trap", "list"]), **headers)[0]


def test_writes_of_another_origin_are_refused(server, device, browser):
    Page(browser, f"{server.url}/device/{device.name}").wait_text(".module", "Voltages", 60)
    assert click(server, device) == 200
    assert click(server, device, Origin=server.url) == 200
    for origin in ("http://evil.example", "null", "", f"https://127.0.0.1:{server.port}",
        f"http://127.0.0.1:{server.port + 1}"):
        assert click(server, device, Origin=origin) == 403, origin
    for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data"):
        assert click(server, device, Content_Type=kind) == 415, kind


@pytest.mark.parametrize(("action", "body"),
    [("talctl", "[1]"), ("talctl", "{}"), ("talctl", "[]"), ("talctl", "no JSON"), ("agent", '"reboot"'),
                                              ("agent", "[]"), ("scenario", "{}"), ("shell", '"ls"')])
def test_an_unknown_action_is_refused(server, device, action, body):
    assert server.ask("POST", f"/device/{device.name}/{action}", body, Content_Type="application/json")[0] == 400


def test_an_unknown_scenario_is_refused(server, device):
    status, text, _ = server.ask("POST", f"/device/{device.name}/scenario", '"../../../etc/passwd"',
        Content_Type="application/json")
    assert status == 200 and not json.loads(text)["ok"]


def test_only_the_page_is_served(server):
    for path in ("/page/../server.py", "/page/%2e%2e/server.py", "/server.py", "/device/none/events", "/page/"):
        assert server.ask("GET", path)[0] in (403, 404), path
    status, _, headers = server.ask("GET", "/page/app.js")
    assert status == 200
    assert "default-src 'self'" in headers["Content-Security-Policy"] and "frame-ancestors 'none'" in headers["Content-Security-Policy"]
    assert headers["X-Content-Type-Options"] == "nosniff" and "Access-Control-Allow-Origin" not in headers


def test_it_listens_on_loopback_only_unless_told(server):
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.2", server.port), timeout=5)
    other = Server("--listen", "127.0.0.2", address="127.0.0.2")
    try:
        assert other.ask("GET", "/")[0] == 200
        assert other.ask("GET", "/", Host=f"127.0.0.1:{other.port}")[0] == 403
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", other.port), timeout=5)
    finally:
        other.stop()


# The command line


def test_a_device_with_a_panel(start_device):
    port = free_port()
    made = start_device(6913, "--panel", str(port))

    def ask(path: str) -> tuple[int, str]:
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
        try:
            connection.request("GET", path)
            answer = connection.getresponse()
            return answer.status, answer.headers.get("Location", "")
        except OSError:
            return 0, ""

    wait_until(lambda: ask("/") == (302, f"/device/{made.name}"), 20, what="the panel answers")
    assert ask("/events")[0] == ask("/device/another")[0] == 404
    os.kill(made._script.pid, signal.SIGKILL)
    wait_until(lambda: ask("/") == (0, ""), 20, what="the panel has ended")


def test_the_installed_panel_finds_its_files(tmp_path, device):
    """The package has the panel and the catalogue beside devicelib."""
    for folder in ("scripts/devicelib", "simulator/panel", "simulator/scenarios", "tests/catalogue"):
        shutil.copytree(CHECKOUT / folder, tmp_path / Path(folder).name)
    installed = Server(script=tmp_path / "panel/server.py")
    try:
        status, text, _ = installed.ask("GET", "/")
        assert status == 200 and "app.js" in text
        connection = http.client.HTTPConnection(installed.address, installed.port, timeout=20)
        connection.request("GET", f"/device/{device.name}/events")
        with connection.getresponse() as stream:
            wait_until(lambda: b'"voltageValue.3"' in stream.readline(), 20, what="the device's cells")
    finally:
        installed.stop()


def test_a_port_in_use_is_named():
    with socket.socket() as other:
        other.bind(("127.0.0.1", 0))
        other.listen()
        port = other.getsockname()[1]
        done = subprocess.run([CHECKOUT / "scripts/device", "--panel", str(port)], capture_output=True, text=True,
            check=False, timeout=60)
        assert done.returncode == 1 and f"TCP port {port}: Address already in use" in done.stderr


def test_a_missing_library_is_named(monkeypatch):
    monkeypatch.setattr("importlib.util.find_spec", lambda name: None)
    with pytest.raises(registry.DeviceError, match="--panel needs python3-aiohttp"):
        panel.check(free_port())


# Its facts


@pytest.mark.parametrize("model", MODELS)
def test_cells_are_those_of_the_catalogue(model):
    cells = {cell.oid: cell for cell in panel_rows.cells(model, EXTENDED, MIB)}
    for feed in feeds(model, True):
        if feed.column in ("lineInStatus", "lineInMicStatus") and feed.oid not in cells:
            pytest.fail(feed.oid)
        assert (cells[feed.oid].path, cells[feed.oid].id) == (feed.path, f"{feed.column}.{feed.index}")
    for table in TABLES:
        assert {cell.index for cell in cells.values() if cell.table == table} == {index for index,
            _ in rows(table, model, True)}


def level_of(column: str) -> Callable[[int], str]:
    """That of the first row of the first model; its voltage is 1.2 V."""
    cell = next(cell for model in MODELS for cell in panel_rows.cells(model, EXTENDED, MIB) if cell.object == column)
    return lambda code: panel_rows.level(cell, code)


@pytest.mark.parametrize("check", limits.CHECKS, ids=lambda check: check.column)
def test_the_levels_are_those_of_the_monitoring(check):
    if check.measurement == "voltage":
        shown = {percent: level_of(check.column)(round(1200 * (1 + percent / 100)))
            for percent in (-11, -9, -4, 0, 4, 9, 11)}
        assert shown == {-11: "bad", -9: "warn", -4: "ok", 0: "ok", 4: "ok", 9: "warn", 11: "bad"}
    elif check.measurement == "temperature":
        assert [level_of(check.column)(tenths) for tenths in (700, 701, 850, 851)] == ["ok", "warn", "warn", "bad"]
    elif check.measurement == "fan":
        assert [level_of(check.column)(rpm) for rpm in (0, 1, 499, 500)] == ["bad", "warn", "warn", "ok"]
    else:
        for code, word in panel_rows.states(MIB)[check.column].items():
            shown = level_of(check.column)(code)
            assert (shown == "bad") == (word in check.critical.split()), word
            assert shown in ("warn", "off", "unknown", "bad") or word not in check.warning.split(), word


@pytest.mark.parametrize("name", [name for name, words in WORDS.items() if words])
def test_words_of_the_data_service_are_states_of_the_mib(name):
    column = {feed.parser: feed.column for model in MODELS for feed in feeds(model, True)}.get(name)
    if column:
        assert set(WORDS[name].values()) <= set(panel_rows.states(MIB)[column])
