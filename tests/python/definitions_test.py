"""Definitions mean to Python what they mean to memtool: both take the same documents, and find the
first mistake of the others at the same place."""

import json
import os
import random
import re
import unittest
from typing import Any, Iterator

from memtool import Memtool, lines_of
from qj7mem00 import DefinitionError, Definitions
from support import CATALOG_CHAIN, FIXTURES, ROOT

SEED = int(os.environ.get("MEM_TEST_SEED", "20261122"))
MUTANTS = 1500
USES = ("chain", "port")
FILES = [*sorted((FIXTURES / "memtool").rglob("*.defs.json")), CATALOG_CHAIN]

# Keys that only chains have; in definitions of port strings Python passes over the last three.
CHAIN_DOCUMENT: dict[str, Any] = {"pointers": 8, "structures": [
    {"id": 1, "name": "First", "length": 48, "next": "next", "fields": [
        {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "First"},
        {"id": 2, "name": "small", "type": "SByte", "offset": 8},
        {"id": 3, "name": "numbers", "type": "Double", "offset": 12, "count": 2},
        {"id": 4, "name": "data", "type": "Pnt", "offset": 28, "structure": "Data"},
        {"id": 5, "name": "text", "type": "PStr", "offset": 36, "structure": "second"},
        {"id": 6, "name": "code", "type": "CharSZ", "offset": 44, "length": 4, "default": "x"}]},
    {"id": 2, "name": "first", "segment": "S"},
    {"id": 3, "name": "second", "segment": 83},
    {"id": 4, "name": "Data", "segment": "C", "length": 6, "fields": [
        {"id": 1, "name": "length", "type": "Short", "offset": 0},
        {"id": 2, "name": "owner", "type": "Pnt", "offset": 2, "reference": True},
        {"id": 3, "name": "rest", "type": "Float", "offset": 10, "toEnd": True}]},
    {"id": 5, "name": "More", "segment": 300, "fields": [
        {"id": 1, "name": "rest", "type": "Bin", "offset": 2}]}]}
PORT_DOCUMENT: dict[str, Any] = {"structures": [
    {"id": 9, "name": "Order", "length": 64, "countField": "count", "countIsLength": True,
     "fields": [
         {"id": 1, "name": "amount", "type": 7, "offset": 0, "required": True},
         {"id": 2, "name": "code", "type": "CharSZ", "offset": 4, "length": 8, "default": "none"},
         {"id": 3, "name": "item", "type": "Substructure", "offset": 12, "structure": "Item",
          "default": "00FF0102"},
         {"id": 4, "name": "text", "type": "WPStr", "offset": 16, "default": {"units": [55348]}},
         {"id": 5, "name": "big", "type": "BigInt", "offset": 24, "default": "4294967295"},
         {"id": 6, "name": "flags", "type": "Bit", "offset": 32, "default": 255},
         {"id": 7, "name": "count", "type": "UShort", "offset": 34},
         {"id": 8, "name": "first", "type": "Pnt", "offset": 40, "structure": 7},
         {"id": 9, "name": "parts", "type": "Short", "offset": 48, "notPorted": False}]},
    {"id": 7, "name": "Item", "length": 4, "fields": [
        {"id": 1, "name": "key", "type": "Bin", "offset": 0, "length": 4,
         "default": "01020304"}]}]}


def written_in_tests() -> Iterator[str]:
    """The definitions, and the single fields, that are in the sources of memtool's tests."""
    for path in sorted((ROOT / "tests" / "memtool").glob("*.cpp")):
        for text in re.findall(r'R"\((.*?)\)"', path.read_text(encoding="utf-8"), re.DOTALL):
            if text.lstrip().startswith('{"id"') and '"offset"' in text or '"type"' in text[:60]:
                for first in ('"segment": "F", "length": 32', '"segment": "C"'):
                    yield ('{"structures": [{"id": 1, ' + first + ', "fields": [\n' + text
                           + ']}, {"id": 2, "segment": "S"}]}')
                    yield ('{"structures": [{"id": 1, "length": 32, "fields": [\n' + text + ']}]}')
            elif '"structures"' in text:
                yield text


class SameAsMemtool(unittest.TestCase):
    def setUp(self) -> None:
        self.memtool = Memtool()
        self.enterContext(self.memtool)
        self.taken = self.refused = 0

    def compare(self, text: str, use: str) -> bool:
        """True if both take the text."""
        self.memtool.write("x.json", text)
        answer = self.memtool.run("defs", "x.json", "--for", use)
        error = None
        before = os.getcwd()
        os.chdir(self.memtool.folder)
        try:
            definitions = Definitions("x.json", use)
        except DefinitionError as refusal:
            error = str(refusal)
        finally:
            os.chdir(before)
        if answer["code"] == 0:
            self.taken += 1
            self.assertIsNone(error, text)
            again = Definitions(answer["out"], use)
            self.assertEqual([each.name for each in again.structures],
                             [each.name for each in definitions.structures])
            return True
        self.refused += 1
        self.assertIsNotNone(error, f"{answer['err']}{text}")
        if is_json(text):  # what is no JSON ends at different places
            self.assertEqual(place_of(str(error)), place_of(answer["err"].strip()), text)
        return False

    def test_the_files_of_memtool(self) -> None:
        self.assertGreaterEqual(len(FILES), 6)
        for path in FILES:
            text = path.read_text(encoding="utf-8")
            with self.subTest(path.name):
                answer = Definitions(path)
                self.assertTrue(self.compare(text, answer.use))
                self.memtool.write("x.json", text)
                printed = self.memtool.output("defs", "x.json")
                self.assertEqual(Definitions(printed).use, answer.use)

    def test_what_is_written_in_the_tests_of_memtool(self) -> None:
        texts = list(written_in_tests())
        for text in texts:
            for use in USES:
                if passes_over(text, use):
                    continue
                with self.subTest(text=text, use=use):
                    self.compare(text, use)
        self.assertGreater(len(texts), 100)
        self.assertGreater(self.taken, 40)
        self.assertGreater(self.refused, 60)

    def test_repeated_keys(self) -> None:
        chance = random.Random(SEED)
        for use, document in (("chain", CHAIN_DOCUMENT), ("port", PORT_DOCUMENT)):
            for number in range(200):
                text = with_repeated_key(document, chance)
                with self.subTest(use=use, number=number, seed=SEED):
                    self.assertFalse(self.compare(text, use))
        for text in ('{"structures": [], "structures": []}',
                     '{"structures": [{"id": 1,\n "i\\u0064": 2}]}',
                     '{"structures": [], "x": [[[[[[[[[{"a": 1, "a": 1}]]]]]]]]]}',
                     '{"structures": [{"x": {"é": {"b": "}", "b": ["{"]}}, "x": 1}]}',
                     '{"a": 1, "a": {"b": 1, "b": 2}}'):
            for use in USES:
                with self.subTest(text=text, use=use):
                    self.assertFalse(self.compare(text, use))

    def test_definitions_from_tables(self) -> None:
        for sent in lines_of("trees", SEED, 100):
            with self.subTest(sent["writer"]):
                self.assertTrue(self.compare(json.dumps(sent["defs"]), "chain"))
        for sent in lines_of("make", SEED, 100):
            self.assertTrue(self.compare(json.dumps(sent["defs"]), "port"))

    def test_damaged_definitions(self) -> None:
        chance = random.Random(SEED)
        for use, document in (("chain", CHAIN_DOCUMENT), ("port", PORT_DOCUMENT)):
            self.taken = self.refused = 0
            for number in range(MUTANTS):
                text = damaged(document, chance)
                if passes_over(text, use):
                    continue
                with self.subTest(use=use, number=number, seed=SEED):
                    self.compare(text, use)
            self.assertGreater(self.taken, MUTANTS // 20)
            self.assertGreater(self.refused, MUTANTS // 5)


def is_json(text: str) -> bool:
    """Whether the text is JSON with each key once."""
    try:
        value = json.loads(text)
    except ValueError:
        return False
    return isinstance(value, dict)


def place_of(message: str) -> tuple[str, str]:
    """The path in a message, and its line and column."""
    line = re.search(r" \((line \d+, column \d+)\)$", message)
    path = re.match(r"(?:memtool: )?x\.json: ((?:structures|pointers)\S*): ", message)
    return path[1] if path else "", line[1] if line else ""


def passes_over(text: str, use: str) -> bool:
    """Whether Python takes something that memtool refuses: keys of chains in definitions of port
    strings, and codes of types in those of chains."""
    more = r'"(pointers|segment|next|reference)"' if use == "port" else r'"type":\s*\d'
    return re.search(more, text) is not None


def with_repeated_key(document: dict[str, Any], chance: random.Random) -> str:
    """The document with keys that appear a second time, as text over many lines."""
    text = json.dumps(document, indent=1, ensure_ascii=False)
    for _ in range(chance.choice([1, 1, 2])):
        places = [found for found in re.finditer(r'(\n *)"\w+": [^\[{\n]*[^\[{,\n]', text)]
        place = chance.choice(places)
        text = text[:place.end()] + "," + place[0] + text[place.end():]
    return text


KEYS = ["id", "name", "type", "offset", "length", "count", "toEnd", "structure", "reference",
        "required", "default", "segment", "next", "pointers", "countField", "countIsLength", "x"]
VALUES = [0, 1, 2, 3, 4, 7, 8, 12, 70, 83, 255, 32767, 32768, 65535, 65536, -1, 1 << 31, 1 << 32,
          1 << 70, 1.5, True, False, None, "", "1", "a", "F", "C", "S", "W", "é", "FF", "00FF",
          "First", "Data", "Item", "count", "+1", "Pnt", "PStr", "WPStr", "Bin", "Bit", "UByte",
          "Float", "Long", "WChar", "WCharSZ", "Char", "Substructure", "a\"b", "a\u00a0b", "\x7f",
          [], {}, [1], {"hex": "E9"}, {"hex": "e9"}, {"units": [1]}, {"units": [70000]}]


def damaged(document: dict[str, Any], chance: random.Random) -> str:
    """The document with one to three values, keys or elements changed, as text over many lines."""
    copy = json.loads(json.dumps(document))
    for _ in range(chance.choice([1, 1, 2, 3])):
        inside = chance.choice([each for each in parts(copy) if each] or [copy])
        if isinstance(inside, list):
            index = chance.randrange(len(inside))
            change = chance.randrange(4)
            if change == 0:
                del inside[index]
            elif change == 1:
                inside.insert(index, json.loads(json.dumps(chance.choice(inside))))
            elif change == 2:
                inside.reverse()
            else:
                inside[index] = chance.choice(VALUES)
        elif not inside or chance.randrange(4):
            inside[chance.choice([*inside, chance.choice(KEYS)])] = chance.choice(VALUES)
        else:
            del inside[chance.choice(list(inside))]
    text = json.dumps(copy, indent=chance.choice([None, 1]), ensure_ascii=chance.random() < 0.5)
    if chance.random() < 0.1:
        at = chance.randrange(len(text))
        text = text[:at] + chance.choice('0123456789{}[]",:-e. tfn') + text[at + 1:]
    return text


def parts(value: Any) -> Iterator[Any]:
    if isinstance(value, (dict, list)):
        yield value
        for each in value.values() if isinstance(value, dict) else value:
            yield from parts(each)


class DefinitionsTest(unittest.TestCase):
    def test_what_they_are_for(self) -> None:
        for document, use in ((CHAIN_DOCUMENT, "chain"), (PORT_DOCUMENT, "port")):
            self.assertEqual(Definitions(document).use, use)
        both: dict[str, Any] = {"structures": [{"id": 1, "name": "A", "length": 8, "fields": [
            {"id": 1, "name": "n", "type": "Long", "offset": 0, "default": 5}]}]}
        self.assertEqual(Definitions(both).use, "port")
        self.assertEqual(Definitions(both, "chain").use, "chain")
        for key, value in (("count", 1), ("toEnd", False), ("reference", False), ("type", "Float")):
            changed = json.loads(json.dumps(both))
            changed["structures"][0]["fields"][0][key] = value
            with self.subTest(key):
                use = "port"
                try:
                    use = Definitions(changed).use
                except DefinitionError as error:  # of chains
                    self.assertIn("only pointers have this key", str(error))
                    use = "chain"
                self.assertEqual(use, "chain")
        with self.assertRaisesRegex(ValueError, 'use is "chain" or "port"'):
            Definitions(both, "heap")

    def test_codes_of_types(self) -> None:
        for code, kind in ((1, "Char"), (7, "Long"), (13, "BigInt"), (16, "WPStr")):
            field = Definitions({"structures": [{"id": 1, "segment": "C", "fields": [
                {"id": 1, "type": code, "offset": 2} | ({"length": 4} if code == 1 else {})]}]})
            self.assertEqual(field.chain.kinds[0].fields[0].type, kind)
        for code in (0, 10, 17, True):
            with self.subTest(code), self.assertRaisesRegex(DefinitionError, r"fields\[0\].type: "):
                Definitions({"structures": [{"id": 1, "segment": "C", "fields": [
                    {"id": 1, "type": code, "offset": 2}]}]})

    def test_wide_text_has_a_whole_character(self) -> None:
        for use in USES:
            for kind in ("WChar", "WCharSZ"):
                document: dict[str, Any] = {"structures": [{"id": 1, "length": 8, "fields": [
                    {"id": 1, "type": kind, "offset": 0, "length": 2}]}]}
                Definitions(document, use)
                document["structures"][0]["fields"][0]["length"] = 1
                with self.subTest(use=use, kind=kind), self.assertRaisesRegex(
                        DefinitionError, r"fields\[0\].length: expected a whole number from 2 "):
                    Definitions(document, use)

    def test_both_uses_of_one_object(self) -> None:
        definitions = Definitions({"structures": [{"id": 1, "length": 8, "fields": [
            {"id": 1, "type": "Short", "offset": 0, "default": 5}]}]})
        self.assertEqual(definitions.chain.kinds[0].fixed_length, 8)
        self.assertEqual(definitions.port.structures[0].fields[0].default, 5)

    def test_port_strings_pass_over_the_keys_of_chains(self) -> None:
        structures = Definitions({"pointers": 8, "structures": [
            {"id": 1, "name": "Node", "length": 16, "next": "next", "segment": "F", "fields": [
                {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": "Node"},
                {"id": 2, "name": "other", "type": "Pnt", "offset": 8, "structure": "Node",
                 "reference": True}]},
            {"id": 2, "segment": "S"}]}).port.structures
        self.assertEqual([each.name for each in structures], ["Node"])

    def test_mistakes_have_their_line_in_files_and_text_and_their_path_in_dicts(self) -> None:
        text = '{"structures": [\n  {"id": 1, "length": 4,\n   "fields": "ü"}]}'
        for source, message in (
                (text, "definitions: structures[0].fields: expected an array (line 3, column 14)"),
                (json.loads(text), "definitions: structures[0].fields: expected an array"),
                ('{"structures": [\n}', "definitions: Expecting value (line 2, column 1)"),
                ('{"structures": NaN}', "definitions: NaN is not a number of JSON"),
                ('{"structures": 1e999}', "definitions: the number 1e999 is too large"),
                ('{"structures": ' + "[" * 100_000,
                 "definitions: the values are nested too deeply"),
                ('{"structures": 1, "structures": 2}',
                 'definitions: the key "structures" appears a second time (line 1, column 19)'),
                ('{"structures": [{"fields": [],\n"id": 1, "fields": [{"a": 1, "a": 2}]}]}',
                 'definitions: structures[0]: the key "fields" appears a second time '
                 "(line 2, column 10)"),
        ):
            with self.subTest(message), self.assertRaises(DefinitionError) as caught:
                Definitions(source)
            self.assertEqual(str(caught.exception), message)


if __name__ == "__main__":
    unittest.main()
