"""Debian's Chromium without a screen, for tests of pages."""
from __future__ import annotations

import os
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service


def chromium(folder: Path, width: int = 1280, height: int = 900) -> webdriver.Chrome:
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--no-proxy-server",
        f"--user-data-dir={folder}",
                     *(["--no-sandbox"] if os.geteuid() == 0 else [])):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    resize(browser, width, height)
    return browser


def resize(browser: webdriver.Chrome, width: int, height: int = 900) -> None:
    """The width of the page, which a window cannot make as narrow as a telephone."""
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                            {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})


def complaints(browser: webdriver.Chrome) -> list[str]:
    """Messages of the console since the last call."""
    return [entry["message"] for entry in browser.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]
