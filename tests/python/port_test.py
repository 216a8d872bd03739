"""Port strings as dicts and back."""

import json
import threading
import unittest
from typing import Any

import qj7mem00
from qj7mem00.definitions import Definitions
from support import CATALOG, FIXTURES, PORT_FIXTURES, ProcessTest

DEFINITIONS: dict[str, Any] = {"structures": [
    {"id": 12, "name": "Order", "length": 40, "countField": "count", "fields": [
        {"id": 1, "name": "amount", "type": "Long", "offset": 0, "required": True},
        {"id": 2, "name": "code", "type": "CharSZ", "offset": 4, "length": 8, "default": "none"},
        {"id": 3, "name": "first", "type": "Pnt", "offset": 16, "structure": "Item"},
        {"id": 4, "name": "text", "type": "PStr", "offset": 24, "default": "by default"},
        {"id": 5, "name": "count", "type": "Short", "offset": 32},
        {"id": 6, "name": "parts", "type": "UShort", "offset": 34}]},
    {"id": 7, "name": "Item", "length": 32, "fields": [
        {"id": 1, "name": "pieces", "type": "UShort", "offset": 0},
        {"id": 2, "name": "key", "type": "Bin", "offset": 2, "length": 2},
        {"id": 3, "name": "other", "type": "Pnt", "offset": 8, "structure": "Item"},
        {"id": 4, "name": "asText", "type": "WPStr", "offset": 16, "required": True},
        {"id": 5, "name": "asNumber", "type": "BigInt", "offset": 16, "required": True,
         "notPorted": True},
        {"id": 6, "name": "wide", "type": "WChar", "offset": 24, "length": 6}]}]}


class PortTest(ProcessTest):
    def test_fixtures_come_back_character_for_character(self) -> None:
        for name in ("order", "shop", "all"):
            with self.subTest(name):
                definitions = Definitions(PORT_FIXTURES / f"{name}.defs.json")
                text = (PORT_FIXTURES / f"{name}.port").read_bytes()
                graph = qj7mem00.read_port_string(text, definitions)
                self.assertEqual(qj7mem00.write_port_string(graph, definitions), text)

    def test_values(self) -> None:
        text = (PORT_FIXTURES / "order.port").read_text()
        graph = qj7mem00.read_port_string(text, PORT_FIXTURES / "order.defs.json")
        self.assertEqual(graph, {"amount": -305, "code": "ab/c",
                                 "first": {"pieces": 40, "key": b"\x1f\xa0"}})
        self.assertEqual((graph.kind, graph["first"].kind), ("Order", "Item"))

    def test_shared_and_cyclic_dicts(self) -> None:
        item: dict[str, Any] = {"pieces": 1, "asText": None}
        item["other"] = item
        order = {"amount": 5, "first": item, "parts": [1, 2, 65535]}
        definitions = Definitions(DEFINITIONS)
        found = qj7mem00.read_port_string(qj7mem00.write_port_string(order, definitions),
                                          definitions)
        self.assertIs(found["first"]["other"], found["first"])
        self.assertEqual((found["count"], found["parts"]), (3, [1, 2, 65535]))
        self.assertEqual((found["code"], found["text"]), ("none", "by default"))
        self.assertEqual(found["first"]["key"], b"\0\0")

    def test_any_text(self) -> None:
        definitions = Definitions(DEFINITIONS)
        for text in ("", "größer", "quote \" slash / 🙂", "\udce9 no UTF-8"):
            order: dict[str, Any] = {"amount": 0, "text": text,
                     "first": {"asText": text.replace("\udce9", "\ud83d"), "wide": "é"}}
            raw = qj7mem00.write_port_string(order, definitions)
            found = qj7mem00.read_port_string(raw, definitions)
            self.assertEqual(found["text"], text)
            self.assertEqual(found["first"]["asText"], order["first"]["asText"])
            self.assertEqual(found["first"]["wide"], "é  ")

    def test_the_catalogue(self) -> None:
        text = (FIXTURES / "catalog-sample.chain.port").read_bytes()
        package = qj7mem00.read_port_string(text, CATALOG)
        names = []
        at: Any = package
        while at is not None:
            names.append(at["name"])
            at = at["next"]
        self.assertEqual(len(names), 26)
        self.assertEqual(names[0], "base-files")
        self.assertEqual(qj7mem00.write_port_string(package, CATALOG), text)

    def test_what_does_not_fit_is_named(self) -> None:
        for order, words in (
                ({}, "Order: field amount is required"),
                ({"amount": "5"}, "Order.amount: expected a number, found str"),
                ({"amount": 1 << 31}, "Order.amount: "),
                ({"amount": True}, "Order.amount: expected a number, found bool"),
                ({"amount": 1, "code": "too long!"}, "the text has 9 bytes, more than 7"),
                ({"amount": 1, "code": "a\0b"}, "text with a zero in it"),
                ({"amount": 1, "text": 5}, "Order.text: expected text, found int"),
                ({"amount": 1, "sum": 5}, "Order: there is no field 'sum'"),
                ({"amount": 1, "first": "Item"}, "expected a dict, found str"),
                ({"amount": 1, "first": {"key": b"123", "asText": None}},
                 "Item.key: 3 bytes instead of 2"),
                ({"amount": 1, "first": {"asNumber": 5}}, "would take them for an address"),
                ({"amount": 1, "count": 2, "parts": [1]}, "count is not for the 1 elements"),
        ):
            with self.subTest(order), self.assertRaisesRegex(qj7mem00.GraphError, words):
                qj7mem00.write_port_string(order, DEFINITIONS)
        shared: dict[str, Any] = {"amount": 1}
        shared["first"] = shared
        with self.assertRaisesRegex(qj7mem00.GraphError, "used as a Order and as a Item"):
            qj7mem00.write_port_string(shared, DEFINITIONS)
        with self.assertRaisesRegex(qj7mem00.GraphError, "no structure 'Absent'"):
            qj7mem00.write_port_string({}, DEFINITIONS, "Absent")

    def test_refused_texts_tell_why(self) -> None:
        for text, words in (("", ""), ("(0000000064", ""), ("nonsense" * 10, ""),
                            ("(0000000064,0000000002)(99<1N1>)", "Unknown StructID: 99")):
            with self.subTest(text), self.assertRaises(qj7mem00.MemError) as caught:
                qj7mem00.read_port_string(text, DEFINITIONS)
            self.assertEqual(caught.exception.service, "MEM_Port1StrToStruct")
            self.assertIn(words, caught.exception.reason)

    def test_damaged_texts_do_nothing_worse(self) -> None:
        good = (PORT_FIXTURES / "all.port").read_bytes()
        definitions = Definitions(PORT_FIXTURES / "all.defs.json")
        self.process.host.storage._limit = 1 << 26
        refused = 0
        for at in range(0, len(good), 3):
            for byte in b"09/<>,":
                damaged = good[:at] + bytes([byte]) + good[at + 1:]
                try:
                    qj7mem00.read_port_string(damaged, definitions)
                except (qj7mem00.MemError, qj7mem00.GraphError):
                    refused += 1
        self.assertGreater(refused, len(good) // 6)
        self.assertEqual(self.process.host.storage.account(0).live_bytes, 0)

    def test_a_pointer_to_another_kind_is_not_followed_beyond_its_bytes(self) -> None:
        definitions = Definitions({"structures": [
            {"id": 1, "name": "Root", "length": 8, "fields": [
                {"id": 1, "name": "big", "type": "Pnt", "offset": 0, "structure": "Big"}]},
            {"id": 2, "name": "Big", "length": 64, "fields": [
                {"id": 1, "name": "key", "type": "Bin", "offset": 0, "length": 64}]},
            {"id": 3, "name": "Small", "length": 4, "fields": [
                {"id": 1, "name": "number", "type": "Long", "offset": 0}]}]})
        text = qj7mem00.write_port_string({"big": {"key": bytes(64)}}, definitions)
        head, _, _ = text.partition(b"(2<")
        with self.assertRaisesRegex(qj7mem00.GraphError, "ends after the bytes"):
            qj7mem00.read_port_string(head + b"(3<1N5>)", definitions)


class DefinitionsTest(unittest.TestCase):
    def refuse(self, words: str, change: Any) -> None:
        document = json.loads(json.dumps(DEFINITIONS))
        change(document["structures"])
        with self.assertRaisesRegex(qj7mem00.DefinitionError, words):
            Definitions(document)

    def test_defaults_may_be_digits_as_text(self) -> None:
        for default, type, low in (("-5", "Short", 0xFFFB), (-5, "Short", 0xFFFB),
                                   ("4294967295", "BigInt", 0xFFFFFFFF)):
            with self.subTest(default=default, type=type):
                kind, = Definitions({"structures": [{"id": 1, "length": 8, "fields": [
                    {"id": 1, "type": type, "offset": 0, "default": default}]}]}).structures
                self.assertEqual(kind.fields[0].default, low)
        for default in ("", "five", "1.5", "65536", "--1"):
            with self.subTest(default=default), self.assertRaisesRegex(
                    qj7mem00.DefinitionError, r"default: expected a whole number from 0 to 65535"):
                Definitions({"structures": [{"id": 1, "length": 8, "fields": [
                    {"id": 1, "type": "UShort", "offset": 0, "default": default}]}]})

    def test_faults_are_named_with_their_place(self) -> None:
        def field(index: int, **changes: Any) -> Any:
            return lambda list: list[0]["fields"][index].update(changes)
        for words, change in (
                (r"structures\[0\].id: expected a whole number", lambda list: list[0].update(id=0)),
                (r"structures\[1\]: a second structure with the id 12",
                 lambda list: list[1].update(id=12)),
                (r"structures\[0\]: unknown key 'size'", lambda list: list[0].update(size=1)),
                (r"fields\[0\].type: unknown type", field(0, type="Integer")),
                (r"fields\[0\]: 4 bytes at 38 end after the structure's 40", field(0, offset=38)),
                (r"fields\[1\]: the ids of fields must ascend", field(1, id=1)),
                (r'fields\[1\]: "length" is missing',
                 lambda list: list[0]["fields"][1].pop("length")),
                (r"fields\[1\].default: text with a zero", field(1, default="a\0b")),
                (r"fields\[2\].structure: no such structure", field(2, structure="Absent")),
                (r"fields\[2\].default: a pointer has no default", field(2, default="1")),
                (r"countField: the field that counts must be",
                 lambda list: list[0].update(countField="code")),
                (r"name: a name must not be empty or a number",
                 lambda list: list[0].update(name="12")),
                (r"more than 64 structures within one another",
                 lambda list: list[1]["fields"].append(
                     {"id": 7, "type": "Substructure", "offset": 0, "structure": "Item"})),
        ):
            with self.subTest(words):
                self.refuse(words, change)

    def test_sources(self) -> None:
        self.assertIsNotNone(Definitions(json.dumps(DEFINITIONS)).find("Order"))
        with self.assertRaisesRegex(qj7mem00.DefinitionError, "definitions: Expecting"):
            Definitions("{nonsense")
        with self.assertRaises(FileNotFoundError):
            Definitions("absent.json")

    def test_threads_without_an_open_process_take_turns(self) -> None:
        text = (PORT_FIXTURES / "order.port").read_bytes()
        definitions = Definitions(PORT_FIXTURES / "order.defs.json")
        amounts = []

        def read() -> None:
            for _ in range(20):
                amounts.append(qj7mem00.read_port_string(text, definitions)["amount"])
        threads = [threading.Thread(target=read) for _ in range(6)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(amounts, [-305] * 120)

    def test_without_an_open_process_one_is_made(self) -> None:
        text = (PORT_FIXTURES / "order.port").read_bytes()
        graph = qj7mem00.read_port_string(text, PORT_FIXTURES / "order.defs.json")
        self.assertEqual(graph["amount"], -305)


if __name__ == "__main__":
    unittest.main()
