#include "chain_encode.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "chain_values.hpp"
#include "tool_errors.hpp"
#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::uint32_t kPointerLen = 8;
constexpr std::uint32_t kLengthWord = 2;
constexpr std::size_t kMostStorage = std::size_t{1} << 30;
// Used lengths have 16 bits, and items begin at 2 or, texts, at 4.
constexpr std::size_t kMostSegment = 0xFFFF - 2;
constexpr std::size_t kMostText = 0xFFFF - 4;

// A control block as callers pass it, of any number of kinds.
class EncodeControlBlock {
 public:
  explicit EncodeControlBlock(const ChainDefinitions &definitions)
      : definitions_(definitions), bytes_(MEM_PACK_CB_LEN(definitions.kindCount())) {
    const auto count = static_cast<std::int16_t>(definitions.kindCount());
    std::memcpy(bytes_.data(), &count, sizeof count);
    for (const ChainKindDefinition &kind : definitions.kinds()) put(kind.kind, describe(kind));
    for (const Form form : {Form::NarrowText, Form::WideText}) {
      const std::optional<std::uint16_t> kind = definitions.textKind(form);
      if (kind) put(*kind, textDescriptor(form));
    }
  }

  const MemPackCB *get() const { return reinterpret_cast<const MemPackCB *>(bytes_.data()); }
  std::size_t length() const { return bytes_.size(); }

 private:
  void put(std::size_t kind, const MemPackDescriptor &descriptor) {
    const std::size_t at = offsetof(MemPackCB, Descriptors) + kind * sizeof descriptor;
    std::memcpy(&bytes_[at], &descriptor, sizeof descriptor);
  }

  static MemPackDescriptor textDescriptor(Form form) {
    MemPackDescriptor made{};
    made.Type = form == Form::NarrowText ? MEM_PACK_STRING : MEM_PACK_WIDE_STRING;
    made.SiblingOff = MEM_PACK_NO_SIBLING;
    return made;
  }

  MemPackDescriptor describe(const ChainKindDefinition &kind) const {
    MemPackDescriptor made{};
    made.Type = kind.typeCode;
    made.FixedLen = kind.fixedLen;
    made.SiblingOff = MEM_PACK_NO_SIBLING;
    for (const ChainFieldDefinition &field : kind.fields) {
      if (!isPointer(field.type)) continue;
      const auto offset = static_cast<std::int16_t>(field.offset);
      if (field.role == Field::Sibling) made.SiblingOff = offset;
      if (field.role == Field::Reference) addReference(made, field, offset);
      if (field.role == Field::Child) addChild(made, field, offset);
    }
    return made;
  }

  static void addReference(MemPackDescriptor &made, const ChainFieldDefinition &field,
                           std::int16_t offset) {
    if (made.ReferenceCount == MEM_PACK_MAX_REFERENCES) {
      field.node.fail(fmt::format("a segment has at most {} references",
                                  static_cast<int>(MEM_PACK_MAX_REFERENCES)));
    }
    made.References[made.ReferenceCount++] = offset;
  }

  void addChild(MemPackDescriptor &made, const ChainFieldDefinition &field,
                std::int16_t offset) const {
    if (made.ChildCount == MEM_PACK_MAX_CHILDREN) {
      field.node.fail(fmt::format("a segment has at most {} children",
                                  static_cast<int>(MEM_PACK_MAX_CHILDREN)));
    }
    const Form text = field.type == ChainType::PStr ? Form::NarrowText : Form::WideText;
    const std::uint16_t kind = field.target ? *field.target : definitions_.textKind(text).value();
    made.Children[made.ChildCount++] = {kind, offset};
  }

  const ChainDefinitions &definitions_;
  std::vector<char> bytes_;
};

struct MadeSegment {
  const ChainKindDefinition *kind;
  PortJsonNode node;
  std::string bytes = {};   // of the segment, with addresses in its pointers
  bool isOwned = false;     // a child or sibling pointer leads here
  std::uint32_t level = 0;  // the root has 1; 0 for one that is not reached
};

// A pointer to a structure. It is set after all structures are made.
struct Link {
  std::size_t from;
  const ChainFieldDefinition *field;
  std::size_t to;
  PortJsonNode node;
};

// The bytes that a value has set, to find contradicting alternatives.
struct SetBytes {
  std::uint32_t offset;
  std::string bytes;
  PortJsonNode node;
};

class SegmentMaker {
 public:
  SegmentMaker(const ChainDefinitions &definitions, const PortJsonNode &top)
      : definitions_(definitions), top_(top) {}

  void run() {
    addSegments();
    for (std::size_t i = 0; i < segments_.size(); ++i) fill(i);
    const std::size_t root = rootIndex();
    own(root);
    findLevels(root);
    link();
    root_ = segments_[root].bytes.data();
  }

  const void *root() const { return root_; }
  // The length of the longest item, with the room that wide text reserves.
  std::size_t longestItem() const { return longest_; }

 private:
  // Without this, the first pointer with a fault would be refused as a wrong value.
  void refuseDamaged() const {
    const std::optional<PortJsonNode> faults = top_.find("faults");
    if (!faults) return;
    faults->fail(
        "this is the JSON of a damaged chain; mend the pointers with \"fault\" and the structures "
        "with \"isCut\", and delete \"faults\"");
  }

  void addSegments() {
    refuseDefinitions(top_);
    refuseDamaged();
    top_.requireKeys({"root", "structures", "selection"});  // the last one comes from a filter
    const PortJsonNode list = top_.at("structures");
    for (const PortJsonNode &node : list.elements()) {
      refuseDefinition(node);
      node.requireKeys({"label", "structure", "fields"});
      const PortJsonNode named = node.at("structure");
      const std::string wanted =
          named.json().is_string() ? named.text() : std::to_string(named.integer(1, INT32_MAX));
      const ChainKindDefinition *const kind = definitions_.find(wanted);
      if (kind == nullptr) {
        named.fail(fmt::format("no definition has the name or id {}", inQuotes(wanted, 40)));
      }
      if (isText(kind->form)) named.fail("a text is no structure, but the value of its pointer");
      segments_.push_back({kind, node});
      const std::optional<PortJsonNode> label = node.find("label");
      if (label && !byLabel_.emplace(label->text(), segments_.size() - 1).second) {
        label->fail(
            fmt::format("a second structure with the label {}", inQuotes(label->text(), 40)));
      }
    }
    if (segments_.empty()) list.fail("the list has no structure");
  }

  [[noreturn]] void failForLabel(const PortJsonNode &node) const {
    const char *const why =
        top_.find("selection") ? "; the JSON is a selection, which may have left it out" : "";
    node.fail(fmt::format("no structure has the label {}{}", inQuotes(node.text(), 40), why));
  }

  std::size_t rootIndex() const {
    std::size_t index = 0;
    const std::optional<PortJsonNode> named = top_.find("root");
    if (named) {
      const auto found = byLabel_.find(named->text());
      if (found == byLabel_.end()) failForLabel(*named);
      index = found->second;
    }
    if (segments_[index].kind->kind != 0) {
      segments_[index].node.fail(fmt::format(
          "the root must be a {}, the first structure of the definitions", definitions_.nameOf(0)));
    }
    return index;
  }

  // Text first: it also sets bytes after its end, which other values may share.
  void fill(std::size_t index) {
    MadeSegment &made = segments_[index];
    const PortJsonNode fields = made.node.at("fields");
    if (!fields.json().is_object()) fields.fail("expected an object");
    if (made.kind->form == Form::Fixed) reserve(made, 0, made.kind->fixedLen, made.node);
    set_.clear();
    for (const bool isTextTurn : {true, false}) {
      for (const auto &[key, value] : fields.json().items()) {
        const ChainFieldDefinition *const field = fieldOf(made, fields, key);
        const bool isTextField = field != nullptr && isChainText(field->type);
        if (isTextField == isTextTurn) fillValue(index, field, key, fields.member(key, value));
      }
    }
    for (const ChainFieldDefinition &field : made.kind->fields) {  // null by default
      if (isPointer(field.type)) reserve(made, field.offset, kPointerLen, field.node);
    }
    setLength(made);
    for (const SetBytes &value : set_) {
      if (made.bytes.compare(value.offset, value.bytes.size(), value.bytes) != 0) {
        value.node.fail("another value has set different bytes here");
      }
    }
    longest_ = std::max(longest_, made.bytes.size());
  }

  static const ChainFieldDefinition *fieldOf(const MadeSegment &made, const PortJsonNode &fields,
                                             const std::string &key) {
    const ChainFieldDefinition *const field = made.kind->find(key);
    if (field == nullptr && !key.starts_with('+')) {
      fields.fail(fmt::format("{} has no field {}", made.kind->name, inQuotes(key, 40)));
    }
    return field;
  }

  void fillValue(std::size_t index, const ChainFieldDefinition *field, const std::string &key,
                 const PortJsonNode &node) {
    MadeSegment &made = segments_[index];
    if (field == nullptr) return fillBytes(made, key, node);
    if (isPointer(field->type)) return fillPointer(index, *field, node);
    std::string bytes = chainValueBytes(*field, node);
    reserve(made, field->offset, bytes.size(), node);
    made.bytes.replace(field->offset, bytes.size(), bytes);
    if (field->type == ChainType::CharSZ || field->type == ChainType::WCharSZ) {
      // The bytes after the terminator are not part of the value.
      const std::size_t unit = field->type == ChainType::CharSZ ? 1 : sizeof(char16_t);
      const std::size_t end = bytes.find_last_not_of('\0');
      const std::size_t used = end == std::string::npos ? 0 : (end / unit + 1) * unit;
      bytes.resize(std::min(bytes.size(), used + unit));
    }
    set_.push_back({field->offset, std::move(bytes), node});
  }

  // Bytes without a name.
  void fillBytes(MadeSegment &made, const std::string &key, const PortJsonNode &node) {
    std::uint32_t offset = 0;
    const char *const end = key.data() + key.size();
    const auto [parsed, failed] = std::from_chars(key.data() + 1, end, offset);
    if (failed != std::errc() || parsed != end)
      node.fail("a name with + is + and an offset, for example +44");
    const std::optional<std::string> bytes = portBytesOfHex(node.text());
    if (!bytes) node.fail("expected bytes in hexadecimal capitals");
    if (made.kind->tellsLength() && offset < kLengthWord && !bytes->empty()) {
      node.fail("the first two bytes are the segment's length");
    }
    for (const ChainFieldDefinition &field : made.kind->fields) {
      const bool isOver = isPointer(field.type) && field.offset < offset + bytes->size() &&
                          offset < field.offset + kPointerLen;
      if (isOver) node.fail(fmt::format("the bytes overlap the pointer {}", field.name));
    }
    reserve(made, offset, bytes->size(), node);
    made.bytes.replace(offset, bytes->size(), *bytes);
    set_.push_back({offset, *bytes, node});
  }

  // Extends the segment up to the end of these bytes, as far as its type allows.
  void reserve(MadeSegment &made, std::size_t offset, std::size_t length,
               const PortJsonNode &node) {
    const std::size_t most = made.kind->form == Form::Fixed     ? made.kind->fixedLen
                             : made.kind->form == Form::Counted ? 0x7FFF + kLengthWord
                                                                : kMostSegment;
    if (offset > most || length > most - offset) {
      node.fail(fmt::format("{} bytes at {} exceed the segment's {}", length, offset, most));
    }
    if (made.bytes.size() < offset + length) {
      storage_ += offset + length - made.bytes.size();
      if (storage_ > kMostStorage) node.fail("the structures take more than 1 GB");
      made.bytes.resize(offset + length, '\0');
    }
  }

  // Sets the length at the start of a segment. If the JSON has a value for it, both must be equal.
  void setLength(MadeSegment &made) {
    if (!made.kind->tellsLength()) return;
    reserve(made, 0, kLengthWord, made.node);
    const std::size_t length =
        made.kind->form == Form::Counted ? made.bytes.size() - kLengthWord : made.bytes.size();
    const auto number = static_cast<std::uint16_t>(length);
    std::string word(sizeof number, '\0');
    std::memcpy(word.data(), &number, sizeof number);
    for (const SetBytes &value : set_) {
      if (value.offset == 0 && value.bytes != word) {
        value.node.fail(
            fmt::format("the length that follows from the segment's other values is {}", length));
      }
    }
    made.bytes.replace(0, word.size(), word);
  }

  void fillPointer(std::size_t index, const ChainFieldDefinition &field, const PortJsonNode &node) {
    MadeSegment &made = segments_[index];
    reserve(made, field.offset, kPointerLen, node);
    if (node.json().is_null()) return;
    if (field.type == ChainType::PStr) return setAddress(made, field, keepText(node));
    if (field.type == ChainType::WPStr) return setAddress(made, field, keepWideText(node));
    const auto found = byLabel_.find(node.text());
    if (found == byLabel_.end()) {
      failForLabel(node);
    }
    const ChainKindDefinition &kind = *segments_[found->second].kind;
    if (field.target && *field.target != kind.kind) {
      node.fail(fmt::format("{} is a {}, but the field points to a {}", inQuotes(node.text(), 40),
                            kind.name, definitions_.nameOf(*field.target)));
    }
    if (field.role != Field::Reference) {
      MadeSegment &target = segments_[found->second];
      if (target.isOwned) {
        node.fail(fmt::format(
            "a second child or sibling pointer leads to {}; further ones must be references",
            inQuotes(node.text(), 40)));
      }
      target.isOwned = true;
    }
    links_.push_back({index, &field, found->second, node});
  }

  const void *keepText(const PortJsonNode &node) {
    const std::string &kept = texts_.emplace_back(portTextOf(node));
    if (kept.find('\0') != std::string::npos) node.fail("text with a zero in it");
    noteText(kept.size() + 1, node);
    return kept.c_str();
  }

  const void *keepWideText(const PortJsonNode &node) {
    const std::u16string &kept = wideTexts_.emplace_back(portUnitsOf(node));
    if (kept.find(u'\0') != std::u16string::npos) node.fail("text with a zero in it");
    noteText(4 * (kept.size() + 1), node);  // readers may widen it in place
    return kept.c_str();
  }

  void noteText(std::size_t length, const PortJsonNode &node) {
    if (length > kMostText) {
      node.fail(fmt::format("the text takes {} bytes; a block has room for {}", length, kMostText));
    }
    longest_ = std::max(longest_, length);
  }

  static void setAddress(MadeSegment &made, const ChainFieldDefinition &field,
                         const void *address) {
    std::memcpy(&made.bytes[field.offset], &address, sizeof address);
  }

  void own(std::size_t root) {
    if (segments_[root].isOwned) {
      for (const Link &link : links_) {
        if (link.to == root && link.field->role != Field::Reference) {
          link.node.fail("a child or sibling pointer leads to the root; only references may");
        }
      }
    }
    segments_[root].isOwned = true;
  }

  // Every structure has at most one owner, so the structures that the root reaches form a tree.
  void findLevels(std::size_t root) {
    std::vector<std::size_t> firstLink(segments_.size() + 1, 0);
    for (const Link &link : links_) ++firstLink[link.from + 1];
    for (std::size_t i = 1; i < firstLink.size(); ++i) firstLink[i] += firstLink[i - 1];
    std::vector<std::size_t> waiting{root};  // links are sorted by `from`
    segments_[root].level = 1;
    while (!waiting.empty()) {
      const std::size_t from = waiting.back();
      waiting.pop_back();
      for (std::size_t i = firstLink[from]; i < firstLink[from + 1]; ++i) {
        const Link &link = links_[i];
        if (link.field->role == Field::Reference) continue;
        const std::uint32_t deeper = link.field->role == Field::Child ? 1 : 0;
        segments_[link.to].level = segments_[from].level + deeper;
        if (segments_[link.to].level > MEM_PACK_MAX_LEVELS) {
          link.node.fail(fmt::format("the structure is deeper than {} levels",
                                     static_cast<int>(MEM_PACK_MAX_LEVELS)));
        }
        waiting.push_back(link.to);
      }
    }
    for (const MadeSegment &made : segments_) {
      if (made.level == 0)
        made.node.fail("no child or sibling pointers lead from the root to this structure");
    }
  }

  void link() {
    for (const Link &link : links_) {
      setAddress(segments_[link.from], *link.field, segments_[link.to].bytes.data());
    }
  }

  const ChainDefinitions &definitions_;
  const PortJsonNode &top_;
  std::deque<MadeSegment> segments_;  // a deque, so that addresses stay
  std::map<std::string, std::size_t, std::less<>> byLabel_;
  std::vector<Link> links_;
  std::deque<std::string> texts_;
  std::deque<std::u16string> wideTexts_;
  std::vector<SetBytes> set_;  // of the current structure
  std::size_t storage_ = 0;
  std::size_t longest_ = 0;
  const void *root_ = nullptr;
};

}  // namespace

NativeChain encodeChain(RunningLibrary &library, const ChainDefinitions &definitions,
                        const std::string &name, std::string_view json, std::int32_t blockLength) {
  if (definitions.pointerWidth() == 4) {
    throw ToolError(
        "the definitions are for pointers of 4 bytes, but chains are made with pointers of 8 "
        "bytes");
  }
  definitions.checkLayout(kPointerLen);
  const EncodeControlBlock controlBlock(definitions);
  const PortJsonText document(name, json);
  const PortJsonNode top(document);
  SegmentMaker maker(definitions, top);
  maker.run();
  const std::int32_t least = leastBlockLength(controlBlock.length(), maker.longestItem());
  if (blockLength == 0) {
    blockLength = std::max(kUsualBlockLen, least);
  } else {
    refuseShortBlocks(blockLength, controlBlock.length(), maker.longestItem());
  }
  return packNative(library, controlBlock.get(), maker.root(), blockLength);
}

}  // namespace memtool
