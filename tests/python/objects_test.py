"""Heaps, pools, tables, buffers and the sink as context managers."""

import struct
import unittest

import qj7mem00
from support import ProcessTest


class ObjectsTest(ProcessTest):
    def test_heap(self) -> None:
        with self.process.heap(area_kb=1) as heap:
            first, large = heap.allocate(100), heap.allocate(5000)
            first.write(b"hello", 3)
            large.view()[4999] = 7
            self.assertEqual(bytes(first)[3:8], b"hello")
            self.assertEqual((len(large), bytes(large)[4999]), (5000, 7))
            with self.assertRaisesRegex(ValueError, "do not fit"):
                first.write(b"hello", 96)
            chain = heap.chain(24, 4, 8)
            for area, following in zip(chain, chain[1:]):
                self.assertEqual(struct.unpack_from("<Q", area.view(), 8)[0], following.address)
            self.assertEqual(struct.unpack_from("<Q", chain[3].view(), 8)[0], 0)
        with self.assertRaisesRegex(ValueError, "the Heap is closed"):
            first.view()
        with self.assertRaisesRegex(ValueError, "the Heap is closed"):
            heap.allocate(10)
        heap.close()

    def test_enhanced_heap(self) -> None:
        with self.process.enhanced_heap(area_kb=1) as heap:
            area, large = heap.allocate(100), heap.allocate(5000)
            heap.free(area)
            heap.free(large)
            self.assertEqual(len(heap.chain(16, 3)), 3)
            with self.assertRaises(qj7mem00.MemError) as caught:
                heap.free(qj7mem00.Area(8, 100, None))
            self.assertEqual(caught.exception.name, "MEMERR_HEAPENTRY")

    def test_pool(self) -> None:
        with self.process.pool(32, 1024) as pool:
            cells = [pool.allocate() for _ in range(100)]
            self.assertEqual(len({cell.address for cell in cells}), 100)
            cells[0].write(b"x" * 32)
            pool.free(cells[0])
            self.assertEqual(pool.allocate().address, cells[0].address)
            self.assertEqual(bytes(cells[0]), bytes(32))
            pool.clear()

    def test_table(self) -> None:
        with self.process.table(12, 4, 8) as table:
            record, is_new = table.insert(b"one." + b"key 0001")
            self.assertTrue(is_new)
            again, is_new = table.insert(b"two." + b"key 0001")
            self.assertFalse(is_new)
            self.assertEqual(again.address, record.address)
            for number in range(2, 500):
                table.insert(b"some" + b"key %04d" % number)
            found = table.get(b"key 0300")
            assert found is not None
            self.assertEqual(bytes(found), b"somekey 0300")
            self.assertIsNone(table.get(b"key 9999"))
            self.assertTrue(table.delete(b"key 0300"))
            self.assertFalse(table.delete(b"key 0300"))
            self.assertEqual(sorted(bytes(each)[4:] for each in table),
                             [b"key %04d" % number for number in range(1, 500) if number != 300])
            with self.assertRaisesRegex(ValueError, "a key has 8 bytes"):
                table.get(b"short")
            with self.assertRaisesRegex(ValueError, "a record has 12 bytes"):
                table.insert(b"short")

    def test_table_with_a_function(self) -> None:
        with self.process.table(4, 0, 4, 10, hash=lambda key: key[0] % 10) as table:
            table.insert(b"abcd")
            self.assertIsNotNone(table.get(b"abcd"))
        with self.process.table(4, 0, 4, 10, hash=lambda key: 10) as table:
            with self.assertRaises(qj7mem00.MemError) as caught:
                table.insert(b"abcd")
            self.assertEqual(caught.exception.name, "MEMERR_HASHFERR")

        def fail(key: bytes) -> int:
            raise LookupError("no bucket")
        with self.process.table(4, 0, 4, 10, hash=fail) as table:
            with self.assertRaisesRegex(LookupError, "no bucket"):
                table.insert(b"abcd")

    def test_buffer(self) -> None:
        with self.process.buffer() as buffer:
            self.assertEqual(buffer.text, "")
            for _ in range(300):
                buffer.append("wíde 🙂\0")
            self.assertEqual(buffer.text, "wíde 🙂\0" * 300)
            self.assertEqual(len(buffer), 8 * 300)
        with self.process.buffer() as buffer:
            buffer.append_until_zero("text\0more")
            self.assertEqual(buffer.text, "text")

    def test_sink(self) -> None:
        with self.process.sink() as sink:
            use, again, wide = sink.sink(b"text"), sink.sink(b"text"), sink.sink("wíde")
            self.assertEqual(use.address, again.address)
            self.assertEqual((use.text, wide.text), (b"text", "wíde"))
            self.assertEqual(sink.verify(b"text"), use.address)
            self.assertIsNone(sink.verify("absent"))
            sink.delete(again)
            self.assertIsNotNone(sink.verify(b"text"))
            sink.delete(use)
            self.assertIsNone(sink.verify(b"text"))
            with self.assertRaises(ValueError):
                sink.sink("zero\0inside")
            with self.assertRaises(TypeError):
                sink.sink(bytearray(b"text"))
        with self.process.sink() as sink:
            self.assertIsNone(sink.verify("wíde"))

    def test_storage(self) -> None:
        with self.process.allocate(1000, -3) as area:
            area.write(b"x" * 1000)
            self.assertEqual(self.process.host.storage.account(3, 2).live_bytes, 1000)
        self.assertEqual(self.process.host.storage.account(3).live_bytes, 0)

    def test_entries_of_one_heap_are_watched(self) -> None:
        with self.process.heap() as heap, self.process.heap() as other:
            heap.allocate(10)
            with self.process.watch_entries(heap) as watch:
                area = heap.allocate(20)
                other.allocate(30)
            heap.allocate(40)
            self.assertEqual(watch.entries, {area.address: 20})

    def test_leaving_with_an_exception_closes(self) -> None:
        with self.assertRaisesRegex(KeyError, "mine"):
            with self.process.heap() as heap, self.process.buffer():
                heap.allocate(10)
                raise KeyError("mine")


if __name__ == "__main__":
    unittest.main()
