"""Builds the examples against an installed tree, as they stand there, and runs them against a
broker of each test's own.

Usage: examples_test.py BUILD_FOLDER
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
PATIENCE_S = 60
LANGUAGES = ("c", "cpp")
PRIMES = ["168 primes below 1000", "303 primes below 2000", "430 primes below 3000"]


class Background:
    """A program that says on standard error when it is ready, until it is stopped."""

    def __init__(self, command, environment, output=None):
        self.process = subprocess.Popen(
            list(map(str, command)), env=environment, stdout=output or subprocess.DEVNULL,
            stderr=subprocess.PIPE, text=True)
        self.awaitLine("ready")

    def awaitLine(self, text):
        for line in self.process.stderr:
            if text in line:
                return
        raise AssertionError(f"{self.process.args} ended without saying {text}")

    def stop(self):
        """Its exit status, as after a stop by whoever runs it."""
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(PATIENCE_S)
        finally:
            self.close()

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stderr.close()
        if self.process.stdout:
            self.process.stdout.close()


class Examples(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        prefix = pathlib.Path(folder.name) / "kavri"
        cls.make("cmake", "--install", BUILD, "--prefix", prefix)
        description = next(prefix.rglob("kavri.pc"))
        cls.environment = {
            **os.environ,
            "PKG_CONFIG_PATH": str(description.parent),
            "LD_LIBRARY_PATH": str(description.parent.parent),
            "PATH": f"{prefix / 'bin'}:{os.environ['PATH']}",
        }
        installed = next(prefix.rglob("examples"))
        cls.examples = pathlib.Path(folder.name) / "examples"
        shutil.copytree(installed, cls.examples)
        for language in LANGUAGES:
            flags = "-O1 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror"
            cls.make("make", "-C", cls.examples / language, f"CFLAGS={flags}",
                     f"CXXFLAGS={flags}")

    @classmethod
    def make(cls, *command):
        done = subprocess.run(list(map(str, command)), capture_output=True, text=True,
                              check=False, env=getattr(cls, "environment", None))
        if done.returncode != 0:
            raise AssertionError(f"{command}:\n{done.stdout}{done.stderr}")

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = {**type(self).environment, "KAVRI_BROKER": str(self.folder / "socket")}
        self.broker = self.start("kavri-broker")

    def start(self, *command, output=None):
        started = Background(command, self.environment, output)
        self.addCleanup(started.close)
        return started

    def example(self, language, name):
        return self.examples / language / name

    def run_(self, *command, text=None):
        """Exit status, output, errors."""
        done = subprocess.run(list(map(str, command)), env=self.environment, input=text,
                              capture_output=True, text=True, check=False, timeout=PATIENCE_S)
        return done.returncode, done.stdout, done.stderr

    def test_helloIsAnsweredByTheServiceOfEitherLanguage(self):
        for service in LANGUAGES:
            running = self.start(self.example(service, "hello_service"))
            for client in LANGUAGES:
                self.assertEqual(self.run_(self.example(client, "hello"), "you"),
                                 (0, "Hello, you!\n", ""))
            self.assertEqual(running.stop(), 0)

    def test_helloSaysWhyThereIsNoGreeting(self):
        for language in LANGUAGES:
            status, output, errors = self.run_(self.example(language, "hello"))
            self.assertEqual((status, output), (1, ""))
            self.assertRegex(errors, r"^hello: .*: no responder\n$")

    def test_aSubscriberPrintsWhatIsPublished(self):
        for language in LANGUAGES:
            subscriber = self.start(self.example(language, "subscriber"), output=subprocess.PIPE)
            publish = self.example(language, "publisher")
            self.assertEqual(self.run_(publish, text="first\nsecond line\n"), (0, "", ""))
            lines = [subscriber.process.stdout.readline() for _ in range(2)]
            self.assertEqual(lines, ["news line: first\n", "news line: second line\n"])
            self.assertEqual(subscriber.stop(), 0)

    def test_aSubscriberSurvivesTheRestartOfTheBroker(self):
        for language in LANGUAGES:
            subscriber = self.start(self.example(language, "subscriber"), output=subprocess.PIPE)
            self.broker.stop()
            self.broker = self.start("kavri-broker")
            subscriber.awaitLine("connected again")
            self.run_(self.example(language, "publisher"), text="afterwards\n")
            self.assertEqual(subscriber.process.stdout.readline(), "news line: afterwards\n")
            self.assertEqual(subscriber.stop(), 0)

    def test_workersAnswerEverythingThatIsUnderWay(self):
        for service in LANGUAGES:
            running = self.start(self.example(service, "primes_service"), 4)
            for client in LANGUAGES:
                status, output, errors = self.run_(self.example(client, "primes"), 100)
                self.assertEqual((status, errors), (0, ""))
                self.assertEqual(output.splitlines()[:3], PRIMES)
                self.assertEqual(output.splitlines()[99], "9592 primes below 100000")
            self.assertEqual(running.stop(), 0)

    def test_wrongArgumentsAreRefused(self):
        for language in LANGUAGES:
            self.assertNotEqual(self.run_(self.example(language, "primes"), "no number")[0], 0)
            service = self.example(language, "primes_service")
            self.assertNotEqual(self.run_(service, "no number")[0], 0)

    def test_theForeignLibraryConforms(self):
        check = self.examples / "conformance" / "check"
        status, output, errors = self.run_(check, self.folder / "build")
        self.assertEqual(status, 0, output + errors)
        self.assertEqual(output.splitlines()[-1], "check: the library conforms")
        report = xml.etree.ElementTree.parse(self.folder / "build" / "report.xml").getroot()
        self.assertEqual((report.get("tests"), report.get("failures"), report.get("errors")),
                         ("8", "0", "0"))
        self.assertNotIn("warning", output)

    def test_theForeignLibraryFailsWhereItIsBroken(self):
        broken = self.folder / "conformance"
        shutil.copytree(self.examples / "conformance", broken)
        source = broken / "in_process.c"
        source.write_text(source.read_text().replace("my static payload", "mine"))
        status, output, _ = self.run_(broken / "check", self.folder / "build")
        self.assertEqual(status, 1)
        self.assertIn("check: a case failed", output)


if __name__ == "__main__":
    unittest.main()
