// The fast way to write a row of steps: the place in the chunk is in a register, and one check
// shows that the chunk has room for a whole step. The plain way (PortWriter::writeStep, writeValue)
// handles all steps: those without that room, and values of other types, are left to it. The fast
// way saves an eighth of the time of numbers: bench/TRIED.md, "a row of steps".
//
// Only port_writer.cpp includes this file, so that the loop over all structures can contain the
// code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/bytes.h"
#include "platform/platform.h"
#include "port/write/port_output.h"
#include "port/write/port_plan.h"
#include "port/write/port_writer.h"
#include "port/write/to_text.h"

namespace memlib {

// Characters that a step may store after a single check: the prefix, a letter and a number.
inline constexpr std::size_t kMostOfStep = sizeof FieldStep::prefix + 1 + kMostStoredNumber;

// A prefix is stored as a whole, however long it is.
static_assert(sizeof FieldStep::prefix <= PortOutput::kSpill);

// Writes a row of steps. The characters of each step are appended before its field is read, because
// the read may fault.
MEM_INLINE std::int16_t PortWriter::writeStepsFast(const MEMStructDef &def, StructPlan::Row row,
                                                   const std::byte *pStruct, int nesting) noexcept {
  char *pTo = output_.next();
  for (const FieldStep &step : row) {
    const std::byte *pField = pStruct + step.offset;
    std::int16_t status = 0;
    if (output_.roomAt(pTo) >= kMostOfStep) {
      std::memcpy(pTo, step.prefix, sizeof step.prefix);
      pTo += step.prefixLen;
      output_.advanceTo(pTo);
      status = putValue(pTo, def, step, pField, nesting);
    } else {
      output_.advanceTo(pTo);
      status = writeStep(def, step, pField, nesting);
      pTo = output_.next();
    }
    if (status != 0) return status;
  }
  output_.advanceTo(pTo);
  return 0;
}

// The functions below append a value at `pTo` and move `pTo` to the address after it; when they
// fail, output_.next() is the end of the text. REQUIRES: pTo is output_.next(), with room for a
// letter and a number.

MEM_INLINE std::int16_t PortWriter::putValue(char *&pTo, const MEMStructDef &def,
                                             const FieldStep &step, const std::byte *pField,
                                             int nesting) noexcept {
  switch (step.type) {
    case FieldStep::kNoField:
      return 0;
    case MEM_PORT_SHORT:
      pTo = putSigned(pTo, loadAs<std::int16_t>(pField));
      return 0;
    case MEM_PORT_USHORT:
      pTo = putReversed(pTo, loadAs<std::uint16_t>(pField));
      return 0;
    case MEM_PORT_LONG:
      pTo = putSigned(pTo, loadAs<std::int32_t>(pField));
      return 0;
    case MEM_PORT_ULONG:
      pTo = putReversed(pTo, loadAs<std::uint32_t>(pField));
      return 0;
    case MEM_PORT_BIGINT:
      pTo = putSigned(pTo, loadAs<std::int64_t>(pField));
      return 0;
    case MEM_PORT_UBIGINT:
      pTo = putReversed(pTo, loadAs<std::uint64_t>(pField));
      return 0;
    case MEM_PORT_PNT:
      return putPointer(pTo, *step.pField, loadAs<const void *>(pField));
    case MEM_PORT_PSTR:
      return putText(pTo, def, step, loadAs<const char *>(pField));
    default: {
      const std::int16_t status = writeValue(def, step, pField, nesting);
      pTo = output_.next();
      return status;
    }
  }
}

MEM_INLINE std::int16_t PortWriter::putPointer(char *&pTo, const MEMFieldDef &field,
                                               const void *pTarget) noexcept {
  *pTo++ = 'S';
  if (pTarget == nullptr) return 0;
  output_.advanceTo(pTo);
  MEMPortRef *pRef = nullptr;
  if (const std::int16_t status = enter(pTarget, field.SubStructID, pRef); status != 0) {
    return status;
  }
  pTo = putReversed(pTo, pRef->sequence);
  return 0;
}

// Copies the text if it is plain and the chunk has room for it.
MEM_INLINE std::int16_t PortWriter::putText(char *&pTo, const MEMStructDef &def,
                                            const FieldStep &step, const char *pText) noexcept {
  *pTo++ = 'X';
  if (pText == nullptr) return 0;
  output_.advanceTo(pTo);
  const std::string_view text(pText);
  if (output_.roomAt(pTo) >= kMostStoredDigits + kQuotesLen + text.size()) {
    if (char *pEnd = putQuoted(putReversed(pTo, text.size()), text)) {
      pTo = pEnd;
      return 0;
    }
  }
  const bool isAppended = appendText(output_, text);
  pTo = output_.next();
  return ported(isAppended, def, step);
}

}  // namespace memlib
