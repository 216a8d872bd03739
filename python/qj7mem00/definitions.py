"""Definitions of structures, as JSON: what port strings and chains are made of.

The language is that of ``memtool port`` (docs/memtool-port.md), with three more keys for chains:
``segment`` and ``next`` of a structure and ``reference`` of a field (docs/python.md).
"""

from __future__ import annotations

import ctypes
import json
import os
import re
from typing import Any, Iterable

from .contract import CONSTANTS, CONTRACT
from .errors import DefinitionError, GraphError
from .records import RECORDS

TYPE_NAMES: dict[int, str] = {row["code"]: row["name"] for row in CONTRACT["fieldTypes"]}
TYPE_CODES: dict[str, int] = {name: code for code, name in TYPE_NAMES.items()}

#: bytes that a type has whatever its length is, and its struct code
NUMBERS: dict[str, tuple[int, str]] = {
    "Short": (2, "h"), "UShort": (2, "H"), "Long": (4, "i"), "ULong": (4, "I"),
    "UBigInt": (8, "Q"), "BigInt": (8, "q"), "Bit": (1, "B"),
}
ADDRESSES = ("Pnt", "PStr", "WPStr")
TEXT_SEGMENTS = ("S", "W")
COUNTING = ("Short", "UShort", "Long", "ULong")
_WIDE_ARRAYS = ("WChar", "WCharSZ")
_MOST_FIELDS = 65536  # of a structure with those embedded in it
_INT32 = (1 << 31) - 1
_UINT32 = (1 << 32) - 1

_STRUCT_KEYS = {"id", "name", "length", "countField", "countIsLength", "fields", "segment", "next"}
_FIELD_KEYS = {"id", "name", "type", "length", "offset", "structure", "required", "noTruncate",
               "notPorted", "default", "reference"}


class Field:
    """One field of a structure."""

    def __init__(self) -> None:
        self.name = ""
        self.id = 0
        self.type = ""
        self.length = 0
        self.offset = 0
        self.target: "Structure | None" = None
        self.required = False
        self.no_truncate = False
        self.not_ported = False
        self.reference = False
        self.takes_rest = False  # of a segment that tells its own length
        self.default: bytes | int | None = None  # as the library sees it, texts terminated
        self.shares: list["Field"] = []  # fields with some of its bytes

    @property
    def stored(self) -> int:
        """Bytes that are read and written."""
        if self.type in ADDRESSES:
            return 8
        return NUMBERS[self.type][0] if self.type in NUMBERS else self.length

    @property
    def is_address(self) -> bool:
        return self.type in ADDRESSES

    def overlaps(self, other: "Field") -> bool:
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
        self.segment = "F"
        self.next: Field | None = None
        self.size: tuple[int, int] | None = None  # nesting, fields

    @property
    def is_text(self) -> bool:
        """It only keeps the place of a kind of text among a chain's kinds of segments."""
        return self.segment in TEXT_SEGMENTS

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


class _Node:
    """A value within the document, with its place for messages."""

    def __init__(self, value: Any, place: str) -> None:
        self.value = value
        self.place = place

    def fail(self, what: str) -> DefinitionError:
        return DefinitionError(f"{self.place}: {what}")

    def keys(self, known: Iterable[str]) -> None:
        if not isinstance(self.value, dict):
            raise self.fail("expected an object")
        for key in self.value:
            if key not in known:
                raise self.fail(f"unknown key {key!r}")

    def find(self, key: str) -> "_Node | None":
        if key not in self.value:
            return None
        return _Node(self.value[key], f"{self.place}.{key}")

    def at(self, key: str) -> "_Node":
        found = self.find(key)
        if found is None:
            raise self.fail(f"{key} is missing")
        return found

    def elements(self) -> list["_Node"]:
        if not isinstance(self.value, list):
            raise self.fail("expected an array")
        return [_Node(value, f"{self.place}[{index}]") for index, value in enumerate(self.value)]

    def integer(self, least: int, most: int) -> int:
        if not isinstance(self.value, int) or isinstance(self.value, bool) or not (
                least <= self.value <= most):
            raise self.fail(f"expected a number, {least} to {most}")
        return self.value

    def number(self, least: int, most: int) -> int:
        """A number, or its digits as text."""
        if isinstance(self.value, str) and re.fullmatch("-?[0-9]+", self.value):
            return _Node(int(self.value), self.place).integer(least, most)
        return self.integer(least, most)

    def text(self) -> str:
        if not isinstance(self.value, str):
            raise self.fail("expected text")
        return self.value

    def flag(self, key: str) -> bool:
        found = self.find(key)
        if found is None:
            return False
        if not isinstance(found.value, bool):
            raise found.fail("expected true or false")
        return found.value

    def name_or_id(self) -> str:
        return self.value if isinstance(self.value, str) else str(self.integer(1, _UINT32))


def narrow_bytes(value: Any) -> bytes:
    """Narrow text of a graph: str (UTF-8, other bytes as surrogate escapes), bytes, or the form
    ``{"hex": "E9"}`` of memtool."""
    if isinstance(value, str):
        return value.encode("utf-8", "surrogateescape")
    if isinstance(value, (bytes, bytearray)):
        return bytes(value)
    if isinstance(value, dict) and set(value) == {"hex"}:
        return bytes.fromhex(value["hex"])
    raise GraphError(f"expected text, found {type(value).__name__}")


def wide_bytes(value: Any) -> bytes:
    """Wide text of a graph: str, or the form ``{"units": [55348]}`` of memtool."""
    if isinstance(value, str):
        return value.encode("utf-16-le", "surrogatepass")
    if isinstance(value, dict) and set(value) == {"units"}:
        return b"".join(unit.to_bytes(2, "little") for unit in value["units"])
    raise GraphError(f"expected text, found {type(value).__name__}")


def plain_bytes(value: Any) -> bytes:
    """Raw bytes: bytes, or text of hexadecimal digits."""
    if isinstance(value, (bytes, bytearray, memoryview)):
        return bytes(value)
    if isinstance(value, str):
        return bytes.fromhex(value)
    raise GraphError(f"expected bytes, found {type(value).__name__}")


def array_bytes(field: Field, value: Any) -> bytes:
    """All bytes of a field of type Char, CharSZ, Bin, WChar or WCharSZ."""
    wide = field.type in _WIDE_ARRAYS
    if field.type == "Bin" or field.type == "Substructure":
        raw = plain_bytes(value)
        if len(raw) != field.length:
            raise GraphError(f"{len(raw)} bytes instead of {field.length}")
        return raw
    raw = wide_bytes(value) if wide else narrow_bytes(value)
    if field.type.endswith("SZ"):
        zero = b"\0\0" if wide else b"\0"
        if any(raw[at:at + len(zero)] == zero for at in range(0, len(raw), len(zero))):
            raise GraphError("text with a zero in it")
        room, filler = field.length - len(zero), b"\0"
    else:
        room, filler = field.length, b" \0" if wide else b" "
    if len(raw) > room:
        raise GraphError(f"the text has {len(raw)} bytes, more than {room}")
    return (raw + filler * field.length)[:field.length - (field.length % 2 if wide else 0)].ljust(
        field.length, b"\0")


class Definitions:
    """The definitions of a set of structures.

    :param source: the document as a path, as JSON text (it begins with a brace) or as a dict
    """

    def __init__(self, source: str | os.PathLike[str] | dict[str, Any]) -> None:
        document, name = self._document(source)
        self.structures: list[Structure] = []
        self.by_id: dict[int, Structure] = {}
        self.by_name: dict[str, Structure] = {}
        top = _Node(document, name)
        top.keys({"structures"})
        nodes = top.at("structures").elements()
        if not nodes:
            raise top.fail("no structure is defined")
        for node in nodes:
            self._add_structure(node)
        for structure, node in zip(self.structures, nodes):
            self._add_fields(structure, node)
        for structure, node in zip(self.structures, nodes):
            self._measure(structure, node, 0)
        self._build_table()

    @staticmethod
    def _document(source: Any) -> tuple[Any, str]:
        if isinstance(source, dict):
            return source, "definitions"
        is_text = isinstance(source, str) and source.lstrip().startswith("{")
        name = "definitions" if is_text else os.fspath(source)
        if not is_text:
            with open(source, encoding="utf-8") as file:
                source = file.read()
        try:
            return json.loads(source), name
        except ValueError as error:
            raise DefinitionError(f"{name}: {error}") from None

    @classmethod
    def of(cls, source: Any) -> "Definitions":
        """Definitions as they are, or made from a source."""
        return source if isinstance(source, cls) else cls(source)

    def find(self, name: str | int) -> Structure | None:
        """A structure by name or id."""
        found = self.by_name.get(str(name))
        if found is None and str(name).isdecimal():
            found = self.by_id.get(int(name))
        return found

    def need(self, name: str | int) -> Structure:
        found = self.find(name)
        if found is None:
            raise GraphError(f"there is no structure {name!r} in the definitions")
        return found

    # Reading

    @staticmethod
    def _name(node: _Node, number: int) -> str:
        named = node.find("name")
        if named is None:
            return str(number)
        name = named.text()
        if re.fullmatch(r"[0-9]*", name):
            raise named.fail("a name must not be empty or a number")
        if not name.isprintable() or re.search(r'["\\]', name):
            raise named.fail("a name must not have control characters, quotes or backslashes")
        return name

    def _add_structure(self, node: _Node) -> None:
        node.keys(_STRUCT_KEYS)
        number = node.at("id").integer(1, _INT32)
        segment = node.find("segment")
        letter = "F" if segment is None else segment.text()
        if len(letter) != 1 or not letter.isascii():
            raise node.fail("a segment's type is one letter")
        is_text = letter in TEXT_SEGMENTS
        length = 0 if is_text else node.at("length").integer(0, _INT32)
        made = Structure(self._name(node, number), number, length)
        made.segment = letter
        if number in self.by_id:
            raise node.fail(f"a second structure with the id {number}")
        if made.name in self.by_name:
            raise node.fail(f"a second structure {made.name}")
        self.structures.append(made)
        self.by_id[number] = self.by_name[made.name] = made

    def _add_fields(self, structure: Structure, node: _Node) -> None:
        nodes = [] if structure.is_text else node.at("fields").elements()
        if len(nodes) > CONSTANTS["MEM_PORT_MAX_FIELDS"]:
            raise node.fail(f"more than {CONSTANTS['MEM_PORT_MAX_FIELDS']} fields")
        for index, each in enumerate(nodes):
            self._add_field(structure, each, index == len(nodes) - 1)
        self._set_count(structure, node)
        for field in structure.fields:
            field.shares = [other for other in structure.fields
                            if other is not field and other.overlaps(field)]
        following = node.find("next")
        if following is not None:
            link = structure.by_name.get(following.name_or_id())
            if link is None or link.type != "Pnt" or link.target is not structure:
                raise following.fail("expected a Pnt of this structure to the same structure")
            if link.reference:
                raise following.fail("the next segment is no reference")
            structure.next = link

    def _add_field(self, structure: Structure, node: _Node, is_last: bool) -> None:
        node.keys(_FIELD_KEYS)
        field = Field()
        kind = node.at("type")
        field.type = TYPE_NAMES.get(kind.value, "") if isinstance(kind.value, int) else kind.text()
        if field.type not in TYPE_CODES:
            raise kind.fail("unknown type; there are " + ", ".join(TYPE_CODES))
        field.id = node.at("id").integer(1, _UINT32)
        field.name = self._name(node, field.id)
        self._read_target(field, node)
        self._read_length(structure, field, node, is_last)
        field.offset = node.at("offset").integer(0, _INT32)
        field.required = node.flag("required")
        field.no_truncate = node.flag("noTruncate")
        field.not_ported = node.flag("notPorted")
        field.reference = node.flag("reference")
        if field.reference and field.type != "Pnt":
            raise node.fail("only a Pnt is a reference")
        stored = max(field.stored, field.length)
        if field.offset > structure.length - stored:
            raise node.fail(f"{stored} bytes at {field.offset} lie beyond the structure's "
                            f"{structure.length}")
        self._read_default(field, node)
        if structure.fields and structure.fields[-1].id >= field.id:
            raise node.fail("the ids of fields must ascend")
        if field.name in structure.by_name or str(field.id) in structure.by_name:
            raise node.fail(f"a second field {field.name}")
        structure.fields.append(field)
        structure.by_name[field.name] = structure.by_name[str(field.id)] = field

    def _read_target(self, field: Field, node: _Node) -> None:
        named = node.find("structure")
        if field.type not in ("Pnt", "Substructure"):
            if named is not None:
                raise node.fail("only Pnt and Substructure name a structure")
            return
        if named is None:
            if node.flag("reference"):  # to segments of any kind
                return
            raise node.fail("structure is missing")
        field.target = self.find(named.name_or_id())
        if field.target is None:
            raise named.fail("no such structure")

    def _read_length(self, structure: Structure, field: Field, node: _Node,
                     is_last: bool) -> None:
        told = node.find("length")
        width = 8 if field.is_address else NUMBERS.get(field.type, (0, ""))[0]
        if told is None and width:
            field.length = width
        elif told is None and field.type == "Substructure" and field.target is not None:
            field.length = field.target.length
        elif told is None and is_last and field.type == "Bin" and structure.segment != "F":
            field.takes_rest = True
        else:
            wide = 2 if field.type in _WIDE_ARRAYS else 1
            most = 1 if field.type == "Bit" else _INT32
            field.length = node.at("length").integer(max(width, wide), most)

    def _read_default(self, field: Field, node: _Node) -> None:
        given = node.find("default")
        if given is None or given.value is None:
            return
        if field.type in ("Short", "UShort"):
            least, most = (-1 << 15, (1 << 15) - 1) if field.type == "Short" else (0, 0xFFFF)
            field.default = given.number(least, most) & 0xFFFF
        elif field.type in NUMBERS and field.type != "Bit":
            least, most = (-1 << 31, _INT32) if field.type == "Long" else (0, _UINT32)
            field.default = given.number(least, most) & _UINT32
        elif field.type == "Pnt":
            raise given.fail("a pointer has no default but null")
        else:
            try:
                field.default = self._default_bytes(field, given)
            except (GraphError, ValueError, OverflowError) as error:
                raise given.fail(str(error)) from None

    @staticmethod
    def _default_bytes(field: Field, given: _Node) -> bytes:
        if field.type == "Bit":
            return bytes([given.number(0, 255)])
        if field.type in ("CharSZ", "PStr"):
            raw = narrow_bytes(given.value)
            if 0 in raw:
                raise GraphError("text with a zero in it")
            return raw + b"\0"
        if field.type in ("WCharSZ", "WPStr"):
            raw = wide_bytes(given.value)
            if any(raw[at:at + 2] == b"\0\0" for at in range(0, len(raw), 2)):
                raise GraphError("text with a zero in it")
            return raw + b"\0\0"
        return array_bytes(field, given.value)

    def _set_count(self, structure: Structure, node: _Node) -> None:
        structure.count_is_length = node.flag("countIsLength")
        named = node.find("countField")
        if named is None or named.value is None:
            if structure.count_is_length:
                raise node.fail("countIsLength goes with countField")
            return
        field = structure.by_name.get(named.name_or_id())
        if field is None:
            raise named.fail("no such field")
        if field.type not in COUNTING:
            raise named.fail("the field that counts must be a Short, UShort, Long or ULong")
        if field is structure.fields[-1]:
            raise named.fail("the last field is the one that is counted")
        if structure.fields[-1].length == 0:
            raise named.fail("the last field has no bytes")
        structure.count = field

    def _measure(self, structure: Structure, node: _Node, level: int) -> tuple[int, int]:
        """Refuses structures that hold themselves."""
        most = CONSTANTS["MEM_PORT_MAX_NESTING"]
        if level > most or (structure.size is not None and level + structure.size[0] > most):
            raise node.fail(f"more than {most} structures within one another")
        if structure.size is not None:
            return structure.size
        height, fields = 0, 0
        for field in structure.fields:
            fields += 1
            if field.type == "Substructure" and field.target is not None:
                inner = self._measure(field.target, node, level + 1)
                height, fields = max(height, inner[0] + 1), fields + inner[1]
        if fields > _MOST_FIELDS:
            raise node.fail(f"more than {_MOST_FIELDS} fields with those of embedded structures")
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


