#include "chain_file.hpp"

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <system_error>

#include "running_library.hpp"
#include "utf_text.hpp"

namespace catalog {
namespace {

constexpr std::int16_t kChainSubPool = 0;  // where MEM_Pack obtains its blocks

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
  errno = 0;
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  const bool isOpen = file.is_open();
  for (const MemPackBlock *block = first_; file && block != nullptr; block = block->pNext) {
    const char *const bytes = reinterpret_cast<const char *>(block);
    file.write(bytes + offsetof(MemPackBlock, UsedLen), block->UsedLen);
  }
  file.close();
  if (file) return;

  const std::string reason = std::generic_category().message(errno != 0 ? errno : EIO);
  std::error_code ignored;
  if (isOpen && std::filesystem::is_regular_file(path, ignored)) {
    std::filesystem::remove(path, ignored);
  }
  throw InputError("cannot write " + utf8FromPath(path) + ": " + reason);
}

void PackedChain::release() {
  while (first_ != nullptr) {
    MemPackBlock *const next = first_->pNext;
    host_.vector().MEM_Free(first_, static_cast<std::uint32_t>(blockLength_), kChainSubPool);
    first_ = next;
  }
}

}  // namespace catalog
