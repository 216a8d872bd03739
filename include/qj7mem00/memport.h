/** @file memport.h
 * The definitions with which a caller describes its structures to the port string services, and the
 * chunks in which the writer returns a port string.
 *
 * A port string is a portable text form of a structure and of all that it reaches through pointers.
 * The library knows structures only through a table of definitions that the caller passes to every
 * call. The table is read in place, must not change during a call and is never written to.
 * docs/port-strings.md describes the text.
 */
#ifndef QJ7MEM00_MEMPORT_H
#define QJ7MEM00_MEMPORT_H

#include "membase.h"

enum {
  MEM_PORT_MAX_FIELDS = 1024,   /**< fields of a definition that the reader accepts */
  MEM_PORT_MAX_NESTING = 64,    /**< structures embedded in one another */
  MEM_PORT_HEADER_LEN = 23,     /**< characters before the first structure text */
  MEM_PORT_CHUNK_OVERHEAD = 16, /**< bytes of a chunk's heap entry beyond its capacity */
  MEM_PORT_NO_COUNT = -1        /**< CountField of a structure without a repeat field */
};

/** Trace flag of a reading call: writes a record for each field that is skipped because it is newer
 * than the definition. */
#define MEM_TRACE_SKIPPED 0x00000100U

/** Field types (MEMFieldDef.Type). */
enum MEMFieldType {
  MEM_PORT_CHAR = 1,          /**< `Length` bytes of characters, no terminator needed */
  MEM_PORT_CHARSZ = 2,        /**< zero-terminated string in a `Length`-byte array */
  MEM_PORT_PSTR = 3,          /**< pointer to a zero-terminated string, or null */
  MEM_PORT_BIN = 4,           /**< `Length` raw bytes */
  MEM_PORT_SHORT = 5,         /**< signed 16-bit */
  MEM_PORT_USHORT = 6,        /**< unsigned 16-bit */
  MEM_PORT_LONG = 7,          /**< signed 32-bit */
  MEM_PORT_ULONG = 8,         /**< unsigned 32-bit */
  MEM_PORT_PNT = 9,           /**< pointer to a structure of `SubStructID`, or null */
  MEM_PORT_SUBSTRUCTURE = 10, /**< embedded structure of `SubStructID`, `Length` bytes */
  MEM_PORT_BIT = 11,          /**< one byte of 8 flags; `Length` is 1 */
  MEM_PORT_UBIGINT = 12,      /**< unsigned 64-bit */
  MEM_PORT_BIGINT = 13,       /**< signed 64-bit */
  MEM_PORT_WCHAR = 14,        /**< `Length` bytes of UTF-16 units */
  MEM_PORT_WCHARSZ = 15,      /**< zero-terminated UTF-16 in a `Length`-byte array */
  MEM_PORT_WPSTR = 16         /**< pointer to zero-terminated UTF-16, or null */
};

/** Description of one field. Fields of a definition are listed in ascending order of `FieldID`;
 * fields with the same `Offset` are alternatives (a union). */
typedef struct MEMFieldDef {
  uint32_t FieldID;      /**< identifies the field in its structure, 1 or more */
  uint8_t Type;          /**< MEMFieldType */
  uint8_t Required;      /**< non-zero: must be present when reading, unless an alternative is */
  uint8_t Reserved6[2];  /**< may have any value */
  int32_t Length;        /**< bytes of the field; of one element, for a repeat field */
  uint32_t SubStructID;  /**< types 9 and 10: the structure pointed to or embedded */
  int32_t Offset;        /**< bytes from the start of the structure */
  uint8_t Reserved20[4]; /**< may have any value */
  union {
    const void *pBytes;    /**< types 1, 4, 9, 10, 11, 14: `Length` bytes, or null for none */
    const char *pText;     /**< types 2, 3 */
    const char16_t *pWide; /**< types 15, 16 */
    uint16_t Short;        /**< types 5, 6 */
    uint32_t Long;         /**< types 7, 8, 12, 13: the field's first 32 bits */
  } Default;             /**< value of an absent field that is not required. Text of types 3 and 16
                              is shared, not copied */
  uint8_t NoTruncate;    /**< non-zero: text longer than the field is an error when reading */
  uint8_t NotPorted;     /**< non-zero: never written, not required when reading */
  uint8_t Reserved34[6]; /**< may have any value */
} MEMFieldDef;

MEM_CHECK_SIZE(MEMFieldDef, 40);
MEM_CHECK_OFFSET(MEMFieldDef, Type, 4);
MEM_CHECK_OFFSET(MEMFieldDef, Required, 5);
MEM_CHECK_OFFSET(MEMFieldDef, Length, 8);
MEM_CHECK_OFFSET(MEMFieldDef, SubStructID, 12);
MEM_CHECK_OFFSET(MEMFieldDef, Offset, 16);
MEM_CHECK_OFFSET(MEMFieldDef, Default, 24);
MEM_CHECK_OFFSET(MEMFieldDef, NoTruncate, 32);
MEM_CHECK_OFFSET(MEMFieldDef, NotPorted, 33);

/** Description of one structure. A table of them ends with a record whose `StructID` is below 1 as
 * a signed number. */
typedef struct MEMStructDef {
  uint32_t StructID;  /**< identifies the structure, 1 or more */
  int32_t Length;     /**< bytes of the structure, with one element of its repeat field */
  int32_t CountField; /**< index in `Fields` of the field (types 5 to 8) that counts the elements of
                         the repeat field, or MEM_PORT_NO_COUNT. The repeat field is the last one;
                         its elements are contiguous */
  int32_t FieldCount; /**< entries of `Fields` */
  const MEMFieldDef *Fields;
  uint8_t CountIsLength; /**< non-zero: the count field holds the structure's bytes instead */
  uint8_t Reserved25[7]; /**< may have any value */
} MEMStructDef;

MEM_CHECK_SIZE(MEMStructDef, 32);
MEM_CHECK_OFFSET(MEMStructDef, Length, 4);
MEM_CHECK_OFFSET(MEMStructDef, CountField, 8);
MEM_CHECK_OFFSET(MEMStructDef, FieldCount, 12);
MEM_CHECK_OFFSET(MEMStructDef, Fields, 16);
MEM_CHECK_OFFSET(MEMStructDef, CountIsLength, 24);

/** One chunk of a port string: an entry of the caller's heap. The structure is packed, so that the
 * characters begin at byte 12. */
#pragma pack(push, 1)
typedef struct MEMPortChunk {
  struct MEMPortChunk *pNext; /**< next chunk, null in the last */
  int32_t Used;               /**< characters in this chunk; none when 0 or less */
  char Text[1]; /**< the characters, without terminator; they continue after the record */
} MEMPortChunk;
#pragma pack(pop)

MEM_CHECK_OFFSET(MEMPortChunk, Used, 8);
MEM_CHECK_OFFSET(MEMPortChunk, Text, 12);

#endif
