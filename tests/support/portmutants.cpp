#include "portmutants.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "portmodel.hpp"

namespace memtest {

namespace {

constexpr char kBinDefault[] = "0123456789ABCDEF";

Defs makeRichDefs() {
  Defs defs;
  defs.add(1, 140,
           {Field(1, MEM_PORT_CHAR, 9, 0),
            Field(2, MEM_PORT_CHARSZ, 8, 9).byDefault("by default"),
            Field(3, MEM_PORT_PSTR, 8, 17).byDefault("shared"),
            Field(4, MEM_PORT_BIN, 6, 25).byDefault(static_cast<const void *>(kBinDefault)),
            Field(5, MEM_PORT_SHORT, 2, 31).byDefaultNumber(5),
            Field(6, MEM_PORT_USHORT, 2, 33),
            Field(7, MEM_PORT_LONG, 4, 35).required(),
            Field(8, MEM_PORT_ULONG, 4, 39),
            Field(9, MEM_PORT_PNT, 8, 43).of(1),
            Field(10, MEM_PORT_SUBSTRUCTURE, 12, 51).of(30),
            Field(11, MEM_PORT_BIT, 1, 63),
            Field(12, MEM_PORT_UBIGINT, 8, 64),
            Field(13, MEM_PORT_BIGINT, 8, 72),
            Field(14, MEM_PORT_WCHAR, 7, 80),
            Field(15, MEM_PORT_WCHARSZ, 10, 87).byDefault(u"by default"),
            Field(16, MEM_PORT_WPSTR, 8, 97),
            Field(17, MEM_PORT_PNT, 8, 105).of(2),
            Field(18, MEM_PORT_BIN, 4, 113).noTruncate(),
            Field(20, MEM_PORT_CHARSZ, 5, 117).noTruncate(),
            Field(21, MEM_PORT_WCHARSZ, 8, 122).noTruncate(),
            Field(22, MEM_PORT_LONG, 4, 130).notPorted().byDefaultNumber(7),
            Field(30, MEM_PORT_CHAR, 3, 137).noTruncate()});
  defs.add(
      2, 20,
      {Field(1, MEM_PORT_SHORT, 2, 0), Field(2, MEM_PORT_LONG, 4, 2).required(),
       Field(3, MEM_PORT_BIN, 4, 2).required().notPorted(), Field(4, MEM_PORT_PNT, 8, 12).of(1)},
      0);
  defs.add(30, 12, {Field(1, MEM_PORT_LONG, 4, 0), Field(2, MEM_PORT_SUBSTRUCTURE, 6, 6).of(31)}, 0,
           true);
  defs.add(31, 6, {Field(1, MEM_PORT_BIT, 1, 0), Field(2, MEM_PORT_SHORT, 2, 2)});
  return defs;
}

template <class T>
void fillRandom(Record &record, std::size_t offset, Random &random) {
  record.set(offset, static_cast<T>(random.bits()));
}

const char *anyText(Random &random) {
  constexpr const char *kTexts[] = {nullptr, "", "a", "with \"quotes\" and / slashes",
                                    "a longer text that goes on and on, <in>(brackets)/"};
  return kTexts[random.below(std::size(kTexts))];
}

const char16_t *anyWideText(Random &random) {
  constexpr const char16_t *kTexts[] = {nullptr, u"", u"a'/", u"\xE9\xFFFF\xD83D\xDE00", u"\x80"};
  return kTexts[random.below(std::size(kTexts))];
}

struct Graph {
  std::vector<Record> ones;
  std::vector<Record> twos;
};

const void *pick(const std::vector<Record> &records, Random &random) {
  return random.oneIn(4) ? nullptr : records[random.below(records.size())].data();
}

void fillOne(Record &record, const Graph &graph, Random &random) {
  for (std::size_t i = 0; i < record.size(); ++i) {
    record.set(i, static_cast<std::uint8_t>(random.oneIn(2) ? random.below(256)
                                                            : random.between(' ', 'z')));
  }
  for (const std::size_t end : {16U, 121U}) record.set(end, std::uint8_t{0});
  for (const std::size_t end : {95U, 128U}) record.set(end, std::uint16_t{0});
  record.set(17, anyText(random)).set(97, anyWideText(random));
  record.set(43, pick(graph.ones, random)).set(105, pick(graph.twos, random));
  record.set(51, std::int32_t{12});  // the embedded structure has one element
}

void fillTwo(Record &record, std::int16_t count, const Graph &graph, Random &random) {
  record.set(0, count);
  fillRandom<std::int32_t>(record, 2, random);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    record.set(12 + 8 * i, pick(graph.ones, random));
  }
}

std::string soundText(Random &random) {
  Graph graph;
  for (std::size_t i = random.between(1, 4); i > 0; --i) graph.ones.emplace_back(140U);
  std::vector<std::int16_t> counts;
  for (std::size_t i = random.between(1, 3); i > 0; --i) {
    counts.push_back(static_cast<std::int16_t>(random.below(4)));
    graph.twos.emplace_back(12U + 8U * static_cast<std::size_t>(counts.back()));
  }
  for (Record &record : graph.ones) fillOne(record, graph, random);
  for (std::size_t i = 0; i < counts.size(); ++i) fillTwo(graph.twos[i], counts[i], graph, random);
  return portmodel::write(richDefs().table(), kRichID, graph.ones[0].data());
}

// Characters that mean something in a port string.
char telling(Random &random) {
  constexpr std::string_view kTelling = "0123456789()<>/,;\"'XxHNSEBA-~\x80\xFF";
  return random.oneIn(8) ? static_cast<char>(random.below(256))
                         : kTelling[random.below(kTelling.size())];
}

}  // namespace

const Defs &richDefs() {
  static const Defs defs = makeRichDefs();
  return defs;
}

std::vector<std::string> soundTexts(std::uint64_t seed, std::size_t count) {
  Random random(seed);
  std::vector<std::string> texts;
  while (texts.size() < count) texts.push_back(soundText(random));
  return texts;
}

std::string mutant(const std::string &text, const std::string &other, Random &random) {
  std::string made = text;
  for (std::size_t changes = random.between(1, 4); changes > 0 && !made.empty(); --changes) {
    const std::size_t at = random.below(made.size());
    const std::size_t length = random.between(1, random.oneIn(4) ? 60 : 6);
    switch (random.below(7)) {
      case 0:
      case 1:
        made[at] = telling(random);
        break;
      case 2:
        made.insert(at, 1, telling(random));
        break;
      case 3:
        made.erase(at, length);
        break;
      case 4:
        made.insert(at, made.substr(random.below(made.size()), length));
        break;
      case 5:
        made.insert(at, other.substr(random.below(other.size()), length));
        break;
      default:
        made.insert(at, length, static_cast<char>(random.between('0', '9')));
    }
  }
  return made;
}

ExactHeap::ExactHeap(MEMFunctionVector &mem) {
  exact_ = this;
  mem.MEM_HeapAllocEntryLong = allocate;
}

void ExactHeap::release() {
  entries_.clear();
  taken_ = 0;
}

std::int16_t ExactHeap::allocate(HMEMHEAP, std::int32_t length, void **entry) {
  if (length < 1 || length > kLimit - exact_->taken_) return -1;
  std::uint8_t *piece = exact_->entries_.take(static_cast<std::size_t>(length));
  if (piece == nullptr) return -1;
  exact_->taken_ += length;
  *entry = piece;
  return 0;
}

namespace {

constexpr std::string_view kNext = "\nNext:";

// A record of a reader's error, taken apart. Where the text that was read holds kNext, `read` and
// `next` are not to be used.
struct RecordParts {
  explicit RecordParts(const std::string &text) {
    constexpr std::string_view kPosition = "\nPosition: ";
    constexpr std::string_view kRead = "\nRead:";
    const std::size_t positionAt = text.find(kPosition);
    const std::size_t readAt = text.find(kRead, positionAt);
    const std::size_t nextAt = text.find(kNext, readAt);
    head = text.substr(0, positionAt);
    if (nextAt == std::string::npos) return;
    position = std::strtoull(text.c_str() + positionAt + kPosition.size(), nullptr, 10);
    read = text.substr(readAt + kRead.size(), nextAt - readAt - kRead.size());
    next = text.substr(nextAt + kNext.size());
  }
  std::string head;
  std::uint64_t position = 0;
  std::string read;
  std::string next;
};

std::string recordDifference(const refhost::TraceRecord &block, const refhost::TraceRecord &chunk,
                             std::string_view text, std::size_t chunkLen) {
  if (block.type != chunk.type || block.function != chunk.function ||
      block.source != chunk.source || block.line != chunk.line) {
    return "another place reports";
  }
  const RecordParts all(block.text);
  const RecordParts part(chunk.text);
  if (all.head != part.head) return "another message";
  if (part.position > chunkLen || part.position > all.position ||
      (all.position - part.position) % chunkLen != 0) {
    return "another position";
  }
  if (text.find(kNext) != std::string_view::npos) return "";
  // A zero ends what is shown, so that of two excerpts up to one place the longer may show less.
  const bool hasZeros = text.find('\0') != std::string_view::npos;
  if (!hasZeros && !all.read.ends_with(part.read)) return "another text was read";
  return all.next.starts_with(part.next) ? "" : "another text comes next";
}

}  // namespace

HostileReader::HostileReader(refhost::Host &host, const Defs &defs)
    : host_(host), mem_(host.vector()), defs_(defs), exact_(host.vector()) {}

ReadOutcome HostileReader::readBlock(std::string_view text) {
  Record exact(text.size());
  exact.setBytes(0, text.data(), text.size());
  void *root = nullptr;
  return finish(mem_.MEM_Port1StrToStruct(defs_.table(),
                                          reinterpret_cast<const char *>(exact.data()),
                                          static_cast<std::uint32_t>(text.size()), heap_, &root));
}

ReadOutcome HostileReader::readChain(std::string_view text, std::size_t chunkLen) {
  constexpr std::size_t kTextOff = 12;
  constexpr std::size_t kMostAround = 64;  // of fences and head, a chunk
  if (!texts_ || text.size() > textsFor_) {
    textsFor_ = std::max<std::size_t>(text.size(), 1024);
    texts_ = std::make_unique<FencedStorage>((textsFor_ + 1) * (kMostAround + 1));
  }
  texts_->clear();
  std::uint8_t *first = nullptr;
  std::uint8_t *last = nullptr;
  for (std::size_t at = 0; at == 0 || at < text.size(); at += chunkLen) {
    const std::string_view piece = text.substr(at, chunkLen);
    const auto used = static_cast<std::int32_t>(piece.size());
    std::uint8_t *chunk = texts_->take(kTextOff + std::max<std::size_t>(piece.size(), 1));
    std::memset(chunk, 0, sizeof(void *));
    std::memcpy(chunk + 8, &used, sizeof used);
    if (!piece.empty()) std::memcpy(chunk + kTextOff, piece.data(), piece.size());
    if (last != nullptr) std::memcpy(last, &chunk, sizeof chunk);
    if (first == nullptr) first = chunk;
    last = chunk;
  }
  void *root = nullptr;
  return finish(mem_.MEM_PortStrToStruct(
      defs_.table(), reinterpret_cast<const MEMPortChunk *>(first), heap_, &root));
}

ReadOutcome HostileReader::finish(std::int16_t status) {
  ReadOutcome outcome;
  outcome.status = status;
  outcome.isWhole = exact_.entries().isWhole();
  for (std::size_t i = 0; i < exact_.entries().size(); ++i) {
    outcome.entries.push_back(exact_.entries().piece(i));
  }
  exact_.release();
  outcome.records = host_.takeRecords();
  if (!outcome.records.empty()) {
    const std::string &text = outcome.records.front().text;
    const std::size_t begin = std::min(text.find("ERROR:"), text.size() - 6) + 6;
    outcome.message = text.substr(begin, text.find('\n') - begin);
  }
  return outcome;
}

std::string HostileReader::difference(const ReadOutcome &block, const ReadOutcome &chain,
                                      std::string_view text, std::size_t chunkLen) {
  if (block.status != chain.status) return "another status";
  if (block.entries != chain.entries) return "other bytes are stored";
  if (block.records.size() != chain.records.size()) return "another number of records";
  for (std::size_t i = 0; i < block.records.size(); ++i) {
    const std::string found = recordDifference(block.records[i], chain.records[i], text, chunkLen);
    if (!found.empty()) return found;
  }
  return "";
}

std::string HostileReader::fault(const ReadOutcome &outcome) {
  constexpr std::array<std::string_view, 26> kKnown = {
      "Cannot find ( beginning a structure!",
      "Unknown StructID: ",
      "StructureID ",
      "Cannot find < at the beginning of StructID ",
      "Allocation Failure!",
      "Size mismatch between field length (",
      "Maximum no. of fields exceeded!",
      "FieldID ",
      "Unsupported field type!",
      "Substructure expected!",
      "Field conversion failed!",
      "Closing ) expected at the end of a structure!",
      "End of port string reached!",
      "Missing  at the start of a string field",
      "String too large for this field marked as NoTruncate",
      "Missing quote at the start of a string field!",
      "Not a pointer to string field!",
      "Pointer to string field allocation failed!",
      "Inconsistent pointer to string data!",
      "Not a hex field!",
      "Hex string too large for this field marked as NoTruncate",
      "Not a numeric field!",
      "Not a pointer field!",
      "Not a bit field!",
      "Missing  at the start of a string field!",
      "Missing code point count at the start of a string field!"};
  if (!outcome.isWhole) return "writes beyond an entry";
  if (outcome.status != 0 && outcome.status != -1) {
    return "status " + std::to_string(outcome.status);
  }
  if (outcome.status == 0) {
    // Under TraceSkipped there is a record of each structure that is newer than its definition.
    const bool isSkipped = outcome.message.compare(0, 8, "FieldID ") == 0 &&
                           outcome.message.find(" cannot be found in ") != std::string::npos;
    return outcome.message.empty() || isSkipped ? "" : "succeeds with \"" + outcome.message + '"';
  }
  const bool isKnown = outcome.message.empty() ||
                       std::any_of(kKnown.begin(), kKnown.end(), [&](std::string_view known) {
                         return outcome.message.compare(0, known.size(), known) == 0;
                       });
  return isKnown ? "" : "fails with \"" + outcome.message + '"';
}

}  // namespace memtest
