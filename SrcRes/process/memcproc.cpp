// Process and thread context: the process block, the thread blocks and the process option.
#include <cstring>

#include "frame/callframe.h"
#include "frame/threadareas.h"
#include "qj7mem00/memerr.h"

namespace memlib {

namespace {

// These entry points write no trace records.
constexpr EntryPoint kProcessInit{"MEM_ProcessInit", kSourceProc, 0, 0};
constexpr EntryPoint kProcessTerm{"MEM_ProcessTerm", kSourceProc, 0, 0};
constexpr EntryPoint kThreadAct{"MEM_ThreadAct", kSourceProc, 0, 0};
constexpr EntryPoint kThreadTerm{"MEM_ThreadTerm", kSourceProc, 0, 0};
constexpr EntryPoint kSetProcOptions{"MEMSetProcOptions", kSourceProc, 0, 0};

// The table that MEM_ProcessInit registers with the host. The row of code 0 ends it.
constexpr MEMMessageRow kMessages[] = {
#define MEM_MESSAGE_ROW(name, code, message) {name, 0, #name, message, ""},
    MEMERR_LIST(MEM_MESSAGE_ROW)
#undef MEM_MESSAGE_ROW
        {0, 0, "", "", nullptr},
};

constexpr char kProcessBlockName[] = "MEMProcessBlock";
constexpr char kThreadBlockName[] = "MEMThreadBlock";

void fillHeader(MEMBlockHeader &header, std::uint32_t length, const char *pName,
                std::uint16_t type) noexcept {
  header.Length = length;
  header.Mark = '>';
  std::memcpy(header.Eyecatcher, "PST_", sizeof header.Eyecatcher);
  std::memset(header.Name, ' ', sizeof header.Name);
  std::memcpy(header.Name, pName, std::strlen(pName));
  header.Type = type;
}

// A context block of the given size, all zero, or null with the host's code in `hostCode`.
void *getBlock(std::uint16_t subPool, std::uint32_t length, std::uint16_t &hostCode) noexcept {
  void *pBlock = nullptr;
  hostCode = runtimeServices().GetPoolStorage(subPool, length, &pBlock);
  if (hostCode != 0 || pBlock == nullptr) return nullptr;
  std::memset(pBlock, 0, length);
  return pBlock;
}

}  // namespace

std::int16_t MEM_ProcessInit() noexcept {
  CallFrame frame(kProcessInit, ErrorArea::clear);
  std::uint16_t hostCode = 0;
  auto *pProcessBlk = static_cast<MEMProcessBlock *>(
      getBlock(MEM_PROCESS_BLOCK_SUBPOOL, MEM_PROCESS_BLOCK_LEN, hostCode));
  if (pProcessBlk == nullptr) return frame.failInside(MEMERR_PBLKFAIL, kProcessBlockName);

  fillHeader(pProcessBlk->Header, MEM_PROCESS_BLOCK_LEN, kProcessBlockName, MEM_PROCESS_BLOCK_TYPE);
  runtimeServices().SetAnchor(0, MEM_COMPONENT, pProcessBlk);
  runtimeServices().RegisterMessages(MEM_COMPONENT, kMessages);
  if (functionVector().MEM_SinkInit() != 0) return frame.failAsRecorded();

  std::memset(pProcessBlk->Pointers, 0, sizeof pProcessBlk->Pointers);
  pProcessBlk->Flags = MEM_PROCESS_READY;
  pProcessBlk->OldPackCB = 0;
  return frame.finishAsHostSet();
}

std::int16_t MEM_ProcessTerm() noexcept {
  CallFrame frame(kProcessTerm, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk == nullptr) return frame.finish(0);

  functionVector().MEM_SinkTerm();
  runtimeServices().FreePoolStorage(MEM_PROCESS_BLOCK_SUBPOOL, pProcessBlk);
  runtimeServices().SetAnchor(0, MEM_COMPONENT, nullptr);
  runtimeServices().RegisterMessages(MEM_COMPONENT, nullptr);
  return frame.finishAsHostSet();
}

std::int16_t MEM_ThreadAct() noexcept {
  CallFrame frame(kThreadAct, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  MEMThreadEnv *pThread = frame.thread();
  if (pProcessBlk == nullptr || pThread == nullptr) return frame.finish(-1);

  std::uint16_t hostCode = 0;
  auto *pThreadBlk = static_cast<MEMThreadBlock *>(
      getBlock(MEM_THREAD_BLOCK_SUBPOOL, MEM_THREAD_BLOCK_LEN, hostCode));
  if (pThreadBlk == nullptr) {
    return frame.fail({.code = MEMERR_TBLKFAIL, .text = kThreadBlockName, .innerCode = hostCode});
  }
  fillHeader(pThreadBlk->Header, MEM_THREAD_BLOCK_LEN, kThreadBlockName, MEM_THREAD_BLOCK_TYPE);
  std::memcpy(pThreadBlk->Pointers, pProcessBlk->Pointers, sizeof pThreadBlk->Pointers);
  pThreadBlk->pProcessBlk = pProcessBlk;
  pThread->pMemThreadBlk = pThreadBlk;
  return frame.finishAsHostSet();
}

std::int16_t MEM_ThreadTerm() noexcept {
  CallFrame frame(kThreadTerm, ErrorArea::keep);
  MEMThreadEnv *pThread = frame.thread();
  if (processBlock() == nullptr || pThread == nullptr || pThread->pMemThreadBlk == nullptr) {
    return frame.finish(0);
  }
  ThreadArea **ppAreas = threadAreas(frame);
  while (*ppAreas != nullptr) releaseThreadArea(ppAreas);
  runtimeServices().FreePoolStorage(MEM_THREAD_BLOCK_SUBPOOL, pThread->pMemThreadBlk);
  pThread->pMemThreadBlk = nullptr;
  return frame.finishAsHostSet();
}

std::int16_t MEMSetProcOptions(const MEMProcOptions *pOptions) noexcept {
  CallFrame frame(kSetProcOptions, ErrorArea::keep);
  MEMProcessBlock *pProcessBlk = processBlock();
  if (pProcessBlk != nullptr && pOptions != nullptr && pOptions->Set != 0) {
    pProcessBlk->OldPackCB = pOptions->OldPackCB;
  }
  return frame.finish(0);
}

}  // namespace memlib
