"""Definitions of the structures of port strings, also as the library's table.

The rules are those of ``memtool port`` (docs/memtool-port.md). The keys ``pointers``, ``segment``,
``next`` and ``reference``, which only chains have, and kinds of text are ignored here, so that one
document can describe both.
"""

from __future__ import annotations

import ctypes
import re
from typing import Any

from .contract import CONSTANTS, CONTRACT
from .document import Document, Node
from .errors import GraphError
from .records import RECORDS
from .values import (ADDRESSES, NUMBERS, WIDE, limits, node_bytes, node_text, node_wide,
                     terminated)

TYPE_NAMES: dict[int, str] = {row["code"]: row["name"] for row in CONTRACT["fieldTypes"]}
TYPE_CODES: dict[str, int] = {name: code for code, name in TYPE_NAMES.items()}
COUNTING = ("Short", "UShort", "Long", "ULong")
_MOST_FIELDS = 65536  # of a structure with those embedded in it
_INT32 = (1 << 31) - 1
_UINT32 = (1 << 32) - 1

_TOP_KEYS = ("structures", "pointers")
_STRUCT_KEYS = ("id", "name", "length", "countField", "countIsLength", "fields", "segment", "next")
_FIELD_KEYS = ("id", "name", "type", "length", "offset", "structure", "required", "noTruncate",
               "notPorted", "default", "reference")


def _width(kind: str) -> int:
    """Bytes of a type's values; 0 if the field's length decides."""
    if kind in ADDRESSES:
        return 8
    return 1 if kind == "Bit" else NUMBERS[kind][0] if kind in NUMBERS else 0


class Field:
    """One field of a structure."""

    def __init__(self) -> None:
        self.name = ""
        self.id = 0
        self.type = ""
        self.length = 0
        self.offset = 0
        self.target: Structure | None = None
        self.required = False
        self.no_truncate = False
        self.not_ported = False
        self.default: bytes | int | None = None  # as the library sees it, texts terminated
        self.shares: list[Field] = []  # fields with some of its bytes

    @property
    def stored(self) -> int:
        """Bytes that are read and written."""
        return _width(self.type) or self.length

    @property
    def is_address(self) -> bool:
        return self.type in ADDRESSES

    def overlaps(self, other: Field) -> bool:
        return (self.offset < other.offset + other.stored
                and other.offset < self.offset + self.stored)


class Structure:
    """One kind of structure."""

    def __init__(self, name: str, number: int, length: int) -> None:
        self.name = name
        self.id = number
        self.length = length
        self.fields: list[Field] = []
        self.by_name: dict[str, Field] = {}
        self.count: Field | None = None
        self.count_is_length = False
        self.size: tuple[int, int] | None = None  # nesting, fields

    @property
    def repeated(self) -> Field | None:
        """The field whose elements are counted."""
        return self.fields[-1] if self.count is not None else None

    def length_with(self, elements: int) -> int:
        repeated = self.repeated
        return self.length if repeated is None else self.length + (elements - 1) * repeated.length

    def elements_of(self, count: int) -> int:
        """Elements by the value of the count field."""
        if self.repeated is None:
            return 1
        if count >= 0 and self.count_is_length:
            spare = count - self.length
            whole = abs(spare) // self.repeated.length
            count = (whole if spare >= 0 else -whole) + 1
        return max(count, 0)

    def count_of(self, elements: int) -> int:
        return self.length_with(elements) if self.count_is_length else elements


class PortDefinitions:
    """The structures of port strings."""

    def __init__(self, document: Document) -> None:
        self.structures: list[Structure] = []
        self.by_id: dict[int, Structure] = {}
        self.by_name: dict[str, Structure] = {}
        top = document.top
        top.keys(_TOP_KEYS)
        nodes = [node for node in top.at("structures").elements() if not _is_text_segment(node)]
        if not nodes:
            top.fail("no structure is defined")
        for node in nodes:
            self._add_structure(node)
        for structure, node in zip(self.structures, nodes):
            self._add_fields(structure, node)
        for structure, node in zip(self.structures, nodes):
            self._measure(structure, node, 0)
        self._build_table()

    def find(self, name: str | int) -> Structure | None:
        """A structure by name or id."""
        return find_by_name_or_id(str(name), self.by_name, self.by_id)

    # Reading

    def _add_structure(self, node: Node) -> None:
        node.keys(_STRUCT_KEYS)
        number = node.at("id").integer(1, _INT32)
        named = node.find("name")
        name = str(number) if named is None else named.name()
        made = Structure(name, number, node.at("length").integer(0, _INT32))
        if number in self.by_id:
            node.fail(f"a second structure with the id {number}")
        if name in self.by_name:
            node.fail(f"a second structure {name}")
        self.structures.append(made)
        self.by_id[number] = self.by_name[name] = made

    def _add_fields(self, structure: Structure, node: Node) -> None:
        listed = node.at("fields")
        nodes = listed.elements()
        if len(nodes) > CONSTANTS["MEM_PORT_MAX_FIELDS"]:
            listed.fail(f"more than {CONSTANTS['MEM_PORT_MAX_FIELDS']} fields")
        for each in nodes:
            self._add_field(structure, each)
        self._set_count(structure, node)
        for field in structure.fields:
            field.shares = [other for other in structure.fields
                            if other is not field and other.overlaps(field)]

    def _add_field(self, structure: Structure, node: Node) -> None:
        node.keys(_FIELD_KEYS)
        field = Field()
        field.type = _type_of(node.at("type"))
        field.id = node.at("id").integer(1, _UINT32)
        named = node.find("name")
        field.name = str(field.id) if named is None else named.name()
        self._read_target(field, node)
        self._read_length(field, node)
        field.offset = node.at("offset").integer(0, _INT32)
        field.required = node.flag("required")
        field.no_truncate = node.flag("noTruncate")
        field.not_ported = node.flag("notPorted")
        stored = max(field.stored, field.length)
        if field.offset > structure.length - stored:
            node.fail(f"{stored} bytes at {field.offset} end after the structure's "
                      f"{structure.length}")
        self._read_default(field, node)
        if structure.fields and structure.fields[-1].id >= field.id:
            node.fail("the ids of fields must ascend")
        if field.name in structure.by_name:
            node.fail(f"a second field {field.name}")
        structure.fields.append(field)
        structure.by_name[field.name] = structure.by_name[str(field.id)] = field

    def _read_target(self, field: Field, node: Node) -> None:
        if field.type not in ("Pnt", "Substructure"):
            if node.find("structure") is not None:
                node.fail("only Pnt and Substructure name a structure")
            return
        named = node.at("structure")
        field.target = self.find(named.name_or_id())
        if field.target is None:
            named.fail("no such structure")

    @staticmethod
    def _read_length(field: Field, node: Node) -> None:
        width = _width(field.type)
        given = node.find("length")
        if given is None and width:
            field.length = width
        elif given is None and field.type == "Substructure" and field.target is not None:
            field.length = field.target.length
        else:
            least = max(width, 2 if field.type in WIDE else 1)
            field.length = node.at("length").integer(least, 1 if field.type == "Bit" else _INT32)

    @staticmethod
    def _read_default(field: Field, node: Node) -> None:
        given = node.find("default")
        if given is None or given.value is None:
            return
        if field.type in ("Short", "UShort", "Long"):
            field.default = given.number(*limits(field.type)) & (
                _UINT32 if field.type == "Long" else 0xFFFF)
        elif field.type in NUMBERS:  # readers set the lower half of a 64-bit number only
            field.default = given.number(0, _UINT32)
        elif field.type == "Pnt":
            given.fail("a pointer has no default but null")
        elif field.type in ("CharSZ", "PStr", "WCharSZ", "WPStr"):
            raw = node_wide(given) if field.type.startswith("W") else node_text(given)
            try:
                field.default = terminated(field.type, raw)
            except GraphError as error:
                given.fail(str(error))
        else:
            field.default = node_bytes(field.type, field.length, given)

    @staticmethod
    def _set_count(structure: Structure, node: Node) -> None:
        structure.count_is_length = node.flag("countIsLength")
        named = node.find("countField")
        if named is None or named.value is None:
            if structure.count_is_length:
                node.fail("countIsLength needs countField")
            return
        field = structure.by_name.get(named.name_or_id())
        if field is None:
            named.fail("no such field")
        if field.type not in COUNTING:
            named.fail("the field that counts must be a Short, UShort, Long or ULong")
        if field is structure.fields[-1]:
            named.fail("the last field is the one that is counted")
        if structure.fields[-1].length == 0:
            named.fail("the last field has no bytes")
        structure.count = field

    def _measure(self, structure: Structure, node: Node, level: int) -> tuple[int, int]:
        """Refuses structures that embed themselves."""
        most = CONSTANTS["MEM_PORT_MAX_NESTING"]
        if level > most or (structure.size is not None and level + structure.size[0] > most):
            node.fail(f"more than {most} structures within one another")
        if structure.size is not None:
            return structure.size
        height, fields = 0, 0
        for field in structure.fields:
            fields += 1
            if field.type == "Substructure" and field.target is not None:
                inner = self._measure(field.target, node, level + 1)
                height, fields = max(height, inner[0] + 1), fields + inner[1]
        if fields > _MOST_FIELDS:
            node.fail(f"more than {_MOST_FIELDS} fields with those of embedded structures")
        structure.size = height, fields
        return structure.size

    # For the library

    def _build_table(self) -> None:
        self._keep: list[Any] = []
        #: address and bytes of texts that fields share with their defaults
        self.default_texts: dict[int, bytes] = {}
        self.table = (RECORDS["MEMStructDef"] * (len(self.structures) + 1))()
        for row, structure in zip(self.table, self.structures):
            fields = (RECORDS["MEMFieldDef"] * max(len(structure.fields), 1))()
            self._keep.append(fields)
            for record, field in zip(fields, structure.fields):
                self._fill(record, field)
            row.StructID = structure.id
            row.Length = structure.length
            row.CountField = (structure.fields.index(structure.count)
                              if structure.count is not None else CONSTANTS["MEM_PORT_NO_COUNT"])
            row.FieldCount = len(structure.fields)
            row.Fields = ctypes.addressof(fields)
            row.CountIsLength = int(structure.count_is_length)

    def _fill(self, record: Any, field: Field) -> None:
        record.FieldID = field.id
        record.Type = TYPE_CODES[field.type]
        record.Required = int(field.required)
        record.Length = field.length
        record.SubStructID = field.target.id if field.target is not None else 0
        record.Offset = field.offset
        record.NoTruncate = int(field.no_truncate)
        record.NotPorted = int(field.not_ported)
        if isinstance(field.default, int):
            record.Default.Long = field.default
        elif field.default is not None:
            kept = ctypes.create_string_buffer(field.default, len(field.default) or 1)
            self._keep.append(kept)
            record.Default.pBytes = ctypes.addressof(kept)
            if field.is_address:
                self.default_texts[ctypes.addressof(kept)] = field.default


def _is_text_segment(node: Node) -> bool:
    """A kind of text of a chain, which has no fields."""
    value = node.value
    return (isinstance(value, dict) and value.get("segment") in ("S", "W", ord("S"), ord("W"))
            and "fields" not in value)


def _type_of(node: Node) -> str:
    if not node.is_text:
        return TYPE_NAMES[node.integer(min(TYPE_NAMES), max(TYPE_NAMES))]
    if node.value not in TYPE_CODES:
        node.fail("unknown type; the types are " + ", ".join(TYPE_CODES))
    return str(node.value)


def find_by_name_or_id(name: str, by_name: dict[str, Any], by_id: dict[int, Any]) -> Any:
    found = by_name.get(name)
    if found is None and re.fullmatch("[0-9]{1,30}", name):
        found = by_id.get(int(name))
    return found
