"""Texts at addresses, and the Format service: printf by the rules of 64-bit Windows."""

from __future__ import annotations

import ctypes
import functools
import re
from typing import Iterator, Sequence

_PAGE = 4096
_CONVERSION = re.compile(r"%([-+ 0#]*)(\*|\d+)?(?:\.(\*|\d*))?"
                         r"(hh|h|ll|l|I64|I32|I|j|t|z|w)?([diuoxXpsScC%])?")
_BITS = {"hh": 8, "h": 16, "ll": 64, "I64": 64, "I": 64, "j": 64, "t": 64, "z": 64}


def narrow_at(address: int, most: int = -1) -> bytes:
    """The bytes at an address up to a zero, at most `most`."""
    if most < 0:
        return ctypes.string_at(address)
    return _until_zero(address, most, 1)


def wide_at(address: int, most: int = -1) -> str:
    """The UTF-16 text at an address up to a zero unit, at most `most` units."""
    raw = _until_zero(address, most if most < 0 else 2 * most, 2)
    return raw.decode("utf-16-le", "surrogatepass")


def _until_zero(address: int, most: int, unit: int) -> bytes:
    """Reads no byte of a page after the one in which the text ends."""
    made = b""
    while most < 0 or len(made) < most:
        at = address + len(made)
        room = _PAGE - at % _PAGE
        if room < unit:  # a unit that crosses the end of a page
            room = unit
        piece = ctypes.string_at(at, room - room % unit if room > unit else unit)
        end = _zero_in(piece, unit)
        made += piece if end < 0 else piece[:end]
        if end >= 0:
            break
    return made if most < 0 else made[:most]


def _zero_in(piece: bytes, unit: int) -> int:
    if unit == 1:
        return piece.find(0)
    at = piece.find(b"\0\0")
    while at >= 0 and at % 2:
        at = piece.find(b"\0\0", at + 1)
    return at


@functools.lru_cache(maxsize=1024)
def _parsed(text: str) -> list[str | tuple[str, str | None, str | None, str, str, str]]:
    """Plain texts, and conversions as (flags, width, precision, size, letter, source)."""
    parts: list[str | tuple[str, str | None, str | None, str, str, str]] = []
    at = 0
    for found in _CONVERSION.finditer(text):
        parts.append(text[at:found.start()])
        at = found.end()
        flags, width, precision, size, letter = found.groups()
        if letter is None:
            parts.append(found.group())
        else:
            parts.append((flags, width, precision, size or "", letter, found.group()))
    parts.append(text[at:])
    return parts


def _integer(value: int, flags: str, precision: int | None, size: str, letter: str) -> str:
    bits = 64 if letter == "p" else _BITS.get(size, 32)
    value &= (1 << bits) - 1
    if letter in "di":
        if value >> (bits - 1):
            value -= 1 << bits
        sign = "-" if value < 0 else "+" if "+" in flags else " " if " " in flags else ""
        digits = str(abs(value))
    else:
        sign = ""
        digits = f"{value:{ {'u': 'd', 'o': 'o', 'x': 'x', 'X': 'X', 'p': 'X'}[letter]}}"
        if "#" in flags and value and letter in "xX":
            sign = "0" + letter
        elif "#" in flags and letter == "o" and digits[0] != "0":
            digits = "0" + digits
    if letter == "p":
        precision = 16
    if precision is not None:
        digits = "" if precision == 0 and value == 0 else digits.rjust(precision, "0")
    return sign + digits


def _text(value: int, precision: int | None, size: str, letter: str) -> str:
    wide = size in ("l", "w") or (letter in "SC" and size != "h")
    if letter in "cC":
        return chr(value & 0xFFFF) if wide else chr(value & 0xFF)
    if value == 0:
        return "(null)"[:precision]
    most = -1 if precision is None else precision
    if wide:
        return wide_at(value, most)
    return narrow_at(value, most).decode("utf-8", "surrogateescape")


def format_text(text: str, arguments: Sequence[int]) -> str:
    """Formats; every argument has 64 bits."""
    values: Iterator[int] = iter(arguments)

    def number(told: str | None) -> int | None:
        if told != "*":
            return None if told is None else int(told or "0")
        value = next(values) & 0xFFFFFFFF
        return value - (1 << 32) if value >> 31 else value

    made = []
    for part in _parsed(text):
        if isinstance(part, str):
            made.append(part)
            continue
        flags, told_width, told_precision, size, letter, _ = part
        if letter == "%":
            made.append("%")
            continue
        width, precision = number(told_width) or 0, number(told_precision)
        if width < 0:
            flags, width = flags + "-", -width
        if precision is not None and precision < 0:
            precision = None
        if letter in "sScC":
            body = _text(next(values), precision, size, letter)
        else:
            body = _integer(next(values), flags, precision, size, letter)
            if "0" in flags and "-" not in flags and precision is None and letter != "p":
                sign = body[:len(body) - len(body.lstrip("+- "))]
                body = sign + body[len(sign):].rjust(width - len(sign), "0")
        made.append(body.ljust(width) if "-" in flags else body.rjust(width))
    return "".join(made)
