"""A host for the library, in Python: its service vectors and the functions in them.

The library reaches its host through tables of function pointers. Here these are ctypes callbacks:
storage with an account, gates, trace frames with a thread environment for each thread, trace
records that are passed to a callable, and the message table. An exception in a callback never
enters the library: it is kept, the library receives a failure, and the exception is raised when the
call has returned.
"""

from __future__ import annotations

import ctypes
import threading
from dataclasses import dataclass
from typing import Any, Callable, NoReturn

from .contract import CODE_MESSAGES, CODE_NAMES, CONSTANTS, CONTRACT, TYPES
from .errors import MemError
from .formatting import format_text, narrow_at, wide_at
from .records import RECORDS, ctype, prototype
from .storage import POOL_KIND, Storage

TRACE_ENTRY: int = CONSTANTS["MEM_TRACE_ENTRY"]
TRACE_EXIT: int = CONSTANTS["MEM_TRACE_EXIT"]
TRACE_STORAGE: int = CONSTANTS["MEM_TRACE_STORAGE"]
TRACE_SINK: int = CONSTANTS["MEM_TRACE_SINK"]

_COMPONENT: int = CONSTANTS["MEM_COMPONENT"]
_TEXT_ROOM = 8192  # of a trace buffer
_FORMAT_ARGUMENTS = 24  # more than any line of the library needs
_NO_STORAGE = 1
_NOT_STORAGE = 2
_NO_GATE = 3
_FAILED = 4  # the callback raised

_ThreadEnv = RECORDS["MEMThreadEnv"]
_TraceBuf = RECORDS["MEMTraceBuf"]
_TEXT_AT: int = _TraceBuf.Text.offset
_pointer = ctypes.c_void_p.from_address
_word = ctypes.c_uint32.from_address
_FRAME_ENV: int = RECORDS["MEMTraceFrame"].pThreadEnv.offset
_FRAME_FLAGS: int = RECORDS["MEMTraceFrame"].TraceFlags.offset


@dataclass(frozen=True)
class TraceRecord:
    """One trace record of the library."""

    type: str  #: ``"STDE"``, ``"STDX"``, ``"EXCP"``, ``"SL05"`` or ``"SL32"``
    function: str  #: trace name of the entry point
    text: str
    source: str  #: ``"..\\SrcRes\\MEMCHEAP"``
    line: int
    thread: int  #: number of the thread, from :func:`threading.get_ident`


Trace = Callable[[TraceRecord], None]


class ThreadState:
    """What the host keeps for one thread."""

    def __init__(self) -> None:
        self.env = _ThreadEnv()
        self.address: int = ctypes.addressof(self.env)
        self._buffer = ctypes.create_string_buffer(_TEXT_AT + _TEXT_ROOM)
        self.buffer: int = ctypes.addressof(self._buffer)
        self.env.pTraceBuf = self.buffer
        self.pending: BaseException | None = None
        self.reason = ""
        self.watch: Any = None  # of the heap entries of a call

    def clear_error(self) -> None:
        ctypes.memset(self.address + _ThreadEnv.Error.offset, 0, _ThreadEnv.Error.size)

    def text(self) -> str:
        """Of the trace buffer."""
        length = min(_word(self.buffer + _TraceBuf.TextLen.offset).value, _TEXT_ROOM)
        return ctypes.string_at(self.buffer + _TEXT_AT, length).decode("utf-8", "surrogateescape")


class Host:
    """The services of one bound library.

    :param trace: called with every trace record, on the thread of the call
    :param trace_flags: which records are written (``TRACE_…``); exception records always are
    :param storage_limit: most bytes that can be allocated at once; the library gets no more
    """

    def __init__(self, trace: Trace | None = None, trace_flags: int = 0,
                 storage_limit: int = 1 << 32) -> None:
        self.trace = trace
        self.trace_flags = trace_flags
        self.storage = Storage(storage_limit)
        #: MEMERR name and message by code, as the library has registered them
        self.messages: dict[int, tuple[str, str]] = {}
        self._anchor: int | None = None
        self._local = threading.local()
        self._gates: dict[int, threading.Lock] = {}
        self._last_gate = 0
        self._gate_lock = threading.Lock()
        self._keep: list[Any] = []
        self.vectors: dict[str, Any] = {}
        self._make_vectors()

    # The calling thread

    @property
    def thread(self) -> ThreadState:
        try:
            state: ThreadState = self._local.state
        except AttributeError:
            state = self._local.state = ThreadState()
        return state

    def raise_pending(self) -> None:
        """Raises what a callback of this thread has raised."""
        state = self.thread
        if state.pending is not None:
            error, state.pending = state.pending, None
            raise error

    def fail(self, service: str, result: int) -> NoReturn:
        """Raises the failure of the last call of this thread."""
        state = self.thread
        area = state.env.Error
        code = area.Code
        if not code and result in CODE_NAMES:  # a plain result, or recorded by its result alone
            code = result
        name, text = self.messages.get(code) or (CODE_NAMES.get(code, ""),
                                                 CODE_MESSAGES.get(code, ""))
        raise MemError(service, result, code, name, text,
                       area.NameText.decode("utf-8", "replace"), area.InnerCode,
                       area.InnerText.decode("utf-8", "replace"), state.reason)

    # Service vectors

    def _make_vectors(self) -> None:
        for record in CONTRACT["records"]:
            if record["name"].endswith("Services"):
                self.vectors[record["name"]] = (ctypes.c_void_p * (record["size"] // 8))()
        for service in CONTRACT["services"]:
            method = getattr(self, "_" + service["name"], None)
            if method is None:
                continue  # can be null: the library then has its own way
            callback = self._prototype(service)(self._guarded(method, ctype(service["result"])))
            self._keep.append(callback)
            address = ctypes.cast(callback, ctypes.c_void_p).value
            self.vectors[service["vector"]][service["slot"]] = address

    @staticmethod
    def _prototype(service: dict[str, Any]) -> Any:
        if not service.get("variadic"):
            return prototype(service)
        # Integers after the named ones are where further arguments of 64 bits would be, on every
        # platform of the library. Those that were not passed are not read.
        return ctypes.CFUNCTYPE(ctype(service["result"]),
                                *(ctype(row["type"]) for row in service["parameters"]),
                                *[ctypes.c_uint64] * _FORMAT_ARGUMENTS)

    def _guarded(self, method: Callable[..., Any], result: Any) -> Callable[..., Any]:
        failure = None if result is None else _FAILED

        def service(*arguments: Any) -> Any:
            try:
                return method(*arguments)
            except BaseException as error:  # raised again when the call has returned
                state = self.thread
                state.pending = state.pending or error
                return failure
        return service

    def guarded_callback(self, kind: str, function: Callable[..., Any]) -> Any:
        """A function of the caller, as a ctypes function of this type of the contract."""
        return prototype(TYPES[kind])(self._guarded(function, ctype(TYPES[kind]["result"])))

    # Frames

    def _EnterFrame(self, frame: int, component: int) -> None:
        _pointer(frame + _FRAME_ENV).value = self.thread.address
        _word(frame + _FRAME_FLAGS).value = self.trace_flags

    def _LeaveFrame(self, frame: int, component: int) -> None:
        pass

    def _GetAnchor(self, zero: int, component: int, cell: int) -> int:
        _pointer(cell).value = self._anchor
        return 0

    def _SetAnchor(self, zero: int, component: int, anchor: int | None) -> None:
        self._anchor = anchor

    @property
    def process_block(self) -> Any:
        """The library's process block, or None."""
        return RECORDS["MEMProcessBlock"].from_address(self._anchor) if self._anchor else None

    def _RegisterMessages(self, component: int, table: int | None) -> None:
        self.messages = {}
        row_type = RECORDS["MEMMessageRow"]
        while table:
            row = row_type.from_address(table)
            if row.Code == 0:
                break
            self.messages[row.Code] = (narrow_at(row.Name).decode(),
                                       narrow_at(row.Message).decode())
            table += ctypes.sizeof(row_type)

    # Storage

    def _refuse(self, code: int, text: bytes) -> int:
        """Sets the host's own error, which the library reads after a failing service."""
        area = self.thread.env.Error
        area.Code = code
        area.NameText = text
        return code

    def _GetPoolStorage(self, subpool: int, length: int, cell: int) -> int:
        return self._obtain(cell, length, subpool, POOL_KIND, b"GetPoolStorage")

    def _GetStorage(self, cell: int, length: int, subpool: int, kind: int) -> int:
        return self._obtain(cell, length, subpool, kind, b"GetStorage")

    def _obtain(self, cell: int, length: int, subpool: int, kind: int, name: bytes) -> int:
        address = self.storage.obtain(length, subpool, kind)
        if address == 0:
            return self._refuse(_NO_STORAGE, name)
        _pointer(cell).value = address
        return 0

    def _FreePoolStorage(self, subpool: int, area: int | None) -> None:
        self.storage.give_back(area or 0, None, subpool, True)

    def _FreeStorage(self, area: int | None, length: int, subpool: int) -> None:
        self.storage.give_back(area or 0, length, subpool, False)

    def _ProtectStorage(self, area: int | None, length: int, subpool: int, mode: int) -> int:
        if self.storage.protect(area or 0, length, subpool, mode):
            return 0
        return self._refuse(_NOT_STORAGE, b"ProtectStorage")

    def _CheckStorage(self, area: int | None, length: int) -> int:
        if self.storage.covers(area or 0, length):
            return 0
        return self._refuse(_NOT_STORAGE, b"CheckStorage")

    # Gates

    def _CreateGate(self, cell: int) -> int:
        with self._gate_lock:
            self._last_gate += 1
            self._gates[self._last_gate] = threading.Lock()
            _word(cell).value = self._last_gate
        return 0

    def _DeleteGate(self, gate: int) -> None:
        with self._gate_lock:
            self._gates.pop(gate, None)

    def _AcquireGate(self, gate: int) -> int:
        lock = self._gates.get(gate)
        if lock is None:
            return self._refuse(_NO_GATE, b"AcquireGate")
        lock.acquire()
        return 0

    def _ReleaseGate(self, gate: int) -> None:
        self._gates[gate].release()

    # Trace records

    def _Format(self, dest: int, text: int, *arguments: int) -> int:
        made = format_text(narrow_at(text).decode("latin-1"), arguments)
        raw = made.encode("utf-8", "surrogateescape")[:_TEXT_ROOM - 1]
        ctypes.memmove(dest, raw + b"\0", len(raw) + 1)
        return len(raw)

    def _write(self, kind: int, source: int, function: int, line: int, text: str) -> None:
        state = self.thread
        record = TraceRecord(narrow_at(kind).decode("latin-1"),
                             narrow_at(function).decode("latin-1"), text,
                             narrow_at(source).decode("latin-1"), line, threading.get_ident())
        if record.type == "EXCP":
            state.reason = text
        if self.trace is not None:
            self.trace(record)

    def _WriteRecord(self, component: int, zero: int, kind: int, source: int, function: int,
                     line: int) -> None:
        self._write(kind, source, function, line, self.thread.text())

    def _WriteException(self, component: int, zero: int, kind: int, source: int, function: int,
                        line: int) -> None:
        self._write(kind, source, function, line, self.thread.text())

    def _WriteWideRecord(self, component: int, zero: int, kind: int, source: int, function: int,
                         line: int, text: int) -> None:
        self._write(kind, source, function, line, wide_at(text))

    # Texts: errors become exceptions when the call has returned

    def _ReportError(self, text: int, detail: int) -> None:
        pass
