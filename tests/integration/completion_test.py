"""Checks what bash completes of kavri's command line, and that zsh can read its file.

Usage: completion_test.py KAVRI SOURCE_FOLDER
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

KAVRI = pathlib.Path(sys.argv[1])
SOURCES = pathlib.Path(sys.argv[2])
COMPLETION = SOURCES / "packaging/completion"
CASES = re.findall(
    r"BOOST_AUTO_TEST_CASE\((\w+)\)", (SOURCES / "tests/test_ipc_initiator.cpp").read_text()
)
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]*")

# A tool that lists faults as the real one does.
STAND_IN = """#!/bin/sh
[ "$*" = 'conformance --list-faults' ] || exit 64
echo 'send_lost        the request is dropped'
echo 'send_doubled     the request is sent twice'
echo 'receive_no_uuid  the uuid is left out'
"""


class Bash(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.tool = self.folder / "kavri"
        self.tool.write_text(STAND_IN)
        self.tool.chmod(0o755)
        (self.folder / "known.txt").touch()
        (self.folder / "lib dir").mkdir()

    def complete(self, *words):
        """What bash offers for the last word, as a sorted list."""
        script = (
            'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kavri; '
            'printf "%s\\n" "${COMPREPLY[@]}"'
        )
        done = subprocess.run(
            ["bash", "-uc", script, "bash", COMPLETION / "kavri.bash", self.tool, *words],
            cwd=self.folder,
            capture_output=True,
            text=True,
            check=False,
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return sorted(line for line in done.stdout.split("\n") if line)

    def test_commands(self):
        self.assertEqual(
            self.complete(""),
            ["--help", "--version", "bench", "conformance", "listen", "monitor", "publish", "request",
             "serve", "status"],
        )
        self.assertEqual(self.complete("co"), ["conformance"])

    def test_options_of_the_command(self):
        self.assertEqual(self.complete("conformance", "--ca"), ["--call-timeout", "--case"])
        self.assertEqual(self.complete("bench", "--se"), ["--seconds"])
        self.assertEqual(self.complete("bench", "--prove"), [])
        self.assertEqual(self.complete("status", "--p"), ["--prometheus"])
        self.assertEqual(self.complete("monitor", "--p"), ["--payload", "--process"])
        self.assertEqual(self.complete("request", "bench", "--ra"), ["--rate"])
        self.assertEqual(self.complete("serve", "--"),
                         ["--answer", "--exec", "--help", "--jobs", "--socket", "--timeout"])
        self.assertEqual(
            self.complete("conformance", "--prove", "--list"), ["--list", "--list-faults"]
        )

    def test_cases(self):
        self.assertEqual(len(CASES), 8)
        self.assertEqual(self.complete("conformance", "--case", ""), sorted(CASES))
        self.assertEqual(
            self.complete("conformance", "--case", "initiatorRepeatEcho"),
            ["initiatorRepeatEcho", "initiatorRepeatEchoNonBlocking"],
        )

    def test_levels(self):
        self.assertEqual(self.complete("conformance", "--level", "m"), ["may", "must"])

    def test_faults(self):
        self.assertEqual(
            self.complete("conformance", "--fault", ""),
            ["receive_no_uuid", "send_doubled", "send_lost"],
        )
        self.assertEqual(
            self.complete("conformance", "--fault", "send"), ["send_doubled", "send_lost"]
        )

    def test_without_the_tool_there_are_no_faults(self):
        self.tool.unlink()
        self.assertEqual(self.complete("conformance", "--fault", ""), [])

    def test_what_can_be_explained(self):
        self.assertEqual(
            self.complete("conformance", "--explain", ""),
            sorted([*CASES, "receive_no_uuid", "send_doubled", "send_lost"]),
        )

    def test_values_after_an_equals_sign(self):
        self.assertEqual(self.complete("conformance", "--fault", "=", "rec"), ["receive_no_uuid"])
        self.assertEqual(self.complete("conformance", "--case", "="), sorted(CASES))

    def test_users(self):
        self.assertIn("root", self.complete("monitor", "--user", "ro"))

    def test_files_and_folders(self):
        for option in ("--expect", "--write-expect", "--baseline", "--junit", "--json", "--socket"):
            self.assertEqual(self.complete("conformance", option, "kn"), ["known.txt"])
        for option in ("--library", "--html"):
            self.assertEqual(self.complete("conformance", option, ""), ["lib dir"])
        for command in ("bench", "monitor", "request", "listen", "serve", "publish"):
            self.assertEqual(self.complete(command, "--socket", "kn"), ["known.txt"])

    def test_numbers_are_not_guessed(self):
        for option in ("--timeout", "--call-timeout", "--time-scale", "--repeat", "--shuffle"):
            self.assertEqual(self.complete("conformance", option, ""), [])
        self.assertEqual(self.complete("bench", "--payload", ""), [])
        self.assertEqual(self.complete("status", "--watch", ""), [])
        self.assertEqual(self.complete("monitor", "--count", ""), [])
        self.assertEqual(self.complete("request", "--count", ""), [])
        self.assertEqual(self.complete("serve", "--exec", ""), [])

    def test_nothing_of_the_modules_arguments(self):
        self.assertEqual(self.complete("conformance", "--", "--"), [])


class Options(unittest.TestCase):
    """Each option that the tool has is one that is completed and in the manual."""

    FILES = {
        "conformance": ["kavri.bash", "_kavri", "kavri-conformance.1"],
        "bench": ["kavri.bash", "_kavri", "kavri.1"],
        "status": ["kavri.bash", "_kavri", "kavri-status.1"],
        "monitor": ["kavri.bash", "_kavri", "kavri-monitor.1"],
        "request": ["kavri.bash", "_kavri", "kavri-request.1"],
        "listen": ["kavri.bash", "_kavri", "kavri-listen.1"],
        "serve": ["kavri.bash", "_kavri", "kavri-serve.1"],
        "publish": ["kavri.bash", "_kavri", "kavri-publish.1"],
    }

    @staticmethod
    def options_in(name):
        folder = SOURCES / "docs/man" if name.endswith(".1") else COMPLETION
        text = (folder / name).read_text()
        if name.endswith(".1"):  # "Fl -case" is what shows as "--case"
            text = re.sub(r"\bFl -(?=[a-z])", "--", text)
        return set(OPTION.findall(text))

    def test_all_are_known(self):
        for command, files in self.FILES.items():
            shown = subprocess.run(
                [KAVRI, command, "--help"], capture_output=True, text=True, check=True
            ).stdout
            # Those that begin a line; others are arguments of the module, in examples.
            options = set(re.findall(r"^\s+(?:-\w,)?(--[a-z][a-z-]*)", shown, re.MULTILINE))
            self.assertIn("--socket", options)
            for name in files:
                self.assertEqual(options - self.options_in(name), set(), f"not in {name}")


class Zsh(unittest.TestCase):
    @unittest.skipUnless(shutil.which("zsh"), "zsh is not there")
    def test_the_file_can_be_read(self):
        done = subprocess.run(
            ["zsh", "-n", COMPLETION / "_kavri"], capture_output=True, text=True, check=False
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""))


if __name__ == "__main__":
    os.environ.pop("BASH_ENV", None)
    unittest.main(argv=sys.argv[:1])
