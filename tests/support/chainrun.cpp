#include "chainrun.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <set>

#if defined(__SANITIZE_ADDRESS__)
#define CHAINRUN_HAS_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CHAINRUN_HAS_ASAN 1
#endif
#endif

namespace chainrun {
namespace {

#ifdef CHAINRUN_HAS_ASAN
constexpr std::size_t kGuardLen = 0;
#else
constexpr std::size_t kGuardLen = 64;
#endif
constexpr std::uint8_t kGuard = 0xD7;

constexpr std::size_t kLinkLen = 8;
constexpr std::size_t kHeadLen = 10;       // link and used length
constexpr std::size_t kFirstHeadLen = 14;  // and the version
constexpr std::size_t kVersionOff = 2;     // content offsets in block 0
constexpr std::size_t kControlBlockOff = 6;
constexpr std::size_t kMaxBlocks = 32767;

std::uint16_t numberAt(const std::uint8_t *from, bool isSwapped) {
  std::uint8_t bytes[2] = {from[0], from[1]};
  if (isSwapped) std::swap(bytes[0], bytes[1]);
  std::uint16_t number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

const std::uint8_t *pointerAt(const std::uint8_t *from) {
  const std::uint8_t *pointer;
  std::memcpy(&pointer, from, sizeof pointer);
  return pointer;
}

std::size_t usedLenOf(const Bytes &block, bool isSwapped) {
  return block.size() < 2 ? 0 : numberAt(block.data(), isSwapped);
}

bool isBigEndian(const std::uint8_t *version) {
  const bool isEbcdic = version[0] >= 0xF0;
  return isEbcdic || version[3] == '1';
}

// A kind of segment, decoded here a second time.
struct Kind {
  std::uint16_t type = 0;
  std::uint16_t fixedLen = 0;
  bool hasForeignLength = false;       // held in fields of its owner
  std::vector<std::int16_t> segments;  // offsets of sibling and child pointers, and their kinds
  std::vector<std::uint16_t> kinds;
  std::vector<std::int16_t> references;
};

std::uint16_t asciiLetter(std::uint16_t type) {
  switch (type) {
    case 0xC3:
      return 'C';
    case 0xC6:
      return 'F';
    case 0xE2:
      return 'S';
    case 0xE6:
      return 'W';
    default:
      return type;
  }
}

// How a control block is stored.
struct Style {
  bool isOldLayout;
  bool isSwapped;
  bool hasEbcdicLetters;  // big-endian writers may use them
};

Kind decodeKind(const std::uint8_t *from, std::uint16_t index, const Style &style) {
  const bool isOldLayout = style.isOldLayout;
  const auto number = [&](std::size_t offset) { return numberAt(from + offset, style.isSwapped); };
  const auto offset = [&](std::size_t at) { return static_cast<std::int16_t>(number(at)); };
  Kind kind;
  kind.type = style.hasEbcdicLetters ? asciiLetter(number(0)) : number(0);
  kind.hasForeignLength = style.hasEbcdicLetters && (kind.type == 0xE5 || kind.type == 0xE7);
  kind.fixedLen = number(2);
  if (kind.type == 'S' || kind.type == 'W') return kind;
  if (offset(4) != -1) {
    kind.segments.push_back(offset(4));
    kind.kinds.push_back(index);
  }
  // More children than there is room for: the kind cannot be used, and the call must say so.
  const std::uint16_t children = std::min<std::uint16_t>(number(6), isOldLayout ? 8 : 24);
  for (std::size_t i = 0; i < children; ++i) {
    kind.kinds.push_back(number(10 + 4 * i));
    kind.segments.push_back(offset(12 + 4 * i));
  }
  const std::uint16_t references = std::min<std::uint16_t>(number(8), 8);
  for (std::size_t i = 0; i < references; ++i) {
    kind.references.push_back(offset((isOldLayout ? 42 : 106) + 2 * i));
  }
  return kind;
}

// REQUIRES: the whole control block is there.
std::vector<Kind> decodeKinds(const std::uint8_t *from, const Style &style) {
  const std::size_t count = numberAt(from, style.isSwapped);
  std::vector<Kind> kinds;
  for (std::size_t i = 0; i < std::max<std::size_t>(count, 8); ++i) {
    kinds.push_back(decodeKind(from + 2 + i * (style.isOldLayout ? 58 : 122),
                               static_cast<std::uint16_t>(i), style));
  }
  return kinds;
}

// Follows every pointer of a structure as its control block describes them.
class StructureCheck {
 public:
  StructureCheck(const std::vector<Kind> &kinds, const Ranges &ranges, bool hasSwappedLengths)
      : kinds_(kinds), ranges_(ranges), hasSwappedLengths_(hasSwappedLengths) {}

  std::string run(const void *root) {
    take(static_cast<const std::uint8_t *>(root), 0);
    while (!waiting_.empty() && fault_.empty()) {
      const Item item = waiting_.front();
      waiting_.pop_front();
      follow(item);
    }
    return fault_;
  }

 private:
  struct Item {
    const std::uint8_t *at;
    std::uint16_t kind;
  };

  void fail(const char *what) {
    if (fault_.empty()) fault_ = what;
  }

  void take(const std::uint8_t *at, std::uint16_t kindIndex) {
    if (kindIndex >= kinds_.size()) return fail("a pointer of a kind that does not exist");
    const Kind &kind = kinds_[kindIndex];
    const std::size_t rest = ranges_.rest(at);
    if (kind.type == 'F' && kind.fixedLen == 0) {  // nothing of it can be anywhere
      if (rest == 0 && ranges_.rest(at - 1) == 0) fail("an empty segment outside of the blocks");
      return;
    }
    if (rest == 0) return fail("a pointer leads out of the blocks");
    if (kind.type == 'S') {
      if (std::memchr(at, 0, rest) == nullptr) fail("narrow text without end");
    } else if (kind.type == 'W') {
      checkWide(at, rest);
    } else if (lengthOf(kind, at, rest) > rest) {
      fail("a segment passes the end of its block");
    } else if (!seen_.insert({at, kindIndex}).second) {
      fail("a segment is reached twice");
    } else {
      waiting_.push_back({at, kindIndex});
    }
  }

  void checkWide(const std::uint8_t *at, std::size_t rest) {
    if (!wide_.insert(at).second) fail("wide text is reached twice");
    for (std::size_t end = 2; end <= rest; end += 2) {
      if (at[end - 2] == 0 && at[end - 1] == 0) return;
    }
    fail("wide text without end");
  }

  std::size_t lengthOf(const Kind &kind, const std::uint8_t *at, std::size_t rest) const {
    if (kind.type == 'F') return kind.fixedLen;
    if (kind.hasForeignLength) return 0;
    if (rest < 2) return 2;
    const std::uint16_t told = numberAt(at, hasSwappedLengths_);
    return kind.type == 'C' ? std::size_t{told} + 2 : told;
  }

  const std::uint8_t *field(const Item &item, std::int16_t offset) {
    const std::uint8_t *const at = item.at + offset;
    if (ranges_.rest(at) >= 8) return pointerAt(at);
    fail("a pointer field leaves its block");
    return nullptr;
  }

  void follow(const Item &item) {
    const Kind &kind = kinds_[item.kind];
    for (std::size_t i = 0; i < kind.segments.size(); ++i) {
      const std::uint8_t *const target = field(item, kind.segments[i]);
      if (target != nullptr) take(target, kind.kinds[i]);
    }
    for (const std::int16_t offset : kind.references) {
      const std::uint8_t *const target = field(item, offset);
      if (target != nullptr && ranges_.rest(target) == 0)
        fail("a reference leads out of the blocks");
    }
  }

  const std::vector<Kind> &kinds_;
  const Ranges &ranges_;
  const bool hasSwappedLengths_;
  std::set<std::pair<const std::uint8_t *, std::uint16_t>> seen_;
  std::set<const std::uint8_t *> wide_;
  std::deque<Item> waiting_;
  std::string fault_;
};

// How a text of the contract continues after its fixed part.
enum class Tail { None, Number, Address };

struct Row {
  std::int16_t code;
  const char *text;
  Tail tail;
};

constexpr Row kFailures[] = {
    {MEMERR_PACKAMEM, "BlockPtrTblCallocFail", Tail::None},
    {MEMERR_PACKAMEM, "NewPackCBInvalid", Tail::None},
    {MEMERR_PACKAMEM, "PrevBlkOffsetTblCallocFail", Tail::None},
    {MEMERR_PACKAMEM, "NewBlockTblCallocFail", Tail::None},
    {MEMERR_PACKAMEM, "UnpackBlkMemAllocFail", Tail::None},
    {MEMERR_PACKAMEM, "NthBlkMemAllocFail", Tail::None},
    {MEMERR_PACKBMIN, "BlockTooSmallforMemPackCBinUnpack=", Tail::Number},
    {MEMERR_PACKBMIN, "SegmentLengthTooLargeinUnpack=", Tail::Number},
    {MEMERR_PACKBMIN, "StrBufLengthTooLargeinUnpack=", Tail::Number},
    {MEMERR_PACKBMIN, "StrBufLengthTooLargeinRepack=", Tail::Number},
    {MEMERR_PACKBMAX, "MaxBlocksValueBad=", Tail::Number},
    {MEMERR_PACKRBLK, "Invalid Relative Blk=", Tail::Number},
    {MEMERR_PACKRBLK, "NewBlockTblBlkNumErr", Tail::None},
    {MEMERR_PACKRBLK, "RepackNewBlockTblBlkErr", Tail::None},
    {MEMERR_PACKRBLK, "UnpackNewBlockTblBlkErr", Tail::None},
    {MEMERR_PACKRBLK, "UnpackSibNewBlockTblBlkErr", Tail::None},
    {MEMERR_PACKROFF, "Invalid Relative Offset=", Tail::Number},
    {MEMERR_PACKROFF, "NewBlockTblOffsetErr", Tail::None},
    {MEMERR_PACKROFF, "RepackNewBlockTblOffsetErr", Tail::None},
    {MEMERR_PACKROFF, "UnpackNewBlockTblOffsetErr", Tail::None},
    {MEMERR_PACKROFF, "UnpackSibNewBlockTblOffsetErr", Tail::None},
    {MEMERR_PACKCYCL, "RecursiveStructure", Tail::None},
    {MEMERR_PACKSTAK, "TraversalStackOverflow", Tail::None},
    {MEMERR_PACKSTAK, "UnpackStackOverflow", Tail::None},
    {MEMERR_PACKCBID, "MemPackCBstructIDInvalid=", Tail::Address},
    {MEMERR_PACKCBVR, "MemPackCBstructIDVersion=", Tail::Address},
    {MEMERR_PACKUTF, "UTF16 to UTF32 Conversion err=", Tail::Number},
    {MEMERR_PACKUTF, "UTF32 to UTF16 Conversion err=", Tail::Number},
};

bool isNumber(const std::string &text) {
  const std::size_t sign = !text.empty() && text[0] == '-' ? 1 : 0;
  return text.size() > sign && text.size() <= sign + 5 &&
         std::all_of(text.begin() + static_cast<std::ptrdiff_t>(sign), text.end(),
                     [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool isAddress(const std::string &text) {
  return text.size() == 16 && text.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

bool isOfContract(std::int16_t code, const std::string &text) {
  return std::any_of(std::begin(kFailures), std::end(kFailures), [&](const Row &row) {
    if (row.code != code || text.rfind(row.text, 0) != 0) return false;
    const std::string tail = text.substr(std::strlen(row.text));
    return row.tail == Tail::None ? tail.empty()
                                  : (row.tail == Tail::Number ? isNumber(tail) : isAddress(tail));
  });
}

Ranges rangesOf(const MemPackBlock *first) {
  Ranges ranges;
  for (const MemPackBlock *block = first; block != nullptr; block = block->pNext) {
    ranges.add(&block->UsedLen, block->UsedLen);
  }
  return ranges;
}

bool isAllZero(const void *from, std::size_t length) {
  const auto *bytes = static_cast<const std::uint8_t *>(from);
  return std::all_of(bytes, bytes + length, [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

void returnChain(MEMFunctionVector &mem, MemPackBlock *first, std::int32_t blockLen) {
  while (first != nullptr) {
    MemPackBlock *const next = first->pNext;
    mem.MEM_Free(first, static_cast<std::uint32_t>(blockLen), 0);
    first = next;
  }
}

void Ranges::add(const void *start, std::size_t length) {
  const auto from = reinterpret_cast<std::uintptr_t>(start);
  if (length > 0) ends_[from] = from + length;
}

std::size_t Ranges::rest(const void *address) const {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const auto behind = ends_.upper_bound(at);
  if (behind == ends_.begin()) return 0;
  const std::uintptr_t end = std::prev(behind)->second;
  return at < end ? end - at : 0;
}

BlockAreas::BlockAreas(const Blocks &blocks, bool isSwapped) {
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const std::size_t used = usedLenOf(blocks[i], isSwapped);
    const std::size_t length = std::max(kLinkLen + used, i == 0 ? kFirstHeadLen : kHeadLen);
    // Room to copy from: what a head needs beyond the used bytes is there in the file, too.
    areas_.push_back({std::make_unique<std::uint8_t[]>(length + 2 * kGuardLen), length});
    std::memset(areas_[i].storage.get(), kGuard, kGuardLen);
    std::memset(blockAt(i) + length, kGuard, kGuardLen);
    std::memcpy(blockAt(i) + kLinkLen, blocks[i].data(),
                std::min(blocks[i].size(), length - kLinkLen));
    ranges_.add(blockAt(i) + kLinkLen, used);
  }
  for (std::size_t i = 0; i + 1 < areas_.size(); ++i) {
    const std::uint8_t *const next = blockAt(i + 1);
    std::memcpy(blockAt(i), &next, sizeof next);
  }
}

std::uint8_t *BlockAreas::blockAt(std::size_t index) const {
  return areas_[index].storage.get() + kGuardLen;
}

MemPackBlock *BlockAreas::first() const {
  return areas_.empty() ? nullptr : reinterpret_cast<MemPackBlock *>(blockAt(0));
}

Bytes BlockAreas::contentOfFirst() const {
  if (areas_.empty()) return {};
  return Bytes(blockAt(0) + kLinkLen, blockAt(0) + areas_[0].length);
}

std::string BlockAreas::damage() const {
  for (std::size_t i = 0; i < areas_.size(); ++i) {
    const std::uint8_t *const block = blockAt(i);
    const std::uint8_t *const next = i + 1 < areas_.size() ? blockAt(i + 1) : nullptr;
    if (pointerAt(block) != next) return "the link of a block was changed";
    for (std::size_t k = 0; k < kGuardLen; ++k) {
      if (areas_[i].storage[k] != kGuard || block[areas_[i].length + k] != kGuard) {
        return "bytes outside of a block were changed";
      }
    }
  }
  return "";
}

std::string CheckedUnpack::run(const Blocks &blocks, const MemPackCB *callers) {
  refhost::Host &host = session_.host();
  const bool flag = (host.sysEnv().PlatformFlags & MEM_PLATFORM_BIG_ENDIAN) != 0;
  const bool swapped = !blocks.empty() && isSwapped(blocks[0], flag);
  const BlockAreas areas(blocks, swapped);
  const Bytes firstBlock = areas.contentOfFirst();  // in place, the call changes it
  const std::uint64_t before = host.account().liveCount;
  const std::uint64_t reports = host.calls(refhost::Service::ReportError);

  MemPackBlock *first = areas.first();
  int sentinel = 0;
  void *root = &sentinel;
  answer_ = {};
  answer_.result = session_.vector().MEM_Unpack(&first, &root, callers);
  const MEMErrorArea &error = host.thread().Error;
  answer_.text = error.NameText;
  answer_.isNewChain = first != areas.first();

  std::string fault = areas.damage();
  const bool isReported = host.calls(refhost::Service::ReportError) == reports + 1;
  if (answer_.result == 0) {
    if (fault.empty()) fault = checkSuccess(firstBlock, areas, swapped, callers, first, root);
    if (answer_.isNewChain) returnChain(session_.vector(), first, MEM_UNPACK_BLOCK_LEN);
  } else if (fault.empty()) {
    fault = checkFailure();
    if (fault.empty() && (answer_.isNewChain || root != &sentinel)) fault = "a cell was changed";
    if (fault.empty() && !isReported) fault = "the host was not asked to report";
  }
  if (fault.empty() && host.account().liveCount != before) fault = "storage was not returned";
  if (fault.empty() && !host.takeMisuses().empty()) fault = "a service was used wrongly";
  return fault;
}

std::string CheckedUnpack::checkFailure() const {
  const MEMErrorArea &error = session_.host().thread().Error;
  if (!isOfContract(answer_.result, answer_.text)) {
    return "not of the contract: " + std::to_string(answer_.result) + " \"" + answer_.text + "\"";
  }
  const bool isFilled = error.Component == 3 && error.ReturnCode == 0xFFFF &&
                        error.Code == static_cast<std::uint32_t>(answer_.result);
  return isFilled ? "" : "the error area is not filled";
}

std::string CheckedUnpack::checkSuccess(const Bytes &firstBlock, const BlockAreas &areas,
                                        bool isSwapped, const MemPackCB *callers,
                                        MemPackBlock *first, void *root) {
  const MEMErrorArea &error = session_.host().thread().Error;
  if (!isAllZero(&error, sizeof error)) return "the error area is not clear";
  if (answer_.isNewChain) {
    const auto *controlBlock = reinterpret_cast<const std::uint8_t *>(callers);
    const std::vector<Kind> kinds = decodeKinds(controlBlock, {false, false, false});
    return StructureCheck(kinds, rangesOf(first), false).run(root);
  }
  const bool isOldLayout = (firstBlock[kVersionOff + 1] & 0x0F) == 1;
  const std::vector<Kind> kinds =
      decodeKinds(firstBlock.data() + kControlBlockOff,
                  {isOldLayout, isSwapped, isBigEndian(firstBlock.data() + kVersionOff)});
  return StructureCheck(kinds, areas.ranges(), isSwapped).run(root);
}

bool isSwapped(const Bytes &firstBlock, bool platformFlag) {
  if (firstBlock.size() < kControlBlockOff) return false;
  return isBigEndian(firstBlock.data() + kVersionOff) != platformFlag;
}

Blocks splitFile(const Bytes &file, bool platformFlag) {
  Blocks blocks;
  const bool swapped = isSwapped(file, platformFlag);
  for (std::size_t from = 0; file.size() - from >= 2 && blocks.size() < kMaxBlocks;) {
    const std::size_t told = std::max<std::size_t>(numberAt(file.data() + from, swapped), 2);
    const std::size_t length = std::min(told, file.size() - from);
    blocks.emplace_back(file.data() + from, file.data() + from + length);
    from += length;
  }
  return blocks;
}

const MemPackCB *FuzzCase::callers() const {
  return hasControlBlock ? reinterpret_cast<const MemPackCB *>(controlBlock.data()) : nullptr;
}

FuzzCase decodeFuzzCase(const std::uint8_t *data, std::size_t size) {
  FuzzCase result;
  const Bytes input(data, data + size);
  const auto at = [&](std::size_t index) { return index < size ? input[index] : std::uint8_t{0}; };
  result.platformFlag = (at(0) & 1) != 0;
  result.hasControlBlock = (at(0) & 2) == 0;
  result.hasConversion = (at(0) & 4) == 0;

  const std::size_t told = at(1) + std::size_t{256} * at(2);
  const std::size_t given = std::min(told, size > 3 ? size - 3 : 0);
  const auto start = input.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(size, 3));
  const auto chain = start + static_cast<std::ptrdiff_t>(given);
  result.controlBlock.assign(start, chain);
  result.controlBlock.resize(std::max<std::size_t>(result.controlBlock.size(), 2));
  const auto count = static_cast<std::int16_t>(numberAt(result.controlBlock.data(), false));
  result.controlBlock.resize(static_cast<std::size_t>(MEM_PACK_CB_LEN(count)));

  result.blocks = splitFile(Bytes(chain, input.end()), result.platformFlag);
  // The head of the first block is there whatever its used length says.
  if (!result.blocks.empty()) {
    result.blocks[0].resize(std::max(result.blocks[0].size(), kControlBlockOff));
  }
  return result;
}

Bytes encodeFuzzCase(bool platformFlag, const Bytes &controlBlock, const Bytes &file) {
  Bytes bytes{static_cast<std::uint8_t>(platformFlag ? 1 : 0),
              static_cast<std::uint8_t>(controlBlock.size()),
              static_cast<std::uint8_t>(controlBlock.size() >> 8)};
  bytes.insert(bytes.end(), controlBlock.begin(), controlBlock.end());
  bytes.insert(bytes.end(), file.begin(), file.end());
  return bytes;
}

std::string runFuzzCase(refhost::Session &session, const std::uint8_t *data, std::size_t size) {
  const FuzzCase input = decodeFuzzCase(data, size);
  refhost::Host &host = session.host();
  host.sysEnv().PlatformFlags = input.platformFlag ? MEM_PLATFORM_BIG_ENDIAN : 0;
  MEMRuntimeServices &runtime = host.runtime();
  const auto convert = runtime.ConvertText;
  if (!input.hasConversion) runtime.ConvertText = nullptr;
  const std::string fault = CheckedUnpack(session).run(input.blocks, input.callers());
  runtime.ConvertText = convert;
  return fault;
}

}  // namespace chainrun
