"""Makes the pages of the site from the documents, and checks where their links lead.

usage: build.py SITE VERSION, from the root of the tree, after Doxygen has written SITE/api
"""

import html
import html.parser
import pathlib
import re
import shutil
import sys
import urllib.parse

import markdown

# Every page, in the order in which the site offers them.
CHAPTERS = (
    ("Guide", (
        ("README.md", "Start"),
        ("docs/concepts.md", "Concepts"),
        ("docs/writing-a-service.md", "First service"),
        ("docs/parameters.md", "Parameters and errors"),
        ("docs/calling.md", "Calls and notifications"),
        ("docs/testing.md", "Testing"),
        ("docs/debugging.md", "Running and debugging"),
        ("docs/security.md", "Security"),
        ("docs/reliability.md", "Speed and reliability"),
        ("docs/porting.md", "Porting a daemon"),
        ("bindings/python/README.md", "Python"),
    )),
    ("Reference", (
        ("docs/protocol.md", "The wire"),
        ("docs/router.md", "The router"),
        ("docs/conventions.md", "Conventions"),
        ("docs/compatibility.md", "What is pinned"),
        ("docs/performance.md", "Benchmarks"),
        ("docs/mutation.md", "Mutation testing"),
        ("docs/packages.md", "Packages"),
        ("docs/glossary.md", "Glossary"),
        ("CONTRIBUTING.md", "Contributing"),
        ("CHANGELOG.md", "Changes"),
    )),
)
TITLES = {path: title for _, pages in CHAPTERS for path, title in pages}

FENCE = re.compile(r"^```(\w+) (\S+)$", re.MULTILINE)  # a listing that has a file's name
NAMED = re.compile(r"<code>([\w./-]+)</code>")


def page_of(path):
    """The file name of a document's page."""
    if path == "README.md":
        return "index.html"
    name = pathlib.PurePosixPath(path)
    return ("python" if name.parent.name == "python" else name.stem.lower()) + ".html"


def api_page(name):
    """Doxygen's page of a header."""
    return "api/" + name.replace("_", "__").replace(".", "_8") + ".html"


class Links:
    """Where a document's links lead on the site; what they need besides the pages is copied there."""

    def __init__(self, site, document):
        self.site = site
        self.folder = pathlib.Path(document).parent

    def target(self, link):
        """The site's address for a link, None for a folder, which has no page."""
        parts = urllib.parse.urlsplit(link)
        if parts.scheme or not parts.path:
            return link
        path = (self.folder / parts.path).resolve().relative_to(pathlib.Path.cwd())
        fragment = "#" + parts.fragment if parts.fragment else ""
        if str(path) in TITLES:
            return page_of(str(path)) + fragment
        if path.suffix == ".h" and (self.site / api_page(path.name)).exists():
            return api_page(path.name) + fragment
        if path.is_dir():
            return None
        if not path.exists():
            return link  # for the check to find
        copy = self.site / ("source" if path.suffix != ".svg" else ".") / (path if path.suffix != ".svg" else path.name)
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(path, copy)
        return str(copy.relative_to(self.site))

    def rewrite(self, text):
        text = re.sub(r'<a href="([^"]+)">(.*?)</a>', self._anchor, text, flags=re.DOTALL)
        text = re.sub(r'<img ([^>]*)src="([^"]+)"', lambda m: f'<img {m[1]}src="{self.target(m[2])}"', text)
        return NAMED.sub(self._mention, text)

    def _anchor(self, match):
        target = self.target(html.unescape(match[1]))
        return match[2] if target is None else f'<a href="{html.escape(target)}">{match[2]}</a>'

    @staticmethod
    def _mention(match):
        """A document that is named in passing is a link, too."""
        path = match[1]
        return f'<a href="{page_of(path)}">{match[0]}</a>' if path in TITLES and path != "README.md" else match[0]


def navigation(current):
    parts = []
    for chapter, pages in CHAPTERS:
        items = "".join(
            f'<li><a href="{page_of(path)}"{" class=here" if path == current else ""}>{html.escape(title)}</a></li>'
            for path, title in pages
        )
        parts.append(f"<p>{chapter}</p><ul>{items}</ul>")
    return "".join(parts) + '<p>Headers</p><ul><li><a href="api/files.html">All functions</a></li></ul>'


def render(site, path, template, version):
    text = FENCE.sub(r"*\2*\n\n```\1", pathlib.Path(path).read_text())
    body = markdown.markdown(text, extensions=["tables", "fenced_code", "toc", "sane_lists"])
    body = Links(site, path).rewrite(body)
    page = template
    for key, value in (("TITLE", TITLES[path]), ("VERSION", version), ("NAV", navigation(path)), ("BODY", body)):
        page = page.replace(f"@{key}@", value)
    (site / page_of(path)).write_text(page)


# --- The check ---


class Anchors(html.parser.HTMLParser):
    """The places and the links of a page."""

    def __init__(self, path):
        super().__init__()
        self.ids = set()
        self.links = []
        self.feed(path.read_text(errors="replace"))

    def handle_starttag(self, tag, attrs):
        for key, value in attrs:
            if key == "id" or (tag == "a" and key == "name"):
                self.ids.add(value)
            elif key in ("href", "src") and value:
                self.links.append(value)


def broken_links(site):
    pages = {}

    def page(path):
        if path not in pages:
            pages[path] = Anchors(path)
        return pages[path]

    for path in sorted(site.rglob("*.html")):
        for link in page(path).links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme in ("http", "https", "javascript"):
                continue  # other people's pages are not looked at: the site needs no network
            target = path if not parts.path else (path.parent / urllib.parse.unquote(parts.path)).resolve()
            fragment = urllib.parse.unquote(parts.fragment)
            if not target.exists():
                yield f"{path}: {link}: there is no such page"
            elif fragment and target.suffix == ".html" and fragment not in page(target).ids:
                yield f"{path}: {link}: there is no such place"


def unlink_false_addresses(site):
    """Doxygen takes the text file:line of a log line for an address."""
    for path in (site / "api").glob("*.html"):
        text = path.read_text()
        without = re.sub(r'<a href="file:line">(.*?)</a>', r"\1", text)
        if without != text:
            path.write_text(without)


def main():
    site, version = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    template = pathlib.Path("docs/site/page.html").read_text()
    shutil.copyfile("docs/site/style.css", site / "style.css")
    missing = {str(path) for path in pathlib.Path("docs").glob("*.md")} - set(TITLES)
    problems = [f"{path}: not a page of the site (CHAPTERS)" for path in sorted(missing)]
    for path in TITLES:
        render(site, path, template, version)
    unlink_false_addresses(site)
    problems += broken_links(site)
    for problem in problems:
        print(problem, file=sys.stderr)
    sys.exit(1 if problems else 0)


main()
