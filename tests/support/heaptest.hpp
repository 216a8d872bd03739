// What tests of heaps, hash tables, cell pools and concatenation buffers share: views of control
// blocks byte by byte, a watch over the slots through which services call each other, and a fixture
// that checks how a call ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "memtest.hpp"

namespace memtest {

// The formats of heaps, written here a second time, on purpose.
inline constexpr std::uint32_t kHeapHeaderLen = 56;
inline constexpr std::uint32_t kEHeapHeaderLen = 64;
inline constexpr std::uint32_t kAreaHeaderLen = 24;
inline constexpr std::uint32_t kBlockHeaderLen = 24;

// A value at a byte offset, aligned or not.
template <class T>
T load(const void *base, std::size_t offset) {
  T value;
  std::memcpy(&value, static_cast<const std::uint8_t *>(base) + offset, sizeof value);
  return value;
}

template <class T>
void store(void *base, std::size_t offset, T value) {
  std::memcpy(static_cast<std::uint8_t *>(base) + offset, &value, sizeof value);
}

inline std::uint8_t *at(void *base, std::size_t offset) {
  return static_cast<std::uint8_t *>(base) + offset;
}

inline std::string eyecatcher(const void *block) {
  return std::string(static_cast<const char *>(block), 8);
}

inline bool allBytesAre(const void *from, std::size_t length, std::uint8_t value) {
  if (length == 0) return true;
  const auto *bytes = static_cast<const std::uint8_t *>(from);
  return bytes[0] == value && std::memcmp(bytes, bytes + 1, length - 1) == 0;  // each as the next
}

// Builds the expected bytes of a block field by field.
class Layout {
 public:
  Layout &text(const char *characters) { return append(characters, std::strlen(characters)); }
  template <class T>
  Layout &field(T value) {
    return append(&value, sizeof value);
  }
  Layout &address(const void *value) { return field(asNumber(value)); }
  const Bytes &bytes() const { return bytes_; }

 private:
  Layout &append(const void *from, std::size_t length) {
    bytes_.resize(bytes_.size() + length);
    std::memcpy(bytes_.data() + bytes_.size() - length, from, length);
    return *this;
  }

  Bytes bytes_;
};

// Values of 16 bits to loop over.
using Shorts = std::initializer_list<std::int16_t>;

// Names a case of a parameterised test by its `name`.
template <class Case>
std::string caseName(const ::testing::TestParamInfo<Case> &info) {
  return info.param.name;
}

// The address in a cell that a failing call must leave alone.
inline void *untouched() {
  static char mark;
  return &mark;
}

// "%lX" of an address: its low 32 bits.
inline std::string lowHex(const void *address) {
  return refhost::formatText("%lX", address);
}

// Trace records without the line numbers, which are the library's own choice:
// "STDX MEM_HeapClose(..\SrcRes\MEMCHEAP) Return=SUCCESS".
inline Lines pointLines(const std::vector<refhost::TraceRecord> &records) {
  Lines lines;
  for (const refhost::TraceRecord &record : records) {
    lines.push_back(record.type + ' ' + record.function + '(' + record.source + ") " + record.text);
  }
  return lines;
}

// One call through a watched slot of the MEM function vector.
struct SlotUse {
  int slot;
  const void *object;   // 8: the area allocated or null; 10: the heap made or null;
                        // 9: the area; 11, 12, 14 and 38: the heap
  std::int64_t length;  // 8, 9: bytes; 10: area length in KB; 12, 14, 38: entry length
  std::int32_t subPool;
};

// Puts forwarders into the slots through which services use storage and heaps (8 to 12, 14, 38) and
// notes every call in order. On request, slots answer by themselves or keep what they are to free.
// One at a time; the slots keep the forwarders until the host restores them.
class VectorWatch {
 public:
  explicit VectorWatch(MEMFunctionVector &mem) : own_(mem) {
    watch_ = this;
    mem.MEM_Alloc = alloc;
    mem.MEM_Free = release;
    mem.MEM_HeapOpen = heapOpen;
    mem.MEM_HeapClose = heapClose;
    mem.MEM_HeapAllocEntry = allocEntry;
    mem.MEM_HeapAllocEntryLong = allocEntryLong;
    mem.MEM_EHeapAllocEntry = enhancedAllocEntry;
  }
  ~VectorWatch() { releaseKept(); }
  VectorWatch(const VectorWatch &) = delete;
  VectorWatch &operator=(const VectorWatch &) = delete;

  // Areas that are to be freed stay readable until releaseKept, on request with other contents.
  bool keepFreed = false;
  bool soilFreed = false;

  // Slot 8 answers null while this is above 0, once for each.
  int refuseStorage = 0;

  // Results that slots give at once, without doing anything.
  std::optional<std::int16_t> openResult;
  std::optional<std::int16_t> closeResult;
  std::optional<std::int16_t> entryResult;
  std::optional<std::int16_t> longResult;
  std::optional<std::int16_t> enhancedResult;

  std::vector<SlotUse> uses;
  void **lastEntryCell = nullptr;  // the cell that slots 12, 14 and 38 got last

  // "8(1024, 7)", "9(area, 1024, 7)", "10(1, 7)", "11(heap)", "12(heap, 31)": slot and arguments.
  Lines takeLines(const AddressNames &names = {}) {
    Lines lines;
    for (const SlotUse &use : uses) lines.push_back(lineOf(use, names));
    uses.clear();
    return lines;
  }

  std::vector<SlotUse> takeUsesOf(int slot) {
    std::vector<SlotUse> found;
    for (const SlotUse &use : uses) {
      if (use.slot == slot) found.push_back(use);
    }
    uses.clear();
    return found;
  }

  void releaseKept() {
    for (const Kept &area : kept_) own_.MEM_Free(area.address, area.length, area.subPool);
    kept_.clear();
  }

 private:
  struct Kept {
    void *address;
    std::uint32_t length;
    std::int16_t subPool;
  };

  static std::string lineOf(const SlotUse &use, const AddressNames &names) {
    const std::string object = argumentText('a', asNumber(use.object), names);
    const std::string length = std::to_string(use.length);
    const std::string subPool = std::to_string(use.subPool);
    const std::string slot = std::to_string(use.slot) + '(';
    switch (use.slot) {
      case 8:
      case 10:
        return slot + length + ", " + subPool + ')';
      case 9:
        return slot + object + ", " + length + ", " + subPool + ')';
      case 11:
        return slot + object + ')';
      default:
        return slot + object + ", " + length + ')';
    }
  }

  std::size_t note(const SlotUse &use) {
    uses.push_back(use);
    return uses.size() - 1;
  }

  static void *alloc(std::uint32_t size, std::int16_t subPool) {
    const std::size_t index = watch_->note({8, nullptr, size, subPool});
    if (watch_->refuseStorage > 0) {
      --watch_->refuseStorage;
      return nullptr;
    }
    void *area = watch_->own_.MEM_Alloc(size, subPool);
    watch_->uses[index].object = area;
    return area;
  }

  static void release(void *area, std::uint32_t size, std::int16_t subPool) {
    watch_->note({9, area, size, subPool});
    if (!watch_->keepFreed) {
      watch_->own_.MEM_Free(area, size, subPool);
      return;
    }
    if (watch_->soilFreed) std::memset(area, 0xDD, size);
    watch_->kept_.push_back({area, size, subPool});
  }

  static std::int16_t heapOpen(HMEMHEAP *phMemHeap, std::int16_t areaLen, std::uint16_t subPool) {
    const std::size_t index = watch_->note({10, nullptr, areaLen, subPool});
    if (watch_->openResult) return *watch_->openResult;
    const std::int16_t result = watch_->own_.MEM_HeapOpen(phMemHeap, areaLen, subPool);
    if (result == 0) watch_->uses[index].object = *phMemHeap;
    return result;
  }

  static std::int16_t heapClose(HMEMHEAP hMemHeap) {
    watch_->note({11, hMemHeap, 0, 0});
    if (watch_->closeResult) return *watch_->closeResult;
    return watch_->own_.MEM_HeapClose(hMemHeap);
  }

  static std::int16_t allocEntry(HMEMHEAP hMemHeap, std::int16_t len, void **ppEntry) {
    watch_->note({12, hMemHeap, len, 0});
    watch_->lastEntryCell = ppEntry;
    if (watch_->entryResult) return *watch_->entryResult;
    return watch_->own_.MEM_HeapAllocEntry(hMemHeap, len, ppEntry);
  }

  static std::int16_t allocEntryLong(HMEMHEAP hMemHeap, std::int32_t len, void **ppEntry) {
    watch_->note({14, hMemHeap, len, 0});
    watch_->lastEntryCell = ppEntry;
    if (watch_->longResult) return *watch_->longResult;
    return watch_->own_.MEM_HeapAllocEntryLong(hMemHeap, len, ppEntry);
  }

  static std::int16_t enhancedAllocEntry(HMEMHEAP hMemHeap, std::int32_t len, void **ppEntry) {
    watch_->note({38, hMemHeap, len, 0});
    watch_->lastEntryCell = ppEntry;
    if (watch_->enhancedResult) return *watch_->enhancedResult;
    return watch_->own_.MEM_EHeapAllocEntry(hMemHeap, len, ppEntry);
  }

  inline static VectorWatch *watch_ = nullptr;
  const MEMFunctionVector own_;
  std::vector<Kept> kept_;
};

// What is reported to the host about a failure, and what the error area holds at that moment.
struct Report {
  const char *pErrorText;
  std::string errorText;
  std::string detail;
  std::uint32_t code;
  std::uint16_t returnCode;
  std::uint16_t component;
};

// What a failure leaves in the error area besides code, name and return code. Enhanced heaps set
// the component; where the host failed, its own code and text are the inner ones.
struct FailureMarks {
  std::uint16_t component = 0;
  std::uint32_t innerCode = 0;
  const char *innerText = "";
};

// The code and text of host failures in these tests, as faultOf(service, kHostError) gives them.
inline constexpr std::uint32_t kHostError = 777;

// Marks of an enhanced heap's failures: of its own, and of those that keep the host's error.
inline constexpr FailureMarks kOwnMarks = {MEM_COMPONENT};
inline constexpr FailureMarks kHostMarks = {MEM_COMPONENT, kHostError, kHostErrorText};

// How a failure fills the name field.
enum class NameBy {
  kMessage,  // composed in the free message text and copied from there
  kItself,   // composed in place, the free message text stays
  kStanding  // the existing free message text is copied
};

// What is reported to the host about a failure.
struct Told {
  std::string detail = {};
  bool messageText = false;  // the free message text instead of the name field
};

// The free message text before each call that is expected to fail.
inline constexpr char kStandingText[] = "what an earlier call left";

// The line numbers in trace records are the library's own choice, but different trace points of a
// source have different ones. A point is an operation's entry, its exit or one of its storage
// lines.
class TracePoints {
 public:
  // Records under `sharedName` belong to the operation that is called, all others to the service
  // that they name.
  explicit TracePoints(std::string source, std::string sharedName = {})
      : source_(std::move(source)), sharedName_(std::move(sharedName)) {}

  void add(const std::string &operation, const std::vector<refhost::TraceRecord> &records) {
    for (const refhost::TraceRecord &record : records) {
      if (record.source != source_) continue;
      std::string point = record.function == sharedName_ ? operation : record.function;
      point += ' ' + record.type;
      if (record.type == "SL05") point += ' ' + record.text.substr(0, record.text.find(','));
      EXPECT_GT(record.line, 0) << point;
      const auto owner = owners_.emplace(record.line, point).first;
      EXPECT_EQ(owner->second, point) << "two trace points have line " << record.line;
    }
  }

  std::size_t count() const { return owners_.size(); }

 private:
  std::string source_;
  std::string sharedName_;
  std::map<std::int32_t, std::string> owners_;
};

// A started library on a host with dirty storage.
class HeapHashTest : public StartedTest {
 protected:
  static constexpr std::uint16_t kSubPool = 7;
  static constexpr std::uint8_t kDirty = 0xA5;

  explicit HeapHashTest(refhost::Options options = withDirtyStorage()) : StartedTest(options) {
    reports_ = &reports;
    thread_ = &env();
    hostReport_ = host.text().ReportError;
    host.text().ReportError = [](char *pErrorText, const char *pDetail) {
      const MEMErrorArea &left = thread_->Error;
      reports_->push_back(
          {pErrorText, pErrorText, pDetail, left.Code, left.ReturnCode, left.Component});
      hostReport_(pErrorText, pDetail);
    };
  }

  void setMessageText(const std::string &text) { std::strcpy(env().MessageText, text.c_str()); }

  // The error area holds this failure and nothing else. What follows the end of a text has no
  // meaning.
  void expectError(std::uint32_t code, const std::string &name, const FailureMarks &marks = {}) {
    EXPECT_EQ(error().Code, code);
    EXPECT_EQ(nameText(), name);
    EXPECT_EQ(std::string(error().InnerText), marks.innerText);
    MEMErrorArea expected{};
    expected.Component = marks.component;
    expected.ReturnCode = kFailedCode;
    expected.Code = code;
    expected.InnerCode = marks.innerCode;
    MEMErrorArea left = error();
    std::memset(left.NameText, 0, sizeof left.NameText);
    if (*marks.innerText != '\0') std::memset(left.InnerText, 0, sizeof left.InnerText);
    EXPECT_EQ(changedRanges(bytesOf(&expected, sizeof expected), bytesOf(&left, sizeof left)), "");
  }

  void expectNoError() { EXPECT_EQ(changedRanges(Bytes(552), errorBytes(env())), ""); }

  // `call` fails with -1 and this error, reports it once, and traces nothing.
  template <class Call>
  void expectFails(std::uint32_t code, const std::string &name, NameBy nameBy, Call call,
                   const FailureMarks &marks = {}, const Told &told = {}) {
    std::memset(&error(), 0xEE, sizeof error());
    setMessageText(kStandingText);
    reports.clear();
    host.resetCalls();

    EXPECT_EQ(call(), kFailed);

    expectError(code, name, marks);
    EXPECT_EQ(messageText(), nameBy == NameBy::kMessage ? name : kStandingText);
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(static_cast<const void *>(reports[0].pErrorText),
              told.messageText ? env().MessageText : error().NameText);
    EXPECT_EQ(reports[0].errorText, name);
    EXPECT_EQ(reports[0].detail, told.detail);
    EXPECT_EQ(reports[0].code, code) << "reported before the error area is filled";
    EXPECT_EQ(reports[0].returnCode, kFailedCode);
    EXPECT_EQ(reports[0].component, marks.component);
    EXPECT_EQ(traceCalls(host), 0U);
  }

  // `call` ends with a result that is not an error: nothing is recorded, reported or traced.
  template <class Call>
  void expectEnds(std::int16_t result, Call call) {
    std::memset(&error(), 0xEE, sizeof error());
    setMessageText(kStandingText);
    reports.clear();
    host.resetCalls();

    EXPECT_EQ(call(), result);

    expectNoError();
    EXPECT_EQ(messageText(), kStandingText);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(traceCalls(host), 0U);
  }

  template <class Call>
  std::vector<refhost::TraceRecord> recordsOf(std::uint32_t flags, Call call) {
    host.setTraceFlags(flags);
    host.keepRecords(true);
    call();
    host.keepRecords(false);
    host.setTraceFlags(0);
    return host.takeRecords();
  }

  // Trace lines that `call` writes under the given flags, those of nested services included.
  template <class Call>
  Lines traced(std::uint32_t flags, Call call) {
    return pointLines(recordsOf(flags, call));
  }

  // Format texts of the trace lines that `call` writes, "MEM_CellClear: Parms: hMemCell=%lx",
  // without those of storage services.
  template <class Call>
  Lines formats(Call call) {
    host.recordCalls(true);
    call();
    host.recordCalls(false);
    Lines lines;
    for (const refhost::HostCall &made : host.takeCalls()) {
      if (made.service != refhost::Service::Format) continue;
      if (made.frame == "MemAlloc" || made.frame == "MEM_Free") continue;
      lines.push_back(made.frame + ": " + reinterpret_cast<const char *>(made.args[1]));
    }
    return lines;
  }

  std::vector<Report> reports;

 private:
  inline static std::vector<Report> *reports_ = nullptr;
  inline static MEMThreadEnv *thread_ = nullptr;
  inline static decltype(MEMTextServices::ReportError) hostReport_ = nullptr;
};

}  // namespace memtest
