#!/usr/bin/python3
"""Takes pictures of web pages with Chromium, each cropped to one element: pictures.py FOLDER < STEPS

STEPS is a JSON list. A step has a url, and a picture's file name with the selector of its element; fields to fill in and
elements to press come first; hide are elements to leave out.
"""
from __future__ import annotations

import json
import sys
import tempfile
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.common.by import By
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--no-first-run", "--disable-sync",
           "--disable-background-networking", "--disable-component-update", "--disable-quic"]
SECONDS = 60
SETTLED = "return document.readyState == 'complete' && !document.querySelector('.is-loading')"


def take(driver: webdriver.Chrome, step: dict, folder: Path) -> None:
    driver.set_window_size(step.get("width", 1100), step.get("height", 1400))
    driver.get(step["url"])
    for name, text in step.get("fill", {}).items():
        driver.find_element(By.NAME, name).send_keys(text)
    for selector in step.get("press", []):
        driver.execute_script("arguments[0].click()", driver.find_element(By.CSS_SELECTOR, selector))
    wait = WebDriverWait(driver, SECONDS)
    wait.until(lambda _: driver.execute_script(SETTLED))
    if "picture" in step:
        wait.until(lambda _: driver.find_elements(By.CSS_SELECTOR, step["element"]))
        wait.until(lambda _: all(text in driver.page_source for text in step.get("texts", [])))
        for selector in step.get("hide", []):
            driver.execute_script("document.querySelectorAll(arguments[0]).forEach(one => one.remove())", selector)
        driver.find_element(By.CSS_SELECTOR, step["element"]).screenshot(str(folder / step["picture"]))


def main() -> None:
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    with tempfile.TemporaryDirectory() as home:
        for option in [*OPTIONS, f"--user-data-dir={home}"]:
            options.add_argument(option)
        driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        try:
            for step in json.load(sys.stdin):
                take(driver, step, Path(sys.argv[1]))
        finally:
            driver.quit()


if __name__ == "__main__":
    main()
