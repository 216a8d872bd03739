#include "unbuilt.h"

namespace mem {

std::int16_t failUnbuilt(const char *pName) noexcept {
  const EntryPoint entryPoint{pName, kSourceServ, 0, 0};  // writes no trace records
  CallFrame frame(entryPoint, ErrorArea::clear);
  return frame.fail({.code = MEMERR_NOT_SUPPORTED, .text = pName});
}

}  // namespace mem
