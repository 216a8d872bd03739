"""Every slot is called by its name, with arguments that the contract checks."""

import ctypes
import struct
import unittest
from typing import Any

import qj7mem00
from qj7mem00.slots import Slot
from support import ProcessTest

CONSTANTS = qj7mem00.CONSTANTS
RECORDS = qj7mem00.RECORDS


class EverySlotTest(unittest.TestCase):
    """One life in which every slot is called once and does what it is there for."""

    def call(self, name: str, *arguments: Any) -> Any:
        self.called.append(name)
        return self.process.slots[name](*arguments)

    def succeed(self, name: str, *arguments: Any) -> None:
        self.assertEqual(self.call(name, *arguments), 0, name)

    def made(self, name: str, *arguments: Any) -> ctypes.c_void_p:
        """A call whose last argument is the place for an address."""
        cell = ctypes.c_void_p()
        self.succeed(name, *arguments, cell)
        self.assertIsNotNone(cell.value, name)
        return cell

    def test_all_slots_once(self) -> None:
        self.process = qj7mem00.Process()
        self.called: list[str] = []
        self.process.bind()
        self.succeed("MEM_ProcessInit")
        self.succeed("MEM_ThreadAct")
        self.succeed("MEMSetProcOptions", RECORDS["MEMProcOptions"]())
        self.storage()
        self.heaps()
        self.cells()
        self.tables()
        self.buffers()
        self.ports()
        self.chains()
        self.sink()
        self.succeed("MEM_ThreadTerm")
        self.succeed("MEM_ProcessTerm")
        self.process.unbind()
        self.assertEqual(sorted(self.called), sorted(slot.name for slot in self.process.slots))
        self.assertEqual(self.process.host.storage.leaks(), [])
        self.assertEqual(self.process.host.storage.misuses, [])

    def storage(self) -> None:
        area = self.call("MEM_Alloc", 64, 7)
        self.assertTrue(self.process.host.storage.covers(area, 64))
        self.call("MEM_Free", area, 64, 7)
        self.assertEqual(self.call("MEM_InitQTRFTbls"), -1)
        self.assertEqual(self.process.host.thread.env.Error.Code, CONSTANTS["MEMERR_NOT_SUPPORTED"])

    def heaps(self) -> None:
        heap = ctypes.c_void_p()
        self.succeed("MEM_HeapOpen", heap, 64, 0)
        self.made("MEM_HeapAllocEntry", heap, 100)
        self.made("MEM_HeapAllocEntryLong", heap, 100000)
        for name in ("MEM_HeapAllocMultEntries", "MEM_HeapAllocLongMultEntries"):
            first = self.made(name, heap, 24, 3, 16)
            second = ctypes.c_uint64.from_address(first.value + 16).value
            self.assertTrue(self.process.host.storage.covers(second, 24))
        self.succeed("MEM_HeapClose", heap)
        self.succeed("MEM_EHeapOpen", heap, 64, 0)
        entry = self.made("MEM_EHeapAllocEntry", heap, 100)
        self.succeed("MEM_EHeapFreeEntry", heap, 100, entry)
        self.made("MEM_EHeapAllocMultEntries", heap, 24, 3, 0)
        self.made("MEM_EHeapAllocLongMultEntries", heap, 24, 3, 0)
        self.succeed("MEM_EHeapClose", heap)

    def cells(self) -> None:
        pool = ctypes.c_void_p()
        self.succeed("MEM_CellOpen", pool, 4096, 32, 0)
        cell = self.made("MEM_CellAllocEntry", pool)
        self.succeed("MEM_CellFreeEntry", pool, cell)
        self.succeed("MEM_CellClear", pool)
        self.succeed("MEM_CellClose", pool)

    def tables(self) -> None:
        table = ctypes.c_void_p()
        keys = []

        def bucket(key: int) -> int:
            keys.append(ctypes.string_at(key, 4))
            return 3
        self.succeed("MEM_HashOpen", table, 0, 4, 7, bucket, 64, 0)
        record = self.made("MEM_HashInsEntry", table, 8, b"key1some")
        self.assertEqual(self.made("MEM_HashGetEntry", table, b"key1").value, record.value)
        seen = []

        def visit(entry: int, parameter: int) -> int:
            seen.append((ctypes.string_at(entry, 8), parameter))
            return 9
        self.assertEqual(self.call("MEM_HashScan", table, visit, 77), 9)
        self.assertEqual(seen, [(b"key1some", 77)])
        self.succeed("MEM_HashDelEntry", table, b"key1")
        self.succeed("MEM_HashClose", table)
        self.assertEqual(keys, [b"key1"] * 3)

    def buffers(self) -> None:
        block = RECORDS["MEMCatCB"]()
        self.succeed("MEM_CatOpen", block)
        self.succeed("MEM_Cat", block, "wíde ")
        self.succeed("MEM_MemCat", block, "text", 4)
        self.assertEqual(ctypes.string_at(block.pText, 2 * block.Len).decode("utf-16-le"),
                         "wíde text")
        self.succeed("MEM_CatClose", block)

    def ports(self) -> None:
        fields = (RECORDS["MEMFieldDef"] * 1)()
        fields[0].FieldID, fields[0].Type, fields[0].Length = 1, 7, 4
        table = (RECORDS["MEMStructDef"] * 2)()
        table[0].StructID, table[0].Length, table[0].CountField = 5, 4, -1
        table[0].FieldCount, table[0].Fields = 1, ctypes.addressof(fields)
        heap, first, total = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_uint32()
        self.process.slots.MEM_HeapOpen.call(heap, 64, 0)
        self.succeed("MEM_StructToPortStr", table, 5, struct.pack("<i", -305), 0, heap, total,
                     first)
        root = self.made("MEM_PortStrToStruct", table, first, heap)
        self.assertEqual(ctypes.c_int32.from_address(root.value).value, -305)
        text = ctypes.string_at(first.value + 12, total.value)
        root = self.made("MEM_Port1StrToStruct", table, text, len(text), heap)
        self.assertEqual(ctypes.c_int32.from_address(root.value).value, -305)
        self.process.slots.MEM_HeapClose.call(heap)

    def chains(self) -> None:
        block = RECORDS["MemPackCB"](Count=1)
        block.Descriptors[0].Type = CONSTANTS["MEM_PACK_FIXED"]
        block.Descriptors[0].FixedLen = 12
        block.Descriptors[0].SiblingOff = CONSTANTS["MEM_PACK_NO_SIBLING"]
        first, root = ctypes.c_void_p(), ctypes.c_void_p()
        self.succeed("MEM_Pack", block, b"twelve bytes", 2048, first)
        self.succeed("MEM_Unpack", first, root, block)
        self.assertEqual(ctypes.string_at(root.value, 12), b"twelve bytes")
        self.process.slots.MEM_Free(first, 2048, 0)

    def sink(self) -> None:
        self.succeed("MEM_SinkTerm")
        self.succeed("MEM_SinkInit")
        for prefix, text in (("MEM_", b"narrow"), ("MEM_W", "wide")):
            copy = self.made(f"{prefix}SinkString", text)
            cell = ctypes.c_void_p()
            self.succeed(f"{prefix}SinkVerify", text, cell, None)
            self.assertEqual(cell.value, copy.value)
            self.succeed(f"{prefix}SinkDelete", copy)


class ArgumentsTest(ProcessTest):
    def refuse(self, kind: type[Exception], text: str, slot: Slot, *arguments: Any) -> None:
        with self.assertRaisesRegex(kind, text):
            slot(*arguments)

    def test_numbers_have_the_width_of_the_contract(self) -> None:
        slot, cell = self.process.slots.MEM_HeapOpen, ctypes.c_void_p()
        self.refuse(ValueError, "AreaLen is -32768 to 32767, not 32768", slot, cell, 32768, 0)
        self.refuse(ValueError, "SubPool is 0 to 65535, not -1", slot, cell, 1, -1)
        self.refuse(TypeError, "AreaLen is a number, not str", slot, cell, "64", 0)
        self.refuse(TypeError, "AreaLen is a number, not float", slot, cell, 64.0, 0)
        self.refuse(TypeError, "takes 3 arguments, not 2", slot, cell, 64)
        self.assertIsNone(cell.value)

    def test_pointers_have_the_type_of_the_contract(self) -> None:
        slots = self.process.slots
        self.refuse(TypeError, "phMemHeap cannot be str", slots.MEM_HeapOpen, "heap", 64, 0)
        self.refuse(TypeError, "phMemHeap cannot be c_int", slots.MEM_HeapOpen, ctypes.c_int(), 1,
                    0)
        self.refuse(TypeError, "pCatCB cannot be MemPackCB", slots.MEM_CatOpen,
                    RECORDS["MemPackCB"]())
        self.refuse(ValueError, "pCatCB has 24 bytes", slots.MEM_CatOpen,
                    ctypes.create_string_buffer(8))
        self.refuse(TypeError, "pText is wide text", slots.MEM_Cat, None, b"narrow")
        self.refuse(TypeError, "pText cannot be str", slots.MEM_SinkString, "wide", None)
        self.refuse(TypeError, "ppSunk cannot be bytes", slots.MEM_SinkString, b"text", b"here")
        self.refuse(TypeError, "pEntry cannot be bytes", slots.MEM_CellFreeEntry, None, b"constant")
        self.refuse(TypeError, "pFunc cannot be bytes", slots.MEM_HashOpen, None, 0, 4, 7,
                    b"function", 64, 0)
        self.refuse(ValueError, "hMemHeap is an address, not -1", slots.MEM_HeapClose, -1)
        with self.assertRaises(AttributeError):
            slots.MEM_Absent

    def test_slots_tell_what_they_are(self) -> None:
        slot = self.process.slots.MEM_HeapClose
        self.assertEqual(repr(slot), "<slot 11 MEM_HeapClose(HMEMHEAP hMemHeap)>")
        self.assertIn("Frees all areas and large blocks", slot.__doc__ or "")
        self.assertIn("MEM_HeapClose", dir(self.process.slots))
        self.assertEqual([each.number for each in self.process.slots], list(range(4, 52)))

    def test_failures_are_exceptions(self) -> None:
        cell = ctypes.c_void_p()
        with self.assertRaises(qj7mem00.MemError) as caught:
            self.process.slots.MEM_HeapOpen.call(cell, 999, 0)
        error = caught.exception
        self.assertEqual((error.service, error.result, error.code, error.name, error.text),
                         ("MEM_HeapOpen", -1, 4050, "MEMERR_HEAPSIZE", "Create size error"))
        self.assertEqual(error.what, "Invalid Area Length=999")
        self.assertIn("4050 MEMERR_HEAPSIZE, Create size error", str(error))
        self.assertEqual(self.process.slots.MEM_HeapOpen(cell, 999, 0), -1)  # a plain call does not

    def test_the_hosts_own_failure_is_the_inner_one(self) -> None:
        limited = self.process.host.storage
        limited._limit = limited.account().live_bytes
        with self.assertRaises(qj7mem00.MemError) as caught:
            self.process.enhanced_heap()
        self.assertEqual(caught.exception.name, "MEMERR_HEAPAMEM")
        self.assertEqual(caught.exception.inner_text, "GetStorage")
        limited._limit = 1 << 32

    def test_a_replaced_slot_is_called(self) -> None:
        kind = self.process.slots.MEM_Alloc._prototype
        number = self.process.slots.MEM_Alloc.number
        sizes = []

        def refuse(size: int, subpool: int) -> None:
            sizes.append(size)
        replacement = kind(refuse)
        self.process.slots.MEM_Free(self.process.slots.MEM_Alloc(10, 0), 10, 0)
        before = self.process.slots.vector[number]
        self.process.slots.vector[number] = ctypes.cast(replacement, ctypes.c_void_p).value
        self.assertIsNone(self.process.slots.MEM_Alloc(10, 0))
        with self.assertRaises(qj7mem00.MemError):
            self.process.heap(area_kb=1)
        self.process.slots.vector[number] = before
        self.assertEqual(sizes, [10, 1024])
        with self.process.heap(area_kb=1):
            pass

    def test_exceptions_of_callbacks_come_back(self) -> None:
        def refuse(key: int) -> int:
            raise KeyError("no bucket")
        table = ctypes.c_void_p()
        slots = self.process.slots
        slots.MEM_HashOpen.call(table, 0, 4, 7, refuse, 64, 0)
        with self.assertRaisesRegex(KeyError, "no bucket"):
            slots.MEM_HashInsEntry(table, 4, b"key1", ctypes.c_void_p())
        slots.MEM_HashClose.call(table)

    def test_a_closed_library_is_not_called(self) -> None:
        with self.assertRaisesRegex(RuntimeError, "already bound"):
            with qj7mem00.Process():
                pass
        other = qj7mem00.Process()
        with self.assertRaisesRegex(RuntimeError, "while the library is not bound"):
            other.slots.MEM_SinkInit()


if __name__ == "__main__":
    unittest.main()
