// Runs MEM_Unpack on chains that may be hostile and reports what the call did against its
// contract: a wrong code or text, an access outside of the blocks, storage that was not returned,
// a structure that leads out of its blocks. Uses no test framework, so that fuzzers can use it,
// too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "refhost.hpp"

namespace chainrun {

using Bytes = std::vector<std::uint8_t>;
using Blocks = std::vector<Bytes>;  // of each block the bytes from block offset 8 on

// Returns the blocks of a chain, each of that length, to the library.
void returnChain(MEMFunctionVector &mem, MemPackBlock *first, std::int32_t blockLen);

// Ranges of storage that a structure may be in.
class Ranges {
 public:
  void add(const void *start, std::size_t length);
  // Bytes from the address to the end of its range, 0 when it is in none.
  std::size_t rest(const void *address) const;

 private:
  std::map<std::uintptr_t, std::uintptr_t> ends_;  // end of the range that begins at the key
};

// A chain in storage. Each block has an area of its own that ends with its last used byte, or with
// the head that every block has. Under the address sanitizer the area is an allocation; elsewhere
// guard bytes surround it.
class BlockAreas {
 public:
  // `isSwapped`: the used lengths are in the other byte order than this machine's. A block whose
  // used length is longer than its bytes goes on with zeros.
  BlockAreas(const Blocks &blocks, bool isSwapped);

  MemPackBlock *first() const;
  const Ranges &ranges() const { return ranges_; }
  Bytes contentOfFirst() const;  // from block offset 8 on
  // "" while guard bytes and links are as they were made.
  std::string damage() const;

 private:
  struct Area {
    std::unique_ptr<std::uint8_t[]> storage;
    std::size_t length;  // of the block
  };
  std::uint8_t *blockAt(std::size_t index) const;

  std::vector<Area> areas_;
  Ranges ranges_;
};

// What a call answered, from its result and the error area.
struct Answer {
  std::int16_t result = 0;
  std::string text;
  bool isNewChain = false;
};

class CheckedUnpack {
 public:
  explicit CheckedUnpack(refhost::Session &session) : session_(session) {}

  // Unpacks the blocks with the caller's control block (null: none). Returns "" or what was wrong.
  // What a call built is returned to the host again.
  std::string run(const Blocks &blocks, const MemPackCB *callers);

  const Answer &answer() const { return answer_; }

 private:
  std::string checkFailure() const;
  std::string checkSuccess(const Bytes &firstBlock, const BlockAreas &areas, bool isSwapped,
                           const MemPackCB *callers, MemPackBlock *first, void *root);

  refhost::Session &session_;
  Answer answer_;
};

// True when a version's numbers are in the other byte order than this machine's, for a host with
// this platform flag. Versions that do not exist count as not swapped.
bool isSwapped(const Bytes &firstBlock, bool platformFlag);

// The blocks of a chain in file form. A used length that is too short for a block or too long for
// the file is taken as what there is.
Blocks splitFile(const Bytes &file, bool platformFlag);

// One input of the fuzzer: settings of the host, the caller's control block and the chain in file
// form. Every byte string is an input.
//
//   1 byte   bit 0: the platform flag is set; bit 1: no caller's control block; bit 2: the host
//            offers no conversion
//   2 bytes  length of the control block that follows, little-endian
//   ...      control block; missing bytes are zero
//   ...      chain in file form: each block as its used bytes
struct FuzzCase {
  bool platformFlag = false;
  bool hasControlBlock = true;
  bool hasConversion = true;
  Bytes controlBlock;  // of the length that its count asks for
  Blocks blocks;

  const MemPackCB *callers() const;
};
FuzzCase decodeFuzzCase(const std::uint8_t *data, std::size_t size);
Bytes encodeFuzzCase(bool platformFlag, const Bytes &controlBlock, const Bytes &file);

// Runs one input. Returns "" or how the call broke its contract.
std::string runFuzzCase(refhost::Session &session, const std::uint8_t *data, std::size_t size);

}  // namespace chainrun
