"""Loading and binding the library; start and end of a process and its threads."""

from __future__ import annotations

import contextlib
import ctypes
import os
import sys
import sysconfig
import threading
from pathlib import Path
from types import TracebackType
from typing import Any, Callable, Iterator

from .contract import CONSTANTS, CONTRACT
from .host import TRACE_ENTRY, TRACE_EXIT, Host, Trace
from .objects import Buffer, CellPool, EnhancedHeap, HashTable, Heap, Sink, Storage
from .records import RECORDS, prototype
from .slots import Slots

LIBRARY_VARIABLE = "QJ7MEM00_LIBRARY"
_FILE = "QJ7MEM00.dll" if sys.platform == "win32" else "QJ7MEM00.so"


def _places() -> Iterator[Path]:
    yield Path(__file__).parent / _FILE
    prefixes = dict.fromkeys([sys.prefix, "/usr/local", "/usr"])
    folders = ["lib", f"lib/{sysconfig.get_config_var('MULTIARCH') or ''}", "lib64"]
    for prefix in prefixes:
        for folder in folders:
            yield Path(prefix) / folder / "qj7mem00" / _FILE
        yield Path(prefix) / "bin" / _FILE


def find_library() -> Path:
    """The library's file: that of the variable QJ7MEM00_LIBRARY, next to this package, or
    installed under the prefix of Python, /usr/local or /usr."""
    named = os.environ.get(LIBRARY_VARIABLE)
    if named:
        return Path(named)
    for place in _places():
        if place.exists():
            return place
    raise FileNotFoundError(f"{_FILE} is not next to the package nor installed; name it, or set "
                            f"{LIBRARY_VARIABLE}")


def _cells(vectors: list[Any], count: int) -> tuple[Any, Any]:
    """The addresses of cells that hold the vectors' addresses, and the cells."""
    cells = (ctypes.c_void_p * count)(*(ctypes.addressof(vector) for vector in vectors))
    base = ctypes.addressof(cells)
    return (ctypes.c_void_p * count)(*(base + 8 * index for index in range(count))), cells


class Thread:
    """A thread's use of the library: ``with process.thread():`` on that thread."""

    def __init__(self, process: "Process") -> None:
        self._process = process

    def __enter__(self) -> "Thread":
        self._process.host.thread.clear_error()  # the call does not clear it
        self._process.slots.MEM_ThreadAct.call()
        return self

    def __exit__(self, *_: object) -> None:
        self._process.slots.MEM_ThreadTerm.call()


class Process:
    """The library, loaded, bound to a host of its own and started.

    ::

        with Process() as process:
            with process.heap(area_kb=64) as heap:
                area = heap.allocate(100)

    The block binds the library and starts the process and the calling thread; its end ends them in
    reverse order. Other threads use ``with process.thread():``. A library can be bound only once at
    a time.

    :param library: the file; without it, :func:`find_library` searches for it
    :param trace: called with each :class:`~qj7mem00.host.TraceRecord`
    :param trace_flags: which records are written; with `trace` entry and exit records, else none
    :param storage_limit: most bytes that the library can hold at once
    """

    _bound: set[str] = set()
    _open: list["Process"] = []
    _bind_lock = threading.Lock()

    def __init__(self, library: str | os.PathLike[str] | None = None, *,
                 trace: Trace | None = None, trace_flags: int | None = None,
                 storage_limit: int = 1 << 32) -> None:
        self.path = Path(library) if library is not None else find_library()
        if trace_flags is None:
            trace_flags = TRACE_ENTRY | TRACE_EXIT if trace is not None else 0
        self.host = Host(trace, trace_flags, storage_limit)
        self.slots = Slots(self.host)
        self._loaded = ctypes.CDLL(str(self.path))
        self._bind_entry = prototype(CONTRACT["bind"])((CONTRACT["bind"]["name"], self._loaded))
        self._lists: tuple[Any, ...] = ()
        self._own_thread = Thread(self)
        self._key = os.path.realpath(self.path)
        self._is_for_others = True  # used by calls without a process
        self._watchers = 0
        self._watch_lock = threading.Lock()
        # The slot's own function, its replacement, and what they are made of
        self._watched: tuple[int, Any, Any] | None = None
        self.is_open = False

    # Start and end

    def bind(self) -> None:
        """Fills the slots. The begin of the block does it."""
        with self._bind_lock:
            if self._key in self._bound:
                raise RuntimeError(f"{self.path} is already bound: use one Process at a time")
            self._bound.add(self._key)
        vectors = self.host.vectors
        hosts: list[Any] = [None] * CONSTANTS["MEM_HOST_VECTORS"]
        hosts[CONSTANTS["MEM_HOST_RUNTIME"]] = vectors["MEMRuntimeServices"]
        hosts[CONSTANTS["MEM_HOST_TRACE"]] = vectors["MEMTraceServices"]
        hosts[CONSTANTS["MEM_HOST_TEXT"]] = vectors["MEMTextServices"]
        hosts[CONSTANTS["MEM_HOST_VECTOR"]] = self.slots.vector
        spare = (ctypes.c_void_p * 1)()
        listed = _cells([vector if vector is not None else spare for vector in hosts], len(hosts))
        count = CONSTANTS["MEM_SERVICE_VECTORS"]
        services = _cells([spare] * count, count)
        self._lists = (*listed, *services, spare)
        self._bind_entry(ctypes.addressof(listed[0]), ctypes.addressof(services[0]), None, 0,
                         CONSTANTS["MEM_MODE_BIND"])

    def unbind(self) -> None:
        """Clears the slots. The end of the block does it."""
        self._bind_entry(None, None, None, 0, 0)
        with self._bind_lock:
            self._bound.discard(self._key)

    def __enter__(self) -> "Process":
        self.bind()
        try:
            self.slots.MEM_ProcessInit.call()
            self._own_thread.__enter__()
        except BaseException:
            try:
                self.slots.MEM_ProcessTerm()  # frees what is left
            finally:
                self.unbind()
            raise
        self.is_open = True
        if self._is_for_others:
            self._open.append(self)
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.is_open = False
        if self._is_for_others:
            self._open.remove(self)
        try:
            self._own_thread.__exit__()
            self.slots.MEM_ProcessTerm.call()
        finally:
            self.unbind()

    def thread(self) -> Thread:
        """The library on another thread: ``with process.thread():`` there."""
        return Thread(self)

    def set_options(self, *, old_pack_cb: bool) -> None:
        """Sets the process option: chains are packed with the old control block."""
        options = RECORDS["MEMProcOptions"](Set=1, OldPackCB=1 if old_pack_cb else 0)
        self.slots.MEMSetProcOptions.call(options)

    # Heap entries of one thread's calls, for readers that must know every address

    def watch_entries(self, heap: Heap) -> "EntryWatch":
        """Within it, the length of every entry of the heap is known by its address."""
        return EntryWatch(self, heap)

    # Objects, each to be used as ``with process.heap() as heap:``

    def heap(self, area_kb: int = 64, subpool: int = 0) -> Heap:
        return Heap(self, area_kb, subpool)

    def enhanced_heap(self, area_kb: int = 64, subpool: int = 0) -> EnhancedHeap:
        return EnhancedHeap(self, area_kb, subpool)

    def pool(self, cell_length: int, area_length: int = 65536, subpool: int = 0) -> CellPool:
        return CellPool(self, cell_length, area_length, subpool)

    def table(self, record_length: int, key_offset: int, key_length: int, buckets: int = 256,
              hash: Callable[[bytes], int] | None = None, area_kb: int = 64,
              subpool: int = 0) -> HashTable:
        return HashTable(self, record_length, key_offset, key_length, buckets, hash, area_kb,
                         subpool)

    def buffer(self) -> Buffer:
        return Buffer(self)

    def sink(self) -> Sink:
        return Sink(self)

    def allocate(self, length: int, subpool: int = 0) -> Storage:
        return Storage(self, length, subpool)


_one_at_a_time = threading.RLock()  # of the processes that calls open for themselves


@contextlib.contextmanager
def current_process(process: Process | None) -> Iterator[Process]:
    """This process, or the open one, or a new one for the duration of the block."""
    if process is None and Process._open:
        process = Process._open[-1]
    if process is not None:
        yield process
        return
    with _one_at_a_time:
        made = Process()
        made._is_for_others = False
        with made:
            yield made


class EntryWatch:
    """Within the block, slot 14 notes the entries that this thread allocates in one heap, as
    address and length in ``entries``. Calls for other heaps and of other threads pass through."""

    _SLOT = next(row for row in CONTRACT["slots"] if row["name"] == "MEM_HeapAllocEntryLong")

    def __init__(self, process: Process, heap: Heap) -> None:
        self._process = process
        self.heap = heap.handle
        self.entries: dict[int, int] = {}

    def __enter__(self) -> "EntryWatch":
        process = self._process
        with process._watch_lock:
            if process._watchers == 0:
                self._install()
            process._watchers += 1
        process.host.thread.watch = self
        return self

    def __exit__(self, *_: object) -> None:
        process = self._process
        process.host.thread.watch = None
        with process._watch_lock:
            process._watchers -= 1
            if process._watchers == 0 and process._watched is not None:
                process.slots.vector[self._SLOT["number"]] = process._watched[0]

    def _install(self) -> None:
        process, number = self._process, self._SLOT["number"]
        own = process.slots.vector[number]
        if process._watched is None or process._watched[0] != own:
            kind = prototype(self._SLOT)
            real = kind(own)
            replacement = kind(_recorder(real, process.host))
            process._watched = (own, replacement, real)
        process.slots.vector[number] = ctypes.cast(process._watched[1], ctypes.c_void_p).value


def _recorder(real: Any, host: Host) -> Callable[[int, int, int], int]:
    cell = ctypes.c_void_p.from_address

    def allocate(heap: int, length: int, place: int) -> int:
        result: int = real(heap, length, place)
        watch = host.thread.watch
        if result == 0 and watch is not None and watch.heap == heap:
            watch.entries[cell(place).value or 0] = length
        return result
    return allocate
