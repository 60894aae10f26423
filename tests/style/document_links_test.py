"""The check of the documents' references finds what it is there to find, and nothing else."""

import pathlib
import tempfile
import unittest

import document_links


class DocumentLinksTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        self.write("docs/page.md", "# Page\n\n### The `JSON` report\n")
        self.write("src/wire/limits.h", "")

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def found_in(self, text):
        self.write("README.md", text)
        return list(document_links.complaints(self.root))

    def test_what_is_there_passes(self):
        self.assertEqual([], self.found_in(
            "[page](docs/page.md) [report](docs/page.md#the-json-report) [src](src) "
            "[site](https://example.org/nowhere) `src/wire/limits.h` `build/release/bin`\n\n"
            "    cat src/wire/limits.h\n"))

    def test_what_is_not_there_is_found(self):
        for text in ("[page](docs/pages.md)", "[page](docs/page.md#report)", "[here](#nothing)",
                     "`src/wire/limit.h`", "    cat src/wire/limit.h", "`cat docs/none.md`"):
            with self.subTest(text=text):
                found = self.found_in(text + "\n")
                self.assertEqual(1, len(found), found)
                self.assertIn("README.md", found[0])

    def test_a_link_is_relative_to_its_document(self):
        self.write("docs/other.md", "[page](page.md) [page](docs/page.md)\n")
        self.assertEqual(1, len(self.found_in("")))


if __name__ == "__main__":
    unittest.main()
