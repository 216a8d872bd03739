// A model of a concatenation buffer that knows nothing of the library, and a driver that makes each
// call on a real buffer and on its model and compares: results, errors, requests and returns of
// storage, and all bytes of block and storage. Storage may be refused at any call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "heapmodel.hpp"

namespace memtest {

inline constexpr std::uint32_t kFirstTextLen = 1024;
inline constexpr std::uint32_t kTextStep = 2048;

// The bytes that a text of so many characters takes with its terminator.
inline std::uint32_t neededFor(std::size_t characters) {
  return static_cast<std::uint32_t>(2 * (characters + 1));
}

// The first step that is longer than the need.
inline std::uint32_t grownTo(std::uint32_t need) {
  std::uint32_t length = kTextStep;
  while (length <= need) length += kTextStep;
  return length;
}

// By which service a text is appended.
enum class Append { kText, kLength };

// A block of the library's with what it should hold. Bytes that the library is not to write have
// the stage's filling.
class CheckedBuffer {
 public:
  explicit CheckedBuffer(Stage &stage) : stage_(stage) {
    std::memset(&cat_, kBlockFilling, sizeof cat_);
    stage_.watch.uses.clear();
    const std::int16_t result = stage_.mem.MEM_CatOpen(&cat_);
    const bool isRefused = takeUses() == Lines{"8(1024, 0) refused"};
    expectOutcome(stage_, result, isRefused ? Outcome{4026, "AcqMemCatExtString"} : Outcome{});
    if (isRefused) {
      EXPECT_EQ(cat_.pText, nullptr);
      EXPECT_TRUE(allBytesAre(at(&cat_, 8), 16, kBlockFilling));
      return;
    }
    length_ = kFirstTextLen;
    isFresh_ = true;
    check();
  }

  bool isOpen() const { return cat_.pText != nullptr; }
  const std::u16string &text() const { return text_; }
  std::uint32_t storageLen() const { return length_; }

  // REQUIRES for all below: isOpen()

  void append(const std::u16string &text, Append by) { append(text.c_str(), text.size(), by); }

  // Appends the buffer's own text from a character on.
  void appendOwn(std::size_t from, Append by) {
    append(cat_.pText + from, text_.size() - from, by);
  }

  void check() const {
    const Layout expected = Layout()
                                .address(cat_.pText)
                                .field(length_)
                                .field(static_cast<std::uint32_t>(text_.size()))
                                .field('A');
    EXPECT_EQ(changedRanges(expected.bytes(), bytesOf(&cat_, 17)), "");
    EXPECT_TRUE(allBytesAre(at(const_cast<MEMCatCB *>(&cat_), 17), 7, kBlockFilling));
    Bytes storage(length_, stage_.dirty);
    const std::size_t written = isFresh_ ? 0 : neededFor(text_.size());
    std::memcpy(storage.data(), text_.c_str(), written);
    const Bytes actual = bytesOf(cat_.pText, length_);
    if (actual != storage) FAIL() << "storage differs at " << changedRanges(storage, actual);
  }

  void close() {
    check();
    const AddressNames names = {{asNumber(cat_.pText), "text"}};
    EXPECT_EQ(stage_.mem.MEM_CatClose(&cat_), 0);
    EXPECT_EQ(stage_.watch.takeLines(names),
              (Lines{"9(text, " + std::to_string(length_) + ", 0)"}));
    EXPECT_EQ(cat_.pText, nullptr);
    EXPECT_EQ(cat_.BlkLen, length_);
  }

 private:
  static constexpr std::uint8_t kBlockFilling = 0x5E;

  void append(const char16_t *text, std::size_t length, Append by) {
    const auto end = by == Append::kText ? std::char_traits<char16_t>::length(text) : length;
    const std::u16string appended(text, end);  // the text may be gone afterwards
    const std::uint32_t need = neededFor(text_.size() + end);
    const bool grows = need > length_;
    AddressNames names = {{asNumber(cat_.pText), "old"}};

    const std::int16_t result =
        by == Append::kText ? stage_.mem.MEM_Cat(&cat_, text)
                            : stage_.mem.MEM_MemCat(&cat_, text, static_cast<std::int32_t>(length));

    const std::string request = "8(" + std::to_string(grownTo(need)) + ", 0)";
    const Lines uses = takeUses(names);
    if (grows && uses == Lines{request + " refused"}) {
      expectRefused(result, by);
      return;
    }
    expectOutcome(stage_, result, {});
    EXPECT_EQ(uses,
              grows ? (Lines{request, "9(old, " + std::to_string(length_) + ", 0)"}) : Lines{});
    text_ += appended;
    isFresh_ = false;
    if (grows) {
      ++stage_.tally.areas;
      length_ = grownTo(need);
    }
    check();
  }

  void expectRefused(std::int16_t result, Append by) {
    ++stage_.tally.refused;
    const Outcome direct{4026, "Memory Alloc failed"};
    const Outcome nested{4027, "MemCatStdStringFail", {0, 4026, "Memory Alloc failed"}};
    expectOutcome(stage_, result, by == Append::kLength ? direct : nested);
    check();
  }

  // The storage calls since the last look; refused requests are marked.
  Lines takeUses(const AddressNames &names = {}) {
    const std::vector<SlotUse> uses = stage_.watch.uses;
    Lines lines = stage_.watch.takeLines(names);
    for (std::size_t i = 0; i < uses.size(); ++i) {
      if (uses[i].slot == 8 && uses[i].object == nullptr) lines[i] += " refused";
    }
    return lines;
  }

  Stage &stage_;
  MEMCatCB cat_;
  std::u16string text_;
  std::uint32_t length_ = 0;  // bytes of storage
  bool isFresh_ = false;      // nothing has been appended yet, not even a terminator
};

}  // namespace memtest
