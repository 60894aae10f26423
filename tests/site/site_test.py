"""The site of the documents: that it is built without warnings, that mistakes fail it, and how it
looks in a browser, wide and narrow, opened as files.

Needs what `scripts/setup test` installs.

Usage: site_test.py [TEST...]
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

SOURCES = pathlib.Path(__file__).resolve().parents[2]
WIDTHS = (1400, 390)
# Only ever reached by a test that fails.
PATIENCE = 20

# Texts that reach beyond the window, other than in what can be scrolled.
BEYOND = """
return [...document.querySelectorAll("article *")]
  .filter((node) => node.getBoundingClientRect().right > innerWidth + 1)
  .filter((node) => !node.closest("pre, table, .md-typeset__scrollwrap"))
  .map((node) => node.textContent.slice(0, 60));
"""
# Code and tables that are wider than their place, and cannot be scrolled.
CUT_OFF = """
return [...document.querySelectorAll("article :is(pre > code, .md-typeset__table, .man table, .man pre)")]
  .filter((node) => node.scrollWidth > node.clientWidth + 1)
  .filter((node) => !["auto", "scroll"].includes(getComputedStyle(node).overflowX))
  .filter((node) => !node.closest(".md-typeset__scrollwrap"))
  .map((node) => node.textContent.slice(0, 60));
"""
FROM_ELSEWHERE = """
return performance.getEntriesByType("resource").map((entry) => entry.name)
  .filter((name) => !/^(file|data|blob):/.test(name));
"""


def build(sources, destination):
    command = ["/usr/bin/python3", "-B", SOURCES / "docs/site/build_site.py", sources, destination]
    return subprocess.run(command, capture_output=True, text=True)


class TestMistakes(unittest.TestCase):
    def said_of(self, document, addition):
        """What the build says of the documents where one of them has this at its end."""
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            for path in SOURCES.iterdir():
                if path.name not in ("docs", document):
                    (folder / path.name).symlink_to(path)
            shutil.copytree(SOURCES / "docs", folder / "docs")
            path = folder / document
            if not path.exists():
                shutil.copy(SOURCES / document, path)
            path.write_text(path.read_text() + f"\n{addition}\n")
            done = build(folder, folder / "built")
        self.assertNotEqual(done.returncode, 0)
        return done.stdout + done.stderr

    def test_aLinkToNoFileFails(self):
        said = self.said_of("docs/protocol.md", "[there](../src/nothing.h)")
        self.assertIn("docs/protocol.md: the link to ../src/nothing.h leads nowhere", said)

    def test_aLinkToNoHeadingFails(self):
        said = self.said_of("README.md", "[there](docs/protocol.md#nothing)")
        self.assertIn("index.html: the link to protocol.html#nothing leads nowhere", said)

    def test_aPictureFromElsewhereFails(self):
        said = self.said_of("docs/protocol.md", "![a picture](https://example.com/picture.png)")
        self.assertIn("protocol.html fetches https://example.com/picture.png", said)


class TestPages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.site = pathlib.Path(cls.folder.name)
        done = build(SOURCES, cls.site)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", ""), done
        options = webdriver.ChromeOptions()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                         "--disable-dev-shm-usage", "--hide-scrollbars"):
            options.add_argument(argument)
        options.binary_location = "/usr/bin/chromium"
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.addClassCleanup(cls.browser.quit)

    def setWidth(self, width):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 1000, "deviceScaleFactor": 1, "mobile": False})

    def open(self, place):
        self.browser.get((self.site / place).as_uri())

    def test_everyPageFitsTheScreenAndIsQuiet(self):
        pages = sorted(path.relative_to(self.site) for path in self.site.rglob("*.html"))
        self.assertGreater(len(pages), 20)
        for width in WIDTHS:
            self.setWidth(width)
            for page in pages:
                with self.subTest(f"{page}, {width}"):
                    self.open(page)
                    self.assertLessEqual(self.browser.execute_script(
                        "return document.documentElement.scrollWidth"), width)
                    self.assertEqual(self.browser.execute_script(BEYOND), [])
                    self.assertEqual(self.browser.execute_script(CUT_OFF), [])
                    self.assertEqual(self.browser.execute_script(FROM_ELSEWHERE), [])
                    self.assertEqual(self.browser.get_log("browser"), [])

    def test_linesOfCodeFitAWideScreen(self):
        self.setWidth(1400)
        for page in ("index.html", "python.html", "source/include/kavri/ipc.h.html"):
            with self.subTest(page):
                self.open(page)
                self.assertEqual(self.browser.execute_script("""
                    return [...document.querySelectorAll("pre > code")]
                      .filter((node) => node.scrollWidth > node.clientWidth + 1)
                      .map((node) => node.textContent.slice(0, 60));"""), [])

    def test_coloursAreThoseThatTheReaderPrefers(self):
        for preferred, scheme in (("light", "default"), ("dark", "slate")):
            with self.subTest(preferred):
                self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
                    "features": [{"name": "prefers-color-scheme", "value": preferred}]})
                self.open("index.html")
                self.browser.execute_script("localStorage.clear()")  # what was chosen before
                self.open("index.html")
                self.assertEqual(self.browser.find_element(By.TAG_NAME, "body").get_attribute(
                    "data-md-color-scheme"), scheme)

    def test_theSearchFindsADocument(self):
        self.setWidth(1400)
        self.open("index.html")
        self.browser.find_element(By.CSS_SELECTOR, "input.md-search__input").send_keys("handshake")
        deadline = time.monotonic() + PATIENCE
        while not (found := self.browser.find_elements(By.CSS_SELECTOR, "a.md-search-result__link")):
            self.assertLess(time.monotonic(), deadline, "the search finds nothing")
            time.sleep(0.02)
        self.assertTrue(all(link.get_attribute("href").startswith("file:") for link in found))

    def test_manualPagesReferToEachOther(self):
        self.open("man/kavri.1.html")
        link = self.browser.find_element(By.LINK_TEXT, "kavri-conformance(1)")
        self.assertTrue(link.get_attribute("href").endswith("/man/kavri-conformance.1.html"))


if __name__ == "__main__":
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    sys.dont_write_bytecode = True
    unittest.main(verbosity=2)
