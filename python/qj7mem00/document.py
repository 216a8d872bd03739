"""JSON documents in which every mistake has a place: its path, line and column."""

from __future__ import annotations

import json
import math
import os
import re
from typing import Any, Callable, Iterable, NoReturn

from .errors import DefinitionError

# A value or a key of a JSON text, or the end of an object or array; only keys have the colon.
_TOKEN = re.compile(r'(?P<key>"(?:[^"\\]|\\.)*")(?P<colon>[ \t\r\n]*:)|(?P<end>[}\]])|'
                    r'"(?:[^"\\]|\\.)*"|[{\[]|[^ \t\r\n,:\]}{\["]+', re.DOTALL)
_MOST_LEVELS = 8  # of a path of arbitrary JSON
_MOST_SHOWN = 40  # characters of a key


def _finite(digits: str) -> float:
    value = float(digits)
    if not math.isfinite(value):
        raise ValueError(f"the number {digits} is too large")
    return value


def _refuse(word: str) -> NoReturn:
    raise ValueError(f"{word} is not a number of JSON")


def _line_of(text: str, offset: int) -> str:
    """``"line 3, column 12"``; columns are characters."""
    start = text.rfind("\n", 0, offset) + 1
    return f"line {text.count(chr(10), 0, offset) + 1}, column {offset - start + 1}"


def _repeated_key(text: str) -> tuple[str, str, int]:
    """The first key that an object has twice: the path of the object, the key and its offset.
    The text is valid JSON with such a key."""
    levels: list[tuple[set[str] | None, list[str]]] = []  # keys of an object; current key or index
    for found in _TOKEN.finditer(text):
        if found["end"]:
            levels.pop()
            continue
        keys, step = levels[-1] if levels else (None, [])
        if found["colon"]:
            assert keys is not None
            key = json.loads(found["key"])
            if key in keys:
                return _path_of([name[-1] for _, name in levels[:-1]]), key, found.start()
            keys.add(key)
            step[:] = [f".{key}"]
            continue
        if levels and keys is None:
            step[:] = [f"[{int(step[-1][1:-1]) + 1}]"]
        if found[0] == "{":
            levels.append((set(), [""]))
        elif found[0] == "[":
            levels.append((None, ["[-1]"]))
    raise AssertionError("no key appears twice")


def _path_of(steps: list[str]) -> str:
    path = "".join(steps[:_MOST_LEVELS]) + ("…" if len(steps) > _MOST_LEVELS else "")
    return path if not path.startswith(".") else f": {path[1:]}"


def _count(value: Any) -> int:
    """The values that a value consists of, including itself."""
    total, waiting = 0, [value]
    while waiting:
        following = waiting.pop()
        total += 1
        if isinstance(following, dict):
            waiting.extend(following.values())
        elif isinstance(following, list):
            waiting.extend(following)
    return total


class Document:
    """A JSON document: a file, JSON text (it begins with a brace) or a dict.

    Values of a dict have a path, but no line and column.
    """

    def __init__(self, source: str | os.PathLike[str] | dict[str, Any]) -> None:
        self.name = "definitions"
        self.text: str | None = None
        if isinstance(source, dict):
            self.value: Any = source
            return
        if isinstance(source, str) and source.lstrip().startswith("{"):
            self.text = source
        else:
            self.name = os.fspath(source)
            with open(source, "rb") as file:
                self.text = self._decoded(file.read())
        self.value = self._parsed(self.text)

    def _decoded(self, raw: bytes) -> str:
        try:
            return raw.decode("utf-8-sig")
        except UnicodeDecodeError as error:
            raise DefinitionError(f"{self.name}: byte {error.start} is not UTF-8") from None

    def _parsed(self, text: str) -> Any:
        is_repeated = False

        def as_dict(pairs: list[tuple[str, Any]]) -> dict[str, Any]:
            nonlocal is_repeated
            value = dict(pairs)
            is_repeated = is_repeated or len(value) != len(pairs)
            return value

        value = self._loaded(text, as_dict)
        if is_repeated:  # of several keys the first one in the text is reported
            path, key, offset = _repeated_key(text)
            shown = json.dumps(key[:_MOST_SHOWN], ensure_ascii=False) + "…" * (
                len(key) > _MOST_SHOWN)
            raise DefinitionError(f"{self.name}{path}: the key {shown} appears a second time "
                                  f"({_line_of(text, offset)})")
        return value

    def _loaded(self, text: str, as_dict: Callable[[list[tuple[str, Any]]], Any]) -> Any:
        try:
            return json.loads(text, parse_float=_finite, parse_constant=_refuse,
                              object_pairs_hook=as_dict)
        except json.JSONDecodeError as error:
            raise DefinitionError(f"{self.name}: {error.msg} "
                                  f"({_line_of(text, error.pos)})") from None
        except RecursionError:
            raise DefinitionError(f"{self.name}: the values are nested too deeply") from None
        except ValueError as error:
            raise DefinitionError(f"{self.name}: {error}") from None

    @property
    def top(self) -> Node:
        return Node(self, self.value, (), self.name)

    def line_of(self, path: tuple[str | int, ...]) -> str:
        """``""`` if the source has no lines. The values are in the order of the text."""
        if self.text is None:
            return ""
        starts = [found.start() for found in _TOKEN.finditer(self.text)
                  if not found["colon"] and not found["end"]]
        at, index = self.value, 0
        for step in path:
            before = at[:step] if isinstance(at, list) else [
                at[key] for key in list(at)[:list(at).index(step)]]
            index += 1 + sum(map(_count, before))
            at = at[step]
        return _line_of(self.text, starts[index])


class Node:
    """A value of a document. A value that does not have the wanted form is a
    :class:`DefinitionError` with its place:
    ``"x.json: structures[0].id: … (line 3, column 12)"``.
    """

    __slots__ = ("document", "value", "path", "place")

    def __init__(self, document: Document, value: Any, path: tuple[str | int, ...],
                 place: str) -> None:
        self.document = document
        self.value = value
        self.path = path
        self.place = place

    def message(self, what: str) -> str:
        line = self.document.line_of(self.path)
        return f"{self.place}: {what} ({line})" if line else f"{self.place}: {what}"

    def fail(self, what: str) -> NoReturn:
        raise DefinitionError(self.message(what))

    # Objects and arrays

    def keys(self, known: Iterable[str]) -> None:
        """Refuses other keys than these."""
        if not isinstance(self.value, dict):
            self.fail("expected an object")
        for key in self.value:
            if key not in known:
                self.fail(f"unknown key {key!r}; the keys are " + ", ".join(known))

    def find(self, key: str) -> Node | None:
        if not isinstance(self.value, dict):
            self.fail("expected an object")
        if key not in self.value:
            return None
        separator = "." if self.path else ": "
        return Node(self.document, self.value[key], (*self.path, key),
                    f"{self.place}{separator}{key}")

    def at(self, key: str) -> Node:
        found = self.find(key)
        if found is None:
            self.fail(f'"{key}" is missing')
        return found

    def elements(self) -> list[Node]:
        if not isinstance(self.value, list):
            self.fail("expected an array")
        return [Node(self.document, value, (*self.path, index), f"{self.place}[{index}]")
                for index, value in enumerate(self.value)]

    # Values

    @property
    def is_text(self) -> bool:
        return isinstance(self.value, str)

    def text(self) -> str:
        if not isinstance(self.value, str):
            self.fail("expected text")
        return self.value

    def integer(self, least: int, most: int) -> int:
        value = self.value
        if not isinstance(value, int) or isinstance(value, bool) or not least <= value <= most:
            self.fail(f"expected a whole number from {least} to {most}")
        return value

    def number(self, least: int, most: int) -> int:
        """A number, or its digits as text."""
        if isinstance(self.value, str) and re.fullmatch("-?[0-9]{1,30}", self.value):
            return Node(self.document, int(self.value), self.path, self.place).integer(least, most)
        return self.integer(least, most)

    def is_true(self) -> bool:
        if not isinstance(self.value, bool):
            self.fail("expected true or false")
        return self.value

    def flag(self, key: str) -> bool:
        """Of an object: False if the key is missing."""
        found = self.find(key)
        return found is not None and found.is_true()

    def name(self) -> str:
        """A name that tables can show and that is never taken for a number."""
        name = self.text()
        if re.fullmatch("[0-9]*", name):
            self.fail("a name must not be empty or a number")
        if re.search(r'[\x00-\x1f\x7f-\x9f"\\]', name):
            self.fail("a name must not have control characters, quotes or backslashes")
        return name

    def name_or_id(self) -> str:
        return self.value if isinstance(self.value, str) else str(self.integer(1, (1 << 32) - 1))
