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
from .values import NUMBERS

_ADDRESS = struct.Struct("<Q")


class Segment:
    """One segment: its fields are attributes, ``kind`` is the structure's name.

    ``segment["kind"]`` reaches a field by its name, whatever that is.
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
                 if not isinstance(value, (Segment, list)))
        return f"{self.kind}({', '.join(plain)})"


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
        zero = bytes(self.unit)
        for at in range(0, len(raw) - self.unit + 1, self.unit):
            if raw[at:at + self.unit] == zero:
                return self.wide(raw[:at])
        return None

    def reader(self, kind: str) -> Callable[[bytes], Any]:
        return {"Char": self.narrow, "CharSZ": self.narrow_zero, "WChar": self.wide,
                "WCharSZ": self.wide_zero, "Bin": bytes, "Bit": lambda raw: raw[0]}[kind]


class _Value(NamedTuple):
    """How a field that is no pointer is read."""

    name: str
    offset: int
    length: int | None  # None: to the segment's end
    step: int           # bytes of an element
    read: Callable[[bytes], Any]


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
        self.definition = definition
        self.has_own_length = kind.form in (Form.COUNTED, Form.SELF_SIZED)
        self.widened = widened
        self.fixed_length = (widened.kind if widened else kind).fixed_length
        self.fields = definition.fields if definition is not None else []
        self.next = definition.next if definition is not None else None
        self.pointers = [self._pointer(*pointer) for pointer in kind.pointers()]
        self.pointers_end = max((pointer.place + 8 for pointer in self.pointers), default=0)
        self.values = [reader.of(field) for field in self.fields if not field.is_pointer]
        self.spans = [(pointer.offset, pointer.offset + width) for pointer in self.pointers]
        if self.has_own_length:
            self.spans.append((0, LENGTH_WORD))
        #: of a segment of fixed length in which every value could be read
        self.gaps = None if kind.form is not Form.FIXED else list(gaps_between(
            self.spans + [(value.offset, value.offset + (value.length or 0))
                          for value in self.values], kind.fixed_length))

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

    def __init__(self, chain: ChainFile, texts: Texts) -> None:
        self._order = chain.order
        self._texts = texts

    def of(self, field: ChainField) -> _Value:
        length = None if field.to_end else field.length * field.count
        return _Value(field.name, field.offset, length,
                      field.length if field.is_array else 1, self._reader(field))

    def _reader(self, field: ChainField) -> Callable[[bytes], Any]:
        if field.type not in NUMBERS:
            return self._texts.reader(field.type)
        width, code = NUMBERS[field.type]
        if not field.is_array:
            number = struct.Struct(self._order + code)
            return lambda raw: number.unpack(raw)[0]
        order = self._order
        return lambda raw: list(struct.unpack(f"{order}{len(raw) // width}{code}", raw))


class Memory:
    """A copy of linked blocks. Whatever their bytes are, nothing else is read."""

    def __init__(self, copies: list[tuple[int, bytes]]) -> None:
        self._bases = [address for address, _ in copies]
        self._bytes = [raw for _, raw in copies]

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
        values = _Values(chain, self._texts)
        self._shapes = [kind and self._shape(index, kind, wide, values)
                        for index, (kind, wide) in enumerate(zip(kinds, widened))]
        self._made: dict[int, tuple[Segment, int]] = {}
        self._references: list[tuple[Segment, _Pointer, int]] = []

    def _shape(self, index: int, kind: Kind, widened: Widened | None, values: _Values) -> _Shape:
        known = self._definitions.kinds
        return _Shape(index, kind, known[index] if index < len(known) else None,
                      self._definitions.name_of(index), 4 if widened else 8, widened, values)

    def read(self, root: int) -> list[Any]:
        """The root and its siblings; of a chain that is one text this text."""
        shape = self._shape_at(0)
        if shape.form.is_text:
            return [self._text(root, shape.form)]
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
        shape = self._shapes[index] if index < len(self._shapes) else None
        if shape is None:
            raise GraphError(f"kind {index} is not described")
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
        own = raw[at:end]
        self._fill_values(segment, shape, self._as_written(shape, own))
        following, name = 0, ""
        for pointer in shape.pointers:
            target = _ADDRESS.unpack_from(own, pointer.place)[0]
            if pointer.role is Role.SIBLING:
                following, name = target, pointer.name
            elif pointer.field is not None or target:
                segment.__dict__[pointer.name] = self._target(segment, pointer, target, level)
        return following, name

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
        if not shape.has_own_length or self._length_order == self._order and not shape.widened:
            return own
        length = len(own) - (LENGTH_WORD if shape.form is Form.COUNTED else 0)
        return struct.pack(self._order + "H", length & 0xFFFF) + own[LENGTH_WORD:]

    @staticmethod
    def _fill_values(segment: Segment, shape: _Shape, own: bytes) -> None:
        """Values that cannot be what their types say, and fields that the segment's end cuts, are
        None, and their bytes have no name."""
        values = segment.__dict__
        spans = list(shape.spans)
        is_whole = True
        for name, offset, length, step, read in shape.values:
            used = length
            if used is None:
                used = max(len(own) - offset, 0) // step * step
            value = read(own[offset:offset + used]) if offset + used <= len(own) else None
            values[name] = value
            if value is None:
                is_whole = False
            else:
                spans.append((offset, offset + used))
        gaps = shape.gaps
        if gaps is None or not is_whole:
            gaps = list(gaps_between(spans, len(own)))
        for begin, end in gaps:
            if (shape.has_own_length and end == len(own)) or any(own[begin:end]):
                values[f"+{begin}"] = own[begin:end]

    def _target(self, segment: Segment, pointer: _Pointer, address: int, level: int) -> Any:
        if pointer.role is Role.REFERENCE:
            if address:
                self._references.append((segment, pointer, address))
            return None
        shape = self._shape_at(pointer.target)
        if shape.form.is_text:
            return self._text(address, shape.form) if address else None
        made = self._list(address, shape, level + 1)
        if shape.next is not None:
            return made
        return made[0] if made else None

    def _text(self, address: int, form: Form) -> str:
        raw, at = self._memory.at(address)
        if form is Form.NARROW:
            end = raw.find(b"\0", at)
            if end < 0:
                raise GraphError("a text has no end")
            return self._texts.narrow(raw[at:end])
        end = at
        while end + 2 <= len(raw) and raw[end:end + 2] != b"\0\0":
            end += 2
        if end + 2 > len(raw):
            raise GraphError("a text has no end")
        return raw[at:end].decode("utf-16-le", "surrogatepass")
