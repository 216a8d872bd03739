// Port strings: graphs of structures as portable text, and back.
//
//   memcport           entry points, each inside the fault guard
//   memcport_defs      definition tables: look-up, element counts, defaults
//   memcport_message   error records of both directions
//   memcport_output    the text under construction, a chain of chunks
//   memcport_digits    numbers as text
//   memcport_plan      definitions as the writer has prepared them
//   memcport_lookahead storage that the writer will need soon
//   memcport_writer    structures and their registry
//   memcport_towire    field values as text
//   memcport_input     the text being read
//   memcport_scanner   what all readers share: characters, numbers, messages, the caller's heap
//   memcport_words     digits and plain text, eight characters at a time
//   memcport_reader    structures and the pointers that wait for them
//   memcport_offsets   at which offsets a text had fields
//   memcport_fromwire  field values from text
//
// The work of a call runs inside the fault guard, which may leave it at any instruction. So nothing
// there has a destructor; what a call opens is noted in its state record and closed outside.
#pragma once

#include <cstdint>

#include "qj7mem00/memport.h"
#include "qj7mem00/memvect.h"

namespace mem {

// See the declarations of the same name in memvect.h.
std::int16_t MEM_StructToPortStr(const MEMStructDef *pDefs, std::uint32_t StructID,
                                 const void *pStruct, std::int32_t ChunkLen, HMEMHEAP hMemHeap,
                                 std::uint32_t *pTotalLen, MEMPortChunk **ppFirstChunk) noexcept;
std::int16_t MEM_PortStrToStruct(const MEMStructDef *pDefs, const MEMPortChunk *pFirstChunk,
                                 HMEMHEAP hMemHeap, void **ppStruct) noexcept;
std::int16_t MEM_Port1StrToStruct(const MEMStructDef *pDefs, const char *pText, std::uint32_t Len,
                                  HMEMHEAP hMemHeap, void **ppStruct) noexcept;

// Hash function of the writer's registry: 0..1998 from an 8-byte address.
std::int16_t MEM_PortHash(const void *pKey) noexcept;

}  // namespace mem
