#!/usr/bin/python3
"""The gateway's live page in a real browser: what `ktanalytics replay` sends on the three
roads appears on it with its name, road and broken rules, a filter hides the rest, a pause
holds rows back, and a reload lists the same items from the store.

Usage: live_page_test.py KTANALYTICS_TOOL OUTPUT_DIR (the screenshot goes there)."""

import json
import os
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

WAIT_S = 10


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_gateway(base, gateway):
    deadline = time.monotonic() + WAIT_S
    while time.monotonic() < deadline:
        if gateway.poll() is not None:
            raise RuntimeError("the gateway exited with %d" % gateway.returncode)
        try:
            with urllib.request.urlopen(base + "/stats", timeout=1):
                return
        except OSError:
            time.sleep(0.1)
    raise RuntimeError("the gateway did not answer at " + base)


def replay(tool, base, folder, lines, name):
    path = os.path.join(folder, name + ".jsonl")
    with open(path, "w") as f:
        f.write("\n".join(json.dumps(line) for line in lines) + "\n")
    run = subprocess.run([tool, "replay", path, "--gateway", base, "--state-dir", os.path.join(folder, name),
                          "--timeout", "20"], capture_output=True, text=True, timeout=60)
    if run.returncode != 0:
        raise RuntimeError("replay exited with %d: %s" % (run.returncode, run.stderr))


def rows(driver, visible_only=False):
    """(road, name, rules) of each row, top to bottom."""
    found = []
    for tr in driver.find_elements(By.CSS_SELECTOR, "#rows tr.item"):
        if visible_only and not tr.is_displayed():
            continue
        found.append((tr.get_attribute("data-road"), tr.find_element(By.CSS_SELECTOR, "td.name").text,
                      tr.get_attribute("data-rules")))
    return found


def wait_until(driver, what, check):
    try:
        return WebDriverWait(driver, WAIT_S, poll_frequency=0.1).until(lambda d: check())
    except TimeoutException:
        raise AssertionError("within %d s: %s; rows: %s" % (WAIT_S, what, rows(driver)))


def expect(actual, expected, what):
    if actual != expected:
        raise AssertionError("%s: expected %r, got %r" % (what, expected, actual))


def check_page(tool, base, folder, driver, shot):
    driver.get(base + "/")
    wait_until(driver, "the live stream is open",
               lambda: driver.find_element(By.ID, "connection").get_attribute("data-state") == "live")

    liked = {"track_urn": "quillarbor:tracks:1", "ui_component_name": None, "ui_component_urn": None}
    replay(tool, base, folder, [
        {"name": "pageview", "attributes": {"page_name": "home", "user": "quillarbor:users:7"}},
        {"track": "Track Liked", "version": 1, "properties": liked},
        {"track": "No Such Event", "version": 1, "properties": {"a": 1}},
        {"track": "Track Liked", "version": 1, "properties": dict(liked, colour="red")},
        {"name": "promoted_event", "attributes": {"url": base + "/track/impression/1"}},
    ], "first")
    # Order across roads depends on which uploader sends first; within a road it is kept.
    expected = sorted([("event", "pageview", ""), ("message", "Track Liked", ""),
                       ("message", "No Such Event", "unknown_event"), ("message", "Track Liked", "unknown_key"),
                       ("tracking", "/track/impression/1", "")])
    wait_until(driver, "the five items arrive live", lambda: sorted(rows(driver)) == expected)
    messages = [r for r in rows(driver) if r[0] == "message"]
    expect([r[2] for r in messages], ["unknown_key", "unknown_event", ""], "messages, newest first")

    wait_until(driver, "the counters follow", lambda: driver.find_element(By.ID, "count-message").text == "3" and
               driver.find_elements(By.ID, "violations-unknown_event") and
               driver.find_element(By.ID, "violations-unknown_event").text == "1")
    expect(driver.find_element(By.ID, "count-event").text, "1", "events counted")
    expect(driver.find_element(By.ID, "count-tracking").text, "1", "tracking requests counted")

    road = Select(driver.find_element(By.ID, "filter-road"))
    road.select_by_value("tracking")
    expect(rows(driver, visible_only=True), [("tracking", "/track/impression/1", "")], "rows of the tracking road")
    road.select_by_value("")
    name = driver.find_element(By.ID, "filter-name")
    name.send_keys("no such")
    expect(rows(driver, visible_only=True), [("message", "No Such Event", "unknown_event")], "rows named 'no such'")
    name.clear()
    name.send_keys(" ")  # clear() fires no input event; this does, and a blank matches all
    expect(len(rows(driver, visible_only=True)), 5, "rows shown once the filter is cleared")

    broken = driver.find_element(By.XPATH, "//tr[contains(@class,'item')][td[@class='name'][.='No Such Event']]")
    broken.click()
    detail = broken.find_element(By.XPATH, "following-sibling::tr[1]").text
    for part in ["unknown_event", '"event": "No Such Event"', '"kt": {', '"client_application_id": 1']:
        if part not in detail:
            raise AssertionError("the opened row lacks %r: %s" % (part, detail))
    broken.click()  # closes it again
    tracking = driver.find_element(By.XPATH, "//tr[@data-road='tracking']")
    tracking.click()
    detail = tracking.find_element(By.XPATH, "following-sibling::tr[1]").text
    for part in ['"target": "/track/impression/1"', '"method": "GET"', '"headers": {']:
        if part not in detail:
            raise AssertionError("the opened tracking row lacks %r: %s" % (part, detail))
    driver.save_screenshot(shot)

    driver.find_element(By.ID, "pause").click()
    replay(tool, base, folder, [{"name": "pageview", "attributes": {"page_name": "later"}}], "paused")
    wait_until(driver, "the pause counts what arrives",
               lambda: driver.find_element(By.ID, "paused-count").text == "1 new while paused")
    expect(len(rows(driver)), 5, "rows while paused")
    driver.find_element(By.ID, "pause").click()
    expect(rows(driver)[0], ("event", "pageview", ""), "the top row once resumed")
    if "1 new while paused" not in driver.find_element(By.ID, "notice").text:
        raise AssertionError("no note of what came while paused")

    shown = sorted(rows(driver))
    driver.refresh()
    wait_until(driver, "a reload lists the same items from the store", lambda: sorted(rows(driver)) == shown)


def main():
    tool, out = sys.argv[1], sys.argv[2]
    os.makedirs(out, exist_ok=True)
    shot = os.path.join(out, "live-page.png")
    port = free_port()
    base = "http://127.0.0.1:%d" % port
    with tempfile.TemporaryDirectory() as folder:
        log = open(os.path.join(folder, "gateway.log"), "w+")
        gateway = subprocess.Popen([tool, "gateway", "--port", str(port)], stdout=log, stderr=subprocess.STDOUT)
        driver = None
        try:
            wait_for_gateway(base, gateway)
            options = webdriver.ChromeOptions()
            options.binary_location = "/usr/bin/chromium"
            for argument in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                             "--window-size=1366,900"]:
                options.add_argument(argument)
            driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
            check_page(tool, base, folder, driver, shot)
            print("live page: ok; screenshot in " + shot)
            return 0
        except Exception as error:  # the failure, the gateway's log and the page's console
            print("live page: FAILED: %s" % error, file=sys.stderr)
            log.seek(0)
            print("gateway log:\n" + log.read(), file=sys.stderr)
            if driver is not None:
                driver.save_screenshot(os.path.join(out, "live-page-failed.png"))
                for entry in driver.get_log("browser"):
                    print("console: %s" % entry, file=sys.stderr)
            return 1
        finally:
            if driver is not None:
                driver.quit()
            gateway.terminate()
            try:
                gateway.wait(timeout=10)
            except subprocess.TimeoutExpired:
                gateway.kill()
                print("live page: the gateway did not stop within 10 s of SIGTERM", file=sys.stderr)
                return 1


if __name__ == "__main__":
    sys.exit(main())
