"""The contract's records as :mod:`ctypes` structures, made from their offsets.

``RECORDS["MEMThreadEnv"]`` is the class of a record. Pointers are addresses (``c_void_p``), texts
``c_char`` arrays, wide units ``c_uint16``. The import fails if a layout differs from the contract.
"""

from __future__ import annotations

import ctypes
from typing import Any

from .contract import CONTRACT, TYPES

_INTEGERS: dict[tuple[int, bool], Any] = {
    (1, True): ctypes.c_int8, (1, False): ctypes.c_uint8,
    (2, True): ctypes.c_int16, (2, False): ctypes.c_uint16,
    (4, True): ctypes.c_int32, (4, False): ctypes.c_uint32,
    (8, True): ctypes.c_int64, (8, False): ctypes.c_uint64,
}

RECORDS: dict[str, Any] = {}


def ctype(spelling: str) -> Any:
    """The ctypes type of a type of the contract; None for void."""
    entry = TYPES[spelling]
    kind = entry["kind"]
    if kind == "integer":
        if spelling == "char":
            return ctypes.c_char
        return _INTEGERS[entry["bytes"], entry["signed"]]
    if kind == "void":
        return None
    if kind == "record":
        return RECORDS[spelling]
    return ctypes.c_void_p


def prototype(call: dict[str, Any]) -> Any:
    """The ctypes function type of a slot, a service or a callback."""
    return ctypes.CFUNCTYPE(ctype(call["result"]),
                            *(ctype(row["type"]) for row in call["parameters"]))


def _field_type(owner: str, field: dict[str, Any]) -> Any:
    if field["type"] == "union":
        members = [(row["name"], _field_type(owner, row)) for row in field["members"]]
        return type(f"{owner}_{field['name']}", (ctypes.Union,), {"_fields_": members})
    if field["type"] == "service":
        return ctypes.c_void_p
    made = ctype(field["type"])
    return made * field["count"] if "count" in field else made


def _make(record: dict[str, Any]) -> Any:
    name = record["name"]
    body: dict[str, Any] = {"__doc__": record.get("doc"), "__module__": __name__}
    if record.get("packed"):
        body["_pack_"] = 1
    body["_fields_"] = [(row["name"], _field_type(name, row)) for row in record["fields"]]
    made = type(name, (ctypes.Structure,), body)
    same = ctypes.sizeof(made) == record["size"] and all(
        getattr(made, row["name"]).offset == row["offset"]
        and getattr(made, row["name"]).size == row["size"] for row in record["fields"])
    if not same:
        raise ImportError(f"the layout of {name} is not that of the contract on this platform")
    return made


for _record in CONTRACT["records"]:
    RECORDS[_record["name"]] = _make(_record)
