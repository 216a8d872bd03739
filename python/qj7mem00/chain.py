"""Packed chains as objects, and back, through the library."""

from __future__ import annotations

import bisect
import ctypes
import os
import struct
from typing import Any, Iterable, Iterator

from .contract import CONSTANTS
from .definitions import (ADDRESSES, NUMBERS, Definitions, Field, Structure, array_bytes,
                          narrow_bytes, plain_bytes, wide_bytes)
from .errors import GraphError
from .process import Process, current_process
from .records import RECORDS

_HEAD = 8  # bytes of a block in front of its used length
_POINTER = struct.Struct("<Q")
_STRING, _WIDE = CONSTANTS["MEM_PACK_STRING"], CONSTANTS["MEM_PACK_WIDE_STRING"]
_FIXED, _COUNTED = CONSTANTS["MEM_PACK_FIXED"], CONSTANTS["MEM_PACK_COUNTED"]
_MOST_CHILDREN = CONSTANTS["MEM_PACK_MAX_CHILDREN"]
_MOST_REFERENCES = CONSTANTS["MEM_PACK_MAX_REFERENCES"]
_LEAST_DESCRIPTORS = CONSTANTS["MEM_PACK_MIN_DESCRIPTORS"]
_NO_SIBLING = CONSTANTS["MEM_PACK_NO_SIBLING"]
_OLD_CHILDREN = 8  # entries of a descriptor in the old layout
_UNMEASURED = (0xE5, 0xE7)  # of EBCDIC writers: their lengths are in fields
_EBCDIC_TYPES = {0xC6: _FIXED, 0xC3: _COUNTED, 0xE2: _STRING, 0xE6: _WIDE}


class Segment:
    """One segment: its fields are attributes, ``kind`` is the structure's name."""

    kind: str

    def __init__(self, kind: str, /, **fields: Any) -> None:
        self.kind = kind
        self.__dict__.update(fields)

    def __getattr__(self, name: str) -> Any:  # for type checkers; only called when it is missing
        raise AttributeError(f"the segment has no field {name!r}")

    def __repr__(self) -> str:
        plain = (f"{name}={value!r}" for name, value in self.__dict__.items()
                 if name != "kind" and not isinstance(value, (Segment, list)))
        return f"{self.kind}({', '.join(plain)})"


# The control block

class _Plan:
    """The pack control block of definitions: the structures in their order, then narrow and wide
    text where a field points to them."""

    def __init__(self, definitions: Definitions) -> None:
        self.kinds = definitions.structures
        fields = [field for kind in self.kinds for field in kind.fields]
        self.count = len(self.kinds)
        self.narrow = self._text_kind("S", any(field.type == "PStr" for field in fields))
        self.wide = self._text_kind("W", any(field.type == "WPStr" for field in fields))
        descriptor = RECORDS["MemPackDescriptor"]
        places = max(self.count, _LEAST_DESCRIPTORS)
        self._block = ctypes.create_string_buffer(2 + places * ctypes.sizeof(descriptor))
        ctypes.c_int16.from_buffer(self._block).value = self.count
        self.descriptors = (descriptor * places).from_buffer(self._block, 2)
        for index, kind in enumerate(self.kinds):
            if not kind.is_text:
                self._describe(self.descriptors[index], kind)
        for index, letter in ((self.narrow, _STRING), (self.wide, _WIDE)):
            if index is not None:
                self.descriptors[index].Type = letter
                self.descriptors[index].SiblingOff = _NO_SIBLING

    def _text_kind(self, letter: str, is_used: bool) -> int | None:
        """Where a kind of text stands: as the definitions say, else behind the others."""
        told = [index for index, kind in enumerate(self.kinds) if kind.segment == letter]
        if told and (told[0] == 0 or len(told) > 1):
            raise GraphError(f'there is one segment "{letter}" at most, and it is not the first')
        if told or not is_used:
            return told[0] if told else None
        self.count += 1
        return self.count - 1

    @property
    def block(self) -> Any:
        return self._block

    def children(self, kind: Structure) -> list[Field]:
        return [field for field in kind.fields
                if field.is_address and not field.reference and field is not kind.next]

    def descriptor_of(self, field: Field) -> int | None:
        if field.type == "PStr":
            return self.narrow
        if field.type == "WPStr":
            return self.wide
        return next(index for index, kind in enumerate(self.kinds) if kind is field.target)

    def _describe(self, record: Any, kind: Structure) -> None:
        self._check(kind)
        record.Type = ord(kind.segment)
        record.FixedLen = kind.length if kind.segment == "F" else 0
        record.SiblingOff = kind.next.offset if kind.next is not None else _NO_SIBLING
        children = self.children(kind)
        references = [field for field in kind.fields if field.reference]
        if len(children) > _MOST_CHILDREN or len(references) > _MOST_REFERENCES:
            raise GraphError(f"{kind.name}: a segment has at most {_MOST_CHILDREN} children and "
                             f"{_MOST_REFERENCES} references")
        record.ChildCount = len(children)
        record.ReferenceCount = len(references)
        for index, field in enumerate(children):
            record.Children[index].Descriptor = self.descriptor_of(field)
            record.Children[index].Offset = field.offset
        for index, field in enumerate(references):
            record.References[index] = field.offset

    @staticmethod
    def _check(kind: Structure) -> None:
        if not 0 < kind.length <= 0xFFFF:
            raise GraphError(f"{kind.name}: a segment has 1 to 65535 bytes")
        if kind.count is not None:
            raise GraphError(f"{kind.name}: segments have no field that counts elements")
        for field in kind.fields:
            if field.name == "kind":
                raise GraphError(f"{kind.name}: a segment's field cannot have the name kind")
            if field.type == "Substructure":
                raise GraphError(f"{kind.name}.{field.name}: segments embed no others")
            if field.shares:
                raise GraphError(f"{kind.name}.{field.name}: fields of segments share no bytes")
            if field.offset > 0x7FFF and field.is_address:
                raise GraphError(f"{kind.name}.{field.name}: the pointer lies too far in")
            if field.offset < 2 and kind.segment != "F":
                raise GraphError(f"{kind.name}.{field.name}: the segment's length stands at 0")


# Reading

def _form(kind: int, order: str) -> int:
    """What a type says of lengths: all that tell their own are one, whatever their letter."""
    if order == ">" and kind in _UNMEASURED:
        return kind
    return kind if kind in (_FIXED, _COUNTED, _STRING, _WIDE) else 0


class _File:
    """The file form: blocks as their used bytes, one behind the other."""

    def __init__(self, raw: bytes) -> None:
        self.raw = raw
        if len(raw) < 6:
            raise GraphError("the bytes are no chain: too short")
        self.version = raw[2:6]
        self.is_ebcdic = self.version[0] >= 0xF0
        self.order = ">" if self.is_ebcdic or self.version[3:] == b"1" else "<"
        self.is_old = self.version[1] & 0x0F == 1
        self.blocks = list(self._split())

    def _split(self) -> Iterator[bytes]:
        at, number = 0, 0
        while at < len(self.raw):
            least = 2 if at else 6
            used = 0
            if len(self.raw) - at >= least:
                used = struct.unpack_from(self.order + "H", self.raw, at)[0]
            if not least <= used <= len(self.raw) - at:
                raise GraphError(f"the bytes are no chain: wrong length of block {number}")
            yield self.raw[at:at + used]
            at, number = at + used, number + 1

    def describes(self, plan: _Plan) -> bool:
        """Whether the chain's own control block is that of the definitions: then what the library
        links in place is what they say. The old layout may be in either order."""
        orders = "<>" if self.is_old else self.order
        return any(self._describes(plan, order) for order in orders)

    def _describes(self, plan: _Plan, order: str) -> bool:
        first = self.blocks[0]
        try:
            if struct.unpack_from(order + "h", first, 6)[0] != plan.count:
                return False
            size = 58 if self.is_old else 122
            return all(self._is_same(struct.unpack_from(f"{order}HH3h", first, 8 + index * size),
                                     first, 8 + index * size, order, plan.descriptors[index])
                       for index in range(plan.count))
        except struct.error:
            return False

    def _is_same(self, head: tuple[int, ...], first: bytes, at: int, order: str,
                 wanted: Any) -> bool:
        kind = _EBCDIC_TYPES.get(head[0], head[0]) if self.order == ">" else head[0]
        if _form(kind, self.order) != _form(wanted.Type, "<"):
            return False
        if kind in (_STRING, _WIDE):
            return True
        if (kind == _FIXED and head[1] != wanted.FixedLen) or head[2:] != (
                wanted.SiblingOff, wanted.ChildCount, wanted.ReferenceCount):
            return False
        if self.is_old and wanted.ChildCount > _OLD_CHILDREN:
            return False
        for index in range(wanted.ChildCount):
            child = wanted.Children[index]
            if struct.unpack_from(order + "Hh", first, at + 10 + 4 * index) != (
                    child.Descriptor, child.Offset):
                return False
        listed = at + (42 if self.is_old else 106)
        return all(struct.unpack_from(order + "h", first, listed + 2 * index)[0]
                   == wanted.References[index] for index in range(wanted.ReferenceCount))


class _Blocks:
    """Blocks of a chain in the library's storage, given back when the block is left."""

    def __init__(self, process: Process) -> None:
        self.process = process
        self.first = ctypes.c_void_p()
        self.length = 0

    def __enter__(self) -> "_Blocks":
        return self

    def load(self, blocks: list[bytes]) -> None:
        self.length = _HEAD + max(len(block) for block in blocks)
        link = ctypes.addressof(self.first)
        for block in blocks:
            address = self.process.slots.MEM_Alloc.call(self.length, 0)
            ctypes.memmove(address + _HEAD, block, len(block))
            _POINTER_AT(address).value = None
            _POINTER_AT(link).value = address
            link = address

    def addresses(self) -> Iterator[int]:
        at = self.first.value
        while at:
            following = _POINTER_AT(at).value
            yield at
            at = following

    def free(self) -> None:
        for address in self.addresses():
            self.process.slots.MEM_Free(address, self.length, 0)
        self.first.value = None

    def __exit__(self, *_: object) -> None:
        self.free()


_POINTER_AT = ctypes.c_void_p.from_address


class _Reader:
    """Walks a copy of the linked blocks. Whatever their bytes are, nothing else is read."""

    def __init__(self, blocks: _Blocks, plan: _Plan, order: str, length_order: str,
                 encoding: str) -> None:
        self._bases: list[int] = []
        self._bytes: list[bytes] = []
        for address, raw in sorted(self._copies(blocks)):
            self._bases.append(address)
            self._bytes.append(raw)
        self._plan = plan
        self._order = order
        self._length_order = length_order
        self._encoding = encoding
        self._made: dict[int, Segment] = {}
        self._references: list[tuple[Segment, Field, int]] = []
        self._numbers = {name: struct.Struct(order + code) for name, (_, code) in NUMBERS.items()}

    @staticmethod
    def _copies(blocks: _Blocks) -> Iterator[tuple[int, bytes]]:
        for address in blocks.addresses():
            used = ctypes.string_at(address + _HEAD, blocks.length - _HEAD)
            yield address + _HEAD, used

    def read(self, root: int) -> list[Segment]:
        roots = self._list(root, self._plan.kinds[0], 1)
        for segment, field, address in self._references:
            target = self._made.get(address)
            if target is None or (field.target and target.kind != field.target.name):
                raise GraphError(f"{segment.kind}: field {field.name} leads to no segment of its "
                                 "kind")
            setattr(segment, field.name, target)
        return roots

    def _bytes_at(self, address: int) -> tuple[bytes, int]:
        place = bisect.bisect_right(self._bases, address) - 1
        if place < 0 or address - self._bases[place] >= len(self._bytes[place]):
            raise GraphError("a pointer leads out of the chain")
        return self._bytes[place], address - self._bases[place]

    def _list(self, address: int, kind: Structure, level: int) -> list[Segment]:
        """A segment and those that follow it as siblings."""
        if level > CONSTANTS["MEM_PACK_MAX_LEVELS"]:
            raise GraphError("the structure has too many levels")
        made = []
        while address:
            raw, at = self._bytes_at(address)
            if address in self._made:
                raise GraphError(f"{kind.name}: a segment is reached twice")
            segment = self._made[address] = Segment(kind.name)
            made.append(segment)
            self._fill(segment, kind, raw, at, level)
            address = self._number("UBigInt", raw, at + kind.next.offset) if kind.next else 0
        return made

    def _number(self, kind: str, raw: bytes, at: int) -> int:
        numbers = _NATIVE if kind == "UBigInt" else self._numbers[kind]
        value: int = numbers.unpack_from(raw, at)[0]
        return value

    def _fill(self, segment: Segment, kind: Structure, raw: bytes, at: int, level: int) -> None:
        end = at + self._length(kind, raw, at)
        if at + kind.length > end or end > len(raw):
            raise GraphError(f"{kind.name}: a segment is shorter than its structure")
        for field in kind.fields:
            if field is not kind.next:
                value = self._value(segment, field, raw, at + field.offset, end, level)
                segment.__dict__[field.name] = value

    def _length(self, kind: Structure, raw: bytes, at: int) -> int:
        """Of a segment that tells it: in a chain that was laid out anew in the machine's order."""
        if kind.segment == "F":
            return kind.length
        if at + 2 > len(raw):
            return 0
        code = self._length_order + ("h" if kind.segment == "C" else "H")
        told: int = struct.unpack_from(code, raw, at)[0]
        return told + 2 if kind.segment == "C" else told

    def _value(self, segment: Segment, field: Field, raw: bytes, at: int, end: int,
               level: int) -> Any:
        name = field.type
        if name in ADDRESSES:
            return self._pointer(segment, field, self._number("UBigInt", raw, at), level)
        if name in NUMBERS:
            return self._numbers[name].unpack_from(raw, at)[0]
        if field.takes_rest:
            return raw[at:end]
        part = raw[at:at + field.length]
        if name == "Bin":
            return part
        if name in ("Char", "CharSZ"):
            text = part.decode(self._encoding, "surrogateescape")
            return text.partition("\0")[0] if name == "CharSZ" else text
        wide = part[:len(part) // 2 * 2].decode(
            "utf-16-le" if self._order == "<" else "utf-16-be", "surrogatepass")
        return wide.partition("\0")[0] if name == "WCharSZ" else wide

    def _pointer(self, segment: Segment, field: Field, address: int, level: int) -> Any:
        if field.reference:
            if address:
                self._references.append((segment, field, address))
            return None
        if field.type == "Pnt" and field.target is not None:
            made = self._list(address, field.target, level + 1)
            if field.target.next is not None:
                return made
            return made[0] if made else None
        if address == 0:
            return None
        raw, at = self._bytes_at(address)
        if field.type == "PStr":
            end = raw.find(b"\0", at)
            if end < 0:
                raise GraphError(f"{segment.kind}: field {field.name} is no string")
            return raw[at:end].decode(self._encoding, "surrogateescape")
        end = at
        while end + 2 <= len(raw) and raw[end:end + 2] != b"\0\0":
            end += 2
        if end + 2 > len(raw):
            raise GraphError(f"{segment.kind}: field {field.name} is no string")
        return raw[at:end].decode("utf-16-le", "surrogatepass")


_NATIVE = struct.Struct("<Q")


def _file_bytes(file: Any) -> bytes:
    if isinstance(file, (bytes, bytearray, memoryview)):
        return bytes(file)
    if isinstance(file, (str, os.PathLike)):
        with open(file, "rb") as opened:
            return opened.read()
    read: bytes = file.read()
    return read


def read_chain(file: Any, definitions: Any, *, encoding: str = "utf-8",
               process: Process | None = None) -> list[Segment]:
    """The segments of a packed chain as objects: the root and those that follow it as siblings.

    A field is an attribute. A child is its :class:`Segment` or None; a child whose structure has
    ``next`` is the list of it and its siblings; a reference is the segment that it leads to.
    Texts are str, with bytes that cannot be decoded as surrogate escapes. Numbers are turned when
    the writer's byte order was another one.

    The file need not be trusted. :class:`MemError` when the library refuses it,
    :class:`GraphError` when it is no chain or not one of these structures.

    :param file: a path, the bytes, or an open binary file
    :param definitions: :class:`Definitions`, or what they are made from; the first structure is the
        root's
    :param encoding: of narrow text
    """
    plan = _Plan(Definitions.of(definitions))
    chain = _File(_file_bytes(file))
    with current_process(process) as used, _Blocks(used) as blocks:
        blocks.load(chain.blocks)
        loaded = blocks.first.value
        root = ctypes.c_void_p()
        result = ctypes.c_void_p(loaded)
        used.slots.MEM_Unpack.call(result, root, plan.block)
        if result.value != loaded:  # laid out anew, for a writer of another pointer width
            blocks.free()
            blocks.first.value = result.value
            blocks.length = CONSTANTS["MEM_UNPACK_BLOCK_LEN"]
        elif not chain.describes(plan):
            raise GraphError("the chain describes other structures")
        length_order = chain.order if result.value == loaded else "<"
        reader = _Reader(blocks, plan, chain.order, length_order, encoding)
        return reader.read(root.value or 0)


# Writing

class _Writer:
    """Lays segments out as the packer wants to see them."""

    def __init__(self, plan: _Plan, encoding: str) -> None:
        self._plan = plan
        self._encoding = encoding
        self.arena = bytearray()
        self._places: dict[int, int] = {}  # offset of a segment by the object's id
        self._links: list[tuple[int, int]] = []
        self._references: list[tuple[int, Any, Field]] = []
        self._keep: Any = None

    def lay_out(self, roots: Iterable[Any]) -> int:
        first = self._list(list(roots), self._plan.kinds[0])
        if first is None:
            raise GraphError("a chain has a root")
        self._keep = ctypes.c_char.from_buffer(self.arena)
        base = ctypes.addressof(self._keep)
        for place, target, field in self._references:
            if id(target) not in self._places:
                raise GraphError(f"field {field.name} refers to a segment that is not in the chain")
            self._links.append((place, self._places[id(target)]))
        for place, offset in self._links:
            _POINTER.pack_into(self.arena, place, base + offset)
        return base + first

    def _append(self, raw: bytes) -> int:
        self.arena += bytes(-len(self.arena) % 8)
        at = len(self.arena)
        self.arena += raw
        return at

    def _list(self, segments: list[Any], kind: Structure) -> int | None:
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

    def _segment(self, segment: Any, kind: Structure) -> int:
        if id(segment) in self._places:
            raise GraphError(f"a {kind.name} has two owners; one of them may be a reference")
        values = segment if isinstance(segment, dict) else vars(segment)
        for name in values:
            if name not in kind.by_name and name != "kind":
                raise GraphError(f"{kind.name}: there is no field {name!r}")
        rest = b""
        for field in kind.fields:
            if field.takes_rest:
                rest = plain_bytes(values.get(field.name) or b"")
        raw = bytearray(kind.length) + rest
        if kind.segment != "F":
            told = len(raw) - 2 if kind.segment == "C" else len(raw)
            if told > (0x7FFF if kind.segment == "C" else 0xFFFF):
                raise GraphError(f"{kind.name}: a segment of {len(raw)} bytes is too long")
            struct.pack_into("<H", raw, 0, told)
        at = self._places[id(segment)] = self._append(raw)
        for field in kind.fields:
            value = values.get(field.name)
            if value is None or field is kind.next or field.takes_rest:
                continue
            try:
                self._value(field, value, at + field.offset)
            except (struct.error, ValueError, OverflowError) as error:
                raise GraphError(str(error) if isinstance(error, GraphError) else
                                 f"{kind.name}.{field.name}: {error}") from None
        return at

    def _value(self, field: Field, value: Any, place: int) -> None:
        if field.type in NUMBERS:
            struct.pack_into("<" + NUMBERS[field.type][1], self.arena, place, value)
        elif field.reference:
            self._references.append((place, value, field))
        elif field.type == "Pnt" and field.target is not None:
            listed = value if isinstance(value, (list, tuple)) else [value]
            first = self._list(list(listed), field.target)
            if first is not None:
                self._links.append((place, first))
        elif field.is_address:
            self._links.append((place, self._append(self._text(field, value))))
        else:
            if field.type in ("Char", "CharSZ") and isinstance(value, str):
                value = value.encode(self._encoding, "surrogateescape")
            raw = array_bytes(field, value)
            self.arena[place:place + len(raw)] = raw

    def _text(self, field: Field, value: Any) -> bytes:
        if field.type == "WPStr":
            raw, zero = wide_bytes(value), b"\0\0"
        elif isinstance(value, str):
            raw, zero = value.encode(self._encoding, "surrogateescape"), b"\0"
        else:
            raw, zero = narrow_bytes(value), b"\0"
        if any(raw[at:at + len(zero)] == zero for at in range(0, len(raw), len(zero))):
            raise GraphError("text with a zero in it")
        return raw + zero


def write_chain(segments: Any, definitions: Any, file: Any = None, *, encoding: str = "utf-8",
                block_length: int = 32768, process: Process | None = None) -> bytes:
    """Packs segments and all that they own, and returns the chain's file form.

    :param segments: the root, or the list of it and its siblings: objects with the fields as
        attributes, such as :class:`Segment`, or dicts. What is left out is zero
    :param file: a path or an open binary file to which the bytes are written, too
    """
    plan = _Plan(Definitions.of(definitions))
    writer = _Writer(plan, encoding)
    address = writer.lay_out(segments if isinstance(segments, (list, tuple)) else [segments])
    with current_process(process) as used, _Blocks(used) as blocks:
        blocks.length = block_length
        result = used.slots.MEM_Pack(plan.block, address, block_length, blocks.first)
        if result:
            used.host.fail("MEM_Pack", result)
        raw = b"".join(
            ctypes.string_at(block + _HEAD, ctypes.c_uint16.from_address(block + _HEAD).value)
            for block in blocks.addresses())
    if isinstance(file, (str, os.PathLike)):
        with open(file, "wb") as opened:
            opened.write(raw)
    elif file is not None:
        file.write(raw)
    return raw
