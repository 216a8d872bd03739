"""Packed chains as objects and back."""

import io
import json
import random
import struct
import tempfile
import unittest
from pathlib import Path
from typing import Any

import qj7mem00
from qj7mem00 import Segment
from qj7mem00.definitions import Definitions
from support import CATALOG_CHAIN, FIXTURES, ProcessTest

# The structures of the kept chains, as this platform lays them out.
SAMPLE: dict[str, Any] = {"structures": [
    {"id": 1, "name": "Root", "length": 56, "next": "next", "fields": [
        {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "Root"},
        {"id": 2, "name": "start", "type": "Bin", "offset": 8, "length": 3},
        {"id": 3, "name": "packages", "type": "Pnt", "offset": 11, "structure": "Package"},
        {"id": 4, "name": "text", "type": "PStr", "offset": 19},
        {"id": 5, "name": "middle", "type": "Bin", "offset": 27, "length": 5},
        {"id": 6, "name": "title", "type": "WPStr", "offset": 32},
        {"id": 7, "name": "note", "type": "Pnt", "offset": 40, "structure": "Note"},
        {"id": 8, "name": "current", "type": "Pnt", "offset": 48, "reference": True}]},
    {"id": 2, "name": "Package", "length": 46, "next": "next", "fields": [
        {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "Package"},
        {"id": 2, "name": "start", "type": "Bin", "offset": 8, "length": 2},
        {"id": 3, "name": "text", "type": "PStr", "offset": 10},
        {"id": 4, "name": "title", "type": "WPStr", "offset": 18},
        {"id": 5, "name": "other", "type": "Pnt", "offset": 26, "structure": "Package",
         "reference": True},
        {"id": 6, "name": "parts", "type": "Pnt", "offset": 34, "structure": "Part"},
        {"id": 7, "name": "end", "type": "Bin", "offset": 42, "length": 4}]},
    {"id": 3, "name": "Part", "length": 35, "segment": "C", "next": "next", "fields": [
        {"id": 1, "name": "letter", "type": "Bin", "offset": 2, "length": 1},
        {"id": 2, "name": "next", "type": "Pnt", "offset": 3, "structure": "Part"},
        {"id": 3, "name": "leaf", "type": "Pnt", "offset": 19, "structure": "Leaf"},
        {"id": 4, "name": "text", "type": "PStr", "offset": 11},
        {"id": 5, "name": "any", "type": "Pnt", "offset": 27, "reference": True},
        {"id": 6, "name": "tail", "type": "Bin", "offset": 35}]},
    {"id": 4, "name": "Note", "length": 33, "segment": "D", "fields": [
        {"id": 1, "name": "title", "type": "WPStr", "offset": 2},
        {"id": 2, "name": "key", "type": "Bin", "offset": 10, "length": 6},
        {"id": 3, "name": "text", "type": "PStr", "offset": 16},
        {"id": 4, "name": "note", "type": "Pnt", "offset": 24, "structure": "Note"},
        {"id": 5, "name": "mark", "type": "Bin", "offset": 32, "length": 1},
        {"id": 6, "name": "tail", "type": "Bin", "offset": 33}]},
    {"id": 5, "name": "narrow", "segment": "S"},
    {"id": 6, "name": "wide", "segment": "W"},
    {"id": 7, "name": "Leaf", "length": 9, "fields": [
        {"id": 1, "name": "data", "type": "Bin", "offset": 0, "length": 9}]}]}

TREE: dict[str, Any] = {"structures": [
    {"id": 1, "name": "Node", "length": 72, "next": "next", "fields": [
        {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "Node"},
        {"id": 2, "name": "children", "type": "Pnt", "offset": 8, "structure": "Node"},
        {"id": 3, "name": "name", "type": "PStr", "offset": 16},
        {"id": 4, "name": "title", "type": "WPStr", "offset": 24},
        {"id": 5, "name": "friend", "type": "Pnt", "offset": 32, "structure": "Node",
         "reference": True},
        {"id": 6, "name": "number", "type": "BigInt", "offset": 40},
        {"id": 7, "name": "small", "type": "Short", "offset": 48},
        {"id": 8, "name": "flags", "type": "Bit", "offset": 50},
        {"id": 9, "name": "code", "type": "Char", "offset": 51, "length": 5},
        {"id": 10, "name": "blob", "type": "Pnt", "offset": 56, "structure": "Blob"},
        {"id": 11, "name": "key", "type": "WCharSZ", "offset": 64, "length": 8}]},
    {"id": 2, "name": "Blob", "length": 2, "segment": "C", "fields": [
        {"id": 1, "name": "data", "type": "Bin", "offset": 2}]}]}


def random_tree(chance: random.Random) -> list[Segment]:
    made: list[Segment] = []

    def node(level: int) -> Segment:
        segment = Segment("Node", name=chance.choice([None, "", "plain", "größe \udce9"]),
                          title=chance.choice([None, "", "wíde 🙂", "\ud83d lone"]),
                          number=chance.getrandbits(64) - (1 << 63), small=chance.randrange(-9, 9),
                          flags=chance.getrandbits(8), code="c%04d" % chance.randrange(9999),
                          blob=chance.choice([None, Segment("Blob", data=chance.randbytes(20))]),
                          key="ab", friend=None, children=[])
        made.append(segment)
        if level < 6:
            segment.children = [node(level + 1) for _ in range(chance.choice([0, 0, 1, 2, 3]))]
        return segment
    roots = [node(0) for _ in range(chance.randrange(1, 4))]
    for segment in made:
        segment.friend = chance.choice([None, chance.choice(made)])
    return roots


def flat(segments: list[Segment]) -> list[Segment]:
    made = []
    for segment in segments:
        made.append(segment)
        made += flat(segment.children)
    return made


class ChainTest(ProcessTest):
    def test_the_catalogue_comes_back_byte_for_byte(self) -> None:
        raw = (FIXTURES / "catalog-sample.chain").read_bytes()
        packages = qj7mem00.read_chain(FIXTURES / "catalog-sample.chain", CATALOG_CHAIN)
        self.assertEqual(len(packages), 26)
        self.assertEqual(packages[0].name, "base-files")
        needed = [each for each in packages[0].dependencies if each.package]
        self.assertTrue(all(each.package in packages for each in needed))
        self.assertEqual(qj7mem00.write_chain(packages, CATALOG_CHAIN), raw)
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder, "chain")
            qj7mem00.write_chain(packages, CATALOG_CHAIN, path)
            self.assertEqual(path.read_bytes(), raw)
        stream = io.BytesIO()
        qj7mem00.write_chain(packages, CATALOG_CHAIN, stream)
        self.assertEqual(stream.getvalue(), raw)
        self.assertEqual(len(qj7mem00.read_chain(io.BytesIO(raw), CATALOG_CHAIN)), 26)

    def test_the_chains_of_every_writer(self) -> None:
        chains = sorted((FIXTURES / "chains").glob("*.chain"))
        self.assertEqual(len(chains), 22)
        for path in chains:
            with self.subTest(path.name):
                self.expect_sample(qj7mem00.read_chain(path, SAMPLE))

    def expect_sample(self, roots: list[Segment]) -> None:
        self.assertEqual(len(roots), 1)
        root = roots[0]
        self.assertEqual((root.start, root.middle, root.text, root.title),
                         (b"roo", b"tdata", "the catalogue", "Ä日😀 title"))
        one, two, three = root.packages
        self.assertEqual((one.text, one.title, one.end), ("shared name", "first", b"-one"))
        self.assertEqual((two.text, two.title, two.end), ("", None, b"-two"))
        self.assertEqual((three.text, three.title), ("shared name", ""))
        self.assertIs(root.current, two)
        self.assertIs(one.other, three)
        self.assertIs(two.other, one)
        self.assertIsNone(three.other)
        self.assertEqual([part.tail for part in one.parts], [b" tail", b" more tail"])
        self.assertIs(one.parts[1].any, one.parts[0])
        self.assertIs(two.parts[0].any, root)
        self.assertEqual(two.parts[0].leaf.data, b"leaf-data")
        self.assertEqual((root.note.key, root.note.tail), (b"note-1", b"and a tail"))
        self.assertEqual((root.note.note.key, root.note.note.title), (b"note-2", "\U0010ffff"))
        self.assertIsNone(root.note.note.note)

    def test_random_trees_come_back(self) -> None:
        definitions = Definitions(TREE)
        for seed in range(300):
            chance = random.Random(seed)
            roots = random_tree(chance)
            raw = qj7mem00.write_chain(roots, definitions, block_length=chance.choice(
                [1200, 4000, 32768]))
            found = flat(qj7mem00.read_chain(raw, definitions))
            wanted = flat(roots)
            self.assertEqual(len(found), len(wanted))
            for one, other in zip(wanted, found):
                for name in ("name", "title", "number", "small", "flags", "code", "key"):
                    self.assertEqual(getattr(one, name), getattr(other, name))
                self.assertEqual(one.blob and one.blob.data, other.blob and other.blob.data)
                place = wanted.index(one.friend) if one.friend else None
                self.assertEqual(found.index(other.friend) if other.friend else None, place)

    def test_numbers_of_the_other_byte_order_are_turned(self) -> None:
        definitions = {"structures": [{"id": 1, "name": "Pair", "length": 8, "fields": [
            {"id": 1, "name": "number", "type": "Long", "offset": 0},
            {"id": 2, "name": "small", "type": "UShort", "offset": 4}]}]}
        raw = bytearray(qj7mem00.write_chain({"number": -2, "small": 258}, definitions))
        turned = bytearray(raw)
        turned[2:6] = b"0221"
        for at in (0, 6, *range(8, 18, 2)):
            turned[at:at + 2] = raw[at:at + 2][::-1]
        struct.pack_into(">iH", turned, len(raw) - 8, -2, 258)
        for chain in (raw, turned):
            pair = qj7mem00.read_chain(chain, definitions)[0]
            self.assertEqual((pair.number, pair.small), (-2, 258))

    def test_the_old_control_block(self) -> None:
        self.process.set_options(old_pack_cb=True)
        raw = qj7mem00.write_chain(Segment("Node", name="old"), TREE)
        self.assertEqual(raw[2:6], b"0100")
        self.assertEqual(qj7mem00.read_chain(raw, TREE)[0].name, "old")

    def test_chains_of_other_structures_are_refused(self) -> None:
        raw = qj7mem00.write_chain(Segment("Node", name="one"), TREE)
        other = json.loads(json.dumps(TREE))
        other["structures"][0]["length"] = 80
        with self.assertRaisesRegex(qj7mem00.GraphError, "describes other structures"):
            qj7mem00.read_chain(raw, other)
        with self.assertRaisesRegex(qj7mem00.GraphError, "describes other structures"):
            qj7mem00.read_chain(raw, CATALOG_CHAIN)
        with self.assertRaisesRegex(qj7mem00.GraphError,
                                    r"structures\[0\].length: the chain describes other "
                                    "structures: kind 0 has 72 bytes"):
            qj7mem00.read_chain(raw, SAMPLE)

    def test_damaged_chains_do_nothing_worse(self) -> None:
        raw = (FIXTURES / "catalog-sample.chain").read_bytes()
        definitions = Definitions(CATALOG_CHAIN)
        chance = random.Random(7)
        refused = 0
        for _ in range(1500):
            damaged = bytearray(raw)
            for _ in range(chance.randrange(1, 4)):
                damaged[chance.randrange(len(raw))] = chance.choice([0, 1, 255,
                                                                    chance.getrandbits(8)])
            try:
                qj7mem00.read_chain(damaged[:chance.choice([len(raw), chance.randrange(len(raw))])],
                                    definitions)
            except (qj7mem00.MemError, qj7mem00.GraphError):
                refused += 1
        self.assertGreater(refused, 500)

    def test_what_does_not_fit_is_named(self) -> None:
        shared = Segment("Node")
        twice: dict[str, Any] = {"children": [shared, shared]}
        for segments, words in (
                ([], "a chain has a root"),
                (Segment("Node", size=5), "Node: there is no field 'size'"),
                (Segment("Node", small=1 << 15), "Node.small: "),
                (Segment("Node", name=5), "expected text, found int"),
                (Segment("Node", name="a\0b"), "text with a zero in it"),
                (Segment("Node", friend=Segment("Node")), "field friend refers to a segment that"),
                (Segment("Node", blob=Segment("Blob", data=bytes(40000))), "too long"),
                (twice, "a Node has two owners"),
                ([{"blob": [Segment("Blob"), Segment("Blob")]}], "Blob has no field for the next"),
        ):
            with self.subTest(words), self.assertRaisesRegex(qj7mem00.GraphError, words):
                qj7mem00.write_chain(segments, TREE)
        long: dict[str, Any] = {}
        at = long
        for _ in range(64):
            at["children"] = [{}]
            at = at["children"][0]
        with self.assertRaises(qj7mem00.MemError) as caught:
            qj7mem00.write_chain(long, TREE)
        self.assertEqual(caught.exception.name, "MEMERR_PACKSTAK")
        for _ in range(2000):
            at["children"] = [{}]
            at = at["children"][0]
        with self.assertRaisesRegex(qj7mem00.GraphError, "too many levels"):
            qj7mem00.write_chain(long, TREE)

    def test_bytes_that_are_no_chain(self) -> None:
        for raw, words in ((b"", "too short"), (b"\x06\x000220\x01", "wrong length of block 1"),
                           (b"\xff\xff0220", "wrong length of block 0"),
                           (b"\x06\x000220" + b"\x02\x00" * 32767, "more than 32767 blocks")):
            with self.subTest(raw), self.assertRaisesRegex(qj7mem00.GraphError, words):
                qj7mem00.read_chain(raw, TREE)


if __name__ == "__main__":
    unittest.main()
