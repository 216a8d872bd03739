#include "chainwriter.hpp"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <stdexcept>

#include "randomrun.hpp"

namespace chainwriter {
namespace {

using What = Part::What;

constexpr std::size_t kControlBlockOff = 6;  // content offset in block 0
constexpr std::size_t kMinDescriptors = 8;
constexpr std::size_t kReaderWidth = 8;
constexpr std::uint8_t kUndefined = 0xEE;  // whatever a writer leaves undefined

std::uint8_t byteOf(std::size_t value, std::size_t index) {
  return static_cast<std::uint8_t>(value >> (8 * index));
}

void putNumber(Bytes &bytes, std::size_t at, std::size_t value, std::size_t width, bool bigEndian) {
  for (std::size_t i = 0; i < width; ++i) {
    bytes.at(at + i) = byteOf(value, bigEndian ? width - 1 - i : i);
  }
}

bool isText(Form form) {
  return form == Form::Narrow || form == Form::Wide;
}

std::uint16_t letterOf(Form form, bool isEbcdic) {
  switch (form) {
    case Form::Fixed:
      return isEbcdic ? 0xC6 : 0x46;
    case Form::Counted:
      return isEbcdic ? 0xC3 : 0x43;
    case Form::Narrow:
      return isEbcdic ? 0xE2 : 0x53;
    case Form::Wide:
      return isEbcdic ? 0xE6 : 0x57;
    default:
      return isEbcdic ? 0xC4 : 0x44;  // "D", which has no meaning of its own
  }
}

struct DescriptorForm {
  std::size_t length;
  std::size_t children;
  std::size_t references;
};
constexpr DescriptorForm kCurrent{122, 10, 106};
constexpr DescriptorForm kOld{58, 10, 42};

const DescriptorForm &formOf(bool isOldLayout) {
  return isOldLayout ? kOld : kCurrent;
}

// A control block for pointers of some width in some byte order.
struct ControlBlockStyle {
  bool isOldLayout;
  bool isBigEndian;
  bool isEbcdic;
  std::size_t pointerWidth;
};

std::size_t controlBlockLen(const Tree &tree, bool isOldLayout) {
  return 2 + std::max(kMinDescriptors, tree.kinds.size()) * formOf(isOldLayout).length;
}

void describe(const Kind &kind, const ControlBlockStyle &style, Bytes &bytes, std::size_t at) {
  const auto put = [&](std::size_t offset, std::size_t value) {
    putNumber(bytes, at + offset, value, 2, style.isBigEndian);
  };
  put(0, letterOf(kind.form, style.isEbcdic));
  if (isText(kind.form)) return;  // nobody looks at the rest
  const Layout layout = layoutOf(kind, style.pointerWidth);
  put(2, layout.length);
  put(4, 0xFFFF);
  std::vector<std::pair<std::size_t, std::size_t>> children;
  std::vector<std::size_t> references;
  for (std::size_t i = 0; i < kind.parts.size(); ++i) {
    if (kind.parts[i].what == What::Sibling) put(4, layout.offsets[i]);
    if (kind.parts[i].what == What::Reference) references.push_back(layout.offsets[i]);
    if (kind.parts[i].what == What::Child) {
      children.emplace_back(kind.parts[i].number, layout.offsets[i]);
    }
  }
  if (kind.hasEntriesBackwards) std::reverse(children.begin(), children.end());
  put(6, children.size());
  put(8, references.size());
  const DescriptorForm &form = formOf(style.isOldLayout);
  for (std::size_t i = 0; i < children.size(); ++i) {
    put(form.children + 4 * i, children[i].first);
    put(form.children + 4 * i + 2, children[i].second);
  }
  for (std::size_t i = 0; i < references.size(); ++i) {
    put(form.references + 2 * i, references[i]);
  }
}

// Readers compare the root's first two child entries as they are stored, used or not.
void clearComparedEntries(Bytes &bytes, const ControlBlockStyle &style, std::size_t used) {
  constexpr std::size_t kCompared = 2;
  for (std::size_t i = used; i < kCompared; ++i) {
    putNumber(bytes, 2 + formOf(style.isOldLayout).children + 4 * i, 0, 4, style.isBigEndian);
  }
}

std::size_t childCount(const Kind &kind) {
  const auto isChild = [](const Part &part) { return part.what == What::Child; };
  return static_cast<std::size_t>(std::count_if(kind.parts.begin(), kind.parts.end(), isChild));
}

// Old control blocks are zero where they say nothing, current ones may hold anything there but in
// the entries that are compared.
Bytes controlBlock(const Tree &tree, const ControlBlockStyle &style) {
  const std::uint8_t filler = style.isOldLayout ? 0 : kUndefined;
  Bytes bytes(controlBlockLen(tree, style.isOldLayout), filler);
  putNumber(bytes, 0, tree.kinds.size(), 2, style.isBigEndian);
  std::size_t at = 2;
  for (const Kind &kind : tree.kinds) {
    describe(kind, style, bytes, at);
    at += formOf(style.isOldLayout).length;
  }
  clearComparedEntries(bytes, style, childCount(tree.kinds[0]));
  return bytes;
}

std::u16string utf16(const std::u32string &text) {
  std::u16string units;
  for (const char32_t character : text) {
    if (character < 0x10000) {
      units.push_back(static_cast<char16_t>(character));
    } else {
      units.push_back(static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF)));
    }
  }
  return units;
}

Bytes wideBytes(const std::u32string &text, const Writer &writer) {
  std::vector<std::size_t> units;
  if (writer.wideSize == 4) {
    units.assign(text.begin(), text.end());
  } else {
    for (const char16_t unit : utf16(text)) units.push_back(unit);
  }
  units.push_back(0);
  Bytes bytes(units.size() * writer.wideSize);
  for (std::size_t i = 0; i < units.size(); ++i) {
    putNumber(bytes, i * writer.wideSize, units[i], writer.wideSize, writer.isBigEndian);
  }
  return bytes;
}

std::size_t prefixOf(Form form) {
  return form == Form::Counted || form == Form::SelfDescribing ? 2 : 0;
}

std::size_t lengthWord(Form form, std::size_t length) {
  return form == Form::Counted ? length - 2 : length;
}

// Bytes that a segment's data has beyond its data parts.
std::size_t tailLen(const Kind &kind, const Node &node) {
  std::size_t inParts = 0;
  for (const Part &part : kind.parts) inParts += part.what == What::Data ? part.number : 0;
  return node.data.size() - inParts;
}

// Lays items into blocks.
class Emulation {
 public:
  Emulation(const Tree &tree, const Writer &writer, std::size_t blockLen)
      : tree_(tree), writer_(writer), blockLen_(blockLen), chain_(writer) {
    chain_.places.resize(tree.nodes.size());
    placed_.resize(tree.nodes.size());
  }

  Chain run() {
    startBlock(2);
    append(Bytes(writer_.version.begin(), writer_.version.end()));
    append(controlBlock(
        tree_, {writer_.isOldLayout, writer_.isBigEndian, writer_.isEbcdic, writer_.pointerWidth}));
    if (isText(tree_.kinds[0].form)) {
      putText(0);
    } else {
      putSegments(0);
    }
    for (std::size_t node = 0; node < tree_.nodes.size(); ++node) setPointers(node);
    for (std::size_t i = 0; i < chain_.blocks.size(); ++i) {
      chain_.setUsedLen(i, static_cast<std::uint16_t>(chain_.blocks[i].size()));
    }
    return chain_;
  }

 private:
  Bytes &block() { return chain_.blocks.back(); }
  void startBlock(std::size_t used) { chain_.blocks.emplace_back(used, std::uint8_t{0}); }
  void append(const Bytes &bytes) { block().insert(block().end(), bytes.begin(), bytes.end()); }

  bool fits(std::size_t used, std::size_t length) const {
    return used + length <= blockLen_ - 8 && used <= 0x7FFF && used + length <= 0xFFFF;
  }

  void put(std::size_t node, const Bytes &bytes, std::size_t reserved, std::size_t firstOff,
           std::size_t alignment) {
    if (reserved > blockLen_ - 15) throw std::invalid_argument("an item is too long for its block");
    const std::size_t aligned = (block().size() + alignment - 1) / alignment * alignment;
    if (fits(aligned, reserved)) {
      block().resize(aligned);
    } else {
      startBlock(firstOff);
    }
    chain_.places[node] = {chain_.blocks.size() - 1, block().size()};
    placed_[node] = true;
    append(bytes);
    block().resize(block().size() + reserved - bytes.size(), kUndefined);
  }

  void putText(std::size_t node) {
    if (placed_[node]) return;
    const Node &text = tree_.nodes[node];
    if (tree_.kinds[text.kind].form == Form::Narrow) {
      Bytes bytes(text.narrow.begin(), text.narrow.end());
      bytes.push_back(0);
      put(node, bytes, bytes.size(), 4, 1);
    } else {
      const Bytes bytes = wideBytes(text.wide, writer_);
      put(node, bytes, writer_.wideSize == 2 ? 2 * bytes.size() : bytes.size(), 4, 4);
    }
  }

  void putSegment(std::size_t node) {
    const Node &segment = tree_.nodes[node];
    const Kind &kind = tree_.kinds[segment.kind];
    const Layout layout = layoutOf(kind, writer_.pointerWidth);
    Bytes bytes(layout.length, 0);
    auto from = segment.data.begin();
    for (std::size_t i = 0; i < kind.parts.size(); ++i) {
      if (kind.parts[i].what != What::Data) continue;
      const auto count = static_cast<std::ptrdiff_t>(kind.parts[i].number);
      std::copy(from, from + count, bytes.begin() + static_cast<std::ptrdiff_t>(layout.offsets[i]));
      from += count;
    }
    bytes.insert(bytes.end(), from, segment.data.end());
    if (prefixOf(kind.form) != 0) {
      putNumber(bytes, 0, lengthWord(kind.form, bytes.size()), 2, writer_.isBigEndian);
    }
    put(node, bytes, bytes.size(), 2, 1);
  }

  // A segment, its texts, its children and all that hangs on them, then the same of its siblings.
  void putSegments(std::size_t node) {
    for (std::size_t next = node; next != kNone;) {
      const Node &segment = tree_.nodes[next];
      const Kind &kind = tree_.kinds[segment.kind];
      putSegment(next);
      std::vector<std::size_t> children;
      next = kNone;
      std::size_t pointer = 0;
      for (const Part &part : kind.parts) {
        if (part.what == What::Data) continue;
        const std::size_t target = segment.targets[pointer++];
        if (part.what == What::Sibling) next = target;
        if (part.what == What::Child && target != kNone) children.push_back(target);
      }
      if (kind.hasEntriesBackwards) std::reverse(children.begin(), children.end());
      for (const std::size_t target : children) {
        if (isText(tree_.kinds[tree_.nodes[target].kind].form)) putText(target);
      }
      for (const std::size_t target : children) {
        if (!isText(tree_.kinds[tree_.nodes[target].kind].form)) putSegments(target);
      }
    }
  }

  void setPointers(std::size_t node) {
    const Node &segment = tree_.nodes[node];
    const Kind &kind = tree_.kinds[segment.kind];
    std::size_t pointer = 0;
    for (std::size_t i = 0; i < kind.parts.size(); ++i) {
      if (kind.parts[i].what == What::Data) continue;
      const std::size_t target = segment.targets[pointer++];
      if (target == kNone) continue;
      chain_.setPointer(chain_.partPlace(tree_, node, i), chain_.places[target]);
    }
  }

  const Tree &tree_;
  const Writer &writer_;
  const std::size_t blockLen_;
  Chain chain_;
  std::vector<bool> placed_;
};

// Compares a structure in storage with the tree. Each segment and text of the tree must be at one
// address, wherever it is reached from.
class Comparison {
 public:
  Comparison(const Tree &tree, const Writer &writer, Became became)
      : tree_(tree), writer_(writer), became_(became) {}

  std::string run(const void *root) {
    expectAt(0, static_cast<const std::uint8_t *>(root));
    while (!waiting_.empty() && difference_.empty()) {
      const std::size_t node = waiting_.front();
      waiting_.pop_front();
      compare(node);
    }
    for (const Wanted &wanted : wanted_) {
      const auto found = addresses_.find(wanted.node);
      if (found == addresses_.end() || found->second != wanted.address) {
        differ(wanted.holder, "a reference leads elsewhere");
      }
    }
    return difference_;
  }

 private:
  struct Wanted {
    std::size_t holder;
    std::size_t node;
    const std::uint8_t *address;
  };

  void differ(std::size_t node, const std::string &what) {
    if (difference_.empty()) difference_ = "node " + std::to_string(node) + ": " + what;
  }

  void expectAt(std::size_t node, const std::uint8_t *address) {
    const auto [entry, isNew] = addresses_.emplace(node, address);
    if (!isNew && entry->second != address) differ(node, "reached at two addresses");
    if (isNew) waiting_.push_back(node);
  }

  void compare(std::size_t node) {
    const std::uint8_t *const at = addresses_[node];
    switch (tree_.kinds[tree_.nodes[node].kind].form) {
      case Form::Narrow:
        compareNarrow(node, at);
        break;
      case Form::Wide:
        compareWide(node, at);
        break;
      default:
        compareSegment(node, at);
        break;
    }
  }

  void compareNarrow(std::size_t node, const std::uint8_t *at) {
    const std::string &text = tree_.nodes[node].narrow;
    if (std::memcmp(at, text.c_str(), text.size() + 1) != 0) differ(node, "narrow text");
  }

  void compareWide(std::size_t node, const std::uint8_t *at) {
    const std::u16string text = utf16(tree_.nodes[node].wide);
    if (std::memcmp(at, text.c_str(), 2 * text.size() + 2) != 0) differ(node, "wide text");
  }

  // In place a length word stays in the writer's order, as all bytes that are no pointers do.
  void compareLengthWord(std::size_t node, const std::uint8_t *at, std::size_t length) {
    const Form form = tree_.kinds[tree_.nodes[node].kind].form;
    const auto expected = static_cast<std::uint16_t>(lengthWord(form, length));
    std::uint8_t bytes[2];
    if (became_ == Became::NewChain) {
      std::memcpy(bytes, &expected, sizeof bytes);
    } else {
      for (std::size_t i = 0; i < 2; ++i) {
        bytes[i] = byteOf(expected, writer_.isBigEndian ? 1 - i : i);
      }
    }
    if (std::memcmp(at, bytes, sizeof bytes) != 0) differ(node, "length word");
  }

  void compareSegment(std::size_t node, const std::uint8_t *at) {
    const Node &segment = tree_.nodes[node];
    const Kind &kind = tree_.kinds[segment.kind];
    const Layout layout = layoutOf(kind, kReaderWidth);
    const std::size_t tail = tailLen(kind, segment);
    if (prefixOf(kind.form) != 0) compareLengthWord(node, at, layout.length + tail);
    const std::uint8_t *from = segment.data.data();
    std::size_t pointer = 0;
    for (std::size_t i = 0; i < kind.parts.size(); ++i) {
      const std::uint8_t *const field = at + layout.offsets[i];
      if (kind.parts[i].what == What::Data) {
        compareData(node, field, from, kind.parts[i].number);
        from += kind.parts[i].number;
      } else {
        comparePointer(node, kind.parts[i].what, field, segment.targets[pointer++]);
      }
    }
    compareData(node, at + layout.length, from, tail);
  }

  void compareData(std::size_t node, const std::uint8_t *at, const std::uint8_t *from,
                   std::size_t length) {
    if (length > 0 && std::memcmp(at, from, length) != 0) differ(node, "data");
  }

  void comparePointer(std::size_t node, What what, const std::uint8_t *field, std::size_t target) {
    const std::uint8_t *address = nullptr;
    std::memcpy(&address, field, sizeof address);
    if ((address == nullptr) != (target == kNone)) {
      differ(node, target == kNone ? "a pointer is not null" : "a pointer is null");
    } else if (target != kNone && what == What::Reference) {
      wanted_.push_back({node, target, address});
    } else if (target != kNone) {
      expectAt(target, address);
    }
  }

  const Tree &tree_;
  const Writer &writer_;
  const Became became_;
  std::map<std::size_t, const std::uint8_t *> addresses_;
  std::deque<std::size_t> waiting_;
  std::vector<Wanted> wanted_;
  std::string difference_;
};

std::vector<Writer> makeWriters() {
  struct Row {
    const char *version;
    bool isOldLayout;
    std::size_t wideSize;
    bool isBigEndian;
  };
  static constexpr Row kAscii[] = {
      {"0100", true, 2, false},  {"0101", true, 2, true},   {"0200", false, 2, false},
      {"0201", false, 2, true},  {"0220", false, 2, false}, {"0221", false, 2, true},
      {"0240", false, 4, false}, {"0241", false, 4, true},
  };
  static constexpr Row kEbcdic[] = {
      {"0100", true, 2, true}, {"0200", false, 2, true}, {"0300", false, 2, true}};
  std::vector<Writer> writers;
  for (const std::size_t width : {std::size_t{8}, std::size_t{4}}) {
    const auto add = [&](const Row &row, bool isEbcdic) {
      Writer writer{{}, row.isOldLayout, row.wideSize, row.isBigEndian, isEbcdic, width};
      for (std::size_t i = 0; i < 4; ++i) {
        writer.version[i] = static_cast<std::uint8_t>(row.version[i] + (isEbcdic ? 0xC0 : 0));
      }
      writers.push_back(writer);
    };
    for (const Row &row : kAscii) add(row, false);
    for (const Row &row : kEbcdic) add(row, true);
  }
  return writers;
}

Writer findWriter(std::string_view version, std::size_t pointerWidth, bool isEbcdic) {
  for (const Writer &writer : allWriters()) {
    bool isSame = writer.isEbcdic == isEbcdic && writer.pointerWidth == pointerWidth;
    for (std::size_t i = 0; i < 4; ++i) {
      isSame = isSame && (writer.version[i] & 0x0F) == (version[i] & 0x0F);
    }
    if (isSame) return writer;
  }
  throw std::invalid_argument("no such version");
}

Bytes bytesFrom(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

// Grows a random tree. The root has a child and begins with a pointer that is none, so that the
// first child is elsewhere under another pointer width: from that, readers derive the width.
class RandomTree {
 public:
  explicit RandomTree(std::uint64_t seed) : random_(seed), nodesLeft_(random_.between(1, 40)) {}

  Tree make() {
    makeKinds();
    const std::size_t root = makeNode(0);
    grow(root, 1);
    setReferences();
    return std::move(tree_);
  }

 private:
  void makeKinds() {
    const std::size_t count = random_.oneIn(8) ? random_.between(9, 24) : random_.between(3, 8);
    tree_.kinds.resize(count);
    for (std::size_t i = 1; i < count; ++i) {
      static constexpr Form kForms[] = {Form::Fixed, Form::Fixed,  Form::Counted,
                                        Form::Wide,  Form::Narrow, Form::SelfDescribing};
      tree_.kinds[i].form = kForms[random_.below(std::size(kForms))];
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (!isText(tree_.kinds[i].form)) makeParts(tree_.kinds[i], i == 0);
    }
  }

  void makeParts(Kind &kind, bool isRoot) {
    std::vector<Part> parts;
    // At most what the old layout can hold.
    const std::size_t children = isRoot ? random_.between(1, 8) : random_.below(9);
    for (std::size_t i = 0; i < children; ++i) {
      parts.push_back(child(random_.below(tree_.kinds.size())));
    }
    for (std::size_t i = random_.below(3); i > 0; --i) parts.push_back(reference());
    if (!isRoot && !random_.oneIn(3)) parts.push_back(sibling());
    for (std::size_t i = parts.size(); i > 1; --i) std::swap(parts[i - 1], parts[random_.below(i)]);
    if (isRoot) kind.parts.push_back(random_.oneIn(2) ? sibling() : reference());
    for (const Part &part : parts) {
      if (random_.oneIn(2)) kind.parts.push_back(data(random_.below(7)));
      kind.parts.push_back(part);
    }
    // Something must distinguish two segments.
    kind.parts.push_back(data(random_.between(1, 12)));
    kind.hasEntriesBackwards = random_.oneIn(3);
  }

  std::size_t makeNode(std::size_t kindIndex) {
    const Kind &kind = tree_.kinds[kindIndex];
    Node node;
    node.kind = kindIndex;
    if (kind.form == Form::Narrow) {
      node.narrow.resize(random_.below(30));
      for (char &c : node.narrow) c = static_cast<char>(random_.between(1, 255));
    } else if (kind.form == Form::Wide) {
      node.wide.resize(random_.below(20));
      for (char32_t &c : node.wide) c = randomCharacter();
    } else {
      std::size_t length = prefixOf(kind.form) == 0 ? 0 : random_.below(20);
      for (const Part &part : kind.parts) {
        if (part.what == What::Data) {
          length += part.number;
        } else {
          node.targets.push_back(kNone);
        }
      }
      node.data.resize(length);
      for (std::uint8_t &byte : node.data) byte = static_cast<std::uint8_t>(random_.bits());
      segments_.push_back(tree_.nodes.size());
    }
    if (nodesLeft_ > 0) --nodesLeft_;
    tree_.nodes.push_back(node);
    return tree_.nodes.size() - 1;
  }

  char32_t randomCharacter() {
    if (random_.oneIn(4)) return static_cast<char32_t>(random_.between(0x10000, 0x10FFFF));
    if (random_.oneIn(2)) return static_cast<char32_t>(random_.between(0xE000, 0xFFFF));
    return static_cast<char32_t>(random_.between(1, 0xD7FF));
  }

  void grow(std::size_t node, std::size_t level) {
    const std::vector<Part> parts = tree_.kinds[tree_.nodes[node].kind].parts;
    std::size_t pointer = 0;
    for (const Part &part : parts) {
      if (part.what == What::Data) continue;
      const std::size_t index = pointer++;
      if (part.what == What::Reference || nodesLeft_ == 0 || random_.oneIn(4)) continue;
      const std::size_t kind = part.what == What::Sibling ? tree_.nodes[node].kind : part.number;
      if (level == 20 && part.what == What::Child && !isText(tree_.kinds[kind].form)) continue;
      const std::optional<std::size_t> shared = textToShare(kind);
      const std::size_t target = shared ? *shared : makeNode(kind);
      tree_.nodes[node].targets[index] = target;
      if (!isText(tree_.kinds[kind].form)) grow(target, level + (part.what == What::Child));
    }
  }

  std::optional<std::size_t> textToShare(std::size_t kind) {
    if (tree_.kinds[kind].form != Form::Narrow || !random_.oneIn(4)) return {};
    for (std::size_t i = 0; i < tree_.nodes.size(); ++i) {
      if (tree_.nodes[i].kind == kind) return i;
    }
    return {};
  }

  void setReferences() {
    for (const std::size_t node : segments_) {
      std::size_t pointer = 0;
      for (const Part &part : tree_.kinds[tree_.nodes[node].kind].parts) {
        if (part.what == What::Data) continue;
        if (part.what == What::Reference && !random_.oneIn(3)) {
          tree_.nodes[node].targets[pointer] = segments_[random_.below(segments_.size())];
        }
        ++pointer;
      }
    }
  }

  memtest::Random random_;
  std::size_t nodesLeft_;
  Tree tree_;
  std::vector<std::size_t> segments_;
};

}  // namespace

std::string Writer::name() const {
  std::string digits;
  for (const std::uint8_t digit : version) digits += static_cast<char>('0' + (digit & 0x0F));
  return (isEbcdic ? "ebcdic" : "") + digits + (pointerWidth == 4 ? "_32bit" : "_64bit");
}

const std::vector<Writer> &allWriters() {
  static const std::vector<Writer> writers = makeWriters();
  return writers;
}

Writer writerOf(std::string_view version, std::size_t pointerWidth) {
  return findWriter(version, pointerWidth, false);
}

Writer ebcdicWriterOf(std::string_view version, std::size_t pointerWidth) {
  return findWriter(version, pointerWidth, true);
}

Layout layoutOf(const Kind &kind, std::size_t pointerWidth) {
  Layout layout{{}, prefixOf(kind.form)};
  for (const Part &part : kind.parts) {
    layout.offsets.push_back(layout.length);
    layout.length += part.what == What::Data ? part.number : pointerWidth;
  }
  return layout;
}

std::uint16_t Chain::number(Place place) const {
  const Bytes &block = blocks.at(place.block);
  const std::size_t high = writer_.isBigEndian ? place.offset : place.offset + 1;
  const std::size_t low = writer_.isBigEndian ? place.offset + 1 : place.offset;
  return static_cast<std::uint16_t>(block.at(high) << 8 | block.at(low));
}

void Chain::setNumber(Place place, std::uint16_t value) {
  putNumber(blocks.at(place.block), place.offset, value, 2, writer_.isBigEndian);
}

Bytes Chain::file() const {
  Bytes all;
  for (const Bytes &block : blocks) all.insert(all.end(), block.begin(), block.end());
  return all;
}

Place Chain::descriptorPlace(std::size_t kind) const {
  return {0, kControlBlockOff + 2 + kind * formOf(writer_.isOldLayout).length};
}

Place Chain::childEntryPlace(std::size_t kind, std::size_t entry) const {
  return {0, descriptorPlace(kind).offset + formOf(writer_.isOldLayout).children + 4 * entry};
}

Place Chain::referenceEntryPlace(std::size_t kind, std::size_t entry) const {
  return {0, descriptorPlace(kind).offset + formOf(writer_.isOldLayout).references + 2 * entry};
}

Place Chain::partPlace(const Tree &tree, std::size_t node, std::size_t part) const {
  const Layout layout = layoutOf(tree.kinds[tree.nodes[node].kind], writer_.pointerWidth);
  return {places[node].block, places[node].offset + layout.offsets[part]};
}

void Chain::setPointer(Place field, Place target) {
  setNumber(field, static_cast<std::uint16_t>(target.block));
  setNumber({field.block, field.offset + 2}, static_cast<std::uint16_t>(target.offset));
}

Chain write(const Tree &tree, const Writer &writer, std::size_t blockLen) {
  return Emulation(tree, writer, blockLen).run();
}

std::size_t smallestBlockLen(const Tree &tree, const Writer &writer) {
  return controlBlockLen(tree, writer.isOldLayout) + 19;
}

Bytes readersControlBlock(const Tree &tree) {
  const std::uint16_t one = 1;
  std::uint8_t firstByte;
  std::memcpy(&firstByte, &one, 1);
  return controlBlock(tree, {false, firstByte == 0, false, kReaderWidth});
}

std::string difference(const Tree &tree, const Writer &writer, Became became, const void *root) {
  return Comparison(tree, writer, became).run(root);
}

Tree sampleTree() {
  enum : std::size_t { kRoot, kPackage, kDependency, kNote, kName, kTitle, kLeaf };
  Tree tree;
  tree.kinds = {
      {Form::Fixed,
       {sibling(), data(3), child(kPackage), child(kName), data(5), child(kTitle), child(kNote),
        reference()}},
      {Form::Fixed,
       {sibling(), data(2), child(kName), child(kTitle), reference(), child(kDependency), data(4)}},
      {Form::Counted, {data(1), sibling(), child(kName), child(kLeaf), reference()}, true},
      {Form::SelfDescribing, {child(kTitle), data(6), child(kName), child(kNote), data(1)}},
      {Form::Narrow},
      {Form::Wide},
      {Form::Fixed, {data(9)}},
  };
  tree.nodes = {
      {kRoot, bytesFrom("rootdata"), {kNone, 1, 4, 5, 6, 2}},
      {kPackage, bytesFrom("pk-one"), {2, 7, 8, 3, 10}},
      {kPackage, bytesFrom("pk-two"), {3, 9, kNone, 1, 11}},
      {kPackage, bytesFrom("pk-3rd"), {kNone, 7, 12, kNone, kNone}},
      {kName, {}, {}, "the catalogue"},
      {kTitle, {}, {}, {}, U"\u00C4\u65E5\U0001F600 title"},
      {kNote, bytesFrom("note-1!and a tail"), {kNone, 4, 13}},
      {kName, {}, {}, "shared name"},
      {kTitle, {}, {}, {}, U"first"},
      {kName, {}, {}, ""},
      {kDependency, bytesFrom("d tail"), {14, 7, kNone, 2}},
      {kDependency, bytesFrom("e"), {kNone, kNone, 15, 0}},
      {kTitle, {}, {}, {}, U""},
      {kNote, bytesFrom("note-2!"), {16, kNone, kNone}},
      {kDependency, bytesFrom("f more tail"), {kNone, 9, kNone, 10}},
      {kLeaf, bytesFrom("leaf-data"), {}},
      {kTitle, {}, {}, {}, U"\U0010FFFF"},
  };
  return tree;
}

Tree randomTree(std::uint64_t seed) {
  return RandomTree(seed).make();
}

}  // namespace chainwriter
