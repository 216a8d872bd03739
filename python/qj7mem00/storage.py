"""The storage of a Python host, with an account of it.

Every area is filled with zeros and aligned to 16 bytes. Small ones are byte arrays, others
anonymous maps, whose pages can be made read-only. Any number of threads can use it.
"""

from __future__ import annotations

import bisect
import ctypes
import mmap
import sys
import threading
from dataclasses import dataclass
from typing import Callable

from .contract import CONSTANTS

_MAPPED_LENGTH = 65536
_PROTECTED_SUBPOOL: int = CONSTANTS["MEM_SINK_SUBPOOL"]
_READ_ONLY: int = CONSTANTS["MEM_PROTECT_READ_ONLY"]
_WRITABLE: int = CONSTANTS["MEM_PROTECT_WRITABLE"]
POOL_KIND = 0xFFFF  #: kind of the storage that GetPoolStorage allocates

_Protect = Callable[[int, int, bool], bool]


def _protector() -> _Protect:
    """Makes whole pages read-only or writable again."""
    if sys.platform == "win32":
        protect = ctypes.WinDLL("kernel32").VirtualProtect
        protect.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_uint32, ctypes.c_void_p]
        before = ctypes.c_uint32()
        return lambda address, length, read_only: bool(
            protect(address, length, 0x02 if read_only else 0x04, ctypes.byref(before)))
    protect = ctypes.CDLL(None).mprotect
    protect.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int]
    return lambda address, length, read_only: protect(address, length, 1 if read_only else 3) == 0


@dataclass
class Account:
    """Sums of the areas of a subpool and kind, or of all."""

    live_bytes: int = 0
    live_areas: int = 0
    total_bytes: int = 0
    total_areas: int = 0
    peak_bytes: int = 0

    def _add(self, length: int) -> None:
        self.live_bytes += length
        self.live_areas += 1
        self.total_bytes += length
        self.total_areas += 1
        self.peak_bytes = max(self.peak_bytes, self.live_bytes)

    def _subtract(self, length: int) -> None:
        self.live_bytes -= length
        self.live_areas -= 1


@dataclass(frozen=True)
class Leak:
    """An area that has not been freed."""

    address: int
    length: int
    subpool: int
    kind: int


@dataclass
class _Area:
    keeper: bytearray | mmap.mmap
    length: int
    subpool: int
    kind: int


class Storage:
    """The allocated areas, by address."""

    def __init__(self, limit: int) -> None:
        self._limit = limit
        self._lock = threading.Lock()
        self._areas: dict[int, _Area] = {}
        self._addresses: list[int] = []  # sorted
        self._accounts: dict[tuple[int, int], Account] = {}
        self._all = Account()
        self._protect = _protector()
        #: misuse: areas that were freed twice, or with another length or subpool
        self.misuses: list[str] = []

    def obtain(self, length: int, subpool: int, kind: int) -> int:
        """Address of a new area; 0 if there is no storage or the limit is reached."""
        keeper: bytearray | mmap.mmap
        with self._lock:
            if self._all.live_bytes + length > self._limit:
                return 0
        try:
            if subpool == _PROTECTED_SUBPOOL or length >= _MAPPED_LENGTH:
                keeper = mmap.mmap(-1, max(length, 1))
            else:
                keeper = bytearray(max(length, 1))
        except (MemoryError, OSError, ValueError, OverflowError):
            return 0
        address = ctypes.addressof(ctypes.c_char.from_buffer(keeper))
        with self._lock:
            self._areas[address] = _Area(keeper, length, subpool, kind)
            bisect.insort(self._addresses, address)
            self._accounts.setdefault((subpool, kind), Account())._add(length)
            self._all._add(length)
        return address

    def give_back(self, address: int, length: int | None, subpool: int, pool: bool) -> None:
        """Frees an area. A length of None is not compared."""
        with self._lock:
            area = self._areas.pop(address, None)
            if area is None:
                self.misuses.append(f"{address:#x} is not a live area")
                return
            del self._addresses[bisect.bisect_left(self._addresses, address)]
            self._accounts[area.subpool, area.kind]._subtract(area.length)
            self._all._subtract(area.length)
            if (length is not None and length != area.length) or subpool != area.subpool or (
                    pool != (area.kind == POOL_KIND)):
                self.misuses.append(f"{address:#x}, {area.length} bytes of subpool {area.subpool}, "
                                    f"was freed with {length} and {subpool}")
        if isinstance(area.keeper, mmap.mmap):
            area.keeper.close()

    def _area_at(self, address: int) -> tuple[int, _Area] | None:
        place = bisect.bisect_right(self._addresses, address) - 1
        if place < 0:
            return None
        base = self._addresses[place]
        return base, self._areas[base]

    def covers(self, address: int, length: int) -> bool:
        """Whether the range is within one live area."""
        with self._lock:
            found = self._area_at(address)
            return found is not None and address + length <= found[0] + found[1].length

    def protect(self, address: int, length: int, subpool: int, mode: int) -> bool:
        """Changes the pages with bytes of the range."""
        with self._lock:
            found = self._area_at(address)
            if found is None or mode not in (_READ_ONLY, _WRITABLE):
                return False
            base, area = found
            if (area.subpool != subpool or address + length > base + area.length
                    or not isinstance(area.keeper, mmap.mmap)):
                return False
            first = (address - base) // mmap.PAGESIZE * mmap.PAGESIZE
            end = -(-(address - base + length) // mmap.PAGESIZE) * mmap.PAGESIZE
            return end == first or self._protect(base + first, end - first, mode == _READ_ONLY)

    def account(self, subpool: int | None = None, kind: int | None = None) -> Account:
        """A copy of the sums: of all, of a subpool, or of a subpool and kind."""
        with self._lock:
            if subpool is None:
                return Account(**vars(self._all))
            made = Account()
            for (pool, which), sums in self._accounts.items():
                if pool == subpool and kind in (None, which):
                    for name, value in vars(sums).items():
                        setattr(made, name, getattr(made, name) + value)
            return made

    def leaks(self) -> list[Leak]:
        """The areas that have not been freed, by address."""
        with self._lock:
            return [Leak(address, area.length, area.subpool, area.kind)
                    for address, area in sorted(self._areas.items())]
