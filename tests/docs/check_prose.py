#!/usr/bin/env python3
"""Checks the words of pages, comments and texts, and their spelling where codespell is installed.

    check_prose.py [--codespell PROGRAM] [FILE | FOLDER]...

Without a FILE or FOLDER it checks those that words.txt, next to this program, lists as covered.
Prints FILE:LINE, the word and what to say instead. The exit code is 1 if there are findings.
"""

import argparse
import io
import re
import subprocess
import sys
import tokenize
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SECTIONS = ("covered", "words", "allowed", "spelling")

C_LIKE = {"c", "cpp", "h", "hpp"}
HASH_LIKE = {"cmake", "sh", "bash", "toml"}
BLOCKS = {"python": "py", "bash": "sh", "c": "c", "cpp": "cpp", "cmake": "cmake"}
SUFFIXES = C_LIKE | HASH_LIKE | {"py", "md", "1", "map", "def"}

C_TOKEN = re.compile(r"""
    (?P<raw>R"(?P<mark>[^(\s]*)\((?P<rawtext>.*?)\)(?P=mark)")
  | (?P<text>"(?:[^"\\\n]|\\.)*")
  | (?P<letter>'(?:[^'\\\n]|\\.)+')
  | (?P<line>//[^\n]*)
  | (?P<block>/\*.*?\*/)
""", re.VERBOSE | re.DOTALL)
HASH_TOKEN = re.compile(r"""
    (?P<bracket>\[(?P<mark>=*)\[.*?\](?P=mark)\])
  | (?P<text>"(?:[^"\\]|\\.)*")
  | (?P<single>'[^'\n]*')
  | (?P<comment>(?:(?<=\s)|^)\#[^\n]*)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)


def read_rules(path):
    """The sections of the word list."""
    rules = {name: [] for name in SECTIONS}
    section = None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("[") and line.endswith("]"):
            section = line[1:-1]
        elif section is None:
            sys.exit(f"{path}:{number}: no section yet")
        else:
            rules[section].append(line)
    words = []
    for line in rules["words"]:
        pattern, arrow, instead = line.partition(" -> ")
        if not arrow:
            sys.exit(f"{path}: a row of [words] needs an arrow: {line}")
        pattern = rf"\b(?:{pattern})\b".replace(" ", r"\s+")
        words.append((re.compile(pattern, re.IGNORECASE), instead))
    rules["words"] = words
    return rules


def blank(text):
    """The same lines with blanks only."""
    return re.sub(r"[^\n]", " ", text)


def keep(text, pieces):
    """`text` with blanks outside the pieces, which are (begin, end). Keeps all lines."""
    made, at = [], 0
    for begin, end in pieces:
        made += [blank(text[at:begin]), text[begin:end]]
        at = end
    return "".join(made) + blank(text[at:])


def prose_of_c(text):
    """Comments and literals of C and C++, without the names of included files."""
    text = re.sub(r"^[ \t]*#[ \t]*include[^\n]*", lambda found: blank(found.group()), text,
                  flags=re.MULTILINE)
    pieces = [found.span("rawtext" if found.group("raw") else 0)
              for found in C_TOKEN.finditer(text) if not found.group("letter")]
    kept = keep(text, pieces)
    # The marks at the begin of a comment's lines would separate the words of a phrase.
    return re.sub(r"^([ \t]*)(/\*\*?<?|\*/?|///?)", lambda found: blank(found.group()), kept,
                  flags=re.MULTILINE)


def prose_of_python(text):
    """Comments, docstrings and literals of Python."""
    starts = [0]
    for line in text.splitlines(keepends=True):
        starts.append(starts[-1] + len(line))
    kinds = {tokenize.COMMENT, tokenize.STRING}
    tokens = tokenize.generate_tokens(io.StringIO(text).readline)
    pieces = [(starts[token.start[0] - 1] + token.start[1], starts[token.end[0] - 1] + token.end[1])
              for token in tokens if token.type in kinds]
    return re.sub(r"^([ \t]*)#", lambda found: blank(found.group()), keep(text, pieces),
                  flags=re.MULTILINE)


def prose_of_hash(text):
    """Comments and texts of shell scripts and CMake."""
    pieces = [found.span() for found in HASH_TOKEN.finditer(text) if not found.group("single")]
    return re.sub(r"^([ \t]*)#+", lambda found: blank(found.group()), keep(text, pieces),
                  flags=re.MULTILINE)


def prose_of_page(text):
    """A page of Markdown. Of code blocks only comments and texts; no blocks without a language."""
    def of_block(found):
        head, language, body, end = found.groups()
        extract = EXTRACTORS.get(BLOCKS.get(language))
        return blank(head) + (extract(body) if extract else blank(body)) + blank(end)
    text = re.sub(r"^([ \t]*```([a-z]*)[^\n]*\n)(.*?)(^[ \t]*```)", of_block, text,
                  flags=re.MULTILINE | re.DOTALL)
    text = re.sub(r"\]\([^)\n]*\)", lambda found: blank(found.group()), text)
    return re.sub(r"^[ \t]*[|>*#-]+", lambda found: blank(found.group()), text, flags=re.MULTILINE)


def prose_of_man(text):
    """A manual page without requests and fonts."""
    text = re.sub(r"\\f[A-Z]", lambda found: blank(found.group()), text)
    return re.sub(r"^\.(\\\"|\w+)", lambda found: blank(found.group()), text, flags=re.MULTILINE)


EXTRACTORS = {"py": prose_of_python, "md": prose_of_page, "1": prose_of_man, "map": prose_of_c,
              "def": prose_of_hash} \
    | {suffix: prose_of_c for suffix in C_LIKE} | {suffix: prose_of_hash for suffix in HASH_LIKE}


def shown(path):
    """The name of a file in a message."""
    return path.relative_to(ROOT) if path.is_relative_to(ROOT) else path


def kind_of(path):
    return "cmake" if path.name == "CMakeLists.txt" else path.suffix[1:]


def files_of(names):
    """The files with prose in these files and folders."""
    for name in names:
        path = ROOT / name
        if not path.exists():
            sys.exit(f"there is no {path}")
        found = sorted(path.rglob("*")) if path.is_dir() else [path]
        yield from (file for file in found if file.is_file() and kind_of(file) in SUFFIXES
                    and "__pycache__" not in file.parts)


def prose_of(path, allowed):
    """The prose of a file. Names of code (in backquotes or with ::) and allowed texts are blank."""
    text = EXTRACTORS[kind_of(path)](path.read_text(encoding="utf-8").replace("\r\n", "\n"))
    text = re.sub(r"`[^`\n]+`|\w+(?:::\w+)+", lambda found: blank(found.group()), text)
    for phrase in allowed:
        text = text.replace(phrase, blank(phrase))
    return text


def check_words(path, text, words):
    """The findings of one file."""
    for pattern, instead in words:
        for found in pattern.finditer(text):
            line = text.count("\n", 0, found.start()) + 1
            said = re.sub(r"\s+", " ", found.group())
            yield f'{shown(path)}:{line}: "{said}": say {instead}'


def check_spelling(program, prose, ignored):
    """The findings of codespell in the prose of all files, in one run."""
    places, lines = [], []
    for path, text in prose:
        for number, line in enumerate(text.split("\n"), 1):
            if line.strip():
                places.append(f"{shown(path)}:{number}")
                lines.append(line)
    done = subprocess.run([program, "--ignore-words-list", ",".join(ignored), "-"],
                          input="\n".join(lines), capture_output=True, text=True, check=False)
    if done.returncode not in (0, 65):
        sys.exit(f"{program} ends with {done.returncode}: {done.stderr}")
    # "12: the line", then "\tmistake ==> correction".
    for number, finding in re.findall(r"^(\d+): .*\n\t(.*)$", done.stdout, re.MULTILINE):
        yield f"{places[int(number) - 1]}: spelling: {finding}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--codespell", metavar="PROGRAM", help="checks the spelling, too")
    parser.add_argument("paths", nargs="*", metavar="FILE")
    arguments = parser.parse_args()
    rules = read_rules(Path(__file__).with_name("words.txt"))

    covered = [(path, prose_of(path, rules["allowed"]))
               for path in files_of(arguments.paths or rules["covered"])]
    if not covered:
        sys.exit("no file was checked")
    findings = [finding for path, text in covered
                for finding in check_words(path, text, rules["words"])]
    if arguments.codespell:
        findings += check_spelling(arguments.codespell, covered, rules["spelling"])
    for finding in findings:
        print(finding)
    print(f"{len(covered)} files, {len(findings)} findings")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
