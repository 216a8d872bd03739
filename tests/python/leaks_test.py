"""Nothing remains: neither storage of the library nor objects of Python."""

import gc
import threading
import tracemalloc
import unittest
from typing import Callable

import qj7mem00
from qj7mem00.definitions import Definitions
from support import CATALOG, CATALOG_CHAIN, FIXTURES, PORT_FIXTURES, ProcessTest

ROUNDS = 300
SLACK = 40_000  # bytes that a caching interpreter may keep


def use_objects(process: qj7mem00.Process) -> None:
    with process.heap() as heap, process.enhanced_heap() as enhanced, process.pool(32) as pool:
        heap.chain(24, 10)
        enhanced.free(enhanced.allocate(100))
        pool.free(pool.allocate())
    with process.table(12, 4, 8) as table, process.buffer() as buffer, process.sink() as sink:
        table.insert(b"some" + b"the key.")
        list(table)
        buffer.append("text" * 100)
        sink.sink("wide"), sink.sink(b"narrow")
    with process.allocate(70000):
        pass


def use_failures(process: qj7mem00.Process) -> None:
    for call in (lambda: process.heap(area_kb=0), lambda: process.pool(1),
                 lambda: process.slots.MEM_InitQTRFTbls.call()):
        try:
            call()
        except qj7mem00.MemError:
            pass
    try:
        qj7mem00.read_port_string("(0000000020,0000000001)(99<1N1>)", _definitions)
    except qj7mem00.MemError:
        pass


def use_port_strings(process: qj7mem00.Process) -> None:
    graph = qj7mem00.read_port_string(_text, _definitions)
    qj7mem00.write_port_string(graph, _definitions)


def use_chains(process: qj7mem00.Process) -> None:
    qj7mem00.write_chain(qj7mem00.read_chain(_chain, _chain_definitions), _chain_definitions)


_definitions = Definitions(PORT_FIXTURES / "all.defs.json")
_text = (PORT_FIXTURES / "all.port").read_bytes()
_chain_definitions = Definitions(CATALOG_CHAIN)
_chain = (FIXTURES / "catalog-sample.chain").read_bytes()


class LeaksTest(ProcessTest):
    def expect_steady(self, use: Callable[[qj7mem00.Process], None], rounds: int = ROUNDS) -> None:
        def run(times: int) -> int:
            for _ in range(times):
                use(self.process)
            gc.collect()
            return tracemalloc.get_traced_memory()[0]
        run(20)  # caches fill
        before = self.process.host.storage.account().live_bytes
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        first = run(10)
        last = run(rounds)
        self.assertLess(last - first, SLACK, f"{use.__name__}: bytes after {rounds} rounds")
        self.assertEqual(self.process.host.storage.account().live_bytes, before)

    def test_objects(self) -> None:
        self.expect_steady(use_objects)

    def test_failures(self) -> None:
        self.expect_steady(use_failures)

    def test_port_strings(self) -> None:
        self.expect_steady(use_port_strings)

    def test_chains(self) -> None:
        self.expect_steady(use_chains, 60)

    def test_threads(self) -> None:
        def use_threads(process: qj7mem00.Process) -> None:
            def work() -> None:
                with process.thread():
                    use_objects(process)
            thread = threading.Thread(target=work)
            thread.start()
            thread.join()
        self.expect_steady(use_threads, 100)


class ProcessesTest(unittest.TestCase):
    def test_a_process_after_another(self) -> None:
        for _ in range(30):
            with qj7mem00.Process() as process:
                use_objects(process)
                graph = qj7mem00.read_port_string(
                    (FIXTURES / "catalog-sample.chain.port").read_bytes(), CATALOG)
                self.assertEqual(graph["name"], "base-files")
            self.assertEqual(process.host.storage.leaks(), [])
            self.assertEqual(process.host.storage.misuses, [])
            self.assertIsNone(process.slots.vector[4])


if __name__ == "__main__":
    unittest.main()
