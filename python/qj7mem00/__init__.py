"""Memory services of QJ7MEM00 for Python, with the standard library alone."""

from .contract import CONSTANTS, CONTRACT
from .definitions import Definitions
from .errors import DefinitionError, GraphError, MemError
from .host import TRACE_ENTRY, TRACE_EXIT, TRACE_SINK, TRACE_STORAGE, Host, TraceRecord
from .objects import (Area, Buffer, CellPool, EnhancedHeap, HashTable, Heap, Sink, Storage,
                      SunkText)
from .chain import Segment, read_chain, write_chain
from .port import Record, read_port_string, write_port_string
from .process import Process, Thread, find_library
from .records import RECORDS
from .slots import Slot, Slots
from .storage import Account, Leak
