"""Checks that what the documents refer to is there.

Of each Markdown file: relative links lead to a file or folder, and to a heading of it
where they name one; and words of code that begin with a folder of the sources
("src/wire/limits.h") are paths that exist.

Usage: document_links.py SOURCE_FOLDER
Prints a line per reference that leads nowhere; exit status 1 if there is one.
"""

import pathlib
import re
import sys

DOCUMENTS = ("*.md", "docs/**/*.md", "examples/**/*.md")

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
ELSEWHERE = re.compile(r"^[a-z]+:")
CODE = re.compile(r"`([^`\n]+)`")
PATH = re.compile(r"^(?:bench|docs|examples|include|packaging|scripts|src|tests)/[\w./-]*\w$")
# What running the benchmarks writes.
MADE_LATER = "bench/results/"


def slug(heading):
    """The name by which a link refers to a heading."""
    kept = re.sub(r"[^\w\- ]", "", heading.strip().lower())
    return kept.replace(" ", "-")


def headings(text):
    return {slug(line.lstrip("#")) for line in text.splitlines() if re.match(r"#+ ", line)}


def broken_link(document, target):
    path, _, heading = target.partition("#")
    file = (document.parent / path) if path else document
    if not file.exists():
        return True
    return bool(heading) and heading not in headings(file.read_text(encoding="utf-8"))


def words_of_code(text):
    """Of code within lines, and of lines that are code."""
    for span in CODE.findall(text):
        yield from span.split()
    for line in text.splitlines():
        if line.startswith("    "):
            yield from line.split()


def complaints(root):
    for pattern in DOCUMENTS:
        for document in sorted(root.glob(pattern)):
            name = document.relative_to(root)
            text = document.read_text(encoding="utf-8")
            for target in LINK.findall(text):
                if not ELSEWHERE.match(target) and broken_link(document, target):
                    yield f"{name}: the link to {target} leads nowhere"
            for word in words_of_code(text):
                is_path = PATH.match(word) and not word.startswith(MADE_LATER)
                if is_path and not (root / word).exists():
                    yield f"{name}: there is no {word}"


def main():
    found = list(complaints(pathlib.Path(sys.argv[1])))
    for line in found:
        print(line)
    print("every reference leads somewhere" if not found else f"{len(found)} lead nowhere")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
