"""Random trees in packed chains: those that C++ packs are read in Python and those that Python
packs in C++, and both find the same in them."""

import json
import os
import random
import subprocess
import unittest
from typing import Any

import qj7mem00
from chain_test import TREE, random_tree
from qj7mem00 import Segment
from qj7mem00.definitions import Definitions
from support import FIXTURES

TREES = int(os.environ.get("MEM_TEST_TREES", "2000"))
SEED = int(os.environ.get("MEM_TEST_SEED", "20261123"))
PROGRAM = os.environ["MEM_PYTHON_CHAINS"]


def raw(text: str | None, *encoding: str) -> str | None:
    return None if text is None else text.encode(*encoding).hex().upper()


class Lister:
    """A tree as the C++ program lists it."""

    def __init__(self) -> None:
        self._nodes: list[dict[str, Any]] = []
        self._segments: list[Segment] = []
        self._places: dict[int, int] = {}

    def make(self, roots: list[Segment]) -> list[dict[str, Any]]:
        self._add(roots)
        for node, segment in zip(self._nodes, self._segments):
            if segment.friend is not None:
                node["friend"] = self._places[id(segment.friend)]
        return self._nodes

    def _add(self, segments: list[Segment]) -> None:
        for segment in segments:
            index = self._places[id(segment)] = len(self._nodes)
            self._segments.append(segment)
            node: dict[str, Any] = {
                "name": raw(segment.name, "utf-8", "surrogateescape"),
                "title": raw(segment.title, "utf-16-le", "surrogatepass"),
                "number": segment.number, "small": segment.small, "flags": segment.flags,
                "code": raw(segment.code, "utf-8", "surrogateescape"),
                "blob": segment.blob and segment.blob.data.hex().upper(),
                "key": segment.key.hex().upper(), "friend": None}
            self._nodes.append(node)
            self._add(segment.children)
            node["children"] = len(self._nodes) - index - 1


class TreesTest(unittest.TestCase):
    def setUp(self) -> None:
        document = json.loads(json.dumps(TREE))
        key = document["structures"][0]["fields"][-1]
        key["type"] = "Bin"  # every unit of it is compared
        self.definitions = Definitions(document)

    def test_packed_in_cpp_read_in_python(self) -> None:
        with qj7mem00.Process() as process, subprocess.Popen(
                [PROGRAM, "make", str(SEED), str(TREES)], stdout=subprocess.PIPE) as program:
            assert program.stdout is not None
            count = 0
            for count, line in enumerate(program.stdout, 1):
                sent = json.loads(line)
                chain = bytes.fromhex(sent["chain"])
                roots = qj7mem00.read_chain(chain, self.definitions)
                with self.subTest(seed=SEED + count - 1):
                    self.assertEqual(Lister().make(roots), sent["nodes"])
                    length = 1200 if (SEED + count - 1) % 3 == 0 else 32768
                    self.assertEqual(qj7mem00.write_chain(roots, self.definitions,
                                                          block_length=length), chain)
        self.assertEqual(count, TREES)
        self.assertEqual(process.host.storage.leaks(), [])

    def test_packed_in_python_read_in_cpp(self) -> None:
        chance = random.Random(SEED)
        with qj7mem00.Process(), subprocess.Popen(
                [PROGRAM, "read"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
            assert program.stdin is not None and program.stdout is not None
            for turn in range(TREES):
                roots = random_tree(chance)
                pending = list(roots)
                while pending:
                    segment = pending.pop()
                    segment.key = chance.randbytes(8)
                    pending += segment.children
                chain = qj7mem00.write_chain(roots, self.definitions)
                program.stdin.write(chain.hex().upper().encode() + b"\n")
                program.stdin.flush()
                answer = json.loads(program.stdout.readline())
                with self.subTest(turn=turn):
                    self.assertEqual(answer, {"nodes": Lister().make(roots)})
            program.stdin.close()

    def test_definitions_that_cpp_writes_from_its_tables(self) -> None:
        written = subprocess.run([PROGRAM, "defs"], stdout=subprocess.PIPE, check=True).stdout
        definitions = json.loads(written)
        chain = (FIXTURES / "catalog-sample.chain").read_bytes()
        text = (FIXTURES / "catalog-sample.chain.port").read_bytes()
        with qj7mem00.Process():
            packages = qj7mem00.read_chain(chain, definitions["chain"])
            self.assertEqual(len(packages), 26)
            self.assertEqual((packages[0].pName, packages[0].DependencyCount), ("base-files", 1))
            self.assertEqual(qj7mem00.write_chain(packages, definitions["chain"]), chain)
            package = qj7mem00.read_port_string(text, definitions["port"])
            self.assertEqual((package["pName"], package["DependencyCount"]), ("base-files", 1))
            self.assertEqual(qj7mem00.write_port_string(package, definitions["port"]), text)


if __name__ == "__main__":
    unittest.main()
