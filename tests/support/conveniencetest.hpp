// What the tests of the C++ header share.
#pragma once

#include <cstdint>
#include <utility>

#include "memtest.hpp"
#include "qj7mem00/mem.hpp"

namespace memtest {

// The value of a call that must succeed.
template <class Value>
Value taken(mem::Result<Value> result) {
  if (!result.isOk()) ADD_FAILURE() << result.error().line().text;
  return std::move(result).value();
}

inline void expectOk(const mem::Status &status) {
  EXPECT_TRUE(status.isOk()) << status.error().line().text;
}

template <class Value>
std::string failure(const mem::Result<Value> &result) {
  return result.isOk() ? "succeeded" : result.error().line().text;
}

// The code of a failure, 0 of a success.
template <class Value>
std::int32_t codeOf(const mem::Result<Value> &result) {
  return result.isOk() ? 0 : static_cast<std::int32_t>(result.error().code());
}

// Host storage is dirty: whatever is zero has been made so by the library or by the header.
class ConvenienceTest : public StartedTest {
 protected:
  ConvenienceTest() : StartedTest(withDirtyStorage()) {}

  const mem::Context context = mem::contextOf(host);
};

// A structure with a pointer of every kind, as segment of a chain.
struct Item {
  Item *pNext;
  const char *pName;
  const char16_t *pTitle;
  Item *pOther;
};

inline constexpr auto kItems = mem::packTable(mem::segment<Item>(
    mem::sibling(MEM_FIELD(Item, pNext)), mem::child(MEM_FIELD(Item, pName)),
    mem::child(MEM_FIELD(Item, pTitle)), mem::reference(MEM_FIELD(Item, pOther))));

}  // namespace memtest
