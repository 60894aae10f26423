"""Runs the script that the manual has for build servers, as it stands there.

Usage: continuous_integration_test.py MANUAL FOLDER_OF_THE_PROGRAMS LIBRARY STAND_IN
LIBRARY and STAND_IN are folders of core libraries; the second one can be made to be wrong.
"""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

MANUAL, PROGRAMS, LIBRARY, STAND_IN = (pathlib.Path(argument) for argument in sys.argv[1:5])
WRONG = {"STAND_IN_DEFECT": "answerPayload=wrong"}


def scriptOfManual():
    chapter = MANUAL.read_text(encoding="utf-8").split("\n## Continuous integration\n")[1]
    return re.search(r"^```sh\n(.*?)^```$", chapter, re.MULTILINE | re.DOTALL)[1]


class Script(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "conformance.sh").write_text(scriptOfManual(), encoding="utf-8")

    def run_(self, *arguments, **environment):
        """The exit status and the last line of standard output."""
        done = subprocess.run(
            arguments, cwd=self.folder, capture_output=True, text=True, check=False,
            env={**os.environ, "PATH": f"{PROGRAMS}:{os.environ['PATH']}", **environment})
        return done.returncode, (done.stdout.splitlines() or [""])[-1]

    def judge(self, library, **environment):
        return self.run_("sh", "conformance.sh", str(library), **environment)

    def outcomes(self):
        root = xml.etree.ElementTree.parse(self.folder / "reports/conformance.xml").getroot()
        return {name: int(root.get(name)) for name in ("tests", "failures", "errors", "skipped")}

    def test_aRightLibraryPasses(self):
        self.assertEqual(self.judge(LIBRARY), (0, "conformance: nothing to object to"))
        self.assertEqual(self.outcomes(), {"tests": 8, "failures": 0, "errors": 0, "skipped": 0})
        self.assertTrue((self.folder / "reports/index.html").exists())
        self.assertFalse((self.folder / "baseline.json").exists())

    def test_aWrongLibraryFailsUntilItsFailuresAreKnown(self):
        failed = (1, "conformance: failed, see reports/index.html")
        self.assertEqual(self.judge(STAND_IN, **WRONG), failed)
        self.assertGreater(self.outcomes()["failures"], 0)
        self.run_("kavri", "conformance", "--library", str(STAND_IN), "--write-expect",
                  "known-failures.txt", **WRONG)
        self.assertEqual(self.judge(STAND_IN, **WRONG)[0], 0)
        self.assertEqual(self.outcomes()["failures"], 0)
        self.assertGreater(self.outcomes()["skipped"], 0)
        # They are gone, and the list is no longer true.
        self.assertEqual(self.judge(LIBRARY), failed)

    def test_whatWasAcceptedIsTheBaseline(self):
        self.assertEqual(self.judge(LIBRARY, ACCEPT="yes")[0], 0)
        accepted = (self.folder / "baseline.json").read_text(encoding="utf-8")
        self.assertEqual(self.judge(STAND_IN, ACCEPT="yes", **WRONG)[0], 1)
        self.assertEqual((self.folder / "baseline.json").read_text(encoding="utf-8"), accepted)
        report = json.loads((self.folder / "reports/conformance.json").read_text(encoding="utf-8"))
        self.assertTrue(report["baseline"]["newlyFailing"])
        # A failure that the baseline has does not count.
        (self.folder / "reports/conformance.json").rename(self.folder / "baseline.json")
        self.assertEqual(self.judge(STAND_IN, **WRONG)[0], 0)
        (self.folder / "baseline.json").write_text("{}", encoding="utf-8")
        self.assertEqual(self.judge(LIBRARY)[0], 64)

    def test_withoutALibraryThereIsNoVerdict(self):
        self.assertEqual(self.judge(self.folder / "none"),
                         (3, "conformance: could not be judged, for the reason above"))
        self.assertNotEqual(self.run_("sh", "conformance.sh")[0], 0)

    def test_eachExitStatusIsPassedOnWithItsMeaning(self):
        # In place of a library that crashes, or does not return for half a minute.
        (self.folder / "kavri").write_text("#!/bin/sh\nexit $KAVRI_STATUS\n", encoding="utf-8")
        (self.folder / "kavri").chmod(0o755)
        path = f"{self.folder}:{os.environ['PATH']}"
        for status, meaning in (2, "crashed"), (64, "command line"), (130, "stopped"):
            code, line = self.judge(LIBRARY, PATH=path, KAVRI_STATUS=str(status))
            self.assertEqual(code, status)
            self.assertIn(meaning, line)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
