#!/usr/bin/env python3
"""Finishes the site that Doxygen has made: the search finds what the pages say.

    docs/site/finish_site.py <site>

Doxygen's search knows names and titles, each by its beginning. Added are the headings of the pages, by
each of their words, and words that few sections have; each leads to its sections. Doxygen makes a
file page for each page of the manual as well, without contents: these go. Its navigation leads to places
in a header's page for what it describes in the page of a namespace: the header's page gets these places.
Its menu for narrow windows gets the pages of the manual.
"""
import collections
import glob
import html
import os
import re
import sys

import page_filter

COMMON = 20  # a word in more sections than these leads nowhere
SHORTEST = 4  # letters of a word that is no heading's


def pages(site):
    """The paths of the pages that are in the site."""
    paths = ["README.md", "CONTRIBUTING.md", *page_filter.BELOW]
    paths += (f"docs/{os.path.basename(path)}" for path in glob.glob(f"{page_filter.ROOT}/docs/*.md"))
    return [path for path in sorted(set(paths)) if os.path.exists(f"{site}/{page_filter.Page(path).url()}")]


def sections(path):
    """(url, page's title, heading or "", text) of each section of a page."""
    page = page_filter.Page(path)
    with open(f"{page_filter.ROOT}/{path}", encoding="utf-8") as file:
        text = file.read()
    title = ""
    section = None
    for kind, block in page.blocks(text):
        if kind == "heading":
            if section:
                yield section
            marks, heading = block.rstrip().split(" ", 1)
            heading = page_filter.plain(heading)
            if len(marks) == 1:
                title = heading
                section = (page.url(), title, "", "")
            else:
                section = (page.url(page.place(heading)), title, heading, "")
        elif kind == "prose":
            section = (*section[:3], section[3] + page_filter.plain(block) + "\n")
    if section:
        yield section


def key(text):
    """What the search compares: Doxygen's writing of a name."""
    return "".join(c if c.isascii() and c.isalnum() else "".join(f"_{b:02x}" for b in c.encode()) for c in text.lower())


def entry(shown, targets):
    def quoted(text):
        return "'" + html.escape(text).replace("\\", r"\\").replace("&#x27;", "&#39;") + "'"
    places = ",".join(f"['../{url}',1,{quoted(scope)}]" for url, scope in targets)
    return f"[{quoted(shown)},{places}]"


def manual_entries(site):
    """(key, entry) of all headings and of the words that few sections have."""
    words = collections.defaultdict(dict)
    shown = {}
    for path in pages(site):
        for url, title, heading, text in sections(path):
            for match in re.finditer(r"[\w.+/-]+", heading or title):
                if match.start() or heading:  # Doxygen itself has the title by its beginning
                    rest = (heading or title)[match.start():]
                    yield key(rest), entry(heading or title, [(url, title if heading else "Manual")])
            for word in re.findall(r"[A-Za-z][A-Za-z0-9_]*[A-Za-z0-9]", text):
                if len(word) >= SHORTEST:
                    words[word.lower()][url] = f"{title}: {heading}" if heading else title
                    shown.setdefault(word.lower(), word)
    for word, places in words.items():
        if len(places) <= COMMON:
            yield key(word), entry(shown[word], places.items())


def first_letter(name):
    code = re.match(r"_([0-9a-f]{2})", name)
    return chr(int(code.group(1), 16)) if code else name[0]


def extend_search(site):
    folder = f"{site}/search"
    entries = []
    for file in glob.glob(f"{folder}/all_*.js"):
        with open(file, encoding="utf-8") as lines:
            found = re.findall(r"^  \['(\w+)_\d+',(\[.*\])\],?$", lines.read(), re.M)
        entries += (pair for pair in found if "_8md.html" not in pair[1])
    if not entries:
        sys.exit(f"{folder} has no entries of the form that is known; which Doxygen has written them?")
    entries += manual_entries(site)
    by_letter = collections.defaultdict(list)
    for name, text in sorted(set(entries)):
        if first_letter(name).isascii():
            by_letter[first_letter(name)].append((name, text))

    with open(f"{folder}/all_0.html", encoding="utf-8") as file:
        results = file.read()
    letters = "".join(sorted(by_letter))
    for i, letter in enumerate(letters):
        lines = ",\n".join(f"  ['{name}_{n}',{text}]" for n, (name, text) in enumerate(by_letter[letter]))
        with open(f"{folder}/all_{i:x}.js", "w", encoding="utf-8") as file:
            file.write(f"var searchData=\n[\n{lines}\n];\n")
        with open(f"{folder}/all_{i:x}.html", "w", encoding="utf-8") as file:
            file.write(results.replace("all_0.js", f"all_{i:x}.js"))
    rewrite(f"{folder}/searchdata.js", r'(indexSectionsWithContent =\n\{\n  0: )"[^\n]*",', rf'\g<1>"{letters}",')


def rewrite(path, pattern, replacement):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    changed = re.sub(pattern, replacement, text)
    if changed != text:
        with open(path, "w", encoding="utf-8") as file:
            file.write(changed)


def fill_menu(site):
    """The menu of narrow windows has the pages, in the order of README.md."""
    with open(f"{page_filter.ROOT}/README.md", encoding="utf-8") as file:
        listed = re.search(rf"(?ms)^## {page_filter.LIST}$(.*?)(^## |\Z)", file.read()).group(1)
    listed = re.findall(r"\]\(([\w./-]+\.md)\)", listed)
    for path in pages(site):
        if path not in listed and path not in page_filter.BELOW and path != "README.md":
            sys.exit(f"README.md does not list {path} below {page_filter.LIST}")
    items = []
    for path in [*listed, "docs/site/reference.md"]:
        page = page_filter.Page(path)
        title = next(sections(path))[1]
        items.append(f'{{text:"{title}",url:"{page.url()}"}}')
    rewrite(f"{site}/menudata.js", r'url:"pages\.html"',
            f'url:"index.html#readme-{page_filter.LIST.lower()}",children:[\n' + ",\n".join(items) + "]")
    os.remove(f"{site}/pages.html")  # it has the pages that README.md does not list: none
    for path in glob.glob(f"{site}/navtreeindex*.js"):
        rewrite(path, r'(?m)^"pages\.html":\[\],?\n', "")


def drop_file_pages(site):
    """Links to the file pages of the manual lead to its pages; searches for files find headers."""
    names = {}
    for path in [*pages(site), "docs/site/reference.md"]:
        names[os.path.basename(path).replace(".md", "_8md.html")] = page_filter.Page(path).url()
    names["SrcRes_2README_8md.html"] = page_filter.Page("SrcRes/README.md").url()
    names["README_8md.html"] = "index.html"
    for path in glob.glob(f"{site}/*_8md.html"):
        os.remove(path)
    for path in glob.glob(f"{site}/search/files_*.js"):
        rewrite(path, r"(?m)^  \['\w+',\['[^']*',\['\.\./\w*[\w-]*_8md\.html'.*\n", "")
        rewrite(path, r",\n\];", "\n];")
    pattern = "|".join(sorted(map(re.escape, names), key=len, reverse=True))
    for path in glob.glob(f"{site}/*.html") + glob.glob(f"{site}/*.js"):
        rewrite(path, rf'(?<=")({pattern})', lambda match: names[match.group(1)])


def add_places(site):
    """Places that the navigation leads to are where a page names the thing."""
    wanted = collections.defaultdict(set)
    for path in glob.glob(f"{site}/*.js"):
        with open(path, encoding="utf-8") as file:
            for page, place in re.findall(r'"([\w-]+\.html)#(\w+)"', file.read()):
                wanted[page].add(place)
    for path in glob.glob(f"{site}/*.html"):
        with open(path, encoding="utf-8") as file:
            known = set(re.findall(r'\b(?:id|name)="([^"]+)"', file.read()))
        missing = wanted[os.path.basename(path)] - known

        def with_place(match, missing=missing):
            place = match.group(1)
            if place not in missing:
                return match.group(0)
            missing.remove(place)
            return f'<a id="{place}"{match.group(0)[2:]}'

        rewrite(path, r'<a class="el" href="[\w-]+\.html#(\w+)"', with_place)
        if "nested-classes" not in known:
            rewrite(path, r'<a href="#nested-classes">[^<]*</a>( &#124;\s*)?', "")


def main():
    extend_search(sys.argv[1])
    drop_file_pages(sys.argv[1])
    add_places(sys.argv[1])
    fill_menu(sys.argv[1])


main()
