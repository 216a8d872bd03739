"""Random definitions and random chains of them, between Python and memtool in both directions, and
chains of every writer: both find the same in them."""

import json
import os
import random
import struct
import unittest
from typing import Any

import qj7mem00
from memtool import Memtool, SegmentListing, lines_of, shown
from qj7mem00 import Definitions, GraphError, MemError, Segment
from qj7mem00.chain_definitions import ChainDefinitions, ChainField, ChainKind
from qj7mem00.chain_layout import Role
from qj7mem00.values import NUMBERS, limits

SEED = int(os.environ.get("MEM_TEST_SEED", "20261124"))
SETS = 150
CHAINS_OF_A_SET = 6
TREES = 1500
SCALARS = ["Bit", "SByte", "UByte", "Short", "UShort", "Long", "ULong", "BigInt", "UBigInt",
           "Float", "Double"]
ARRAYS = ["Bin", "Char", "CharSZ", "WChar", "WCharSZ"]
WORDS = ["", "plain", "größer", "🙂 smile", "quote \" \\", "  blanks ", "x" * 30]


class DefinitionsMaker:
    """Random definitions of chains, as documents."""

    def __init__(self, chance: random.Random) -> None:
        self._chance = chance
        count = chance.randrange(1, 5)
        self._forms: list[str | int] = [chance.choice(["F", "F", "C", "D", 300])
                                        for _ in range(count)]
        for letter in "SW":
            for _ in range(chance.choice([0, 0, 1, 2])):
                self._forms.insert(chance.randrange(1, len(self._forms) + 1), letter)

    def make(self) -> dict[str, Any]:
        document: dict[str, Any] = {"structures": [
            {"id": index + 1, "segment": form} if form in ("S", "W") else self._kind(index, form)
            for index, form in enumerate(self._forms)]}
        if self._chance.random() < 0.5:
            document["pointers"] = 8
        return document

    def _kind(self, index: int, form: str | int) -> dict[str, Any]:
        chance = self._chance
        fields: list[dict[str, Any]] = []
        made: dict[str, Any] = {"id": index + 1, "name": f"Kind{index}", "segment": form}
        at = 0 if form == "F" else 2
        if form != "F" and chance.random() < 0.5:
            fields.append({"type": "Short" if form == "C" else "UShort", "offset": 0,
                           "name": "length"})
        has_next = False
        for _ in range(chance.randrange(1, 9)):
            at += chance.choice([0, 0, 0, 1, 5])
            field = self._pointer(index) if chance.random() < 0.4 else self._value()
            if field.pop("isNext", False):
                if has_next:
                    continue
                has_next = True
                field["name"] = made["next"] = "next"
            size = field.pop("size")
            fields.append(field | {"offset": at})
            if size < 8 and chance.random() < 0.2 and field["type"] not in ("Pnt", "PStr", "WPStr"):
                fields.append({"type": "Bin", "length": size, "offset": at})  # the same bytes
            at += size
        chance.shuffle(fields)
        if form == "F":
            made["length"] = max(at + chance.choice([0, 0, 3]), 1)
        elif chance.random() < 0.7:
            tail: dict[str, Any] = {"type": chance.choice(SCALARS[1:] + ARRAYS), "offset": at}
            if tail["type"] != "Bin" or chance.random() < 0.5:
                tail["toEnd"] = True
            fields.append(tail)
        for number, field in enumerate(fields):
            field["id"] = number + 1
            field.setdefault("name", f"f{number}")
        made["fields"] = fields
        return made

    def _pointer(self, index: int) -> dict[str, Any]:
        chance = self._chance
        made: dict[str, Any] = {"size": 8}
        role = chance.choice(["child", "text", "text", "reference", "next"])
        structures = [number for number, form in enumerate(self._forms) if form not in ("S", "W")]
        if role == "text":
            letter = chance.choice("SW")
            made["type"] = "PStr" if letter == "S" else "WPStr"
            kinds = [number for number, form in enumerate(self._forms) if form == letter]
            if len(kinds) > 1 or (kinds and chance.random() < 0.5):
                made["structure"] = chance.choice(kinds) + 1
            return made
        made["type"] = "Pnt"
        if role == "next":
            return made | {"structure": index + 1, "isNext": True}
        if role == "reference":
            made["reference"] = True
            if chance.random() < 0.5:
                return made
        return made | {"structure": f"Kind{chance.choice(structures)}"}

    def _value(self) -> dict[str, Any]:
        chance = self._chance
        kind = chance.choice(SCALARS + ARRAYS)
        if kind in ARRAYS:
            length = chance.randrange(2, 14)
            return {"type": kind, "length": length, "size": length}
        width = 1 if kind == "Bit" else NUMBERS[kind][0]
        if kind == "Bit" or chance.random() < 0.7:
            return {"type": kind, "size": width}
        count = chance.randrange(1, 5)
        return {"type": kind, "count": count, "size": width * count}


class ChainMaker:
    """Random chains of given definitions."""

    def __init__(self, definitions: ChainDefinitions, chance: random.Random) -> None:
        self._definitions = definitions
        self._chance = chance
        self._made: list[tuple[Segment, ChainKind]] = []
        self._left = chance.randrange(1, 25)

    def chain(self) -> list[Segment]:
        roots = self._list(self._definitions.kinds[0], 1)
        for segment, kind in self._made:
            for field in kind.fields:
                if field.role is Role.REFERENCE and self._chance.random() < 0.6:
                    known = [each for each, of in self._made if field.target in (None, of)]
                    segment[field.name] = self._chance.choice([None, *known])
        return roots

    def _list(self, kind: ChainKind, level: int) -> list[Segment]:
        count = self._chance.randrange(1, 4) if kind.next is not None else 1
        return [self._segment(kind, level) for _ in range(count)]

    def _segment(self, kind: ChainKind, level: int) -> Segment:
        self._left -= 1
        segment = Segment(kind.name)
        self._made.append((segment, kind))
        taken: list[ChainField] = []
        for field in kind.fields:
            if field.role is not Role.CHILD or field.name == "length":
                continue
            if field.type == "Pnt":
                assert field.target is not None
                if self._left > 0 and level < 12 and self._chance.random() < 0.7:
                    made = self._list(field.target, level + 1)
                    segment[field.name] = made if field.target.next is not None else made[0]
            elif not any(one.offset < field.offset + field.extent(8)
                         and field.offset < one.offset + one.extent(8) for one in taken):
                taken.append(field)
                if self._chance.random() < 0.9:
                    segment[field.name] = self._value(field)
        return segment

    def _value(self, field: ChainField) -> Any:
        if field.is_array:
            count = self._chance.randrange(0, 5) if field.to_end else field.count
            return [self._number(field.type) for _ in range(count)]
        if field.type == "Bit":
            return self._chance.getrandbits(8)
        if field.type in NUMBERS:
            return self._number(field.type)
        if field.type == "Bin":
            return self._chance.randbytes(self._chance.randrange(9) if field.to_end
                                          else field.length)
        return self._text(field)

    def _number(self, kind: str) -> int | float:
        chance = self._chance
        if kind == "Double":
            return chance.choice([0.0, 0.1, -1e300, chance.uniform(-1e6, 1e6)])
        if kind == "Float":
            value: float = struct.unpack("f", struct.pack("f", chance.uniform(-1e30, 1e30)))[0]
            return value
        return chance.choice([*limits(kind), 0, chance.randrange(*limits(kind))])

    def _text(self, field: ChainField) -> str:
        chance = self._chance
        text = chance.choice(WORDS)
        if chance.random() < 0.2:
            text += "\ud83d" if field.type.startswith("W") else "\udce9"
        if field.is_pointer or field.to_end:
            return text
        encoding = (("utf-16-le", "surrogatepass") if field.type.startswith("W")
                    else ("utf-8", "surrogateescape"))
        zero = (2 if field.type.startswith("W") else 1) if field.type.endswith("SZ") else 0
        whole = field.length - (field.length % 2 if field.type.startswith("W") else 0)
        while len(text.encode(*encoding)) + zero > whole:
            text = text[:-1]
        return text


class SegmentsTest(unittest.TestCase):
    def setUp(self) -> None:
        self.memtool = Memtool()
        self.enterContext(self.memtool)
        self.enterContext(qj7mem00.Process())

    def test_random_definitions_and_chains(self) -> None:
        chance = random.Random(SEED)
        seen: set[tuple[str, bool, bool]] = set()
        for number in range(SETS):
            document = DefinitionsMaker(chance).make()
            definitions = Definitions(document, "chain")
            for turn in range(CHAINS_OF_A_SET):
                made = ChainMaker(definitions.chain, chance).chain()
                length = chance.choice([4000, 32768])
                with self.subTest(seed=SEED, set=number, turn=turn):
                    self.expect_same(document, definitions, made, length)
            seen |= {(field.type, field.is_array, field.to_end)
                     for kind in definitions.chain.kinds for field in kind.fields}
        for kind in SCALARS[1:]:
            self.assertLessEqual({(kind, False, False), (kind, True, False), (kind, True, True)},
                                 seen)
        for kind in ARRAYS:
            self.assertLessEqual({(kind, False, False), (kind, False, True)}, seen)
        self.assertLessEqual({("Bit", False, False), ("Pnt", False, False), ("PStr", False, False),
                              ("WPStr", False, False)}, seen)

    def expect_same(self, document: dict[str, Any], definitions: Definitions,
                    made: list[Segment], length: int) -> None:
        """Written in Python and shown by memtool; made by memtool of its JSON and read in
        Python."""
        raw = qj7mem00.write_chain(made, definitions, block_length=length)
        found = qj7mem00.read_chain(raw, definitions)
        self.expect_values(made, found, definitions.chain)
        graph = self.memtool.graph(raw, document)
        listed = SegmentListing(definitions.chain).make(found)
        self.assertEqual(listed, shown(graph))
        self.assertEqual(self.memtool.encoded(graph, document, length), raw)
        self.assertEqual(qj7mem00.write_chain(found, definitions, block_length=length), raw)

    def expect_values(self, made: list[Segment], found: list[Segment],
                      definitions: ChainDefinitions) -> None:
        self.assertEqual(len(made), len(found))
        for one, other in zip(made, found):
            for field in definitions.by_name[one.kind].fields:
                if field.name not in one or field.role is not Role.CHILD:
                    continue
                wanted, value = one[field.name], other[field.name]
                if field.type == "Pnt":
                    self.expect_values(wanted if isinstance(wanted, list) else [wanted],
                                       value if isinstance(value, list) else [value], definitions)
                elif field.type in ("Char", "WChar"):
                    if field.type == "Char" or not field.length % 2 or field.to_end:
                        self.assertEqual(value.rstrip(" "), wanted.rstrip(" "))
                else:
                    self.assertEqual(value, wanted)

    def test_chains_of_every_writer(self) -> None:
        writers: set[str] = set()
        read = refused = 0
        chance = random.Random(SEED)
        for sent in lines_of("trees", SEED, TREES):
            writers.add(sent["writer"])
            raw, document = bytes.fromhex(sent["chain"]), sent["defs"]
            definitions = Definitions(document, "chain")
            with self.subTest(writer=sent["writer"], seed=SEED):
                found = qj7mem00.read_chain(raw, definitions)
                graph = self.memtool.graph(raw, document)
                self.assertEqual(SegmentListing(definitions.chain).make(found), shown(graph))
            for _ in range(5):
                damaged = bytearray(raw)
                for _ in range(chance.randrange(1, 3)):
                    damaged[chance.randrange(len(raw))] = chance.getrandbits(8)
                try:
                    qj7mem00.read_chain(damaged, definitions)
                    read += 1
                except (MemError, GraphError):
                    refused += 1
        self.assertEqual(len(writers), 22)
        self.assertGreater(read, TREES)
        self.assertGreater(refused, TREES // 5)

    def test_what_memtool_writes_of_the_examples(self) -> None:
        from support import CATALOG_CHAIN, FIXTURES
        for chain, path in (
                (FIXTURES / "memtool" / "items.chain",
                 FIXTURES / "memtool" / "chain" / "items.defs.json"),
                (FIXTURES / "catalog-sample.chain", CATALOG_CHAIN)):
            with self.subTest(chain.name):
                document = json.loads(path.read_text(encoding="utf-8"))
                definitions = Definitions(path)
                found = qj7mem00.read_chain(chain, definitions)
                graph = self.memtool.graph(chain.read_bytes(), document)
                self.assertEqual(SegmentListing(definitions.chain).make(found), shown(graph))
                self.assertEqual(self.memtool.encoded(graph, document, 32768),
                                 qj7mem00.write_chain(found, definitions))


if __name__ == "__main__":
    unittest.main()
