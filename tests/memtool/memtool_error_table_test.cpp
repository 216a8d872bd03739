// The table of codes against the library: every code of the message table, and every text, entry
// point and way of being reported that the table names, seen in a failure of the real library.

#include <functional>
#include <set>
#include <tuple>

#include "error_codes.hpp"
#include "memtest.hpp"
#include "packstruct.hpp"
#include "portdefs.hpp"

namespace memtest {
namespace {

using memtool::ErrorCase;
using memtool::ErrorCode;
using memtool::Seen;
using refhost::Service;

// A text with values where the pattern has formats.
bool fits(const std::string &text, std::string_view pattern) {
  std::size_t at = 0;
  while (!pattern.empty()) {
    const std::size_t end = std::min(pattern.find('%'), pattern.size());
    if (text.compare(at, end, pattern.substr(0, end)) != 0) return false;
    at += end;
    pattern.remove_prefix(end);
    if (pattern.empty()) break;
    const bool isHex = pattern.starts_with("%p") || pattern.starts_with("%08X");
    const std::size_t first = at;
    while (at < text.size() &&
           (std::isdigit(static_cast<unsigned char>(text[at])) != 0 ||
            (isHex ? std::strchr("ABCDEF", text[at]) != nullptr : text[at] == '-'))) {
      ++at;
    }
    if (at == first) return false;
    pattern.remove_prefix(pattern.find_first_of("dupX") + 1);
  }
  return at == text.size();
}

struct Node {
  Node *pNext;
  const char *pName;
  const char16_t *pWide;
  Node *pChild;
  Node *pRef;
  std::uint8_t filling[8];
};

Kind nodeKind(std::size_t length = sizeof(Node)) {
  Kind kind = fixedKind(length);
  kind.siblingOff = offsetof(Node, pNext);
  kind.children = {
      {1, offsetof(Node, pName)}, {2, offsetof(Node, pWide)}, {0, offsetof(Node, pChild)}};
  kind.references = {offsetof(Node, pRef)};
  return kind;
}

ControlBlock nodeKinds() {
  return ControlBlock({nodeKind(), stringKind(), wideKind()});
}

// The same structures in another layout, so that MEM_Unpack makes a new chain.
ControlBlock otherKinds(std::int16_t count = 3, std::size_t length = sizeof(Node)) {
  ControlBlock kinds(count, 0);
  Kind node = nodeKind(length);
  std::swap(node.siblingOff, node.children[0].Offset);
  kinds.set(0, node);
  kinds.set(1, stringKind());
  kinds.set(2, wideKind());
  return kinds;
}

constexpr std::int32_t kBlockLen = 32768;
constexpr std::int16_t kKeyLen = 8;

std::int16_t firstByte(const void *pKey) {
  return *static_cast<const std::uint8_t *>(pKey);
}

class ErrorTableTest : public StartedTest {
 protected:
  ErrorTableTest() { std::memcpy(noHandle_, "NOHANDLE", 8); }

  // --- What is seen ---

  // Looks at what a call has left and notes that this case of the table was seen from this entry
  // point. `isPassedOn`: another service has failed inside it.
  void expect(std::uint32_t code, Seen seen, std::string_view text, const char *service,
              std::int16_t result, bool isPassedOn = false) {
    SCOPED_TRACE(std::to_string(code) + " \"" + std::string(text) + "\" " + service);
    const bool hasCodeAsResult =
        !isPassedOn && (seen == Seen::WithCode || seen == Seen::ResultOnly);
    EXPECT_EQ(result, hasCodeAsResult ? static_cast<std::int16_t>(code) : kFailed);
    EXPECT_EQ(error().ReturnCode, seen == Seen::ResultOnly ? 0 : kFailedCode);
    const bool isInner = seen == Seen::Inner || seen == Seen::InsideCat;
    const std::string found = isInner ? error().InnerText : error().NameText;
    EXPECT_TRUE(fits(found, seen == Seen::EarlierText ? "earlier" : text)) << found;
    EXPECT_EQ(isInner ? error().InnerCode : error().Code, seen == Seen::ResultOnly ? 0 : code);
    EXPECT_EQ(seen == Seen::Inner && error().Code == code, false);
    EXPECT_EQ(seen == Seen::InsideCat && error().Code != MEMERR_CATSTDSTR, false);
    seen_.insert({code, seen, std::string(text), service});
  }

  void recorded(std::uint32_t code, std::string_view text, const char *service,
                std::int16_t result) {
    expect(code, Seen::Recorded, text, service, result);
  }
  void passed(std::uint32_t code, std::string_view text, const char *service, std::int16_t result) {
    expect(code, Seen::Recorded, text, service, result, true);
  }
  void withCode(std::uint32_t code, std::string_view text, const char *service,
                std::int16_t result) {
    expect(code, Seen::WithCode, text, service, result);
  }

  // Runs `call`, which returns a result, with the first, second, … call of a host service failing,
  // until the text of the case is seen; `isInner`: as the inner one.
  void byFault(Service service, std::uint32_t code, Seen seen, std::string_view text,
               const char *name, const std::function<std::int16_t()> &call,
               bool isPassedOn = false) {
    const bool isInner = seen == Seen::Inner || seen == Seen::InsideCat;
    for (std::uint64_t nth = 1;; ++nth) {
      const std::uint64_t fired = host.faultsFired();
      host.arm({.service = service, .nth = nth, .errorCode = 77, .errorText = "HostText"});
      const std::int16_t result = call();
      host.disarm();
      if (host.faultsFired() == fired) break;
      const bool isCode = (isInner ? error().InnerCode : error().Code) == code;
      if (result != 0 && isCode && fits(isInner ? error().InnerText : error().NameText, text)) {
        expect(code, seen, text, name, result, isPassedOn);
        return;
      }
    }
    ADD_FAILURE() << name << " never fails with " << code << " \"" << text << '"';
  }
  void byStorage(std::uint32_t code, std::string_view text, const char *name,
                 const std::function<std::int16_t()> &call, bool isPassedOn = false) {
    byFault(Service::GetStorage, code, Seen::Recorded, text, name, call, isPassedOn);
  }

  // The cleaning up after a call must not change what the call left.
  template <class Cleaning>
  std::int16_t thenClean(std::int16_t result, Cleaning cleaning) {
    const MEMErrorArea kept = error();
    cleaning();
    error() = kept;
    return result;
  }

  // --- What the calls work on ---

  template <class Handle>
  Handle noHandle() {
    return reinterpret_cast<Handle>(noHandle_);
  }

  // An open heap with areas of 1 KB, or of other lengths, while `work` runs.
  template <class Work>
  void inHeap(bool isEnhanced, Work work, std::int16_t areaKB = 1) {
    HMEMHEAP heap = nullptr;
    ASSERT_EQ(isEnhanced ? mem.MEM_EHeapOpen(&heap, areaKB, 7) : mem.MEM_HeapOpen(&heap, areaKB, 7),
              0);
    work(heap);
    EXPECT_EQ(isEnhanced ? mem.MEM_EHeapClose(heap) : mem.MEM_HeapClose(heap), 0);
  }

  void freeChain(MemPackBlock *pBlock, std::uint32_t length) {
    while (pBlock != nullptr) {
      MemPackBlock *const pNext = pBlock->pNext;
      mem.MEM_Free(pBlock, length, 0);
      pBlock = pNext;
    }
  }

  std::int16_t pack(const MemPackCB *pKinds, const void *pRoot, std::int32_t blockLen = kBlockLen) {
    MemPackBlock *pFirst = nullptr;
    const std::int16_t result = mem.MEM_Pack(pKinds, pRoot, blockLen, &pFirst);
    return thenClean(result, [&] {
      host.disarm();
      freeChain(pFirst, static_cast<std::uint32_t>(blockLen));
    });
  }

  // Packs the node, has the chain changed, and unpacks it by the caller's kinds.
  std::int16_t unpack(const Node &root, const MemPackCB *pKinds,
                      const std::function<void(MemPackBlock *)> &change = nullptr,
                      std::int32_t blockLen = kBlockLen) {
    ControlBlock kinds = nodeKinds();
    MemPackBlock *pFirst = nullptr;
    const std::int16_t packed = mem.MEM_Pack(kinds.get(), &root, blockLen, &pFirst);
    if (packed != 0) return thenClean(packed, [&] { freeChain(pFirst, kBlockLen); });
    if (change) change(pFirst);
    MemPackBlock *pChain = pFirst;
    void *pRoot = nullptr;
    const std::int16_t result = mem.MEM_Unpack(&pChain, &pRoot, pKinds);
    return thenClean(result, [&] {
      host.disarm();
      if (pChain != pFirst) freeChain(pChain, MEM_UNPACK_BLOCK_LEN);
      freeChain(pFirst, static_cast<std::uint32_t>(blockLen));
    });
  }

  // The segment at a relative pointer, and the root's place after the control block.
  static constexpr std::int16_t kRootOff = 6 + 978;
  static std::byte *segmentAt(MemPackBlock *pFirst, std::int16_t block, std::int16_t offset) {
    for (; block > 0; --block) pFirst = pFirst->pNext;
    return reinterpret_cast<std::byte *>(pFirst) + 8 + offset;
  }
  static std::byte *root(MemPackBlock *pFirst) { return segmentAt(pFirst, 0, kRootOff); }
  static void setPointer(std::byte *pSegment, std::size_t field, std::int16_t block,
                         std::int16_t offset) {
    const MemPackRelPtr pointer{.Block = block, .Offset = offset, .Reserved4 = 0};
    std::memcpy(pSegment + field, &pointer, sizeof pointer);
  }
  static MemPackRelPtr pointerIn(const std::byte *pSegment, std::size_t field) {
    MemPackRelPtr pointer;
    std::memcpy(&pointer, pSegment + field, sizeof pointer);
    return pointer;
  }

  // The sibling of the deepest segment becomes its child: one level too many.
  static void deepen(MemPackBlock *pFirst) {
    std::byte *pDeepest = root(pFirst);
    MemPackRelPtr child = pointerIn(pDeepest, offsetof(Node, pChild));
    while (child.Offset != 0) {
      pDeepest = segmentAt(pFirst, child.Block, child.Offset);
      child = pointerIn(pDeepest, offsetof(Node, pChild));
    }
    const MemPackRelPtr sibling = pointerIn(pDeepest, offsetof(Node, pNext));
    setPointer(pDeepest, offsetof(Node, pChild), sibling.Block, sibling.Offset);
    setPointer(pDeepest, offsetof(Node, pNext), 0, 0);
  }

  void seeProcess();
  void seeCells();
  void seeTexts();
  void seeTables();
  void seeHeapArguments();
  void seeHeapHandles();
  void seeHeapStorage();
  void seeHeapGates();
  void seePack();
  void seePackStorage();
  void seeUnpack();
  void seeUnpackOther();
  void seePort();
  void seeSinkStart();
  void seeSink();
  void seeSinkHost();

  std::set<std::tuple<std::uint32_t, Seen, std::string, std::string>> seen_;

 private:
  alignas(16) std::uint8_t noHandle_[256] = {};
};

void ErrorTableTest::seeProcess() {
  stop();
  byFault(Service::GetPoolStorage, MEMERR_PBLKFAIL, Seen::Inner, "MEMProcessBlock",
          "MEM_ProcessInit", [&] { return mem.MEM_ProcessInit(); });
  const auto startFails = [&](Service service, std::uint32_t code, const char *text) {
    byFault(service, code, Seen::Inner, text, "MEM_ProcessInit",
            [&] { return thenClean(mem.MEM_ProcessInit(), [&] { mem.MEM_ProcessTerm(); }); });
  };
  startFails(Service::GetStorage, MEMERR_SINKVSTG, "GetVSTGErr");
  startFails(Service::ProtectStorage, MEMERR_SINKVSTG, "ProtPageErr");
  startFails(Service::CreateGate, MEMERR_SINKLGATE, "CreateFailed");
  expect(MEMERR_SINKIERR, Seen::Inner, "", "MEM_SinkInit", mem.MEM_SinkInit());
  const char *pSunk = nullptr;
  const char16_t *pWide = nullptr;
  recorded(MEMERR_SINKIERR, "", "MEM_SinkString", mem.MEM_SinkString("a", &pSunk));
  recorded(MEMERR_SINKIERR, "", "MEM_SinkVerify", mem.MEM_SinkVerify("a", &pSunk, nullptr));
  recorded(MEMERR_SINKIERR, "", "MEM_SinkDelete", mem.MEM_SinkDelete("a"));
  recorded(MEMERR_SINKIERR, "", "MEM_WSinkString", mem.MEM_WSinkString(u"a", &pWide));
  recorded(MEMERR_SINKIERR, "", "MEM_WSinkVerify", mem.MEM_WSinkVerify(u"a", &pWide, nullptr));
  recorded(MEMERR_SINKIERR, "", "MEM_WSinkDelete", mem.MEM_WSinkDelete(u"a"));
  start();
  mem.MEM_ThreadTerm();
  byFault(Service::GetPoolStorage, MEMERR_TBLKFAIL, Seen::Recorded, "MEMThreadBlock",
          "MEM_ThreadAct", [&] { return mem.MEM_ThreadAct(); });
  EXPECT_EQ(error().InnerCode, kHostCode);
  ASSERT_EQ(mem.MEM_ThreadAct(), 0);
  recorded(MEMERR_NOT_SUPPORTED, "InitQTRFTbls called in non-ZRX environment", "MEM_InitQTRFTbls",
           mem.MEM_InitQTRFTbls());
}

void ErrorTableTest::seeCells() {
  HMEMCELL pool = nullptr;
  void *pCell = nullptr;
  for (const std::int32_t areaLen : {255, 1048577}) {
    recorded(MEMERR_CELLBNDS, "Invalid area bounds", "MEM_CellOpen",
             mem.MEM_CellOpen(&pool, areaLen, 8, 0));
  }
  recorded(MEMERR_CELLSIZE, "Invalid area length", "MEM_CellOpen",
           mem.MEM_CellOpen(&pool, 1000, 1000 - 167, 0));
  recorded(MEMERR_CELLELEN, "Invalid cell length", "MEM_CellOpen",
           mem.MEM_CellOpen(&pool, 1000, 7, 0));
  byStorage(MEMERR_CELLAMEM, "Memory Alloc failed", "MEM_CellOpen",
            [&] { return mem.MEM_CellOpen(&pool, 256, 88, 0); });
  ASSERT_EQ(mem.MEM_CellOpen(&pool, 256, 88, 0), 0);
  ASSERT_EQ(mem.MEM_CellAllocEntry(pool, &pCell), 0);
  byStorage(MEMERR_CELLAMEM, "Memory Alloc failed", "MEM_CellAllocEntry",
            [&] { return mem.MEM_CellAllocEntry(pool, &pCell); });
  ASSERT_EQ(mem.MEM_CellClose(pool), 0);
  for (const HMEMCELL handle : {HMEMCELL{}, noHandle<HMEMCELL>()}) {
    constexpr char kText[] = "Invalid Cell Handle=%p";
    recorded(MEMERR_CELLBHDL, kText, "MEM_CellClose", mem.MEM_CellClose(handle));
    recorded(MEMERR_CELLBHDL, kText, "MEM_CellClear", mem.MEM_CellClear(handle));
    recorded(MEMERR_CELLBHDL, kText, "MEM_CellAllocEntry", mem.MEM_CellAllocEntry(handle, &pCell));
    recorded(MEMERR_CELLBHDL, kText, "MEM_CellFreeEntry", mem.MEM_CellFreeEntry(handle, pCell));
  }
}

void ErrorTableTest::seeTexts() {
  constexpr char kTooLong[] = "MemCat String area >= %lu";
  constexpr char kNoRoom[] = "Memory Alloc failed";
  MEMCatCB cat{};
  ASSERT_EQ(mem.MEM_CatOpen(&cat), 0);
  recorded(MEMERR_CATSTRSIZE, kTooLong, "MEM_MemCat", mem.MEM_MemCat(&cat, u"a", -1));
  recorded(MEMERR_CATSTDSTR, "MemCatStdStringFail", "MEM_MemCat", mem.MEM_MemCat(&cat, nullptr, 1));
  recorded(MEMERR_CATSTDSTR, "MemCatStdStringFail", "MEM_Cat", mem.MEM_Cat(&cat, nullptr));
  const std::u16string longText(1000, u'x');
  byStorage(MEMERR_CATAMEM, kNoRoom, "MEM_MemCat",
            [&] { return mem.MEM_MemCat(&cat, longText.c_str(), 1000); });
  byFault(Service::GetStorage, MEMERR_CATAMEM, Seen::InsideCat, kNoRoom, "MEM_Cat",
          [&] { return mem.MEM_Cat(&cat, longText.c_str()); });
  ASSERT_EQ(mem.MEM_CatClose(&cat), 0);

  MEMCatCB tooLarge{.pText = nullptr, .BlkLen = 0x7FFFFFFF, .Len = 0, .Mark = 'A'};
  recorded(MEMERR_CATSTRSIZE, kTooLong, "MEM_MemCat", mem.MEM_MemCat(&tooLarge, u"a", 1));
  expect(MEMERR_CATSTRSIZE, Seen::InsideCat, kTooLong, "MEM_Cat", mem.MEM_Cat(&tooLarge, u"a"));
  tooLarge.BlkLen = 0x80000000;
  recorded(MEM_CAT_CLOSE_ERROR, "FreeMemCatExtString", "MEM_CatClose", mem.MEM_CatClose(&tooLarge));
  EXPECT_EQ(host.lastReportedDetail(), "pCatCB->BlkLen>LONG_MAX");
  recorded(MEM_CAT_CLOSE_ERROR, "FreeMemCatExtString", "MEM_CatClose", mem.MEM_CatClose(nullptr));
  EXPECT_EQ(host.lastReportedDetail(), "");
  recorded(MEMERR_CATAMEM, "AcqMemCatExtString", "MEM_CatOpen", mem.MEM_CatOpen(nullptr));
  byStorage(MEMERR_CATAMEM, "AcqMemCatExtString", "MEM_CatOpen",
            [&] { return mem.MEM_CatOpen(&cat); });
}

void ErrorTableTest::seeTables() {
  HMEMHASH table = nullptr;
  void *pStored = nullptr;
  const auto open = [&](std::int16_t max, std::int16_t areaKB) {
    return mem.MEM_HashOpen(&table, 0, kKeyLen, max, firstByte, areaKB, 7);
  };
  byStorage(MEMERR_HASHAMEM, "HashCBAllocFail", "MEM_HashOpen", [&] { return open(7, 1); });
  recorded(MEMERR_HASHAMEM, "HashCBAllocFail", "MEM_HashOpen", open(-2, 1));
  passed(MEMERR_HEAPSIZE, "Invalid Area Length=%hd", "MEM_HashOpen", open(7, 257));
  byStorage(
      MEMERR_HEAPAMEM, "MemAllocFail", "MEM_HashOpen", [&] { return open(7, 1); }, true);
  returnHashTables(host);
  const std::uint8_t key[kKeyLen] = {3};
  const std::uint8_t otherKey[kKeyLen] = {4};
  const std::uint8_t wrongKey[kKeyLen] = {9};
  ASSERT_EQ(open(7, 1), 0);
  constexpr char kWrong[] = "Hash Func returned invalid value=%08X";
  EXPECT_EQ(mem.MEM_HashInsEntry(table, 8, key, &pStored), 0);
  expect(MEMERR_HASHDKEY, Seen::ResultOnly, "", "MEM_HashInsEntry",
         mem.MEM_HashInsEntry(table, 8, key, &pStored));
  expect(MEMERR_HASHNFND, Seen::ResultOnly, "", "MEM_HashGetEntry",
         mem.MEM_HashGetEntry(table, otherKey, &pStored));
  expect(MEMERR_HASHNFND, Seen::ResultOnly, "", "MEM_HashDelEntry",
         mem.MEM_HashDelEntry(table, otherKey));
  recorded(MEMERR_HASHFERR, kWrong, "MEM_HashInsEntry",
           mem.MEM_HashInsEntry(table, 8, wrongKey, &pStored));
  recorded(MEMERR_HASHFERR, kWrong, "MEM_HashGetEntry",
           mem.MEM_HashGetEntry(table, wrongKey, &pStored));
  recorded(MEMERR_HASHFERR, kWrong, "MEM_HashDelEntry", mem.MEM_HashDelEntry(table, wrongKey));
  for (const std::int16_t length : std::initializer_list<std::int16_t>{-1, 32753}) {
    passed(MEMERR_HEAPEMIN, "Entry Length=%ld too small", "MEM_HashInsEntry",
           mem.MEM_HashInsEntry(table, length, otherKey, &pStored));
  }
  std::vector<std::uint8_t> record(32752, 5);
  byStorage(
      MEMERR_HEAPAMEM, "MemAllocBlkFail", "MEM_HashInsEntry",
      [&] { return mem.MEM_HashInsEntry(table, 32752, record.data(), &pStored); }, true);
  EXPECT_EQ(mem.MEM_HashInsEntry(table, 32752, record.data(), &pStored), 0);
  record[0] = 6;
  byStorage(
      MEMERR_HEAPAMEM, "MemAllocAreaFail", "MEM_HashInsEntry",
      [&] { return mem.MEM_HashInsEntry(table, 953, record.data(), &pStored); }, true);
  ASSERT_EQ(mem.MEM_HashClose(table), 0);
  for (const HMEMHASH handle : {HMEMHASH{}, noHandle<HMEMHASH>()}) {
    constexpr char kText[] = "Invalid Hash Handle=%p";
    recorded(MEMERR_HASHBHDL, kText, "MEM_HashClose", mem.MEM_HashClose(handle));
    recorded(MEMERR_HASHBHDL, kText, "MEM_HashInsEntry",
             mem.MEM_HashInsEntry(handle, 8, key, &pStored));
    recorded(MEMERR_HASHBHDL, kText, "MEM_HashGetEntry",
             mem.MEM_HashGetEntry(handle, key, &pStored));
    recorded(MEMERR_HASHBHDL, kText, "MEM_HashDelEntry", mem.MEM_HashDelEntry(handle, key));
    recorded(MEMERR_HASHBHDL, kText, "MEM_HashScan", mem.MEM_HashScan(handle, nullptr, nullptr));
  }
}

void ErrorTableTest::seeHeapArguments() {
  HMEMHEAP heap = nullptr;
  void *p = nullptr;
  for (const std::int16_t areaLen : std::initializer_list<std::int16_t>{0, 257}) {
    recorded(MEMERR_HEAPSIZE, "Invalid Area Length=%hd", "MEM_HeapOpen",
             mem.MEM_HeapOpen(&heap, areaLen, 0));
    recorded(MEMERR_HEAPSIZE, "Invalid Area Length=%hd", "MEM_EHeapOpen",
             mem.MEM_EHeapOpen(&heap, areaLen, 0));
  }
  inHeap(false, [&](HMEMHEAP own) {
    constexpr char kShort[] = "Entry Length=%ld too small";
    recorded(MEMERR_HEAPEMIN, kShort, "MEM_HeapAllocEntryLong",
             mem.MEM_HeapAllocEntryLong(own, 0, &p));
    passed(MEMERR_HEAPEMIN, kShort, "MEM_HeapAllocEntry", mem.MEM_HeapAllocEntry(own, -1, &p));
    passed(MEMERR_HEAPEMIN, kShort, "MEM_HeapAllocMultEntries",
           mem.MEM_HeapAllocMultEntries(own, 0, 1, 0, &p));
    passed(MEMERR_HEAPEMIN, kShort, "MEM_HeapAllocLongMultEntries",
           mem.MEM_HeapAllocLongMultEntries(own, 0, 1, 0, &p));
  });
  for (const bool isEnhanced : {false, true}) {
    inHeap(isEnhanced, [&](HMEMHEAP own) {
      constexpr char kOffset[] = "Link offset=%hd less than zero";
      recorded(MEMERR_HEAPNUME, "Num of entries=%hd too small", "MEM_HeapAllocMultEntries",
               mem.MEM_HeapAllocMultEntries(own, 16, 0, 0, &p));
      recorded(MEMERR_HEAPNUME, "Num of entries=%ld too small", "MEM_HeapAllocLongMultEntries",
               mem.MEM_HeapAllocLongMultEntries(own, 16, -70000, 0, &p));
      recorded(MEMERR_HEAPLOFF, kOffset, "MEM_HeapAllocMultEntries",
               mem.MEM_HeapAllocMultEntries(own, 16, 1, -1, &p));
      recorded(MEMERR_HEAPLOFF, kOffset, "MEM_HeapAllocLongMultEntries",
               mem.MEM_HeapAllocLongMultEntries(own, 16, 1, -1, &p));
      if (!isEnhanced) return;
      recorded(MEMERR_HEAPNUME, "Num of entries=%hd too small", "MEM_EHeapAllocMultEntries",
               mem.MEM_EHeapAllocMultEntries(own, 16, 0, 0, &p));
      recorded(MEMERR_HEAPNUME, "Num of entries=%ld too small", "MEM_EHeapAllocLongMultEntries",
               mem.MEM_EHeapAllocLongMultEntries(own, 16, 0, 0, &p));
      recorded(MEMERR_HEAPLOFF, kOffset, "MEM_EHeapAllocMultEntries",
               mem.MEM_EHeapAllocMultEntries(own, 16, 1, -1, &p));
      recorded(MEMERR_HEAPLOFF, kOffset, "MEM_EHeapAllocLongMultEntries",
               mem.MEM_EHeapAllocLongMultEntries(own, 16, 1, -1, &p));
      std::uint64_t local[2] = {};
      recorded(MEMERR_HEAPENTRY, "BuffPtr=%p", "MEM_EHeapFreeEntry",
               mem.MEM_EHeapFreeEntry(own, 16, local));
    });
  }
}

void ErrorTableTest::seeHeapHandles() {
  constexpr char kText[] = "Invalid Heap Handle=%p";
  void *p = nullptr;
  const auto refuse = [&](HMEMHEAP handle) {
    recorded(MEMERR_HEAPBHDL, kText, "MEM_HeapClose", mem.MEM_HeapClose(handle));
    recorded(MEMERR_HEAPBHDL, kText, "MEM_EHeapAllocEntry",
             mem.MEM_EHeapAllocEntry(handle, 16, &p));
    recorded(MEMERR_HEAPBHDL, kText, "MEM_EHeapFreeEntry", mem.MEM_EHeapFreeEntry(handle, 16, p));
    recorded(MEMERR_HEAPBHDL, kText, "MEM_EHeapAllocMultEntries",
             mem.MEM_EHeapAllocMultEntries(handle, 16, 1, 0, &p));
    recorded(MEMERR_HEAPBHDL, kText, "MEM_EHeapAllocLongMultEntries",
             mem.MEM_EHeapAllocLongMultEntries(handle, 16, 1, 0, &p));
  };
  const auto refuseWithEarlierText = [&](const char *service, auto call, bool isPassedOn = false) {
    std::strcpy(env().MessageText, "earlier");
    expect(MEMERR_HEAPBHDL, Seen::EarlierText, "", service, call(), isPassedOn);
  };
  refuse(nullptr);
  recorded(MEMERR_HEAPBHDL, kText, "MEM_HeapAllocEntry", mem.MEM_HeapAllocEntry(nullptr, 8, &p));
  const auto none = noHandle<HMEMHEAP>();
  refuse(none);
  refuseWithEarlierText(
      "MEM_HeapAllocEntry", [&] { return mem.MEM_HeapAllocEntry(none, 8, &p); }, true);
  for (const HMEMHEAP handle : {HMEMHEAP{}, none}) {
    refuseWithEarlierText("MEM_HeapAllocEntryLong",
                          [&] { return mem.MEM_HeapAllocEntryLong(handle, 8, &p); });
    refuseWithEarlierText("MEM_HeapAllocMultEntries",
                          [&] { return mem.MEM_HeapAllocMultEntries(handle, 8, 1, 0, &p); });
    refuseWithEarlierText("MEM_HeapAllocLongMultEntries",
                          [&] { return mem.MEM_HeapAllocLongMultEntries(handle, 8, 1, 0, &p); });
    refuseWithEarlierText("MEM_EHeapClose", [&] { return mem.MEM_EHeapClose(handle); });
  }
  inHeap(true, [&](HMEMHEAP enhanced) {
    recorded(MEMERR_HEAPBHDL, kText, "MEM_HeapClose", mem.MEM_HeapClose(enhanced));
  });
}

// Each allocation of two kinds of heap, with a length that needs a further area or a block.
void ErrorTableTest::seeHeapStorage() {
  HMEMHEAP failing = nullptr;
  byStorage(MEMERR_HEAPAMEM, "MemAllocFail", "MEM_HeapOpen",
            [&] { return mem.MEM_HeapOpen(&failing, 1, 7); });
  byStorage(MEMERR_HEAPAMEM, "MemAllocFail", "MEM_EHeapOpen",
            [&] { return mem.MEM_EHeapOpen(&failing, 1, 7); });
  EXPECT_EQ(error().InnerCode, 77U);
  EXPECT_STREQ(error().InnerText, "HostText");

  struct Allocation {
    const char *service;
    bool takesStandard;
    std::function<std::int16_t(HMEMHEAP, std::int16_t)> call;
  };
  void *p = nullptr;
  const Allocation allocations[] = {
      {"MEM_HeapAllocEntryLong", true,
       [&](HMEMHEAP h, std::int16_t len) { return mem.MEM_HeapAllocEntryLong(h, len, &p); }},
      {"MEM_HeapAllocEntry", true,
       [&](HMEMHEAP h, std::int16_t len) { return mem.MEM_HeapAllocEntry(h, len, &p); }},
      {"MEM_HeapAllocMultEntries", true,
       [&](HMEMHEAP h, std::int16_t len) {
         return mem.MEM_HeapAllocMultEntries(h, len, 1, 0, &p);
       }},
      {"MEM_HeapAllocLongMultEntries", true,
       [&](HMEMHEAP h, std::int16_t len) {
         return mem.MEM_HeapAllocLongMultEntries(h, len, 1, 0, &p);
       }},
      {"MEM_EHeapAllocEntry", false,
       [&](HMEMHEAP h, std::int16_t len) { return mem.MEM_EHeapAllocEntry(h, len, &p); }},
      {"MEM_EHeapAllocMultEntries", false,
       [&](HMEMHEAP h, std::int16_t len) {
         return mem.MEM_EHeapAllocMultEntries(h, len, 1, 0, &p);
       }},
      {"MEM_EHeapAllocLongMultEntries", false, [&](HMEMHEAP h, std::int16_t len) {
         return mem.MEM_EHeapAllocLongMultEntries(h, len, 1, 0, &p);
       }}};
  for (const Allocation &allocation : allocations) {
    for (const bool isEnhanced : {false, true}) {
      if (!isEnhanced && !allocation.takesStandard) continue;
      const char *const own = isEnhanced ? "MEM_EHeapAllocEntry" : "MEM_HeapAllocEntryLong";
      const bool isPassedOn = std::string_view(own) != allocation.service;
      inHeap(isEnhanced, [&](HMEMHEAP heap) {
        EXPECT_EQ(allocation.call(heap, 900), 0);
        byStorage(
            MEMERR_HEAPAMEM, isEnhanced ? "MemAllocFail" : "MemAllocAreaFail", allocation.service,
            [&] { return allocation.call(heap, 900); }, isPassedOn);
        byStorage(
            MEMERR_HEAPAMEM, "MemAllocBlkFail", allocation.service,
            [&] { return allocation.call(heap, 2000); }, isPassedOn);
        if (!isEnhanced) return;
        byFault(
            Service::AcquireGate, MEMERR_HEAPGATE, Seen::Recorded, "AcquireGate",
            allocation.service, [&] { return allocation.call(heap, 16); }, isPassedOn);
      });
    }
  }
}

void ErrorTableTest::seeHeapGates() {
  HMEMHEAP heap = nullptr;
  byFault(Service::CreateGate, MEMERR_HEAPGATE, Seen::Recorded, "CreateGate", "MEM_EHeapOpen",
          [&] { return mem.MEM_EHeapOpen(&heap, 1, 7); });
  inHeap(true, [&](HMEMHEAP own) {
    void *p = nullptr;
    EXPECT_EQ(mem.MEM_EHeapAllocEntry(own, 16, &p), 0);
    byFault(Service::AcquireGate, MEMERR_HEAPGATE, Seen::Recorded, "AcquireGate",
            "MEM_EHeapFreeEntry", [&] { return mem.MEM_EHeapFreeEntry(own, 16, p); });
    byFault(Service::AcquireGate, MEMERR_HEAPGATE, Seen::Recorded, "AcquireGate", "MEM_EHeapClose",
            [&] { return mem.MEM_EHeapClose(own); });
    EXPECT_EQ(error().InnerCode, 77U);
    EXPECT_STREQ(error().InnerText, "HostText");
  });
}

void ErrorTableTest::seePack() {
  constexpr char kService[] = "MEM_Pack";
  ControlBlock kinds = nodeKinds();
  Node node{};
  withCode(MEMERR_PACKCBID, "MemPackCBstructIDInvalid=%p", kService, pack(nullptr, &node));
  withCode(MEMERR_PACKSPTR, "Invalid Segment Ptr=%p", kService, pack(kinds.get(), nullptr));
  withCode(MEMERR_PACKBMIN, "BlockTooSmallforMemPackCB=%ld", kService,
           pack(kinds.get(), &node, 978 + 18));
  withCode(MEMERR_PACKBMIN, "SegmentLengthTooLarge=%hd", kService,
           pack(ControlBlock({fixedKind(2000)}).get(), &node, 1500));
  const std::string text(2000, 'x');
  node.pName = text.c_str();
  withCode(MEMERR_PACKBMIN, "StringLengthTooLarge=%ld", kService, pack(kinds.get(), &node, 1500));
  node = {};
  Node stranger{};
  node.pRef = &stranger;
  withCode(MEMERR_PACKSPTR, "Invalid Segment Ptr=%p", kService, pack(kinds.get(), &node));
  node = {};
  node.pChild = &node;
  withCode(MEMERR_PACKCYCL, "RecursiveStructure", kService, pack(kinds.get(), &node));
  Kind bad = nodeKind();
  bad.children[0].Descriptor = 99;
  withCode(MEMERR_PACKCBID, "MemPackCBstructIDInvalid=%p", kService,
           pack(ControlBlock({bad}).get(), &node));
  std::vector<Node> deep(MEM_PACK_MAX_LEVELS + 1);
  for (std::size_t i = 0; i + 1 < deep.size(); ++i) deep[i].pChild = &deep[i + 1];
  withCode(MEMERR_PACKSTAK, "TraversalStackOverflow", kService, pack(kinds.get(), deep.data()));

  // A segment a block, one block more than a chain can have.
  struct Link {
    Link *pNext;
    std::uint8_t filling[492];
  };
  Kind link = fixedKind(sizeof(Link));
  link.siblingOff = 0;
  std::vector<Link> links(MEM_PACK_MAX_BLOCKS + 1);
  for (std::size_t i = 0; i + 1 < links.size(); ++i) links[i].pNext = &links[i + 1];
  withCode(MEMERR_PACKBMAX, "MaxBlocksValueBad=%hd", kService,
           pack(ControlBlock({link}).get(), links.data(), 1000));
}

void ErrorTableTest::seePackStorage() {
  ControlBlock kinds = nodeKinds();
  std::vector<Node> nodes(200);
  for (std::size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i].pNext = &nodes[i + 1];
  const auto call = [&] {
    return thenClean(pack(kinds.get(), nodes.data(), 2000), [&] { returnHashTables(host); });
  };
  for (const char *text : {"1stBlkMemAllocFail", "NthBlkMemAllocFail"}) {
    byFault(Service::GetStorage, MEMERR_PACKAMEM, Seen::WithCode, text, "MEM_Pack", call);
  }
  byStorage(MEMERR_HASHAMEM, "HashCBAllocFail", "MEM_Pack", call, true);
  byStorage(MEMERR_HEAPAMEM, "MemAllocFail", "MEM_Pack", call, true);
  byStorage(MEMERR_HEAPAMEM, "MemAllocAreaFail", "MEM_Pack", call, true);
}

void ErrorTableTest::seeUnpack() {
  constexpr char kService[] = "MEM_Unpack";
  ControlBlock kinds = nodeKinds();
  Node child{};
  Node node{};
  node.pChild = &child;
  node.pName = "name";
  node.pWide = u"wide";
  const auto refuse = [&](std::uint32_t code, const char *text, const auto &change) {
    withCode(code, text, kService, unpack(node, kinds.get(), change));
  };
  MemPackBlock *pNone = nullptr;
  void *pRoot = nullptr;
  withCode(MEMERR_PACKBMAX, "MaxBlocksValueBad=%hd", kService,
           mem.MEM_Unpack(&pNone, &pRoot, kinds.get()));
  const auto setVersion = [](MemPackBlock *pFirst, const char *version) {
    std::memcpy(reinterpret_cast<std::byte *>(pFirst) + 10, version, 4);
  };
  refuse(MEMERR_PACKCBID, "MemPackCBstructIDInvalid=%p",
         [&](MemPackBlock *pFirst) { setVersion(pFirst, "zero"); });
  refuse(MEMERR_PACKCBVR, "MemPackCBstructIDVersion=%p",
         [&](MemPackBlock *pFirst) { setVersion(pFirst, "0999"); });
  refuse(MEMERR_PACKUTF, "UTF32 to UTF16 Conversion err=%hd",
         [&](MemPackBlock *pFirst) { setVersion(pFirst, "0240"); });
  refuse(MEMERR_PACKRBLK, "Invalid Relative Blk=%hd",
         [](MemPackBlock *pFirst) { setPointer(root(pFirst), offsetof(Node, pChild), 7, 2); });
  refuse(MEMERR_PACKROFF, "Invalid Relative Offset=%hd",
         [](MemPackBlock *pFirst) { setPointer(root(pFirst), offsetof(Node, pChild), 0, 0x7000); });
  refuse(MEMERR_PACKCYCL, "RecursiveStructure", [](MemPackBlock *pFirst) {
    setPointer(root(pFirst), offsetof(Node, pChild), 0, kRootOff);
  });
  for (const char *text : {"BlockPtrTblCallocFail", "UnpackBlkMemAllocFail"}) {
    byFault(Service::GetStorage, MEMERR_PACKAMEM, Seen::WithCode, text, kService,
            [&] { return thenClean(unpack(node, kinds.get()), [&] { returnHashTables(host); }); });
  }
}

void ErrorTableTest::seeUnpackOther() {
  constexpr char kService[] = "MEM_Unpack";
  ControlBlock kinds = nodeKinds();
  ControlBlock other = otherKinds();
  Node node{};
  EXPECT_EQ(unpack(node, other.get()), 0);
  withCode(MEMERR_PACKAMEM, "NewPackCBInvalid", kService, unpack(node, nullptr));
  withCode(MEMERR_PACKBMIN, "BlockTooSmallforMemPackCBinUnpack=%ld", kService,
           unpack(node, otherKinds(271).get()));
  EXPECT_EQ(unpack(node, otherKinds(270).get()), 0);
  withCode(MEMERR_PACKBMIN, "SegmentLengthTooLargeinUnpack=%hd", kService,
           unpack(node, otherKinds(3, 33010).get()));
  EXPECT_EQ(unpack(node, otherKinds(3, 33009).get()), 0);
  const std::string name(34000, 'n');
  node.pName = name.c_str();
  withCode(MEMERR_PACKBMIN, "StrBufLengthTooLargeinUnpack=%hd", kService,
           unpack(node, other.get(), nullptr, 60000));
  const std::u16string wide(9000, u'w');
  node = {};
  node.pWide = wide.c_str();
  withCode(MEMERR_PACKBMIN, "StrBufLengthTooLargeinRepack=%hd", kService,
           unpack(node, other.get(), nullptr, 60000));

  Node far{};
  const std::string filling(40, 'f');
  far.pName = filling.c_str();
  node = {};
  node.pChild = &far;
  withCode(MEMERR_PACKROFF, "RepackNewBlockTblOffsetErr", kService,
           unpack(node, other.get(), [](MemPackBlock *pFirst) {
             setPointer(root(pFirst), offsetof(Node, pRef), 0, 2);
           }));
  // The child is alone in the second block, and then the reference alone leads there.
  withCode(MEMERR_PACKRBLK, "RepackNewBlockTblBlkErr", kService,
           unpack(
               node, other.get(),
               [](MemPackBlock *pFirst) {
                 ASSERT_NE(pFirst->pNext, nullptr);
                 setPointer(root(pFirst), offsetof(Node, pChild), 0, 0);
                 setPointer(root(pFirst), offsetof(Node, pRef), 1, 2);
               },
               1040));

  std::vector<Node> deep(MEM_PACK_MAX_LEVELS + 1);
  for (std::size_t i = 0; i + 2 < deep.size(); ++i) deep[i].pChild = &deep[i + 1];
  deep[MEM_PACK_MAX_LEVELS - 1].pNext = &deep[MEM_PACK_MAX_LEVELS];
  withCode(MEMERR_PACKSTAK, "UnpackStackOverflow", kService, unpack(deep[0], other.get(), &deepen));
  withCode(MEMERR_PACKSTAK, "TraversalStackOverflow", kService,
           unpack(deep[0], kinds.get(), &deepen));

  for (const char *text :
       {"PrevBlkOffsetTblCallocFail", "NewBlockTblCallocFail", "NthBlkMemAllocFail"}) {
    // The chain has one block: MEM_Pack does not fail with the last text.
    byFault(Service::GetStorage, MEMERR_PACKAMEM, Seen::WithCode, text, kService,
            [&] { return thenClean(unpack(node, other.get()), [&] { returnHashTables(host); }); });
  }
}

// A port string of a chain of records, written, and read from its chunks and from one text.
class PortCalls {
 public:
  explicit PortCalls(const MEMFunctionVector &mem) : mem_(mem) {
    for (std::size_t i = 0; i + 1 < records_.size(); ++i) records_[i].pNext = &records_[i + 1];
  }

  std::int16_t write(HMEMHEAP heap, std::int32_t chunkLen) {
    std::uint32_t total = 0;
    defs_.row(0).Length = sizeof(Link);
    return mem_.MEM_StructToPortStr(defs_.table(), 1, records_.data(), chunkLen, heap, &total,
                                    &pFirst_);
  }
  // What has been written last, for structures of another length.
  std::int16_t readChunks(HMEMHEAP heap, std::int32_t length) {
    defs_.row(0).Length = length;
    return mem_.MEM_PortStrToStruct(defs_.table(), pFirst_, heap, &pRead_);
  }
  std::int16_t readText(HMEMHEAP heap, std::int32_t length) {
    std::string text;
    for (const MEMPortChunk *p = pFirst_; p != nullptr; p = p->pNext) {
      text.append(p->Text, static_cast<std::size_t>(p->Used));
    }
    defs_.row(0).Length = length;
    return mem_.MEM_Port1StrToStruct(defs_.table(), text.data(),
                                     static_cast<std::uint32_t>(text.size()), heap, &pRead_);
  }

 private:
  struct Link {
    Link *pNext;
  };

  const MEMFunctionVector &mem_;
  std::vector<Link> records_ = std::vector<Link>(400);
  Defs defs_ = std::move(Defs().add(1, sizeof(Link), {Field(1, MEM_PORT_PNT, 8, 0).of(1)}));
  MEMPortChunk *pFirst_ = nullptr;
  void *pRead_ = nullptr;
};

void ErrorTableTest::seePort() {
  PortCalls port(mem);
  struct Call {
    const char *service;
    std::function<std::int16_t(HMEMHEAP, std::int32_t)> call;
  };
  const Call calls[] = {
      {"MEM_StructToPortStr", [&](HMEMHEAP h, std::int32_t len) { return port.write(h, len); }},
      {"MEM_PortStrToStruct",
       [&](HMEMHEAP h, std::int32_t len) { return port.readChunks(h, len); }},
      {"MEM_Port1StrToStruct",
       [&](HMEMHEAP h, std::int32_t len) { return port.readText(h, len); }}};
  inHeap(
      false,
      [&](HMEMHEAP source) {
        for (const Call &call : calls) {
          const auto failing = [&](const char *text, HMEMHEAP heap, std::int32_t length) {
            byStorage(
                MEMERR_HEAPAMEM, text, call.service, [&] { return call.call(heap, length); }, true);
            returnHashTables(host);
          };
          inHeap(false, [&](HMEMHEAP heap) {
            failing("MemAllocAreaFail", heap, 500);
            failing("MemAllocBlkFail", heap, 2000);
          });
          inHeap(true, [&](HMEMHEAP heap) { failing("MemAllocFail", heap, 500); });
          // The call's own heap.
          inHeap(
              false, [&](HMEMHEAP heap) { failing("MemAllocFail", heap, 64); }, 256);
          std::strcpy(env().MessageText, "earlier");
          expect(MEMERR_HEAPBHDL, Seen::EarlierText, "", call.service,
                 call.call(noHandle<HMEMHEAP>(), 64), true);
          if (call.service == calls[0].service) {
            byStorage(
                MEMERR_HASHAMEM, "HashCBAllocFail", call.service,
                [&] { return call.call(source, 64); }, true);
            ASSERT_EQ(port.write(source, 0), 0);  // what the others read
          } else {
            passed(MEMERR_HEAPEMIN, "Entry Length=%ld too small", call.service,
                   call.call(source, 0));
          }
        }
      },
      256);
}

void ErrorTableTest::seeSinkStart() {
  ASSERT_EQ(mem.MEM_SinkTerm(), 0);
  const auto call = [&] { return mem.MEM_SinkInit(); };
  byFault(Service::GetStorage, MEMERR_SINKVSTG, Seen::Inner, "GetVSTGErr", "MEM_SinkInit", call);
  EXPECT_EQ(error().Code, 77U);
  EXPECT_EQ(error().PrevInnerCode, 77U);
  byFault(Service::ProtectStorage, MEMERR_SINKVSTG, Seen::Inner, "ProtPageErr", "MEM_SinkInit",
          call);
  byFault(Service::CreateGate, MEMERR_SINKLGATE, Seen::Inner, "CreateFailed", "MEM_SinkInit", call);
  ASSERT_EQ(mem.MEM_SinkInit(), 0);
}

void ErrorTableTest::seeSink() {
  const char *pSunk = nullptr;
  const char16_t *pWide = nullptr;
  constexpr char kNoText[] = "InputTextPtrNull";
  recorded(MEMERR_SINKITEXT, kNoText, "MEM_SinkString", mem.MEM_SinkString(nullptr, &pSunk));
  recorded(MEMERR_SINKITEXT, kNoText, "MEM_SinkVerify",
           mem.MEM_SinkVerify(nullptr, &pSunk, nullptr));
  recorded(MEMERR_SINKITEXT, kNoText, "MEM_WSinkString", mem.MEM_WSinkString(nullptr, &pWide));
  recorded(MEMERR_SINKITEXT, kNoText, "MEM_WSinkVerify",
           mem.MEM_WSinkVerify(nullptr, &pWide, nullptr));
  recorded(MEMERR_SINKSTEXT, "SinkTextPtrNull", "MEM_SinkVerify",
           mem.MEM_SinkVerify("a", nullptr, nullptr));
  recorded(MEMERR_SINKSTEXT, "SinkTextPtrNull", "MEM_WSinkVerify",
           mem.MEM_WSinkVerify(u"a", nullptr, nullptr));
  const auto isAbsent = [&](const char *service, std::int16_t result) {
    expect(MEMERR_SINKNFND, Seen::ResultOnly, "", service, result);
  };
  isAbsent("MEM_SinkVerify", mem.MEM_SinkVerify("a", &pSunk, nullptr));
  isAbsent("MEM_WSinkVerify", mem.MEM_WSinkVerify(u"a", &pWide, nullptr));
  isAbsent("MEM_SinkDelete", mem.MEM_SinkDelete("a"));
  isAbsent("MEM_WSinkDelete", mem.MEM_WSinkDelete(u"a"));
  constexpr char kInternal[] = "SinkVerifyErr";
  recorded(MEMERR_SINKIERR, kInternal, "MEM_SinkString", mem.MEM_SinkString("a", nullptr));
  recorded(MEMERR_SINKIERR, kInternal, "MEM_WSinkString", mem.MEM_WSinkString(u"a", nullptr));
  recorded(MEMERR_SINKIERR, kInternal, "MEM_SinkDelete", mem.MEM_SinkDelete(nullptr));
  recorded(MEMERR_SINKIERR, kInternal, "MEM_WSinkDelete", mem.MEM_WSinkDelete(nullptr));
  ASSERT_EQ(mem.MEM_SinkString("a", &pSunk), 0);
  ASSERT_EQ(mem.MEM_WSinkString(u"b", &pWide), 0);
  const std::string equal = "a";
  const std::u16string wideEqual = u"b";
  recorded(MEMERR_SINKIERR, "Bad SinkPtr=%p", "MEM_SinkDelete", mem.MEM_SinkDelete(equal.c_str()));
  EXPECT_EQ(host.lastReportedDetail(), "Bad Sink Block Pointer");
  recorded(MEMERR_SINKIERR, "Bad SinkPtr=%p", "MEM_WSinkDelete",
           mem.MEM_WSinkDelete(wideEqual.c_str()));
  const std::string longText(0x40000, 'x');
  const std::u16string longWide(0x20000, u'x');
  recorded(MEMERR_SINKNOSPACE, "AllSinkBlksFull", "MEM_SinkString",
           mem.MEM_SinkString(longText.c_str(), &pSunk));
  recorded(MEMERR_SINKNOSPACE, "AllSinkBlksFull", "MEM_WSinkString",
           mem.MEM_WSinkString(longWide.c_str(), &pWide));
}

// Half a block of text needs a further block when it comes a second time.
void ErrorTableTest::seeSinkHost() {
  constexpr std::size_t kHalf = 0x22000;
  std::string text(kHalf, 'x');
  std::u16string wide(kHalf / 2, u'y');
  const char *pSunk = nullptr;
  const char16_t *pWide = nullptr;
  ASSERT_EQ(mem.MEM_SinkString(text.c_str(), &pSunk), 0);
  const std::function<std::int16_t()> sink = [&] {
    text[0] = 'a';
    const char *pNew = nullptr;
    return mem.MEM_SinkString(text.c_str(), &pNew);
  };
  const std::function<std::int16_t()> wideSink = [&] {
    const char16_t *pNew = nullptr;
    return mem.MEM_WSinkString(wide.c_str(), &pNew);
  };
  const auto fail = [&](Service service, std::uint32_t code, const char *textSeen, const char *name,
                        const std::function<std::int16_t()> &call) {
    byFault(service, code, Seen::Recorded, textSeen, name, call);
    EXPECT_EQ(error().InnerCode, 77U);
    EXPECT_STREQ(error().InnerText, "HostText");
  };
  // The last two leave the block.
  fail(Service::GetStorage, MEMERR_SINKVSTG, "GetVSTGErr", "MEM_SinkString", sink);
  fail(Service::GetStorage, MEMERR_SINKVSTG, "GetVSTGErr", "MEM_WSinkString", wideSink);
  for (const char *found : {"ProtPageErr", "ProtPageErrReadWrite", "ProtPageErrReadOnly"}) {
    fail(Service::ProtectStorage, MEMERR_SINKVSTG, found, "MEM_SinkString", sink);
    fail(Service::ProtectStorage, MEMERR_SINKVSTG, found, "MEM_WSinkString", wideSink);
  }
  ASSERT_EQ(wideSink(), 0);
  ASSERT_EQ(mem.MEM_WSinkString(u"w", &pWide), 0);
  const auto failGate = [&](const char *name, const std::function<std::int16_t()> &call) {
    fail(Service::AcquireGate, MEMERR_SINKLGATE, "ListGateAcq", name, call);
  };
  failGate("MEM_SinkString", sink);
  failGate("MEM_WSinkString", wideSink);
  failGate("MEM_SinkVerify", [&] { return mem.MEM_SinkVerify("a", &pSunk, nullptr); });
  failGate("MEM_WSinkVerify", [&] { return mem.MEM_WSinkVerify(u"a", &pWide, nullptr); });
  failGate("MEM_SinkDelete", [&] { return mem.MEM_SinkDelete("a"); });
  failGate("MEM_WSinkDelete", [&] { return mem.MEM_WSinkDelete(u"a"); });
  ASSERT_EQ(mem.MEM_SinkString("s", &pSunk), 0);
  for (const char *found : {"ProtPageErrReadWrite", "ProtPageErrReadOnly"}) {
    fail(Service::ProtectStorage, MEMERR_SINKVSTG, found, "MEM_SinkDelete",
         [&] { return mem.MEM_SinkDelete(pSunk); });
    fail(Service::ProtectStorage, MEMERR_SINKVSTG, found, "MEM_WSinkDelete",
         [&] { return mem.MEM_WSinkDelete(pWide); });
  }
}

// What the library cannot be made to do from outside.
bool isOutOfReach(const ErrorCase &known) {
  return known.seen == Seen::Never ||
         known.cause.find("changed during the call") != std::string::npos;
}

TEST_F(ErrorTableTest, EveryCaseIsWhatTheLibraryDoes) {
  seeProcess();
  seeCells();
  seeTexts();
  seeTables();
  seeHeapArguments();
  seeHeapHandles();
  seeHeapStorage();
  seeHeapGates();
  seePack();
  seePackStorage();
  seeUnpack();
  seeUnpackOther();
  seePort();
  seeSinkStart();
  seeSink();
  seeSinkHost();

  std::set<std::tuple<std::uint32_t, Seen, std::string, std::string>> wanted;
  for (const ErrorCode &code : memtool::errorCodes()) {
    for (const ErrorCase &known : code.cases) {
      if (isOutOfReach(known)) continue;
      for (const std::string_view list : {known.services, known.passedOnBy}) {
        for (const std::string_view name : memtool::namesIn(list)) {
          wanted.insert({code.code, known.seen, std::string(known.text), std::string(name)});
        }
      }
    }
  }
  const auto listed = [](const auto &from, const auto &other) {
    std::string text;
    for (const auto &[code, seen, recorded, service] : from) {
      if (other.count({code, seen, recorded, service}) != 0) continue;
      text += "  " + std::to_string(code) + " \"" + recorded + "\" " + service + ", " +
              std::string(memtool::seenText(seen).label) + "\n";
    }
    return text;
  };
  EXPECT_EQ(listed(wanted, seen_), "") << "is in the table and was not seen";
  EXPECT_EQ(listed(seen_, wanted), "") << "was seen and is not in the table";
}

// What the table says of failures without a code.
TEST_F(ErrorTableTest, SomeFailuresHaveNoCode) {
  const auto expectNoCode = [&](std::int16_t result, const char *text) {
    EXPECT_EQ(result, kFailed);
    EXPECT_EQ(error().Code, 0U);
    EXPECT_EQ(nameText(), text);
  };
  expectNoCode(pack(ControlBlock({wideKind()}).get(), u"root"), "WideStringOutOfPlace");
  Kind many = fixedKind(80);
  for (std::int16_t i = 0; i < 9; ++i) {
    many.children.push_back({0, static_cast<std::int16_t>(8 * i)});
  }
  MEMProcOptions options{};
  options.Set = 1;
  options.OldPackCB = 1;
  ASSERT_EQ(mem.MEMSetProcOptions(&options), 0);
  const std::uint64_t root[10] = {};
  expectNoCode(pack(ControlBlock({many}).get(), root), "");
  EXPECT_EQ(mem.MEM_HeapOpen(nullptr, 0, 0), kFailed);
  host.withoutThreadEnv(true);
  const char16_t *pWide = nullptr;
  EXPECT_EQ(mem.MEM_ThreadAct(), kFailed);
  EXPECT_EQ(mem.MEM_WSinkString(u"a", &pWide), kFailed);
  EXPECT_EQ(mem.MEM_HeapOpen(nullptr, 257, 0), kFailed);
  host.withoutThreadEnv(false);
  EXPECT_STREQ(error().NameText, "Invalid Area Length=0");  // of the call before

  HMEMHASH table = nullptr;
  void *pStored = nullptr;
  const std::uint8_t key[kKeyLen] = {};
  ASSERT_EQ(mem.MEM_HashOpen(&table, 0, kKeyLen, 0, firstByte, 1, 7), 0);
  ASSERT_EQ(mem.MEM_HashInsEntry(table, kKeyLen, key, &pStored), 0);
  const auto scanned = [](void *, void *) -> std::int16_t { return 7; };
  EXPECT_EQ(mem.MEM_HashScan(table, scanned, nullptr), 7);
  EXPECT_EQ(error().Code, 0U);
  ASSERT_EQ(mem.MEM_HashClose(table), 0);
  host.arm({.service = Service::GetStorage});
  EXPECT_EQ(mem.MEM_Alloc(8, 7), nullptr);
  EXPECT_EQ(error().Code, 0U);
  EXPECT_EQ(mem.MEM_Port1StrToStruct(nullptr, nullptr, 0, nullptr, nullptr), kFailed);
  EXPECT_EQ(error().Code, 0U);
}

TEST_F(ErrorTableTest, HasTheCodesOfTheMessageTable) {
  std::vector<std::tuple<std::uint32_t, std::string, std::string>> wanted;
  for (const MEMMessageRow *row = host.messageTable(); row->Code != 0; ++row) {
    wanted.emplace_back(row->Code, row->Name, row->Message);
  }
  wanted.emplace_back(4028, "MEM_CAT_CLOSE_ERROR", "");
  std::sort(wanted.begin(), wanted.end());
  std::vector<std::tuple<std::uint32_t, std::string, std::string>> found;
  for (const ErrorCode &code : memtool::errorCodes()) {
    found.emplace_back(code.code, code.name, code.message);
  }
  EXPECT_EQ(found, wanted);
}

TEST_F(ErrorTableTest, EveryCodeIsExplained) {
  std::set<std::string_view> services;
#define MEM_SERVICE_NAME(slot, service) services.insert(#service);
  MEM_VECTOR_SLOTS(MEM_SERVICE_NAME)
#undef MEM_SERVICE_NAME
  for (const ErrorCode &code : memtool::errorCodes()) {
    SCOPED_TRACE(code.code);
    EXPECT_FALSE(code.cases.empty());
    EXPECT_EQ(std::ranges::count_if(memtool::errorFamilies(),
                                    [&](const memtool::ErrorFamily &family) {
                                      return family.first <= code.code && code.code <= family.last;
                                    }),
              1);
    for (const ErrorCase &known : code.cases) {
      EXPECT_FALSE(known.cause.empty());
      EXPECT_FALSE(known.remedy.empty());
      EXPECT_EQ(known.services.empty(), known.seen == Seen::Never);
      for (const std::string_view list : {known.services, known.passedOnBy}) {
        for (const std::string_view name : memtool::namesIn(list)) {
          EXPECT_EQ(services.count(name), 1U) << name;
        }
      }
    }
  }
}

}  // namespace
}  // namespace memtest
