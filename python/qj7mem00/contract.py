"""The contract of the library as data: slots, host services, records, codes and types.

The library's build makes this file from the headers; ``memtool contract --json`` writes the same.
docs/memtool.md of the library describes it.
"""

from __future__ import annotations

import json
from importlib import resources
from typing import Any


def _load() -> dict[str, Any]:
    text = resources.files(__package__).joinpath("contract.json").read_text(encoding="utf-8")
    contract: dict[str, Any] = json.loads(text)
    return contract


CONTRACT: dict[str, Any] = _load()
CONSTANTS: dict[str, Any] = CONTRACT["constants"]
TYPES: dict[str, dict[str, Any]] = CONTRACT["types"]

#: MEMERR name by code, and message by code.
CODE_NAMES: dict[int, str] = {row["code"]: row["name"] for row in CONTRACT["codes"]}
CODE_MESSAGES: dict[int, str] = {row["code"]: row["message"] for row in CONTRACT["codes"]}
