// Foreign writers of packed chains, emulated: whatever platform wrote a chain, this makes its
// bytes from a tree that is described without any layout. Nothing of it is the library's, and
// nothing depends on the byte order of the machine that runs it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace chainwriter {

using Bytes = std::vector<std::uint8_t>;

// A row of the version table together with the width of the writer's pointers.
struct Writer {
  std::array<std::uint8_t, 4> version;
  bool isOldLayout;
  std::size_t wideSize;
  bool isBigEndian;
  bool isEbcdic;
  std::size_t pointerWidth;

  std::string name() const;  // "0221_32bit", "ebcdic0200_64bit"
};

// Every version with both widths.
const std::vector<Writer> &allWriters();
// The writer of a version in ASCII.
Writer writerOf(std::string_view version, std::size_t pointerWidth = 8);
Writer ebcdicWriterOf(std::string_view version, std::size_t pointerWidth = 8);

enum class Form : std::uint8_t { Fixed, Counted, SelfDescribing, Narrow, Wide };

// What a segment consists of, in the order in which it is stored.
struct Part {
  enum class What : std::uint8_t { Data, Child, Sibling, Reference };
  What what;
  std::size_t number;  // bytes of data, or the kind of a child
};
inline Part data(std::size_t length) {
  return {Part::What::Data, length};
}
inline Part child(std::size_t kind) {
  return {Part::What::Child, kind};
}
inline Part sibling() {
  return {Part::What::Sibling, 0};
}
inline Part reference() {
  return {Part::What::Reference, 0};
}

struct Kind {
  Form form = Form::Fixed;
  std::vector<Part> parts = {};
  bool hasEntriesBackwards =
      false;  // the control block lists its children from the last to the first
};

inline constexpr std::size_t kNone = static_cast<std::size_t>(-1);

struct Node {
  std::size_t kind = 0;
  Bytes data = {};  // of all data parts in turn; what is left over is the tail
                    // of a segment that holds its own length
  std::vector<std::size_t> targets = {};  // node of each pointer part in turn, kNone: null
  std::string narrow = {};
  std::u32string wide = {};
};

// Node 0 is the root, of kind 0. A narrow text may be the target of several pointers.
struct Tree {
  std::vector<Kind> kinds;
  std::vector<Node> nodes;
};

// Where the parts of a kind are under a pointer width. Offsets count from the segment's start.
struct Layout {
  std::vector<std::size_t> offsets;  // of each part
  std::size_t length;                // without a tail
};
Layout layoutOf(const Kind &kind, std::size_t pointerWidth);

// A content byte: block number, and offset from block offset 8.
struct Place {
  std::size_t block = 0;
  std::size_t offset = 0;
};

// A chain as its blocks' used bytes from block offset 8 on, in the writer's byte order.
class Chain {
 public:
  explicit Chain(const Writer &writer) : writer_(writer) {}

  const Writer &writer() const { return writer_; }
  std::vector<Bytes> blocks;
  std::vector<Place> places;  // of each node

  std::uint16_t number(Place place) const;
  void setNumber(Place place, std::uint16_t value);
  void setUsedLen(std::size_t block, std::uint16_t used) { setNumber({block, 0}, used); }
  // The file form: all blocks, end to end.
  Bytes file() const;

  // Places in the control block of block 0.
  static constexpr Place countPlace() { return {0, 6}; }
  Place descriptorPlace(std::size_t kind) const;
  Place childEntryPlace(std::size_t kind, std::size_t entry) const;
  Place referenceEntryPlace(std::size_t kind, std::size_t entry) const;

  // The pointer field of a node's n-th part, and what it is to hold.
  Place partPlace(const Tree &tree, std::size_t node, std::size_t part) const;
  void setPointer(Place field, Place target);

 private:
  Writer writer_;
};

// Writes as the packer of that platform does. REQUIRES: every item fits a block; the depth is
// small.
Chain write(const Tree &tree, const Writer &writer, std::size_t blockLen);

// Shortest block length that holds the head of a chain and its control block.
std::size_t smallestBlockLen(const Tree &tree, const Writer &writer);

// The control block that a caller here passes: the current layout, pointers of 8 bytes, numbers in
// the machine's order.
Bytes readersControlBlock(const Tree &tree);

// What a chain has become: the blocks themselves, or a new chain laid out by the reader.
enum class Became : std::uint8_t { Structure, NewChain };

// "" when the structure at `root` is the tree, else the first difference.
std::string difference(const Tree &tree, const Writer &writer, Became became, const void *root);

// A tree of every form: siblings, shared text, references in both directions, null pointers.
Tree sampleTree();
// Small trees of many shapes.
Tree randomTree(std::uint64_t seed);

}  // namespace chainwriter
