"""The file form of packed chains, and control blocks: what kinds of segments there are and where
their pointers are. docs/packed-chain.md has the format."""

from __future__ import annotations

import bisect
import ctypes
import enum
import struct
from typing import Any, Iterator

from .contract import CONSTANTS
from .errors import GraphError
from .records import RECORDS

_FIXED, _COUNTED = CONSTANTS["MEM_PACK_FIXED"], CONSTANTS["MEM_PACK_COUNTED"]
_STRING, _WIDE_STRING = CONSTANTS["MEM_PACK_STRING"], CONSTANTS["MEM_PACK_WIDE_STRING"]
_MOST_CHILDREN = CONSTANTS["MEM_PACK_MAX_CHILDREN"]
_MOST_REFERENCES = CONSTANTS["MEM_PACK_MAX_REFERENCES"]
_LEAST_DESCRIPTORS = CONSTANTS["MEM_PACK_MIN_DESCRIPTORS"]
NO_SIBLING = CONSTANTS["MEM_PACK_NO_SIBLING"]
_OLD_CHILDREN = 8  # entries of a descriptor in the old layout
_CONTROL_BLOCK = 6  # its offset in the first block
_MOST_OFFSET = 0x7FFF


class Form(enum.Enum):
    """How long a segment is, or that it is text."""

    FIXED = "fixed length"
    COUNTED = "counted"
    SELF_SIZED = "own length"
    NARROW = "narrow text"
    WIDE = "wide text"
    UNKNOWN = "a length that only its writer knows"

    @property
    def is_text(self) -> bool:
        return self in (Form.NARROW, Form.WIDE)


class Role(enum.Enum):
    """What a pointer of a segment is."""

    CHILD = "child"
    SIBLING = "sibling"
    REFERENCE = "reference"


_FORMS = {_FIXED: Form.FIXED, _COUNTED: Form.COUNTED, _STRING: Form.NARROW,
          _WIDE_STRING: Form.WIDE}
# Letters of EBCDIC, which all big-endian writers can use.
_EBCDIC_FORMS = {0xC6: Form.FIXED, 0xC3: Form.COUNTED, 0xE2: Form.NARROW, 0xE6: Form.WIDE,
                 0xE5: Form.UNKNOWN, 0xE7: Form.UNKNOWN}
_NATIVE_TYPES = {form: code for code, form in _FORMS.items()}


def form_of_type(code: int) -> Form:
    return _FORMS.get(code, Form.SELF_SIZED)


class Kind:
    """A descriptor of a control block."""

    def __init__(self, code: int, form: Form, fixed_length: int = 0) -> None:
        self.type = code
        self.form = form
        self.fixed_length = fixed_length
        self.sibling = NO_SIBLING
        self.children: list[tuple[int, int]] = []  # kind, offset
        self.references: list[int] = []
        self.spare = b""  # child entries as they are in the file, used or not

    @property
    def native_type(self) -> int:
        code: int = _NATIVE_TYPES.get(self.form, self.type)
        return code

    def pointers(self) -> Iterator[tuple[Role, int, int]]:
        """Role, offset and kind of the target; of references the kind is not known."""
        if self.form.is_text:
            return
        if self.sibling != NO_SIBLING:
            yield Role.SIBLING, self.sibling, -1
        for kind, offset in self.children:
            yield Role.CHILD, offset, kind
        for offset in self.references:
            yield Role.REFERENCE, offset, -1

    def offsets(self) -> list[int]:
        return sorted(offset for _, offset, _ in self.pointers())

    def are_apart(self, width: int) -> bool:
        """Whether pointers of this width do not overlap and end with a segment of fixed length."""
        offsets = self.offsets()
        if not offsets:
            return True
        return (offsets[0] >= 0 and all(two - one >= width
                                        for one, two in zip(offsets, offsets[1:]))
                and (self.form is not Form.FIXED or offsets[-1] + width <= self.fixed_length))


def control_block(kinds: list[Kind | None], count: int) -> Any:
    """The record that the library takes."""
    descriptor = RECORDS["MemPackDescriptor"]
    places = max(len(kinds), count, _LEAST_DESCRIPTORS)
    block = ctypes.create_string_buffer(2 + places * ctypes.sizeof(descriptor))
    ctypes.c_int16.from_buffer(block).value = count
    for record, kind in zip((descriptor * places).from_buffer(block, 2), kinds):
        if kind is not None:
            _fill_descriptor(record, kind)
    return block


def _fill_descriptor(record: Any, kind: Kind) -> None:
    if any(not -0x8000 <= offset <= _MOST_OFFSET for _, offset, _ in kind.pointers()) or (
            kind.fixed_length > 0xFFFF):
        raise GraphError("the segments are too long for a control block")
    ctypes.memmove(ctypes.addressof(record) + type(record).Children.offset, kind.spare,
                   len(kind.spare))
    record.Type = kind.native_type
    record.FixedLen = kind.fixed_length
    record.SiblingOff = kind.sibling
    if kind.form.is_text:
        return
    record.ChildCount = len(kind.children)
    record.ReferenceCount = len(kind.references)
    for entry, (child, offset) in zip(record.Children, kind.children):
        entry.Descriptor, entry.Offset = child, offset
    for index, offset in enumerate(kind.references):
        record.References[index] = offset


class ChainFile:
    """The file form: blocks as their used bytes, end to end. ``kinds`` is empty if the control
    block is damaged; those after ``count`` are None unless they can be used."""

    def __init__(self, raw: bytes) -> None:
        self.raw = raw
        if len(raw) < 6:
            raise GraphError("the bytes are no chain: too short")
        self.version = raw[2:6]
        self.is_ebcdic = self.version[0] >= 0xF0
        self.order = ">" if self.is_ebcdic or self.version[3:] == b"1" else "<"
        self.is_old = self.version[1] & 0x0F == 1
        self.wide_size = 4 if self.version[2:3] == b"4" else 2
        self.blocks = list(self._split())
        self.count = 0
        self.kinds: list[Kind | None] = []
        try:
            self._read_kinds()
        except (struct.error, ValueError):
            self.kinds = []

    def _split(self) -> Iterator[bytes]:
        at, number = 0, 0
        while at < len(self.raw):
            least = 2 if at else 6
            used = 0
            if len(self.raw) - at >= least:
                used = struct.unpack_from(self.order + "H", self.raw, at)[0]
            if not least <= used <= len(self.raw) - at:
                raise GraphError(f"the bytes are no chain: wrong length of block {number}")
            if number >= CONSTANTS["MEM_PACK_MAX_BLOCKS"]:
                raise GraphError(f"the bytes are no chain: more than {number} blocks")
            yield self.raw[at:at + used]
            at, number = at + used, number + 1

    def _read_kinds(self) -> None:
        self.count = self._numbers("h", _CONTROL_BLOCK)[0]
        present = max(self.count, _LEAST_DESCRIPTORS)
        for index in range(present if self.count > 0 else 0):
            try:
                self.kinds.append(self._read_kind(index, present))
            except (struct.error, ValueError):
                if index < self.count:
                    raise
                self.kinds.append(None)

    def _numbers(self, codes: str, at: int) -> tuple[int, ...]:
        return struct.unpack_from(self.order + codes, self.blocks[0], at)

    def _read_kind(self, index: int, present: int) -> Kind:
        at = _CONTROL_BLOCK + 2 + index * (58 if self.is_old else 122)
        code, length, sibling, children, references = self._numbers("HHhhh", at)
        form = form_of_type(code)
        if form is Form.SELF_SIZED and self.order == ">":
            form = _EBCDIC_FORMS.get(code, form)
        if form is Form.SELF_SIZED and self.is_ebcdic and code <= 0xFF:
            code = ord(bytes([code]).decode("cp037"))
        kind = Kind(code, form, length)
        kind.sibling = sibling
        if not self.is_old:
            kind.spare = self.blocks[0][at + 10:at + 106]
        if form.is_text:
            return kind
        most = _OLD_CHILDREN if self.is_old else _MOST_CHILDREN
        if not 0 <= children <= most or not 0 <= references <= _MOST_REFERENCES:
            raise ValueError
        entries = self._numbers("Hh" * children, at + 10)
        kind.children = list(zip(entries[::2], entries[1::2]))
        if any(target >= present for target, _ in kind.children):
            raise ValueError
        kind.references = list(self._numbers("h" * references, at + (42 if self.is_old else 106)))
        return kind

    def are_apart(self, width: int) -> bool:
        return all(kind is None or kind.are_apart(width) for kind in self.kinds)


class Widened:
    """A kind of a writer with 4-byte pointers as the library lays it out for a new chain.

    The root's kind gets a gap before its first pointer: the library compares the offsets of the
    first child to find the writer's width, and they would be equal without it.
    """

    _GAP = 8

    def __init__(self, kind: Kind, is_first: bool) -> None:
        self._offsets = kind.offsets()
        self._gap = self._GAP if is_first else 0
        self.kind = Kind(kind.type, kind.form, kind.fixed_length)
        if self._offsets and kind.form is Form.FIXED:
            self.kind.fixed_length += self._gap + 4 * len(self._offsets)
        self.kind.sibling = kind.sibling
        if kind.sibling != NO_SIBLING:
            self.kind.sibling = self.place(kind.sibling)
        self.kind.children = [(child, self.place(offset)) for child, offset in kind.children]
        self.kind.references = [self.place(offset) for offset in kind.references]
        if is_first and not kind.children:
            self.kind.spare = struct.pack("<Hh", 0, _MOST_OFFSET)

    def place(self, offset: int) -> int:
        """Where the byte with this offset of the writer is."""
        before = bisect.bisect_left(self._offsets, offset)
        is_after_gap = bool(self._offsets) and offset >= self._offsets[0]
        return offset + 4 * before + (self._gap if is_after_gap else 0)

    def narrowed(self, raw: bytes) -> bytes:
        """The bytes of a segment as its writer had them, with zeros for the pointers."""
        if not self._offsets:
            return raw
        pieces = [raw[:self._offsets[0]]]
        for offset, following in zip(self._offsets, (*self._offsets[1:], None)):
            begin = self.place(offset) + 8
            end = None if following is None else self.place(following)
            pieces += [bytes(4), raw[begin:end]]
        return b"".join(pieces)
