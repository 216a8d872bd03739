#include "packed_native.hpp"
namespace memtool {
NativeChain toNative(RunningLibrary &, const PackedChain &, const NativeRequest &, Console &) {
  return {};
}
}  // namespace memtool
