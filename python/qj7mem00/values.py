"""Types of fields, and their values as bytes."""

from __future__ import annotations

import re
import struct
from typing import Any

from .document import Node
from .errors import GraphError

#: types of numbers: bytes and struct code. Port strings do not have the last four.
NUMBERS: dict[str, tuple[int, str]] = {
    "Short": (2, "h"), "UShort": (2, "H"), "Long": (4, "i"), "ULong": (4, "I"),
    "BigInt": (8, "q"), "UBigInt": (8, "Q"),
    "SByte": (1, "b"), "UByte": (1, "B"), "Float": (4, "f"), "Double": (8, "d"),
}
ADDRESSES = ("Pnt", "PStr", "WPStr")
NARROW = ("Char", "CharSZ")
WIDE = ("WChar", "WCharSZ")
_BITS = {name: 8 * width for name, (width, code) in NUMBERS.items() if code not in "fd"}


def limits(kind: str) -> tuple[int, int]:
    """The least and the greatest value of a type of whole numbers."""
    bits = _BITS[kind]
    return (0, (1 << bits) - 1) if NUMBERS[kind][1].isupper() else (-1 << bits - 1,
                                                                   (1 << bits - 1) - 1)


# Values of definitions

def _hex_of(node: Node) -> bytes | None:
    digits = node.text()
    if len(digits) % 2 or not re.fullmatch("[0-9A-F]*", digits):
        return None
    return bytes.fromhex(digits)


def node_text(node: Node) -> bytes:
    """Narrow text of a document: text, or ``{"hex": "E9"}``."""
    if isinstance(node.value, (bytes, bytearray)):  # of a dict
        return bytes(node.value)
    if not isinstance(node.value, dict):
        try:
            return node.text().encode("utf-8", "surrogateescape")
        except UnicodeEncodeError:
            node.fail("the text is not Unicode")
    node.keys(("hex",))
    digits = node.at("hex")
    raw = _hex_of(digits)
    if raw is None:
        digits.fail("expected bytes in hexadecimal capitals")
    return raw


def node_wide(node: Node) -> bytes:
    """Wide text of a document: text, or ``{"units": [55348]}``."""
    if not isinstance(node.value, dict):
        return node.text().encode("utf-16-le", "surrogatepass")
    node.keys(("units",))
    return b"".join(unit.integer(0, 0xFFFF).to_bytes(2, "little")
                    for unit in node.at("units").elements())


def node_bytes(kind: str, length: int, node: Node) -> bytes:
    """All bytes of a field whose type has no terminator."""
    if kind == "Bit":
        return bytes([node.integer(0, 255)])
    if kind == "Char":
        return _node_filled(kind, length, node, node_text(node))
    if kind == "WChar":
        return _node_filled(kind, length, node, node_wide(node))
    raw = bytes(node.value) if isinstance(node.value, (bytes, bytearray)) else _hex_of(node)
    if raw is None or len(raw) != length:
        node.fail(f"expected {length} bytes in hexadecimal capitals")
    return raw


def _node_filled(kind: str, length: int, node: Node, raw: bytes) -> bytes:
    try:
        return filled(kind, raw, length)
    except GraphError as error:
        node.fail(str(error))


# Values of graphs

def narrow_bytes(value: Any, encoding: str = "utf-8") -> bytes:
    """Narrow text of a graph: str (bytes that cannot be decoded as surrogate escapes), bytes, or
    the form ``{"hex": "E9"}`` of memtool."""
    if isinstance(value, str):
        return value.encode(encoding, "surrogateescape")
    if isinstance(value, (bytes, bytearray)):
        return bytes(value)
    if isinstance(value, dict) and set(value) == {"hex"}:
        return bytes.fromhex(value["hex"])
    raise GraphError(f"expected text, found {type(value).__name__}")


def wide_bytes(value: Any) -> bytes:
    """Wide text of a graph: str, or the form ``{"units": [55348]}`` of memtool."""
    if isinstance(value, str):
        return value.encode("utf-16-le", "surrogatepass")
    if isinstance(value, dict) and set(value) == {"units"}:
        return b"".join(unit.to_bytes(2, "little") for unit in value["units"])
    raise GraphError(f"expected text, found {type(value).__name__}")


def plain_bytes(value: Any) -> bytes:
    """Raw bytes: bytes, or text of hexadecimal digits."""
    if isinstance(value, (bytes, bytearray, memoryview)):
        return bytes(value)
    if isinstance(value, str):
        return bytes.fromhex(value)
    raise GraphError(f"expected bytes, found {type(value).__name__}")


def find_zero(raw: bytes, width: int, at: int = 0) -> int:
    """Where the first character of so many bytes that is zero is, from ``at`` on; -1 without."""
    zero = bytes(width)
    found = raw.find(zero, at)
    while found >= 0 and (found - at) % width:
        found = raw.find(zero, found + 1)
    return found


def terminated(kind: str, raw: bytes) -> bytes:
    """Text with its terminator."""
    width = 2 if kind.startswith("W") else 1
    if find_zero(raw, width) >= 0:
        raise GraphError("text with a zero in it")
    return raw + bytes(width)


def filled(kind: str, raw: bytes, length: int) -> bytes:
    """Text as all bytes of a field of type Char, CharSZ, WChar or WCharSZ: with blanks or zeros up
    to its last whole character, and zeros after that."""
    width = 2 if kind in WIDE else 1
    whole = length - length % width
    filler = b" \0"[:width]
    if kind.endswith("SZ"):
        raw = terminated(kind, raw)
        filler = bytes(width)
        if len(raw) > whole:
            raise GraphError(f"the text has {len(raw) - width} bytes, more than {whole - width}")
    if len(raw) > length:
        raise GraphError(f"the text has {len(raw)} bytes, more than {length}")
    return (raw + filler * length)[:max(whole, len(raw))].ljust(length, b"\0")


def array_bytes(kind: str, length: int, value: Any, encoding: str = "utf-8") -> bytes:
    """All bytes of a field of type Char, CharSZ, Bin, WChar or WCharSZ."""
    if kind in WIDE:
        return filled(kind, wide_bytes(value), length)
    if kind in NARROW:
        return filled(kind, narrow_bytes(value, encoding), length)
    raw = plain_bytes(value)
    if len(raw) != length:
        raise GraphError(f"{len(raw)} bytes instead of {length}")
    return raw


def check_whole(value: Any, least: int, most: int) -> None:
    if isinstance(value, bool) or not isinstance(value, int):
        raise GraphError(f"expected a number, found {type(value).__name__}")
    if not least <= value <= most:
        raise GraphError(f"expected a whole number from {least} to {most}, found {value}")


def number_bytes(kind: str, value: Any) -> bytes:
    """The bytes of a number in this machine's order."""
    code = NUMBERS[kind][1]
    if code not in "fd":
        check_whole(value, *limits(kind))
    elif isinstance(value, bool) or not isinstance(value, (int, float)):
        raise GraphError(f"expected a number, found {type(value).__name__}")
    try:
        return struct.pack("<" + code, value)
    except OverflowError:
        raise GraphError(f"the number {value} is too large for its field") from None

