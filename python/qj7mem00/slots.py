"""The slots of the MEM function vector, by name, with arguments checked by the contract."""

from __future__ import annotations

import ctypes
import operator
from typing import Any, Callable, Iterator

from .contract import CONTRACT, TYPES
from .host import Host
from .records import RECORDS, ctype, prototype

VECTOR_LENGTH: int = CONTRACT["constants"]["MEM_VECTOR_LEN"]

_Check = Callable[[Any], Any]


def _integer_check(place: str, entry: dict[str, Any]) -> _Check:
    numbers = 1 << 8 * entry["bytes"]
    least = -numbers // 2 if entry["signed"] else 0
    most = least + numbers - 1

    def check(value: Any) -> int:
        try:
            number = operator.index(value)
        except TypeError:
            raise TypeError(f"{place} is a number, not {type(value).__name__}") from None
        if not least <= number <= most:
            raise ValueError(f"{place} is {least} to {most}, not {number}")
        return number
    return check


def _address(place: str, value: Any) -> int | None:
    """None, an address or something with an address of its own; a TypeError otherwise."""
    if value is None:
        return None
    if isinstance(value, int) and not isinstance(value, bool):
        if not 0 <= value < 1 << 64:
            raise ValueError(f"{place} is an address, not {value}")
        return value
    raise TypeError(f"{place} cannot be {type(value).__name__}")


def _handle_check(place: str) -> _Check:
    def check(value: Any) -> int | None:
        if isinstance(value, ctypes.c_void_p):
            return value.value
        return _address(place, getattr(value, "handle", value))
    return check


def _cell_check(place: str, target: str, is_constant: bool) -> _Check:
    """A place for a pointer, a handle or a number: an object of its ctypes type."""
    wanted = ctype(target)

    def check(value: Any) -> int | None:
        if isinstance(value, (wanted, ctypes.Array)):
            if isinstance(value, ctypes.Array) and value._type_ is not wanted:
                raise TypeError(f"{place} points to {target}, not to {value._type_.__name__}")
            return ctypes.addressof(value)
        return _address(place, value)
    return check


def _record_check(place: str, target: str, is_constant: bool) -> _Check:
    wanted = RECORDS[target]
    least = ctypes.sizeof(wanted)

    def check(value: Any) -> Any:
        if isinstance(value, wanted) or (
                isinstance(value, ctypes.Array) and value._type_ is wanted):
            return ctypes.addressof(value)
        if isinstance(value, ctypes.Array) and value._type_ is ctypes.c_char:
            if ctypes.sizeof(value) < least:
                raise ValueError(f"{place} has {least} bytes or more")
            return ctypes.addressof(value)
        if isinstance(value, ctypes.c_void_p):  # contains the address
            return value.value
        return _address(place, value)
    return check


def _bytes_check(place: str, is_constant: bool) -> _Check:
    """Bytes of any kind: `char *` and `void *`."""
    def check(value: Any) -> Any:
        if isinstance(value, (ctypes.Array, ctypes.Structure)):
            return ctypes.addressof(value)
        if isinstance(value, ctypes.c_void_p):
            return value.value
        if isinstance(value, bytes) and is_constant:
            return value  # has a zero at its end
        if isinstance(value, bytearray):
            return ctypes.addressof(ctypes.c_char.from_buffer(value))
        return _address(place, getattr(value, "address", value))
    return check


def _wide_check(place: str) -> _Check:
    def check(value: Any) -> Any:
        if isinstance(value, str):
            return value.encode("utf-16-le", "surrogatepass") + b"\0\0"
        if isinstance(value, bytes):
            raise TypeError(f"{place} is wide text: a str")
        if isinstance(value, ctypes.c_void_p):
            return value.value
        if isinstance(value, ctypes.Array):
            return ctypes.addressof(value)
        return _address(place, getattr(value, "address", value))
    return check


def _pointer_check(place: str, entry: dict[str, Any]) -> _Check:
    target = entry["to"]
    kind = TYPES[target]["kind"]
    is_constant = entry.get("const", False)
    if target == "char16_t" and is_constant:
        return _wide_check(place)
    if kind == "void" or target == "char":
        return _bytes_check(place, is_constant)
    if kind == "record":
        return _record_check(place, target, is_constant)
    return _cell_check(place, target, is_constant)


class Slot:
    """One service. Calling it returns what the library returns; :meth:`call` raises failures.

    Numbers must have the width of the contract. A pointer takes None, an address or an object of
    the ctypes type (``RECORDS``, ``c_void_p``, ``c_uint32``); constant bytes take ``bytes``, wide
    text takes ``str``, and a function takes a Python function, which is kept until the process
    ends.
    """

    def __init__(self, slots: "Slots", entry: dict[str, Any]) -> None:
        self.name: str = entry["name"]
        self.number: int = entry["number"]
        self.parameters: list[str] = [row["name"] for row in entry["parameters"]]
        self.types: list[str] = [row["type"] for row in entry["parameters"]]
        self.__doc__ = f"{self}\n\n{entry.get('doc', '')}"
        self._slots = slots
        self._vector = slots.vector
        self._host = slots.host
        self._prototype = prototype(entry)
        self._returns_address = TYPES[entry["result"]]["kind"] == "pointer"
        self._checks = tuple(self._check_of(name, spelling)
                             for name, spelling in zip(self.parameters, self.types))
        self._at: int | None = None
        self._function: Any = None

    def __str__(self) -> str:
        listed = ", ".join(f"{kind} {name}" for kind, name in zip(self.types, self.parameters))
        return f"{self.name}({listed})"

    def __repr__(self) -> str:
        return f"<slot {self.number} {self}>"

    def _check_of(self, name: str, spelling: str) -> _Check:
        place = f"{self.name}: {name}"
        entry = TYPES[spelling]
        kind = entry["kind"]
        if kind == "integer":
            return _integer_check(place, entry)
        if kind == "handle":
            return _handle_check(place)
        if kind == "callback":
            return lambda value: self._slots.callback(place, spelling, value)
        return _pointer_check(place, entry)

    @property
    def function(self) -> Any:
        """The slot's present function, as a ctypes function without checks."""
        address = self._vector[self.number]
        if address != self._at or address is None:
            if address is None:
                raise RuntimeError(f"{self.name} is called while the library is not bound")
            self._function = self._prototype(address)
            self._at = address
        return self._function

    def __call__(self, *arguments: Any) -> Any:
        if len(arguments) != len(self._checks):
            raise TypeError(f"{self} takes {len(self._checks)} arguments, not {len(arguments)}")
        checked = [check(value) for check, value in zip(self._checks, arguments)]
        state = self._host.thread
        state.reason = ""
        at = self._vector[self.number]  # a host can replace its function at any time
        function = self._function if at == self._at and at is not None else self.function
        result = function(*checked)
        if state.pending is not None:
            self._host.raise_pending()
        return result

    def call(self, *arguments: Any) -> Any:
        """Calls the service. A result that is not 0, or a null address, raises MemError."""
        result = self(*arguments)
        if (result is None or result == 0) if self._returns_address else result:
            self._host.fail(self.name, result or 0)
        return result


class Slots:
    """All slots, as attributes: ``slots.MEM_HeapOpen``, and in order of their numbers."""

    def __init__(self, host: Host) -> None:
        self.host = host
        self.vector = (ctypes.c_void_p * VECTOR_LENGTH)()
        self._callbacks: dict[tuple[str, Any], Any] = {}
        self._by_name = {row["name"]: Slot(self, row) for row in CONTRACT["slots"]}

    def __getattr__(self, name: str) -> Slot:
        try:
            return self.__dict__["_by_name"][name]
        except KeyError:
            raise AttributeError(f"the library has no slot {name}") from None

    def __getitem__(self, name: str) -> Slot:
        return self._by_name[name]

    def __iter__(self) -> Iterator[Slot]:
        return iter(self._by_name.values())

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *self._by_name]

    def callback(self, place: str, kind: str, value: Any) -> Any:
        """The address of a function for the library."""
        if isinstance(value, ctypes._CFuncPtr):  # type: ignore[attr-defined]
            return ctypes.cast(value, ctypes.c_void_p)
        if not callable(value):
            return _address(place, value)
        made = self._callbacks.get((kind, value))
        if made is None:
            made = self._callbacks[kind, value] = self.host.guarded_callback(kind, value)
        return ctypes.cast(made, ctypes.c_void_p)
