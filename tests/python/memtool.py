"""memtool for the tests, and chains of objects in the form of its JSON."""

import json
import os
import re
import subprocess
import tempfile
from pathlib import Path
from typing import Any, Iterator

from qj7mem00 import Segment
from qj7mem00.chain_definitions import ChainDefinitions, ChainField, ChainKind
from qj7mem00.chain_layout import Role

PROGRAM = os.environ["MEM_PYTHON_GRAPHS"]


def lines_of(*words: object) -> Iterator[dict[str, Any]]:
    """What the program writes, a document a line."""
    with subprocess.Popen([PROGRAM, *map(str, words)], stdout=subprocess.PIPE) as program:
        assert program.stdout is not None
        for line in program.stdout:
            yield json.loads(line)


class Memtool:
    """Runs memtool's commands in one process, in a folder of its own."""

    def __enter__(self) -> "Memtool":
        self._folder = tempfile.TemporaryDirectory()
        self.folder = Path(self._folder.name)
        self._program = subprocess.Popen([PROGRAM, "memtool"], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, cwd=self.folder)
        return self

    def __exit__(self, *_: object) -> None:
        self._program.communicate()
        self._folder.cleanup()

    def write(self, name: str, content: bytes | str | dict[str, Any]) -> None:
        if isinstance(content, dict):
            content = json.dumps(content)
        raw = content if isinstance(content, bytes) else content.encode("utf-8")
        (self.folder / name).write_bytes(raw)

    def run(self, *words: str) -> dict[str, Any]:
        assert self._program.stdin is not None and self._program.stdout is not None
        self._program.stdin.write(json.dumps(words).encode() + b"\n")
        self._program.stdin.flush()
        answer: dict[str, Any] = json.loads(self._program.stdout.readline())
        return answer

    def output(self, *words: str) -> str:
        answer = self.run(*words)
        if answer["code"]:
            raise AssertionError(f"{words}: {answer['err']}")
        return str(answer["out"])

    def graph(self, chain: bytes, definitions: dict[str, Any]) -> dict[str, Any]:
        self.write("in.chain", chain)
        self.write("defs.json", definitions)
        graph: dict[str, Any] = json.loads(
            self.output("chain", "in.chain", "--defs", "defs.json", "--json"))
        return graph

    def encoded(self, graph: dict[str, Any], definitions: dict[str, Any],
                block_length: int) -> bytes:
        self.write("graph.json", graph)
        self.write("defs.json", definitions)
        self.output("chain", "--encode", "graph.json", "--defs", "defs.json", "-o", "out.chain",
                    "--block-length", str(block_length))
        return (self.folder / "out.chain").read_bytes()


def narrow_json(value: str) -> Any:
    """Text in the form of memtool: what is no UTF-8 is hexadecimal."""
    raw = value.encode("utf-8", "surrogateescape")
    try:
        return raw.decode("utf-8")
    except UnicodeDecodeError:
        return {"hex": raw.hex().upper()}


def wide_json(value: str) -> Any:
    raw = value.encode("utf-16-le", "surrogatepass")
    try:
        return raw.decode("utf-16-le")
    except UnicodeDecodeError:
        return {"units": [int.from_bytes(raw[at:at + 2], "little")
                          for at in range(0, len(raw), 2)]}


def value_json(value: Any, kind: str) -> Any:
    """A value of a field that is not Pnt."""
    if value is None:
        return None
    if isinstance(value, list):
        return [value_json(each, kind) for each in value]
    if kind == "Bin":
        return value.hex().upper()
    if kind in ("Char", "CharSZ", "PStr"):
        return narrow_json(value)
    if kind in ("WChar", "WCharSZ", "WPStr"):
        return wide_json(value)
    return str(value) if kind in ("BigInt", "UBigInt") else value


class SegmentListing:
    """A chain of objects in the form of ``memtool chain --defs --json``. Bytes of zeros without a
    name, which are no attributes, are left out."""

    def __init__(self, definitions: ChainDefinitions) -> None:
        self._definitions = definitions
        self._labels: dict[int, str] = {}
        self._found: list[tuple[Segment, Segment | None]] = []

    def make(self, roots: list[Segment]) -> dict[str, Any]:
        self._walk(roots)
        return {"root": "1", "structures": [
            {"label": self._labels[id(segment)], "structure": self._name(kind),
             "fields": self._fields(segment, kind, following)}
            for segment, following in self._found
            for kind in [self._definitions.by_name[segment.kind]]]}

    @staticmethod
    def _name(kind: ChainKind) -> Any:
        return kind.id if kind.name == str(kind.id) else kind.name

    def _walk(self, segments: list[Segment]) -> None:
        for segment, following in zip(segments, [*segments[1:], None]):
            self._labels[id(segment)] = str(len(self._found) + 1)
            self._found.append((segment, following))
            for field in self._definitions.by_name[segment.kind].fields:
                if field.type != "Pnt" or field.role is not Role.CHILD:
                    continue
                value = segment[field.name]
                self._walk(value if isinstance(value, list) else [value] if value else [])

    def _fields(self, segment: Segment, kind: ChainKind, following: Segment | None) -> Any:
        made = {name: value.hex().upper() for name, value in vars(segment).items()
                if re.fullmatch(r"\+\d+", name)}
        for field in kind.fields:
            if field is kind.next:
                made[field.name] = following and self._labels[id(following)]
            elif segment[field.name] is not None or field.is_pointer:
                made[field.name] = self._value(segment[field.name], field)
        return without_zeros(made)

    def _value(self, value: Any, field: ChainField) -> Any:
        if field.type != "Pnt":
            return value_json(value, field.type)
        first = (value[0] if value else None) if isinstance(value, list) else value
        return first and self._labels[id(first)]


def without_zeros(fields: dict[str, Any]) -> dict[str, Any]:
    return {name: value for name, value in fields.items()
            if not name.startswith("+") or not isinstance(value, str) or value.strip("0")}


def shown(graph: dict[str, Any]) -> dict[str, Any]:
    """memtool's JSON without bytes of zeros that have no name."""
    return graph | {"structures": [each | {"fields": without_zeros(each["fields"])}
                                   for each in graph["structures"]]}
