"""Segments in memory, as the packer reads them."""

from __future__ import annotations

import ctypes
import re
import struct
from typing import Any, Iterable, Mapping, Sequence

from .chain_definitions import (LENGTH_WORD, MOST_COUNTED, MOST_SEGMENT, ChainDefinitions,
                                ChainField, ChainKind)
from .chain_layout import Form, Role
from .errors import GraphError
from .values import (NUMBERS, WIDE, array_bytes, check_whole, narrow_bytes, number_bytes,
                     plain_bytes, terminated, wide_bytes)

_ADDRESS = struct.Struct("<Q")
# Used lengths have 16 bits, and segments begin at 2.
_MOST_PACKED = MOST_SEGMENT - 2


def field_bytes(field: ChainField, value: Any, encoding: str) -> bytes:
    """The bytes of a value; of a field to the end as many as the value has."""
    if field.is_array:
        if isinstance(value, (str, bytes, bytearray)) or not isinstance(value, Iterable):
            raise GraphError(f"expected a list of numbers, found {type(value).__name__}")
        numbers = list(value)
        if not field.to_end and len(numbers) != field.count:
            raise GraphError(f"expected {field.count} numbers, found {len(numbers)}")
        return b"".join(number_bytes(field.type, number) for number in numbers)
    if field.type in NUMBERS:
        return number_bytes(field.type, value)
    if field.type == "Bit":
        check_whole(value, 0, 255)
        return bytes([value])
    if not field.to_end:
        return array_bytes(field.type, field.length, value, encoding)
    if field.type == "Bin":
        return plain_bytes(value)
    raw = wide_bytes(value) if field.type in WIDE else narrow_bytes(value, encoding)
    return terminated(field.type, raw) if field.type.endswith("SZ") else raw


def _significant(field: ChainField, raw: bytes) -> bytes:
    """The bytes of a value without those after the terminator of a text."""
    if not field.type.endswith("SZ"):
        return raw
    width = 2 if field.type in WIDE else 1
    end = len(raw.rstrip(b"\0"))
    return raw[:-(-end // width) * width + width]


class _Image:
    """The bytes of one segment."""

    def __init__(self, kind: ChainKind) -> None:
        self._kind = kind
        self.raw = bytearray(kind.fixed_length)
        self._set: list[tuple[str, int, bytes]] = []

    def reserve(self, name: str, offset: int, length: int) -> None:
        """The segment reaches so far, if it can."""
        kind = self._kind
        most = (kind.fixed_length if kind.form is Form.FIXED else
                MOST_COUNTED if kind.form is Form.COUNTED else _MOST_PACKED)
        if offset + length > most:
            raise GraphError(f"{kind.name}.{name}: {length} bytes at {offset} are too long for a "
                             f"segment, which has {most} at most")
        self.raw.extend(bytes(max(offset + length - len(self.raw), 0)))

    def put(self, name: str, offset: int, raw: bytes, significant: bytes) -> None:
        self.reserve(name, offset, len(raw))
        self.raw[offset:offset + len(raw)] = raw
        self._set.append((name, offset, significant))

    def put_bytes(self, name: str, value: Any) -> None:
        """Bytes without a name."""
        kind = self._kind
        if not re.fullmatch(r"\+[0-9]{1,9}", name):
            raise GraphError(f"{kind.name}.{name}: a name with + is an offset")
        if not isinstance(value, (bytes, bytearray, memoryview)):  # such as a pointer's target
            raise GraphError(f"{kind.name}.{name}: expected bytes, found {type(value).__name__}")
        offset, raw = int(name[1:]), bytes(value)
        if kind.has_own_length and offset < LENGTH_WORD and raw:
            raise GraphError(f"{kind.name}.{name}: the first two bytes are the segment's length")
        for field in kind.fields:
            if field.is_pointer and field.offset < offset + len(raw) and (
                    offset < field.offset + 8):
                raise GraphError(f"{kind.name}.{name}: it overlaps the pointer {field.name}")
        self.put(name, offset, raw, raw)

    def finish(self) -> bytearray:
        """With the segment's length, if it has its own. Values that share bytes must agree."""
        kind = self._kind
        if kind.has_own_length:
            self.reserve("length", 0, LENGTH_WORD)
            length = len(self.raw) - (LENGTH_WORD if kind.form is Form.COUNTED else 0)
            word = struct.pack("<H", length)
            for name, offset, raw in self._set:
                if offset == 0 and raw != word:
                    raise GraphError(f"{kind.name}.{name}: the segment's values make this {length};"
                                     " it can be left out")
            self.raw[:LENGTH_WORD] = word
        for name, offset, raw in self._set:
            if self.raw[offset:offset + len(raw)] != raw:
                raise GraphError(f"{kind.name}.{name}: another value has set other bytes here")
        return self.raw


class Writer:
    """Puts segments one after the other in storage, with addresses as pointers."""

    def __init__(self, definitions: ChainDefinitions, encoding: str | None) -> None:
        self._definitions = definitions
        self._encoding = encoding or "utf-8"
        self.arena = bytearray()
        self.longest = 0  # item, with the room that wide text reserves
        self._places: dict[int, tuple[int, ChainKind]] = {}  # by the object's id
        self._links: list[tuple[int, int]] = []
        self._references: list[tuple[int, Any, ChainField]] = []
        self._keep: Any = None

    def lay_out(self, roots: Sequence[Any]) -> int:
        """The address of the root; the arena exists as long as this object."""
        kind = self._definitions.kinds[0]
        if kind.form.is_text and len(roots) == 1:
            first: int | None = self._append(self._text(kind.form, roots[0]))
        else:
            try:
                first = self._list(roots, kind)
            except RecursionError:  # the library allows far fewer levels
                raise GraphError("the structure has too many levels") from None
        if first is None:
            raise GraphError("a chain has a root")
        for place, target, field in self._references:
            found, of_kind = self._places.get(id(target), (0, None))
            if of_kind is None:
                raise GraphError(f"field {field.name} refers to a segment that is not in the chain")
            if field.target is not None and field.target is not of_kind:
                raise GraphError(f"field {field.name} refers to a {of_kind.name}, not to a "
                                 f"{field.target.name}")
            self._links.append((place, found))
        self._keep = ctypes.c_char.from_buffer(self.arena)
        base = ctypes.addressof(self._keep)
        for place, offset in self._links:
            _ADDRESS.pack_into(self.arena, place, base + offset)
        return base + first

    def _append(self, raw: bytes | bytearray) -> int:
        self.longest = max(self.longest, len(raw))
        self.arena += bytes(-len(self.arena) % 8)
        at = len(self.arena)
        self.arena += raw
        return at

    def _list(self, segments: Sequence[Any], kind: ChainKind) -> int | None:
        first = link = None
        for segment in segments:
            at = self._segment(segment, kind)
            if first is None:
                first = at
            elif kind.next is None or link is None:
                raise GraphError(f"{kind.name} has no field for the next segment")
            else:
                self._links.append((link, at))
            link = at + kind.next.offset if kind.next is not None else None
        return first

    def _segment(self, segment: Any, kind: ChainKind) -> int:
        if id(segment) in self._places:
            raise GraphError(f"a {kind.name} has two owners; one of them may be a reference")
        values = self._named(segment, kind)
        at = self._append(self._image(values, kind))
        self._places[id(segment)] = at, kind
        for field in kind.pointers:
            value = values.get(field.name)
            if value is not None and field is not kind.next:
                self._point(kind, field, value, at + field.offset)
        return at

    @staticmethod
    def _named(segment: Any, kind: ChainKind) -> Mapping[str, Any]:
        """The values by the names of their fields."""
        values: Mapping[str, Any] = segment if isinstance(segment, dict) else vars(segment)
        if values.keys() <= kind.names:
            return values
        named = {}
        for name, value in values.items():
            if name in kind.by_name:
                named[kind.by_name[name].name] = value
            elif name.startswith("+"):
                named[name] = value
            elif name != "kind":
                raise GraphError(f"{kind.name}: there is no field {name!r}")
        return named

    def _image(self, values: Mapping[str, Any], kind: ChainKind) -> bytearray:
        if kind.form is not Form.FIXED or kind.shares or not values.keys() <= kind.names:
            return self._careful_image(values, kind)
        raw = bytearray(kind.fixed_length)
        for field in kind.values:
            value = values.get(field.name)
            if value is not None:
                part = self._field_bytes(kind, field, value)
                raw[field.offset:field.offset + len(part)] = part
        return raw

    def _careful_image(self, values: Mapping[str, Any], kind: ChainKind) -> bytearray:
        """Text first: its fields set bytes after the terminator, which others can share."""
        image = _Image(kind)
        for field in kind.values:
            value = values.get(field.name)
            if value is not None:
                raw = self._field_bytes(kind, field, value)
                image.put(field.name, field.offset, raw, _significant(field, raw))
        for name, value in values.items():
            if name.startswith("+") and value is not None:
                image.put_bytes(name, value)
        for field in kind.pointers:
            image.reserve(field.name, field.offset, 8)
        return image.finish()

    def _field_bytes(self, kind: ChainKind, field: ChainField, value: Any) -> bytes:
        try:
            return field_bytes(field, value, self._encoding)
        except (struct.error, ValueError, OverflowError) as error:
            raise GraphError(f"{kind.name}.{field.name}: {error}") from None

    def _point(self, kind: ChainKind, field: ChainField, value: Any, place: int) -> None:
        if field.role is Role.REFERENCE:
            self._references.append((place, value, field))
        elif field.type != "Pnt":
            try:
                raw = self._text(Form.NARROW if field.type == "PStr" else Form.WIDE, value)
            except (ValueError, OverflowError) as error:
                raise GraphError(f"{kind.name}.{field.name}: {error}") from None
            self._links.append((place, self._append(raw)))
        elif field.target is not None:
            listed = value if isinstance(value, (list, tuple)) else [value]
            first = self._list(listed, field.target)
            if first is not None:
                self._links.append((place, first))

    def _text(self, form: Form, value: Any) -> bytes:
        if form is Form.NARROW:
            return terminated("PStr", narrow_bytes(value, self._encoding))
        raw = terminated("WPStr", wide_bytes(value))
        self.longest = max(self.longest, 2 * len(raw))
        return raw
