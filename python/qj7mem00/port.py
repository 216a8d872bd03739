"""Port strings as dicts, and back, through the library's reader and writer."""

from __future__ import annotations

import ctypes
import struct
from typing import Any

from .definitions import Definitions
from .errors import GraphError
from .port_definitions import Field, PortDefinitions, Structure
from .process import Process, current_process
from .records import RECORDS
from .values import ADDRESSES, NUMBERS, array_bytes, narrow_bytes, terminated, wide_bytes

_HEADER_LENGTH = 23
_HEAP_KB = 256
_MOST_VALUES = 10_000_000
_POINTER = struct.Struct("<Q")
_NUMBER = {"Bit": struct.Struct("B"),
           **{name: struct.Struct("<" + code) for name, (_, code) in NUMBERS.items()}}


class Record(dict[str, Any]):
    """The fields of one structure by name. ``kind`` is the structure's name."""

    __slots__ = ("kind",)

    def __init__(self, kind: str, /, **fields: Any) -> None:
        super().__init__(fields)
        self.kind = kind


# Reading

class _Reader:
    """Walks the structures that the library's reader has made. It follows only addresses of
    entries, and reads no byte outside of them."""

    def __init__(self, entries: dict[int, int], definitions: PortDefinitions) -> None:
        self._entries = entries
        self._texts = definitions.default_texts
        self._made: dict[int, Record] = {}
        self._waiting: list[tuple[int, Structure, Record]] = []
        self._values = 0

    def read(self, root: int, structure: Structure) -> Record:
        made = self._record(root, structure)
        while self._waiting:
            address, kind, record = self._waiting.pop()
            raw = ctypes.string_at(address, self._entries[address])
            self._fill(record, kind, raw, 0)
        return made

    def _record(self, address: int, structure: Structure) -> Record:
        made = self._made.get(address)
        if made is None:
            made = self._made[address] = Record(structure.name)
            self._waiting.append((address, structure, made))
        return made

    def _fill(self, record: Record, kind: Structure, raw: bytes, base: int) -> None:
        elements = self._elements(kind, raw, base)
        for field in kind.fields:
            times = elements if field is kind.repeated else 1
            if field.shares and times and self._is_spoken_for(field, raw, base):
                continue
            self._values += times
            if self._values > _MOST_VALUES:
                raise GraphError(f"more than {_MOST_VALUES} values")
            values = []
            for index in range(times):
                at = base + field.offset + index * field.length
                if at + field.stored > len(raw):
                    raise GraphError(f"{kind.name}: field {field.name} ends after the bytes that "
                                     "the text has for it")
                values.append(self._value(kind, field, raw, at))
            record[field.name] = values if field is kind.repeated else values[0]

    @staticmethod
    def _elements(kind: Structure, raw: bytes, base: int) -> int:
        if kind.count is None:
            return 1
        at = base + kind.count.offset
        if at + kind.count.stored > len(raw):
            raise GraphError(f"{kind.name}: field {kind.count.name} ends after the bytes that the "
                             "text has for it")
        return kind.elements_of(_NUMBER[kind.count.type].unpack_from(raw, at)[0])

    def _address_at(self, field: Field, raw: bytes, base: int) -> int | None:
        """None if the field ends after the bytes."""
        at = base + field.offset
        return None if at + 8 > len(raw) else _POINTER.unpack_from(raw, at)[0]

    def _is_spoken_for(self, field: Field, raw: bytes, base: int) -> bool:
        """Whether the bytes of a field that shares them are another one's: a pointer's if they are
        the address of something that was read, else a field's that is no pointer."""
        if field.is_address:
            address = self._address_at(field, raw, base)
            return bool(address) and not self._is_known(address)
        return any(other.is_address and (address := self._address_at(other, raw, base))
                   and self._is_known(address) for other in field.shares)

    def _is_known(self, address: int | None) -> bool:
        return address in self._entries or address in self._texts

    def _value(self, kind: Structure, field: Field, raw: bytes, at: int) -> Any:
        name = field.type
        if name in _NUMBER:
            return _NUMBER[name].unpack_from(raw, at)[0]
        if name in ADDRESSES:
            return self._pointer(kind, field, _POINTER.unpack_from(raw, at)[0])
        if name == "Substructure" and field.target is not None:
            made = Record(field.target.name)
            self._fill(made, field.target, raw, at)
            return made
        part = raw[at:at + field.length]
        if name == "Bin":
            return part
        if name == "Char":
            return part.decode("utf-8", "surrogateescape")
        if name == "CharSZ":
            return part.partition(b"\0")[0].decode("utf-8", "surrogateescape")
        text = part[:len(part) // 2 * 2].decode("utf-16-le", "surrogatepass")
        return text.partition("\0")[0] if name == "WCharSZ" else text

    def _pointer(self, kind: Structure, field: Field, address: int) -> Any:
        if address == 0:
            return None
        if field.type == "Pnt" and field.target is not None and address in self._entries:
            return self._record(address, field.target)
        if field.type == "Pnt" or not self._is_known(address):
            raise GraphError(f"{kind.name}: field {field.name} points to nothing that was "
                             "read")
        raw = self._texts.get(address)
        if raw is None:
            raw = ctypes.string_at(address, self._entries[address])
        if field.type == "PStr":
            text, end, _ = raw.partition(b"\0")
            if not end:
                raise GraphError(f"{kind.name}: the string of field {field.name} has no end")
            return text.decode("utf-8", "surrogateescape")
        wide, end_unit, _ = raw[:len(raw) // 2 * 2].decode("utf-16-le",
                                                          "surrogatepass").partition("\0")
        if not end_unit:
            raise GraphError(f"{kind.name}: the string of field {field.name} has no end")
        return wide


def _root_id(raw: bytes) -> int:
    """The identifier of the first structure: digits from right to left after the parenthesis."""
    number, weight = 0, 1
    for digit in raw[_HEADER_LENGTH + 1:_HEADER_LENGTH + 11]:
        if not 0x30 <= digit <= 0x39:
            break
        number += (digit - 0x30) * weight
        weight *= 10
    return number


def read_port_string(text: str | bytes, definitions: Any, *,
                     process: Process | None = None) -> Record:
    """The structures of a port string as dicts, from the top-level one on.

    Pointers become references to dicts: shared ones are the same object, cycles are cycles. Numbers
    are int; texts are str, with bytes that are not UTF-8 as surrogate escapes; Bin is bytes, Bit an
    int of 8 bits; an embedded structure is a dict, a repeat field a list, a null pointer None. Of
    fields that share bytes, the dict has those that the bytes can be.

    The text need not be trusted. :class:`MemError` if the library refuses it (``reason`` says why),
    :class:`GraphError` if the structures do not match the definitions.

    :param definitions: :class:`Definitions`, or what they are made from
    :param process: an open :class:`Process`; without it the open one, or one for this call
    """
    table = Definitions.of(definitions, "port").port
    raw = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else bytes(text)
    with current_process(process) as used, used.heap(_HEAP_KB) as heap:
        cell = ctypes.c_void_p()
        with used.watch_entries(heap) as watch:
            used.slots.MEM_Port1StrToStruct.call(table.table, raw, len(raw), heap, cell)
        structure = table.by_id.get(_root_id(raw))
        if structure is None or cell.value is None:
            raise GraphError("the text has no structure")
        return _Reader(watch.entries, table).read(cell.value, structure)


# Writing

class _Writer:
    """Puts structures and texts in storage, as the library's writer reads them."""

    def __init__(self, definitions: PortDefinitions) -> None:
        self._definitions = definitions
        self.arena = bytearray()
        self._places: dict[int, int] = {}  # offset of a dict's structure by the dict's id
        self._kinds: dict[int, Structure] = {}
        self._waiting: list[tuple[Any, Structure]] = []
        self._links: list[tuple[int, int | None, int]] = []  # place, id of a dict or None, offset
        self._keep: Any = None

    def lay_out(self, root: Any, structure: Structure) -> int:
        """Address of the top-level structure; the arena exists as long as this object."""
        self._node(root, structure)
        while self._waiting:
            node, kind = self._waiting.pop()
            self._place(node, kind)
        self._keep = ctypes.c_char.from_buffer(self.arena)
        base = ctypes.addressof(self._keep)
        for place, node_id, offset in self._links:
            target = offset if node_id is None else self._places[node_id]
            _POINTER.pack_into(self.arena, place, base + target)
        return base + self._places[id(root)]

    def _node(self, node: Any, kind: Structure) -> int:
        if not isinstance(node, dict):
            raise GraphError(f"{kind.name}: expected a dict, found {type(node).__name__}")
        known = self._kinds.get(id(node))
        if known is None:
            self._kinds[id(node)] = kind
            self._waiting.append((node, kind))
        elif known is not kind:
            raise GraphError(f"one dict is used as a {known.name} and as a {kind.name}")
        return id(node)

    def _append(self, raw: bytes) -> int:
        self.arena += bytes(-len(self.arena) % 8)
        at = len(self.arena)
        self.arena += raw
        return at

    def _place(self, node: dict[str, Any], kind: Structure) -> None:
        elements = self._elements(node, kind)
        at = self._append(bytes(max(kind.length_with(elements), 0)))
        self._places[id(node)] = at
        try:
            self._fill(node, kind, at, elements)
        except (struct.error, ValueError, OverflowError) as error:
            raise GraphError(str(error) if isinstance(error, GraphError)
                             else f"{kind.name}: {error}") from None

    @staticmethod
    def _elements(node: dict[str, Any], kind: Structure) -> int:
        """From the list of elements, or from the field that counts them."""
        if kind.count is None or kind.repeated is None:
            return 1
        listed = node.get(kind.repeated.name)
        counted = node.get(kind.count.name)
        if listed is None:
            return kind.elements_of(counted or 0) if counted is not None else 0
        if not isinstance(listed, (list, tuple)):
            raise GraphError(f"{kind.name}: field {kind.repeated.name} is a list")
        if counted is not None and kind.elements_of(counted) != len(listed):
            raise GraphError(f"{kind.name}: {kind.count.name} is not for the {len(listed)} "
                             f"elements of {kind.repeated.name}")
        return len(listed)

    def _fill(self, node: dict[str, Any], kind: Structure, at: int, elements: int) -> None:
        for name in node:
            if name not in kind.by_name:
                raise GraphError(f"{kind.name}: there is no field {name!r}")
        given = {id(kind.by_name[name]) for name in node}
        if kind.count is not None:
            given.add(id(kind.count))
        pointers: dict[int, tuple[str, Structure | None]] = {}
        self._fill_defaults(kind, at, elements, given, pointers)
        if kind.count is not None and kind.count.name not in node:
            self._number(kind.count, kind.count_of(elements), at)
        for name, value in node.items():
            field = kind.by_name[name]
            values = value if field is kind.repeated else [value]
            for index, each in enumerate(values or []):
                try:
                    self._value(field, each, at + index * field.length, pointers)
                except (GraphError, struct.error, ValueError, OverflowError) as error:
                    raise GraphError(f"{kind.name}.{field.name}: {error}") from None
        self._check_unions(kind, at, pointers)

    def _fill_defaults(self, kind: Structure, at: int, elements: int, given: set[int],
                       pointers: dict[int, tuple[str, Structure | None]]) -> None:
        for field in kind.fields:
            if id(field) in given or any(id(other) in given for other in field.shares):
                continue
            if field is kind.repeated and elements == 0:
                continue
            if field.required and not field.not_ported:
                raise GraphError(f"{kind.name}: field {field.name} is required")
            if isinstance(field.default, int):
                size = min(field.stored, 4)
                place = at + field.offset
                self.arena[place:place + size] = field.default.to_bytes(4, "little")[:size]
            elif field.default is not None and not (field.type == "Substructure"
                                                    and not any(field.default)):
                self._default(field, field.default, at, pointers)
            else:
                self._embed_nothing(field, at + field.offset)

    def _embed_nothing(self, field: Field, at: int) -> None:
        """An embedded structure of zeros needs the count of the elements that fill its field."""
        kind = field.target
        if field.type != "Substructure" or kind is None:
            return
        if kind.count is not None:
            self._number(kind.count, kind.count_of(_room(field)), at)
        for inner in kind.fields:
            times = _room(field) if inner is kind.repeated else 1
            for index in range(times if inner.type == "Substructure" else 0):
                self._embed_nothing(inner, at + inner.offset + index * inner.length)

    def _default(self, field: Field, raw: bytes, at: int,
                 pointers: dict[int, tuple[str, Structure | None]]) -> None:
        place = at + field.offset
        if field.is_address:
            self._text(field, raw, place, pointers)
        else:
            raw = raw[:field.length]
            self.arena[place:place + len(raw)] = raw

    def _number(self, field: Field, value: Any, at: int) -> None:
        if isinstance(value, bool) or not isinstance(value, int):
            raise GraphError(f"expected a number, found {type(value).__name__}")
        _NUMBER[field.type].pack_into(self.arena, at + field.offset, value)

    def _value(self, field: Field, value: Any, at: int,
               pointers: dict[int, tuple[str, Structure | None]]) -> None:
        place = at + field.offset
        if field.type in _NUMBER:
            self._number(field, value, at)
        elif field.type == "Substructure" and field.target is not None:
            if not isinstance(value, dict):
                raise GraphError(f"expected a dict, found {type(value).__name__}")
            self._fill(value, field.target, place, self._embedded_elements(field, value))
        elif field.type == "Pnt" and field.target is not None:
            if value is not None:
                self._links.append((place, self._node(value, field.target), 0))
                pointers[place] = ("Pnt", field.target)
        elif field.is_address:
            if value is not None:
                self._string(field, value, place, pointers)
        else:
            raw = array_bytes(field.type, field.length, value)
            self.arena[place:place + len(raw)] = raw

    def _embedded_elements(self, field: Field, value: dict[str, Any]) -> int:
        """As many elements as fill the field, which readers need, unless the dict has fewer: the
        bytes can be another field's, too."""
        kind = field.target
        if kind is None or kind.count is None or kind.repeated is None:
            return 1
        if kind.repeated.name not in value and kind.count.name not in value:
            return _room(field)
        elements = self._elements(value, kind)
        if kind.length_with(elements) > field.length:
            raise GraphError(f"{elements} elements do not fit into {field.length} bytes")
        return elements

    def _string(self, field: Field, value: Any, place: int,
                pointers: dict[int, tuple[str, Structure | None]]) -> None:
        raw = wide_bytes(value) if field.type == "WPStr" else narrow_bytes(value)
        self._text(field, terminated(field.type, raw), place, pointers)

    def _text(self, field: Field, raw: bytes, place: int,
              pointers: dict[int, tuple[str, Structure | None]]) -> None:
        self._links.append((place, None, self._append(raw)))
        pointers[place] = (field.type, None)

    def _check_unions(self, kind: Structure, at: int,
                      pointers: dict[int, tuple[str, Structure | None]]) -> None:
        """The writer writes all fields that share bytes: those that it follows must be pointers."""
        for field in kind.fields:
            if not field.is_address or not field.shares or field.not_ported:
                continue
            place = at + field.offset
            if place + 8 > len(self.arena):
                continue
            if pointers.get(place) == (field.type, field.target):
                continue
            overlapped = any(abs(other - place) < 8 for other in pointers)
            if overlapped or any(self.arena[place:place + 8]):
                raise GraphError(f"{kind.name}: the bytes of field {field.name} are another "
                                 "field's, and the writer would take them for an address")


def _room(field: Field) -> int:
    """Elements of an embedded structure that fill its field."""
    kind = field.target
    if kind is None or kind.repeated is None:
        return 1
    return max((field.length - kind.length) // kind.repeated.length + 1, 0)


def _chunks(first: int | None) -> bytes:
    chunk = RECORDS["MEMPortChunk"]
    text_at = chunk.Text.offset
    pieces = []
    while first:
        record = chunk.from_address(first)
        if record.Used > 0:
            pieces.append(ctypes.string_at(first + text_at, record.Used))
        first = record.pNext
    return b"".join(pieces)


def write_port_string(graph: dict[str, Any], definitions: Any, root: str | int | None = None, *,
                      process: Process | None = None) -> bytes:
    """The port string of a dict and of all dicts that it leads to.

    The forms of values are those of :func:`read_port_string`; a field that is left out has its
    default or zeros, the field that counts elements follows from their list. :class:`GraphError`
    names the value that does not match the definitions.

    :param root: name or id of the top-level structure; without it that of a :class:`Record`, else
        the first one of the definitions
    """
    table = Definitions.of(definitions, "port").port
    if root is None:
        root = graph.kind if isinstance(graph, Record) else table.structures[0].name
    structure = table.find(root)
    if structure is None:
        raise GraphError(f"there is no structure {root!r} in the definitions")
    writer = _Writer(table)
    address = writer.lay_out(graph, structure)
    with current_process(process) as used, used.heap(_HEAP_KB) as heap:
        total, first = ctypes.c_uint32(), ctypes.c_void_p()
        used.slots.MEM_StructToPortStr.call(table.table, structure.id, address, 0, heap, total,
                                            first)
        return _chunks(first.value)
