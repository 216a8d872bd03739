"""What the tests of the Python package share."""

import unittest
from pathlib import Path

import qj7mem00

ROOT = Path(__file__).resolve().parents[2]
FIXTURES = ROOT / "tests" / "fixtures"
PORT_FIXTURES = FIXTURES / "memtool" / "port"

CATALOG = PORT_FIXTURES / "catalog.defs.json"
CATALOG_CHAIN = ROOT / "python" / "examples" / "catalog.chain.json"


class ProcessTest(unittest.TestCase):
    """Runs each test in a process of its own, which must leave nothing at its end."""

    process: qj7mem00.Process

    def setUp(self) -> None:
        self.process = qj7mem00.Process()
        self.process.__enter__()
        self.addCleanup(self._end)

    def _end(self) -> None:
        self.process.__exit__(None, None, None)
        storage = self.process.host.storage
        self.assertEqual(storage.leaks(), [])
        self.assertEqual(storage.misuses, [])
        self.assertEqual(self.process.host._gates, {})
