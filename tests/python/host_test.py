"""The host in Python: storage, gates, trace records, formatting, threads."""

import ctypes
import os
import threading
import unittest
from pathlib import Path
from unittest import mock

import qj7mem00
from qj7mem00.formatting import format_text, wide_at
from qj7mem00.storage import Storage
from support import ProcessTest


class FormatTest(unittest.TestCase):
    def test_conversions(self) -> None:
        narrow = ctypes.create_string_buffer("tëxt".encode())
        wide = ctypes.create_string_buffer("wïde 🙂".encode("utf-16-le") + b"\0\0")
        at, wide_address = ctypes.addressof(narrow), ctypes.addressof(wide)
        minus = (1 << 64) - 5
        for text, arguments, wanted in (
                ("plain 100%%", [], "plain 100%"),
                ("%d %ld %hd %lld", [minus] * 4, "-5 -5 -5 -5"),
                ("%u %lu %hu", [minus] * 3, "4294967291 4294967291 65531"),
                ("%llu", [minus], "18446744073709551611"),
                ("%lX|%08X|%x|%#x|%#X", [255, 255, 255, 255, 0], "FF|000000FF|ff|0xff|0"),
                ("%lX", [0x1234567890], "34567890"),
                ("%I64X", [0x1234567890], "1234567890"),
                ("%p", [0xABC], "0000000000000ABC"),
                ("%5d|%-5d|%05d|%+d|% d", [42, 42, minus, 42, 42], "   42|42   |-0005|+42| 42"),
                ("%.3d|%*d|%-*d", [7, 6, 7, 6, 7], "007|     7|7     "),
                ("%s|%10s|%-8s|%.1s", [at] * 4, "tëxt|      tëxt|tëxt    |t"),
                ("%S|%ls|%.3S", [wide_address] * 3, "wïde 🙂|wïde 🙂|wïd"),
                ("%s %S", [0, 0], "(null) (null)"),
                ("%c%C", [65, 0xE9], "Aé"),
                ("%y %", [], "%y %"),
        ):
            with self.subTest(text):
                self.assertEqual(format_text(text, arguments + [99]), wanted)

    def test_wide_text_of_any_place(self) -> None:
        room = ctypes.create_string_buffer(3 * 4096)
        for start in range(0, 4096, 997):
            text = "x" * 2100 + "é"
            raw = text.encode("utf-16-le") + b"\0\0"
            ctypes.memmove(ctypes.addressof(room) + start, raw, len(raw))
            self.assertEqual(wide_at(ctypes.addressof(room) + start), text)
            self.assertEqual(wide_at(ctypes.addressof(room) + start, 7), "x" * 7)


class StorageTest(unittest.TestCase):
    def test_account(self) -> None:
        storage = Storage(1 << 20)
        small, large = storage.obtain(100, 7, 1), storage.obtain(100000, 7, 2)
        self.assertEqual(small % 16, 0)
        self.assertEqual(ctypes.string_at(small, 100), bytes(100))
        self.assertEqual(storage.account().live_bytes, 100100)
        self.assertEqual(storage.account(7).live_areas, 2)
        self.assertEqual(storage.account(7, 2).live_bytes, 100000)
        self.assertEqual(storage.obtain(1 << 20, 7, 1), 0)
        self.assertTrue(storage.covers(small, 100))
        self.assertTrue(storage.covers(small + 99, 1))
        self.assertFalse(storage.covers(small, 101))
        self.assertFalse(storage.covers(small - 1, 1))
        self.assertEqual([leak.length for leak in storage.leaks()],
                         [100, 100000] if small < large else [100000, 100])
        storage.give_back(small, 99, 7, False)
        storage.give_back(small, 100, 7, False)
        storage.give_back(large, 100000, 8, False)
        self.assertEqual(len(storage.misuses), 3)
        self.assertEqual((storage.account().live_bytes, storage.account().peak_bytes), (0, 100100))


class FindingTest(unittest.TestCase):
    def test_the_variable_comes_first_then_the_places(self) -> None:
        named = os.environ["QJ7MEM00_LIBRARY"]
        self.assertEqual(qj7mem00.find_library(), Path(named))
        with mock.patch.dict(os.environ):
            del os.environ["QJ7MEM00_LIBRARY"]
            absent = Path(named).with_name("absent.so")
            with mock.patch("qj7mem00.process._places", lambda: [absent, Path(named)]):
                self.assertEqual(qj7mem00.find_library(), Path(named))
            with mock.patch("qj7mem00.process._places", lambda: [absent]):
                with self.assertRaisesRegex(FileNotFoundError, "QJ7MEM00_LIBRARY"):
                    qj7mem00.find_library()
        with self.assertRaises(OSError):
            qj7mem00.Process(__file__)


class ProtectionTest(ProcessTest):
    @staticmethod
    def rights(address: int) -> str:
        """Of the page, as the system has them."""
        for line in Path("/proc/self/maps").read_text(encoding="utf-8").splitlines():
            place, rights = line.split()[:2]
            first, end = (int(part, 16) for part in place.split("-"))
            if first <= address < end:
                return rights
        return ""

    def test_sunk_copies_cannot_be_written_to(self) -> None:
        with self.process.sink() as sink:
            use = sink.sink(b"text")
            self.assertEqual(self.rights(use.address), "r--s")
            block = self.process.host.process_block.Segments[0]
            self.assertEqual(self.rights(block.pBase), "rw-s")
            again = sink.sink(b"another text")
            self.assertEqual(self.rights(again.address), "r--s")


class TraceTest(unittest.TestCase):
    def test_records_go_to_the_callable(self) -> None:
        records: list[qj7mem00.TraceRecord] = []
        with qj7mem00.Process(trace=records.append) as process:
            del records[:]
            with process.heap(area_kb=2):
                pass
            opened = [(record.type, record.function, record.line) for record in records][:3]
            self.assertEqual(opened, [("STDE", "MEM_HeapOpen", 164), ("STDE", "MemAlloc", 117),
                                      ("STDX", "MemAlloc", 133)])
            self.assertRegex(records[0].text, r"^Parms: phMemHeap=[0-9A-F]+, AreaLen=2, SubPool=0$")
            self.assertEqual(records[0].source, "..\\SrcRes\\MEMCHEAP")
            self.assertEqual(records[0].thread, threading.get_ident())
            del records[:]
            process.host.trace_flags = qj7mem00.TRACE_SINK
            with process.sink() as sink:
                sink.sink("wïde")
            self.assertTrue(any(record.type == "SL32" and "wïde" in record.text
                                for record in records))
            process.host.trace_flags = 0
            del records[:]
            with process.heap():
                pass
            self.assertEqual(records, [])

    def test_an_exception_in_the_callable_is_raised_after_the_call(self) -> None:
        def refuse(record: qj7mem00.TraceRecord) -> None:
            raise ValueError("no more records")
        process = qj7mem00.Process(trace=refuse, trace_flags=0)
        with process:
            process.host.trace_flags = qj7mem00.TRACE_ENTRY
            with self.assertRaisesRegex(ValueError, "no more records"):
                process.slots.MEM_CatOpen(qj7mem00.RECORDS["MEMCatCB"]())
            process.host.trace_flags = 0

    def test_messages_are_those_of_the_library(self) -> None:
        with qj7mem00.Process() as process:
            for row in qj7mem00.CONTRACT["codes"]:
                self.assertEqual(process.host.messages[row["code"]], (row["name"], row["message"]))
            block = process.host.process_block
            self.assertEqual(block.Header.Name, b"MEMProcessBlock    ")
            process.set_options(old_pack_cb=True)
            self.assertEqual(block.OldPackCB, 1)
        self.assertIsNone(process.host.process_block)
        self.assertEqual(process.host.messages, {})


class ThreadsTest(ProcessTest):
    def test_threads_share_an_enhanced_heap_and_the_sink(self) -> None:
        problems: list[BaseException] = []

        def work(number: int) -> None:
            try:
                with self.process.thread(), self.process.sink() as sink:
                    for turn in range(100):
                        text = f"text {turn % 7}"
                        area = heap.allocate(50)
                        area.write(text.encode())
                        self.assertEqual(sink.sink(text).text, text)
                        self.assertEqual(bytes(area)[:len(text)], text.encode())
                        heap.free(area)
            except BaseException as error:
                problems.append(error)
        with self.process.enhanced_heap(area_kb=16) as heap:
            threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        self.assertEqual(problems, [])

    def test_a_thread_that_cannot_start_tells_of_no_earlier_failure(self) -> None:
        with self.assertRaises(qj7mem00.MemError):
            self.process.heap(area_kb=0)
        anchor, self.process.host._anchor = self.process.host._anchor, None
        with self.assertRaises(qj7mem00.MemError) as caught:
            self.process.thread().__enter__()
        self.process.host._anchor = anchor
        self.assertEqual((caught.exception.service, caught.exception.code), ("MEM_ThreadAct", 0))

    def test_a_start_that_fails_leaves_nothing(self) -> None:
        self.process.__exit__(None, None, None)
        for limit in (0, 3248, 3248 + 0x44000, 3248 + 0x44000 + 16384):
            failing = qj7mem00.Process(storage_limit=limit)
            with self.assertRaises(qj7mem00.MemError):
                failing.__enter__()
            self.assertEqual(failing.host.storage.leaks(), [])
            self.assertIsNone(failing.host.process_block)
        self.process.__enter__()

    def test_each_thread_has_its_own_error(self) -> None:
        names: list[str] = []

        def fail() -> None:
            with self.process.thread():
                try:
                    self.process.pool(1)
                except qj7mem00.MemError as error:
                    names.append(error.name)
        other = threading.Thread(target=fail)
        with self.assertRaises(qj7mem00.MemError) as caught:
            self.process.heap(area_kb=0)
        other.start()
        other.join()
        self.assertEqual((caught.exception.name, names), ("MEMERR_HEAPSIZE", ["MEMERR_CELLELEN"]))
        self.assertEqual(self.process.host.thread.env.Error.Code, caught.exception.code)


if __name__ == "__main__":
    unittest.main()
