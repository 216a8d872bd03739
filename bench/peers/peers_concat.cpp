// Concatenation: wide text grows by appended pieces to 16,384 units and is then freed.
#include <string>

#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

constexpr std::size_t kUnits = 16384;

std::u16string piece(std::size_t units) {
  std::u16string made;
  for (std::size_t i = 0; i < units; ++i) made.push_back(static_cast<char16_t>(u'a' + i % 26));
  return made;
}

// MEM_MemCat, which gets the length, or MEM_Cat, which finds it.
enum class Length { told, found };

template <Length kLength>
class LibraryText {
 public:
  explicit LibraryText(BenchSession &session) : mem_(session.mem()) {}
  void open() { require(mem_.MEM_CatOpen(&cb_), "MEM_CatOpen"); }
  void append(const std::u16string &text) {
    if constexpr (kLength == Length::told) {
      mem_.MEM_MemCat(&cb_, text.c_str(), static_cast<std::int32_t>(text.size()));
    } else {
      mem_.MEM_Cat(&cb_, text.c_str());
    }
  }
  std::u16string_view text() const { return {cb_.pText, cb_.Len}; }
  void close() { require(mem_.MEM_CatClose(&cb_), "MEM_CatClose"); }

 private:
  MEMFunctionVector &mem_;
  MEMCatCB cb_{};
};

class StdText {
 public:
  void open() { text_ = {}; }
  void append(const std::u16string &text) { text_.append(text); }
  std::u16string_view text() const { return text_; }
  void close() { text_ = {}; }

 private:
  std::u16string text_;
};

template <class Text>
class Appends {
 public:
  template <class... Args>
  explicit Appends(std::size_t units, Args &...args) : piece_(piece(units)), text_(args...) {}

  std::int64_t run() {
    text_.open();
    for (std::size_t i = 0; i < count(); ++i) text_.append(piece_);
    text_.close();
    return static_cast<std::int64_t>(count());
  }

  void check() {
    text_.open();
    std::u16string expected;
    for (std::size_t i = 0; i < count(); ++i) {
      text_.append(piece_);
      expected += piece_;
    }
    demand(text_.text() == expected, "the text differs from the appended pieces");
    text_.close();
  }

 private:
  std::size_t count() const { return kUnits / piece_.size(); }

  const std::u16string piece_;
  Text text_;
};

}  // namespace

void addConcatenation() {
  for (const std::size_t units : {10U, 100U, 1000U}) {
    const std::string column = "/" + std::to_string(units);
    addLibrary("concat/MEM_MemCat" + column, HostKind::bench, [units](BenchSession &session) {
      return Appends<LibraryText<Length::told>>(units, session);
    });
    addLibrary("concat/MEM_Cat" + column, HostKind::bench, [units](BenchSession &session) {
      return Appends<LibraryText<Length::found>>(units, session);
    });
    addPeer("concat/std::u16string" + column, [units] { return Appends<StdText>(units); });
  }
}

}  // namespace bench
