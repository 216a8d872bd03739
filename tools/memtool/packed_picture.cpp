#include "packed_picture.hpp"
namespace memtool {
std::string chainPicture(const std::string &, const PackedChain &) {
  return "";
}
}  // namespace memtool
