"""Checks the page of the conformance report as a browser shows it.

Each test opens a sample in headless Chromium. After each, whatever it was about,
the console must be empty and nothing may have been asked for but the page itself.

The browser loads, lays out, draws and dispatches input in its own time, so the tests
wait for conditions. `open` returns when the page is put together and laid out; what
it shows from then on is checked at once. What an interaction changes is checked with
`eventually`, which repeats the check until it holds or the limit is over.

Usage: page_test.py RENDER_REPORT [TEST...]
KAVRI_PAGE_SLOWDOWN=6 in the environment slows the browser's processor down six times.
"""

import itertools
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from selenium import webdriver
from selenium.common.exceptions import (NoSuchElementException, StaleElementReferenceException,
                                        TimeoutException)
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.actions.wheel_input import ScrollOrigin
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

import samples

RENDER_REPORT = None
MODULE = pathlib.Path(__file__).parent.parent / "test_ipc_initiator.cpp"
SLOWDOWN = int(os.environ.get("KAVRI_PAGE_SLOWDOWN", "1"))
# Reached only by a test that fails.
LIMIT_SECONDS = 40
POLL_SECONDS = 0.02
# What a search or a read answers while the page is being drawn anew.
BEING_DRAWN = (NoSuchElementException, StaleElementReferenceException)
# The check of contrast asks this of body text, as WCAG 2 does at its level AA.
LEAST_CONTRAST = 4.5

# Whether the page under this address is put together: the list of the sections is its
# last part.
IS_PUT_TOGETHER = """
return location.href === arguments[0] && document.readyState === "complete"
  && document.querySelector("#contents > ul") !== null;
"""

# Calls back when the page is laid out as it is now. A frame runs its callbacks before
# its layout and its resize observers, so only the next frame's callback comes after both.
AFTER_LAYOUT = """
const done = arguments[arguments.length - 1];
requestAnimationFrame(() => requestAnimationFrame(() => done()));
"""

# How many visible time lines are not drawn yet, or not in the width that they have.
UNDRAWN_TIME_LINES = """
return [...document.querySelectorAll(".plot")].filter((plot) => plot.clientWidth > 0
  && Number(plot.querySelector("svg")?.getAttribute("width")) !== plot.clientWidth).length;
"""

# Opens what can be seen and is closed, some at a time; how many these were.
OPEN_CLOSED = """
const closed = [...document.querySelectorAll("button.disclosure[aria-expanded=false]")]
  .filter((button) => button.checkVisibility()).slice(0, 40);
closed.forEach((button) => button.click());
return closed.length;
"""

# The centre of an element within the window, in one step: a time line replaces its
# elements whenever it is drawn.
CENTRE_IN_WINDOW = """
const node = document.querySelector(arguments[0]);
node.scrollIntoView({ block: "nearest" });
const box = node.getBoundingClientRect();
return [Math.round(box.x + box.width / 2), Math.round(box.y + box.height / 2)];
"""

# Texts with too little contrast to what is behind them: [text, ratio] each.
FAINT_TEXTS = """
const channels = (colour) => colour.match(/[\\d.]+/g).map(Number);
const luminance = (colour) => {
  const [r, g, b] = channels(colour).slice(0, 3).map((value) => value / 255)
    .map((value) => (value <= 0.04045 ? value / 12.92 : ((value + 0.055) / 1.055) ** 2.4));
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const behind = (node) => {
  for (; node; node = node.parentElement) {
    const colour = getComputedStyle(node).backgroundColor;
    if (channels(colour)[3] !== 0) return colour;
  }
  return "rgb(255, 255, 255)";
};
const faint = [];
for (const node of document.querySelectorAll("body *:not(svg *):not(script):not(style)")) {
  const text = [...node.childNodes].filter((child) => child.nodeType === Node.TEXT_NODE)
    .map((child) => child.textContent.trim()).join("");
  if (text === "" || node.getClientRects().length === 0) continue;
  const [a, b] = [luminance(getComputedStyle(node).color), luminance(behind(node))];
  const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
  if (ratio < arguments[0]) faint.push([text, ratio]);
}
return faint;
"""

# What is wider than the box that it is in, and so is cut off or has to be scrolled to.
CUT_OFF = """
return [...document.querySelectorAll("body *:not(svg *):not(.unseen):not(thead)")]
  .filter((node) => getComputedStyle(node).overflowX !== "visible" && node.clientWidth > 0
    && node.scrollWidth > node.clientWidth)
  .map((node) => `${node.tagName} ${node.className} ${node.textContent.slice(0, 60)}`);
"""

# What makes a page hard to use without eyes or without a mouse.
OBSTACLES = """
const found = [];
const all = (selector) => [...document.querySelectorAll(selector)];
const nameOf = (node) => (node.getAttribute("aria-label") || node.textContent).trim();
for (const node of all("th:not([scope])")) found.push("th without scope: " + node.textContent);
for (const node of all("table")) if (!node.caption) found.push("table without caption");
for (const node of all("button")) if (!nameOf(node)) found.push("button without name");
for (const node of all("input, select"))
  if (!document.querySelector(`label[for="${node.id}"]`)) found.push("field without label");
for (const node of all("svg"))
  if (!node.closest("[aria-hidden]") && !node.getAttribute("aria-label")) found.push("svg without name");
for (const node of all("[aria-controls]"))
  if (!document.getElementById(node.getAttribute("aria-controls"))) found.push("controls nothing");
const ids = all("[id]").map((node) => node.id);
if (new Set(ids).size !== ids.length) found.push("an id twice");
let level = 0;
for (const node of all("h1, h2, h3, h4")) {
  const own = Number(node.tagName[1]);
  if (own > level + 1) found.push("a heading too deep: " + node.textContent);
  level = own;
}
if (all("h1").length !== 1 || all("main").length !== 1) found.push("not one h1 and one main");
return found;
"""


def chromium(javascript=True):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    # Without a sandbox, as root or in a container it does not start otherwise; the
    # page is ours.
    for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                     "--disable-background-networking", "--no-first-run", "--window-size=1200,900"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    if not javascript:
        options.add_experimental_option(
            "prefs", {"profile.managed_default_content_settings.javascript": 2})
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def waitFor(browser, condition, what):
    """Waits until `condition()` is true; `what` says in the error what did not come."""
    wait = WebDriverWait(browser, LIMIT_SECONDS, POLL_SECONDS, BEING_DRAWN)
    try:
        return wait.until(lambda _: condition())
    except TimeoutException:
        raise AssertionError(f"within {LIMIT_SECONDS} s there was not {what}") from None


def eventually(check):
    """Repeats `check` until it raises nothing; at the limit its error is the test's."""
    deadline = time.monotonic() + LIMIT_SECONDS
    while True:
        try:
            return check()
        except (AssertionError, *BEING_DRAWN):
            if time.monotonic() >= deadline:
                raise
        time.sleep(POLL_SECONDS)


def render(report):
    return subprocess.run([RENDER_REPORT], input=json.dumps(report).encode(), check=True,
                          stdout=subprocess.PIPE).stdout


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.browser = chromium()
        cls.browser.set_script_timeout(LIMIT_SECONDS)
        cls.browser.execute_cdp_cmd("Emulation.setCPUThrottlingRate", {"rate": SLOWDOWN})
        cls.numbers = itertools.count()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        cls.folder.cleanup()

    def setUp(self):
        self.opened = set()
        self.setMedia("light", 1200)
        self.addCleanup(self.expectQuiet, self.browser)

    def setMedia(self, scheme, width):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        waitFor(self.browser, lambda: self.browser.execute_script(
            "return innerWidth === arguments[0] && matchMedia(arguments[1]).matches",
            width, f"(prefers-color-scheme: {scheme})"), f"a {scheme} page {width} px wide")

    def write(self, name):
        """The address of a sample's page, which no page before has had."""
        path = pathlib.Path(self.folder.name, f"{next(self.numbers)}-{name}.html")
        path.write_bytes(render(samples.SAMPLES[name]()))
        self.opened.add(path.as_uri())
        return path.as_uri()

    def open(self, name):
        address = self.write(name)
        self.browser.get(address)
        waitFor(self.browser, lambda: self.browser.execute_script(IS_PUT_TOGETHER, address),
                f"the page of the sample '{name}'")
        self.browser.execute_async_script(AFTER_LAYOUT)

    def expectQuiet(self, browser):
        self.assertEqual(browser.get_log("browser"), [])
        messages = [json.loads(entry["message"])["message"] for entry in browser.get_log("performance")]
        asked = {message["params"]["request"]["url"] for message in messages
                 if message["method"] == "Network.requestWillBeSent"}
        self.assertEqual([url for url in asked - self.opened if not url.startswith("data:")], [])

    def all(self, selector):
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def texts(self, selector):
        return [node.text for node in self.all(selector)]

    def button(self, text, within="body"):
        return waitFor(self.browser, lambda: next(
            (node for node in self.all(f"{within} button") if node.text.endswith(text)), None),
            f"a button '{text}' in {within}")

    def waitUntilDrawn(self):
        """Waits for the time lines: each is drawn once the page is laid out, and anew when
        its width changes."""
        self.browser.execute_async_script(AFTER_LAYOUT)
        waitFor(self.browser, lambda: self.browser.execute_script(UNDRAWN_TIME_LINES) == 0,
                "a drawing in each visible time line")

    def openCase(self, name):
        self.button(name, "#cases").click()
        waitFor(self.browser, lambda: self.all("#cases .plot svg"), f"a time line of {name}")
        self.waitUntilDrawn()

    def centreOf(self, selector):
        return self.browser.execute_script(CENTRE_IN_WINDOW, selector)

    def pointAt(self, selector):
        actions = ActionChains(self.browser)
        actions.w3c_actions.pointer_action.move_to_location(*self.centreOf(selector))
        actions.perform()

    def openEverything(self):
        """Opens all that can be opened, but of the matrix only the first faults."""
        while self.browser.execute_script(OPEN_CLOSED) > 0:
            if len(self.all("table.matrix tr.details:not([hidden])")) > 5:
                break
        self.waitUntilDrawn()

    # --- what the page says --------------------------------------------------

    def test_overviewSaysVerdictCountsAndWhatWasJudged(self):
        self.open("healthy")
        self.assertEqual(self.one("h1").text.lower(), "pass")
        headline = self.one(".headline").text
        report = samples.healthy()
        checks = sum(len(case["checks"]) for case in report["libraries"][0]["cases"])
        self.assertIn("8 of 8 cases passed", headline)
        self.assertIn(f"{checks} checks", headline)
        facts = self.one("header .facts").text
        for text in (samples.CORE, "broker.sock", "2026-11-20T12:00:00Z", report["command"]):
            self.assertIn(text, facts)
        self.assertEqual(self.all("#failures"), [])

    def test_passThatIsNotConfirmedSaysSo(self):
        self.open("unconfirmed")
        self.assertEqual(self.one("h1").text.lower(), "pass, not confirmed by the other side")
        self.assertEqual(self.one("h1").get_attribute("class"), "pass")

    def test_caseOpensToItsChecksFoldedByPlace(self):
        self.open("healthy")
        button = self.button("initiatorRepeatEcho", "#cases")
        self.assertEqual(self.all(".timeline"), [])
        button.send_keys(Keys.ENTER)
        eventually(lambda: self.assertEqual(button.get_attribute("aria-expanded"), "true"))
        row = next(row for row in self.texts("table.checks tbody tr") if "payload == rpayload" in row)
        self.assertRegex(row, r"pass\s+10 ×\s+payload == rpayload")
        button.send_keys(Keys.ENTER)
        eventually(lambda: self.assertFalse(self.one("table.checks").is_displayed()))

    def test_failureShowsCheckBothValuesRecordAndCommand(self):
        self.open("failing")
        self.assertEqual(self.one("h1").text.lower(), "fail")
        self.assertEqual(len(self.all(".failure")), 6)
        echo = next(text for text in self.texts(".failure") if "initiatorRepeatEcho\n" in text)
        for text in ("payload == rpayload", "failed 3 of 10 times", "CLIENT:echo 3", "CLIENT:echa 3",
                     "kavri conformance --library /opt/kavri/lib --case"):
            self.assertIn(text, echo)
        self.assertEqual(self.one(".failure dl.values mark").text != "", True)
        around = self.texts(".failure .focus-row")
        self.assertEqual(len(around), 6)
        for table in self.all(".failure table.record"):
            self.assertGreater(len(table.find_elements(By.CSS_SELECTOR, "tbody tr")), 4)

    def test_sourceStandsBesideAFailedCheck(self):
        self.open("failing")
        lines = MODULE.read_text(encoding="utf-8").split("\n")
        echo = next(node for node in self.all(".failure") if "initiatorRepeatEcho\n" in node.text)
        shown = echo.find_elements(By.CSS_SELECTOR, "pre.source .line")
        self.assertEqual(len(shown), 7)
        here = echo.find_element(By.CSS_SELECTOR, "pre.source mark")
        self.assertEqual(here.find_element(By.CLASS_NAME, "line-number").text, "233")
        self.assertIn(lines[232].strip(), here.text)

    def test_placeOfACheckOpensToItsSource(self):
        self.open("healthy")
        self.openCase("initiatorRepeatEcho")
        self.assertEqual(self.all("table.checks pre.source"), [])
        place = self.button("test_ipc_initiator.cpp(234)", "table.checks")
        place.send_keys(Keys.ENTER)
        eventually(lambda: self.assertEqual(
            self.one("table.checks pre.source mark .line-number").text, "234"))

    def test_casesAreSearchedAndFiltered(self):
        self.open("failing")

        def shown():
            return [row.text for row in self.all("table.cases > tbody > tr:not(.details)")
                    if row.is_displayed()]

        field = self.one("#case-filter")
        field.send_keys("callback")
        eventually(lambda: self.assertEqual(len(shown()), 3))
        self.assertIn("3 of 8 cases", self.one("#cases .filter").text)
        field.send_keys(" subscribe")
        eventually(lambda: self.assertIn("initiatorRepeatEventCallback", " ".join(shown())))
        self.assertEqual(len(shown()), 1)
        field.send_keys(Keys.CONTROL + "a" + Keys.NULL + Keys.BACKSPACE)
        # A value that a check compared is found as well.
        field.send_keys("CLIENT:echa 3")
        eventually(lambda: self.assertEqual(len(shown()), 2))
        field.send_keys(Keys.CONTROL + "a" + Keys.NULL + Keys.BACKSPACE)
        self.one("#case-state").send_keys("pass")
        eventually(lambda: self.assertEqual(len(shown()), 2))
        self.assertTrue(all("pass" in row for row in shown()))

    def test_levelsStandBesideCasesAndChecks(self):
        self.open("healthy")
        row = next(row for row in self.texts("table.cases > tbody > tr") if "NonBlocking" in row)
        self.assertIn("should", row)
        self.openCase("initiatorRepeatEchoNonBlocking")
        check = next(row for row in self.texts("table.checks tbody tr") if "uuid == ruuid" in row)
        self.assertIn("should", check)

    def test_earlierRunAndWhatIsNoLongerTrueAreShown(self):
        self.open("compared")
        self.assertIn("known.txt:3: unexpected pass", self.one("header .complaint").text)
        rows = self.texts("table.baseline tbody tr")
        self.assertEqual([row.split(" initiator")[0].split(" command")[0] for row in rows],
                         ["newly failing", "missing", "still failing", "newly passing", "slower"])
        self.assertIn("limit == callbackCounter", rows[0])
        self.assertIn("120", rows[4])
        self.assertIn("earlier.json", self.one("#baseline").text)
        self.assertEqual(self.all("main > section")[0].get_attribute("id"), "baseline")

    def test_remarksStandAboveTheRecord(self):
        self.open("failing")
        self.button("initiatorSendPass", "#cases").click()
        eventually(lambda: self.assertEqual(
            self.texts("#cases .remarks li"), ["left behind by the library: 1 thread"]))

    def test_whatTheModulePrintedIsWithItsCase(self):
        self.open("failing")
        self.button("initiatorSendPass", "#cases").click()
        self.button("What the module printed").click()
        eventually(lambda: self.assertEqual(
            self.texts("#cases pre"), ["a line on standard error\n… (17 bytes more)"]))

    def test_copyButtonTellsWhatItDid(self):
        self.open("failing")
        self.button("Copy").click()
        eventually(lambda: self.assertRegex(self.one(".copyable .said").text, "copied|Ctrl"))

    def test_hangShowsCallTimeLastCheckAndStacks(self):
        self.open("hang")
        text = self.one(".hang").text
        for expected in (f"{samples.RECEIVE}(timeout=-1)", "5.0 s", "test_ipc_initiator.cpp(215)"):
            self.assertIn(expected, text)
        self.button("Stacks of all threads").click()
        eventually(lambda: self.assertIn("Connection::waitForFrame", self.one(".hang pre").text))
        self.assertIn("did not return", self.one(".failure .focus-row").text)

    def test_crashShowsItsText(self):
        self.open("crash")
        self.assertIn("SIGSEGV", self.one(".crash-text").text)
        self.assertEqual(self.one("h1").text.lower(), "crash")

    def test_latenciesShowCountPercentilesAndDistribution(self):
        self.open("healthy")
        measured = samples.healthy()["libraries"][0]["latencies"][samples.SEND]
        row = next(row for row in self.all("#latencies tbody tr")
                   if row.text.startswith("command_send"))
        self.assertIn(f"{measured['count']} {measured['p50Us']:.2f}\u202fµs", row.text)
        self.assertIn(f"{measured['maxUs']:.2f}\u202fµs", row.text)
        self.assertGreater(len(row.find_elements(By.CSS_SELECTOR, ".histogram rect")), 0)

    def test_repeatsShowRateAndGrowth(self):
        self.open("healthy")
        text = self.one("#repeats").text
        self.assertIn("1000 of 1000 runs passed, 100 %", text)
        self.assertIn("module, descriptors 4 164 164 +1.6 grows", text)
        self.assertIn("too few runs", text)
        self.assertIn("growing: module, descriptors", self.one("#overview").text)

    def test_librariesStandBesideEachOtherWithTheFirstDifference(self):
        self.open("several")
        self.assertEqual(self.all("main > section")[0].get_attribute("id"), "libraries")
        self.assertEqual(self.texts("header .by-library li"), [
            "pass kavri, 1000 of 1000 runs passed, growing: module, descriptors",
            "fail other, 998 of 1000 runs passed, growing: module, descriptors", "pass third"])
        self.assertNotIn("runs passed", self.one("header .headline").text)
        self.assertIn("The worst of 3 libraries", self.one("header").text)
        header = self.texts("table.comparison thead th")
        self.assertEqual(header, ["Case", "kavri", "other", "third"])
        row = next(row for row in self.texts("table.comparison tbody tr") if "first difference" in row)
        self.assertIn("initiatorRepeatEcho", row)
        runs = self.texts("table.comparison tbody tr")[-1]
        self.assertIn("1000 of 1000 runs passed\ngrowing: module, descriptors", runs)
        self.assertIn("998 of 1000 runs passed", runs)
        self.assertEqual(self.texts("#repeats h3"), ["kavri", "other"])
        text = self.one("#libraries").text
        self.assertIn("payload == rpayload test_ipc_initiator.cpp(233), time 3", text)
        self.assertIn("kavri: passed", text)
        self.assertIn("other: failed", text)
        self.assertIn("third did in every check what kavri did", text)
        self.assertEqual(len(self.all(".beside table.record")), 2)

    def test_growthThatFailsIsNamedWithItsRuns(self):
        self.open("long_names")
        lines = [text for text in self.texts("#repeats p") if "fail" in text]
        self.assertEqual(lines, ["fail 0 of 1000 runs passed, 0.00 %.",
                                 "fail 1000 of 1000 runs passed, 100 %; growing: module, descriptors."])

    def test_whatOnlyTheOtherSideToldBlamesNoPlaceInTheRecord(self):
        self.open("long_names")
        told = samples.long_names()["libraries"][1]["cases"][0]["missing"][0]
        failure = next(node for node in self.all(".failure") if "initiatorSendPass" in node.text)
        self.assertIn(told, failure.text)
        self.assertEqual(failure.find_elements(By.CSS_SELECTOR, "table.record"), [])
        beside = next(node for node in self.all(".beside") if told in node.text)
        self.assertEqual(beside.find_elements(By.CSS_SELECTOR, "table.record"), [])

    def test_aCallThatReturnedBeforeACrashIsNotShownAsFailed(self):
        self.open("crash")
        kinds = {row.get_attribute("class") for row in self.all(".failure .focus-row")}
        self.assertEqual(kinds, {"focus-row returned"})

    def test_whatWasNotRunIsNoPassAndSaysWhy(self):
        self.open("unloadable")
        self.assertEqual(self.one("h1").text.lower(), "incomplete")
        reason = samples.unloadable()["reason"]
        self.assertEqual(self.one("header .reason").text, reason)
        self.assertIn(f"not run {reason}", self.one("header .facts").text)
        self.open("hang")
        self.assertEqual(self.one("h1").text.lower(), "incomplete")
        self.assertEqual(self.one("header .reason").text, "the 60 s were over")

    # --- the time line -------------------------------------------------------

    def test_timeLineFoldsTheWaitAndIsReadWithTheKeyboard(self):
        self.open("healthy")
        self.openCase("initiatorRepeatCallback")
        self.assertEqual(self.texts(".plot .lane"), ["test thread", "library's thread"])
        self.assertIn("1.00\u202fs", self.texts(".plot .fold"))
        plot = self.one(".plot")
        plot.send_keys(Keys.HOME)
        eventually(lambda: self.assertIn("kavri_core_init()", self.one(".readout").text))
        plot.send_keys(Keys.ARROW_RIGHT, Keys.ARROW_RIGHT)
        eventually(lambda: self.assertRegex(self.one(".readout").text,
                                         r"kavri_core_logging_init.* took [\d.]+.µs"))
        self.assertEqual(len(self.all(".plot .selected")), 1)

    def test_timeLineZoomsAndShowsTheWholeCaseToScale(self):
        self.open("healthy")
        self.openCase("initiatorRepeatCallback")
        plot = self.one(".plot")
        plot.send_keys("0")
        whole = self.button("Whole case")
        eventually(lambda: self.assertEqual(whole.get_attribute("aria-pressed"), "true"))
        self.assertEqual(self.texts(".plot .fold"), [])
        pause = self.one(".plot .pause").rect
        self.assertGreater(pause["width"], 0.98 * plot.rect["width"])
        narrowest = min(node.rect["width"] for node in self.all(".plot .bar"))
        self.assertGreaterEqual(narrowest, 3)
        ticks = self.texts(".plot .tick")
        plot.send_keys("+++")
        eventually(lambda: self.assertNotEqual(self.texts(".plot .tick"), ticks))

    def test_timeLineFollowsPointerAndWheel(self):
        self.open("healthy")
        self.openCase("initiatorRepeatCallback")
        self.pointAt(".plot .bar.delivery")
        eventually(lambda: self.assertRegex(
            self.one(".readout").text, r"""response\(targetCategory="test".*library's thread"""))
        width = self.one(".plot .bar.delivery").rect["width"]
        plot = self.one(".plot")
        plot.click()
        waitFor(self.browser, lambda: self.browser.switch_to.active_element == plot,
                "the focus on the time line")
        over = ScrollOrigin.from_viewport(*self.centreOf(".plot .bar.delivery"))
        ActionChains(self.browser).scroll_from_origin(over, 0, -200).perform()
        eventually(lambda: self.assertGreater(
            self.one(".plot .bar.delivery").rect["width"], 1.5 * width))

    def test_timeLineMarksHangsAndFailures(self):
        self.open("hang")
        self.openCase("initiatorRepeatStaticResponse")
        self.assertEqual(len(self.all(".plot .bar.open")), 1)
        self.open("failing")
        self.openCase("initiatorRepeatEcho")
        self.assertEqual(len(self.all(".plot .check.fail")), 3)

    def test_recordHasTheSameAsATable(self):
        self.open("healthy")
        self.openCase("initiatorRepeatEcho")
        self.button("Record as a table").click()
        case = samples.healthy()["libraries"][0]["cases"][3]
        eventually(lambda: self.assertEqual(len(self.all("table.record tbody tr")),
                                         len(case["calls"]) + len(case["checks"])))

    # --- the kill matrix -----------------------------------------------------

    def test_matrixPutsTheUnexpectedFirst(self):
        self.open("matrix")
        first = self.texts("table.matrix tbody tr:not(.details)")[0]
        self.assertIn("count-doubled-1", first)
        self.assertIn("expected a timeout", first)
        self.assertIn("not as expected", first)
        self.assertEqual(len(self.all("td.cell.wrong")), 1)
        killed = self.texts("table.killed tbody tr")
        self.assertIn("no fault turned it red", killed[0])
        self.assertTrue(any("payload-altered-1" in row for row in killed))

    def test_matrixShowsADetectedFaultAsGood(self):
        self.open("matrix")
        colours = self.browser.execute_script("""
            return Object.fromEntries(["detected", "quiet", "wrong"].map((kind) =>
              [kind, getComputedStyle(document.querySelector(`td.${kind}`)).backgroundColor]));""")
        red, green, _ = (int(part) for part in colours["detected"][4:-1].split(","))
        self.assertGreater(green, red)
        red, green, _ = (int(part) for part in colours["wrong"][4:-1].split(","))
        self.assertGreater(red, green)
        self.assertEqual(len(set(colours.values())), 3)
        row = next(row for row in self.all("table.matrix > tbody > tr:not(.details)")
                   if row.text.startswith("receive-blocks-1"))
        self.assertEqual([cell.get_attribute("class") for cell in
                          row.find_elements(By.CSS_SELECTOR, "td.cell")],
                         ["cell quiet"] * 2 + ["cell detected"] + ["cell quiet"] * 5)
        self.assertIn("detected by 1", row.text)
        self.assertNotIn("notice", self.one("main").text)

    def test_matrixSaysOnceHowSeveralCasesCrashed(self):
        self.open("matrix")
        row = next(row for row in self.all("table.matrix > tbody > tr:not(.details)")
                   if row.text.startswith("callback-crashes-1"))
        self.assertIn("detected by 2", row.text)
        self.assertEqual(row.text.count("the module was ended by SIGSEGV, in ipc_deinit"), 1)

    def test_matrixSaysOnceWhatTheOtherSideMissedInSeveralCases(self):
        self.open("matrix")
        row = next(row for row in self.all("table.matrix > tbody > tr:not(.details)")
                   if row.text.startswith("delivery-lost-1"))
        self.assertIn("detected by 2", row.text)
        self.assertEqual([node.text for node in row.find_elements(By.CSS_SELECTOR, "td.by code")],
                         ["requests never reached the service"])

    def test_matrixPutsEachReasonOnALineAndTheCellsBesideTheFault(self):
        self.open("matrix")
        for row in self.all("table.matrix > tbody > tr:not(.details)")[:8]:
            name, cell = (row.find_element(By.CSS_SELECTOR, one) for one in ("button", "td.cell .mark"))
            middle = [node.rect["y"] + node.rect["height"] / 2 for node in (name, cell)]
            self.assertLess(abs(middle[0] - middle[1]), 6, row.text)
            lines = [node.rect["y"] for node in row.find_elements(By.CSS_SELECTOR, "td.by code")]
            self.assertEqual(len(set(lines)), len(lines), row.text)

    def test_matrixIsFiltered(self):
        self.open("matrix")
        field = self.one("#fault-filter")
        field.send_keys("callback-crashes")
        eventually(lambda: self.assertIn("10 of 70 faults", self.one(".filter").text))
        self.assertEqual(len([row for row in self.all("table.matrix tbody tr:not(.details)")
                              if row.is_displayed()]), 10)
        # `clear` would empty the field without the event that a key causes.
        field.send_keys(Keys.CONTROL + "a" + Keys.NULL + Keys.BACKSPACE)
        eventually(lambda: self.assertIn("70 of 70 faults", self.one(".filter").text))
        field.send_keys("payload == rpayload")
        eventually(lambda: self.assertIn("10 of 70 faults", self.one(".filter").text))

    def test_matrixShowsRecordsOnDemand(self):
        self.open("matrix")
        self.assertLess(len(self.all("*")), 8000)
        cell = next(node for node in self.all("td.cell.detected")
                    if "timeout" in node.get_attribute("title"))
        self.assertIn("timeout in", cell.get_attribute("title"))
        self.browser.execute_script("arguments[0].click()", cell)
        eventually(lambda: self.assertIn("A receive that waits never returns.",
                                      self.one(".fault-details").text))
        self.assertEqual(len(self.all(".fault-details .timeline")), 1)
        self.assertIn("fault", self.one(".fault-details .legend").text)

    # --- for everybody -------------------------------------------------------

    def test_textFromTheReportIsNeverMarkup(self):
        self.open("hostile")
        self.openEverything()
        self.assertIsNone(self.browser.execute_script("return window.hacked ?? null"))
        self.assertEqual(self.all("img"), [])
        self.assertIn("</script>", self.one("header .facts").text)
        self.assertIn("{{script}} &", self.one("header .facts").text)

    def test_nothingStandsInTheWay(self):
        for name in samples.SAMPLES:
            with self.subTest(name):
                self.open(name)
                self.openEverything()
                self.assertEqual(self.browser.execute_script(OBSTACLES), [])

    def test_textHasContrast(self):
        for scheme in ("light", "dark"):
            for name in ("failing", "hang", "crash", "several", "long_names", "compared", "matrix"):
                with self.subTest(f"{name}, {scheme}"):
                    self.setMedia(scheme, 1200)
                    self.open(name)
                    self.openEverything()
                    self.assertEqual(self.browser.execute_script(FAINT_TEXTS, LEAST_CONTRAST), [])

    def test_librariesWithLongNamesFitAWideScreen(self):
        self.open("long_names")
        self.assertLessEqual(self.browser.execute_script(
            "return document.documentElement.scrollWidth"), 1200)
        table = self.one("table.comparison")
        self.assertLessEqual(table.rect["width"], table.find_element(By.XPATH, "..").rect["width"])
        for head in table.find_elements(By.CSS_SELECTOR, "tbody th"):
            self.assertLess(head.rect["width"], 400)

    def test_fitsANarrowScreen(self):
        for name in samples.SAMPLES:
            for width in (360, 390):
                with self.subTest(f"{name}, {width}"):
                    self.setMedia("light", width)
                    self.open(name)
                    self.openEverything()
                    self.assertLessEqual(self.browser.execute_script(
                        "return document.documentElement.scrollWidth"), width)
                    self.assertEqual(self.browser.execute_script(CUT_OFF), [])

    def test_saysTheResultWithoutJavaScript(self):
        browser = chromium(javascript=False)

        def expectSummary(name, expected):
            browser.get(self.write(name))
            eventually(lambda: self.assertRegex(
                browser.find_element(By.TAG_NAME, "main").text, expected))

        try:
            expectSummary("failing",
                          r"(?s)Conformance report: fail.*initiatorSend/initiatorRepeatEcho fail")
            expectSummary("matrix", "1 of 70 faults")
            expectSummary("unloadable", r"(?s)report: incomplete.*other: not run.*lacks kavri_core_init")
            self.expectQuiet(browser)
        finally:
            browser.quit()


if __name__ == "__main__":
    RENDER_REPORT = sys.argv.pop(1)
    unittest.main(verbosity=2)
