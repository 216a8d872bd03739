/** @file membase.h
 * The base of all public headers of QJ7MEM00: fixed-width types, UTF-16 characters and compile-time
 * layout checks, for C11 and C++11.
 *
 * Conventions that hold for all public headers:
 *  1. Records are plain structures, shared with hosts and callers at fixed byte offsets. Each
 *     layout is checked after its declaration.
 *  2. Lengths are in bytes unless a name or comment says otherwise.
 *  3. Integers in records have the machine's byte order.
 *  4. Narrow text is 8-bit and NUL-terminated. Wide text is UTF-16 in `char16_t`, NUL-terminated,
 *     never `wchar_t`.
 *  5. A result of 16 bits is 0 for success and -1 (0xFFFF) for a failure that is recorded in the
 *     calling thread's error area, unless a declaration says otherwise.
 *  6. An out-parameter keeps its value when a call fails, unless a declaration says otherwise.
 */
#ifndef QJ7MEM00_MEMBASE_H
#define QJ7MEM00_MEMBASE_H

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <assert.h>
#include <uchar.h>
#endif

/** Checks at compile time that `type` has exactly `bytes` bytes. */
#define MEM_CHECK_SIZE(type, bytes) \
  static_assert(sizeof(type) == (bytes), #type " has the wrong size")

/** Checks at compile time that `field` has the offset `bytes` in `type`. */
#define MEM_CHECK_OFFSET(type, field, bytes) \
  static_assert(offsetof(type, field) == (bytes), #type "." #field " has moved")

/** The number of this library in every service call to the host. */
enum { MEM_COMPONENT = 3 };

static_assert(sizeof(void *) == 8, "the contract is for 64-bit platforms");

#endif
