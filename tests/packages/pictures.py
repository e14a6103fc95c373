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

from selenium.webdriver.common.by import By
from selenium.webdriver.remote.webdriver import WebDriver
from selenium.webdriver.support.ui import WebDriverWait

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "device"))

from support.browser import chromium, resize  # noqa: E402  (the path has to be set first)

SETTLED = "return document.readyState == 'complete' && !document.querySelector('.is-loading')"


def take(driver: WebDriver, step: dict, folder: Path) -> None:
    resize(driver, step.get("width", 1100), step.get("height", 1400))
    driver.get(step["url"])
    for name, text in step.get("fill", {}).items():
        driver.find_element(By.NAME, name).send_keys(text)
    for selector in step.get("press", []):
        driver.execute_script("arguments[0].click()", driver.find_element(By.CSS_SELECTOR, selector))
    wait = WebDriverWait(driver, 60)
    wait.until(lambda _: driver.execute_script(SETTLED))
    if "picture" in step:
        wait.until(lambda _: driver.find_elements(By.CSS_SELECTOR, step["element"]))
        wait.until(lambda _: all(text in driver.page_source for text in step.get("texts", [])))
        for selector in step.get("hide", []):
            driver.execute_script("document.querySelectorAll(arguments[0]).forEach(one => one.remove())", selector)
        driver.find_element(By.CSS_SELECTOR, step["element"]).screenshot(str(folder / step["picture"]))


def main() -> None:
    with tempfile.TemporaryDirectory() as home:
        driver = chromium(Path(home))
        driver.execute_cdp_cmd("Emulation.setScrollbarsHidden", {"hidden": True})
        try:
            for step in json.load(sys.stdin):
                take(driver, step, Path(sys.argv[1]))
        finally:
            driver.quit()


if __name__ == "__main__":
    main()
