#include "chain_file.hpp"

#include <cstddef>
#include <string>

#include "binary_file.hpp"
#include "running_library.hpp"
#include "utf_text.hpp"

namespace catalog {
namespace {

constexpr std::int16_t kChainSubPool = 0;  // where MEM_Pack and MEM_Unpack obtain their blocks
constexpr std::size_t kFileOff = offsetof(MemPackBlock, UsedLen);  // of what a file holds

}  // namespace

PackedChain::PackedChain(refhost::Host &host, const MemPackCB &packCB, const void *root,
                         std::int32_t blockLength)
    : host_(host), blockLength_(blockLength) {
  const std::int16_t result = host_.vector().MEM_Pack(&packCB, root, blockLength_, &first_);
  try {
    check(host_, "MEM_Pack", result);
  } catch (...) {
    release();  // a failed call may leave the blocks that it had obtained
    throw;
  }
}

ChainSize PackedChain::size() const {
  ChainSize size;
  for (const MemPackBlock *block = first_; block != nullptr; block = block->pNext) {
    ++size.blocks;
    size.bytes += block->UsedLen;
  }
  return size;
}

void PackedChain::write(const std::filesystem::path &path) const {
  std::string bytes;
  for (const MemPackBlock *block = first_; block != nullptr; block = block->pNext) {
    bytes.append(reinterpret_cast<const char *>(block) + kFileOff, block->UsedLen);
  }
  writeBytes(path, bytes);
}

namespace {

constexpr std::size_t kUsedLenSize = 2;  // in front of each block's other bytes
constexpr std::size_t kVersionOff = 2;   // in the file
constexpr std::size_t kLeastFile = 6;    // used length and version, in the first block

// The version's last character tells the order; EBCDIC versions are big-endian throughout.
bool isBigEndian(const std::string &bytes) {
  return static_cast<unsigned char>(bytes[kVersionOff]) >= 0xF0 || bytes[kVersionOff + 3] == '1';
}

std::size_t usedLength(const std::string &bytes, std::size_t at, bool bigEndian) {
  const auto first = static_cast<unsigned char>(bytes[at]);
  const auto second = static_cast<unsigned char>(bytes[at + 1]);
  return bigEndian ? first * 256U + second : second * 256U + first;
}

}  // namespace

LoadedChain::LoadedChain(refhost::Host &host, const std::filesystem::path &path)
    : host_(host), name_(utf8FromPath(path)) {
  try {
    load(readBytes(path));
  } catch (...) {
    release();
    throw;
  }
}

void LoadedChain::load(const std::string &bytes) {
  if (bytes.size() < kLeastFile) throw InputError(name_ + " is no chain file: it is too short");
  const bool bigEndian = isBigEndian(bytes);
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t left = bytes.size() - at;
    const std::size_t used = left < kUsedLenSize ? 0 : usedLength(bytes, at, bigEndian);
    const std::size_t least = blocks_.empty() ? kLeastFile : kUsedLenSize;
    if (used < least || used > left) {
      throw InputError(name_ + " is no chain file: wrong length of block " +
                       std::to_string(blocks_.size()));
    }
    const auto length = static_cast<std::uint32_t>(kFileOff + used);
    void *const area = host_.vector().MEM_Alloc(length, kChainSubPool);
    if (area == nullptr) throw ServiceError("MEM_Alloc failed: no storage for a block");
    auto *const block = static_cast<MemPackBlock *>(area);
    block->pNext = nullptr;
    bytes.copy(static_cast<char *>(area) + kFileOff, used, at);
    if (!blocks_.empty()) blocks_.back().block->pNext = block;
    blocks_.push_back({block, length});
    at += used;
  }
  size_ = {blocks_.size(), bytes.size()};
}

const void *LoadedChain::unpack(const MemPackCB &packCB) {
  MemPackBlock *first = blocks_.front().block;
  void *root = nullptr;
  const std::int16_t result = host_.vector().MEM_Unpack(&first, &root, &packCB);
  try {
    check(host_, "MEM_Unpack", result);
  } catch (const ServiceError &error) {
    throw InputError(name_ + " cannot be unpacked: " + error.what());
  }
  if (first != blocks_.front().block) made_ = first;
  return root;
}

void LoadedChain::release() {
  for (const Block &block : blocks_) {
    host_.vector().MEM_Free(block.block, block.length, kChainSubPool);
  }
  blocks_.clear();
  while (made_ != nullptr) {
    MemPackBlock *const next = made_->pNext;
    host_.vector().MEM_Free(made_, MEM_UNPACK_BLOCK_LEN, kChainSubPool);
    made_ = next;
  }
}

void PackedChain::release() {
  while (first_ != nullptr) {
    MemPackBlock *const next = first_->pNext;
    host_.vector().MEM_Free(first_, static_cast<std::uint32_t>(blockLength_), kChainSubPool);
    first_ = next;
  }
}

}  // namespace catalog
