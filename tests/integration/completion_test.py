"""Checks what bash and zsh complete of kavri's command line.

Usage: completion_test.py KAVRI SOURCE_FOLDER
"""

import fcntl
import os
import pathlib
import pty
import re
import select
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
import unittest

KAVRI = pathlib.Path(sys.argv[1])
SOURCES = pathlib.Path(sys.argv[2])
COMPLETION = SOURCES / "packaging/completion"
CASES = re.findall(
    r"BOOST_AUTO_TEST_CASE\((\w+)\)", (SOURCES / "tests/test_ipc_initiator.cpp").read_text()
)
CASES_THAT_REPEAT = [case for case in CASES if case.startswith("initiatorRepeat")]
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


# Completes what is typed, and says what the line has become.
ZSH_SETTINGS = """
fpath=({folder} $fpath)
autoload -Uz compinit && compinit -u -D
zstyle ':completion:*' verbose no
LISTMAX=0
complete-and-show() {{
    zle expand-or-complete
    zle -R
    zle -I
    print -r -- "line<$BUFFER>"
    BUFFER=
}}
zle -N complete-and-show
bindkey '\t' complete-and-show
PS1='ready> '
"""


class ZshTerminal:
    """An interactive zsh, as a person has it who reads kavri's completion and nothing else."""

    PATIENCE_SECONDS = 30

    def __init__(self, folder):
        (folder / ".zshrc").write_text(ZSH_SETTINGS.format(folder=COMPLETION))
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 200, 200, 0, 0))
            os.chdir(folder)
            os.execve(shutil.which("zsh"), ["zsh", "-d", "-i"],
                      {"ZDOTDIR": str(folder), "PATH": f"{folder}:/usr/bin:/bin", "TERM": "dumb",
                       "LC_ALL": "C.UTF-8"})
        self.read_until("ready> ")

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.process, 0)

    def read_until(self, pattern):
        shown = ""
        while not (found := re.search(pattern, shown)):
            if not select.select([self.terminal], [], [], self.PATIENCE_SECONDS)[0]:
                raise AssertionError(f"{pattern} does not come: {shown!r}")
            shown += os.read(self.terminal, 65536).decode().replace("\r", "")
        return found, shown

    def complete(self, line):
        """What the line becomes, and what is offered, as a sorted list."""
        os.write(self.terminal, f"{line}\t".encode())
        found, shown = self.read_until(r"line<(.*)>\n(?:.*\n)*.*ready> ")
        offered = [line for line in shown[: found.start()].split("\n")[1:]
                   if not line.startswith("ready> ")]  # the line, shown again below the list
        return found[1], sorted(" ".join(offered).split())


@unittest.skipUnless(shutil.which("zsh"), "zsh is not there")
class Zsh(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        tool = pathlib.Path(folder.name) / "kavri"
        tool.write_text(STAND_IN)
        tool.chmod(0o755)
        (tool.parent / "known.txt").touch()
        (tool.parent / "lib").mkdir()
        cls.zsh = ZshTerminal(tool.parent)
        cls.addClassCleanup(cls.zsh.close)

    def offers(self, line, expected):
        self.assertEqual(self.zsh.complete(line)[1], sorted(expected))

    def becomes(self, line, expected):
        self.assertEqual(self.zsh.complete(line)[0], expected)

    def test_commands(self):
        self.offers("kavri ", Options.FILES)
        self.becomes("kavri co", "kavri conformance ")

    def test_options_are_those_of_bash(self):
        listed = re.findall(r"^ +(\w+)\)\n +printf '%s ' ((?:--[^;]*?))\n +;;",
                            (COMPLETION / "kavri.bash").read_text(), re.MULTILINE)
        self.assertEqual({command for command, _ in listed}, set(Options.FILES))
        for command, options in listed:
            self.offers(f"kavri {command} --", OPTION.findall(options))

    def test_options_that_exclude_each_other_or_come_once(self):
        self.offers("kavri status --prometheus --", ["--help", "--socket", "--timeout"])
        self.offers("kavri serve --answer x --", ["--help", "--jobs", "--socket", "--timeout"])
        self.becomes("kavri conformance --strict --st", "kavri conformance --strict --st")

    def test_options_that_may_be_repeated(self):
        for option in ("--case", "--library", "--name"):
            self.becomes(f"kavri conformance {option} x {option[:-1]}",
                         f"kavri conformance {option} x {option}=")

    def test_values(self):
        self.offers("kavri conformance --case ", [])  # what they have in common comes first
        self.offers("kavri conformance --case initiatorRepeat", CASES_THAT_REPEAT)
        self.offers("kavri conformance --level m", ["may", "must"])
        self.becomes("kavri conformance --fault re", "kavri conformance --fault receive_no_uuid ")
        self.becomes("kavri conformance --fault=re", "kavri conformance --fault=receive_no_uuid ")
        self.becomes("kavri conformance --html li", "kavri conformance --html lib/")
        self.becomes("kavri conformance --explain send_l", "kavri conformance --explain send_lost ")
        self.becomes("kavri monitor --user roo", "kavri monitor --user root ")
        for command in Options.FILES:
            self.becomes(f"kavri {command} --socket kn", f"kavri {command} --socket known.txt ")

    def test_nothing_is_guessed(self):
        for line in ("request ", "status --watch ", "monitor --count ", "conformance -- --"):
            self.assertEqual(self.zsh.complete(f"kavri {line}"), (f"kavri {line}", []))


if __name__ == "__main__":
    os.environ.pop("BASH_ENV", None)
    unittest.main(argv=sys.argv[:1])
