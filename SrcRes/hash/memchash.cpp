// Hash tables of records with a key at a fixed offset and a caller's hash function.
#include <cstring>

#include "base/bytes.h"
#include "frame/callframe.h"
#include "hash/hash_index.h"
#include "hash/hashblocks.h"
#include "platform/check.h"

namespace memlib {

namespace {

constexpr EntryPoint kHashOpen{"MEM_HashOpen", kSourceHash, 152, 211};
constexpr EntryPoint kHashClose{"MEM_HashClose", kSourceHash, 263, 309};
constexpr EntryPoint kHashInsEntry{"MEM_HashInsEntry", kSourceHash, 361, 468};
constexpr EntryPoint kHashGetEntry{"MEM_HashGetEntry", kSourceHash, 521, 590};
// Delete and scan trace under the name of get; hosts distinguish them by the line.
constexpr EntryPoint kHashDelEntry{"MEM_HashGetEntry", kSourceHash, 643, 721};
constexpr EntryPoint kHashScan{"MEM_HashGetEntry", kSourceHash, 772, 818};

std::int16_t failHandle(CallFrame &frame, HMEMHASH hMemHash, Wording wording) noexcept {
  return frame.fail({.code = MEMERR_HASHBHDL,
                     .text = ErrorText("Invalid Hash Handle=").pointer(hMemHash).c_str(),
                     .wording = wording});
}

std::int16_t failIndex(CallFrame &frame, std::int16_t index) noexcept {
  const auto shown = static_cast<std::uint32_t>(static_cast<std::int32_t>(index));
  return frame.fail({.code = MEMERR_HASHFERR,
                     .text = ErrorText("Hash Func returned invalid value=").hex(shown, 8).c_str(),
                     .wording = Wording::composed});
}

std::int16_t failControlBlock(CallFrame &frame) noexcept {
  return frame.fail({.code = MEMERR_HASHAMEM, .text = "HashCBAllocFail"});
}

std::int16_t finishNotFound(CallFrame &frame) noexcept {
  frame.traceExit("Return=MEMERR_HASHNFND");
  return frame.finish(MEMERR_HASHNFND);
}

// Ends a call in which another service failed; that service's error remains recorded.
std::int16_t finishNested(CallFrame &frame, const char *pExitText) noexcept {
  frame.traceExit(pExitText);
  return frame.finish(-1);
}

std::int16_t finishDuplicate(CallFrame &frame, HashNode *pNode, void **ppEntry) noexcept {
  *ppEntry = pNode->record();
  frame.traceExit("Return=MEMERR_HASHDKEY");
  return frame.finish(MEMERR_HASHDKEY);
}

bool isIndex(const MEMHashCtlBlk &ctl, std::int16_t index) noexcept {
  return index >= 0 && index <= ctl.Max;
}

// A key length of 0 or less compares nothing: all keys are equal.
bool keysEqual(const MEMHashCtlBlk &ctl, const void *pKey, const void *pOther) noexcept {
  return ctl.KeyLen <= 0 || std::memcmp(pKey, pOther, static_cast<std::size_t>(ctl.KeyLen)) == 0;
}

// Where a walk of a chain has ended: at the link to the node with the key, or at the null link at
// the end of the chain.
struct ChainLink {
  HashNode **ppNode;
  std::uint32_t passed;  // nodes before it
};

template <class IsEqual>
ChainLink walkChain(MEMHashCtlBlk &ctl, std::int16_t index, IsEqual isEqual) noexcept {
  ChainLink link{ctl.bucket(index), 0};
  while (*link.ppNode != nullptr && !isEqual((*link.ppNode)->record())) {
    link.ppNode = &(*link.ppNode)->pNext;
    ++link.passed;
  }
  return link;
}

MEM_NOINLINE ChainLink findByBytes(MEMHashCtlBlk &ctl, std::int16_t index,
                                   const void *pKey) noexcept {
  return walkChain(ctl, index, [&ctl, pKey](const void *pRecord) noexcept {
    return keysEqual(ctl, pKey, keyIn(ctl, pRecord));
  });
}

// Keys of 8 bytes are compared as one word.
MEM_INLINE ChainLink findLink(MEMHashCtlBlk &ctl, std::int16_t index, const void *pKey) noexcept {
  if (ctl.KeyLen != sizeof(std::uint64_t)) return findByBytes(ctl, index, pKey);
  const auto key = loadAs<std::uint64_t>(pKey);
  return walkChain(ctl, index, [&ctl, key](const void *pRecord) noexcept {
    return loadAs<std::uint64_t>(keyIn(ctl, pRecord)) == key;
  });
}

// What the table's index knows of a key, until the table changes or loses the index. This and the
// result of locate() would be returned in storage, so both functions are inlined.
struct Indexed {
  HashIndex *pIndex;       // null without an index
  HashIndex::Slot *pSlot;  // the key's; null without an index
  HashNode *pNode;         // has the key; null when the index knows of no such node
};

MEM_INLINE Indexed askIndex(const CallFrame &frame, const MEMHashCtlBlk &ctl,
                            const void *pKey) noexcept {
  HashIndex *pIndex = HashIndex::of(frame, ctl);
  if (pIndex == nullptr) return {};
  HashIndex::Slot *pSlot = pIndex->slotOf(pKey);
  const bool isKnown = pSlot->pNode != nullptr && HashIndex::stillHolds(ctl, *pSlot);
  return {pIndex, pSlot, isKnown ? pSlot->pNode : nullptr};
}

// The place of a key for an insert.
struct InsertPlace {
  HashNode *pEqual;      // has the key; the other members are for a key that no node has
  HashNode **ppLast;     // the null link at the chain's end
  bool isFromIndex;      // the index found the place
  std::uint32_t passed;  // nodes of the chain, if it was walked
};

// For a key that askIndex() has not found. Walks the chain unless the index shows that the key is
// not in the bucket; drops an index that cannot answer.
MEM_INLINE InsertPlace locate(const CallFrame &frame, MEMHashCtlBlk &ctl, std::int16_t index,
                              const void *pKey, const Indexed &indexed) noexcept {
  if (indexed.pIndex != nullptr && indexed.pSlot->pNode == nullptr &&
      indexed.pIndex->stillEnds(ctl, index)) {
    return {nullptr, indexed.pIndex->endOf(ctl, index), true, 0};
  }
  HashIndex::lose(frame, ctl);
  const ChainLink link = findLink(ctl, index, pKey);
  return {*link.ppNode, link.ppNode, false, link.passed};
}

// MemHashAllocEntry: a node with a null link for a record of `Len` bytes, or null with the heap's
// error recorded. A deleted node is reused without a check of its size: all records of a table have
// one length.
HashNode *allocateEntry(MEMHashCtlBlk &ctl, std::int16_t Len) noexcept {
  if (Len >= 0 && ctl.pFreeEntries != nullptr) {
    HashNode *pNode = ctl.pFreeEntries;
    ctl.pFreeEntries = pNode->pNext;
    pNode->pNext = nullptr;
    return pNode;
  }
  // Adds the link and rounds up, in 16 bits. A negative length is passed to the heap unchanged,
  // which refuses it.
  const auto entryLen = static_cast<std::int16_t>(Len < 0 ? Len : Len + 15);
  void *pEntry = nullptr;
  const std::int16_t result = functionVector().MEM_HeapAllocEntry(ctl.hMemHeap, entryLen, &pEntry);
  if (result != 0 || Len < 0 || pEntry == nullptr) return nullptr;
  auto *pNode = static_cast<HashNode *>(pEntry);
  pNode->pNext = nullptr;
  return pNode;
}

}  // namespace

std::int16_t MEM_HashOpen(HMEMHASH *phHash, std::int16_t KeyOff, std::int16_t KeyLen,
                          std::int16_t Max, MEMHashFunc pFunc, std::int16_t AreaLen,
                          std::uint16_t SubPool) noexcept {
  CallFrame frame(kHashOpen, ErrorArea::clear);
  frame.traceEntry("Parms: phHash=%lX, KeyOff=%hd, KeyLen=%hd, Max=%hd, pFunc=%lX", phHash, KeyOff,
                   KeyLen, Max, pFunc);
  if (Max < -1) return failControlBlock(frame);  // no room for the fields of the block
  const std::size_t buckets = static_cast<std::size_t>(Max + 1);
  const auto ctlBlkLen =
      static_cast<std::uint32_t>(sizeof(MEMHashCtlBlk) + buckets * sizeof(HashNode *));
  auto *pCtl = static_cast<MEMHashCtlBlk *>(
      functionVector().MEM_Alloc(ctlBlkLen, static_cast<std::int16_t>(SubPool)));
  if (pCtl == nullptr) return failControlBlock(frame);

  HashIndex::forget(frame, pCtl);  // of a table that was closed unnoticed by this thread
  std::memset(static_cast<void *>(pCtl), 0, ctlBlkLen);
  writeEyecatcher(pCtl->Eyecatcher, kHashEye);
  pCtl->KeyOff = KeyOff;
  pCtl->KeyLen = KeyLen;
  pCtl->Max = Max;
  pCtl->pFunc = pFunc;
  pCtl->SubPool = SubPool;
  pCtl->CtlBlkLen = ctlBlkLen;
  if (functionVector().MEM_HeapOpen(&pCtl->hMemHeap, AreaLen, SubPool) != 0) {
    return finishNested(frame, "HeapOpen Return=FAILED");
  }
  *phHash = reinterpret_cast<HMEMHASH>(pCtl);
  HashIndex::noteOpened(frame, *pCtl);
  MEM_ASSERT_VALID(isValidTable(frame, *pCtl));
  return frame.succeed();
}

std::int16_t MEM_HashClose(HMEMHASH hMemHash) noexcept {
  CallFrame frame(kHashClose, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHash=%lX", hMemHash);
  if (!isTable(hMemHash)) return failHandle(frame, hMemHash, Wording::named);
  MEMHashCtlBlk *pCtl = table(hMemHash);
  if (functionVector().MEM_HeapClose(pCtl->hMemHeap) != 0) {
    return finishNested(frame, "HeapClose Return=FAILED");
  }
  HashIndex::forget(frame, pCtl);
  pCtl->Eyecatcher[0] = ' ';  // a stale handle fails the eye-catcher test
  functionVector().MEM_Free(pCtl, pCtl->CtlBlkLen, static_cast<std::int16_t>(pCtl->SubPool));
  return frame.succeed();
}

std::int16_t MEM_HashInsEntry(HMEMHASH hMemHash, std::int16_t Len, const void *pInputEntry,
                              void **ppNewEntry) noexcept {
  CallFrame frame(kHashInsEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHash=%lX, Len=%hd, pInputEntry=%lX, ppNewEntry=%lX", hMemHash, Len,
                   pInputEntry, ppNewEntry);
  if (!isTable(hMemHash)) return failHandle(frame, hMemHash, Wording::composed);
  MEMHashCtlBlk &ctl = *table(hMemHash);
  const void *pKey = keyIn(ctl, pInputEntry);
  // A key in an index has a valid bucket: the owner's hash function returned it before.
  const Indexed indexed = askIndex(frame, ctl, pKey);
  if (indexed.pNode != nullptr) return finishDuplicate(frame, indexed.pNode, ppNewEntry);
  const std::int16_t index = ctl.pFunc(pKey);
  if (!isIndex(ctl, index)) return failIndex(frame, index);

  const InsertPlace place = locate(frame, ctl, index, pKey, indexed);
  if (place.pEqual != nullptr) return finishDuplicate(frame, place.pEqual, ppNewEntry);
  HashNode *pNode = allocateEntry(ctl, Len);
  if (pNode == nullptr) return finishNested(frame, "MemHashAllocEntry Return=FAILED");
  copyBytes(pNode->record(), pInputEntry, static_cast<std::size_t>(Len));
  *place.ppLast = pNode;  // at the end: a bucket keeps the order of insertion
  *ppNewEntry = pNode->record();
  if (place.isFromIndex) {
    HashIndex::add(frame, ctl, indexed.pIndex, indexed.pSlot, index, pNode);
  } else {
    HashIndex::noteWalked(frame, ctl, place.passed);
  }
  MEM_ASSERT_VALID(isValidTable(frame, ctl));
  return frame.succeed();
}

std::int16_t MEM_HashGetEntry(HMEMHASH hMemHash, const void *pKey, void **ppEntry) noexcept {
  CallFrame frame(kHashGetEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHash=%lX, pKey=%lX", hMemHash, pKey);
  if (!isTable(hMemHash)) return failHandle(frame, hMemHash, Wording::composed);
  MEMHashCtlBlk &ctl = *table(hMemHash);
  HashNode *pNode = askIndex(frame, ctl, pKey).pNode;  // without the hash function, as in an insert
  if (pNode == nullptr) {
    const std::int16_t index = ctl.pFunc(pKey);
    if (!isIndex(ctl, index)) return failIndex(frame, index);
    pNode = *findLink(ctl, index, pKey).ppNode;
  }
  if (pNode == nullptr) return finishNotFound(frame);
  *ppEntry = pNode->record();
  return frame.succeed();
}

std::int16_t MEM_HashDelEntry(HMEMHASH hMemHash, const void *pKey) noexcept {
  CallFrame frame(kHashDelEntry, ErrorArea::clear);
  frame.traceEntry("Parms: hMemHash=%lX, pKey=%lX", hMemHash, pKey);
  if (!isTable(hMemHash)) return failHandle(frame, hMemHash, Wording::composed);
  MEMHashCtlBlk &ctl = *table(hMemHash);
  const std::int16_t index = ctl.pFunc(pKey);
  if (!isIndex(ctl, index)) return failIndex(frame, index);

  HashIndex::drop(frame, ctl);  // an index is not updated by deletions
  HashNode **ppLink = findLink(ctl, index, pKey).ppNode;
  HashNode *pNode = *ppLink;
  if (pNode == nullptr) return finishNotFound(frame);
  *ppLink = pNode->pNext;
  pNode->pNext = ctl.pFreeEntries;
  ctl.pFreeEntries = pNode;
  MEM_ASSERT_VALID(isValidTable(frame, ctl));
  return frame.succeed();
}

std::int16_t MEM_HashScan(HMEMHASH hMemHash, MEMScanFunc pFct, void *pParm) noexcept {
  CallFrame frame(kHashScan, ErrorArea::clear);
  frame.traceEntry("MEM_HashScan");
  if (!isTable(hMemHash)) return failHandle(frame, hMemHash, Wording::composed);
  MEMHashCtlBlk &ctl = *table(hMemHash);
  std::int16_t lastError = 0;
  forEachNode(ctl, [&lastError, pFct, pParm](std::int16_t, HashNode *pNode) noexcept {
    const std::int16_t result = pFct(pNode->record(), pParm);
    if (result != 0) lastError = result;
  });
  if (lastError == 0) return frame.succeed();
  frame.traceExit("pFct Return error");
  return frame.finish(lastError);
}

const KeyLookahead *indexToAskAhead(const CallFrame &frame, HMEMHASH hMemHash) noexcept {
  const MEMFunctionVector &slots = functionVector();
  const bool isOwn = slots.MEM_HashOpen == MEM_HashOpen &&
                     slots.MEM_HashInsEntry == MEM_HashInsEntry &&
                     slots.MEM_HashGetEntry == MEM_HashGetEntry;
  if (!isOwn || !isTable(hMemHash)) return nullptr;
  const HashIndex *pIndex = HashIndex::of(frame, *table(hMemHash));
  return pIndex != nullptr && pIndex->isLarge() ? pIndex : nullptr;
}

}  // namespace memlib
