// The table of codes. Its recorded texts are exactly those of the library; tests compare each code
// and entry point with the library's failures.
#include <algorithm>
#include <array>

#include "error_codes.hpp"
#include "qj7mem00/memcat.h"
#include "qj7mem00/memerr.h"

namespace memtool {
namespace {

// Remedies that several codes share.
constexpr std::string_view kFreeStorage =
    "Free storage of this subpool, or raise its limit in the host, and call again.";
constexpr std::string_view kFindTheWriter =
    "If you see it, look for what else writes the error area: a service that the host put into a "
    "slot of the vector, or another component.";
constexpr std::string_view kUnused =
    "None in this library: the row is part of the message table that hosts know.";
constexpr std::string_view kCheckChain =
    "Save the blocks to a file and run `memtool chain FILE --check`: it shows block and offset of "
    "each fault. Get the chain again from its writer.";
constexpr std::string_view kKeepChain =
    "Use a chain from one thread at a time, and call `MEM_Unpack` only once for it.";
constexpr std::string_view kHeapHandle =
    "Pass the handle that the open stored, not its address, and close the heap once, after its "
    "last "
    "use. The services of the standard heap allocate from both kinds; each kind has its own close.";

constexpr std::string_view kTextTooLong =
    "The text would take more than 2,147,483,647 bytes with its terminator, the length is "
    "negative, or `BlkLen` of the control block is 0x7FFFFFFF or more. The value in the text is "
    "always 2147483647.";
constexpr std::string_view kCheckLength =
    "Check the length first. If it is right, the control block was never opened, or it was "
    "overwritten.";
constexpr std::string_view kNoRoomForText =
    "Subpool 0 has no storage for a longer buffer; the buffer has no storage because `MEM_CatOpen` "
    "failed or it is closed; or the control block is a null pointer.";
constexpr std::string_view kCheckOpen =
    "Check the result of `MEM_CatOpen`. Otherwise provide storage and append again: the text is "
    "unchanged.";

constexpr ErrorCase kCases[] = {
    // Process, threads, storage
    {MEMERR_PBLKFAIL, Seen::Inner, "MEMProcessBlock", "MEM_ProcessInit", "",
     "The host did not provide the process block: `RuntimeServices` slot 48 refused 3,248 bytes of "
     "subpool 1.",
     "Provide storage in subpool 1 and call again. Nothing is left allocated."},
    {MEMERR_TBLKFAIL, Seen::Recorded, "MEMThreadBlock", "MEM_ThreadAct", "",
     "The host did not provide the thread block: `RuntimeServices` slot 48 refused 296 bytes of "
     "subpool 2. Its own code is in `InnerCode`.",
     "Provide storage in subpool 2 and call again on this thread. Until then its services work, "
     "but `MEM_Cat` records no inner error, and large graphs are packed and written slowly."},
    {MEMERR_OPSCHEAP, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_LOAD_QTRLINK, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_VBIND, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_VFETCH, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_OSLOAD, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_MSTGGATE, Seen::Never, "", "", "", kUnused, kFindTheWriter},
    {MEMERR_GETMEM, Seen::Never, "", "", "",
     "None in this library: `MEM_Alloc` reports missing storage by a null address only.",
     kFindTheWriter},
    {MEMERR_FREEMEM, Seen::Never, "", "", "", "None in this library: `MEM_Free` reports nothing.",
     kFindTheWriter},

    // Cell pools
    {MEMERR_CELLBNDS, Seen::Recorded, "Invalid area bounds", "MEM_CellOpen", "",
     "`AreaLen` is less than 256 or more than 1,048,576.",
     "Pass the length of an area in bytes; only heaps take it in KB."},
    {MEMERR_CELLSIZE, Seen::Recorded, "Invalid area length", "MEM_CellOpen", "",
     "`AreaLen` is less than `CellLen` + 168.",
     "Pass a longer area: the first one also contains the control block and its lists."},
    {MEMERR_CELLELEN, Seen::Recorded, "Invalid cell length", "MEM_CellOpen", "",
     "`CellLen` is less than 8.", "Pass the size of the record, at least 8 bytes."},
    {MEMERR_CELLAMEM, Seen::Recorded, "Memory Alloc failed", "MEM_CellOpen, MEM_CellAllocEntry", "",
     "Vector slot 8 (`MEM_Alloc`) returned null for an area of `AreaLen` bytes.",
     "Free storage of this subpool, or raise its limit in the host, and call again: the pool is "
     "unchanged."},
    {MEMERR_CELLBHDL, Seen::Recorded, "Invalid Cell Handle=%p",
     "MEM_CellClose, MEM_CellClear, MEM_CellAllocEntry, MEM_CellFreeEntry", "",
     "The handle is null, the pool is closed, or no pool is at this address: its first 8 bytes are "
     "not \"QQQCELL1\".",
     "Pass the handle that `MEM_CellOpen` stored, not its address, and close the pool once, after "
     "its "
     "last use."},

    // Concatenation buffers
    {MEMERR_CATSTRSIZE, Seen::Recorded, "MemCat String area >= %lu", "MEM_MemCat", "", kTextTooLong,
     kCheckLength},
    {MEMERR_CATSTRSIZE, Seen::InsideCat, "MemCat String area >= %lu", "MEM_Cat", "", kTextTooLong,
     kCheckLength},
    {MEMERR_CATAMEM, Seen::Recorded, "AcqMemCatExtString", "MEM_CatOpen", "",
     "Vector slot 8 (`MEM_Alloc`) returned null for 1,024 bytes of subpool 0, or the control block "
     "is a null pointer.",
     "Pass a control block; provide storage in subpool 0."},
    {MEMERR_CATAMEM, Seen::Recorded, "Memory Alloc failed", "MEM_MemCat", "", kNoRoomForText,
     kCheckOpen},
    {MEMERR_CATAMEM, Seen::InsideCat, "Memory Alloc failed", "MEM_Cat", "", kNoRoomForText,
     kCheckOpen},
    {MEMERR_CATSTDSTR, Seen::Recorded, "MemCatStdStringFail", "MEM_Cat, MEM_MemCat", "",
     "The text is a null pointer, or the append inside `MEM_Cat` failed: then `InnerCode` is 4025 "
     "or 4026 and `InnerText` its text. On a thread without a thread block they stay empty.",
     "If there is an inner code, look it up. Otherwise pass a text; an empty one is allowed."},
    {MEM_CAT_CLOSE_ERROR, Seen::Recorded, "FreeMemCatExtString", "MEM_CatClose", "",
     "`BlkLen` of the control block is 0x80000000 or more, whatever its pointer is (`TextServices` "
     "slot 8 gets the detail text \"pCatCB->BlkLen>LONG_MAX\"), or the control block is a null "
     "pointer (no detail text).",
     "Close only what `MEM_CatOpen` has opened; if it was opened, the control block was "
     "overwritten. "
     "Nothing is freed."},

    // Hash tables
    {MEMERR_HASHAMEM, Seen::Recorded, "HashCBAllocFail", "MEM_HashOpen",
     "MEM_Pack, MEM_StructToPortStr",
     "Vector slot 8 (`MEM_Alloc`) returned null for the control block of `Max` × 8 + 56 bytes, or "
     "`Max` is less than -1.",
     "Pass the number of the last bucket as `Max`; provide storage in the subpool."},
    {MEMERR_HASHBHDL, Seen::Recorded, "Invalid Hash Handle=%p",
     "MEM_HashClose, MEM_HashInsEntry, MEM_HashGetEntry, MEM_HashDelEntry, MEM_HashScan", "",
     "The handle is null, the table is closed, or no table is at this address: its first 8 bytes "
     "are not \"QQQQHASH\".",
     "Pass the handle that `MEM_HashOpen` stored, not its address, and close the table once, after "
     "its last use."},
    {MEMERR_HASHFERR, Seen::Recorded, "Hash Func returned invalid value=%08X",
     "MEM_HashInsEntry, MEM_HashGetEntry, MEM_HashDelEntry", "",
     "The caller's hash function returned a number that is not 0 to `Max`. The text shows its low "
     "16 bits with their sign: FFFFFFFF is -1.",
     "Reduce modulo `Max` + 1, in unsigned numbers, before converting to 16 bits. The table is "
     "unchanged."},
    {MEMERR_HASHDKEY, Seen::ResultOnly, "", "MEM_HashInsEntry", "",
     "The table has a record with this key. The address of that record is stored; nothing is "
     "copied.",
     "This is an answer, not an error: use the stored record, or delete it and insert again."},
    {MEMERR_HASHNFND, Seen::ResultOnly, "", "MEM_HashGetEntry, MEM_HashDelEntry", "",
     "The table has no record with this key. Nothing is stored.",
     "This is an answer, not an error. If the record should be there: all `KeyLen` bytes of the "
     "keys "
     "are compared, including the bytes after a text's terminator."},

    // Heaps
    {MEMERR_HEAPSIZE, Seen::Recorded, "Invalid Area Length=%hd", "MEM_HeapOpen, MEM_EHeapOpen",
     "MEM_HashOpen", "`AreaLen` is not 1 to 256.",
     "Pass the length of an area in KB, not in bytes. After a failed `MEM_HashOpen` the table's "
     "control block stays allocated."},
    {MEMERR_HEAPEMIN, Seen::Recorded, "Entry Length=%ld too small", "MEM_HeapAllocEntryLong",
     "MEM_HeapAllocEntry, MEM_HeapAllocMultEntries, MEM_HeapAllocLongMultEntries, "
     "MEM_HashInsEntry, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "The length is less than 1 and the heap a standard heap. From `MEM_HashInsEntry`: the "
     "record's length is negative or more than 32,752. From the readers of port strings: the "
     "definition of a structure gives it no bytes.",
     "Check the length, above all where a larger number is converted to 16 bits: "
     "`MEM_HeapAllocEntryLong` takes 32 bits."},
    {MEMERR_HEAPEMAX, Seen::Never, "", "", "",
     "None in this library: an entry that fits no area gets a large block.", kFindTheWriter},
    {MEMERR_HEAPNUME, Seen::Recorded, "Num of entries=%hd too small",
     "MEM_HeapAllocMultEntries, MEM_EHeapAllocMultEntries", "",
     "The number of entries is less than 1.",
     "Skip the call when there is nothing to allocate. More than 32,767 entries need the service "
     "with Long in its name."},
    {MEMERR_HEAPNUME, Seen::Recorded, "Num of entries=%ld too small",
     "MEM_HeapAllocLongMultEntries, MEM_EHeapAllocLongMultEntries", "",
     "The number of entries is less than 1.", "Skip the call when there is nothing to allocate."},
    {MEMERR_HEAPLOFF, Seen::Recorded, "Link offset=%hd less than zero",
     "MEM_HeapAllocMultEntries, MEM_HeapAllocLongMultEntries, MEM_EHeapAllocMultEntries, "
     "MEM_EHeapAllocLongMultEntries",
     "", "`LinkOff` is negative.",
     "Pass the offset of the link in the record, as `offsetof` returns it; it must be at most the "
     "length less 8, which is not checked."},
    {MEMERR_HEAPAMEM, Seen::Recorded, "MemAllocFail", "MEM_HeapOpen",
     "MEM_HashOpen, MEM_Pack, MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "Vector slot 8 (`MEM_Alloc`) returned null for the first area.", kFreeStorage},
    {MEMERR_HEAPAMEM, Seen::Recorded, "MemAllocFail", "MEM_EHeapOpen", "",
     "Vector slot 8 (`MEM_Alloc`) returned null for the first area. What the host left in the "
     "error area is in `InnerCode` and `InnerText`.",
     kFreeStorage},
    {MEMERR_HEAPAMEM, Seen::Recorded, "MemAllocFail", "MEM_EHeapAllocEntry",
     "MEM_HeapAllocEntry, MEM_HeapAllocEntryLong, MEM_HeapAllocMultEntries, "
     "MEM_HeapAllocLongMultEntries, MEM_EHeapAllocMultEntries, MEM_EHeapAllocLongMultEntries, "
     "MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "Vector slot 8 (`MEM_Alloc`) returned null for a further area of an enhanced heap.",
     "Free storage of this subpool, or raise its limit in the host, and call again: the heap is "
     "unchanged."},
    {MEMERR_HEAPAMEM, Seen::Recorded, "MemAllocAreaFail", "MEM_HeapAllocEntryLong",
     "MEM_HeapAllocEntry, MEM_HeapAllocMultEntries, MEM_HeapAllocLongMultEntries, "
     "MEM_HashInsEntry, MEM_Pack, MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "Vector slot 8 (`MEM_Alloc`) returned null for a further area of a standard heap.",
     "Free storage of this subpool, or raise its limit in the host, and call again: the heap is "
     "unchanged."},
    {MEMERR_HEAPAMEM, Seen::Recorded, "MemAllocBlkFail",
     "MEM_HeapAllocEntryLong, MEM_EHeapAllocEntry",
     "MEM_HeapAllocEntry, MEM_HeapAllocMultEntries, MEM_HeapAllocLongMultEntries, "
     "MEM_EHeapAllocMultEntries, MEM_EHeapAllocLongMultEntries, MEM_HashInsEntry, "
     "MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "The entry is too long for an area, and vector slot 8 (`MEM_Alloc`) returned null for a large "
     "block.",
     "Check the length first: it may be wrong. Then free storage of this subpool, or raise its "
     "limit "
     "in the host, and call again: the heap is unchanged."},
    {MEMERR_HEAPBHDL, Seen::Recorded, "Invalid Heap Handle=%p",
     "MEM_HeapClose, MEM_HeapAllocEntry, MEM_EHeapAllocEntry, MEM_EHeapFreeEntry, "
     "MEM_EHeapAllocMultEntries, MEM_EHeapAllocLongMultEntries",
     "",
     "The handle is null, the heap is closed, or no heap of the service's kind is at this address: "
     "its first 8 bytes are not \"QQQHEAP1\" (standard) or \"ENHHEAP1\" (enhanced).",
     kHeapHandle},
    {MEMERR_HEAPBHDL, Seen::EarlierText, "",
     "MEM_HeapAllocEntryLong, MEM_HeapAllocMultEntries, MEM_HeapAllocLongMultEntries, "
     "MEM_EHeapClose",
     "MEM_HeapAllocEntry, MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct",
     "The handle is null, the heap is closed, or no heap of the service's kind is at this address. "
     "Ignore the text: it is from an earlier failure.",
     kHeapHandle},
    {MEMERR_HEAPGATE, Seen::Recorded, "CreateGate", "MEM_EHeapOpen", "",
     "The host could not make the heap's gate: `RuntimeServices` slot 27 returned a code other "
     "than 0. What the host left in the error area is in `InnerCode` and `InnerText`.",
     "Look the inner code up in the host's manual. Nothing is left allocated."},
    {MEMERR_HEAPGATE, Seen::Recorded, "AcquireGate",
     "MEM_EHeapClose, MEM_EHeapAllocEntry, MEM_EHeapFreeEntry",
     "MEM_HeapAllocEntry, MEM_HeapAllocEntryLong, MEM_HeapAllocMultEntries, "
     "MEM_HeapAllocLongMultEntries, MEM_EHeapAllocMultEntries, MEM_EHeapAllocLongMultEntries",
     "The host did not let this thread hold the heap's gate: `RuntimeServices` slot 29 returned a "
     "code other than 0. What the host left in the error area is in `InnerCode` and `InnerText`.",
     "Look for a thread that has ended, or was ended, inside a call on this heap, and for a slot "
     "of the host's own that calls the heap while its gate is held. The heap is unchanged."},
    {MEMERR_HEAPENTRY, Seen::Recorded, "BuffPtr=%p", "MEM_EHeapFreeEntry", "",
     "The host's storage check (`RuntimeServices` slot 285) refuses the range, or the length is "
     "that of a large entry and no large block (\"QQQHBLKN\") is before the address.",
     "Free the entry with the length and on the heap with which it was allocated."},

    // Packed chains
    {MEMERR_PACKAMEM, Seen::WithCode, "1stBlkMemAllocFail", "MEM_Pack", "",
     "Vector slot 8 (`MEM_Alloc`) returned null for the first block, of `BlkLen` bytes of subpool "
     "0.",
     "Free storage of subpool 0, or raise its limit in the host, and call again. Nothing is left "
     "allocated."},
    {MEMERR_PACKAMEM, Seen::WithCode, "NthBlkMemAllocFail", "MEM_Pack, MEM_Unpack", "",
     "Vector slot 8 (`MEM_Alloc`) returned null for a further block; from `MEM_Unpack`: for a "
     "block of the new chain, 33,024 bytes.",
     "Free storage of subpool 0, or raise its limit in the host, and call again. After `MEM_Pack` "
     "the chain packed so far is stored: free its blocks. `MEM_Unpack` has freed its own."},
    {MEMERR_PACKAMEM, Seen::WithCode, "BlockPtrTblCallocFail", "MEM_Unpack", "",
     "No storage in subpool 0 for the table of the chain's blocks, 8 bytes each.",
     "Provide storage in subpool 0 and call again: the chain is unchanged."},
    {MEMERR_PACKAMEM, Seen::WithCode, "UnpackBlkMemAllocFail", "MEM_Unpack", "",
     "No storage in subpool 0 for the work area: about a quarter of the chain's length, or 32,768 "
     "bytes to convert wide text.",
     "Provide storage in subpool 0 and load the chain again: it may be partly converted."},
    {MEMERR_PACKAMEM, Seen::WithCode, "PrevBlkOffsetTblCallocFail", "MEM_Unpack", "",
     "No storage in subpool 0 for a work table, 4 bytes for each block. Only for a chain of "
     "another layout.",
     "Provide storage in subpool 0 and call again: the chain is unchanged."},
    {MEMERR_PACKAMEM, Seen::WithCode, "NewBlockTblCallocFail", "MEM_Unpack", "",
     "No storage in subpool 0 for the table of moved items. Only for a chain of another layout.",
     "Provide storage in subpool 0 and call again: the chain is unchanged."},
    {MEMERR_PACKAMEM, Seen::WithCode, "NewPackCBInvalid", "MEM_Unpack", "",
     "`pPackCB` is a null pointer. This has nothing to do with storage.",
     "Pass the control block that describes the structures on this platform."},
    {MEMERR_PACKBMIN, Seen::WithCode, "BlockTooSmallforMemPackCB=%ld", "MEM_Pack", "",
     "`BlkLen`, the value in the text, is too short for the control block: 978 bytes, 122 more for "
     "each descriptor beyond 8, and 19 other bytes.",
     "Pass a longer block, usually 32,768 bytes. When `BlkLen` is 10 or more the first block is "
     "stored: free it."},
    {MEMERR_PACKBMIN, Seen::WithCode, "SegmentLengthTooLarge=%hd", "MEM_Pack", "",
     "A segment is longer than `BlkLen` - 15, or the number at the start of a segment of type "
     "\"C\" is negative. The text shows the low 16 bits of the length.",
     "Pass a longer block, or look for a count that was not set. The chain packed so far is "
     "stored: free its blocks."},
    {MEMERR_PACKBMIN, Seen::WithCode, "StringLengthTooLarge=%ld", "MEM_Pack", "",
     "A text is longer than `BlkLen` - 15 with its terminator; wide text takes twice its bytes.",
     "Pass a longer block, or look for a text without a terminator. The chain packed so far is "
     "stored: free its blocks."},
    {MEMERR_PACKBMIN, Seen::WithCode, "BlockTooSmallforMemPackCBinUnpack=%ld", "MEM_Unpack", "",
     "The caller's control block has too many descriptors for a block of the new chain. Only for a "
     "chain of another layout.",
     "Use 270 descriptors at most."},
    {MEMERR_PACKBMIN, Seen::WithCode, "SegmentLengthTooLargeinUnpack=%hd", "MEM_Unpack", "",
     "A segment is longer than 33,009 bytes in the caller's layout, or one of type \"C\" longer "
     "than its number can say. The text shows the low 16 bits of the length.",
     "Have the writer split the structure."},
    {MEMERR_PACKBMIN, Seen::WithCode, "StrBufLengthTooLargeinUnpack=%hd", "MEM_Unpack", "",
     "A text of the chain is longer than 33,009 bytes. Only for a chain of another layout. The "
     "text shows the low 16 bits of the length.",
     "Have the writer split the text."},
    {MEMERR_PACKBMIN, Seen::WithCode, "StrBufLengthTooLargeinRepack=%hd", "MEM_Unpack", "",
     "A wide text of the chain is longer than 33,009 bytes with the double length that is reserved "
     "for it. Only for a chain of another layout. The text shows the low 16 bits of its length.",
     "Have the writer split the text."},
    {MEMERR_PACKBMAX, Seen::WithCode, "MaxBlocksValueBad=%hd", "MEM_Pack, MEM_Unpack", "",
     "`MEM_Unpack`: there is no chain (0), or it has more than 32,767 blocks, for example because "
     "its links form a circle (-32768). `MEM_Pack`: the chain would have more than 32,767 blocks.",
     "Check the address of the chain's address, and the link of its last block, which must be "
     "null. "
     "Pack with longer blocks."},
    {MEMERR_PACKSMAX, Seen::Never, "", "", "",
     "None in this library: a segment that is too long fails with 4066.", kFindTheWriter},
    {MEMERR_PACKSPTR, Seen::WithCode, "Invalid Segment Ptr=%p", "MEM_Pack", "",
     "The root or the place for the chain is a null pointer (the text then shows 0), or a "
     "reference leads to a structure that no child or sibling pointer reaches.",
     "Find the structure at the address. Reach it by a child or sibling pointer, or make the "
     "reference null before packing. After a bad reference the chain packed so far is stored: free "
     "its blocks."},
    {MEMERR_PACKRBLK, Seen::WithCode, "Invalid Relative Blk=%hd", "MEM_Unpack", "",
     "A pointer of the chain names a block that the chain does not have, or the chain has one "
     "block and the root is not in it.",
     "Check that all blocks exist, in their order, and that the chain was not unpacked before: "
     "then "
     "it contains addresses. Save the blocks to a file and run `memtool chain FILE --check`: it "
     "shows block and offset of each fault."},
    {MEMERR_PACKRBLK, Seen::WithCode, "RepackNewBlockTblBlkErr", "MEM_Unpack", "",
     "A reference leads to a block in which no segment is reached. Only for a chain of another "
     "layout.",
     kCheckChain},
    {MEMERR_PACKRBLK, Seen::WithCode, "NewBlockTblBlkNumErr", "MEM_Unpack", "",
     "A child pointer has changed during the call.", kKeepChain},
    {MEMERR_PACKRBLK, Seen::WithCode, "UnpackSibNewBlockTblBlkErr", "MEM_Unpack", "",
     "A sibling pointer has changed during the call.", kKeepChain},
    {MEMERR_PACKROFF, Seen::WithCode, "Invalid Relative Offset=%hd", "MEM_Unpack", "",
     "A pointer of the chain leads beyond the used length of its block, or the item at its target "
     "(a "
     "segment, its length, a pointer field, a text with its terminator) does not end within it. "
     "The "
     "text shows the offset, counted from byte 8 of the block.",
     kCheckChain},
    {MEMERR_PACKROFF, Seen::WithCode, "RepackNewBlockTblOffsetErr", "MEM_Unpack", "",
     "A reference leads to a place where no segment begins. Only for a chain of another layout.",
     kCheckChain},
    {MEMERR_PACKROFF, Seen::WithCode, "NewBlockTblOffsetErr", "MEM_Unpack", "",
     "A child pointer has changed during the call.", kKeepChain},
    {MEMERR_PACKROFF, Seen::WithCode, "UnpackSibNewBlockTblOffsetErr", "MEM_Unpack", "",
     "A sibling pointer has changed during the call.", kKeepChain},
    {MEMERR_PACKCYCL, Seen::WithCode, "RecursiveStructure", "MEM_Pack, MEM_Unpack", "",
     "`MEM_Pack`: a structure is reached twice by child and sibling pointers. `MEM_Unpack`: two "
     "items of the chain overlap, or one is reached twice.",
     "Describe all pointers to a structure but one as references: they may form circles. After "
     "`MEM_Pack` the chain packed so far is stored: free its blocks. A chain that was read is "
     "damaged."},
    {MEMERR_PACKSTAK, Seen::WithCode, "TraversalStackOverflow", "MEM_Pack, MEM_Unpack", "",
     "Child pointers lead more than 64 levels deep, the root included.",
     "Link long lists by the sibling pointer, which takes no level. After `MEM_Pack` the chain "
     "packed so far is stored: free its blocks."},
    {MEMERR_PACKSTAK, Seen::WithCode, "UnpackStackOverflow", "MEM_Unpack", "",
     "In a chain of another layout child pointers lead more than 64 levels deep, the root "
     "included.",
     "Have the writer link long lists by the sibling pointer. `MEM_Pack` makes no such chain."},
    {MEMERR_PACKCBID, Seen::WithCode, "MemPackCBstructIDInvalid=%p", "MEM_Pack, MEM_Unpack", "",
     "`MEM_Pack`: `pPackCB` is a null pointer, a descriptor has a count out of range (24 children, "
     "8 references) or a child of a kind that does not exist, or a pointer field is not inside its "
     "segment. `MEM_Unpack`: no version is at the start of the chain, its control block is "
     "damaged, or the caller's control block describes other structures. The text shows the "
     "address of the version, the descriptor or the control block.",
     "Clear a `MemPackCB` before filling it. For a chain: run `memtool chain FILE --check`, and "
     "compare the kinds that `memtool chain FILE` shows with those of your control block."},
    {MEMERR_PACKCBVR, Seen::WithCode, "MemPackCBstructIDVersion=%p", "MEM_Unpack", "",
     "The version of the chain begins with a digit, but this library does not know it.",
     "Check the four characters from byte 10 of the first block on: the chain is damaged, or its "
     "writer is newer."},
    {MEMERR_PACKUTF, Seen::WithCode, "UTF32 to UTF16 Conversion err=%hd", "MEM_Unpack", "",
     "A wide text of a writer with wide characters of 4 bytes is not valid UTF-32, or is too long. "
     "The text shows the code of the host's conversion service (`RuntimeServices` slot "
     "158).",
     "Have the writer check its text. The chain is partly converted: load it again."},
    {MEMERR_PACKUTF, Seen::Never, "UTF16 to UTF32 Conversion err=%hd", "", "",
     "None on this platform: its wide characters have 2 bytes.", kFindTheWriter},

    // String sink
    {MEMERR_SINKVSTG, Seen::Inner, "GetVSTGErr", "MEM_SinkInit", "MEM_ProcessInit",
     "`RuntimeServices` slot 112 did not provide the first block (0x44000 bytes) or the index "
     "(16,384 bytes) of subpool 230, kind 0. What the host left as its own code is in `Code` and "
     "`PrevInnerCode`.",
     "Provide storage in subpool 230. After a failed `MEM_ProcessInit` call `MEM_ProcessTerm`, "
     "which frees what was allocated, and start again."},
    {MEMERR_SINKVSTG, Seen::Inner, "ProtPageErr", "MEM_SinkInit", "MEM_ProcessInit",
     "`RuntimeServices` slot 144 refused to make the string space of the first block read-only.",
     "Let storage of subpool 230 have whole pages from byte 16,384 on. After a failed "
     "`MEM_ProcessInit` call `MEM_ProcessTerm`, and start again."},
    {MEMERR_SINKVSTG, Seen::Recorded, "GetVSTGErr", "MEM_SinkString, MEM_WSinkString", "",
     "`RuntimeServices` slot 112 did not provide a further block or a larger index of subpool 230. "
     "What the host left in the error area is in `InnerCode` and `InnerText`.",
     "Provide storage in subpool 230 and call again: the sink is unchanged."},
    {MEMERR_SINKVSTG, Seen::Recorded, "ProtPageErr", "MEM_SinkString, MEM_WSinkString", "",
     "`RuntimeServices` slot 144 refused to make the string space of a further block read-only. "
     "What the host left in the error area is in `InnerCode` and `InnerText`.",
     "Let storage of subpool 230 have whole pages from byte 16,384 on. The sink is unchanged."},
    {MEMERR_SINKVSTG, Seen::Recorded, "ProtPageErrReadWrite",
     "MEM_SinkString, MEM_WSinkString, MEM_SinkDelete, MEM_WSinkDelete", "",
     "`RuntimeServices` slot 144 refused to make the bytes of the copy writable. What the host "
     "left in the error area is in `InnerCode` and `InnerText`.",
     "Look the inner code up in the host's manual and call again: the sink is unchanged."},
    {MEMERR_SINKVSTG, Seen::Recorded, "ProtPageErrReadOnly",
     "MEM_SinkString, MEM_WSinkString, MEM_SinkDelete, MEM_WSinkDelete", "",
     "`RuntimeServices` slot 144 refused to make the bytes of the copy read-only again. What the "
     "host left in the error area is in `InnerCode` and `InnerText`.",
     "Look the inner code up in the host's manual. After sinking, nothing was added: call again. "
     "After "
     "deleting, the text is deleted: do not call again."},
    {MEMERR_SINKLGATE, Seen::Inner, "CreateFailed", "MEM_SinkInit", "MEM_ProcessInit",
     "The host could not make the sink's gate: `RuntimeServices` slot 27 returned a code other "
     "than 0.",
     "Check the host's gates. After a failed `MEM_ProcessInit` call `MEM_ProcessTerm`, which "
     "frees what was allocated, and start again."},
    {MEMERR_SINKLGATE, Seen::Recorded, "ListGateAcq",
     "MEM_SinkString, MEM_SinkDelete, MEM_SinkVerify, MEM_WSinkString, MEM_WSinkDelete, "
     "MEM_WSinkVerify",
     "",
     "The host did not let this thread hold the sink's gate: `RuntimeServices` slot 29 returned a "
     "code other than 0. What the host left in the error area is in `InnerCode` and `InnerText`.",
     "Look for a thread that has ended, or was ended, inside a call of the sink, and for a slot of "
     "the host's own that calls the sink while its gate is held. The sink is unchanged."},
    {MEMERR_SINKITEXT, Seen::Recorded, "InputTextPtrNull",
     "MEM_SinkString, MEM_SinkVerify, MEM_WSinkString, MEM_WSinkVerify", "",
     "The text is a null pointer.", "Pass a text; an empty one is allowed."},
    {MEMERR_SINKSTEXT, Seen::Recorded, "SinkTextPtrNull", "MEM_SinkVerify, MEM_WSinkVerify", "",
     "The place for the address of the copy is a null pointer.",
     "Pass the address of a pointer, also when only the result is wanted."},
    {MEMERR_SINKNFND, Seen::ResultOnly, "",
     "MEM_SinkVerify, MEM_SinkDelete, MEM_WSinkVerify, MEM_WSinkDelete", "",
     "The text is not in the sink. Nothing is stored.",
     "From verify this is an answer, not an error. From delete: the text was already deleted as "
     "often "
     "as it was sunk; look for one delete too many."},
    {MEMERR_SINKNOSPACE, Seen::Recorded, "AllSinkBlksFull", "MEM_SinkString, MEM_WSinkString", "",
     "None of the 64 blocks has room, or the text does not fit an empty one of 262,144 bytes.",
     "Delete texts that are no longer used; keep long texts elsewhere."},
    {MEMERR_SINKIERR, Seen::Recorded, "SinkVerifyErr",
     "MEM_SinkString, MEM_SinkDelete, MEM_WSinkString, MEM_WSinkDelete", "",
     "Sinking: the place for the address of the copy is a null pointer. Deleting: the address is a "
     "null pointer.",
     "Pass the address of a pointer; delete what the sink stored."},
    {MEMERR_SINKIERR, Seen::Recorded, "Bad SinkPtr=%p", "MEM_SinkDelete, MEM_WSinkDelete", "",
     "The text is in the sink, but the address is not that of its copy (`TextServices` slot 8 gets "
     "the detail text \"Bad Sink Block Pointer\").",
     "Delete by the address that sinking stored, not by an equal text."},
    {MEMERR_SINKIERR, Seen::Recorded, "",
     "MEM_SinkString, MEM_SinkDelete, MEM_SinkVerify, MEM_WSinkString, MEM_WSinkDelete, "
     "MEM_WSinkVerify",
     "", "There is no process block, or its sink is not started. No text is recorded.",
     "Call `MEM_ProcessInit` first, and no service of the sink after `MEM_ProcessTerm`."},
    {MEMERR_SINKIERR, Seen::Inner, "", "MEM_SinkInit", "", "There is no process block.",
     "Call `MEM_ProcessInit`, which starts the sink."},

    // Services of other platforms
    {MEMERR_NOT_SUPPORTED, Seen::Recorded, "InitQTRFTbls called in non-ZRX environment",
     "MEM_InitQTRFTbls", "", "The service is for another platform: it always fails here.",
     "Do not call it."},
};

constexpr std::string_view kMakeEnvironment =
    "Let `RuntimeServices` slot 148 find or make an environment for every thread.";

constexpr ErrorCase kWithoutCode[] = {
    {0, Seen::WithoutCode, "", "MEM_Alloc", "",
     "The subpool has no storage: the result is null. `Code` is the host's, if it left one.",
     "Free storage of this subpool, or raise its limit in the host."},
    {0, Seen::WithoutCode, "", "MEM_ThreadAct", "",
     "There is no process block, or the host has no environment for this thread. What an earlier "
     "call recorded stays.",
     "Call `MEM_ProcessInit` first. Let `RuntimeServices` slot 148 find or make an environment for "
     "every thread."},
    {0, Seen::WithoutCode, "", "MEM_WSinkString, MEM_WSinkDelete, MEM_WSinkVerify", "",
     "The host has no environment for this thread. The narrow calls work without one.",
     kMakeEnvironment},
    {0, Seen::WithoutCode, "WideStringOutOfPlace", "MEM_Pack", "",
     "The root is wide text. The text is in `NameText`.",
     "Let a child pointer of the root lead to the text."},
    {0, Seen::WithoutCode, "", "MEM_Pack", "",
     "The option `OldPackCB` is set and a descriptor has more than 8 children. The exit record of "
     "the trace is \"Too many Child Ptrs for Old MemPackCB, rc=FAILED\".",
     "Clear the option with `MEMSetProcOptions`, or split the structure."},
    {0, Seen::WithoutCode, "", "MEM_HashScan", "",
     "The caller's function returned a number other than 0: the last such number is the result.",
     "Check that function. The scan has visited all records."},
    {0, Seen::WithoutCode, "", "MEM_StructToPortStr, MEM_PortStrToStruct, MEM_Port1StrToStruct", "",
     "Port strings have no codes: the reason is an \"EXCP\" trace record, written whatever the "
     "trace flags are. A wrong count in the header and a default that is too long have no record. "
     "Where a heap or a hash table has failed inside, `Code` is its code.",
     "Read the record: it says what is wrong, at which character, what was read and what follows. "
     "`memtool port FILE --check` shows the fault of a file."},
};

struct CodeName {
  std::uint32_t code;
  std::string_view name;
  std::string_view message;
};

#define MEM_ERROR_ROW(name, code, message) {code, #name, message},
constexpr CodeName kNames[] = {
    MEMERR_LIST(MEM_ERROR_ROW){MEM_CAT_CLOSE_ERROR, "MEM_CAT_CLOSE_ERROR", ""}};
#undef MEM_ERROR_ROW

constexpr std::array<ErrorFamily, 8> kFamilies{{
    {"Process, threads and storage", "binding-and-vector.md", 3073, 3092},
    {"Cell pools", "cell-pools.md", 4010, 4014},
    {"Concatenation buffers", "concatenation.md", 4025, 4028},
    {"Hash tables", "hash-tables.md", 4030, 4034},
    {"Heaps", "heaps.md", 4050, 4058},
    {"Packed chains", "packed-chain.md", 4065, 4076},
    {"The string sink", "string-sink.md", 4080, 4086},
    {"Services of other platforms", "binding-and-vector.md", 4096, 4096},
}};

// A note for codes whose message misleads or is missing.
std::string_view noteOn(std::uint32_t code) {
  switch (code) {
    case MEM_CAT_CLOSE_ERROR:
      return "The message table has no row for this code: a host shows the number only.";
    case MEMERR_PACKBMIN:
      return "The message misleads: this code is for items that do not fit a block. Too many "
             "blocks are 4067.";
    case MEMERR_PACKBMAX:
      return "The message misleads: this code is for the number of blocks. Items that do not fit "
             "a block are 4066.";
    default:
      return "";
  }
}

// The cases of one code are adjacent.
std::span<const ErrorCase> casesOf(std::uint32_t code) {
  const auto isOf = [code](const ErrorCase &known) { return known.code == code; };
  const auto *const first = std::find_if(std::begin(kCases), std::end(kCases), isOf);
  return {first, std::find_if_not(first, std::end(kCases), isOf)};
}

std::vector<ErrorCode> makeCodes() {
  std::vector<ErrorCode> codes;
  for (const CodeName &row : kNames) {
    codes.push_back({row.code, row.name, row.message, noteOn(row.code), casesOf(row.code)});
  }
  std::ranges::sort(codes, {}, &ErrorCode::code);
  return codes;
}

}  // namespace

std::span<const ErrorCode> errorCodes() {
  static const std::vector<ErrorCode> codes = makeCodes();
  return codes;
}

const ErrorCode &withoutCode() {
  static constexpr ErrorCode kNoCode{
      0, "no code", "", "0 is the result of a successful call. These failures have no code.",
      kWithoutCode};
  return kNoCode;
}

std::span<const ErrorFamily> errorFamilies() {
  return kFamilies;
}

}  // namespace memtool
