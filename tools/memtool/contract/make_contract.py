#!/usr/bin/env python3
"""Makes the contract as data from the public headers.

    make_contract.py HEADERS --version 1.0.0 --json FILE [--text FILE.cpp] [--checks FILE.cpp]

HEADERS is the folder of the headers. --text writes the JSON as a C++ source, for memtool. --checks
writes a C++ source with which the compiler compares every size, offset, type and number with the
headers. This program reads the headers without a compiler. It stops with the place at anything that
it does not understand, so that nothing is left out silently. docs/memtool.md describes the JSON.
"""

import argparse
import json
import re
import sys
from pathlib import Path

HEADERS = ["membase.h", "memcat.h", "memerr.h", "memproc.h", "memhost.h", "mempack.h", "memport.h",
           "memvect.h"]

COLLECTION = "qj7mem00.h"  # includes the other headers, declares nothing
OTHER = "memchk.h"  # the checking layer, which is not part of the contract

INTEGERS = {"char": (1, False), "char16_t": (2, False)}  # text, so the sign does not matter
for _bits in (8, 16, 32, 64):
    INTEGERS[f"int{_bits}_t"] = (_bits // 8, True)
    INTEGERS[f"uint{_bits}_t"] = (_bits // 8, False)

SERVICE_VECTORS = {"MEMRuntimeServices": "MEM_HOST_RUNTIME", "MEMTraceServices": "MEM_HOST_TRACE",
                   "MEMTextServices": "MEM_HOST_TEXT"}

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*)
  | (?P<doc>/\*\*.*?\*/)
  | (?P<comment>/\*.*?\*/)
  | (?P<directive>^\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<number>0[xX][0-9A-Fa-f]+U?|\d+U?)
  | (?P<text>"(?:[^"\\]|\\.)*")
  | (?P<letter>'(?:[^'\\]|\\.)')
  | (?P<ellipsis>\.\.\.)
  | (?P<mark>.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)


class Misread(Exception):
    """A header has something that this program does not understand."""


def doc_text(comment):
    """The text of a documentation comment on one line; paragraphs and lists keep their lines."""
    body = re.sub(r"^/\*\*<?|\*/$", "", comment)
    lines = [re.sub(r"^\s*\* ?", "", line).strip() for line in body.split("\n")]
    text = ""
    for line in lines:
        if not line:
            text = text.rstrip() + ("\n\n" if text else "")
        elif re.match(r"(- |\d+\. |@\w)", line):
            text = text.rstrip(" ") + ("" if text.endswith("\n") or not text else "\n") + line
        else:
            text += ("" if not text or text.endswith("\n") else " ") + line
    return text.strip()


class Tokens:
    """The tokens of a header. Documentation comments are kept; directives go to `on_directive`."""

    def __init__(self, name, text, on_directive):
        self.name = name
        self.items = []
        self.at = 0
        line = 1
        for found in TOKEN.finditer(text):
            kind, value = found.lastgroup, found.group()
            if kind == "directive":
                self.items.append(("directive", value, line))
            elif kind not in ("space", "comment"):
                self.items.append((kind, value, line))
            line += value.count("\n")
        self.on_directive = on_directive
        self.doc = ""

    def fail(self, what):
        line = self.items[min(self.at, len(self.items) - 1)][2]
        raise Misread(f"{self.name}:{line}: {what}")

    def _skip(self):
        """Comments become `doc`; directives take effect in the order of the file."""
        while self.at < len(self.items):
            kind, value, _ = self.items[self.at]
            if kind == "doc":
                if value.startswith("/**<"):
                    return
                self.doc = doc_text(value)
            elif kind == "directive":
                self.on_directive(value)
            else:
                return
            self.at += 1

    def peek(self):
        self._skip()
        return self.items[self.at][1] if self.at < len(self.items) else None

    def take(self, expected=None):
        value = self.peek()
        if value is None or (expected is not None and value != expected):
            self.fail(f"expected {expected or 'more'}, found {value}")
        self.at += 1
        return value

    def take_doc(self):
        """The comment before a declaration, or the trailing one after it."""
        self.peek()
        if self.at < len(self.items) and self.items[self.at][1].startswith("/**<"):
            self.doc = doc_text(self.items[self.at][1])
            self.at += 1
        doc, self.doc = self.doc, ""
        return doc

    def drop_trailing_doc(self):
        if self.at < len(self.items) and self.items[self.at][1].startswith("/**<"):
            return self.take_doc()
        return ""

    def skip_parentheses(self):
        self.take("(")
        depth = 1
        while depth:
            depth += {"(": 1, ")": -1}.get(self.take(), 0)


class Contract:
    """The contents of the headers, collected header by header."""

    def __init__(self):
        self.macros = {}  # name: replacement text
        self.constants = {}
        self.constant_docs = {}
        self.enums = {}  # name, or else the first constant: names of its constants
        self.records = {}
        self.functions = {}  # typedef name: signature
        self.callbacks = {}
        self.handles = {}
        self.types = {}
        self.slots = []
        self.codes = []
        self.packing = 8

    # Directives

    def directive(self, text):
        text = text.replace("\\\n", " ")
        found = re.match(r"#\s*define\s+(\w+)(\([^)]*\))?\s*(.*)", text, re.DOTALL)
        if found:
            return self.define(found.group(1), found.group(2), found.group(3))
        if re.match(r"#\s*pragma\s+pack\s*\(push, 1\)", text):
            self.packing = 1
        elif re.match(r"#\s*pragma\s+pack\s*\(pop\)", text):
            self.packing = 8
        return None

    def define(self, name, parameters, body):
        body = re.sub(r"/\*.*?\*/", "", body, flags=re.DOTALL).strip()
        if name == "MEM_VECTOR_SLOTS":
            self.slots = [(int(number), slot)
                          for number, slot in re.findall(r"SLOT\((\d+), (\w+)\)", body)]
        elif name == "MEMERR_LIST":
            rows = re.findall(r'ROW\((\w+), (\d+), "([^"]*)"\)', body)
            self.codes = [(int(code), row, message) for row, code, message in rows]
            self.constants.update({row: code for code, row, _ in self.codes})
        elif not parameters and re.fullmatch(r"(0[xX][0-9A-Fa-f]+|\d+)U?", body):
            self.constants[name] = self.number(body)
        elif not parameters and re.fullmatch(r'"[^"]*"', body):
            self.constants[name] = body[1:-1]

    @staticmethod
    def number(text):
        return int(text.rstrip("U"), 0)

    # Expressions: integers, characters and names with + - * and parentheses

    def value(self, words):
        def one(word):
            if word[0] == "'":
                return str(ord(word[1:-1]))
            if re.match(r"\d", word):
                return str(self.number(word))
            if word in "+-*()":
                return word
            if word not in self.constants:
                raise Misread(f"the constant {word} is unknown")
            return str(self.constants[word])
        return eval("".join(one(word) for word in words), {"__builtins__": {}})

    # Types

    def spell(self, base, stars):
        """`const char *`, `void *const **`; `stars` has "*" and "const" in their order."""
        text = base
        for index, star in enumerate(stars):
            if star == "*":
                text += "*" if index and stars[index - 1] == "*" else " *"
            else:
                text += "const"
        return re.sub(r"const \*", "const *", text)

    def add_type(self, spelling):
        """Adds the type with this spelling, and the types it consists of, to the table."""
        spelling = re.sub(r"\s+", " ", spelling).strip()
        if spelling in self.types:
            return spelling
        if spelling.endswith("*"):
            target, entry = spelling[:-1].strip(), {"kind": "pointer", "bytes": 8}
            is_constant = target.endswith("const")
            if is_constant:
                target = target[:-len("const")].strip()
            elif target.startswith("const ") and "*" not in target:
                is_constant, target = True, target[len("const "):]
            entry["to"] = target
            if is_constant:
                entry["const"] = True
            self.types[spelling] = entry
            self.add_type(target)
        elif spelling in INTEGERS:
            size, signed = INTEGERS[spelling]
            self.types[spelling] = {"kind": "integer", "bytes": size, "signed": signed}
            if spelling.startswith("char"):
                self.types[spelling]["text"] = True
        elif spelling == "void":
            self.types[spelling] = {"kind": "void", "bytes": 0}
        elif spelling in self.handles:
            self.types[spelling] = {"kind": "handle", "bytes": 8}
        elif spelling in self.callbacks:
            self.types[spelling] = {"kind": "callback", "bytes": 8, **self.callbacks[spelling]}
        elif spelling in self.functions:
            self.types[spelling] = {"kind": "function", "bytes": 0}
        else:
            self.types[spelling] = {"kind": "record"}  # its size is in the table of records
        return spelling

    def size_and_alignment(self, spelling):
        entry = self.types[spelling]
        if entry["kind"] == "record":
            record = self.records[spelling]
            return record["size"], record["alignment"]
        return entry["bytes"], entry["bytes"]

    # Declarations

    def read(self, name, text):
        tokens = Tokens(name, text, self.directive)
        while tokens.peek() is not None:
            try:
                self.declaration(tokens)
            except Misread as error:
                if ":" in str(error):
                    raise
                tokens.fail(str(error))

    def declaration(self, tokens):
        word = tokens.take()
        if word == "typedef":
            self.typedef(tokens)
        elif word == "enum":
            self.enum(tokens)
        elif word == "struct":
            tokens.take()
            tokens.take(";")
        elif tokens.peek() == "(":  # static_assert, MEM_CHECK_SIZE, lists of them
            tokens.skip_parentheses()
            if tokens.peek() == ";":
                tokens.take()
            tokens.doc = ""
        else:
            tokens.fail(f"expected a declaration, found {word}")

    def enum(self, tokens):
        name = None if tokens.peek() == "{" else tokens.take()
        tokens.take("{")
        names, following = [], 0
        while tokens.peek() != "}":
            constant = tokens.take()
            if constant == "MEMERR_LIST":
                tokens.skip_parentheses()
                names += [row for _, row, _ in self.codes]
                continue
            if tokens.peek() == "=":
                tokens.take()
                words = []
                while tokens.peek() not in (",", "}") and not tokens.peek().startswith("/**<"):
                    words.append(tokens.take())
                following = self.value(words)
            self.constants[constant] = following
            names.append(constant)
            following += 1
            if tokens.peek() == ",":
                tokens.take()
            doc = tokens.drop_trailing_doc()
            if doc:
                self.constant_docs[constant] = doc
        tokens.take("}")
        tokens.take(";")
        tokens.doc = ""
        self.enums[name or names[0]] = names

    def typedef(self, tokens):
        doc = tokens.take_doc()
        is_struct = tokens.peek() == "struct"
        if is_struct:
            tokens.take()
            tag = tokens.take()
            if tokens.peek() == "{":
                return self.record(tokens, tag, doc)
            tokens.take("*")
            name = tokens.take()
            self.handles[name] = {"doc": doc}
            tokens.take(";")
            return None
        result = self.type_words(tokens)
        if tokens.peek() == "(":  # a pointer to a function
            tokens.take()
            tokens.take("*")
            name = tokens.take()
            tokens.take(")")
            self.callbacks[name] = self.signature(tokens, result, doc)
        else:
            name = tokens.take()
            self.functions[name] = self.signature(tokens, result, doc)
        tokens.take(";")
        return None

    def type_words(self, tokens):
        """The type before a name."""
        base, stars = [], []
        while True:
            word = tokens.peek()
            if word == "struct":
                tokens.take()
            elif word == "*" or (word == "const" and stars):
                stars.append(tokens.take())
            elif word == "const" or not base or base == ["const"]:
                base.append(tokens.take())
            else:
                return self.spell(" ".join(base), stars)

    def signature(self, tokens, result, doc=""):
        tokens.take("(")
        made = {"result": self.add_type(result), "parameters": []}
        if doc:
            made["doc"] = doc
        while tokens.peek() != ")":
            if tokens.peek() == "...":
                tokens.take()
                made["variadic"] = True
                continue
            kind = self.type_words(tokens)
            if kind == "void":
                continue
            made["parameters"].append({"name": tokens.take(), "type": self.add_type(kind)})
            if tokens.peek() == ",":
                tokens.take()
        tokens.take(")")
        return made

    # Records

    def record(self, tokens, name, doc):
        fields = self.fields(tokens)
        closing = tokens.take()
        if closing != name:
            tokens.fail(f"the record {name} is closed as {closing}")
        tokens.take(";")
        self.records[name] = self.lay_out(fields, doc)

    def fields(self, tokens):
        tokens.take("{")
        fields = []
        while tokens.peek() != "}":
            if tokens.peek() == "MEM_VECTOR_SLOTS":
                tokens.take()
                tokens.skip_parentheses()
                for _, slot in self.slots:
                    fields.append({"name": slot, "type": self.add_type(f"{slot}Fn *")})
            else:
                fields.append(self.field(tokens))
        tokens.take("}")
        return fields

    def field(self, tokens):
        if tokens.peek() == "union":
            tokens.take()
            members = self.fields(tokens)
            made = {"name": tokens.take(), "type": "union", "members": members}
        else:
            made = self.plain_field(tokens)
        tokens.take(";")
        doc = tokens.take_doc()
        if doc:
            made["doc"] = doc
        return made

    def plain_field(self, tokens):
        kind = self.type_words(tokens)
        if tokens.peek() == "(":
            tokens.take()
            tokens.take("*")
            name = tokens.take()
            tokens.take(")")
            return {"name": name, "type": "service", "signature": self.signature(tokens, kind)}
        made = {"name": tokens.take(), "type": self.add_type(kind)}
        if tokens.peek() == "[":
            tokens.take()
            words = []
            while tokens.peek() != "]":
                words.append(tokens.take())
            tokens.take("]")
            made["count"] = self.value(words)
        return made

    def measure(self, field):
        if field["type"] == "union":
            sizes = [self.measure(member) for member in field["members"]]
            return max(size for size, _ in sizes), max(align for _, align in sizes)
        if field["type"] == "service":
            return 8, 8
        size, alignment = self.size_and_alignment(field["type"])
        return size * field.get("count", 1), alignment

    def lay_out(self, fields, doc):
        at, widest, placed = 0, 1, []
        for field in fields:
            size, alignment = self.measure(field)
            alignment = min(alignment, self.packing)
            at = (at + alignment - 1) // alignment * alignment
            widest = max(widest, alignment)
            placed.append({"name": field["name"], "offset": at, "size": size,
                           **{k: v for k, v in field.items() if k != "name"}})
            at += size
        size = (at + widest - 1) // widest * widest
        return {"size": size, "alignment": widest, "packed": self.packing == 1, "doc": doc,
                "fields": placed}


def cleared(entry):
    """The entry without empty and false values."""
    return {key: value for key, value in entry.items() if value is not False and value != ""}


def service_rows(contract):
    for vector, constant in SERVICE_VECTORS.items():
        for field in contract.records[vector]["fields"]:
            if field["type"] != "service":
                continue
            doc = re.sub(r"^\d+: ", "", field.get("doc", ""))
            yield cleared({"vector": vector, "hostVector": contract.constants[constant],
                           "slot": field["offset"] // 8, "name": field["name"],
                           **field["signature"], "doc": doc})


def field_rows(record):
    for field in record["fields"]:
        row = {key: value for key, value in field.items() if key != "signature"}
        if field["type"] == "union":
            row["members"] = [cleared(member) for member in field["members"]]
        yield row


def type_rows(contract, names, prefix):
    rows = []
    for name in names:
        row = {"code": contract.constants[name], "name": name[len(prefix):], "constant": name}
        if name in contract.constant_docs:
            row["doc"] = contract.constant_docs[name]
        rows.append(row)
    return rows


PORT_NAMES = {"CHAR": "Char", "CHARSZ": "CharSZ", "PSTR": "PStr", "BIN": "Bin", "SHORT": "Short",
              "USHORT": "UShort", "LONG": "Long", "ULONG": "ULong", "PNT": "Pnt",
              "SUBSTRUCTURE": "Substructure", "BIT": "Bit", "UBIGINT": "UBigInt",
              "BIGINT": "BigInt", "WCHAR": "WChar", "WCHARSZ": "WCharSZ", "WPSTR": "WPStr"}


def as_json(contract, version):
    fields = type_rows(contract, contract.enums["MEMFieldType"], "MEM_PORT_")
    for row in fields:
        row["name"] = PORT_NAMES[row["name"]]
    segments = type_rows(contract, contract.enums["MEM_PACK_FIXED"], "MEM_PACK_")
    for row in segments:
        row["letter"] = chr(row["code"])
    bind = contract.functions["MEMBindFn"]
    return {
        "library": "QJ7MEM00",
        "version": version,
        "component": contract.constants["MEM_COMPONENT"],
        "pointerBytes": 8,
        "bind": {"name": contract.constants["MEM_BIND_ENTRY_NAME"], **bind},
        "slots": [{"number": number, "name": name, **contract.functions[name + "Fn"]}
                  for number, name in contract.slots],
        "services": list(service_rows(contract)),
        "records": [cleared({"name": name, "size": record["size"],
                             "alignment": record["alignment"], "packed": record["packed"],
                             "doc": record["doc"],
                             "fields": [cleared(row) for row in field_rows(record)]})
                    for name, record in contract.records.items()],
        "types": {name: contract.types[name] for name in sorted(contract.types)},
        "handles": [cleared({"name": name, **entry}) for name, entry in contract.handles.items()],
        "codes": [{"code": code, "name": name, "message": message}
                  for code, name, message in contract.codes],
        "fieldTypes": fields,
        "segmentTypes": segments,
        "constants": contract.constants,
    }


# The same as C++

NOTICE = "// Made by tools/memtool/contract/make_contract.py from the public headers.\n"


def text_source(text):
    pieces = [text[at:at + 4000] for at in range(0, len(text), 4000)]
    rows = "".join(f'    R"json({piece})json",\n' for piece in pieces)
    return (NOTICE + '#include "contract_text.hpp"\n\nnamespace memtool {\n\n'
            "const std::vector<std::string_view> &contractPieces() {\n"
            f"  static const std::vector<std::string_view> pieces = {{\n{rows}  }};\n"
            "  return pieces;\n}\n\n}  // namespace memtool\n")


def signature_source(signature):
    words = [row["type"] for row in signature["parameters"]]
    if signature.get("variadic"):
        words.append("...")
    return f'{signature["result"]}({", ".join(words)})'


def record_checks(name, record):
    yield f"static_assert(sizeof({name}) == {record['size']});"
    yield f"static_assert(alignof({name}) == {record['alignment']});"
    for field in record["fields"]:
        member = f"{name}::{field['name']}"
        yield f"static_assert(offsetof({name}, {field['name']}) == {field['offset']});"
        yield f"static_assert(sizeof({member}) == {field['size']});"
        if field["type"] == "union":
            for row in field["members"]:
                yield (f"static_assert(isType<decltype(std::declval<{name}>().{field['name']}."
                       f"{row['name']}), {row['type']}>);")
        elif field["type"] == "service":
            signature = signature_source(field["signature"])
            yield f"static_assert(isService<decltype({member}), {signature}>);"
        elif "count" in field:
            yield f"static_assert(isType<decltype({member}), {field['type']}[{field['count']}]>);"
        else:
            yield f"static_assert(isType<decltype({member}), {field['type']}>);"


def checks_source(contract):
    lines = [NOTICE + "#include <cstddef>\n#include <type_traits>\n#include <utility>\n",
             '#include "qj7mem00/qj7mem00.h"', '#include "qj7mem00/memport.h"\n', "namespace {\n",
             "template <class Made, class Wanted>\n"
             "constexpr bool isType = std::is_same_v<std::remove_reference_t<Made>, Wanted>;",
             "template <class Made, class Wanted>\n"
             "constexpr bool isService = std::is_same_v<Made, Wanted *>;\n"]
    for name, record in contract.records.items():
        lines += record_checks(name, record)
    for name, signature in {**contract.functions, **contract.callbacks}.items():
        spelled = signature_source(signature)
        made = name if name in contract.functions else f"std::remove_pointer_t<{name}>"
        lines.append(f"static_assert(isType<{made}, {spelled}>);")
    for number, name in contract.slots:
        lines.append(f"static_assert(offsetof(MEMFunctionVector, {name}) == {number * 8});")
    for name, value in contract.constants.items():
        if isinstance(value, int):
            lines.append(f"static_assert({name} == {value});")
    return "\n".join(lines) + "\n\n}  // namespace\n"


def write_if_changed(path, text):
    if path is None:
        return
    if not path.exists() or path.read_text(encoding="utf-8") != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description="Makes the contract as data from the headers.")
    parser.add_argument("headers", type=Path)
    parser.add_argument("--version", required=True)
    parser.add_argument("--json", type=Path, required=True)
    parser.add_argument("--text", type=Path)
    parser.add_argument("--checks", type=Path)
    options = parser.parse_args()
    contract = Contract()
    try:
        known = {*HEADERS, COLLECTION, OTHER}
        unknown = {path.name for path in options.headers.glob("*.h")} - known
        if unknown:
            raise Misread(f"{min(unknown)}: make_contract.py does not know this header")
        for name in HEADERS:
            contract.read(name, (options.headers / name).read_text(encoding="utf-8"))
    except Misread as error:
        print(f"make_contract.py: {error}", file=sys.stderr)
        return 1
    text = json.dumps(as_json(contract, options.version), indent=1, ensure_ascii=False) + "\n"
    write_if_changed(options.json, text)
    write_if_changed(options.text, text_source(text))
    write_if_changed(options.checks, checks_source(contract))
    return 0


if __name__ == "__main__":
    sys.exit(main())
