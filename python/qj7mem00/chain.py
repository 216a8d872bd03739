"""Packed chains as objects, and back, through the library."""

from __future__ import annotations

import ctypes
import os
from typing import Any, Iterator

from .chain_definitions import ChainDefinitions
from .chain_layout import ChainFile, Kind, Widened, control_block
from .chain_reader import Memory, Reader, Segment
from .chain_writer import Writer
from .contract import CONSTANTS
from .definitions import Definitions
from .errors import DefinitionError, GraphError, MemError
from .process import Process, current_process

__all__ = ["Segment", "read_chain", "write_chain"]

_HEAD = 8  # bytes of a block before its used length
_USUAL_BLOCK = 32768
_POINTER_AT = ctypes.c_void_p.from_address


class _Blocks:
    """Blocks of a chain in the library's storage, freed at the end of the block."""

    def __init__(self, process: Process) -> None:
        self.process = process
        self.first = ctypes.c_void_p()
        self.length = 0  # of the blocks that the library has allocated
        self._lengths: dict[int, int] = {}  # of the loaded ones, by address

    def __enter__(self) -> "_Blocks":
        return self

    def load(self, blocks: list[bytes]) -> None:
        link = ctypes.addressof(self.first)
        for block in blocks:
            address = self.process.slots.MEM_Alloc.call(_HEAD + len(block), 0)
            self._lengths[address] = _HEAD + len(block)
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

    def copy(self) -> Memory:
        return Memory(sorted((address + _HEAD,
                              ctypes.string_at(address + _HEAD, self._length_of(address) - _HEAD))
                             for address in self.addresses()))

    def free(self) -> None:
        for address in self.addresses():
            self.process.slots.MEM_Free(address, self._length_of(address), 0)
        self.first.value = None
        self._lengths.clear()

    def _length_of(self, address: int) -> int:
        return self._lengths.get(address, self.length)

    def __exit__(self, *_: object) -> None:
        self.free()


# Reading

class _Layout:
    """The kinds of segments that the library is asked for.

    The chain's own kinds, if the definitions describe them: then the library unpacks a chain with
    pointers of 8 bytes in place, and makes a new one of the same fields for others. If they do
    not, they can be those of this platform for a chain with pointers of 4 bytes.
    """

    def __init__(self, definitions: ChainDefinitions, chain: ChainFile) -> None:
        self.fault: GraphError | DefinitionError | None = None
        can_be_long = _is_valid_with_long_pointers(definitions)
        self.width = definitions.pointers or (8 if can_be_long and chain.are_apart(8) else 4)
        try:
            definitions.check_against(chain, self.width)
        except (GraphError, DefinitionError) as error:
            if definitions.pointers == 4 or not can_be_long:
                raise
            self.fault = error
        self.kinds: list[Kind | None] = []
        self.widened: list[Widened | None] = []
        if self.fault is not None:
            self._take(list(definitions.described_kinds()), 0)
        else:
            self._take(chain.kinds, chain.count)

    def _take(self, kinds: list[Kind | None], count: int) -> None:
        self.kinds = kinds
        self.widened = [None] * len(kinds)
        asked = kinds
        if self.fault is None and self.width == 4:
            self.widened = [kind and Widened(kind, index == 0) for index, kind in enumerate(kinds)]
            asked = [each and each.kind for each in self.widened]
        self.block = control_block(asked, count or len(kinds))


def _is_valid_with_long_pointers(definitions: ChainDefinitions) -> bool:
    try:
        definitions.check_layout(8)
    except DefinitionError:
        return False
    return True


def _file_bytes(file: Any) -> bytes:
    if isinstance(file, (bytes, bytearray, memoryview)):
        return bytes(file)
    if isinstance(file, (str, os.PathLike)):
        with open(file, "rb") as opened:
            return opened.read()
    read: bytes = file.read()
    return read


def read_chain(file: Any, definitions: Any, *, encoding: str | None = None,
               process: Process | None = None) -> list[Any]:
    """The segments of a packed chain as objects: the root and those that follow it as siblings.

    A field is an attribute of its :class:`Segment`. A child is its segment or None; a child whose
    structure has ``next`` is the list of it and its siblings; a reference is the segment that it
    refers to. Texts are str, with bytes that cannot be decoded as surrogate escapes; arrays of
    numbers are lists. Numbers are converted from the writer's byte order.

    Bytes and pointers that no field describes are the attribute ``"+44"``, for the offset 44,
    unless they are zero. Of fields that the segment's end cuts and of text without an end the value
    is None, and their bytes have no name.

    The file need not be trusted. :class:`MemError` when the library refuses it,
    :class:`GraphError` when it is no chain or not one of these structures.

    :param file: a path, the bytes, or an open binary file
    :param definitions: :class:`Definitions`, or what they are made from; the first structure is the
        root's
    :param encoding: of narrow text; without it UTF-8, and of EBCDIC writers code page 037 for text
        that is not ASCII
    """
    known = Definitions.of(definitions, "chain").chain
    chain = ChainFile(_file_bytes(file))
    layout = _Layout(known, chain)
    with current_process(process) as used, _Blocks(used) as blocks:
        blocks.load(chain.blocks)
        loaded = blocks.first.value
        root = ctypes.c_void_p()
        result = ctypes.c_void_p(loaded)
        try:
            used.slots.MEM_Unpack.call(result, root, layout.block)
        except MemError as error:
            if layout.fault is not None and error.name == "MEMERR_PACKCBID" and chain.kinds:
                raise layout.fault from error  # with the place in the definitions
            raise
        is_new = result.value != loaded
        if is_new:
            blocks.free()
            blocks.first.value = result.value
            blocks.length = CONSTANTS["MEM_UNPACK_BLOCK_LEN"]
        elif layout.fault is not None:
            raise layout.fault
        elif layout.width == 4:
            raise GraphError("the chain has pointers of 8 bytes")
        reader = Reader(blocks.copy(), chain, known, layout.kinds, layout.widened, is_new, encoding)
        return reader.read(root.value or 0)


# Writing

def write_chain(segments: Any, definitions: Any, file: Any = None, *, encoding: str | None = None,
                block_length: int | None = None, process: Process | None = None) -> bytes:
    """Packs segments and all that they own, and returns the chain's file form.

    :param segments: the root, or the list of it and its siblings: objects with the fields as
        attributes, such as :class:`Segment`, or dicts. A value that is left out or None is zero
    :param file: a path or an open binary file to which the bytes are written, too
    :param encoding: of narrow text, UTF-8 without it
    :param block_length: without it 32,768, or as many bytes as the longest item needs
    """
    known = Definitions.of(definitions, "chain").chain
    if known.pointers == 4:
        raise DefinitionError("the definitions are for pointers of 4 bytes; chains are written "
                              "with 8")
    known.check_layout(8)
    kinds: list[Kind | None] = list(known.described_kinds())
    block = control_block(kinds, len(kinds))
    writer = Writer(known, encoding)
    address = writer.lay_out(segments if isinstance(segments, (list, tuple)) else [segments])
    if block_length is None:
        longest = max(writer.longest, ctypes.sizeof(block) + 4)
        block_length = max(_USUAL_BLOCK, longest + CONSTANTS["MEM_PACK_BLOCK_OVERHEAD"])
    with current_process(process) as used, _Blocks(used) as blocks:
        blocks.length = block_length
        result = used.slots.MEM_Pack(block, address, block_length, blocks.first)
        if result:
            used.host.fail("MEM_Pack", result)
        raw = b"".join(
            ctypes.string_at(each + _HEAD, ctypes.c_uint16.from_address(each + _HEAD).value)
            for each in blocks.addresses())
    if isinstance(file, (str, os.PathLike)):
        with open(file, "wb") as opened:
            opened.write(raw)
    elif file is not None:
        file.write(raw)
    return raw
