"""The contract of the package is the one that this build has made from the headers."""

import ctypes
import json
import os
import unittest
from pathlib import Path

import qj7mem00
from qj7mem00 import contract


class ContractTest(unittest.TestCase):
    def test_copy_is_what_the_build_makes(self) -> None:
        made = Path(os.environ["MEM_CONTRACT_JSON"]).read_text(encoding="utf-8")
        copy = Path(contract.__file__).with_name("contract.json").read_text(encoding="utf-8")
        self.assertEqual(json.loads(copy), json.loads(made), "copy build/*/contract/contract.json "
                         "to python/qj7mem00/contract.json")
        self.assertEqual(copy, made)

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


if __name__ == "__main__":
    unittest.main()
