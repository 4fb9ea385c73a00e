"""The search page in headless Chromium: type, see highlighted matches, open a file, go back."""

from __future__ import annotations

import os

import pytest
from selenium import webdriver
from selenium.common.exceptions import NoAlertPresentException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

from live_server import make_repo, serving


@pytest.fixture(scope="module")
def page(tmp_path_factory):
    root = make_repo(tmp_path_factory.mktemp("site"), {
        "main.py": "import sys\n\ndef greet(name):\n    print('hi', name)\n",
        "evil.html": "<script>alert(1)</script> greet\n",
    })
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=420,800"):
        options.add_argument(flag)
    # Debian's browser and driver: a missing one fails the test rather than skipping it. The
    # sanitizers' preloaded runtime is for the server's module, not for the browser.
    env = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    driver = webdriver.Chrome(options=options, service=Service("/usr/bin/chromedriver", env=env))
    with serving(root) as base:
        driver.get(base)
        yield driver, WebDriverWait(driver, 30)
    driver.quit()


def test_search_open_a_file_and_go_back(page):
    driver, wait = page
    driver.find_element(By.ID, "q").send_keys("greet")
    wait.until(lambda d: "2 matches in 2 files" in d.find_element(By.ID, "summary").text)
    assert {mark.text for mark in driver.find_elements(By.CSS_SELECTOR, "mark")} == {"greet"}
    # The file holding markup shows it as text, and nothing of it runs.
    shown = [row.text for row in driver.find_elements(By.CSS_SELECTOR, ".match .text")]
    assert "<script>alert(1)</script> greet" in shown
    with pytest.raises(NoAlertPresentException):
        driver.switch_to.alert.text  # noqa: B018
    # By keyboard: Enter on a focused match opens its file at that line.
    link = driver.find_element(By.CSS_SELECTOR, "a[data-path='main.py']")
    driver.execute_script("arguments[0].focus()", link)
    link.send_keys(Keys.ENTER)
    target = wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "tr.target"))
    assert target[0].text == "3 def greet(name):" and "line=3" in driver.current_url
    driver.back()
    wait.until(lambda d: d.find_element(By.ID, "results").is_displayed())
    assert driver.find_element(By.ID, "q").get_attribute("value") == "greet"
    driver.forward()
    driver.refresh()  # a shared link shows the same line
    assert wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "tr.target"))[0].text[:2] == "3 "


def test_a_query_with_fields_opens_a_file_beside_its_outline(page):
    driver, wait = page
    box = driver.find_element(By.ID, "q")
    box.clear()
    box.send_keys("greet -file:\\.html$ lang:py")
    wait.until(lambda d: "1 match in 1 file" in d.find_element(By.ID, "summary").text)
    driver.find_element(By.CSS_SELECTOR, "a.match[data-path='main.py']").click()
    wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "tr.target"))
    outline = wait.until(lambda d: d.find_elements(By.CSS_SELECTOR, "#outline a"))
    assert [link.text for link in outline] == ["function greet"]
    assert [row.text for row in driver.find_elements(By.CSS_SELECTOR, "tr.definition")] == [
        "3 def greet(name):"]
