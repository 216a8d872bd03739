// What the tests of the sink share: calls with texts of both kinds, and the state that they leave.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "memtest.hpp"
#include "sinkmodel.hpp"

namespace memtest {

using sinkmodel::Text;

// A text outside the sink, of even address and with both kinds' terminator, so that its address can
// be passed to any of the services.
class OwnText {
 public:
  explicit OwnText(const Text &text) : units_(text.bytes.size() / 2 + 2) {
    std::memcpy(units_.data(), text.bytes.data(), text.bytes.size());
  }
  const char *narrow() const { return reinterpret_cast<const char *>(units_.data()); }
  const char16_t *wide() const { return units_.data(); }

 private:
  std::vector<char16_t> units_;
};

// The string services with a text of either kind. The cell at `ppSunk` goes in and comes out.
inline std::int16_t sinkText(MEMFunctionVector &mem, const Text &text, const void **ppSunk) {
  const OwnText own(text);
  const auto call = [ppSunk](auto *entry, auto *pText) {
    auto *pSunk = static_cast<decltype(pText)>(*ppSunk);
    const std::int16_t result = entry(pText, &pSunk);
    *ppSunk = pSunk;
    return result;
  };
  return text.isWide ? call(mem.MEM_WSinkString, own.wide())
                     : call(mem.MEM_SinkString, own.narrow());
}

inline std::int16_t verifyText(MEMFunctionVector &mem, const Text &text, const void **ppSunk) {
  const OwnText own(text);
  const auto call = [ppSunk](auto *entry, auto *pText) {
    auto *pSunk = static_cast<decltype(pText)>(*ppSunk);
    const std::int16_t result = entry(pText, &pSunk, nullptr);
    *ppSunk = pSunk;
    return result;
  };
  return text.isWide ? call(mem.MEM_WSinkVerify, own.wide())
                     : call(mem.MEM_SinkVerify, own.narrow());
}

inline std::int16_t deleteSunk(MEMFunctionVector &mem, const void *pSunk, bool isWide) {
  return isWide ? mem.MEM_WSinkDelete(static_cast<const char16_t *>(pSunk))
                : mem.MEM_SinkDelete(static_cast<const char *>(pSunk));
}

// A started process on dirty storage. After every step of a test the sink is consistent; at the
// test's end nothing is left.
class SinkTest : public StartedTest {
 protected:
  SinkTest() : StartedTest(withDirtyStorage()) {}

  MEMProcessBlock &block() { return *host.anchor(); }

  const char *sink(const std::string &text) {
    const char *pSunk = nullptr;
    EXPECT_EQ(mem.MEM_SinkString(text.c_str(), &pSunk), 0) << text;
    return pSunk;
  }
  const char16_t *sink(const std::u16string &text) {
    const char16_t *pSunk = nullptr;
    EXPECT_EQ(mem.MEM_WSinkString(text.c_str(), &pSunk), 0);
    return pSunk;
  }

  // Uses of a copy, 0 when there is none at the address.
  std::uint64_t uses(const void *pSunk) {
    for (const sinkmodel::SunkCopy &copy : sinkmodel::sunkCopies(block())) {
      if (copy.address == pSunk) return copy.uses;
    }
    return 0;
  }

  void expectSound() { EXPECT_EQ(sinkmodel::unsoundness(block()), ""); }

  // Every byte of every string space is under protection.
  void expectProtected() {
    for (std::int32_t i = 0; i < block().SegmentCount; ++i) {
      const std::uint8_t *const space = block().Segments[i].pSpace;
      for (std::uint32_t offset = 0; offset < sinkmodel::kSpaceLen; offset += kSmallestPage) {
        if (!host.isReadOnly(space + offset)) {
          ADD_FAILURE() << "segment " << i << " is writable at " << offset;
          return;
        }
      }
    }
  }

  static constexpr std::uint32_t kSmallestPage = 4096;
};

}  // namespace memtest
