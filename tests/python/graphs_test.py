"""Random graphs: those that C++ writes are read in Python and those that Python writes in C++,
10,000 each way, and both make the same of them. With random defaults, too: then memtool encodes
what Python writes."""

import json
import os
import random
import subprocess
import unittest
from typing import Any, Iterator

import qj7mem00
from memtool import PROGRAM, Memtool, value_json
from qj7mem00.definitions import Definitions, Field, Structure

GRAPHS = 10_000
SEED = int(os.environ.get("MEM_TEST_SEED", "20261122"))
DEFAULT_SETS = 150
WORDS = ["", "plain", "quote \" slash /", "größer", "🙂 smile", "a//b", "  blanks  ", "x" * 40]


class Listing:
    """A graph of dicts in the form of ``memtool port --defs --json``: structures are numbered in
    the order in which pointers to them are met."""

    def __init__(self, definitions: Definitions) -> None:
        self._definitions = definitions
        self._labels: dict[int, str] = {}
        self._waiting: list[qj7mem00.Record] = []

    def make(self, root: qj7mem00.Record) -> dict[str, Any]:
        made: dict[str, Any] = {"root": self._label(root), "structures": []}
        for record in self._waiting:
            kind = self._definitions.need(record.kind)
            made["structures"].append({"label": self._labels[id(record)], "structure": kind.name,
                                       "fields": self._fields(record, kind)})
        return made

    def _label(self, record: qj7mem00.Record) -> str:
        if id(record) not in self._labels:
            self._labels[id(record)] = str(len(self._labels) + 1)
            self._waiting.append(record)
        return self._labels[id(record)]

    def _fields(self, record: dict[str, Any], kind: Structure) -> dict[str, Any]:
        made = {}
        for field in kind.fields:
            if field.name not in record:
                continue
            value = record[field.name]
            if field is kind.repeated:
                made[field.name] = [self._value(each, field) for each in value]
            else:
                made[field.name] = self._value(value, field)
        return made

    def _value(self, value: Any, field: Field) -> Any:
        if value is None:
            return None
        if field.type == "Pnt":
            return self._label(value)
        if field.type == "Substructure" and field.target is not None:
            return self._fields(value, field.target)
        return value_json(value, field.type)


class Maker:
    """Random graphs of dicts over given definitions."""

    def __init__(self, definitions: Definitions, chance: random.Random,
                 filled: float = 0.9) -> None:
        self._definitions = definitions
        self._chance = chance
        self._filled = filled  # of the fields that need no value
        self._made: dict[str, list[qj7mem00.Record]] = {}
        self._left = chance.randrange(1, 12)

    def graph(self) -> qj7mem00.Record:
        return self._record(self._chance.choice(self._definitions.structures))

    def _record(self, kind: Structure) -> qj7mem00.Record:
        self._left -= 1
        record = qj7mem00.Record(kind.name)
        self._made.setdefault(kind.name, []).append(record)
        self._fill(record, kind, self._chance.randrange(0, 5))
        return record

    def _fill(self, record: dict[str, Any], kind: Structure, elements: int) -> None:
        taken: list[Field] = []
        for field in kind.fields:
            if any(field in other.shares for other in taken) or field is kind.count:
                continue
            if field.shares and not field.is_address and any(
                    other.is_address and not other.not_ported for other in field.shares):
                continue  # the writer would take the bytes for an address
            taken.append(field)
            if field is kind.repeated:
                record[field.name] = [self.value(field) for _ in range(elements)]
            elif field.required or self._chance.random() < self._filled:
                record[field.name] = self.value(field)

    def value(self, field: Field) -> Any:
        chance = self._chance
        bits = {"Short": (16, True), "UShort": (16, False), "Long": (32, True),
                "ULong": (32, False), "BigInt": (64, True), "UBigInt": (64, False),
                "Bit": (8, False)}
        if field.type in bits:
            width, signed = bits[field.type]
            value = chance.choice([0, 1, (1 << width) - 1, chance.getrandbits(width)])
            return value - (1 << width) if signed and value >> (width - 1) else value
        if field.type == "Pnt" and field.target is not None:
            return self._pointer(field.target)
        if field.type == "Substructure" and field.target is not None:
            inner: dict[str, Any] = {}
            kind = field.target
            room = kind.repeated and (field.length - kind.length) // kind.repeated.length + 1
            self._fill(inner, kind, room or 0)
            return inner
        if field.type == "Bin":
            return chance.randbytes(field.length)
        return self._text(field)

    def _pointer(self, kind: Structure) -> qj7mem00.Record | None:
        known = self._made.get(kind.name, [])
        if self._left > 0 and self._chance.random() < 0.6:
            return self._record(kind)
        return self._chance.choice(known) if known and self._chance.random() < 0.7 else None

    def _text(self, field: Field) -> str | None:
        chance = self._chance
        if field.is_address and chance.random() < 0.2:
            return None
        is_wide = field.type.startswith("W")
        text = chance.choice(WORDS)
        if chance.random() < 0.2:
            text += "\ud83d" if is_wide else "\udce9"
        if field.is_address:
            return text
        room = field.length - (0 if not field.type.endswith("SZ") else 2 if is_wide else 1)
        while text and len(text.encode(*(("utf-16-le", "surrogatepass") if is_wide else
                                         ("utf-8", "surrogateescape")))) > room:
            text = text[:-1]
        return text


def definition_sets(count: int) -> Iterator[dict[str, Any]]:
    made = subprocess.run([PROGRAM, "make", str(SEED), str(count)], capture_output=True, check=True)
    for line in made.stdout.splitlines():
        defs: dict[str, Any] = json.loads(line)["defs"]
        yield defs


def add_defaults(defs: dict[str, Any], chance: random.Random) -> None:
    """Defaults for some fields, as JSON."""
    maker = Maker(Definitions(defs), chance)
    for structure, listed in zip(Definitions(defs).structures, defs["structures"]):
        for field, made in zip(structure.fields, listed["fields"]):
            if chance.random() < 0.5 or field.type == "Pnt":
                continue
            if field.type == "Substructure":
                if field.target is not None and all(
                        not inner.is_address and inner.type != "Substructure"
                        for inner in field.target.fields) and field.target.count is None:
                    made["default"] = chance.randbytes(field.length).hex().upper()
            elif field.type in ("BigInt", "UBigInt"):
                made["default"] = str(chance.getrandbits(32))
            else:
                made["default"] = value_json(maker.value(field), field.type)


def shown_by(memtool: Memtool, text: bytes) -> Any:
    """With the definitions in defs.json."""
    memtool.write("in.port", text)
    return json.loads(memtool.output("port", "in.port", "--defs", "defs.json", "--json"))


def encoded_by(memtool: Memtool, graph: dict[str, Any]) -> bytes:
    memtool.write("graph.json", graph)
    memtool.output("port", "--encode", "graph.json", "--defs", "defs.json", "-o", "out.port")
    return (memtool.folder / "out.port").read_bytes()


class GraphsTest(unittest.TestCase):
    def test_written_in_cpp_read_in_python(self) -> None:
        with qj7mem00.Process() as process, subprocess.Popen(
                [PROGRAM, "make", str(SEED), str(GRAPHS)], stdout=subprocess.PIPE) as program:
            assert program.stdout is not None
            count = 0
            for count, line in enumerate(program.stdout, 1):
                sent = json.loads(line)
                definitions = Definitions(sent["defs"])
                text = bytes.fromhex(sent["text"])
                graph = qj7mem00.read_port_string(text, definitions)
                with self.subTest(seed=SEED + count - 1):
                    self.assertEqual(Listing(definitions).make(graph), sent["graph"])
                    self.assertEqual(qj7mem00.write_port_string(graph, definitions), text)
        self.assertEqual(count, GRAPHS)
        self.assertEqual(process.host.storage.leaks(), [])

    def test_written_in_python_read_in_cpp(self) -> None:
        chance = random.Random(SEED)
        each = 100
        seen: set[str] = set()
        with qj7mem00.Process(), subprocess.Popen(
                [PROGRAM, "read"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
            assert program.stdin is not None and program.stdout is not None
            for number, defs in enumerate(definition_sets(GRAPHS // each)):
                definitions = Definitions(defs)
                for turn in range(each):
                    graph = Maker(definitions, chance).graph()
                    text = qj7mem00.write_port_string(graph, definitions)
                    sent = {"text": text.hex().upper()} | ({} if turn else {"defs": defs})
                    program.stdin.write(json.dumps(sent).encode() + b"\n")
                    program.stdin.flush()
                    answer = json.loads(program.stdout.readline())
                    back = qj7mem00.read_port_string(text, definitions)
                    with self.subTest(set=number, turn=turn, text=text):
                        self.assertEqual(Listing(definitions).make(back), answer)
                        self.assert_holds(graph, back, definitions, set())
                seen |= {field.type for kind in definitions.structures for field in kind.fields}
            program.stdin.close()
        self.assertEqual(len(seen), 16)

    def test_encoded_by_memtool_with_defaults(self) -> None:
        chance = random.Random(SEED)
        with qj7mem00.Process(), Memtool() as memtool:
            for number, defs in enumerate(definition_sets(DEFAULT_SETS)):
                add_defaults(defs, chance)
                definitions = Definitions(defs)
                memtool.write("defs.json", defs)
                for turn in range(4):
                    graph = Maker(definitions, chance, 0.5).graph()
                    text = qj7mem00.write_port_string(graph, definitions)
                    back = Listing(definitions).make(
                        qj7mem00.read_port_string(text, definitions))
                    with self.subTest(set=number, turn=turn, seed=SEED):
                        self.assertEqual(shown_by(memtool, text), back)
                        encoded = encoded_by(memtool, Listing(definitions).make(graph))
                        self.assertEqual(encoded, text)

    def assert_holds(self, wanted: Any, found: Any, definitions: Definitions,
                     done: set[int]) -> None:
        """What was put in has come back; fields that were left out have their defaults."""
        if isinstance(wanted, list):
            self.assertEqual(len(wanted), len(found))
            for one, other in zip(wanted, found):
                self.assert_holds(one, other, definitions, done)
        elif isinstance(wanted, dict):
            if id(wanted) in done:
                return
            done.add(id(wanted))
            kind = definitions.need(found.kind)
            for name, value in wanted.items():
                if kind.by_name[name].not_ported or name not in found:
                    continue
                self.assert_holds(value, found[name], definitions, done)
        elif isinstance(wanted, str):  # Char and WChar are filled up with blanks
            self.assertEqual(found.rstrip(" \0"), wanted.rstrip(" \0"))
        else:
            self.assertEqual(found, wanted)


if __name__ == "__main__":
    unittest.main()
