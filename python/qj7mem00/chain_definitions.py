"""Definitions of the segments of packed chains: names and types of their bytes.

The rules are those of ``memtool chain`` (docs/memtool-chain-names.md).
"""

from __future__ import annotations

from typing import NoReturn

from .chain_layout import ChainFile, Form, Kind, Role, form_of_type
from .contract import CONSTANTS
from .document import Document, Node
from .errors import GraphError
from .port_definitions import TYPE_NAMES, find_by_name_or_id
from .values import ADDRESSES, NARROW, NUMBERS, WIDE

#: by name: bytes of a value, 0 if the field's length decides
TYPES: dict[str, int] = {
    **dict.fromkeys((*NARROW, *WIDE, "Bin"), 0), "Bit": 1,
    **{name: width for name, (width, _) in NUMBERS.items()}, **dict.fromkeys(ADDRESSES, 0),
}
_TEXTS = {"PStr": Form.NARROW, "WPStr": Form.WIDE}
_MOST_KINDS = 0x7FFF - 2  # text may need two more
MOST_SEGMENT = 0xFFFF
MOST_COUNTED = 0x7FFF + 2
LENGTH_WORD = 2  # bytes at the start of segments that have their own length
_INT32 = (1 << 31) - 1
_UINT32 = (1 << 32) - 1

_TOP_KEYS = ("structures", "pointers")
_KIND_KEYS = ("id", "name", "length", "segment", "next", "fields")
# Only port strings use the last four; any value is allowed for them.
_FIELD_KEYS = ("id", "name", "type", "offset", "length", "count", "toEnd", "structure",
               "reference", "required", "noTruncate", "notPorted", "default")


class ChainField:
    """One field of a segment."""

    def __init__(self, node: Node) -> None:
        self.node = node
        self.name = ""
        self.type = ""
        self.offset = 0
        self.length = 0  # of one element of an array; 0 for pointers
        self.count = 1
        self.is_array = False
        self.to_end = False
        self.role = Role.CHILD  # of a pointer
        self.target: ChainKind | None = None

    @property
    def is_pointer(self) -> bool:
        return self.type in ADDRESSES

    @property
    def is_text(self) -> bool:
        return self.type in NARROW or self.type in WIDE

    def extent(self, pointer_width: int) -> int:
        """Bytes in a segment; of a field to the end the least."""
        if self.is_pointer:
            return pointer_width
        return 0 if self.to_end else self.length * self.count


class ChainKind:
    """A structure: the kind of segment of its place in the list."""

    def __init__(self, node: Node, index: int) -> None:
        self.node = node
        self.index = index
        self.name = ""
        self.id = 0
        self.type = CONSTANTS["MEM_PACK_FIXED"]
        self.form = Form.FIXED
        self.fixed_length = 0
        self.fields: list[ChainField] = []
        self.by_name: dict[str, ChainField] = {}
        self.names: set[str] = set()
        self.next: ChainField | None = None
        self.values: list[ChainField] = []  # text first
        self.pointers: list[ChainField] = []
        self.shares = False  # fields have bytes in common

    def sort_fields(self) -> None:
        self.values = sorted((field for field in self.fields if not field.is_pointer),
                             key=lambda field: not field.is_text)
        self.pointers = [field for field in self.fields if field.is_pointer]
        by_offset = sorted(self.values, key=lambda field: field.offset)
        self.shares = any(two.offset < one.offset + one.extent(8) or one.to_end
                          for one, two in zip(by_offset, by_offset[1:]))

    @property
    def has_own_length(self) -> bool:
        return self.form in (Form.COUNTED, Form.SELF_SIZED)

    @property
    def most(self) -> int:
        """The longest segment."""
        if self.form is Form.FIXED:
            return self.fixed_length
        return MOST_COUNTED if self.form is Form.COUNTED else MOST_SEGMENT


class ChainDefinitions:
    """The kinds of segments of a chain.

    They are valid by themselves; :meth:`check_against` compares them with a chain.
    """

    def __init__(self, document: Document) -> None:
        self.kinds: list[ChainKind] = []
        self.by_id: dict[int, ChainKind] = {}
        self.by_name: dict[str, ChainKind] = {}
        self.pointers = 0
        self._needs = {Form.NARROW: False, Form.WIDE: False}
        self._top = document.top
        self._top.keys(_TOP_KEYS)
        width = self._top.find("pointers")
        if width is not None:
            self.pointers = width.integer(4, 8)
            if self.pointers not in (4, 8):
                width.fail("pointers have 4 or 8 bytes")
        listed = self._top.at("structures")
        nodes = listed.elements()
        if not nodes:
            listed.fail("no structure is defined")
        if len(nodes) > _MOST_KINDS:
            listed.fail("too many structures for a control block")
        for node in nodes:
            self._add_kind(node)
        for kind in self.kinds:
            self._add_fields(kind)
            kind.sort_fields()
        self._valid: set[int] = set()  # widths of pointers
        # Fields that overlap with short pointers do so with long ones.
        self.check_layout(self.pointers or 4)

    def find(self, name: str | int) -> ChainKind | None:
        """A structure by name or id."""
        found: ChainKind | None = find_by_name_or_id(str(name), self.by_name, self.by_id)
        return found

    def name_of(self, index: int) -> str:
        return self.kinds[index].name if index < len(self.kinds) else f"kind {index}"

    # Reading

    def _add_kind(self, node: Node) -> None:
        node.keys(_KIND_KEYS)
        kind = ChainKind(node, len(self.kinds))
        kind.id = node.at("id").integer(1, _INT32)
        named = node.find("name")
        kind.name = str(kind.id) if named is None else named.name()
        self._read_form(kind, node)
        if kind.id in self.by_id:
            node.fail(f"a second structure with the id {kind.id}")
        if kind.name in self.by_name:
            node.fail(f"a second structure {kind.name}")
        self.kinds.append(kind)
        self.by_id[kind.id] = self.by_name[kind.name] = kind

    @staticmethod
    def _read_form(kind: ChainKind, node: Node) -> None:
        segment = node.find("segment")
        if segment is not None and segment.is_text:
            if len(segment.value) != 1 or not segment.value.isascii():
                segment.fail("a segment's type is one letter, or a number")
            kind.type = ord(segment.value)
        elif segment is not None:
            kind.type = segment.integer(0, 0xFFFF)
        kind.form = form_of_type(kind.type)
        if kind.form is Form.FIXED:
            kind.fixed_length = node.at("length").integer(1, MOST_SEGMENT)
        elif (length := node.find("length")) is not None:
            length.integer(0, MOST_SEGMENT)  # of the fields; the segment has its own

    def _add_fields(self, kind: ChainKind) -> None:
        fields = kind.node.find("fields")
        if kind.form.is_text:
            if fields is not None:
                fields.fail("text has no fields")
            following = kind.node.find("next")
            if following is not None:
                following.fail("text has no next segment")
            return
        fields = kind.node.at("fields")
        nodes = fields.elements()
        if len(nodes) > CONSTANTS["MEM_PORT_MAX_FIELDS"]:
            fields.fail(f"more than {CONSTANTS['MEM_PORT_MAX_FIELDS']} fields")
        last = 0
        for index, node in enumerate(nodes):
            number = self._add_field(kind, node, index == len(nodes) - 1)
            if number <= last:
                node.fail("the ids of fields must ascend")
            last = number
        self._read_next(kind)
        for field in kind.fields:
            if field.type == "Pnt" and field.role is Role.CHILD and field.target is None:
                field.node.fail('"structure" is missing')

    def _add_field(self, kind: ChainKind, node: Node, is_last: bool) -> int:
        node.keys(_FIELD_KEYS)
        field = ChainField(node)
        number = node.at("id").integer(1, _UINT32)
        named = node.find("name")
        field.name = str(number) if named is None else named.name()
        if named is not None and field.name.startswith("+"):
            named.fail("a name must not begin with +, which bytes without a name have")
        field.type = _type_of(node.at("type"))
        field.offset = node.at("offset").integer(0, MOST_SEGMENT - 1)
        if field.is_pointer:
            self._read_pointer(field)
        else:
            self._read_extent(kind, field, is_last)
        if field.name in kind.by_name:
            node.fail(f"a second field {field.name}")
        kind.fields.append(field)
        kind.names.add(field.name)
        kind.by_name[field.name] = field
        kind.by_name.setdefault(str(number), field)
        return number

    @staticmethod
    def _read_next(kind: ChainKind) -> None:
        named = kind.node.find("next")
        if named is None:
            return
        field = kind.by_name.get(named.name_or_id())
        if field is None or field.type != "Pnt" or field.target is not kind:
            named.fail("expected a Pnt of this structure to the same structure")
        if field.role is Role.REFERENCE:
            named.fail("the next segment is no reference")
        field.role = Role.SIBLING
        kind.next = field

    @staticmethod
    def _read_extent(kind: ChainKind, field: ChainField, is_last: bool) -> None:
        node = field.node
        for key in ("structure", "reference"):
            if (found := node.find(key)) is not None:
                found.fail("only pointers have this key")
        to_end, length = node.find("toEnd"), node.find("length")
        takes_rest = (is_last and kind.has_own_length and field.type == "Bin" and length is None
                      and to_end is None)
        field.to_end = takes_rest or (to_end is not None and to_end.is_true())
        if to_end is not None and field.to_end:
            if not kind.has_own_length:
                to_end.fail("only segments with their own length have a varying end")
            if field.type == "Bit":
                to_end.fail("a field of type Bit has one byte")
        width = field.length = TYPES[field.type]
        if length is not None:
            if field.to_end and width == 0:
                length.fail("the field goes on to the end of its segment")
            least = width or (2 if field.type in WIDE else 1)
            field.length = length.integer(least, width or MOST_SEGMENT)
        elif width == 0 and not field.to_end:
            node.fail('"length" is missing')
        count = node.find("count")
        if count is not None:
            if field.to_end:
                count.fail("the field goes on to the end of its segment")
            if field.type not in NUMBERS:
                count.fail("only numbers have a count")
            field.count = count.integer(1, MOST_SEGMENT)
        field.is_array = count is not None or (field.to_end and field.type in NUMBERS)

    def _read_pointer(self, field: ChainField) -> None:
        node = field.node
        for key in ("count", "toEnd"):
            if (found := node.find(key)) is not None:
                found.fail("pointers do not have this key")
        if (length := node.find("length")) is not None:
            length.integer(4, 8)
        reference = node.find("reference")
        if reference is not None and reference.is_true():
            if field.type != "Pnt":
                reference.fail("only a Pnt is a reference")
            field.role = Role.REFERENCE
        if field.offset > 0x7FFF:
            node.fail("pointers have offsets up to 32767")
        self._read_target(field)

    def _read_target(self, field: ChainField) -> None:
        named = field.node.find("structure")
        wanted = _TEXTS.get(field.type)
        if named is None:
            if wanted is not None:
                self._note_text(field, wanted)
            return
        target = self.find(named.name_or_id())
        if target is None:
            named.fail("no such structure")
        if wanted is not None and target.form is not wanted:
            named.fail(f"{field.type} points to {wanted.value}")
        if wanted is None and target.form.is_text:
            named.fail("pointers to text have the types PStr and WPStr")
        field.target = target

    def _note_text(self, field: ChainField, wanted: Form) -> None:
        if sum(kind.form is wanted for kind in self.kinds) > 1:
            field.node.fail('there are several kinds of such text: name one with "structure"')
        self._needs[wanted] = True

    # Layout

    def check_layout(self, pointer_width: int) -> None:
        """Refuses fields that do not fit their segments with pointers of this width."""
        if pointer_width in self._valid:
            return
        for kind in self.kinds:
            self._check_layout(kind, pointer_width)
        self._valid.add(pointer_width)

    @staticmethod
    def _check_layout(kind: ChainKind, width: int) -> None:
        word = "Short" if kind.form is Form.COUNTED else "UShort"
        for field in kind.fields:
            length = field.extent(width)
            if field.offset + length > kind.most:
                field.node.fail(f"{length} bytes at {field.offset} end after the segment's "
                                f"{kind.most}")
            is_word = field.offset == 0 and field.type == word and not field.is_array
            if kind.has_own_length and field.offset < LENGTH_WORD and not is_word:
                field.node.fail(f"the first two bytes are the segment's length, a {word}")
        values = [field for field in kind.fields if not field.is_pointer]
        for index, pointer in enumerate(kind.pointers):
            for other in (*kind.pointers[:index], *values):
                end = kind.most if other.to_end else other.offset + other.extent(width)
                if pointer.offset < end and other.offset < pointer.offset + width:
                    at, over = (pointer, other) if other.is_pointer else (other, pointer)
                    at.node.fail(f"it overlaps the pointer {over.name}, which has {width} bytes")

    def check_against(self, chain: ChainFile, pointer_width: int) -> None:
        """:class:`GraphError` when the chain's control block describes other structures."""
        if not chain.kinds:
            raise GraphError("the chain's control block is damaged")
        self.check_layout(pointer_width)
        for kind in self.kinds:
            index = kind.index
            found = chain.kinds[index] if index < len(chain.kinds) else None
            if found is None or (index >= chain.count and not _is_of_form(kind, found)):
                _refuse(kind.node, f"it has {chain.count} kinds")
            if not _is_of_form(kind, found):
                _refuse(kind.node, f"kind {index} is of type {found.type} ({found.form.value})")
            if kind.form is Form.FIXED and found.fixed_length != kind.fixed_length:
                _refuse(kind.node.at("length"), f"kind {index} has {found.fixed_length} bytes")
            if not kind.form.is_text:
                _check_pointers(kind, found, chain.kinds, pointer_width)

    # The control block that they describe

    def text_kind(self, form: Form) -> int | None:
        """The kind of text that a field without a target points to: the defined one, else one
        after the others, narrow before wide, if a field needs it."""
        for kind in self.kinds:
            if kind.form is form:
                return kind.index
        if not self._needs[form]:
            return None
        narrow_is_new = self._needs[Form.NARROW] and not any(
            kind.form is Form.NARROW for kind in self.kinds)
        return len(self.kinds) + (form is Form.WIDE and narrow_is_new)

    def target_of(self, field: ChainField) -> int:
        """The kind that a child points to."""
        if field.target is not None:
            return field.target.index
        index = self.text_kind(_TEXTS[field.type])
        assert index is not None
        return index

    def described_kinds(self) -> list[Kind]:
        """The kinds of a control block that they describe."""
        kinds = [self._described(kind) for kind in self.kinds]
        for form in (Form.NARROW, Form.WIDE):
            index = self.text_kind(form)
            if index is not None and index >= len(self.kinds):
                kinds.append(Kind(CONSTANTS["MEM_PACK_STRING" if form is Form.NARROW else
                                            "MEM_PACK_WIDE_STRING"], form))
        return kinds

    def _described(self, kind: ChainKind) -> Kind:
        made = Kind(kind.type, kind.form, kind.fixed_length)
        for field in kind.fields:
            if not field.is_pointer:
                continue
            if field.role is Role.SIBLING:
                made.sibling = field.offset
            elif field.role is Role.REFERENCE:
                made.references.append(field.offset)
            else:
                made.children.append((self.target_of(field), field.offset))
            for listed, most, what in (
                    (made.references, CONSTANTS["MEM_PACK_MAX_REFERENCES"], "references"),
                    (made.children, CONSTANTS["MEM_PACK_MAX_CHILDREN"], "children")):
                if len(listed) > most:
                    field.node.fail(f"a segment has at most {most} {what}")
        return made


def _type_of(node: Node) -> str:
    """A name, or the code of a type that port strings have, too."""
    is_code = isinstance(node.value, int) and not isinstance(node.value, bool)
    kind = TYPE_NAMES.get(node.value, "") if is_code else node.text()
    if kind not in TYPES:
        node.fail("unknown type; the types are " + ", ".join(TYPES))
    return kind


def _refuse(node: Node, what: str) -> NoReturn:
    raise GraphError(node.message(f"the chain describes other structures: {what}"))


def _is_of_form(kind: ChainKind, found: Kind) -> bool:
    if kind.form is not Form.SELF_SIZED:
        return found.form is kind.form
    return found.form in (Form.SELF_SIZED, Form.UNKNOWN) and found.type == kind.type


def _check_pointers(kind: ChainKind, found: Kind, kinds: list[Kind | None], width: int) -> None:
    """Pointers without a field are no fault, unless another field is at their place."""
    pointers: dict[int, tuple[Role, int]] = {}
    for role, offset, target in found.pointers():
        pointers.setdefault(offset, (role, target))
    for field in kind.fields:
        if field.is_pointer:
            if field.offset not in pointers:
                _refuse(field.node, f"no pointer is at offset {field.offset}")
            role, target = pointers[field.offset]
            if role is not field.role:
                _refuse(field.node, f"the pointer at offset {field.offset} is a {role.value}")
            if role is Role.CHILD:
                _check_child(field, kinds[target], target)
            continue
        end = MOST_SEGMENT if field.to_end else field.offset + field.extent(width)
        for offset in pointers:
            if field.offset < offset + width and offset < end:
                _refuse(field.node, f"a pointer is at offset {offset}")


def _check_child(field: ChainField, found: Kind | None, index: int) -> None:
    form = found.form if found is not None else Form.UNKNOWN
    wanted = _TEXTS.get(field.type)
    is_other = field.target is not None and field.target.index != index
    if is_other or (form.is_text if wanted is None else form is not wanted):
        _refuse(field.node,
                f"the child at offset {field.offset} is of kind {index} ({form.value})")
