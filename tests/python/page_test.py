"""What docs/python.md shows runs: its program over a chain that the catalogue program has packed,
and the other blocks one by one."""

import contextlib
import io
import os
import re
import subprocess
import tempfile
import textwrap
import unittest
from pathlib import Path

import qj7mem00
from support import FIXTURES, PORT_FIXTURES, ROOT, ProcessTest

PAGE = (ROOT / "docs" / "python.md").read_text(encoding="utf-8")
CHAIN = "build/release/bin/catalog.chain"  # as the page has it


def marked(mark: str) -> list[str]:
    return re.findall(rf"<!-- {mark} -->\n```\w*\n(.*?)```\n", PAGE, re.DOTALL)


@contextlib.contextmanager
def inside(folder: str):  # type: ignore[no-untyped-def]
    before = os.getcwd()
    os.chdir(folder)
    try:
        yield
    finally:
        os.chdir(before)


class PageTest(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.work = Path(self.folder.name)

    def run_lines(self, lines: str) -> str:
        (self.work / "python").symlink_to(ROOT / "python")
        out = io.StringIO()
        with inside(self.folder.name), contextlib.redirect_stdout(out):
            exec(compile(lines, "docs/python.md", "exec"), {})
        return out.getvalue()

    def pack(self) -> str:
        chain = str(self.work / "sample.chain")
        subprocess.run([os.environ["MEM_CATALOG"], "--output", chain,
                        str(ROOT / "examples" / "catalog" / "sample-status")],
                       check=True, capture_output=True)
        return chain

    def test_the_program_has_twenty_lines_and_prints_what_the_page_says(self) -> None:
        blocks = marked("program")
        lines = "".join(blocks)
        self.assertEqual(len(blocks), 3)
        self.assertLessEqual(len([line for line in lines.splitlines() if line]), 20)
        self.assertIn(CHAIN, lines)
        try:
            import matplotlib  # noqa: F401
        except ImportError:
            lines = "".join(blocks[:2])
        self.assertEqual(self.run_lines(lines.replace(CHAIN, self.pack())), marked("output")[0])
        if "matplotlib" in lines:
            self.assertIn("</svg>", (self.work / "needed.svg").read_text(encoding="utf-8"))

    def test_the_readme(self) -> None:
        readme = (ROOT / "README.md").read_text(encoding="utf-8")
        lines = re.findall(r"```python\n(.*?)```\n", readme, re.DOTALL)
        self.assertEqual(len(lines), 1)
        self.assertIn(CHAIN, lines[0])
        printed = self.run_lines(lines[0].replace(CHAIN, self.pack())).splitlines()
        self.assertEqual((len(printed), printed[0]), (26, "base-files 1"))

    def test_the_example_definitions_are_those_of_the_catalogue(self) -> None:
        packages = qj7mem00.read_chain(self.pack(), ROOT / "python/examples/catalog.chain.json")
        sample = qj7mem00.read_chain(FIXTURES / "catalog-sample.chain",
                                     ROOT / "python/examples/catalog.chain.json")
        self.assertEqual([each.name for each in packages], [each.name for each in sample])


class BlocksTest(ProcessTest):
    """The blocks without a mark, with what they take for granted."""

    def test_blocks(self) -> None:
        import ctypes
        parts = [part for part in re.findall(r"(?<!-->\n)```python\n(.*?)```\n", PAGE, re.DOTALL)]
        names = {"ctypes": ctypes, "qj7mem00": qj7mem00, "process": self.process,
                 "help": lambda thing: thing.__doc__,
                 "text": (PORT_FIXTURES / "order.port").read_bytes()}
        done = 0
        with tempfile.TemporaryDirectory() as folder, inside(folder):
            Path("python").symlink_to(ROOT / "python")
            Path("order.defs.json").symlink_to(PORT_FIXTURES / "order.defs.json")
            Path("catalog.chain").symlink_to(FIXTURES / "catalog-sample.chain")
            for part in parts:
                if "qj7mem00.Process()" in part:
                    continue  # one is open
                if "read_port_string" in part:
                    names["definitions"] = "order.defs.json"
                if "read_chain" in part:
                    names["definitions"] = "python/examples/catalog.chain.json"
                exec(compile(textwrap.dedent(part), "docs/python.md", "exec"), names)
                done += 1
        self.assertEqual(done, 5)
        self.assertIn(f"# {names['again'][0]!r}\n", PAGE)
        self.assertEqual(names["order"]["amount"], -305)


if __name__ == "__main__":
    unittest.main()
