#!/usr/bin/env python3
"""The cost of calling the library from Python: the minimum of many repeats, in microseconds.

    PYTHONPATH=python QJ7MEM00_LIBRARY=build/release/bin/QJ7MEM00.so bench/python_calls.py
"""

import ctypes
import time
from pathlib import Path
from typing import Callable

import qj7mem00

FIXTURES = Path(__file__).resolve().parents[1] / "tests" / "fixtures"
REPEATS = 25


def least(call: Callable[[], object], times: int) -> float:
    best = float("inf")
    for _ in range(REPEATS):
        begin = time.perf_counter()
        for _ in range(times):
            call()
        best = min(best, time.perf_counter() - begin)
    return best / times * 1e6


def main() -> None:
    libc = ctypes.CDLL(None).labs
    libc.argtypes, libc.restype = [ctypes.c_long], ctypes.c_long
    kind = ctypes.CFUNCTYPE(None)
    callback = kind(lambda: None)
    call_back = kind(ctypes.cast(callback, ctypes.c_void_p).value)
    print(f"{least(lambda: libc(5), 5000):8.2f}  a function of the C library")
    print(f"{least(call_back, 5000):8.2f}  a callback into Python and back")
    with qj7mem00.Process() as process, process.pool(64) as pool, process.sink() as sink, \
            process.table(16, 0, 8, hash=lambda key: key[0]) as table, process.heap(256) as heap:
        slots, cell = process.slots, ctypes.c_void_p()
        raw = slots.MEM_SinkInit.function
        sink.sink(b"text")
        table.insert(b"the key." + bytes(8))
        rows: list[tuple[str, Callable[[], object], int]] = [
            ("MEM_SinkInit, the function alone", raw, 2000),
            ("MEM_SinkInit, the slot", slots.MEM_SinkInit, 2000),
            ("MEM_HeapAllocEntryLong, the slot",
             lambda: slots.MEM_HeapAllocEntryLong(heap, 16, cell), 1000),
            ("Heap.allocate", lambda: heap.allocate(16), 1000),
            ("CellPool.allocate and free", lambda: pool.free(pool.allocate()), 1000),
            ("HashTable.get, hash function in Python", lambda: table.get(b"the key."), 1000),
            ("Sink.verify", lambda: sink.verify(b"text"), 1000),
        ]
        for name, call, times in rows:
            print(f"{least(call, times):8.2f}  {name}")
        definitions = qj7mem00.Definitions(FIXTURES.parents[1] / "python" / "examples"
                                           / "catalog.chain.json")
        chain = (FIXTURES / "catalog-sample.chain").read_bytes()
        segments = qj7mem00.read_chain(chain, definitions)
        count = len(segments) + sum(len(each.dependencies) for each in segments)
        read = least(lambda: qj7mem00.read_chain(chain, definitions), 20)
        write = least(lambda: qj7mem00.write_chain(segments, definitions), 20)
        print(f"{read / count:8.2f}  read_chain, a segment")
        print(f"{write / count:8.2f}  write_chain, a segment")
        ports = qj7mem00.Definitions(FIXTURES / "memtool" / "port" / "catalog.defs.json")
        text = (FIXTURES / "catalog-sample.chain.port").read_bytes()
        graph = qj7mem00.read_port_string(text, ports)
        read = least(lambda: qj7mem00.read_port_string(text, ports), 20)
        write = least(lambda: qj7mem00.write_port_string(graph, ports), 20)
        print(f"{read / count:8.2f}  read_port_string, a structure")
        print(f"{write / count:8.2f}  write_port_string, a structure")


if __name__ == "__main__":
    main()
