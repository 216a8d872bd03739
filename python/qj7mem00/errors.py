"""Failures as exceptions."""

from __future__ import annotations


class MemError(Exception):
    """A call of the library that failed, with the contents of the thread's error area."""

    #: entry point, ``"MEM_HeapOpen"``
    service: str
    #: what the call returned
    result: int
    #: MEMERR code, 0 if the call recorded none
    code: int
    #: its name, ``"MEMERR_HEAPSIZE"``
    name: str
    #: its message, ``"Create size error"``
    text: str
    #: name or text of what failed
    what: str
    #: code and text of a failure inside the call
    inner_code: int
    inner_text: str
    #: text of the exception record that the call wrote: the reason of a failing port string call
    reason: str

    def __init__(self, service: str, result: int, code: int = 0, name: str = "", text: str = "",
                 what: str = "", inner_code: int = 0, inner_text: str = "",
                 reason: str = "") -> None:
        self.service = service
        self.result = result
        self.code = code
        self.name = name
        self.text = text
        self.what = what
        self.inner_code = inner_code
        self.inner_text = inner_text
        self.reason = reason
        super().__init__(self._line())

    def _line(self) -> str:
        line = f"{self.service} failed"
        if self.code:
            line += f": {self.code} {self.name}".rstrip()
            if self.text:
                line += f", {self.text}"
        else:
            line += f" with {self.result}"
        if self.what:
            line += f" ({self.what})"
        if self.inner_code or self.inner_text:
            line += f"; inside: {self.inner_code} {self.inner_text}".rstrip()
        if self.reason:
            line += f"; {self.reason}"
        return line


class DefinitionError(ValueError):
    """Definitions of structures with a mistake. The text names the place."""


class GraphError(ValueError):
    """Data that do not match the definitions: values to be written, or the contents of a file."""
