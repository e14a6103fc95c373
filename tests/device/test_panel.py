"""The front panel: what it shows and changes in a real browser, and what its server refuses."""
from __future__ import annotations

import http.client
import os
import shutil
import signal
import socket
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import closing
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

MIB = (CHECKOUT / "mibs/KVSNMP-MIB.txt").read_text()
HOSTILE = "<img src=x onerror=\"document.title='owned'\">"
DRAWN = ("tempCurrent fanSpeed voltageValue powerLive lineInStatus ampChannelStatus ampChannelLineState "
         "letChannel1Status letChannel2Status controlInputStatus controlOutputState ethMonitoringMonitored").split()
LOCATION = "/state/config/snmp_settings/mib_2_settings/sys_location"


def free_port(kind: int = socket.SOCK_STREAM) -> int:
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def ask(place: str, method: str, path: str, body: str = "", headers: dict[str, str] | None = None) -> tuple[int, str]:
    """The status and the text of an answer. Changes need the content type."""
    connection = http.client.HTTPConnection(place, timeout=20)
    connection.request(method, path, body.encode() or None, {"Content-Type": "application/json"} | (headers or {}))
    with connection.getresponse() as answer:
        return answer.status, f"{answer.headers}{answer.read().decode()}"


class Server:
    def __init__(self, *options: str, address: str = "127.0.0.1", folder: Path = CHECKOUT / "simulator") -> None:
        self.port = free_port()
        self.place = f"{address}:{self.port}"
        self.url = f"http://{self.place}"
        self._command = ["/usr/bin/python3", folder / "panel/server.py", "--port", str(self.port), *options]
        self.start()

    def start(self) -> None:
        self.process = subprocess.Popen(self._command, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == f"panel: {self.url}/\n"

    def close(self) -> None:
        self.process.terminate()
        self.process.wait(20)
        self.process.stdout.close()


@pytest.fixture(scope="module")
def server() -> Iterator[Server]:
    """A panel of all devices."""
    with closing(Server()) as made:
        yield made


def ports() -> list[str]:
    return ["--port", str(free_port(socket.SOCK_DGRAM)), "--trap-port", str(free_port(socket.SOCK_DGRAM))]


@pytest.fixture(scope="module")
def starting(start_shared_device) -> list[Device]:
    """The second one will be lost. Both and the browser start at the same time."""
    return [start_shared_device(6420, "--clock-shift", "--set", f"{LOCATION}={HOSTILE}", *ports(), wait=False),
            start_shared_device(6913, *ports(), wait=False)]


@pytest.fixture(scope="module")
def browser(starting, tmp_path_factory) -> Iterator[webdriver.Chrome]:
    made = chromium(tmp_path_factory.mktemp("chromium"))
    yield made
    made.quit()


@pytest.fixture(scope="module")
def device(starting, browser) -> Device:
    return starting[0].wait_ready().wait_subscribed(60)


class Page:
    """A page in the browser; texts are those that a user sees."""

    def __init__(self, browser: webdriver.Chrome, url: str) -> None:
        """Loads the page unless it is open already."""
        self.browser, self.run = browser, browser.execute_script
        if browser.current_url != url:
            browser.get("about:blank")
            complaints(browser)
            browser.get(url)

    def text(self, selector: str) -> str:
        """Of all elements, on one line; they may be replaced while they are read."""
        script = "return [...document.querySelectorAll(arguments[0])].map((found) => found.textContent).join(' ')"
        return self.run(script, selector)

    def wait_text(self, selector: str, part: str) -> None:
        wait_until(lambda: part in self.text(selector), 60, what=f"{part!r} in {selector}")

    def click(self, selector: str, name: str = "") -> None:
        script = """const items = [...document.querySelectorAll(arguments[0])];
                    const found = items.find((item) => item.textContent.includes(arguments[1]));
                    found?.scrollIntoView({block: 'center'});
                    found?.dispatchEvent(new MouseEvent('click', {bubbles: true, cancelable: true}));
                    return Boolean(found)"""
        wait_until(lambda: self.run(script, selector, name), 40, what=f"{selector} {name}")

    def choose(self, cell: str, choice: str = "") -> None:
        self.click(f'.item[data-cell="{cell}"]')
        if choice:
            self.click(".inspector .choices button", choice)

    def figures(self, cell: str) -> tuple[str, str]:
        """Device, manager."""
        return self.text(f'[data-cell="{cell}"] .figure:not(.reads)'), self.text(f'[data-cell="{cell}"] .reads')

    def wait_figures(self, cell: str, device: str, manager: str) -> None:
        wait_until(lambda: self.figures(cell) == (device, manager), 40, what=f"{cell}: {device}, {manager}")


@pytest.fixture
def page(browser, server, device) -> Iterator[Page]:
    opened = Page(browser, f"{server.url}/device/{device.name}")
    wait_until(lambda: opened.figures("fanSpeed.1")[1] not in ("", "–"), 60, what="a value that the manager read")
    yield opened
    assert complaints(browser) == []


# What the page shows and changes


def test_changed_values_reach_the_manager_when_the_caches_expire(page, device):
    page.choose("ampChannelLineState.1", "open")
    wait_until(lambda: page.figures("ampChannelLineState.1")[0] == "open", 40, what="an open line")
    page.wait_text(".state", "Fault")
    page.click(".inspector .choices button", "ok")
    page.choose("controlInputStatus.1", "ok_closed")
    wait_until(lambda: page.figures("controlInputStatus.1")[0] == "closed", 40, what="a closed input")
    page.choose("voltageValue.3")
    page.run("document.querySelector('.inspector input').value = '3.41'")
    page.click(".inspector form button")
    page.wait_figures("voltageValue.3", "3.41 V", "3.31 V")
    page.wait_text(".log", "talctl set \"/state/power_lines/power_line[kid='3v3']/voltage\" 3.41")
    assert "talctl monitor gpi 0 ok_closed" in page.text(".log")
    assert "cache" in page.text(".inspector .why")
    device.shift_clock(CACHE_SECONDS)
    page.wait_figures("voltageValue.3", "3.41 V", "3.41 V")
    page.wait_text(".inspector .why", "The manager reads the value that the device has.")
    assert "KVSNMP-MIB::voltageValue.3" in page.text(".inspector .oid")
    assert f"{COLUMN_OIDS['voltageValue']}.3" in page.text(".inspector .oid")
    page.wait_figures("controlInputStatus.1", "closed", "closed")
    page.wait_text(".state", "In order")
    page.choose("fanSpeed.1")
    wait_until(lambda: page.text(".inspector .oid span") in {f"cache {age} s old" for age in range(20)}, 40,
               what="the age of the new cache")


def test_a_message_raises_its_trap_and_is_cleared_and_texts_are_never_markup(page, device):
    page.wait_text("header p", HOSTILE)
    Select(page.browser.find_element(By.CSS_SELECTOR, ".raise select")).select_by_visible_text("let_fail")
    page.run("document.querySelector('.raise input').value = arguments[0]", HOSTILE)
    page.click(".raise button")
    page.wait_text(".traps", "letFault")
    page.wait_text(".traps .text", HOSTILE)
    page.wait_text(".faults", "let_fail")
    assert page.browser.find_elements(By.TAG_NAME, "img") == []
    assert page.browser.title == f"{device.name} · Front panel"
    page.click(".faults button", "Clear")
    page.wait_text(".faults", "No message is active.")
    assert "talctl fault clear panel let_fail" in page.text(".log")


@pytest.fixture(scope="module")
def flood(browser, server, device) -> None:
    """A scenario that takes 30 s. The tests that do not mind run meanwhile; the last one waits for its end."""
    page = Page(browser, f"{server.url}/device/{device.name}")
    page.click(".choices button", "fault flood")
    page.wait_text(".faults", "fan_not_running")
    page.click(".choices button", "mains lost")
    page.wait_text(".log li:first-child", "talctl scenario mains-lost fault-flood is running")


def test_snmpd_is_killed_and_restarted(flood, page):
    page.click("aside button", "Kill snmpd")
    page.wait_text(".state", "No answer")
    page.click("aside button", "Restart snmpd")
    wait_until(lambda: page.text(".state") in ("Fault", "In order"), 60, what="snmpd answers")


def test_the_page_has_all_rows_and_messages_and_serves_the_keyboard(flood, page):
    shown = page.run("return [...document.querySelectorAll('.item')].map((item) => item.dataset.cell)")
    assert sorted(shown) == sorted(f"{column}.{index}" for table in TABLES.values() for column, _ in table.columns
                                   if column in DRAWN for index, _ in rows(table.name, 6420))
    options = page.run("return [...document.querySelectorAll('.raise option')].map((item) => item.value)")
    levels = {"crit", "err", "warning", "notice"}
    assert set(options) - levels == {identifier for trap in TRAPS for identifier in trap.identifiers}
    assert page.run("""return [...document.querySelectorAll('button, input, select, .item')].filter((item) =>
        !(item.getAttribute('aria-label') || item.textContent.trim() || item.closest('label'))).length""") == 0
    page.run("document.querySelector('[data-cell=\"fanSpeed.1\"]').focus()")
    webdriver.ActionChains(page.browser).send_keys(Keys.ENTER).perform()
    page.wait_text(".inspector h2", "Left Fan")
    webdriver.ActionChains(page.browser).send_keys(Keys.ESCAPE).perform()
    page.wait_text(".inspector h2", "Selected value")
    assert page.run("return document.activeElement.dataset.cell") == "fanSpeed.1"


def test_a_trap_is_disabled_and_enabled(flood, page, device):
    for state, enabled in [("false", "19 of 20"), ("true", "20 of 20")]:
        page.click(".switches input")
        wait_until(lambda: f"Cooling Fan Fault\t{state}" in device.talctl("trap", "list"), what=enabled)
        page.wait_text("aside summary", f"Traps enabled: {enabled}")


def test_narrow_pages_of_the_fleet_and_of_a_device_have_nothing_beside_them(flood, server, device, browser):
    width = "return document.documentElement.scrollWidth"
    resize(browser, 390, 844)
    page = Page(browser, server.url)
    page.wait_text(f'.tile[href$="{device.name}"]', "6420")
    assert page.run(width) == 390
    page.click(f'.tile[href$="{device.name}"]')
    page.wait_text(".module", "Voltages")
    page.choose("voltageValue.1")
    assert page.run(width) == 390
    resize(browser, 1280)
    assert complaints(browser) == []


def test_the_worst_device_comes_first(flood, server, browser):
    browser.get(server.url)
    assert browser.execute_async_script("""const [states, done] = arguments;
        import('/page/fleet.js').then(({ Fleet }) => {
            const fleet = new Fleet();
            document.body.append(fleet.node);
            fleet.take({ tiles: Object.fromEntries(states.map((state) => [state, { name: state, state }])) });
            done([...fleet.node.querySelectorAll('strong')].map((name) => name.textContent));
        });""", ["ok", "notice", "warn", "bad", "silent"]) == ["silent", "bad", "warn", "notice", "ok"]


def test_a_lost_device_comes_back(flood, server, starting, start_device, browser):
    lost = starting[1].wait_ready()
    page = Page(browser, f"{server.url}/device/{lost.name}")
    page.wait_text(".state", "In order")
    lost.stop()
    page.wait_text(".state", "The device is gone")
    again = start_device(6913, "--name", lost.name, *ports(), wait=False)
    again.name = lost.name
    again.wait_ready()
    page.wait_text(".state", "In order")
    assert complaints(browser) == []


def test_a_closed_page_costs_nothing_and_a_lost_server_comes_back(flood, device, browser):
    with closing(Server()) as own:
        def open_page() -> Page:
            opened = Page(browser, f"{own.url}/device/{device.name}")
            opened.wait_text(".module", "Voltages")
            return opened

        def is_idle() -> bool:
            """It has not run for longer than its cycle."""
            switches = Path(f"/proc/{own.process.pid}/status").read_text().partition("voluntary_ctxt_switches:")[2]
            if woken[-1][0] != switches:
                woken.append((switches, time.monotonic()))
            return time.monotonic() - woken[-1][1] > 4

        open_page()
        browser.get("about:blank")
        woken = [("", 0.0)]
        wait_until(is_idle, 60, 0.1, "the panel has stopped")
        size = len(device.kvsnmp_out())
        page = open_page()
        wait_until(lambda: len(device.kvsnmp_out()) > size, 30, what="the panel asks")
        own.close()
        wait_until(lambda: not page.run("return document.getElementById('link').hidden"), 40, what="noticed")
        own.start()
        wait_until(lambda: page.run("return document.getElementById('link').hidden"), 40, what="connected again")
    complaints(browser)  # of the lost connection


# What the server refuses


@pytest.mark.parametrize("host", [
    "evil.example", "evil.example:{port}", "127.0.0.1.evil.example:{port}", "127.0.0.1:1", "127.0.0.2:{port}",
    "localhost.evil.example", "[::2]:{port}", "0.0.0.0:{port}", ":", "[", "127.0.0.1:{port}:1"])
def test_a_foreign_host_is_refused(server, host):
    for path in ("/", "/events", "/page/app.js"):
        assert ask(server.place, "GET", path, headers={"Host": host.format(port=server.port)})[0] == 403


def test_only_the_page_is_served_under_the_own_names(server):
    for host in (server.place, f"localhost:{server.port}", "127.0.0.1"):
        assert ask(server.place, "GET", "/", headers={"Host": host})[0] == 200
    for path in ("/page/../server.py", "/page/%2e%2e/server.py", "/server.py", "/device/none/events", "/page/"):
        assert ask(server.place, "GET", path)[0] in (403, 404), path
    status, text = ask(server.place, "GET", "/page/app.js")
    assert status == 200 and "default-src 'self'" in text and "frame-ancestors 'none'" in text
    assert "X-Content-Type-Options: nosniff" in text and "Access-Control-Allow-Origin" not in text


def test_unknown_actions_and_writes_of_another_origin_are_refused(flood, page, server, device):
    def click(action: str, body: str, **headers: str) -> tuple[int, str]:
        names = {name.replace("_", "-"): value for name, value in headers.items()}
        return ask(server.place, "POST", f"/device/{device.name}/{action}", body, names)

    listing = '["trap", "list"]'
    assert click("talctl", listing)[0] == click("talctl", listing, Origin=server.url)[0] == 200
    for origin in ("http://evil.example", "null", "", f"https://{server.place}", f"http://127.0.0.1:{server.port + 1}"):
        assert click("talctl", listing, Origin=origin)[0] == 403, origin
    for kind in ("text/plain", "application/x-www-form-urlencoded", "multipart/form-data"):
        assert click("talctl", listing, Content_Type=kind)[0] == 415, kind
    for action, body in [("talctl", "[1]"), ("talctl", "{}"), ("talctl", "[]"), ("talctl", "no JSON"),
                         ("agent", '"reboot"'), ("agent", "[]"), ("scenario", "{}"), ("shell", '"ls"')]:
        assert click(action, body)[0] == 400, (action, body)
    assert '{"ok": false, "text": "this model has no such scenario"}' in click("scenario", '"../../../etc/passwd"')[1]


def test_it_listens_on_loopback_unless_another_address_is_given(server):
    with pytest.raises(ConnectionRefusedError):
        ask(f"127.0.0.2:{server.port}", "GET", "/")
    with closing(Server("--listen", "127.0.0.2", address="127.0.0.2")) as other:
        assert ask(other.place, "GET", "/")[0] == 200
        assert ask(other.place, "GET", "/", headers={"Host": f"127.0.0.1:{other.port}"})[0] == 403
        with pytest.raises(ConnectionRefusedError):
            ask(f"127.0.0.1:{other.port}", "GET", "/")


# The command line


def test_a_device_with_a_panel(start_device):
    place = f"127.0.0.1:{free_port()}"
    made = start_device(6913, "--panel", place.partition(":")[2])

    def status(path: str) -> int:
        try:
            status, text = ask(place, "GET", path)
            return 302 if f"Location: /device/{made.name}\n" in text else status
        except OSError:
            return 0

    wait_until(lambda: status("/") == 302, 20, what="the panel answers")
    assert status("/events") == status("/device/another") == 404
    os.kill(made._script.pid, signal.SIGKILL)
    wait_until(lambda: status("/") == 0, 20, what="the panel has ended")


def test_the_installed_panel_finds_its_files(tmp_path, device):
    """The package has the panel and the catalogue beside devicelib."""
    for folder in ("scripts/devicelib", "simulator/panel", "simulator/scenarios", "tests/catalogue"):
        shutil.copytree(CHECKOUT / folder, tmp_path / Path(folder).name)
    with closing(Server(folder=tmp_path)) as installed:
        assert "app.js" in ask(installed.place, "GET", "/")[1]
        connection = http.client.HTTPConnection(installed.place, timeout=20)
        connection.request("GET", f"/device/{device.name}/events")
        with connection.getresponse() as stream:
            wait_until(lambda: b'"voltageValue.3"' in stream.readline(), 20, what="the device's cells")


def test_a_panel_that_cannot_start_is_refused(monkeypatch):
    with socket.create_server(("127.0.0.1", 0)) as other:
        port = other.getsockname()[1]
        done = subprocess.run([CHECKOUT / "scripts/device", "--panel", str(port)], capture_output=True, text=True,
                              check=False, timeout=60)
    assert done.returncode == 1 and f"TCP port {port}: Address already in use" in done.stderr
    monkeypatch.setattr("importlib.util.find_spec", lambda name: None)
    with pytest.raises(registry.DeviceError, match="--panel needs python3-aiohttp"):
        panel.check(free_port())


def test_the_scenario_ends(flood, page):
    page.wait_text("aside", "fault-flood has ended")
    page.wait_text(".faults", "No message is active.")


# Its facts


@pytest.mark.parametrize("model", MODELS)
def test_cells_and_words_are_those_of_the_catalogue(model):
    cells = {cell.oid: cell for cell in panel_rows.cells(model, EXTENDED, MIB)}
    for feed in feeds(model, True):
        cell = cells[feed.oid]
        assert (cell.path, cell.id) == (feed.path, f"{feed.column}.{feed.index}")
        assert set(WORDS[feed.parser].values()) <= set(cell.words)
    for table in TABLES:
        drawn = {cell.index for cell in cells.values() if cell.table == table}
        assert drawn == {index for index, _ in rows(table, model, True)}


LEVELS = {"voltage": {1068: "bad", 1092: "warn", 1152: "ok", 1200: "ok", 1248: "ok", 1308: "warn", 1332: "bad"},
          "temperature": {700: "ok", 701: "warn", 850: "warn", 851: "bad"},
          "fan": {0: "bad", 1: "warn", 499: "warn", 500: "ok"}}


@pytest.mark.parametrize("check", limits.CHECKS, ids=lambda check: check.column)
def test_the_levels_are_those_of_the_monitoring(check):
    """Of the first row of the first model; its voltage is 1.2 V."""
    cells = (cell for model in MODELS for cell in panel_rows.cells(model, EXTENDED, MIB))
    cell = next(cell for cell in cells if cell.object == check.column)
    for code, level in LEVELS.get(check.measurement, {}).items():
        assert panel_rows.level(cell, code) == level, code
    for code, word in cell.words.items():
        level = panel_rows.level(cell, code)
        assert (level == "bad") == (word in check.critical.split()), word
        assert level in ("warn", "off", "unknown", "bad") or word not in check.warning.split(), word
