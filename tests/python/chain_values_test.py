"""Typed values of segments: every type and every key of the definitions, in every kind of segment
and in both byte orders."""

import json
import math
import struct
import unittest
from typing import Any

import qj7mem00
from qj7mem00 import DefinitionError, GraphError, Segment
from support import FIXTURES, ProcessTest

# Type, further keys, bytes of a little-endian writer and of a big-endian one, value.
TYPES: list[tuple[str, dict[str, Any], bytes, bytes, Any]] = [
    ("SByte", {}, b"\xfe", b"\xfe", -2),
    ("UByte", {}, b"\xfe", b"\xfe", 254),
    ("Short", {}, b"\xfe\xff", b"\xff\xfe", -2),
    ("UShort", {}, b"\xfe\xff", b"\xff\xfe", 65534),
    ("Long", {}, b"\xfe\xff\xff\xff", b"\xff\xff\xff\xfe", -2),
    ("ULong", {}, b"\x01\0\0\x80", b"\x80\0\0\x01", 0x80000001),
    ("BigInt", {}, b"\0" * 7 + b"\x80", b"\x80" + b"\0" * 7, -1 << 63),
    ("UBigInt", {}, b"\xfe" + b"\xff" * 7, b"\xff" * 7 + b"\xfe", (1 << 64) - 2),
    ("Float", {}, struct.pack("<f", -1.5), struct.pack(">f", -1.5), -1.5),
    ("Float", {}, struct.pack("<f", -math.inf), struct.pack(">f", -math.inf), -math.inf),
    ("Double", {}, struct.pack("<d", 0.1), struct.pack(">d", 0.1), 0.1),
    ("Bit", {}, b"\x81", b"\x81", 129),
    ("Bin", {"length": 3}, b"\x1f\xa0\0", b"\x1f\xa0\0", b"\x1f\xa0\0"),
    ("Char", {"length": 3}, b"AB ", b"AB ", "AB "),
    ("Char", {"length": 2}, b"\xe9\0", b"\xe9\0", "\udce9\0"),
    ("CharSZ", {"length": 3}, b"A\0\0", b"A\0\0", "A"),
    ("WChar", {"length": 4}, b"\xc4\0 \0", b"\0\xc4\0 ", "Ä "),
    ("WChar", {"length": 2}, b"\x34\xd8", b"\xd8\x34", "\ud834"),
    ("WCharSZ", {"length": 5}, b"\xe5\x65\0\0\0", b"\x65\xe5\0\0\0", "日"),
    ("Short", {"count": 3}, b"\1\0\xff\xff\x2c\1", b"\0\1\xff\xff\1\x2c", [1, -1, 300]),
    ("UByte", {"count": 1}, b"\7", b"\7", [7]),
    ("Double", {"count": 2}, struct.pack("<2d", 0.5, -2), struct.pack(">2d", 0.5, -2), [0.5, -2]),
    ("ULong", {"length": 4, "count": 1}, b"\1\0\0\0", b"\0\0\0\1", [1]),
]
# The same of fields that go on to the segment's end.
TO_END: list[tuple[str, bytes, bytes, Any]] = [
    ("Bin", b"", b"", b""),
    ("Bin", b"\1\2", b"\1\2", b"\1\2"),
    ("Char", b"hi ", b"hi ", "hi "),
    ("CharSZ", b"hi\0", b"hi\0", "hi"),
    ("WChar", b"\xc4\0", b"\0\xc4", "Ä"),
    ("WChar", b"", b"", ""),
    ("WCharSZ", b"\xc4\0\0\0", b"\0\xc4\0\0", "Ä"),
    ("SByte", b"\xff\1", b"\xff\1", [-1, 1]),
    ("UShort", b"\5\0\6\0", b"\0\5\0\6", [5, 6]),
    ("BigInt", b"", b"", []),
    ("Float", struct.pack("<f", 2.5), struct.pack(">f", 2.5), [2.5]),
    ("Double", struct.pack("<2d", 0.1, 7), struct.pack(">2d", 0.1, 7), [0.1, 7]),
]


def definitions_of(segment: str | int, fields: list[dict[str, Any]],
                   length: int | None = None) -> dict[str, Any]:
    listed = [{"id": index + 1, "name": "value" if index == 0 else f"f{index}", **field}
              for index, field in enumerate(fields)]
    kind: dict[str, Any] = {"id": 1, "name": "Kind", "segment": segment, "fields": listed}
    if length is not None:
        kind["length"] = length
    return {"structures": [kind]}


def big_endian(chain: bytes, tail: int, has_own_length: bool) -> bytearray:
    """The chain of one segment as a big-endian writer has it; ``tail`` is the segment's offset."""
    turned = bytearray(chain)
    turned[2:6] = b"0221"
    for at in (0, 6, *range(8, 18, 2), *((tail,) if has_own_length else ())):
        turned[at:at + 2] = chain[at:at + 2][::-1]
    return turned


def chain_of(descriptor: tuple[int, ...], items: bytes, order: str = "<",
             version: bytes = b"") -> bytes:
    """A chain with two kinds, that of the root and narrow text. The descriptor has one child entry,
    used or not."""
    kinds = struct.pack(order + "h", 2)
    kinds += struct.pack(order + "HHhhhHh", *descriptor).ljust(122, b"\0")
    kinds += struct.pack(order + "HHh", 83, 0, -1)
    block = (version or (b"0221" if order == ">" else b"0220")) + kinds.ljust(978, b"\0") + items
    return struct.pack(order + "H", len(block) + 2) + block


class ChainValuesTest(ProcessTest):
    def expect(self, definitions: dict[str, Any], start: int, little: bytes, big: bytes,
               value: Any) -> None:
        """A segment that has these bytes from ``start`` on is written and read."""
        segment = Segment("Kind", value=value)
        chain = qj7mem00.write_chain(segment, definitions)
        tail = len(chain) - start - len(little)
        self.assertEqual(chain[tail + start:], little)
        turned = big_endian(chain, tail, start > 0)
        turned[tail + start:] = big
        for raw in (chain, turned):
            found = qj7mem00.read_chain(raw, definitions)[0]
            self.assertEqual(vars(found), {"value": value})
            self.assertIs(type(found["value"]), type(value))
            self.assertEqual(qj7mem00.write_chain(found, definitions), chain)

    def test_every_type(self) -> None:
        for kind, keys, little, big, value in TYPES:
            for segment, start in (("F", 0), ("C", 2), ("D", 2), (300, 2)):
                with self.subTest(type=kind, keys=keys, segment=segment):
                    definitions = definitions_of(
                        segment, [{"type": kind, "offset": start, **keys}],
                        len(little) if segment == "F" else None)
                    self.expect(definitions, start, little, big, value)

    def test_every_type_to_the_end(self) -> None:
        for kind, little, big, value in TO_END:
            for segment in ("C", "D", 0):
                with self.subTest(type=kind, segment=segment):
                    definitions = definitions_of(
                        segment, [{"type": kind, "offset": 2, "toEnd": True}])
                    self.expect(definitions, 2, little, big, value)
        self.expect(definitions_of("D", [{"type": "Bin", "offset": 2}]), 2, b"rest", b"rest",
                    b"rest")

    def test_lengths_of_segments_follow_from_their_values(self) -> None:
        fields = [{"type": "Short", "offset": 0}, {"type": "Long", "offset": 2},
                  {"type": "UShort", "offset": 6, "toEnd": True}]
        definitions = definitions_of("C", fields, 24)
        for segment, size, values in (
                ({}, 2, {"value": 0, "f1": None, "f2": None}),
                ({"f1": 1}, 6, {"value": 4, "f1": 1, "f2": []}),
                ({"f2": [5, 6]}, 10, {"value": 8, "f1": 0, "f2": [5, 6]}),
                ({"value": 5, "+2": b"\1\2\3\4\5"}, 7,
                 {"value": 5, "f1": 0x04030201, "f2": [], "+6": b"\5"}),
                ({"+2": bytes(5)}, 7, {"value": 5, "f1": 0, "f2": [], "+6": b"\0"}),
                ({"+2": b"\1\2"}, 4, {"value": 2, "f1": None, "f2": None, "+2": b"\1\2"}),
        ):
            with self.subTest(segment):
                raw = qj7mem00.write_chain(segment, definitions)
                self.assertEqual(len(raw), len(qj7mem00.write_chain({}, definitions)) - 2 + size)
                found = qj7mem00.read_chain(raw, definitions)[0]
                self.assertEqual(vars(found), values)
                self.assertEqual(qj7mem00.write_chain(found, definitions), raw)

    def test_what_no_field_describes_is_kept(self) -> None:
        bare = definitions_of("F", [{"type": "Bin", "offset": 0, "length": 12}], 12)
        raw = qj7mem00.write_chain({"value": bytes(range(12))}, bare)
        typed = definitions_of("F", [{"type": "UShort", "offset": 4}], 12)
        found = qj7mem00.read_chain(raw, typed)[0]
        self.assertEqual(vars(found), {"value": 0x0504, "+0": b"\0\1\2\3",
                                       "+6": b"\6\7\x08\x09\x0a\x0b"})
        self.assertEqual(qj7mem00.write_chain(found, typed), raw)
        empty = qj7mem00.write_chain({"value": bytes(12)}, bare)
        self.assertEqual(vars(qj7mem00.read_chain(empty, typed)[0]), {"value": 0})

    def test_bytes_that_cannot_be_a_value(self) -> None:
        for kind, raw in (("CharSZ", b"abcd"), ("WCharSZ", b"a\0b\0"), ("WChar", b"a\0b")):
            with self.subTest(kind):
                bare = definitions_of("F", [{"type": "Bin", "offset": 0, "length": len(raw)}],
                                      len(raw))
                typed = definitions_of("F", [{"type": kind, "offset": 0, "length": len(raw)}],
                                       len(raw))
                chain = qj7mem00.write_chain({"value": raw}, bare)
                found = qj7mem00.read_chain(chain, typed)[0]
                self.assertEqual(vars(found), {"value": None, "+0": raw})
                self.assertEqual(qj7mem00.write_chain(found, typed), chain)

    def test_fields_that_share_bytes(self) -> None:
        definitions = definitions_of("F", [
            {"type": "Long", "offset": 0}, {"type": "UShort", "offset": 0},
            {"type": "CharSZ", "offset": 2, "length": 6},
            {"type": "SByte", "offset": 6, "count": 2}], 8)
        raw = qj7mem00.write_chain({"f1": 7, "f2": "abc", "f3": [0, -1]}, definitions)
        found = qj7mem00.read_chain(raw, definitions)[0]
        self.assertEqual(vars(found), {"value": 0x62610007, "f1": 7, "f2": "abc", "f3": [0, -1]})
        self.assertEqual(qj7mem00.write_chain(found, definitions), raw)
        found.value = 1
        with self.assertRaisesRegex(GraphError, "Kind.f1: another value has set other bytes|"
                                    "Kind.f2: another value has set other bytes"):
            qj7mem00.write_chain(found, definitions)

    def test_values_that_do_not_fit(self) -> None:
        rows: list[tuple[dict[str, Any], Any, str]] = [
            ({"type": "SByte"}, 128, "expected a whole number from -128 to 127, found 128"),
            ({"type": "UByte"}, -1, "expected a whole number from 0 to 255, found -1"),
            ({"type": "Bit"}, 256, "expected a whole number from 0 to 255, found 256"),
            ({"type": "Long"}, 1.5, "expected a number, found float"),
            ({"type": "Double"}, "1", "expected a number, found str"),
            ({"type": "Float"}, True, "expected a number, found bool"),
            ({"type": "Float"}, 1e39, "the number 1e[+]39 is too large for its field"),
            ({"type": "Short", "count": 2}, [1], "expected 2 numbers, found 1"),
            ({"type": "Short", "count": 2}, 1, "expected a list of numbers, found int"),
            ({"type": "Short", "count": 2}, "12", "expected a list of numbers, found str"),
            ({"type": "Short", "count": 2}, [1, 40000], "from -32768 to 32767, found 40000"),
            ({"type": "Char", "length": 2}, "abc", "the text has 3 bytes, more than 2"),
            ({"type": "WCharSZ", "length": 5}, "ab", "the text has 4 bytes, more than 2"),
            ({"type": "CharSZ", "length": 9}, "a\0b", "text with a zero in it"),
            ({"type": "Bin", "length": 2}, b"abc", "3 bytes instead of 2"),
            ({"type": "Bin", "length": 2}, "zz", "non-hexadecimal"),
            ({"type": "Char", "toEnd": True}, bytes(32800), "too long for a segment"),
            ({"type": "CharSZ", "toEnd": True}, "a\0b", "text with a zero in it"),
        ]
        for keys, value, words in rows:
            with self.subTest(words), self.assertRaisesRegex(GraphError, "^Kind.value: .*" + words):
                qj7mem00.write_chain({"value": value}, definitions_of("C", [{"offset": 2, **keys}]))
        definitions = definitions_of("C", [
            {"type": "Short", "offset": 0}, {"type": "Pnt", "offset": 2, "structure": 1,
                                             "reference": True}])
        for name, given, words in (
                ("value", 3, "the segment's values make this 8"),
                ("+0", b"\1\0", "the first two bytes are the segment's length"),
                ("+9", b"\1", "it overlaps the pointer f1"),
                ("+x", b"\1", "a name with [+] is an offset"),
                ("+12", 5, "expected bytes, found int"),
                ("f2", 5, "there is no field 'f2'"),
        ):
            with self.subTest(words), self.assertRaisesRegex(GraphError, words):
                qj7mem00.write_chain({name: given}, definitions)
        self.assertEqual(qj7mem00.write_chain({"1": 8, "kind": "Kind"}, definitions),
                         qj7mem00.write_chain({}, definitions))

    def test_a_field_can_have_any_name(self) -> None:
        definitions = definitions_of("F", [
            {"name": "kind", "type": "Short", "offset": 0},
            {"name": "choice.number", "type": "Short", "offset": 2},
            {"name": "__class__", "type": "Short", "offset": 4}], 6)
        made = Segment("Kind", kind=5, **{"choice.number": 6, "__class__": 7})
        found = qj7mem00.read_chain(qj7mem00.write_chain(made, definitions), definitions)[0]
        self.assertEqual((found.kind, found["kind"], found["choice.number"], found["__class__"]),
                         ("Kind", 5, 6, 7))
        self.assertIs(type(found), Segment)
        found["kind"] = 8
        self.assertIn("kind", found)
        again = qj7mem00.read_chain(qj7mem00.write_chain(found, definitions), definitions)[0]
        self.assertEqual(again["kind"], 8)

    def test_several_kinds_of_text(self) -> None:
        definitions = {"structures": [
            {"id": 1, "name": "Kind", "length": 32, "fields": [
                {"id": 1, "name": "a", "type": "PStr", "offset": 0, "structure": "one"},
                {"id": 2, "name": "b", "type": "PStr", "offset": 8, "structure": "two"},
                {"id": 3, "name": "c", "type": "WPStr", "offset": 16, "structure": 4},
                {"id": 4, "name": "d", "type": "WPStr", "offset": 24}]},
            {"id": 2, "name": "one", "segment": "S"}, {"id": 3, "name": "two", "segment": 83},
            {"id": 4, "name": "wide", "segment": "W"}]}
        values = {"a": "narrow", "b": "", "c": "wíde", "d": None}
        raw = qj7mem00.write_chain(values, definitions)
        self.assertEqual(raw[6:8], b"\4\0")
        self.assertEqual(vars(qj7mem00.read_chain(raw, definitions)[0]), values)
        # As many kinds as the control block needs: narrow text before wide text.
        fields = [{"type": "WPStr", "offset": 0}, {"type": "PStr", "offset": 8}]
        short = definitions_of("F", fields, 16)
        raw = qj7mem00.write_chain({"value": "wide", "f1": "narrow"}, short)
        self.assertEqual((raw[6:8], raw[8 + 122:8 + 123], raw[8 + 244:8 + 245]),
                         (b"\3\0", b"S", b"W"))

    def test_a_chain_of_one_text(self) -> None:
        definitions = {"structures": [{"id": 1, "segment": "S"}]}
        raw = qj7mem00.write_chain("just text", definitions)
        self.assertEqual(qj7mem00.read_chain(raw, definitions), ["just text"])

    def test_definitions_of_a_part_of_the_chain(self) -> None:
        whole = FIXTURES / "catalog-sample.chain"
        packages = qj7mem00.read_chain(whole, {"structures": [
            {"id": 1, "name": "P", "length": 48, "next": "next", "fields": [
                {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "P"},
                {"id": 2, "name": "count", "type": "ULong", "offset": 40}]}]})
        self.assertEqual(len(packages), 26)
        first = packages[0]
        self.assertEqual((first.kind, first.count, first["+8"]), ("P", 1, "base-files"))
        self.assertEqual((first["+32"].kind, first["+32"]["+8"]), ("kind 1", "awk"))
        bare = qj7mem00.read_chain(whole, {"structures": [
            {"id": 1, "name": "P", "length": 48, "fields": []}]})
        self.assertEqual(len(bare), 1)
        count, at = 0, bare[0]
        while at is not None:
            count, at = count + 1, vars(at).get("+0")
        self.assertEqual(count, 26)
        with self.assertRaisesRegex(GraphError, r"P.\+[08]+: expected bytes, found (str|Segment)"):
            qj7mem00.write_chain(bare, {"structures": [
                {"id": 1, "name": "P", "length": 48, "fields": []}]})

    def test_what_a_chain_contradicts_has_its_place(self) -> None:
        for fields, words in (
                ([{"type": "PStr", "offset": 40}],
                 "no pointer is at offset 40$"),
                ([{"type": "Long", "offset": 36}], "a pointer is at offset 32"),
                ([{"type": "WPStr", "offset": 8}], "the child at offset 8 is of kind 2"),
                ([{"type": "Pnt", "offset": 8, "structure": 1}], "at offset 8 is of kind 2"),
                ([{"type": "Pnt", "offset": 0, "reference": True}],
                 "the pointer at offset 0 is a sibling"),
        ):
            with self.subTest(words), self.assertRaisesRegex(
                    GraphError, "describes other structures: .*" + words):
                qj7mem00.read_chain(FIXTURES / "catalog-sample.chain",
                                    definitions_of("F", fields, 48))
        text = json.dumps({"structures": [{"id": 1, "length": 48, "fields": [
            {"id": 1, "type": "Long", "offset": 36}]}]}, indent=1)
        with self.assertRaisesRegex(
                GraphError, r"^definitions: structures\[0\].fields\[0\]: .* \(line 7, column 5\)$"):
            qj7mem00.read_chain(FIXTURES / "catalog-sample.chain", text)
        for document, words in (
                ({"structures": [{"id": 1, "length": 40, "fields": []}]},
                 r"structures\[0\].length: .*: kind 0 has 48 bytes"),
                ({"structures": [{"id": 1, "segment": "C", "fields": []}]},
                 "kind 0 is of type 70"),
        ):
            with self.subTest(words), self.assertRaisesRegex(GraphError, words):
                qj7mem00.read_chain(FIXTURES / "catalog-sample.chain", document)

    def test_segments_that_overlap_are_refused(self) -> None:
        definitions: dict[str, Any] = {"structures": [
            {"id": 1, "name": "Kind", "segment": "D", "next": "next", "fields": [
                {"id": 1, "name": "next", "type": "Pnt", "offset": 2, "structure": "Kind"},
                {"id": 2, "name": "rest", "type": "Bin", "offset": 10}]}]}
        raw = bytearray(qj7mem00.write_chain([
            Segment("Kind", rest=bytes(2)) for _ in range(200)], definitions))
        first = len(raw) - 200 * 12
        for at in range(first, len(raw), 12):  # each goes on to the end of the block
            struct.pack_into("<H", raw, at, len(raw) - at)
        with self.assertRaisesRegex(GraphError, "^segments overlap$"):
            qj7mem00.read_chain(raw, definitions)

    def test_chains_with_pointers_of_4_bytes(self) -> None:
        text = {"type": "PStr", "offset": 0}
        number = {"type": "Long", "offset": 4}
        # Fields, descriptor of the root with a child entry, bytes of the root, values.
        rows: list[tuple[list[dict[str, Any]], tuple[int, ...], bytes, dict[str, Any]]] = [
            ([text, number], (70, 8, -1, 1, 0, 1, 0),
             struct.pack("<HHi", 0, 992, -5), {"value": "hi", "f1": -5}),
            ([{"type": "Long", "offset": 0}, {"type": "PStr", "offset": 4}],
             (70, 8, -1, 1, 0, 1, 4),
             struct.pack("<iHH", -5, 0, 992), {"value": -5, "f1": "hi"}),
            ([number], (70, 8, -1, 0, 0, 1, 0),
             struct.pack("<ii", 7, -5), {"value": -5, "+0": b"\7\0\0\0"}),
            ([number | {"name": "n"}], (70, 8, 0, 0, 0, 0, 0),
             struct.pack("<HHi", 0, 0, -5), {"n": -5}),
        ]
        for fields, descriptor, root, values in rows:
            with self.subTest(values):
                raw = chain_of(descriptor, root + b"hi\0")
                found = qj7mem00.read_chain(raw, definitions_of("F", fields, 8) | {"pointers": 4})
                self.assertEqual(vars(found[0]), values)
        fields = [{"type": "Short", "offset": 0}, {"type": "PStr", "offset": 2},
                  {"type": "UShort", "offset": 6, "toEnd": True}]
        for order in "<>":
            with self.subTest(order):
                raw = chain_of((67, 0, -1, 1, 0, 1, 2), struct.pack(
                    order + "hHHHH", 8, 0, 994, 1, 0x0203) + b"hi\0", order)
                found = qj7mem00.read_chain(raw, definitions_of("C", fields) | {"pointers": 4})
                self.assertEqual(vars(found[0]), {"value": 8, "f1": "hi", "f2": [1, 0x0203]})

    def test_text_of_every_code(self) -> None:
        ebcdic, wide = "0200".encode("cp037"), "WCharSZ"
        for order, version, kind, raw, encoding, value in (
                (">", ebcdic, "Char", b"\x40\x40", None, "  "),
                (">", ebcdic, "Char", b"\xc1\x4a", None, "A¢"),
                (">", ebcdic, "Char", b"A@", None, "A@"),
                (">", ebcdic, "Char", b"\xc1\x4a", "cp500", "A["),
                (">", ebcdic, "Char", b"\x40\x40", "utf-8", "@@"),
                ("<", b"0220", "Char", b"\xc1\x40", None, "\udcc1@"),
                ("<", b"0240", wide, b"\xc4\0\0\0\0\0\0\0", None, "Ä"),
                (">", b"0241", wide, b"\0\1\xf6\x00\0\0\0\0", None, "😀"),
                ("<", b"0240", wide, b"\0\0\x11\0\0\0\0\0", None, None),
                ("<", b"0240", "WChar", b"\x34\xd8\0\0", None, None),
        ):
            with self.subTest(version=version, raw=raw, encoding=encoding):
                chain = chain_of((70, len(raw), -1, 0, 0, 0, 0), raw, order, version)
                found = qj7mem00.read_chain(chain, definitions_of(
                    "F", [{"type": kind, "offset": 0, "length": len(raw)}], len(raw)),
                    encoding=encoding)
                self.assertEqual(vars(found[0]),
                                 {"value": value} | ({"+0": raw} if value is None else {}))

    def test_child_entries_that_are_not_used_can_have_any_bytes(self) -> None:
        definitions = definitions_of("F", [{"type": "Long", "offset": 8}], 16)
        for unused in (-1, 0x7FFF, 8):
            raw = chain_of((70, 16, 0, 0, 0, 0, unused), struct.pack("<Qii", 0, -5, 0))
            self.assertEqual(vars(qj7mem00.read_chain(raw, definitions)[0]), {"value": -5})

    def test_pointers_of_4_bytes(self) -> None:
        fields: list[dict[str, Any]] = [
            {"type": "Pnt", "offset": 4, "structure": 1}, {"type": "Long", "offset": 0}]
        with self.assertRaisesRegex(DefinitionError, "for pointers of 4 bytes"):
            qj7mem00.write_chain({}, definitions_of("F", fields, 8) | {"pointers": 4})
        with self.assertRaisesRegex(DefinitionError, "8 bytes at 4 end after the segment's 8"):
            qj7mem00.write_chain({}, definitions_of("F", fields, 8))
        with self.assertRaisesRegex(DefinitionError, r"fields\[1\]: it overlaps the pointer value"):
            qj7mem00.Definitions(definitions_of("F", [
                {"type": "Pnt", "offset": 0, "structure": 1}, {"type": "Long", "offset": 4}], 16)
                | {"pointers": 8})


if __name__ == "__main__":
    unittest.main()
