"""The manual's site is whole: every link, picture and script of its pages, of its navigation and of
its search leads to a file of the site, and to a place that this file has. No file names a folder of
the machine that has made it. Every page of the manual is in the navigation, and the search finds
headings and words of the text.

    site_test.py <site> <folder of the machine>...
"""
import glob
import html.parser
import os
import re
import sys
import urllib.parse

site = os.path.abspath(sys.argv[1])
faults = []


class Html(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.links = []
        self.places = set()
        self.untold = []  # pictures without a text

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.places.update(value for name, value in attributes if name in ("id", "name") and value)
        for name in ("href", "src", "data"):
            # The search sets the address of its results itself.
            if values.get(name) and not values[name].startswith("javascript:"):
                self.links.append(values[name])
        if tag == "img" and "alt" not in values:
            self.untold.append(values.get("src"))


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


documents = {}
for path in glob.glob(f"{site}/**/*.html", recursive=True):
    documents[path] = Html()
    documents[path].feed(read(path))


def check(path, link):
    """A link of a file, or of a script that runs in this file's folder."""
    parts = urllib.parse.urlsplit(link)
    if parts.scheme or parts.netloc:
        if parts.scheme not in ("http", "https", "mailto"):
            faults.append(f"{path}: {link} is no address")
        return
    target = path
    if parts.path:
        target = os.path.normpath(os.path.join(os.path.dirname(path), urllib.parse.unquote(parts.path)))
    place = urllib.parse.unquote(parts.fragment)
    if not (target + os.sep).startswith(site + os.sep):
        faults.append(f"{path}: {link} leaves the site")
    elif not os.path.isfile(target):
        faults.append(f"{path}: {link}: there is no such file")
    elif place and target in documents and place not in documents[target].places:
        faults.append(f"{path}: {link}: the file has no such place")


count = 0
for path, document in documents.items():
    for link in document.links:
        check(path, link)
    faults += (f"{path}: {picture} has no text" for picture in document.untold)
    count += len(document.links)
for path in glob.glob(f"{site}/**/*.js", recursive=True):
    if os.path.basename(path) in ("jquery.js", "search.js", "dynsections.js"):
        continue
    for link in re.findall(r"""["']([^"'\s<>]*\.html(?:#[^"'\s<>]*)?)["']""", read(path)):
        check(path, link)
        count += 1
for path in glob.glob(f"{site}/**/*.css", recursive=True):
    for link in re.findall(r"""url\(["']?([^"')]+)["']?\)""", read(path)):
        if not link.startswith("data:"):
            check(path, link)

for path in glob.glob(f"{site}/**/*", recursive=True):
    if os.path.isfile(path) and not path.endswith(".png"):
        text = read(path)
        faults += (f"{path} names {folder}" for folder in sys.argv[2:] if folder in text)

# The headings of one page, as examples: (place, heading).
headings = re.findall(r'id="(heaps-[^"]+)"></a>\s*([^<]+)</h\d>', read(f"{site}/heaps.html"))
if len(headings) < 3:
    faults.append(f"heaps.html has only {len(headings)} headings")

# The navigation has the pages with their headings.
navigation = "".join(read(path) for path in glob.glob(f"{site}/navtreedata.js") + glob.glob(f"{site}/*.js"))
for page in (*(f"heaps.html#{place}" for place, _ in headings), "memtool-port.html", "reference.html", "map.html",
             "changelog.html", "contributing.html", "codes.html", "memvect_8h.html"):
    if f'"{page}"' not in navigation:
        faults.append(f"the navigation has no {page}")

# The menu of narrow windows has the pages, too.
menu = re.findall(r'url:"([^"]+)"', read(f"{site}/menudata.js"))
for page in ("index.html", "heaps.html", "codes.html", "contributing.html", "reference.html", "files.html"):
    if page not in menu:
        faults.append(f"the menu has no {page}")


def search(typed):
    """The entries that are shown for what is typed, found as the site's script finds them."""
    data = read(f"{site}/search/searchdata.js")
    letters, names = (re.search(rf'{name} =\n\{{\n  0: "([^"]*)"', data).group(1)
                      for name in ("indexSectionsWithContent", "indexSectionNames"))
    if typed[0].lower() not in letters:
        return []
    page = f"{site}/search/{names}_{letters.index(typed[0].lower()):x}.html"
    script = re.search(r'src="(\w+_\w+\.js)"', read(page)).group(1)
    name = "".join(c if c.isalnum() else f"_{ord(c):02x}" for c in typed.lower())
    return re.findall(rf"\['{name}[^']*_\d+',(\[.*\])", read(f"{site}/search/{script}"))


# What is typed, and where it has to lead.
for typed, target in (("leak", "find-a-leak.html"), ("EBCDIC", "packed-chain.html#"),
                      ("MEM_HeapOpenFn", "memvect_8h.html"), ("4055", "codes.html#codes-4055"),
                      ("cell p", "cell-pools.html"), ("~Session", "classrefhost_1_1Session.html"),
                      *((heading.strip().split()[-1], f"heaps.html#{place}") for place, heading in headings)):
    try:
        if not any(f"'../{target}" in entry for entry in search(typed)):
            faults.append(f"the search for {typed} does not lead to {target}")
    except OSError as error:
        faults.append(f"the search for {typed}: {error}")

if len(documents) < 100 or count < 5000:
    faults.append(f"found only {count} links in {len(documents)} files")
if faults:
    sys.exit("\n".join(faults))
print(f"{count} links in {len(documents)} files")
