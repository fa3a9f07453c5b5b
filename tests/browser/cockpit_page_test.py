#!/usr/bin/python3
"""The Cockpit page played by a person in headless Chromium (driven by Selenium).

Started by cockpit-browser-test.sh, which prepares the machine root, chronyd -x and cockpit-ws.
Every case prints "ok: ..." or "FAIL: ..."; the last line counts them; the exit code is 1 when one
failed. Screenshots of the five tabs and of the drift graph window go to the artefact folder.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import time
import traceback

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

TABS = ["Client", "Server", "Agent", "Service", "About"]


def resource_ids(path):
    ids = {}
    with open(path) as f:
        for line in f:
            m = re.match(r"#define\s+(ID\w+)\s+(-?\d+)", line)
            if m:
                ids[m.group(1)] = int(m.group(2))
    return ids


class Page:
    def __init__(self, args):
        self.args = args
        self.ids = resource_ids(args.ids)
        options = webdriver.ChromeOptions()
        for a in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                  "--window-size=1100,1000", "--user-data-dir=" + os.path.join(args.work, "chromium")]:
            options.add_argument(a)
        options.binary_location = "/usr/bin/chromium"
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.passed = 0
        self.failed = 0

    def control(self, window, name, part=""):
        return self.driver.find_element(By.ID, "w%d-%d%s" % (window, self.ids[name], part))

    def wait(self, what, condition, seconds=20):
        return WebDriverWait(self.driver, seconds, poll_frequency=0.1).until(
            lambda d: condition(), message="waited %d s for %s" % (seconds, what))

    def text(self, window, name):
        return self.control(window, name).text

    def shot(self, name):
        self.driver.save_screenshot(os.path.join(self.args.artefacts, "cockpit-%s.png" % name))

    def tab(self, title):
        page = TABS.index(title)
        self.driver.find_element(By.ID, "tab-%d" % page).click()
        self.wait(title + " shown", lambda: self.driver.find_element(By.ID, "page-%d" % page).is_displayed())
        return page

    def answer(self, text):
        modal = self.driver.find_element(By.ID, "modal")
        for b in modal.find_elements(By.CSS_SELECTOR, "button[data-answer]"):
            if b.text == text:
                b.click()
                return
        raise AssertionError("no button %r in the question" % text)

    def case(self, name, fn):
        try:
            fn()
            self.passed += 1
            print("ok:", name, flush=True)
        except Exception:
            self.failed += 1
            print("FAIL:", name, flush=True)
            traceback.print_exc()
            self.shot("failed-" + re.sub(r"\W+", "-", name))


def chronwarden(*args):
    return subprocess.run(["chronwarden", *args], capture_output=True, text=True, check=True).stdout


def applet_processes(root):
    """Sheet processes of this test's machine root that still run."""
    found = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/cmdline" % pid, "rb") as f:
                cmd = f.read().split(b"\0")
            with open("/proc/%s/environ" % pid, "rb") as f:
                env = f.read().split(b"\0")
        except OSError:
            continue
        if b"applet" in cmd and ("CHRONWARDEN_ROOT=" + root).encode() in env:
            found.append(pid)
    return found


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--url", required=True)
    parser.add_argument("--ids", required=True)
    parser.add_argument("--artefacts", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    p = Page(args)
    d = p.driver
    root = os.environ["CHRONWARDEN_ROOT"]
    try:
        d.get(args.url)

        def five_tabs_and_version():
            p.wait("the sheet", lambda: d.find_element(By.ID, "sheet").is_displayed())
            assert [d.find_element(By.ID, "tab-%d" % i).text for i in range(5)] == TABS
            p.wait("the version line", lambda: "Chronwarden Version " in p.text(0, "IDC_TITLE"))
            assert d.find_element(By.ID, "sheet-title").text == "Windows Time Service - LOCALHOST"
        p.case("sees the five tabs and the version line", five_tabs_and_version)

        def second_server():
            edit = p.control(0, "IDC_SERVER2")
            p.wait("server 2 enabled", edit.is_enabled)
            edit.send_keys("ntp2.example")
            mode = p.control(0, "IDC_MODE2")
            p.wait("its mode enabled", mode.is_enabled)
            Select(mode).select_by_index(3)
            apply = d.find_element(By.ID, "sheet-apply")
            p.wait("Apply enabled", apply.is_enabled)
            apply.click()
            p.wait("Apply done", lambda: not apply.is_enabled())
            servers = json.loads(chronwarden("config", "show", "--json"))["servers"]
            assert [(s["name"], s["flags"]) for s in servers] == [("127.0.0.1", 1), ("ntp2.example", 8)], servers
        p.case("sets a second NTP server with its mode and applies", second_server)

        def refused_input():
            interval = p.control(0, "IDC_SPECIAL_INTERVAL")
            before = interval.get_attribute("value")
            interval.send_keys("x")
            p.wait("the refused letter gone", lambda: interval.get_attribute("value") == before)
        p.case("a letter typed into a digits-only box is refused and undone", refused_input)

        def client_status():
            p.wait("the clock status", lambda: p.text(0, "IDC_STATUS_TEXT") == "Clock synchronized to within 1 second", 30)
            p.shot("client")
        p.case("the Client page judges the clock against chronyd", client_status)

        def test_server():
            server = p.tab("Server")
            p.shot("server")
            p.control(server, "IDC_SERVE_ENABLED", "-input").click()
            button = p.control(server, "IDC_TEST_SERVER")
            p.wait("Test Server enabled", button.is_enabled)
            button.click()
            p.wait("the verdict", lambda: "The time being served appears relatively accurate."
                   in p.text(server, "IDC_TEST_RESULT"), 30)
        p.case("presses Test Server against chronyd -x and reads the verdict", test_server)

        def sync_now_question():
            p.tab("Client")
            button = p.control(0, "IDC_SYNC_NOW")
            p.wait("Sync Now enabled", button.is_enabled)
            button.click()
            modal = d.find_element(By.ID, "modal")
            p.wait("the question", modal.is_displayed)
            assert d.find_element(By.ID, "modal-title").text == "Chronwarden"
            assert "apply your changes before" in d.find_element(By.ID, "modal-body").text
            p.shot("question")
            p.answer("Cancel")
            p.wait("the question gone", lambda: not modal.is_displayed())
            assert d.find_element(By.ID, "sheet-apply").is_enabled()
        p.case("answers Sync Now's message box with Cancel", sync_now_question)

        def graph():
            agent = p.tab("Agent")
            p.shot("agent")
            button = p.control(agent, "IDC_SHOW_GRAPH")
            p.wait("Show Graph enabled", button.is_enabled)
            button.click()
            frame = p.wait("the graph window", lambda: d.find_elements(By.CSS_SELECTOR, "#windows .cw-window"))[0]
            window = int(frame.get_attribute("id").split("-")[1])
            plot = p.control(window, "IDC_GRAPH_PLOT")
            p.wait("the plot", lambda: plot.find_elements(By.CSS_SELECTOR, "img.cw-picture"))
            p.wait("the picture drawn", lambda: d.execute_script(
                "const i = arguments[0].querySelector('img.cw-picture'); return i.complete && i.naturalWidth > 0", plot))
            p.shot("graph")
            surface = d.find_element(By.ID, "window-%d" % window)
            # Along the zero line until the hand shows over a point; click there.
            w, h = plot.size["width"], plot.size["height"]
            hit = None
            for dy in (0, -2, 2, -4, 4):
                for x in range(2, w - 2, 3):
                    ActionChains(d).move_to_element_with_offset(plot, x - w // 2, dy).perform()
                    time.sleep(0.03)
                    if surface.get_attribute("data-cursor") == "hand":
                        hit = (x - w // 2, dy)
                        break
                if hit:
                    break
            assert hit, "no point under the mouse along the zero line"
            ActionChains(d).move_to_element_with_offset(plot, *hit).click().perform()
            p.wait("the check's description", lambda: "Check #" in p.text(window, "IDC_GRAPH_DESCRIPTION"))
            description = p.text(window, "IDC_GRAPH_DESCRIPTION")
            assert "2023" in description and "Variance was 0.000 seconds." in description, description
            p.shot("graph-selected")
            d.find_element(By.ID, "close-%d" % window).click()
            p.wait("the graph closed", lambda: not d.find_elements(By.ID, "frame-%d" % window))
        p.case("opens the drift graph and reads the selected check's description", graph)

        def clear_history():
            agent = TABS.index("Agent")
            history = p.control(agent, "IDC_HISTORY")
            assert len(history.find_elements(By.CSS_SELECTOR, ".cw-row")) == 1
            p.control(agent, "IDC_CLEAR_HISTORY").click()
            p.wait("the question", d.find_element(By.ID, "modal").is_displayed)
            p.answer("Yes")
            p.wait("the list emptied", lambda: not history.find_elements(By.CSS_SELECTOR, ".cw-row"))
            assert os.path.getsize(os.path.join(root, "system32", "drift.kr")) == 0
        p.case("answers Clear History's question with Yes", clear_history)

        def other_tabs():
            p.tab("Service")
            p.shot("service")
            p.tab("About")
            p.wait("the About page drawn", lambda: d.find_element(By.ID, "page-4").text.strip() != "")
            p.shot("about")
        p.case("shows the Service and About pages", other_tabs)

        def browser_goes():
            assert applet_processes(root), "no sheet process runs"
            d.get("about:blank")
            deadline = time.time() + 3
            while applet_processes(root) and time.time() < deadline:
                time.sleep(0.05)
            assert not applet_processes(root), "the sheet process outlived its page"
            # Serving was enabled but never applied: it is not half written.
            assert json.loads(chronwarden("config", "show", "--json"))["ntp_server_enabled"] == 0
        p.case("the sheet process ends when its page goes, applying nothing", browser_goes)
    finally:
        for entry in d.get_log("browser"):
            if entry["level"] in ("SEVERE", "WARNING"):
                print("browser:", entry["message"])
        d.quit()
    print("%d passed, %d failed" % (p.passed, p.failed))
    return 1 if p.failed else 0


if __name__ == "__main__":
    sys.exit(main())
