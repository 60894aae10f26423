"""Checks that the tutorial is true: its sessions are run as they stand there, with the C program that
stands there, and its configuration files are such that broker and systemd read them.

Usage: tutorial_test.py FOLDER_OF_THE_PROGRAMS FOLDER_OF_THE_LIBRARIES SOURCE_FOLDER
"""

import importlib.machinery
import importlib.util
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROGRAMS, LIBRARIES, SOURCES = (pathlib.Path(path).resolve() for path in sys.argv[1:])
TUTORIAL = (SOURCES / "docs/tutorial.md").read_text(encoding="utf-8")
EXAMPLE = SOURCES / "examples/c/hello_service.c"


def load_session():
    path = SOURCES / "docs/images/draw_session"
    loader = importlib.machinery.SourceFileLoader("draw_session", str(path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    sys.dont_write_bytecode = True
    loader.exec_module(module)
    return module


def block(kind):
    """The only block of that kind."""
    blocks = re.findall(rf"^```{kind}\n(.*?)^```$", TUTORIAL, re.MULTILINE | re.DOTALL)
    assert len(blocks) == 1, f"{len(blocks)} blocks of {kind}"
    return blocks[0]


class Tutorial(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_theSessionsGoAsShown(self):
        drawing = load_session()
        (self.folder / "hello_service.c").write_text(block("c"))
        (self.folder / "kavri.pc").write_text(
            f"Name: kavri\nDescription: as built\nVersion: 1\nCflags: -I{SOURCES}/include\n"
            f"Libs: -L{LIBRARIES} -lkavri-core-test -lkavri-interfaces\n")
        steps = drawing.steps_of(TUTORIAL)
        self.assertGreater(len(steps), 15)
        session = drawing.Session(PROGRAMS, str(self.folder), {
            "PKG_CONFIG_PATH": str(self.folder), "LD_LIBRARY_PATH": str(LIBRARIES)})
        try:
            session.run(steps)
        finally:
            session.close()
        self.assertFalse((self.folder / "kavri").exists())

    def test_whatIsExpectedOfASessionIsCompared(self):
        drawing = load_session()
        drawing.PATIENCE_SECONDS = 1
        session = drawing.Session(PROGRAMS, str(self.folder))
        try:
            for terminal, lines in ((1, "wrong"), (2, "2$ true")):
                with self.assertRaises(AssertionError):
                    session.run(drawing.steps_of(
                        f"```console\n{terminal}$ echo right\n{lines}\n```\n"))
        finally:
            drawing.PATIENCE_SECONDS = 40
            session.close()

    @unittest.skipUnless(EXAMPLE.exists(), "there are no examples")
    def test_theProgramIsTheExample(self):
        self.assertEqual(block("c"), EXAMPLE.read_text())

    def test_theBrokerReadsItsConfiguration(self):
        users = {"hello": "daemon", "alice": "nobody"}  # such as every system has
        text = re.sub(r'(?<=[\[ ])"(hello|alice)"', lambda name: f'"{users[name[1]]}"', block("toml"))
        self.assertEqual(text.count("daemon"), 2)
        config = self.folder / "broker.toml"
        config.write_text(text)
        with subprocess.Popen(
                [PROGRAMS / "kavri-broker", "--socket", self.folder / "s", "--config", config],
                stderr=subprocess.PIPE, text=True) as broker:
            try:
                self.assertIn("ready on", broker.stderr.readline())
            finally:
                broker.terminate()

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not there")
    def test_systemdReadsTheUnit(self):
        unit = self.folder / "hello.service"
        text = block("ini").replace("/usr/local/bin/hello_service", "/bin/true")
        self.assertIn("/bin/true", text)
        unit.write_text(text)
        done = subprocess.run(["systemd-analyze", "verify", "--man=no", unit],
                              capture_output=True, text=True, check=False)
        own = [line for line in (done.stdout + done.stderr).splitlines() if "hello.service" in line]
        self.assertEqual((done.returncode, own), (0, []))

    def test_theFilesItInstallsAreThoseOfTheUnit(self):
        self.assertIn("sudo install hello_service /usr/local/bin/\n", TUTORIAL)
        self.assertIn("ExecStart=/usr/local/bin/hello_service\n", block("ini"))
        self.assertIn("sudo useradd --system", TUTORIAL)
        self.assertIn("User=hello\n", block("ini"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
