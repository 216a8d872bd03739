"""Heaps, pools, tables, buffers and the sink as context managers.

Each belongs to the block that opens it. Allocated storage is an :class:`Area`. It has a reference
to its owner, and refuses to be read after the owner is closed.
"""

from __future__ import annotations

import ctypes
import zlib
from typing import TYPE_CHECKING, Any, Callable, Generic, Iterator, TypeVar

from .contract import CONSTANTS
from .formatting import narrow_at, wide_at
from .records import RECORDS

if TYPE_CHECKING:
    from .process import Process

_DUPLICATE: int = CONSTANTS["MEMERR_HASHDKEY"]
_NO_KEY: int = CONSTANTS["MEMERR_HASHNFND"]
_NOT_SUNK: int = CONSTANTS["MEMERR_SINKNFND"]


class Area:
    """Bytes that the library has allocated."""

    __slots__ = ("address", "length", "_owner")

    def __init__(self, address: int, length: int, owner: "_Owner | None") -> None:
        self.address = address
        self.length = length
        self._owner = owner

    def __len__(self) -> int:
        return self.length

    def __bytes__(self) -> bytes:
        return bytes(self.view())

    def __repr__(self) -> str:
        return f"<{self.length} bytes at {self.address:#x}>"

    def view(self) -> memoryview:
        """The bytes, to be read and written while the owner is open."""
        if self._owner is not None:
            self._owner.require_open()
        return memoryview((ctypes.c_ubyte * self.length).from_address(self.address)).cast("B")

    def write(self, data: bytes, offset: int = 0) -> None:
        """Writes within the area; data that does not fit is a ValueError."""
        if not 0 <= offset <= self.length - len(data):
            raise ValueError(f"{len(data)} bytes at {offset} do not fit into {self.length}")
        self.view()[offset:offset + len(data)] = data


class _Owner:
    """An object that is opened and closed once."""

    _close_slot = ""

    def __init__(self, process: "Process") -> None:
        self.process = process
        self.slots = process.slots
        self.handle: int | None = None

    def require_open(self) -> None:
        if self.handle is None or not self.process.is_open:
            raise ValueError(f"the {type(self).__name__} is closed")

    def _open(self, slot: str, *arguments: Any) -> None:
        cell = ctypes.c_void_p()
        self.slots[slot].call(cell, *arguments)
        self.handle = cell.value

    def _take(self, slot: str, length: int, *arguments: Any) -> Area:
        self.require_open()
        cell = ctypes.c_void_p()
        self.slots[slot].call(self.handle, *arguments, cell)
        return Area(cell.value or 0, length, self)

    def close(self) -> None:
        """Frees all storage. The end of the block does it, too; a second call does nothing."""
        if self.handle is None:
            return
        self.require_open()
        self.slots[self._close_slot].call(self.handle)
        self.handle = None

    def __enter__(self) -> Any:
        self.require_open()
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Heap(_Owner):
    """A standard heap: it frees its entries when it is closed. One thread at a time."""

    _close_slot = "MEM_HeapClose"
    _chain_slot = "MEM_HeapAllocLongMultEntries"

    def __init__(self, process: "Process", area_kb: int = 64, subpool: int = 0) -> None:
        super().__init__(process)
        self._open("MEM_HeapOpen", area_kb, subpool)

    def allocate(self, length: int) -> Area:
        """An entry of 1 byte or more."""
        return self._take("MEM_HeapAllocEntryLong", length, length)

    def chain(self, length: int, count: int, link_offset: int = 0) -> list[Area]:
        """Linked entries: each has the address of the next at `link_offset`."""
        if not 0 <= link_offset <= length - 8:
            raise ValueError(f"a link at {link_offset} ends after {length} bytes")
        first = self._take(self._chain_slot, length, length, count, link_offset)
        areas = [first]
        while len(areas) < count:
            at = areas[-1].address + link_offset
            areas.append(Area(ctypes.c_uint64.from_address(at).value, length, self))
        return areas


class EnhancedHeap(Heap):
    """An enhanced heap: any number of threads can share it, and entries can be freed."""

    _close_slot = "MEM_EHeapClose"
    _chain_slot = "MEM_EHeapAllocLongMultEntries"

    def __init__(self, process: "Process", area_kb: int = 64, subpool: int = 0) -> None:
        _Owner.__init__(self, process)
        self._open("MEM_EHeapOpen", area_kb, subpool)

    def allocate(self, length: int) -> Area:
        return self._take("MEM_EHeapAllocEntry", length, length)

    def free(self, area: Area) -> None:
        """Frees an entry; it must not be used again."""
        self.require_open()
        self.slots.MEM_EHeapFreeEntry.call(self.handle, area.length, area.address)


class CellPool(_Owner):
    """Cells of one length. One thread at a time."""

    _close_slot = "MEM_CellClose"

    def __init__(self, process: "Process", cell_length: int, area_length: int = 65536,
                 subpool: int = 0) -> None:
        super().__init__(process)
        self.cell_length = cell_length
        self._open("MEM_CellOpen", area_length, cell_length, subpool)

    def allocate(self) -> Area:
        return self._take("MEM_CellAllocEntry", self.cell_length)

    def free(self, cell: Area) -> None:
        """Frees a cell; it must not be used again."""
        self.require_open()
        self.slots.MEM_CellFreeEntry.call(self.handle, cell.address)

    def clear(self) -> None:
        """Frees all cells at once."""
        self.require_open()
        self.slots.MEM_CellClear.call(self.handle)


class HashTable(_Owner):
    """Records of one length with a key at a fixed offset. One thread at a time.

    :param hash: function from a key to its bucket, 0 to `buckets` - 1; without it a checksum
    """

    _close_slot = "MEM_HashClose"

    def __init__(self, process: "Process", record_length: int, key_offset: int, key_length: int,
                 buckets: int = 256, hash: Callable[[bytes], int] | None = None,
                 area_kb: int = 64, subpool: int = 0) -> None:
        super().__init__(process)
        if key_length < 1 or not 0 <= key_offset <= record_length - key_length:
            raise ValueError(f"a key of {key_length} bytes at {key_offset} is not within "
                             f"{record_length}")
        self.record_length = record_length
        self.key_length = key_length
        function = hash or (lambda key: zlib.crc32(key) % buckets)

        def bucket(address: int) -> int:
            return function(ctypes.string_at(address, key_length))
        self._function = process.host.guarded_callback("MEMHashFunc", bucket)
        self._open("MEM_HashOpen", key_offset, key_length, buckets - 1, self._function, area_kb,
                   subpool)

    def insert(self, record: bytes) -> tuple[Area, bool]:
        """The table's copy and True; or the record that has the same key, and False."""
        self.require_open()
        if len(record) != self.record_length:
            raise ValueError(f"a record has {self.record_length} bytes, not {len(record)}")
        cell = ctypes.c_void_p()
        slot = self.slots.MEM_HashInsEntry
        result = slot(self.handle, len(record), bytes(record), cell)
        if result not in (0, _DUPLICATE):
            self.process.host.fail(slot.name, result)
        return Area(cell.value or 0, self.record_length, self), result == 0

    def _key(self, key: bytes) -> bytes:
        self.require_open()
        if len(key) != self.key_length:
            raise ValueError(f"a key has {self.key_length} bytes, not {len(key)}")
        return bytes(key)

    def get(self, key: bytes) -> Area | None:
        """The record with the key, or None."""
        cell = ctypes.c_void_p()
        slot = self.slots.MEM_HashGetEntry
        result = slot(self.handle, self._key(key), cell)
        if result == _NO_KEY:
            return None
        if result:
            self.process.host.fail(slot.name, result)
        return Area(cell.value or 0, self.record_length, self)

    def delete(self, key: bytes) -> bool:
        """Removes the record with the key; False if there is no such record."""
        slot = self.slots.MEM_HashDelEntry
        result = slot(self.handle, self._key(key))
        if result not in (0, _NO_KEY):
            self.process.host.fail(slot.name, result)
        return bool(result == 0)

    def scan(self) -> list[Area]:
        """All records, bucket by bucket in order of insertion."""
        self.require_open()
        found: list[Area] = []

        def visit(record: int, parameter: int | None) -> int:
            found.append(Area(record, self.record_length, self))
            return 0
        callback = self.process.host.guarded_callback("MEMScanFunc", visit)
        self.slots.MEM_HashScan.call(self.handle, callback, None)
        return found

    def __iter__(self) -> Iterator[Area]:
        return iter(self.scan())


class Buffer(_Owner):
    """A concatenation buffer of wide text. One thread at a time."""

    _close_slot = "MEM_CatClose"

    def __init__(self, process: "Process") -> None:
        super().__init__(process)
        self._block = RECORDS["MEMCatCB"]()
        self.slots.MEM_CatOpen.call(self._block)
        self.handle = ctypes.addressof(self._block)

    def append(self, text: str) -> None:
        """Appends text; a zero in it is kept."""
        self.require_open()
        raw = text.encode("utf-16-le", "surrogatepass")
        self.slots.MEM_MemCat.call(self._block, text, len(raw) // 2)

    def append_until_zero(self, text: str) -> None:
        """Appends text up to its first zero, as the slot for terminated text does."""
        self.require_open()
        self.slots.MEM_Cat.call(self._block, text)

    @property
    def text(self) -> str:
        self.require_open()
        if not self._block.Len:
            return ""
        raw = ctypes.string_at(self._block.pText, 2 * self._block.Len)
        return raw.decode("utf-16-le", "surrogatepass")

    def __len__(self) -> int:
        """Characters: units of 16 bits."""
        return int(self._block.Len)


_Text = TypeVar("_Text", bytes, str)


class SunkText(Generic[_Text]):
    """One use of a shared copy in the sink."""

    __slots__ = ("address", "_kind")

    def __init__(self, address: int, kind: type[_Text]) -> None:
        self.address = address
        self._kind = kind

    @property
    def is_wide(self) -> bool:
        return self._kind is str

    @property
    def text(self) -> _Text:
        """Read from the sink; only until the use is given up."""
        read: Callable[[int], Any] = wide_at if self.is_wide else narrow_at
        made: _Text = read(self.address)
        return made


class Sink:
    """The process's string sink: narrow text as bytes, wide text as str. The end of the block gives
    up the uses that were taken in it."""

    def __init__(self, process: "Process") -> None:
        self.process = process
        self._uses: list[SunkText[Any]] = []

    def __enter__(self) -> "Sink":
        return self

    def __exit__(self, *_: object) -> None:
        while self._uses:
            self._delete(self._uses[-1])
            self._uses.pop()

    @staticmethod
    def _kind(text: bytes | str) -> str:
        if not isinstance(text, (bytes, str)):
            raise TypeError(f"a sunk text is bytes or str, not {type(text).__name__}")
        if ("\0" if isinstance(text, str) else b"\0") in text:  # type: ignore[operator]
            raise ValueError("a sunk text ends at its first zero")
        return "MEM_WSink" if isinstance(text, str) else "MEM_Sink"

    def sink(self, text: _Text) -> SunkText[_Text]:
        """Takes one more use of the shared copy, which is made for the first use."""
        cell = ctypes.c_void_p()
        self.process.slots[self._kind(text) + "String"].call(text, cell)
        use: SunkText[_Text] = SunkText(cell.value or 0, type(text))
        self._uses.append(use)
        return use

    def verify(self, text: _Text) -> int | None:
        """Address of the shared copy, or None. Takes no use."""
        cell = ctypes.c_void_p()
        slot = self.process.slots[self._kind(text) + "Verify"]
        result = slot(text, cell, None)
        if result == _NOT_SUNK:
            return None
        if result:
            self.process.host.fail(slot.name, result)
        return cell.value

    def delete(self, use: SunkText[Any]) -> None:
        """Gives up a use that was taken in this block."""
        self._uses.remove(use)
        self._delete(use)

    def _delete(self, use: SunkText[Any]) -> None:
        name = "MEM_WSinkDelete" if use.is_wide else "MEM_SinkDelete"
        self.process.slots[name].call(use.address)


class Storage(_Owner):
    """Storage by subpool, freed at the end of its block."""

    def __init__(self, process: "Process", length: int, subpool: int = 0) -> None:
        super().__init__(process)
        self.handle = self.slots.MEM_Alloc.call(length, subpool)
        self._subpool = subpool
        self.area = Area(self.handle or 0, length, self)

    def __enter__(self) -> Area:
        self.require_open()
        return self.area

    def close(self) -> None:
        if self.handle is not None:
            self.slots.MEM_Free(self.handle, self.area.length, self._subpool)
            self.handle = None

