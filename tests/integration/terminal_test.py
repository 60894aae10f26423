"""Checks what kavri and its kin show on a terminal of 60 columns: every line fits, and no
line that was replaced leaves anything behind.

Usage: terminal_test.py FOLDER_OF_THE_PROGRAMS
"""

import contextlib
import fcntl
import os
import pathlib
import pty
import re
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import unittest

PROGRAMS = pathlib.Path(sys.argv[1])
COLUMNS = 60
PASS = ["--case", "initiatorSendPass"]


class Screen:
    """As much of a terminal as the programs use: colours, carriage return, erase to the end."""

    def __init__(self):
        self.lines = [""]
        self.column = 0
        self.longest = 0

    def write(self, text):
        text = re.sub(r"\x1b\[\d*m", "", text)
        for piece in re.findall(r"\x1b\[K|\r|\n|[^\x1b\r\n]+|\x1b", text):
            if piece == "\x1b[K":
                self.lines[-1] = self.lines[-1][: self.column]
            elif piece == "\r":
                self.column = 0
            elif piece == "\n":
                self.lines.append("")
            else:
                if piece == "\x1b":
                    raise AssertionError("an escape sequence that is not known")
                line = self.lines[-1].ljust(self.column)
                self.lines[-1] = line[: self.column] + piece + line[self.column + len(piece) :]
                self.column += len(piece)
                self.longest = max(self.longest, self.column)


class Terminal(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = {**os.environ, "TERM": "xterm", "TMPDIR": folder.name}
        self.environment.pop("NO_COLOR", None)

    def onTerminal(self, program, *arguments, columns=COLUMNS):
        """The exit status, and the screen at the end; both outputs go to it."""
        controlling, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        process = subprocess.Popen([PROGRAMS / program, *arguments], stdin=subprocess.DEVNULL,
                                   stdout=terminal, stderr=terminal, env=self.environment)
        os.close(terminal)
        shown = b""
        try:
            while piece := os.read(controlling, 65536):
                shown += piece
        except OSError:  # how Linux says that nobody has the terminal open any more
            pass
        os.close(controlling)
        screen = Screen()
        screen.write(shown.decode().replace("\r\n", "\n\r"))
        return process.wait(), screen, shown.decode()

    def expectFits(self, screen):
        # A command is to be pasted, a single word is never broken, and the log is the broker's.
        wide = [line for line in screen.lines if len(line) > COLUMNS and " " in line.strip()
                and not line.startswith(("    " + str(PROGRAMS / "kavri"), "kavri-broker: "))]
        self.assertEqual(wide, [])

    def test_aRunFits(self):
        status, screen, shown = self.onTerminal("kavri", "conformance", "--fault", "init-fails",
                                                *PASS, "--case", "*RepeatCallback")
        self.assertEqual(status, 1)
        self.expectFits(screen)
        self.assertIn("running", shown)
        self.assertNotIn("running", "\n".join(screen.lines))
        self.assertEqual(screen.lines[-1], "")
        self.assertIn("2 cases, 0 passed", "\n".join(screen.lines))

    def test_aBarIsGoneAtTheEnd(self):
        status, screen, shown = self.onTerminal("kavri", "conformance", *PASS, "--repeat", "3")
        self.assertEqual(status, 0)
        self.expectFits(screen)
        self.assertIn("[##", shown)
        self.assertNotIn("[#", "\n".join(screen.lines))

    def test_aBarIsGoneBeforeAComplaint(self):
        status, screen, shown = self.onTerminal("kavri", "conformance", *PASS, "--repeat", "100000",
                                                "--timeout", "2")
        self.assertEqual(status, 2)
        self.assertIn("[", shown)
        self.assertNotIn("] ", "\n".join(screen.lines))
        self.assertTrue(screen.lines[-2].startswith("kavri conformance: "), screen.lines[-2])

    def test_listsAndExplanationsFit(self):
        for arguments in (["--list"], ["--list-faults"], ["--explain", "initiatorRepeatCallback"],
                          ["--explain", "send-lost"]):
            status, screen, _ = self.onTerminal("kavri", "conformance", *arguments)
            self.assertEqual(status, 0)
            self.expectFits(screen)

    def test_helpFits(self):
        for program, *arguments in (["kavri"], ["kavri", "conformance"], ["kavri", "bench"],
                                    ["kavri", "status"], ["kavri", "request"], ["kavri", "listen"],
                                    ["kavri", "serve"], ["kavri", "publish"], ["kavri-broker"],
                                    ["kavri-test-service"]):
            status, screen, _ = self.onTerminal(program, *arguments, "--help")
            self.assertEqual(status, 0)
            self.expectFits(screen)

    @contextlib.contextmanager
    def broker(self):
        """The environment names its socket."""
        socket = self.environment["KAVRI_BROKER"] = str(self.folder / "s")
        with subprocess.Popen([PROGRAMS / "kavri-broker", "--test-service", "--socket", socket],
                              stderr=subprocess.PIPE, text=True) as broker:
            try:
                while "ready on" not in broker.stderr.readline():
                    pass
                yield
            finally:
                broker.terminate()

    def test_aTerminalObeysNoPayload(self):
        with self.broker():
            for payload, shown in (("hello", "hello\r\n"), ("hello\n", "hello\r\n"), ("", ""),
                                   ("\x1b[2Ja\n\r\u009bb", "\\x1b[2Ja\r\n\\x0d\\u009bb\r\n")):
                self.assertEqual(self.onTerminal("kavri", "request", "test", "echo", payload)[::2],
                                 (0, shown))

    def test_aTerminalObeysNoEvent(self):
        with self.broker():
            listener = threading.Thread(target=lambda: self.shown.append(self.onTerminal(
                "kavri", "listen", "news", "--count", "1")))
            self.shown = []
            listener.start()
            # The listener is there once an event reaches it.
            while listener.is_alive():
                subprocess.run([PROGRAMS / "kavri", "publish", "news", "a\x1b[31m", "b\nc"],
                               env=self.environment, check=True)
            listener.join()
        status, _, shown = self.shown[0]
        self.assertEqual(status, 0)
        self.assertRegex(shown, r"Z news a\\x1b\[31m b\\nc\r\n$")

    def test_measurementsFit(self):
        with self.broker():
            status, screen, shown = self.onTerminal("kavri", "bench", "--seconds", "0.5")
        self.assertEqual(status, 0)
        self.expectFits(screen)
        self.assertIn("to go", shown)
        self.assertNotIn("to go", "\n".join(screen.lines))

    def test_whatIsNoTerminalGetsNoEscape(self):
        self.environment["TERM"] = "dumb"
        _, _, shown = self.onTerminal("kavri", "conformance", *PASS, "--repeat", "2")
        self.assertNotIn("\x1b", shown)
        self.environment["TERM"] = "xterm"
        piped = subprocess.run([PROGRAMS / "kavri", "conformance", *PASS, "--repeat", "2"],
                               env=self.environment, capture_output=True, check=True)
        self.assertNotIn(b"\x1b", piped.stdout + piped.stderr)
        self.assertNotIn(b"\r", piped.stdout + piped.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
