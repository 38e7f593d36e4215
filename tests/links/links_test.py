"""Whether every link inside of the project leads somewhere: files that are there, and headings that they have.

    links_test.py pages ROOT      the Markdown pages of a source tree
    links_test.py html FOLDER     the pages of a site, as the API reference is one

Links to other sites are not followed: the tests talk to nobody."""
import html.parser
import pathlib
import re
import sys
import urllib.parse

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent.parent / "docs" / "reference"))
from headings import headings, lines_outside_of_code  # noqa: E402

LINK = re.compile(r"\]\(\s*<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)|^\s*\[[^\]]+\]:\s+(\S+)|(?:href|src)=\"([^\"]+)\"")


class Page:
    """The links of a page, with the place of each, and what links may lead to in it."""

    def __init__(self, path):
        self.links = []
        self.anchors = set()
        text = path.read_text(encoding="utf-8")
        if path.suffix == ".md":
            self.anchors = {anchor for _, _, anchor in headings(text)}
            for number, line in lines_outside_of_code(text):
                for found in LINK.finditer(re.sub(r"`[^`]*`", "", line)):
                    self.links.append((f"{path}:{number + 1}", found[1] or found[2] or found[3]))
        elif path.suffix == ".html":
            Elements(self, path).feed(text)


class Elements(html.parser.HTMLParser):
    def __init__(self, page, path):
        super().__init__()
        self.page = page
        self.path = path

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name == "id" or (tag, name) == ("a", "name"):
                self.page.anchors.add(value)
            elif name in ("href", "src") and value:
                self.page.links.append((f"{self.path}:{self.getpos()[0]}", value))


def dead(paths, root):
    """What is wrong, a line each, and the number of links that were looked at."""
    pages = {}

    def page(path):
        if path not in pages:
            pages[path] = Page(path)
        return pages[path]

    problems = []
    count = 0
    for path in paths:
        for place, link in page(path).links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or parts.netloc:
                continue
            count += 1
            to = (path.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else path
            if not to.is_relative_to(root) or not to.exists():
                problems.append(f"{place}: {link}: no such file")
            elif parts.fragment and to.suffix not in (".md", ".html"):
                problems.append(f"{place}: {link}: no page with headings")
            elif parts.fragment and urllib.parse.unquote(parts.fragment) not in page(to).anchors:
                problems.append(f"{place}: {link}: no such heading")
    return problems, count


def main():
    kind, root = sys.argv[1], pathlib.Path(sys.argv[2]).resolve()
    suffix = {"pages": "md", "html": "html"}[kind]
    paths = sorted(path for path in root.rglob(f"*.{suffix}")
                   if kind == "html" or path.relative_to(root).parts[0] not in (".git", ".cache", "build"))
    problems, count = dead(paths, root)
    print("\n".join(problems), f"{count} links of {len(paths)} pages", sep="\n")
    return 1 if problems or count == 0 else 0


sys.exit(main())
