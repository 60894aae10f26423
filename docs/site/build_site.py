"""Makes the site of the documents: HTML that needs no network, and no server either.

The pages are the Markdown files as they are, whose links are turned to where the pages are in the
site; the manual pages, rendered by mandoc; and the source files and examples that a page links
to. What a page links to and is not there, and every other warning, fails the build.

Usage: build_site.py SOURCE_FOLDER SITE_FOLDER
"""

import functools
import json
import logging
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from mkdocs.commands.build import build
from mkdocs.config import load_config
from mkdocs.exceptions import Abort

from check_site import complaints

HERE = pathlib.Path(__file__).parent

# Where each document is in the menu; one that is not named here is a guide.
REFERENCE = ["docs/protocol.md"]
PROJECT = ["docs/architecture.md", "docs/performance.md", "docs/reliability.md",
           "docs/versioning.md", "docs/dependencies.md", "CONTRIBUTING.md", "CHANGELOG.md"]
FIRST_GUIDES = ["docs/installation.md", "docs/tutorial.md", "docs/conformance.md"]

LANGUAGES = {".h": "c", ".hpp": "cpp", ".c": "c", ".cpp": "cpp", ".py": "python", ".json": "json",
             ".toml": "toml", ".txt": "cmake"}

LINK = re.compile(r"(\[[^\]]*\])\(([^)\s]+)\)")
REFERENCE_IN_MANUAL = re.compile(r'<a class="Xr" href="([^"]*)\.html"[^>]*>(.*?)</a>')
ELSEWHERE = re.compile(r"^[a-z]+:")


def slug(heading, separator="-"):
    """The name by which a link refers to a heading, as the documents use it."""
    return re.sub(r"[^\w\- ]", "", heading.strip().lower()).replace(" ", separator)


class Site:
    """The pages, as Markdown in a folder of their own."""

    def __init__(self, sources, folder):
        self.sources = sources
        self.folder = folder
        self.places = {}  # of a source, by its path: the page, by its path

    def write(self, place, text):
        path = self.folder / place
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        return place

    # --- what a link leads to ---

    def place_of(self, source):
        """The page of a file or folder; None for a folder that has none."""
        if source not in self.places:
            self.places[source] = self.make_page(source)
        return self.places[source]

    def make_page(self, source):
        path = self.sources / source
        if source == "docs/man":
            return self.manual_index()
        if source.startswith("docs/man/"):
            return self.manual_page(path)
        if path.is_dir():
            is_shown = source.startswith(("examples/", "include/kavri/")) and any(path.iterdir())
            return self.code_page(source, sorted(path.iterdir())) if is_shown else None
        if path.suffix == ".svg":
            place = f"images/{path.name}"
            (self.folder / "images").mkdir(exist_ok=True)
            shutil.copy(path, self.folder / place)
            return place
        return self.code_page(source, [path])

    def code_page(self, source, files):
        parts = [f"# {source}\n"]
        for file in files:
            if len(files) > 1:
                parts.append(f"## {file.name}\n")
            language = LANGUAGES.get(file.suffix, "text")
            parts.append(f"~~~~~~{language}\n{file.read_text(encoding='utf-8').rstrip()}\n~~~~~~\n")
        return self.write(f"source/{source}.md", "\n".join(parts))

    # --- manual pages ---

    def manual_page(self, path):
        options = ["-T", "html", "-O", "fragment,man=%N.%S.html"]
        rendered = subprocess.run(["mandoc", *options, path], check=True, capture_output=True)
        text = re.sub(r"(</?h)1\b", r"\g<1>2", rendered.stdout.decode())
        # References to the manual pages of others lead nowhere here.
        text = REFERENCE_IN_MANUAL.sub(self.own_reference, text)
        title = f"{path.stem}({path.suffix[1:]})"
        return self.write(f"man/{path.name}.md", f"# {title}\n\n<div class=\"man\">{text}</div>\n")

    def own_reference(self, match):
        is_ours = (self.sources / "docs/man" / match[1]).exists()
        return match[0] if is_ours else match[2]

    def manual_index(self):
        lines = ["# Manual pages", ""]
        for path in sorted((self.sources / "docs/man").glob("*.[0-9]")):
            self.place_of(f"docs/man/{path.name}")
            described = re.search(r"^\.Nd (.*)", path.read_text(), re.MULTILINE)[1]
            lines.append(f"- [{path.stem}({path.suffix[1:]})]({path.name}.md): {described}")
        return self.write("man/index.md", "\n".join(lines) + "\n")

    # --- documents ---

    def add_document(self, source):
        name = source.removeprefix("docs/")
        places = {"README.md": "index.md", "CONTRIBUTING.md": "contributing.md",
                  "CHANGELOG.md": "changelog.md"}
        self.places[source] = places.get(name, name)

    def write_document(self, source):
        lines, fence = [], False
        turned = functools.partial(self.turned, source)
        for line in (self.sources / source).read_text(encoding="utf-8").splitlines():
            fence ^= line.startswith("```")
            is_code = fence or line.startswith("    ")
            lines.append(line if is_code else LINK.sub(turned, line))
        self.write(self.places[source], "\n".join(lines) + "\n")

    def turned(self, source, found):
        label, target = found.groups()
        if ELSEWHERE.match(target) or target.startswith("#"):
            return found[0]
        path, hash_sign, heading = target.partition("#")
        linked = os.path.normpath(os.path.join(os.path.dirname(source), path))
        if not (self.sources / linked).exists():
            sys.exit(f"site: {source}: the link to {target} leads nowhere")
        place = self.place_of(linked)
        if place is None:
            return label[1:-1]
        own = os.path.dirname(self.places[source])
        return f"{label}({os.path.relpath(place, own)}{hash_sign}{heading})"


def menu(site, documents):
    rest = [each for each in documents if each not in PROJECT + REFERENCE + ["README.md"]]
    guides = [each for each in FIRST_GUIDES if each in rest]
    guides += [each for each in rest if each not in guides]
    manual = [place for source, place in site.places.items() if source.startswith("docs/man/")]
    headers = sorted(path.name for path in (site.sources / "include/kavri").glob("*.h*"))
    return [
        {"Overview": "index.md"},
        {"Guides": [site.places[each] for each in guides]},
        {"Reference": [
            *({name: site.place_of(f"include/kavri/{name}")} for name in headers),
            *(site.places[each] for each in REFERENCE),
            {"Manual pages": ["man/index.md", *manual]},
        ]},
        {"Project": [site.places[each] for each in PROJECT]},
    ]


def configuration(site, documents, destination):
    return load_config(
        config_file=str(HERE / "mkdocs.yml"),
        docs_dir=str(site.folder),
        site_dir=str(destination),
        nav=menu(site, documents),
        markdown_extensions=[
            "tables", "sane_lists", "pymdownx.superfences",
            {"pymdownx.highlight": {"guess_lang": False}},
            {"toc": {"slugify": slug, "permalink": True}},
        ],
    )


def make_search_self_contained(destination):
    """See theme/main.html."""
    index = destination / "search/search_index.json"
    worker, = destination.glob("assets/javascripts/workers/search.*.min.js")
    code = json.dumps(worker.read_text(encoding="utf-8"))
    (destination / "search/search.js").write_text(
        f"var __search = {{\n  index: Promise.resolve({index.read_text(encoding='utf-8')}),\n"
        f"  worker: URL.createObjectURL(new Blob([{code}], {{type: 'text/javascript'}}))\n}};\n",
        encoding="utf-8",
    )
    index.unlink()


def main():
    sources = pathlib.Path(sys.argv[1]).resolve()
    destination = pathlib.Path(sys.argv[2]).resolve()
    logging.basicConfig(level=logging.WARNING, format="site: %(message)s")
    with tempfile.TemporaryDirectory() as folder:
        site = Site(sources, pathlib.Path(folder))
        documents = ["README.md", "CONTRIBUTING.md", "CHANGELOG.md"]
        documents += sorted(f"docs/{path.name}" for path in (sources / "docs").glob("*.md"))
        for document in documents:
            site.add_document(document)
        site.place_of("docs/man")
        for document in documents:
            site.write_document(document)
        try:
            build(configuration(site, documents, destination))
        except Abort as reason:
            sys.exit(f"site: {reason}")
    make_search_self_contained(destination)
    (destination / "404.html").unlink()  # of a server at whose root the site would have to be
    if found := list(complaints(destination)):
        sys.exit("\n".join(f"site: {line}" for line in found))


if __name__ == "__main__":
    main()
