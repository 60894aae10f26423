"""The check of the includes finds what it is there to find, and nothing else."""

import pathlib
import tempfile
import unittest

import allowed_includes


class AllowedIncludesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.write("include/kavri/core.h", "")
        self.write("include/kavri/ipc.h", '#include <stddef.h>\n#include "core.h"\n')
        self.write("src/wire/frame.h", "#include <string>\n")
        self.write("src/core/connection.h", '#include "wire/frame.h"\n')
        self.write("src/broker/routing/router.h", "")
        self.write("src/test_service/test_service.h", "")
        self.write("src/conformance/report/report.h", "")
        self.write("src/conformance/run/repeats.h", '#include "conformance/report/report.h"\n')

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def found_in(self, name, text):
        self.write(name, text)
        return list(allowed_includes.violations(self.root))

    def test_what_is_allowed_passes(self):
        self.write("src/broker/loop/server.h", "#include <string>\n")
        self.assertEqual([], self.found_in("src/broker/loop/server.cpp", (
            "#include <unistd.h>\n"
            '#include "broker/loop/server.h"\n'
            '#include "wire/frame.h"\n')))
        self.assertEqual([], self.found_in(
            "src/broker/hosted_test_service.h", '#include "test_service/test_service.h"\n'))
        self.assertEqual([], self.found_in("src/test_service/main.cpp", "#include <kavri/ipc.h>\n"))
        self.assertEqual([], self.found_in("tests/test_ipc_initiator.cpp", "#include <kavri/ipc.h>\n"))

    def test_a_layer_that_may_not_be_used_is_found(self):
        for name, text, part in (
                ("src/broker/a.cpp", '#include "core/connection.h"\n', "may not use core"),
                ("src/broker/a.cpp", "#include <kavri/ipc.h>\n", "may not use kavri"),
                ("src/core/a.cpp", '  #  include "broker/routing/router.h"\n', "may not use broker"),
                ("src/wire/a.cpp", '#include "core/connection.h"\n', "may not use core"),
                ("src/test_service/a.cpp", "#include <kavri/ipc.h>\n", "may not use kavri"),
                ("src/conformance/report/a.cpp", '#include "conformance/run/repeats.h"\n',
                 "may not use conformance/run"),
                ("src/conformance/report/html/a.cpp", '#include "conformance/run/repeats.h"\n',
                 "may not use conformance/run"),
                ("src/conformance/agent/a.cpp", '#include "conformance/report/report.h"\n',
                 "may not use conformance/report"),
                ("include/kavri/a.h", '#include "wire/frame.h"\n', "may not use wire")):
            with self.subTest(name=name, text=text):
                found = self.found_in(name, text)
                self.assertEqual(1, len(found), found)
                self.assertIn(name, found[0])
                self.assertIn(part, found[0])
                (self.root / name).unlink()

    def test_input_and_output_where_there_is_to_be_none_are_found(self):
        for header in ("unistd.h", "sys/socket.h", "fstream", "iostream"):
            with self.subTest(header=header):
                found = self.found_in("src/wire/a.cpp", f"#include <{header}>\n")
                self.assertEqual(1, len(found), found)
                self.assertIn("no input or output", found[0])

    def test_headers_without_their_folder_or_that_are_not_there_are_found(self):
        found = self.found_in("src/core/a.cpp", '#include "connection.h"\n#include "core/gone.h"\n')
        self.assertEqual(2, len(found), found)
        self.assertIn('"core/connection.h"', found[0])
        self.assertIn("no such header", found[1])

    def test_an_unknown_folder_is_found(self):
        for name in ("src/extra/a.cpp", "src/conformance/extra/a.cpp", "src/conformance/a.cpp"):
            with self.subTest(name=name):
                found = self.found_in(name, "")
                self.assertEqual(1, len(found), found)
                self.assertIn(name, found[0])
                (self.root / name).unlink()

    def test_the_module_may_use_only_the_public_header(self):
        found = self.found_in("tests/test_ipc_initiator.cpp",
                              '#include <kavri/core.h>\n#include "wire/frame.h"\n')
        self.assertEqual(2, len(found), found)


if __name__ == "__main__":
    unittest.main()
