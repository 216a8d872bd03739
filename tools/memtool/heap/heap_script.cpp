#include "heap_script.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "tool_text.hpp"

namespace memtool {

const std::string_view kExampleScript =
    "# A standard heap with areas of 1 KB: it places entries one after the other.\n"
    "open names heap 1\n"
    "entry names root 120\n"
    "entry names key 20\n"
    "chain names n 64 4\n"
    "show a standard heap, its entries end to end\n"
    "entry names table 600\n"
    "entry names picture 1200\n"
    "show an entry without room opens an area; one too long for areas gets a large block\n"
    "close names\n"
    "\n"
    "# Entries of an enhanced heap can be freed, but their storage is not used again.\n"
    "open jobs eheap 1\n"
    "entry jobs first 200\n"
    "entry jobs second 100\n"
    "free jobs first\n"
    "entry jobs third 200\n"
    "show an enhanced heap: a freed entry stays where it is\n"
    "close jobs\n"
    "\n"
    "# A pool allocates cells of one length and uses freed ones again, the last freed one first.\n"
    "open slots pool 512 48\n"
    "cell slots a 3\n"
    "free slots a.2\n"
    "cell slots b\n"
    "cell slots c 4\n"
    "show a cell pool: a.2 was freed and is b now\n"
    "close slots\n";

namespace {

// What the library takes, or less where more would make no sense.
struct Range {
  std::int32_t least;
  std::int32_t most;
};
constexpr std::int32_t kMostLength = std::numeric_limits<std::int32_t>::max();
constexpr Range kHeapAreaKb{1, 256};
constexpr Range kPoolArea{256, 0x100000};
constexpr Range kCellLength{8, 0x100000};
constexpr Range kHeapSubPool{0, 0xFFFF};        // an unsigned number for the library
constexpr Range kPoolSubPool{-0x8000, 0x7FFF};  // a signed one
constexpr Range kEntryLength{1, kMostLength};
constexpr Range kEnhancedEntryLength{0, kMostLength};
constexpr Range kCount{1, 1000};  // entries of a chain, cells of a line

// The library's bytes at the start of the first area, until the first entry shows where they end.
constexpr std::uint32_t kHeapHead = 56;
constexpr std::uint32_t kEnhancedHeapHead = 64;
constexpr std::uint32_t kEntryAlignment = 8;
constexpr std::uint32_t kLeastEnhancedEntry = 16;
constexpr char kLargeBlockMark[] = "QQQHBLKN";

// Observes what the library allocates and frees. The library does so through the vector, whose
// slots this object replaces while it lives. Slots have no context argument, so only one object may
// exist at a time.
class StorageWatch {
 public:
  explicit StorageWatch(MEMFunctionVector &vector)
      : vector_(vector), alloc_(vector.MEM_Alloc), free_(vector.MEM_Free) {
    active_ = this;
    vector_.MEM_Alloc = &StorageWatch::alloc;
    vector_.MEM_Free = &StorageWatch::free;
  }
  ~StorageWatch() {
    vector_.MEM_Alloc = alloc_;
    vector_.MEM_Free = free_;
    active_ = nullptr;
  }
  StorageWatch(const StorageWatch &) = delete;
  StorageWatch &operator=(const StorageWatch &) = delete;

  // Storage allocated from now on belongs to `store`; null: it is not recorded.
  void assign(Store *store) { store_ = store; }

 private:
  static void *alloc(std::uint32_t size, std::int16_t subPool) {
    void *const area = active_->alloc_(size, subPool);
    if (area != nullptr && active_->store_ != nullptr) {
      StoreArea made;
      made.address = static_cast<const char *>(area);
      made.length = size;
      active_->store_->areas.push_back(made);
    }
    return area;
  }

  static void free(void *area, std::uint32_t size, std::int16_t subPool) {
    if (active_->store_ != nullptr) {
      std::erase_if(active_->store_->areas,
                    [area](const StoreArea &old) { return old.address == area; });
    }
    active_->free_(area, size, subPool);
  }

  static constinit StorageWatch *active_;

  MEMFunctionVector &vector_;
  MEM_AllocFn *alloc_;
  MEM_FreeFn *free_;
  Store *store_ = nullptr;
};

constinit StorageWatch *StorageWatch::active_ = nullptr;

std::vector<std::string> wordsOf(std::string_view line) {
  std::vector<std::string> words;
  for (std::size_t at = 0; at < line.size();) {
    const std::size_t start = line.find_first_not_of(" \t\r", at);
    if (start == std::string_view::npos || line[start] == '#') break;
    const std::size_t end = std::min(line.find_first_of(" \t\r", start), line.size());
    words.emplace_back(line.substr(start, end - start));
    at = end;
  }
  return words;
}

// A mistake in the script. The catcher adds the line.
class ScriptError : public ToolError {
 public:
  using ToolError::ToolError;
};

// A word of the script in a message. A file of another kind may be one word of any length.
std::string shown(std::string_view word) {
  constexpr std::size_t kMostShown = 40;
  return inQuotes(word, kMostShown);
}

class Runner {
 public:
  explicit Runner(RunningLibrary &library) : library_(library), watch_(library.vector()) {}
  ~Runner() {
    while (!stores_.empty()) closeStore(0);
  }
  Runner(const Runner &) = delete;
  Runner &operator=(const Runner &) = delete;

  // Runs the words of the line with this number.
  void runLine(std::size_t line, const std::vector<std::string> &words);
  // Returns the states, with that at the end of the script unless it was just shown or nothing is
  // open.
  std::vector<Snapshot> finish();

 private:
  using Words = std::vector<std::string>;

  void open(const Words &words);
  void entry(const Words &words);
  void chain(const Words &words);
  void cell(const Words &words);
  void free(const Words &words);
  void clear(const Words &words);
  void show(const Words &words);
  void close(const Words &words);

  void openStore(Store &store);
  std::int16_t closeStore(std::size_t index);
  void *allocateEntry(Store &store, std::int32_t length);
  void addEntry(Store &store, const std::string &label, const void *address, std::uint32_t asked);
  void takeCells(Store &store, const std::string &label, std::uint32_t count);
  void findFirstCell(Store &store);

  std::size_t indexOf(const std::string &name) const;
  Store &named(const std::string &name);
  static void expectWords(const Words &words, std::size_t least, std::size_t most,
                          const char *form);
  static std::int32_t number(const std::string &word, const Range &range);
  static void expectNewLabel(const Store &store, const std::string &label);

  RunningLibrary &library_;
  StorageWatch watch_;
  std::vector<Store> stores_;
  std::vector<Snapshot> snapshots_;
  bool isShown_ = true;
  std::size_t line_ = 0;
};

void Runner::expectWords(const Words &words, std::size_t least, std::size_t most,
                         const char *form) {
  if (words.size() < least || words.size() > most) {
    throw ScriptError(fmt::format("expected: {}", form));
  }
}

std::int32_t Runner::number(const std::string &word, const Range &range) {
  std::int32_t value = 0;
  const char *const end = word.data() + word.size();
  const auto [stop, error] = std::from_chars(word.data(), end, value);
  const bool isNumber = error == std::errc() && stop == end;
  if (isNumber && value >= range.least && value <= range.most) return value;
  throw ScriptError(
      fmt::format("{} is not a number from {} to {}", shown(word), range.least, range.most));
}

std::size_t Runner::indexOf(const std::string &name) const {
  const auto isIt = [&](const Store &store) { return store.name == name; };
  return static_cast<std::size_t>(std::find_if(stores_.begin(), stores_.end(), isIt) -
                                  stores_.begin());
}

Store &Runner::named(const std::string &name) {
  const std::size_t index = indexOf(name);
  if (index < stores_.size()) return stores_[index];
  throw ScriptError(fmt::format("no heap or pool {} is open", shown(name)));
}

void Runner::expectNewLabel(const Store &store, const std::string &label) {
  for (const StoreArea &area : store.areas) {
    for (const StoreEntry &entry : area.entries) {
      if (entry.label == label && !entry.isFreed) {
        throw ScriptError(
            fmt::format("{} already has an entry {}", shown(store.name), shown(label)));
      }
    }
  }
}

void Runner::runLine(std::size_t line, const Words &words) {
  line_ = line;
  struct Verb {
    const char *name;
    void (Runner::*run)(const Words &words);
  };
  constexpr Verb kVerbs[] = {{"open", &Runner::open},   {"entry", &Runner::entry},
                             {"chain", &Runner::chain}, {"cell", &Runner::cell},
                             {"free", &Runner::free},   {"clear", &Runner::clear},
                             {"show", &Runner::show},   {"close", &Runner::close}};
  const auto isIt = [&](const Verb &verb) { return words[0] == verb.name; };
  const auto *const verb = std::find_if(std::begin(kVerbs), std::end(kVerbs), isIt);
  if (verb == std::end(kVerbs)) {
    throw ScriptError(fmt::format(
        "unknown call {}; a line begins with open, entry, chain, cell, free, clear, show or close",
        shown(words[0])));
  }
  (this->*verb->run)(words);
  watch_.assign(nullptr);
}

void Runner::open(const Words &words) {
  constexpr const char *kForm =
      "open NAME heap|eheap AREA_KB [SUBPOOL]   or   open NAME pool AREA_BYTES CELL_BYTES "
      "[SUBPOOL]";
  expectWords(words, 4, 6, kForm);
  if (indexOf(words[1]) < stores_.size()) {
    throw ScriptError(fmt::format("{} is already open", shown(words[1])));
  }
  Store store;
  store.name = validUtf8(words[1]);
  std::size_t used = 4;
  if (words[2] == "heap" || words[2] == "eheap") {
    store.type = words[2] == "heap" ? StoreType::Heap : StoreType::EnhancedHeap;
    store.areaLen = static_cast<std::uint32_t>(number(words[3], kHeapAreaKb)) * 1024;
  } else if (words[2] == "pool" && words.size() > 4) {
    store.type = StoreType::Pool;
    store.areaLen = static_cast<std::uint32_t>(number(words[3], kPoolArea));
    store.cellLen = static_cast<std::uint32_t>(number(words[4], kCellLength));
    used = 5;
  } else {
    throw ScriptError(fmt::format("expected: {}", kForm));
  }
  expectWords(words, used, used + 1, kForm);
  if (words.size() > used) {
    const bool isPool = store.type == StoreType::Pool;
    store.subPool = number(words[used], isPool ? kPoolSubPool : kHeapSubPool);
  }
  stores_.push_back(std::move(store));
  watch_.assign(&stores_.back());
  try {
    openStore(stores_.back());
  } catch (...) {
    watch_.assign(nullptr);
    stores_.pop_back();
    throw;
  }
  isShown_ = false;
}

void Runner::openStore(Store &store) {
  MEMFunctionVector &mem = library_.vector();
  const auto areaKb = static_cast<std::int16_t>(static_cast<std::int32_t>(store.areaLen) / 1024);
  const auto subPool = static_cast<std::uint16_t>(store.subPool);
  HMEMHEAP heap = nullptr;
  HMEMCELL pool = nullptr;
  switch (store.type) {
    case StoreType::Heap:
      library_.check("MEM_HeapOpen", mem.MEM_HeapOpen(&heap, areaKb, subPool));
      store.handle = heap;
      store.areas.front().headLen = kHeapHead;
      break;
    case StoreType::EnhancedHeap:
      library_.check("MEM_EHeapOpen", mem.MEM_EHeapOpen(&heap, areaKb, subPool));
      store.handle = heap;
      store.areas.front().headLen = kEnhancedHeapHead;
      break;
    case StoreType::Pool:
      library_.check("MEM_CellOpen",
                     mem.MEM_CellOpen(&pool, static_cast<std::int32_t>(store.areaLen),
                                      static_cast<std::int32_t>(store.cellLen),
                                      static_cast<std::int16_t>(store.subPool)));
      store.handle = pool;
      findFirstCell(store);
      break;
  }
}

// Allocating and freeing a cell leaves the pool unchanged and shows where its cells begin.
void Runner::findFirstCell(Store &store) {
  void *cell = nullptr;
  const auto pool = static_cast<HMEMCELL>(store.handle);
  library_.check("MEM_CellAllocEntry", library_.vector().MEM_CellAllocEntry(pool, &cell));
  StoreArea &first = store.areas.front();
  first.headLen = static_cast<std::uint32_t>(static_cast<const char *>(cell) - first.address);
  library_.check("MEM_CellFreeEntry", library_.vector().MEM_CellFreeEntry(pool, cell));
}

void *Runner::allocateEntry(Store &store, std::int32_t length) {
  void *entry = nullptr;
  library_.check("MEM_HeapAllocEntryLong",
                 library_.vector().MEM_HeapAllocEntryLong(static_cast<HMEMHEAP>(store.handle),
                                                          length, &entry));
  return entry;
}

// Entries of a chain and cells of one line belong to the label of that line.
std::string ownerOf(const std::string &label) {
  const std::size_t point = label.rfind('.');
  return point == std::string::npos ? label : label.substr(0, point);
}

// Records an entry in its area. The first entry of an area shows how long the area's head is.
void Runner::addEntry(Store &store, const std::string &label, const void *address,
                      std::uint32_t asked) {
  const auto *const start = static_cast<const char *>(address);
  for (StoreArea &area : store.areas) {
    const auto at = reinterpret_cast<std::uintptr_t>(start);
    const auto from = reinterpret_cast<std::uintptr_t>(area.address);
    if (at < from || at - from >= area.length) continue;
    StoreEntry entry;
    entry.label = label;
    entry.made = line_;
    entry.owner = ownerOf(label);
    entry.offset = static_cast<std::uint32_t>(at - from);
    entry.asked = asked;
    const std::uint32_t least = store.type == StoreType::EnhancedHeap ? kLeastEnhancedEntry : 1;
    const std::uint32_t length = std::max(asked, least);
    entry.taken = store.type == StoreType::Pool
                      ? store.cellLen
                      : (length + kEntryAlignment - 1) / kEntryAlignment * kEntryAlignment;
    if (area.entries.empty() || entry.offset < area.headLen) area.headLen = entry.offset;
    area.isLarge = std::memcmp(area.address, kLargeBlockMark, 8) == 0;
    std::erase_if(area.entries, [&](const StoreEntry &old) { return old.offset == entry.offset; });
    area.entries.push_back(std::move(entry));
    return;
  }
  throw ScriptError(fmt::format("{} is not in any area of {}", shown(label), shown(store.name)));
}

void Runner::entry(const Words &words) {
  expectWords(words, 4, 4, "entry HEAP LABEL LENGTH");
  Store &store = named(words[1]);
  if (store.type == StoreType::Pool)
    throw ScriptError("a pool has cells; expected: cell POOL LABEL [COUNT]");
  const std::string label = validUtf8(words[2]);
  expectNewLabel(store, label);
  const bool isEnhanced = store.type == StoreType::EnhancedHeap;
  const std::int32_t length = number(words[3], isEnhanced ? kEnhancedEntryLength : kEntryLength);
  watch_.assign(&store);
  addEntry(store, label, allocateEntry(store, length), static_cast<std::uint32_t>(length));
  isShown_ = false;
}

void Runner::chain(const Words &words) {
  expectWords(words, 5, 5, "chain HEAP LABEL LENGTH COUNT");
  Store &store = named(words[1]);
  if (store.type == StoreType::Pool)
    throw ScriptError("a pool has cells; expected: cell POOL LABEL [COUNT]");
  const std::int32_t length = number(words[3], kEntryLength);
  const std::int32_t count = number(words[4], kCount);
  const std::string label = validUtf8(words[2]);
  if (length < static_cast<std::int32_t>(sizeof(void *))) {
    throw ScriptError("the entries of a chain contain a pointer, so they need at least 8 bytes");
  }
  for (std::int32_t i = 1; i <= count; ++i) expectNewLabel(store, fmt::format("{}.{}", label, i));
  watch_.assign(&store);
  void *entry = nullptr;
  library_.check("MEM_HeapAllocLongMultEntries",
                 library_.vector().MEM_HeapAllocLongMultEntries(static_cast<HMEMHEAP>(store.handle),
                                                                length, count, 0, &entry));
  for (std::int32_t i = 1; entry != nullptr; ++i) {
    addEntry(store, fmt::format("{}.{}", label, i), entry, static_cast<std::uint32_t>(length));
    std::memcpy(&entry, entry, sizeof entry);
  }
  isShown_ = false;
}

void Runner::cell(const Words &words) {
  expectWords(words, 3, 4, "cell POOL LABEL [COUNT]");
  Store &store = named(words[1]);
  if (store.type != StoreType::Pool)
    throw ScriptError("a heap has entries; expected: entry HEAP LABEL LENGTH");
  const std::string label = validUtf8(words[2]);
  const std::int32_t count = words.size() > 3 ? number(words[3], kCount) : 1;
  watch_.assign(&store);
  for (std::int32_t i = 1; i <= count; ++i) {
    const std::string full = words.size() > 3 ? fmt::format("{}.{}", label, i) : label;
    expectNewLabel(store, full);
    void *cell = nullptr;
    library_.check("MEM_CellAllocEntry", library_.vector().MEM_CellAllocEntry(
                                             static_cast<HMEMCELL>(store.handle), &cell));
    addEntry(store, full, cell, store.cellLen);
  }
  isShown_ = false;
}

void Runner::free(const Words &words) {
  expectWords(words, 3, 3, "free NAME LABEL");
  Store &store = named(words[1]);
  if (store.type == StoreType::Heap) {
    throw ScriptError("entries of a standard heap cannot be freed; close the heap");
  }
  const std::string label = validUtf8(words[2]);
  for (StoreArea &area : store.areas) {
    for (StoreEntry &entry : area.entries) {
      if (entry.label != label || entry.isFreed) continue;
      void *const address = const_cast<char *>(area.address) + entry.offset;
      if (store.type == StoreType::Pool) {
        library_.check("MEM_CellFreeEntry", library_.vector().MEM_CellFreeEntry(
                                                static_cast<HMEMCELL>(store.handle), address));
      } else {
        library_.check("MEM_EHeapFreeEntry", library_.vector().MEM_EHeapFreeEntry(
                                                 static_cast<HMEMHEAP>(store.handle),
                                                 static_cast<std::int32_t>(entry.asked), address));
      }
      entry.isFreed = true;
      isShown_ = false;
      return;
    }
  }
  throw ScriptError(fmt::format("{} has no entry {}", shown(store.name), shown(label)));
}

void Runner::clear(const Words &words) {
  expectWords(words, 2, 2, "clear POOL");
  Store &store = named(words[1]);
  if (store.type != StoreType::Pool) throw ScriptError("only a pool can be cleared");
  watch_.assign(&store);
  library_.check("MEM_CellClear",
                 library_.vector().MEM_CellClear(static_cast<HMEMCELL>(store.handle)));
  for (StoreArea &area : store.areas) area.entries.clear();
  isShown_ = false;
}

void Runner::show(const Words &words) {
  std::string caption;
  for (std::size_t i = 1; i < words.size(); ++i) caption += (i > 1 ? " " : "") + words[i];
  if (stores_.empty()) throw ScriptError("no heap or pool is open to show");
  snapshots_.push_back({validUtf8(caption), stores_});
  isShown_ = true;
}

std::int16_t Runner::closeStore(std::size_t index) {
  MEMFunctionVector &mem = library_.vector();
  const Store store = std::move(stores_[index]);
  stores_.erase(stores_.begin() + static_cast<std::ptrdiff_t>(index));
  watch_.assign(nullptr);
  switch (store.type) {
    case StoreType::Heap:
      return mem.MEM_HeapClose(static_cast<HMEMHEAP>(store.handle));
    case StoreType::EnhancedHeap:
      return mem.MEM_EHeapClose(static_cast<HMEMHEAP>(store.handle));
    case StoreType::Pool:
      break;
  }
  return mem.MEM_CellClose(static_cast<HMEMCELL>(store.handle));
}

void Runner::close(const Words &words) {
  expectWords(words, 2, 2, "close NAME");
  named(words[1]);
  library_.check("the close", closeStore(indexOf(words[1])));
  isShown_ = stores_.empty() || isShown_;
}

std::vector<Snapshot> Runner::finish() {
  if (!isShown_ && !stores_.empty()) snapshots_.push_back({"at the end", stores_});
  return std::move(snapshots_);
}

}  // namespace

bool hasCommands(std::string_view script) {
  script = withoutByteOrderMark(script);
  while (!script.empty()) {
    const std::size_t end = std::min(script.find('\n'), script.size());
    if (!wordsOf(script.substr(0, end)).empty()) return true;
    script.remove_prefix(std::min(end + 1, script.size()));
  }
  return false;
}

std::vector<Snapshot> runHeapScript(RunningLibrary &library, const std::string &name,
                                    std::string_view script) {
  Runner runner(library);
  script = withoutByteOrderMark(script);
  for (std::size_t line = 1; !script.empty(); ++line) {
    const std::size_t end = std::min(script.find('\n'), script.size());
    const std::vector<std::string> words = wordsOf(script.substr(0, end));
    script.remove_prefix(std::min(end + 1, script.size()));
    if (words.empty()) continue;
    try {
      runner.runLine(line, words);
    } catch (const ToolError &error) {
      throw ToolError(fmt::format("{}, line {}: {}", name, line, error.what()));
    }
  }
  return runner.finish();
}

}  // namespace memtool
