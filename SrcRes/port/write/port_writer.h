// Writer of port strings: writes one structure text after the other, for every structure that is
// reached.
#pragma once

#include <cstdint>

#include "frame/callframe.h"
#include "port/port_defs.h"
#include "port/write/lookahead.h"
#include "port/write/port_output.h"
#include "port/write/port_plan.h"

namespace memlib {

// A structure that has a place in the port string. The address is the registry's key.
struct MEMPortRef {
  const void *pStruct;
  std::uint32_t StructID;
  std::uint32_t sequence;  // from 1, in the order in which structures are found
  MEMPortRef *pNext;       // the one found next
};
MEM_CHECK_SIZE(MEMPortRef, 24);

// One call of MEM_StructToPortStr. Without a destructor: a fault may end run() anywhere, so the
// caller closes the registry.
class PortWriter {
 public:
  PortWriter(CallFrame &frame, const MEMStructDef *pDefs, std::uint32_t structID,
             const void *pStruct, std::int32_t chunkLen, HMEMHEAP hMemHeap,
             std::uint32_t *pTotalLen, MEMPortChunk **ppFirstChunk) noexcept
      : frame_(frame),
        pDefs_(pDefs),
        structID_(structID),
        pStruct_(pStruct),
        chunkLen_(chunkLen),
        hMemHeap_(hMemHeap),
        pTotalLen_(pTotalLen),
        ppFirstChunk_(ppFirstChunk) {}

  // Returns 0 or the failure status of the call. When a fault ends it and isAhead() is true, call
  // it again: it continues as if there had been no fault.
  std::int16_t run() noexcept;

  // For the fault handler: true when looking ahead caused the fault, not the work of the call.
  bool isAhead() const noexcept { return lookahead_.isAsking(); }

  // The registry while it is open, else null.
  HMEMHASH registry() const noexcept { return hRegistry_; }

  // Updates the chunks, regardless of where the work has ended.
  void noteUsed() noexcept { output_.noteUsed(); }

 private:
  std::int32_t chunkCapacity() const noexcept;
  std::int16_t start() noexcept;
  std::uint32_t structures() const noexcept { return fresh_.sequence - 1; }
  std::int16_t writeAll() noexcept;
  void askAhead() noexcept;
  // MEM_Struct2Port in error records.
  std::int16_t writeStructure(const MEMPortRef &ref, int nesting) noexcept;
  std::int16_t writeUnplanned(const MEMPortRef &ref, int nesting) noexcept;
  std::int16_t writeCounted(const StructPlan &plan, const std::byte *pStruct, int nesting) noexcept;
  std::int16_t writeSteps(const MEMStructDef &def, StructPlan::Row row, const std::byte *pStruct,
                          int nesting) noexcept;
  // The fast way to write steps (fast_steps.h).
  std::int16_t writeStepsFast(const MEMStructDef &def, StructPlan::Row row,
                              const std::byte *pStruct, int nesting) noexcept;
  std::int16_t putValue(char *&pTo, const MEMStructDef &def, const FieldStep &step,
                        const std::byte *pField, int nesting) noexcept;
  std::int16_t putPointer(char *&pTo, const MEMFieldDef &field, const void *pTarget) noexcept;
  std::int16_t putText(char *&pTo, const MEMStructDef &def, const FieldStep &step,
                       const char *pText) noexcept;
  // The plain way: writes a step regardless of the room in the chunk.
  std::int16_t writeStep(const MEMStructDef &def, const FieldStep &step, const std::byte *pField,
                         int nesting) noexcept;
  std::int16_t writeCount(const MEMStructDef &def, const std::byte *pStruct,
                          std::uint32_t &elements) noexcept;
  std::int16_t writeFields(const MEMStructDef &def, const std::byte *pStruct,
                           std::uint32_t elements, int nesting) noexcept;
  std::int16_t writeValue(const MEMStructDef &def, const FieldStep &step, const std::byte *pField,
                          int nesting) noexcept;
  std::int16_t writeEmbedded(const MEMFieldDef &field, const std::byte *pField,
                             int nesting) noexcept;
  std::int16_t ported(bool isAppended, const MEMStructDef &def, const FieldStep &step) noexcept;
  std::int16_t reportField(const MEMStructDef &def, const FieldStep &step) noexcept;
  std::int16_t writePointer(const MEMFieldDef &field, const void *pTarget) noexcept;
  std::int16_t enter(const void *pStruct, std::uint32_t structID, MEMPortRef *&pRef) noexcept;

  std::int16_t append(std::string_view text) noexcept;
  std::int16_t append(char c) noexcept;
  std::int16_t checked(bool isAppended) noexcept;
  // Writes an error record; always -1.
  std::int16_t report(const MessagePoint &point, const char *pMessage) noexcept;

  CallFrame &frame_;
  const MEMStructDef *const pDefs_;
  const std::uint32_t structID_;
  const void *const pStruct_;
  const std::int32_t chunkLen_;
  const HMEMHEAP hMemHeap_;
  std::uint32_t *const pTotalLen_;
  MEMPortChunk **const ppFirstChunk_;

  PortOutput output_;
  HMEMHASH hRegistry_ = nullptr;
  MEMPortRef *pRef_ = nullptr;  // the structure being written
  MEMPortRef *pTail_ = nullptr;
  // The entry for the next structure that is found.
  MEMPortRef fresh_{.pStruct = nullptr, .StructID = 0, .sequence = 1, .pNext = nullptr};
  PortPlans plans_;
  PortLookahead lookahead_{frame_, plans_};
};

}  // namespace memlib
