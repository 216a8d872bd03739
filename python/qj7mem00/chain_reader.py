"""Unpacked chains as objects."""

from __future__ import annotations

import bisect
import re
import struct
from typing import Any, Callable, Iterator, NamedTuple

from .chain_definitions import LENGTH_WORD, ChainDefinitions, ChainField, ChainKind
from .chain_layout import ChainFile, Form, Kind, Role, Widened
from .contract import CONSTANTS
from .errors import GraphError
from .values import NUMBERS, find_zero

_read_address = struct.Struct("<Q").unpack_from
_MOST_TEXT = 1 << 30  # bytes; pointers can share text, so that a short file has much of it


class Segment:
    """One segment: its fields are attributes, ``kind`` is the structure's name.

    ``segment["kind"]`` is the field of that name.
    """

    __slots__ = ("kind", "__dict__")

    kind: str

    def __init__(self, kind: str, /, **fields: Any) -> None:
        self.kind = kind
        self.__dict__.update(fields)

    def __getattr__(self, name: str) -> Any:  # for type checkers; only called when it is missing
        raise AttributeError(f"the segment has no field {name!r}")

    def __getitem__(self, name: str) -> Any:
        return self.__dict__[name]

    def __setitem__(self, name: str, value: Any) -> None:
        self.__dict__[name] = value

    def __contains__(self, name: object) -> bool:
        return name in self.__dict__

    def __repr__(self) -> str:
        plain = (f"{name}={value!r}" for name, value in self.__dict__.items()
                 if not isinstance(value, Segment) and not _is_segments(value))
        return f"{self.kind}({', '.join(plain)})"


def _is_segments(value: Any) -> bool:
    return isinstance(value, list) and (not value or isinstance(value[0], Segment))


class Texts:
    """Text of a writer as str. What cannot be text is None."""

    def __init__(self, chain: ChainFile, encoding: str | None) -> None:
        self._encoding = encoding or "utf-8"
        self._finds_ebcdic = chain.is_ebcdic and encoding is None
        self.unit = chain.wide_size
        self._wide = f"utf-{8 * self.unit}-{'be' if chain.order == '>' else 'le'}"

    def narrow(self, raw: bytes) -> str:
        # Blanks alone show the code of text without letters and digits.
        if self._finds_ebcdic and (not raw.isascii() or re.fullmatch(rb"[\0@]*", raw)):
            return raw.decode("cp037")
        return raw.decode(self._encoding, "surrogateescape")

    def narrow_zero(self, raw: bytes) -> str | None:
        text, end, _ = raw.partition(b"\0")
        return self.narrow(text) if end else None

    def wide(self, raw: bytes) -> str | None:
        if len(raw) % self.unit:
            return None
        if self.unit == 2:
            return raw.decode(self._wide, "surrogatepass")
        try:
            return raw.decode(self._wide)
        except UnicodeDecodeError:
            return None

    def wide_zero(self, raw: bytes) -> str | None:
        end = find_zero(raw, self.unit)
        return None if end < 0 else self.wide(raw[:end])

    def reader(self, kind: str) -> Callable[[bytes], Any]:
        return {"Char": self.narrow, "CharSZ": self.narrow_zero, "WChar": self.wide,
                "WCharSZ": self.wide_zero, "Bin": bytes}[kind]


# Reads the bytes of a segment from an offset to an end.
_Read = Callable[[bytes, int, int], Any]


class _Value(NamedTuple):
    """How a field that is no pointer is read."""

    name: str
    offset: int
    end: int | None  # None: the segment's
    step: int        # bytes of an element
    read: _Read


class _Pointer(NamedTuple):
    name: str
    offset: int  # of the writer
    place: int   # in the unpacked segment
    role: Role
    target: int
    field: ChainField | None


class _Shape:
    """All that is known of a kind of segment."""

    def __init__(self, index: int, kind: Kind, definition: ChainKind | None, name: str, width: int,
                 widened: Widened | None, reader: "_Values") -> None:
        self.index = index
        self.name = name
        self.form = kind.form
        self.is_text = kind.form.is_text
        self.is_narrow = kind.form is Form.NARROW
        self.has_own_length = kind.form in (Form.COUNTED, Form.SELF_SIZED)
        self.widened = widened
        self.fixed_length = (widened.kind if widened else kind).fixed_length
        self.fields = definition.fields if definition is not None else []
        self.next = definition.next if definition is not None else None
        self.pointers = [self._pointer(*pointer) for pointer in kind.pointers()]
        if any(pointer.place < 0 for pointer in self.pointers):
            raise GraphError(f"{name}: a pointer is before the start of its segment")
        self.pointers_end = max((pointer.place + 8 for pointer in self.pointers), default=0)
        self.values = [reader.of(field) for field in self.fields if not field.is_pointer]
        self.is_as_written = widened is None and (not self.has_own_length
                                                  or not reader.turns_lengths)
        self.spans = [(pointer.offset, pointer.offset + width) for pointer in self.pointers]
        if self.has_own_length:
            self.spans.append((0, LENGTH_WORD))
        #: of a segment of fixed length in which every value could be read
        self.gaps = None if kind.form is not Form.FIXED else list(gaps_between(
            self.spans + [(value.offset, value.end or 0) for value in self.values],
            kind.fixed_length))

    def _pointer(self, role: Role, offset: int, target: int) -> _Pointer:
        field = next((field for field in self.fields
                      if field.is_pointer and field.offset == offset), None)
        return _Pointer(f"+{offset}" if field is None else field.name, offset,
                        self.widened.place(offset) if self.widened else offset, role, target,
                        field)


def gaps_between(spans: list[tuple[int, int]], end: int) -> Iterator[tuple[int, int]]:
    """What the spans leave out."""
    reached = 0
    for begin, stop in (*sorted(spans), (end, end)):
        if begin > reached:
            yield reached, begin
        reached = max(reached, stop)


class _Values:
    """Readers of fields, in the byte order of a chain's writer."""

    def __init__(self, chain: ChainFile, texts: Texts, turns_lengths: bool) -> None:
        self._order = chain.order
        self._texts = texts
        self.turns_lengths = turns_lengths

    def of(self, field: ChainField) -> _Value:
        end = None if field.to_end else field.offset + field.length * field.count
        return _Value(field.name, field.offset, end, field.length if field.is_array else 1,
                      self._reader(field))

    def _reader(self, field: ChainField) -> _Read:
        if field.type == "Bit":
            return lambda own, at, end: own[at]
        if field.type not in NUMBERS:
            text = self._texts.reader(field.type)
            return lambda own, at, end: text(own[at:end])
        width, code = NUMBERS[field.type]
        if not field.is_array:
            unpack = struct.Struct(self._order + code).unpack_from
            return lambda own, at, end: unpack(own, at)[0]
        order = self._order
        return lambda own, at, end: list(
            struct.unpack_from(f"{order}{(end - at) // width}{code}", own, at))


class Memory:
    """A copy of linked blocks. Whatever their bytes are, nothing else is read."""

    def __init__(self, copies: list[tuple[int, bytes]]) -> None:
        self._bases = [address for address, _ in copies]
        self._bytes = [raw for _, raw in copies]
        self.length = sum(map(len, self._bytes))

    def at(self, address: int) -> tuple[bytes, int]:
        place = bisect.bisect_right(self._bases, address) - 1
        if place < 0 or address - self._bases[place] >= len(self._bytes[place]):
            raise GraphError("a pointer leads out of the chain")
        return self._bytes[place], address - self._bases[place]


class Reader:
    """Walks unpacked blocks."""

    def __init__(self, memory: Memory, chain: ChainFile, definitions: ChainDefinitions,
                 kinds: list[Kind | None], widened: list[Widened | None], is_new: bool,
                 encoding: str | None) -> None:
        self._memory = memory
        self._order = chain.order
        self._length_order = "<" if is_new else chain.order  # the library updates lengths
        self._texts = Texts(chain, encoding)
        self._definitions = definitions
        self._values = _Values(chain, self._texts, self._length_order != self._order)
        self._kinds = kinds
        self._widened = widened
        self._shapes: dict[int, _Shape] = {}  # those that were needed
        self._made: dict[int, tuple[Segment, int]] = {}
        self._room = memory.length  # for further segments, which do not overlap
        self._text_room = _MOST_TEXT
        self._references: list[tuple[Segment, _Pointer, int]] = []

    def read(self, root: int) -> list[Any]:
        """The root and its siblings; of a chain that is one text this text."""
        shape = self._shape_at(0)
        if shape.is_text:
            return [self._text(root, shape.is_narrow)]
        roots = self._list(root, shape, 1)
        for segment, pointer, address in self._references:
            target, kind = self._made.get(address, (None, -1))
            wanted = pointer.field.target if pointer.field is not None else None
            if target is None or (wanted is not None and wanted.index != kind):
                raise GraphError(f"{segment.kind}: field {pointer.name} leads to no segment of its "
                                 "kind")
            segment.__dict__[pointer.name] = target
        return roots

    def _shape_at(self, index: int) -> _Shape:
        shape = self._shapes.get(index)
        if shape is None:
            kind = self._kinds[index] if index < len(self._kinds) else None
            if kind is None:
                raise GraphError(f"kind {index} is not described")
            known, widened = self._definitions.kinds, self._widened[index]
            shape = self._shapes[index] = _Shape(
                index, kind, known[index] if index < len(known) else None,
                self._definitions.name_of(index), 4 if widened else 8, widened, self._values)
        return shape

    def _list(self, address: int, shape: _Shape, level: int) -> list[Segment]:
        """A segment, and those that follow it as siblings if the definition has a field for it."""
        if level > CONSTANTS["MEM_PACK_MAX_LEVELS"]:
            raise GraphError("the structure has too many levels")
        made: list[Segment] = []
        before: Segment | None = None
        while address:
            if address in self._made:
                raise GraphError(f"{shape.name}: a segment is reached twice")
            segment = Segment(shape.name)
            self._made[address] = segment, shape.index
            if before is None or shape.next is not None:
                made.append(segment)
            else:
                before.__dict__[name] = segment
            address, name = self._fill(segment, shape, address, level)
            before = segment
        return made

    def _fill(self, segment: Segment, shape: _Shape, address: int, level: int) -> tuple[int, str]:
        """The address of the next segment, and the name of the pointer to it."""
        raw, at = self._memory.at(address)
        end = at + self._length(shape, raw, at)
        if end > len(raw) or at + shape.pointers_end > end:
            raise GraphError(f"{shape.name}: a segment is shorter than its structure")
        self._room -= end - at
        if self._room < 0:
            raise GraphError("segments overlap")
        own = raw[at:end]
        self._fill_values(segment.__dict__, shape,
                          own if shape.is_as_written else self._as_written(shape, own))
        following, following_name = 0, ""
        for pointer in shape.pointers:
            name, _, place, role, _, field = pointer
            target = _read_address(own, place)[0]
            if role is Role.SIBLING:
                following, following_name = target, name
            elif target:
                segment.__dict__[name] = self._target(segment, pointer, target, level)
            elif field is not None:
                segment.__dict__[name] = [] if self._is_list(pointer) else None
        return following, following_name

    def _is_list(self, pointer: _Pointer) -> bool:
        return pointer.role is Role.CHILD and self._shape_at(pointer.target).next is not None

    def _length(self, shape: _Shape, raw: bytes, at: int) -> int:
        if shape.form is Form.UNKNOWN:
            return max(shape.pointers_end, 1)
        if not shape.has_own_length:
            return shape.fixed_length
        if at + LENGTH_WORD > len(raw):
            raise GraphError(f"{shape.name}: a segment is shorter than its structure")
        if shape.form is Form.COUNTED:
            return int(struct.unpack_from(self._length_order + "h", raw, at)[0]) + LENGTH_WORD
        return int(struct.unpack_from(self._length_order + "H", raw, at)[0])

    def _as_written(self, shape: _Shape, own: bytes) -> bytes:
        """The segment as its writer had it, as far as the offsets of fields are concerned."""
        if shape.widened is not None:
            own = shape.widened.narrowed(own)
        if not shape.has_own_length:
            return own
        length = len(own) - (LENGTH_WORD if shape.form is Form.COUNTED else 0)
        return struct.pack(self._order + "H", length & 0xFFFF) + own[LENGTH_WORD:]

    @staticmethod
    def _fill_values(values: dict[str, Any], shape: _Shape, own: bytes) -> None:
        """Values that cannot be what their types say, and fields that the segment's end cuts, are
        None, and their bytes have no name."""
        length = len(own)
        spans = []
        for name, offset, end, step, read in shape.values:
            if end is None:
                end = offset + max(length - offset, 0) // step * step
            value = values[name] = read(own, offset, end) if end <= length else None
            if value is not None:
                spans.append((offset, end))
        gaps = shape.gaps
        if gaps is None or len(spans) < len(shape.values):
            gaps = list(gaps_between(shape.spans + spans, length))
        for begin, end in gaps:
            if (shape.has_own_length and end == length) or any(own[begin:end]):
                values[f"+{begin}"] = own[begin:end]

    def _target(self, segment: Segment, pointer: _Pointer, address: int, level: int) -> Any:
        if pointer.role is Role.REFERENCE:
            self._references.append((segment, pointer, address))
            return None
        shape = self._shape_at(pointer.target)
        if shape.is_text:
            return self._text(address, shape.is_narrow)
        made = self._list(address, shape, level + 1)
        return made if shape.next is not None else made[0]

    def _text(self, address: int, is_narrow: bool) -> str:
        raw, at = self._memory.at(address)
        end = raw.find(b"\0", at) if is_narrow else find_zero(raw, 2, at)
        if end < 0:
            raise GraphError("a text has no end")
        self._text_room -= end - at
        if self._text_room < 0:
            raise GraphError(f"more than {_MOST_TEXT} bytes of text")
        if is_narrow:
            return self._texts.narrow(raw[at:end])
        return raw[at:end].decode("utf-16-le", "surrogatepass")
