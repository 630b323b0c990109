#!/usr/bin/python3
"""The console page in a real browser, against orv-web, orvd with the
scheduler plug-in, the Time service and a client object on a private bus.

usage: console_test.py ORVD ORV_TIME ORV_CLI PLUGIN DEFINITION ORV_WEB ARTEFACT_DIR

What the page does is checked where it lands: on the bus, read back with
orv-cli. Screenshots of a desktop and a phone window go to ARTEFACT_DIR.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request

# The dependency script installs Selenium, Chromium and its driver, so a
# missing one is a broken set-up and fails the test rather than skip it.
NEEDED = "scripts/install-deps.sh installs python3-selenium, chromium and chromium-driver"
try:
    from selenium import webdriver
    from selenium.common.exceptions import NoSuchElementException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support import expected_conditions
    from selenium.webdriver.support.ui import Select
except ImportError as error:
    sys.exit("console_test: cannot import Selenium (%s); %s" % (error, NEEDED))

DAY, SLOT = 86400, 1800
LISTENING = re.compile(r"listening on (http://127\.0\.0\.1:\d+/)")


def at(day, hour, minute=0, second=0):
    """Seconds from Monday 00:00."""
    return day * DAY + hour * 3600 + minute * 60 + second


def span(begin, end, state="on"):
    return {"state": state, "begin": begin, "end": end}


# Weekday evenings, Monday's with odd seconds: a save that rounded the
# entries to half hours would show.
EVENING = [span(at(0, 18, 0, 17), at(0, 22, 59, 43))] + \
    [span(at(d, 18), at(d, 23)) for d in range(1, 5)]
SCHEDULES = {"evening": EVENING,
             "morning": [span(at(d, 6, 30), at(d, 7, 30)) for d in range(5)],
             "kids-room": [span(at(d, 19), at(d, 20, 30)) for d in range(7)]}


def css(root, selector):
    return root.find_element(By.CSS_SELECTOR, selector)


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def wait_for(predicate, what, timeout=20):
    """The predicate's first true value; an element not there yet counts as false."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        try:
            value = predicate()
            if value:
                return value
        except NoSuchElementException:
            pass
        time.sleep(0.1)
    raise AssertionError("timed out waiting for " + what)


class Stack:
    """The processes under test, each with its output in files of its own."""

    def __init__(self, programs):
        (self.orvd, self.time, self.cli, self.plugin, self.definition, self.web,
         self.artefacts) = programs
        self.dir = tempfile.mkdtemp(prefix="console-test-")
        self.procs = []

    def start(self, name, argv):
        with open(os.path.join(self.dir, name + ".out"), "wb") as out, \
                open(os.path.join(self.dir, name + ".log"), "wb") as err:
            self.procs.append(subprocess.Popen(argv, stdout=out, stderr=err,
                                               stdin=subprocess.DEVNULL))

    def start_bus(self):
        self.start("bus", ["dbus-daemon", "--session", "--nofork", "--print-address"])
        out = os.path.join(self.dir, "bus.out")
        self.addr = wait_for(lambda: re.match(r"(.+)\n", read(out)), "the private bus").group(1)

    def run_cli(self, *args):
        return subprocess.run([self.cli, "--bus", self.addr, *args], capture_output=True,
                              text=True, timeout=10)

    def call(self, function, **args):
        done = self.run_cli("call", "Scheduler", function, json.dumps(args))
        if done.returncode != 0:
            raise RuntimeError("%s failed: %s" % (function, done.stderr.strip()))
        return json.loads(done.stdout)["out"]

    def schedule(self, id):
        return self.call("getSchedule", type="Light", ID=id)["scheduleInfo"]

    def add(self, id, entries):
        info = {"ID": id, "enable": True, "base": "Weekly", "def": "off", "override": ""}
        self.call("addSchedule", type="Light", info=dict(info, schedule=entries))

    def start_scheduler(self, name="orvd"):
        """Starts orvd, and registers the type and its schedules once it is up."""
        self.start(name, [self.orvd, "--bus", self.addr, "--plugin", self.plugin,
                          "--definition", self.definition])
        self.scheduler = self.procs[-1]
        wait_for(lambda: self.run_cli("call", "Scheduler", "getScheduleTypes", "{}")
                 .returncode == 0, "the scheduler to be on the bus")
        self.call("registerScheduleType", type="Light", path="Device.Light", states=["on", "off"])
        for id, entries in SCHEDULES.items():
            self.add(id, entries)
            wait_for(lambda: self.schedule(id)["value"] != "Unsynchronized",
                     "the client to get the state of " + id)

    def start_all(self):
        self.start_bus()
        bus = ["--bus", self.addr]
        self.start("time", [self.time, *bus, "--status", "Synchronized"])
        self.start("client", [self.cli, *bus, "serve", "Device.Light"])
        self.start_scheduler()
        token_file = os.path.join(self.dir, "token")
        self.start("web", [self.web, *bus, "--listen", "127.0.0.1:0", "--token-file", token_file])
        out = os.path.join(self.dir, "web.out")
        self.url = wait_for(lambda: LISTENING.search(read(out)), "orv-web to listen").group(1)
        self.token = read(token_file).splitlines()[0]

    def api(self, path):
        request = urllib.request.Request(self.url + "api/" + path,
                                         headers={"Authorization": "Bearer " + self.token})
        with urllib.request.urlopen(request, timeout=10) as answer:
            return json.load(answer)

    def stop(self):
        # Last started, first stopped: the bus goes after everything on it.
        for proc in reversed(self.procs):
            proc.terminate()
            try:
                proc.wait(5)
            except subprocess.TimeoutExpired:
                proc.kill()
                proc.wait()

    def print_logs(self):
        for name in sorted(set(os.listdir(self.dir)) - {"token"}):
            text = read(os.path.join(self.dir, name))
            if text.strip():
                print("--- %s\n%s" % (name, text), file=sys.stderr)


class Console(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.profile = tempfile.mkdtemp(prefix="console-browser-")
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for arg in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                    "--no-first-run", "--disable-background-networking", "--disable-sync",
                    "--disable-component-update", "--user-data-dir=" + cls.profile):
            options.add_argument(arg)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.driver = webdriver.Chrome(service=Service(shutil.which("chromedriver")),
                                      options=options)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def setUp(self):
        self.driver.set_window_size(1280, 900)
        # Patterns of the failed calls a test makes on purpose.
        self.provoked = ()

    def tearDown(self):
        # A script error, a missing file (even the icon) or a call that
        # failed unasked shows in the browser's log as SEVERE.
        severe = [e["message"] for e in self.driver.get_log("browser") if e["level"] == "SEVERE"
                  and not any(re.search(p, e["message"]) for p in self.provoked)]
        self.assertEqual(severe, [], "the browser logged errors")

    def open(self):
        # about:blank first: the same address with another fragment would
        # not load the page again.
        self.driver.get("about:blank")
        self.driver.get(self.stack.url + "#token=" + self.stack.token)
        self.card("evening")
        self.assertNotIn("token", self.driver.current_url, "the token stays in the address bar")

    def card(self, id):
        selector = 'section.schedule[data-type="Light"][data-id="%s"]' % id
        return wait_for(lambda: css(self.driver, selector), "the card of " + id)

    def gone(self, id):
        selector = 'section.schedule[data-id="%s"]' % id
        wait_for(lambda: not self.driver.find_elements(By.CSS_SELECTOR, selector),
                 "the card of %s to go" % id)

    def on_bus(self, id, key, expected):
        deadline = time.monotonic() + 10
        while self.stack.schedule(id)[key] != expected and time.monotonic() < deadline:
            time.sleep(0.1)
        self.assertEqual(self.stack.schedule(id)[key], expected)

    # Named to run first, so that the desktop picture shows the schedules
    # as set up and not as other tests left them.
    def test_at_a_glance(self):
        before = self.stack.api("types/Light/schedules/evening")["grid"]["now"]
        self.open()
        wait_for(lambda: css(self.driver, "#stream-state").text == "live", "the live stream")
        legend = [c.text for c in self.driver.find_elements(By.CSS_SELECTOR, ".legend .chip")]
        self.assertEqual(legend, ["on", "off", "a schedule's default"])
        for id in SCHEDULES:
            with self.subTest(id=id):
                shown = [css(self.card(id), s).text for s in (".current-state", ".next-change")]
                next_local = self.stack.api("types/Light/schedules/" + id)["nextLocal"]
                self.assertEqual(shown, [self.stack.schedule(id)["value"], next_local])
        # The present moment sits in the cell of the gateway's clock, read
        # before and after; a half hour may have begun in between.
        cell = css(self.card("evening"), "td.cell:has(.now-line)")
        after = self.stack.api("types/Light/schedules/evening")["grid"]["now"]
        slots = {(now // DAY, now % DAY // SLOT) for now in (before, after)}
        marked = tuple(int(cell.get_attribute(a)) for a in ("data-day", "data-slot"))
        self.assertIn(marked, slots)
        self.assertIn("today", cell.find_element(By.XPATH, "../th").get_attribute("class").split())
        # The window as tall as the page, so that the picture shows all of it.
        height = self.driver.execute_script(
            "return document.documentElement.scrollHeight + outerHeight - innerHeight")
        self.driver.set_window_size(1280, height)
        self.driver.save_screenshot(os.path.join(self.stack.artefacts, "console-desktop.png"))

    def test_draw_on_the_grid(self):
        # A span shorter than a half hour, which a save must keep as it is.
        short = span(at(5, 9), at(5, 9, 20, 34))
        self.stack.add("evening", EVENING + [short])
        self.open()
        card = self.card("evening")
        cell = lambda d, k: css(card, 'td.cell[data-day="%d"][data-slot="%d"]' % (d, k))
        wait_for(lambda: cell(5, 18).get_attribute("data-state") == "on", "the short span")
        # (state, pressed cell, released cell): Tue-Wed 07:00-09:00 drawn
        # from its far corner, and Monday 20:00-21:00 erased out of a span.
        for state, press, release in [("on", (2, 17), (1, 14)), ("off", (0, 40), (0, 41))]:
            Select(css(card, "select.paint-state")).select_by_value(state)
            ActionChains(self.driver).click_and_hold(cell(*press)) \
                .move_to_element(cell(*release)).release().perform()
        self.assertEqual(cell(1, 15).get_attribute("data-state"), "on", "no preview")
        css(card, "button.save-grid").click()
        self.on_bus("evening", "schedule", [
            span(at(0, 18, 0, 17), at(0, 20)), span(at(0, 21), at(0, 22, 59, 43)),
            span(at(1, 7), at(1, 9)), span(at(1, 18), at(1, 23)),
            span(at(2, 7), at(2, 9)), span(at(2, 18), at(2, 23))] + EVENING[3:] + [short])
        wait_for(lambda: not css(card, "button.save-grid").is_displayed(),
                 "the saved edits to be no longer pending")
        self.assertEqual([cell(2, 14).get_attribute("data-state"),
                          cell(0, 40).get_attribute("data-state")], ["on", "off"])

    def test_text_errors_point_at_their_column(self):
        self.provoked = (r"/schedules/evening - .* status of 400",)
        self.open()
        before = self.stack.schedule("evening")
        card = self.card("evening")
        css(card, ".text-area summary").click()
        field = css(card, "textarea.text-form")
        for text, column in [("weekly: Mon-Fri 07:0-08:30 on; default off", 17),
                             ("weekly: Mon-Fri 07:00-08:30 dim; default off", 29),
                             ("weekly: Mon 07:00-08:30 on; default", 36)]:
            with self.subTest(text=text):
                field.clear()
                field.send_keys(text)
                css(card, "button.save-text").click()
                error = wait_for(lambda: css(card, '.text-error[data-column="%d"]' % column),
                                 "the error at column %d" % column)
                at_column = min(column - 1, len(text))
                self.assertEqual(error.text.splitlines()[-2:], [text, " " * at_column + "^"])
                self.assertEqual(self.driver.execute_script(
                    "return arguments[0].selectionStart", field), at_column)
        self.assertEqual(self.stack.schedule("evening"), before, "a refused text changed it")

    def test_controls_and_the_bus(self):
        self.open()
        card = self.card("morning")
        override = lambda value: Select(css(card, "select.override")).select_by_value(value)
        enable = lambda: css(card, "input.enable").click()
        # (action on the page, key of getSchedule, what the bus then holds)
        for action, key, value in [(enable, "enable", False), (enable, "enable", True),
                                   (lambda: override("on"), "override", "on"),
                                   (lambda: override(""), "override", "")]:
            with self.subTest(key=key, value=value):
                action()
                self.on_bus("morning", key, value)
        # After each temporary override made on the bus: the state, and the
        # next change as the gateway reads it.
        first = "off" if self.stack.schedule("morning")["value"] == "on" else "on"
        for state in (first, "on" if first == "off" else "off"):
            self.stack.call("overrideState", type="Light", ID="morning", State=state)
            wait_for(lambda: css(card, ".current-state").text == state, "the badge: " + state)
            next_local = self.stack.api("types/Light/schedules/morning")["nextLocal"]
            wait_for(lambda: css(card, ".next-change").text == next_local,
                     "the next change to read " + next_local)

    def test_banner_while_the_scheduler_is_away(self):
        self.provoked = (r"/api/.* status of 502",)
        self.open()
        banner = css(self.driver, "#banner")
        self.stack.scheduler.terminate()
        self.stack.scheduler.wait(5)
        try:
            wait_for(lambda: "Scheduler not on the bus" in banner.text, "the banner")
        finally:
            self.stack.start_scheduler("orvd-again")
        wait_for(lambda: not banner.is_displayed(), "the banner to go")
        self.card("evening")

    def test_schedules_come_and_go(self):
        self.open()
        form = css(self.driver, '.type[data-type="Light"] form.new-schedule')
        css(form, ".new-id").send_keys("garden")
        css(form, ".new-text").send_keys("daily: 20:00-22:00 on; default off")
        css(form, "button[type=submit]").click()
        self.on_bus("garden", "schedule", [span(at(0, 20), at(0, 22))])
        css(self.card("garden"), "button.delete").click()
        wait_for(lambda: expected_conditions.alert_is_present()(self.driver),
                 "the question to delete").accept()
        self.gone("garden")
        self.assertNotIn("garden", self.stack.run_cli("list", "Scheduler.Types.Light.Schedules")
                         .stdout)
        # Added and removed on the bus, not by the page.
        self.stack.add("shed", [span(at(3, 6), at(3, 7))])
        self.card("shed")
        self.stack.call("removeSchedules", type="Light", ID=["shed"])
        self.gone("shed")

    def test_without_a_token_the_page_asks_for_one(self):
        self.provoked = (r"/api/.* status of 401",)
        self.open()
        self.driver.execute_script("sessionStorage.clear()")
        self.driver.get(self.stack.url)
        form, message = css(self.driver, "#token-form"), css(self.driver, "#token-message")
        wait_for(form.is_displayed, "the token form")
        self.assertFalse(self.driver.find_elements(By.CSS_SELECTOR, "section.schedule"))
        # (token typed, what the page then shows)
        for token, settled in [("not-the-token", lambda: "refused" in message.text),
                               (self.stack.token, lambda: not form.is_displayed())]:
            css(self.driver, "#token-input").send_keys(token + "\n")
            wait_for(settled, "the page after the token " + token)
        self.card("evening")

    def test_phone_width(self):
        self.driver.set_window_size(390, 844)
        self.open()
        page = "const e = document.documentElement; return [e.scrollWidth, e.clientWidth]"
        self.assertLessEqual(*self.driver.execute_script(page), "the page scrolls sideways")
        # The whole grid in sight: a finger that draws cannot scroll it too.
        grid = css(self.card("evening"), ".grid-scroll")
        self.assertLessEqual(self.driver.execute_script("return arguments[0].scrollWidth", grid),
                             grid.size["width"], "the grid is cut off")
        self.driver.save_screenshot(os.path.join(self.stack.artefacts, "console-phone.png"))


def main():
    if len(sys.argv) != 8:
        sys.exit(__doc__.split("\n\n")[1])
    missing = [name for name in ("chromium", "chromedriver") if not shutil.which(name)]
    if missing:
        sys.exit("console_test: %s not found; %s" % (" and ".join(missing), NEEDED))
    stack = Stack(sys.argv[1:])
    os.makedirs(stack.artefacts, exist_ok=True)
    ok = False
    try:
        stack.start_all()
        Console.stack = stack
        ok = unittest.main(argv=sys.argv[:1], exit=False, verbosity=2).result.wasSuccessful()
    finally:
        stack.stop()
        if not ok:
            stack.print_logs()
        shutil.rmtree(stack.dir, ignore_errors=True)
    sys.exit(0 if ok else 1)


if __name__ == "__main__":
    main()
