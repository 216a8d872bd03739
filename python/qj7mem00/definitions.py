"""Definitions of structures, as JSON: what port strings and chains are made of.

The language is that of memtool: docs/memtool-port.md, docs/memtool-chain-names.md and
docs/python.md.
"""

from __future__ import annotations

import os
from functools import cached_property
from typing import Any

from .chain_definitions import ChainDefinitions, ChainKind
from .document import Document
from .errors import GraphError
from .port_definitions import Field, PortDefinitions, Structure

__all__ = ["Definitions", "Field", "Structure"]

_CHAIN_STRUCTURE_KEYS = {"segment", "next"}
_CHAIN_FIELD_KEYS = {"reference", "count", "toEnd"}
_CHAIN_TYPES = ("SByte", "UByte", "Float", "Double")


def _shows_chain(document: Any) -> bool:
    """Whether something is described that only chains have. Wrong forms are left to the check."""
    if not isinstance(document, dict):
        return False
    return "pointers" in document or any(
        not _CHAIN_STRUCTURE_KEYS.isdisjoint(structure)
        or any(not _CHAIN_FIELD_KEYS.isdisjoint(field) or field.get("type") in _CHAIN_TYPES
               for field in _dicts(structure.get("fields")))
        for structure in _dicts(document.get("structures")))


def _dicts(value: Any) -> list[dict[str, Any]]:
    return [each for each in value if isinstance(each, dict)] if isinstance(value, list) else []


class Definitions:
    """The definitions of a set of structures.

    :param source: the document as a path, as JSON text (it begins with a brace) or as a dict
    :param use: ``"chain"`` or ``"port"``: what is checked at once. Without it, chains if the
        document has a key or a type that only chains have, else port strings
    """

    def __init__(self, source: str | os.PathLike[str] | dict[str, Any],
                 use: str | None = None) -> None:
        if use not in (None, "chain", "port"):
            raise ValueError('use is "chain" or "port"')
        self._document = Document(source)
        self.use = use or ("chain" if _shows_chain(self._document.value) else "port")
        self._used: Any = self.chain if self.use == "chain" else self.port

    @cached_property
    def port(self) -> PortDefinitions:
        """For port strings. :class:`DefinitionError` if they are not valid for these."""
        return PortDefinitions(self._document)

    @cached_property
    def chain(self) -> ChainDefinitions:
        """For chains. :class:`DefinitionError` if they are not valid for these."""
        return ChainDefinitions(self._document)

    @classmethod
    def of(cls, source: Any, use: str | None = None) -> "Definitions":
        """Definitions as they are, or made from a source."""
        return source if isinstance(source, cls) else cls(source, use)

    @property
    def structures(self) -> list[Any]:
        structures: list[Any] = (self._used.kinds if self.use == "chain"
                                 else self._used.structures)
        return structures

    def find(self, name: str | int) -> Structure | ChainKind | None:
        """A structure by name or id."""
        found: Structure | ChainKind | None = self._used.find(name)
        return found

    def need(self, name: str | int) -> Any:
        found = self.find(name)
        if found is None:
            raise GraphError(f"there is no structure {name!r} in the definitions")
        return found
