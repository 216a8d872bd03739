#!/usr/bin/env python3
"""Turns a Markdown page of this tree into Markdown that Doxygen reads as it is meant.

    docs/site/page_filter.py <page>

Doxygen calls it for each page (FILTER_PATTERNS). The pages stay plain Markdown, in which

- a heading has an anchor made of its words. Doxygen wants it written out, and one that no other
  page has: here it is the page's name, a dash and the heading's anchor;
- a link leads to a file, perhaps to a heading in it. Here it leads to the page or header of the
  site; what is not in the site becomes its text;
- a picture has a text for those who do not see it. Doxygen would print it below. Here the picture leads
  to its file, too, for those who want it larger;
- code is code. Doxygen would end it at a quote, look for an entity at an ampersand, and take a
  percent sign away.

A slot's name in code becomes a link to its contract.
"""
import functools
import html
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# Below this heading README.md lists the pages in their order; the site's navigation has it from there.
LIST = "Manual"

# Pages that are not in that list, and the page below which the navigation has them.
BELOW = {
    "docs/memtool-chain-names.md": "docs/memtool.md",
    "docs/memtool-port.md": "docs/memtool.md",
    "CHANGELOG.md": "docs/versions.md",
    "bench/TRIED.md": "docs/performance.md",
    "SrcRes/README.md": "CONTRIBUTING.md",
}


def page_name(path):
    """The name of a page in the site; the path begins at the root of the tree."""
    if path == "SrcRes/README.md":
        return "map"
    return os.path.splitext(os.path.basename(path))[0].lower()


def anchor(heading):
    """The anchor that readers of Markdown give a heading."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def plain(text):
    """A line of Markdown without its marks."""
    return re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", text).replace("`", "").replace("**", "")


@functools.cache
def slots():
    with open(f"{ROOT}/include/qj7mem00/memvect.h", encoding="utf-8") as header:
        return frozenset(re.findall(r"SLOT\(\d+, (\w+)\)", header.read()))


class Page:
    def __init__(self, path):
        self.path = path
        self.folder = os.path.dirname(path)
        self.name = page_name(path)
        self.heading = ""
        self.used = {}  # how often an anchor was given
        self.placed = set()  # pages that the navigation has below this one

    def url(self, place=""):
        file = "index" if self.path == "README.md" else self.name
        return f"{file}.html#{place}" if place else f"{file}.html"

    def place(self, title):
        """The anchor of the next heading in the site."""
        name = anchor(title)
        count = self.used.get(name, 0)
        self.used[name] = count + 1
        return f"{self.name}-{name}-{count}" if count else f"{self.name}-{name}"

    def heading_line(self, marks, title):
        self.heading = title
        if len(marks) == 1:
            return f"{marks} {title} {{#{self.name}}}"
        place = self.place(title)
        if self.path == "README.md":  # its headings do not belong among the pages
            return f"@anchor {place}\n\n{marks} {title}"
        return f"{marks} {title} {{#{place}}}"

    def reference(self, target, text):
        shown = " ".join(re.sub(r"[`\"]", "", text).split())
        return f'@ref {target} "{shown}"'

    def link(self, match):
        text, link = match.groups()
        if re.match(r"[a-z]+:", link):
            return match.group(0)
        file, _, place = link.partition("#")
        path = os.path.normpath(os.path.join(self.folder, file)) if file else self.path
        if path == "include/qj7mem00" and self.heading == LIST:
            path = "docs/site/reference.md"
        if path.endswith(".md") and os.path.exists(f"{ROOT}/{path}"):
            name = page_name(path)
            is_first = (path not in self.placed and not place
                        and (self.heading == LIST if self.path == "README.md"
                             else BELOW.get(path) == self.path))
            if is_first:
                self.placed.add(path)
                return self.reference(name, text).replace("@ref", "@subpage", 1)
            return self.reference(f"{name}-{place}" if place else name, text)
        if path.startswith(("include/qj7mem00/", "host/refhost.hpp")) and re.search(r"\.h(pp)?$", path):
            return self.reference(os.path.basename(path), text)
        if not os.path.exists(f"{ROOT}/{path}"):
            return self.reference(os.path.basename(path), text)  # Doxygen says that there is none
        return text

    def picture(self, match):
        text, file = match.groups()
        text = html.escape(" ".join(text.split()))
        name = os.path.basename(file)
        return f'<div class="picture"><a href="{name}"><img src="{name}" alt="{text}"/></a></div>'

    def code(self, match):
        text = match.group(1)
        if text in slots():
            return f'<tt>@ref {text}Fn "{text}"</tt>'
        if not re.search("""['"&%]""", text):
            return match.group(0)
        text = re.sub(r"([\\@#%*_~])", r"\\\1", text.replace("\\|", "|")).replace("--", r"\--")
        text = html.escape(text, quote=False).replace('"', "&quot;").replace("'", "&apos;")
        return f"<tt>{text.replace('|', '&#124;')}</tt>"

    def prose(self, text):
        text = re.sub(r"!\[([^\]]*)\]\(([^) ]+)\)", self.picture, text)
        text = re.sub(r"\[([^\[\]]+)\]\(([^) ]+)\)", self.link, text)
        text = re.sub(r"`([^`]+)`", self.code, text)
        return re.sub(r"\*\*([^*\n]+)\*\*", r"<b>\1</b>", text)

    def blocks(self, text):
        """Pairs of a kind and a text: "heading", "prose" or "code"."""
        prose = []
        code = None
        for line in text.split("\n"):
            opening = re.match(r" *(```+)", line)
            if code is not None:
                code.append(line)
                if line.strip() == fence:
                    yield "code", "\n".join(code)
                    code = None
            elif opening or re.match(r"#+ ", line):
                if prose:
                    yield "prose", "\n".join(prose)
                    prose = []
                if opening:
                    fence = opening.group(1)
                    code = [line]
                else:
                    yield "heading", line
            else:
                prose.append(line)
        if prose:
            yield "prose", "\n".join(prose)

    def filtered(self, text):
        for kind, block in self.blocks(text):
            if kind == "heading":
                yield self.heading_line(*block.rstrip().split(" ", 1))
            else:
                yield self.prose(block) if kind == "prose" else block


def main():
    path = os.path.relpath(os.path.abspath(sys.argv[1]), ROOT)
    sys.stdout.reconfigure(encoding="utf-8")
    with open(f"{ROOT}/{path}", encoding="utf-8") as page:
        print("\n".join(Page(path).filtered(page.read())))


if __name__ == "__main__":
    main()
