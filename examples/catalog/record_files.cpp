#include "record_files.hpp"

#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "catalog_support.hpp"

namespace catalog {
namespace {

constexpr mem::HeapSettings kPortHeap = {.areaKb = 256, .subPool = 21};

}  // namespace

void writeChainFile(const mem::PackedChain &chain, const std::filesystem::path &path) {
  std::string bytes;
  for (const std::span<const std::byte> used : chain) {
    bytes.append(reinterpret_cast<const char *>(used.data()), used.size());
  }
  writeBytes(path, bytes);
}

mem::PackedChain readChainFile(const mem::Context &context, const std::filesystem::path &path) {
  const std::string bytes = readBytes(path);
  mem::Result<mem::PackedChain> chain =
      mem::PackedChain::load(context, std::as_bytes(std::span(bytes)));
  if (!chain.isOk() && chain.error().isRefusal()) {
    throw InputError(utf8FromPath(path) + " is not a chain file: " + chain.error().nameText());
  }
  return need(std::move(chain));
}

const PackageRecord *unpackRecords(mem::PackedChain &chain, const std::filesystem::path &path) {
  const mem::Result<PackageRecord *> root = chain.unpack(kPackTable);
  if (root.isOk()) return root.value();
  throw InputError(utf8FromPath(path) + " cannot be unpacked: " + root.error().line().text);
}

std::uint64_t writePortFile(const mem::Context &context, const PackageRecord &root,
                            const std::filesystem::path &path) {
  mem::PortString string = need(mem::PortString::write(context, kPortTable, root, kPortHeap));
  std::string text;
  text.reserve(string.length());
  for (const std::string_view piece : string) text.append(piece);
  need(string.close());
  writeBytes(path, text);
  return text.size();
}

PortRecords readPortFile(const mem::Context &context, const std::filesystem::path &path) {
  const std::string text = readBytes(path);
  mem::Heap heap = need(mem::Heap::open(context, kPortHeap));
  const auto root = mem::readPortString<PackageRecord>(context, heap, kPortTable, text);
  if (!root.isOk()) {
    throw InputError(utf8FromPath(path) + " is not a port string of a catalogue");
  }
  return {std::move(heap), root.value(), text.size()};
}

}  // namespace catalog
