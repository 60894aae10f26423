"""What is wrong with the pages of a site: links and anchors that lead nowhere, and what would be
fetched from elsewhere when a page is opened.
"""

import html.parser
import os
import pathlib
import re
import urllib.parse

ELSEWHERE = re.compile(r"^([a-z]+:|//)")
STYLE_ADDRESS = re.compile(r"url\(\s*['\"]?((?:https?:)?//[^)'\"]*)")
# Attributes by which a browser fetches something by itself.
FETCHED = {("script", "src"), ("img", "src"), ("link", "href"), ("iframe", "src"),
           ("source", "src"), ("video", "src"), ("audio", "src"), ("object", "data")}


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.names = set()
        self.links = []
        self.fetched = []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name == "id" or (tag, name) == ("a", "name"):
                self.names.add(value)
            elif (tag, name) == ("a", "href"):
                self.links.append(value)
            elif (tag, name) in FETCHED and not value.startswith("data:"):
                self.fetched.append(value)


def complaints(site):
    pages = {path: Page(path) for path in sorted(site.rglob("*.html"))}
    for path, page in pages.items():
        name = path.relative_to(site)
        for address in page.fetched:
            if ELSEWHERE.match(address):
                yield f"{name} fetches {address}"
        for address in page.links + page.fetched:
            if not ELSEWHERE.match(address) and not leads_somewhere(pages, path, address):
                yield f"{name}: the link to {address} leads nowhere"
    for path in sorted(site.rglob("*.css")):
        for address in STYLE_ADDRESS.findall(path.read_text(encoding="utf-8")):
            yield f"{path.relative_to(site)} fetches {address}"


def leads_somewhere(pages, path, address):
    target, _, anchor = urllib.parse.unquote(address).partition("#")
    linked = path
    if target:
        linked = pathlib.Path(os.path.normpath(path.parent / target.partition("?")[0]))
    if linked.is_dir():
        linked /= "index.html"
    if not linked.exists():
        return False
    return not anchor or linked not in pages or anchor in pages[linked].names
