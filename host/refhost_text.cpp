// Character conversion, error reports and the exception filter.
#include <cstring>

#include "refhost_impl.hpp"
#include "refhost_unicode.hpp"

namespace refhost {

namespace {

constexpr std::uint16_t kUtf16 = 1200;
constexpr std::uint16_t kUtf32 = 12000;

bool isKnownPage(std::uint16_t page) {
  return page == kUtf16 || page == kUtf32;
}
std::size_t unitSize(std::uint16_t page) {
  return page == kUtf16 ? sizeof(char16_t) : sizeof(char32_t);
}

std::size_t countUnits(const void *text, std::uint16_t page, std::int32_t length) {
  if (length >= 0) return static_cast<std::size_t>(length) / unitSize(page);
  return page == kUtf16 ? unitsToTerminator<char16_t>(text) : unitsToTerminator<char32_t>(text);
}

// Calls use(codePoint) for each code point of the text; stops with false at the first invalid unit.
template <class Use>
bool forEachCodePoint(const void *text, std::uint16_t page, std::size_t count, Use use) {
  for (std::size_t i = 0; i < count;) {
    const Decoded decoded = page == kUtf16 ? decodeUtf16(text, i, count) : decodeUtf32(text, i);
    if (!decoded.isValid) return false;
    use(decoded.codePoint);
    i += decoded.units;
  }
  return true;
}

// Writes units to any address, aligned or not.
class UnitWriter {
 public:
  UnitWriter(void *out, std::uint16_t page) : out_(static_cast<char *>(out)), page_(page) {}

  void put(char32_t codePoint) {
    if (page_ == kUtf32) {
      store(codePoint);
    } else if (codePoint < 0x10000) {
      store(static_cast<char16_t>(codePoint));
    } else {
      store(static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
      store(static_cast<char16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
    }
  }

 private:
  template <class Unit>
  void store(Unit unit) {
    std::memcpy(out_, &unit, sizeof(unit));
    out_ += sizeof(unit);
  }

  char *out_;
  std::uint16_t page_;
};

std::size_t encodedSize(char32_t codePoint, std::uint16_t page) {
  return page == kUtf16 && codePoint >= 0x10000 ? 2 * sizeof(char16_t) : unitSize(page);
}

bool isValidRequest(std::uint16_t fromPage, std::uint16_t toPage, const void *in,
                    std::int32_t inLen, const void *out, std::int32_t outLen) {
  if (!isKnownPage(fromPage) || !isKnownPage(toPage)) return false;
  if (in == nullptr || out == nullptr || outLen < 0 || inLen < -1) return false;
  return inLen == -1 || static_cast<std::size_t>(inLen) % unitSize(fromPage) == 0;
}

// Invalid text is refused, not replaced. The output is written only if all of it fits.
std::uint16_t convert(std::uint16_t fromPage, std::uint16_t toPage, const void *in,
                      std::int32_t inLen, void *out, std::int32_t outLen) {
  if (!isValidRequest(fromPage, toPage, in, inLen, out, outLen)) return kBadArgument;
  const std::size_t count = countUnits(in, fromPage, inLen);
  std::size_t needed = unitSize(toPage);
  const auto measure = [&](char32_t c) { needed += encodedSize(c, toPage); };
  if (!forEachCodePoint(in, fromPage, count, measure)) return kBadText;
  if (needed > static_cast<std::size_t>(outLen)) return kNoRoom;
  UnitWriter writer(out, toPage);
  forEachCodePoint(in, fromPage, count, [&writer](char32_t c) { writer.put(c); });
  writer.put(0);
  return 0;
}

}  // namespace

namespace services {

std::uint16_t convertText(std::uint16_t fromPage, std::uint16_t toPage, const void *pIn,
                          std::int32_t inLen, void *pOut, std::int32_t outLen) {
  Call call(Service::ConvertText, fromPage, toPage, pIn, inLen);
  if (call.faulted()) return call.faultCode();
  const std::uint16_t code = convert(fromPage, toPage, pIn, inLen, pOut, outLen);
  return code == 0 ? code : call.finish(call.refuse(code, "ConvertText"));
}

void reportError(char *pErrorText, const char *pDetail) {
  Call call(Service::ReportError, pErrorText, pDetail);
  if (call.faulted()) return;
  const std::lock_guard lock(call.host().reportMutex);
  call.host().reportedText = pErrorText == nullptr ? "" : pErrorText;
  call.host().reportedDetail = pDetail == nullptr ? "" : pDetail;
}

std::int32_t filterException(void *pException, MEMTraceFrame *pFrame) {
  Call call(Service::FilterException, pException, pFrame);
  if (call.faulted()) return call.faultCode();
  const std::int32_t answer = call.host().filterAnswer.load(std::memory_order_relaxed);
  const std::uint16_t result = call.host().filterResult.load(std::memory_order_relaxed);
  if (pFrame != nullptr && result != 0) {
    pFrame->Result = (pFrame->Result & 0xFFFF0000U) | result;
  }
  // The fault ends the calls inside this frame, which then do not leave their frames.
  if (pFrame != nullptr && answer == 1 && !unwindTo(call.thread(), pFrame)) {
    call.misuse("the frame was not entered on this thread");
  }
  return call.finish(answer);
}

}  // namespace services

}  // namespace refhost
