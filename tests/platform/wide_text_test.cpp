// Where wide text ends, for every service that has to find out: texts of all lengths at all
// alignments, between pages that fault when they are read.

#include <array>
#include <vector>

#include "guardpages.hpp"
#include "packtest.hpp"
#include "porttest.hpp"
#include "sinktest.hpp"

namespace memtest {
namespace {

constexpr std::size_t kAlignments = 32;

// Units that have a zero byte, or together make one at an odd place, and some that have none.
std::u16string textOf(std::size_t length) {
  constexpr char16_t kUnits[] = {0x0100, 0x0001, 0x00FF, 0xFF00, 0x8000, 0x0080, 'x', 0x7FFF};
  std::u16string text;
  for (std::size_t i = 0; i < length; ++i) text.push_back(kUnits[(i + i / 8) % std::size(kUnits)]);
  return text;
}

// Bytes between two pages that fault.
class Guarded {
 public:
  Guarded() : pages_(kOpen + 2) {
    pages_.forbid(0);
    pages_.forbid(kOpen + 1);
  }

  // `offset` bytes into the first page that may be read; zeros all around, as of terminators.
  std::uint8_t *atStart(const void *from, std::size_t length, std::size_t offset) {
    return put(from, length, begin() + offset, 0);
  }
  // `offset` bytes before the end of the last page that may be read; nothing around is zero.
  std::uint8_t *atEnd(const void *from, std::size_t length, std::size_t offset) {
    return put(from, length, end() - offset - length, 0xEE);
  }

 private:
  static constexpr std::size_t kOpen = 2;

  std::uint8_t *begin() const { return pages_.page(1); }
  std::uint8_t *end() const { return pages_.behind(kOpen); }

  std::uint8_t *put(const void *from, std::size_t length, std::uint8_t *to, int around) {
    std::memset(begin(), around, static_cast<std::size_t>(end() - begin()));
    std::memcpy(to, from, length);
    return to;
  }

  GuardPages pages_;
};

std::vector<std::size_t> allLengths() {
  std::vector<std::size_t> lengths;
  for (std::size_t length = 0; length <= 100; ++length) lengths.push_back(length);
  // Some of these end on the second page.
  for (const std::size_t length :
       {127U, 128U, 129U, 512U, 1000U, 2031U, 2032U, 2047U, 2048U, 2049U, 3000U}) {
    lengths.push_back(length);
  }
  return lengths;
}

// Calls with every text at every place, until something is wrong.
template <class Test, class Call>
void withEveryText(Test &, const Call &call) {
  Guarded guarded;
  for (const std::size_t length : allLengths()) {
    const std::u16string text = textOf(length);
    const std::size_t bytes = 2 * length + 2;
    for (std::size_t offset = 0; offset < kAlignments; ++offset) {
      for (const bool isAtEnd : {false, true}) {
        SCOPED_TRACE(refhost::formatText("%u units, %u bytes %s", length, offset,
                                         isAtEnd ? "before the end" : "after the start"));
        const void *const address = isAtEnd ? guarded.atEnd(text.c_str(), bytes, offset)
                                            : guarded.atStart(text.c_str(), bytes, offset);
        call(static_cast<const char16_t *>(address), text);
        if (Test::HasFailure()) return;
      }
    }
  }
}

// Concatenation.

using WideCatTest = StartedTest;

TEST_F(WideCatTest, AppendsTheWholeTextAndNoMore) {
  withEveryText(*this, [this](const char16_t *pText, const std::u16string &text) {
    MEMCatCB cat{};
    ASSERT_EQ(mem.MEM_CatOpen(&cat), 0);
    EXPECT_EQ(mem.MEM_Cat(&cat, u"x"), 0);
    EXPECT_EQ(mem.MEM_Cat(&cat, pText), 0);
    EXPECT_EQ(cat.Len, text.size() + 1);
    EXPECT_TRUE(std::u16string(cat.pText, cat.Len + 1) == u"x" + text + u'\0');
    EXPECT_EQ(mem.MEM_CatClose(&cat), 0);
  });
}

// The sink.

using WideSinkTest = SinkTest;

TEST_F(WideSinkTest, SinksFindsAndDeletesTheWholeTextAndNoMore) {
  withEveryText(*this, [this](const char16_t *pText, const std::u16string &text) {
    const char16_t *pSunk = nullptr;
    ASSERT_EQ(mem.MEM_WSinkString(pText, &pSunk), 0);
    EXPECT_TRUE(std::u16string(pSunk) == text);
    EXPECT_EQ(block().Segments[0].TextLen, 2 * text.size() + 2);
    const char16_t *pFound = nullptr;
    EXPECT_EQ(mem.MEM_WSinkVerify(pText, &pFound, nullptr), 0);
    EXPECT_EQ(pFound, pSunk);
    EXPECT_EQ(mem.MEM_WSinkDelete(pSunk), 0);
    EXPECT_EQ(block().Segments[0].UsedLen, 0U);
  });
}

// Packing.

constexpr std::int32_t kBlockLen = 32000;

class WidePackTest : public PackTest {
 protected:
  const ControlBlock controlBlock{{.fixedLen = 8, .children = {{1, 0}}}, wideKind()};

  void packText(const void *pText) {
    std::uint8_t *const root = root_.data();
    putPointer(root, 0, pText);
    ASSERT_EQ(pack(controlBlock, root, kBlockLen), 0) << nameText();
  }

  Bytes root_ = Bytes(8);
};

TEST_F(WidePackTest, PacksTheWholeTextAndNoMore) {
  withEveryText(*this, [this](const char16_t *pText, const std::u16string &text) {
    packText(pText);
    // The model sees the text where only its units are.
    Items plain;
    putPointer(root_.data(), 0, plain.wide(text));
    const packmodel::Outcome expected =
        packmodel::pack(controlBlock.get(), root_.data(), kBlockLen, settings());
    EXPECT_EQ(blockDifference(blocks(), expected.blocks), "");
  });
}

// A text that ends where its block does is found, and nothing after the block is read. Without a
// terminator it is refused.
TEST_F(WidePackTest, UnpacksTextThatEndsWithItsBlock) {
  Guarded guarded;
  for (std::size_t length = 0; length <= 100; ++length) {
    const std::u16string text = textOf(length);
    packText(text.c_str());
    const auto *const packedBytes = reinterpret_cast<const std::uint8_t *>(first);
    const auto textOff = numberAt<std::uint16_t>(packedBytes + 8 + kHeadEnd + 2);
    for (const bool hasEnd : {true, false}) {
      const auto used = static_cast<std::uint16_t>(textOff + 2 * length + (hasEnd ? 2 : 0));
      Bytes image(packedBytes, packedBytes + 8 + used);
      putNumber(image.data() + 8, used);
      // Blocks are aligned as the host's storage is, so only some lengths end with the page.
      const std::size_t nearest = (8 - image.size() % 8) % 8;
      for (std::size_t offset = nearest; offset < kAlignments && !HasFailure(); offset += 8) {
        SCOPED_TRACE(refhost::formatText("%u units, %u bytes before the end", length, offset));
        auto *const pBlock =
            reinterpret_cast<MemPackBlock *>(guarded.atEnd(image.data(), image.size(), offset));
        MemPackBlock *pFirst = pBlock;
        void *pRoot = nullptr;
        const std::int16_t result = mem.MEM_Unpack(&pFirst, &pRoot, controlBlock.get());
        if (!hasEnd) {
          EXPECT_EQ(result, MEMERR_PACKROFF);
          continue;
        }
        ASSERT_EQ(result, 0) << nameText();
        const std::uint8_t *const pText = getPointer(static_cast<std::uint8_t *>(pRoot), 0);
        EXPECT_EQ(bytesOf(pText, 2 * length + 2), bytesOf(text.c_str(), 2 * length + 2));
      }
    }
  }
}

// Port strings.

class WidePortTest : public PortTest {
 protected:
  void expectWritten(const Defs &defs, const void *root, const void *plainRoot) {
    EXPECT_EQ(written(defs, 1, root), portmodel::write(defs.table(), 1, plainRoot));
    if (++calls_ % 100 == 0) renewHeap();
  }

  std::size_t calls_ = 0;
};

TEST_F(WidePortTest, WritesTheWholeTextOfAPointerAndNoMore) {
  Defs defs;
  defs.add(1, 8, {Field(1, MEM_PORT_WPSTR, 8, 0)});
  withEveryText(*this, [&](const char16_t *pText, const std::u16string &text) {
    Items plain;
    const Bytes root = bytesOf(&pText, sizeof pText);
    Bytes plainRoot(8);
    putPointer(plainRoot.data(), 0, plain.wide(text));
    expectWritten(defs, root.data(), plainRoot.data());
  });
}

TEST_F(WidePortTest, WritesAFieldUpToItsTerminatorOrItsEnd) {
  Guarded guarded;
  for (std::size_t units = 1; units <= 40; ++units) {
    const auto bytes = static_cast<std::int32_t>(2 * units);
    Defs defs;
    defs.add(1, bytes, {Field(1, MEM_PORT_WCHARSZ, bytes, 0)});
    for (std::size_t length = 0; length <= units; ++length) {
      std::u16string field = textOf(length);
      field.append(units - length, u'\0');
      for (std::size_t offset = 0; offset < 17 && !HasFailure(); ++offset) {
        SCOPED_TRACE(
            refhost::formatText("%u of %u units, %u bytes before the end", length, units, offset));
        expectWritten(defs, guarded.atEnd(field.data(), 2 * units, offset), field.data());
      }
    }
  }
}

TEST_F(WidePortTest, TakesTheWholeDefaultAndNoMore) {
  constexpr std::int32_t kUnits = 4000;
  withEveryText(*this, [&](const char16_t *pText, const std::u16string &text) {
    Defs defs;
    defs.add(1, 4 + 2 * kUnits,
             {Field(1, MEM_PORT_LONG, 4, 0),
              Field(2, MEM_PORT_WCHARSZ, 2 * kUnits, 4).byDefault(pText)});
    ASSERT_EQ(readBlock(defs.table(), portString("(1<1N5>)")), 0);
    const auto *const field = static_cast<const std::uint8_t *>(read) + 4;
    EXPECT_EQ(bytesOf(field, 2 * text.size() + 2), bytesOf(text.c_str(), 2 * text.size() + 2));
    if (++calls_ % 100 == 0) renewHeap();
  });
}

}  // namespace
}  // namespace memtest
