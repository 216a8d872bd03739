"""The contract of the package is the one that this build has made from the headers."""

import ctypes
import json
import os
import shutil
import subprocess
import sys
import tempfile
import tomllib
import unittest
from pathlib import Path

import qj7mem00
from qj7mem00 import contract
from support import ROOT


class ContractTest(unittest.TestCase):
    def test_copy_is_what_the_build_makes(self) -> None:
        made = Path(os.environ["MEM_CONTRACT_JSON"]).read_text(encoding="utf-8")
        copy = Path(contract.__file__).with_name("contract.json").read_text(encoding="utf-8")
        self.assertEqual(json.loads(copy), json.loads(made), "copy build/*/contract/contract.json "
                         "to python/qj7mem00/contract.json")
        self.assertEqual(copy, made)

    def test_the_versions_are_one(self) -> None:
        project = tomllib.loads((ROOT / "python" / "pyproject.toml").read_text(encoding="utf-8"))
        self.assertEqual(project["project"]["version"], qj7mem00.CONTRACT["version"])

    def test_records_are_laid_out_as_the_contract_says(self) -> None:
        for record in qj7mem00.CONTRACT["records"]:
            made = qj7mem00.RECORDS[record["name"]]
            self.assertEqual(ctypes.sizeof(made), record["size"])
            for field in record["fields"]:
                self.assertEqual(getattr(made, field["name"]).offset, field["offset"])
                self.assertEqual(getattr(made, field["name"]).size, field["size"])
        self.assertEqual(len(qj7mem00.RECORDS), len(qj7mem00.CONTRACT["records"]))

    def test_codes_have_names_and_messages(self) -> None:
        self.assertEqual(contract.CODE_NAMES[4072], "MEMERR_PACKCYCL")
        self.assertEqual(contract.CODE_MESSAGES[4072], "Recursive Structure")


class MakerTest(unittest.TestCase):
    """The maker follows the headers, and stops at what it does not understand."""

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.headers = Path(folder.name, "headers")
        self.json = Path(folder.name, "contract.json")
        shutil.copytree(ROOT / "include" / "qj7mem00", self.headers)

    def change(self, header: str, before: str, after: str) -> None:
        path = self.headers / header
        text = path.read_text(encoding="utf-8")
        self.assertIn(before, text)
        path.write_text(text.replace(before, after, 1), encoding="utf-8")

    def make(self) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [sys.executable, str(ROOT / "tools/memtool/contract/make_contract.py"),
             str(self.headers), "--version", "1.0.0", "--json", str(self.json)],
            capture_output=True, text=True, check=False)

    def test_a_new_field_a_new_slot_and_a_new_code(self) -> None:
        self.change("memhost.h", "  uint32_t PlatformFlags;", "  uint16_t Extra[3];\n"
                    "  uint32_t PlatformFlags;")
        self.change("memvect.h", "SLOT(51, MEM_EHeapAllocLongMultEntries)",
                    "SLOT(51, MEM_EHeapAllocLongMultEntries) SLOT(52, MEM_HeapClose)")
        self.change("memerr.h", 'ROW(MEMERR_OPSCHEAP, 3075,', 'ROW(MEMERR_NEW, 3070, "new") '
                    'ROW(MEMERR_OPSCHEAP, 3075,')
        self.assertEqual(self.make().stderr, "")
        made = json.loads(self.json.read_text(encoding="utf-8"))
        record = next(row for row in made["records"] if row["name"] == "MEMSysEnv")
        self.assertEqual([(row["name"], row["offset"], row["size"]) for row in record["fields"]],
                         [("Reserved0", 0, 176), ("Extra", 176, 6), ("PlatformFlags", 184, 4)])
        self.assertEqual(made["slots"][-1]["number"], 52)
        self.assertIn({"code": 3070, "name": "MEMERR_NEW", "message": "new"}, made["codes"])

    def test_what_it_does_not_understand_ends_it(self) -> None:
        self.change("memcat.h", "typedef struct MEMCatCB {", "extern int strange;\n"
                    "typedef struct MEMCatCB {")
        made = self.make()
        self.assertEqual(made.returncode, 1)
        self.assertRegex(made.stderr, r"memcat.h:\d+: expected a declaration, found extern")
        self.assertFalse(self.json.exists())

    def test_a_header_that_it_does_not_know_ends_it(self) -> None:
        (self.headers / "memnew.h").write_text("")
        self.assertIn("memnew.h: make_contract.py does not know this header", self.make().stderr)


if __name__ == "__main__":
    unittest.main()
