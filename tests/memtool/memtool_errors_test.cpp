// memtool errors: what it finds and writes, and the page of the manual that it makes.

#include <iomanip>

#include "error_codes.hpp"
#include "memtooltest.hpp"

namespace memtest {
namespace {

class MemtoolErrorsTest : public ToolTest {
 protected:
  // Codes that a search lists, or explains.
  static std::vector<std::uint32_t> found(const std::string &wanted) {
    std::vector<std::uint32_t> codes;
    for (const memtool::ErrorCode *code : memtool::findErrorCodes(wanted)) {
      codes.push_back(code->code);
    }
    return codes;
  }
};

using Codes = std::vector<std::uint32_t>;

TEST_F(MemtoolErrorsTest, OneCodeIsExplained) {
  const std::string text =
      "4082 0xFF2 MEMERR_SINKITEXT\n"
      "Input Text error\n"
      "\n"
      "\"InputTextPtrNull\"\n"
      "  from        MEM_SinkString, MEM_SinkVerify, MEM_WSinkString, MEM_WSinkVerify\n"
      "  seen        the result is -1 (0xFFFF); Code (offset 80) is the code, NameText (offset "
      "360) "
      "the\n"
      "              text\n"
      "  cause       The text is a null pointer.\n"
      "  what to do  Pass a text; an empty one is allowed.\n";
  for (const char *wanted : {"4082", "0xFF2", "0xff2", "0x00000FF2", "MEMERR_SINKITEXT",
                             "sinkitext", "InputTextPtrNull", "inputtextptrnull"}) {
    EXPECT_EQ(outputOf({"errors", wanted}), text) << wanted;
  }
}

TEST_F(MemtoolErrorsTest, CodeWithoutARowIsExplained) {
  EXPECT_TRUE(
      outputOf({"errors", "4028"})
          .starts_with("4028 0xFBC MEM_CAT_CLOSE_ERROR\nThe message table has no row for this "
                       "code: a host shows the number only.\n\n"
                       "\"FreeMemCatExtString\"\n  from        MEM_CatClose\n"));
}

TEST_F(MemtoolErrorsTest, FailuresWithoutACodeAreFound) {
  EXPECT_EQ(found("0"), (Codes{0}));
  EXPECT_EQ(found("0x0"), (Codes{0}));
  EXPECT_EQ(found("WideStringOutOfPlace"), (Codes{0}));
  EXPECT_EQ(found("MEM_HashScan"), (Codes{4031, 0}));
  EXPECT_TRUE(outputOf({"errors", "0"})
                  .starts_with("0 0x0 no code\n0 is the result of a successful call."));
}

TEST_F(MemtoolErrorsTest, NamesGoBeforeOtherTexts) {
  EXPECT_EQ(found("gate"), (Codes{3090, 4057, 4081}));
  EXPECT_EQ(found("CAT"), (Codes{4025, 4026, 4027, 4028}));
  EXPECT_EQ(found("MEM_CellClear"), (Codes{4014}));
  EXPECT_EQ(found("create element too small"), (Codes{4012, 4051}));
  EXPECT_EQ(found("slot 285"), (Codes{4058}));
  EXPECT_EQ(found("").size(), memtool::errorCodes().size());
}

TEST_F(MemtoolErrorsTest, TextsWithValuesAreFound) {
  EXPECT_EQ(found("Entry Length=-1 too small"), (Codes{4051}));
  EXPECT_EQ(found("Invalid Heap Handle=00007F0012345678"), (Codes{4056}));
  EXPECT_EQ(found("MEM_Pack failed: Invalid Segment Ptr=0000000000000000"), (Codes{4069}));
  EXPECT_EQ(found("link offset=%hd less than zero"), (Codes{4054}));
  EXPECT_EQ(found("Num of entries=0 too small"), (Codes{4053}));
  EXPECT_EQ(found("[12:00] MemAllocAreaFail reported"), (Codes{4055}));
  EXPECT_EQ(found("MEM_SinkString failed: 4086 MEMERR_SINKIERR, Internal Process Error"),
            (Codes{4086}));
}

TEST_F(MemtoolErrorsTest, SeveralAreListed) {
  EXPECT_EQ(outputOf({"errors", "gate"}),
            "code    hex  name              message\n"
            "3090  0xC12  MEMERR_MSTGGATE   Error acquiring gate\n"
            "4057  0xFD9  MEMERR_HEAPGATE   Failure Processing Gate\n"
            "4081  0xFF1  MEMERR_SINKLGATE  Sink List Gate error\n");
  const std::string all = outputOf({"errors"});
  EXPECT_EQ(static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n')),
            memtool::errorCodes().size() + 1);
}

TEST_F(MemtoolErrorsTest, WhatIsNoCodeIsRefused) {
  for (const char *wanted : {"0xG", "4072x", "no such text"}) {
    expectRefused(1, "no code has the name or the text \"" + std::string(wanted) + "\"",
                  {"errors", wanted});
  }
  for (const char *wanted : {"-1", "65535", "0xFFFF", "4294967295", "0xFFFFFFFF"}) {
    expectRefused(1,
                  "\"" + std::string(wanted) + "\" is the result of a failing call, not its code",
                  {"errors", wanted});
    EXPECT_TRUE(found(wanted).empty()) << wanted;
  }
}

TEST_F(MemtoolErrorsTest, NumbersThatAreNoCodeMayBeTheHosts) {
  for (const char *wanted : {"71", "0x47", "40720", "0x40720", "3080", "-2", "-4072", "99999999999",
                             "99999999999999999999999"}) {
    expectRefused(1,
                  "\"" + std::string(wanted) +
                      "\" is not a code of this library; in InnerCode or PrevInnerCode it is the "
                      "host's own code, which the host's manual explains",
                  {"errors", wanted});
    EXPECT_TRUE(found(wanted).empty()) << wanted;
  }
}

TEST_F(MemtoolErrorsTest, JsonHoldsEverything) {
  const Json all = Json::parse(outputOf({"errors", "--json"}));
  ASSERT_EQ(all.size(), memtool::errorCodes().size());
  std::size_t index = 0;
  for (const memtool::ErrorCode &code : memtool::errorCodes()) {
    const Json &row = all[index++];
    EXPECT_EQ(row["code"], code.code);
    EXPECT_EQ(row["name"], code.name);
    EXPECT_EQ(row["message"], code.message);
    ASSERT_EQ(row["cases"].size(), code.cases.size());
  }
  const Json one = Json::parse(outputOf({"errors", "4084", "--json"}));
  const Json wanted = Json::parse(R"([{
    "code": 4084, "hex": "0xFF4", "name": "MEMERR_SINKNFND", "message": "Value not found in Sink", "note": "",
    "cases": [{
      "text": "",
      "from": ["MEM_SinkVerify", "MEM_SinkDelete", "MEM_WSinkVerify", "MEM_WSinkDelete"],
      "passedOnBy": [],
      "seen": "returned only",
      "cause": "The text is not in the sink. Nothing is stored.",
      "remedy": "From verify this is an answer, not an error. From delete: the text was already deleted as often as it was sunk; look for one delete too many."
    }]}])");
  EXPECT_EQ(one, wanted);
}

// The library is not needed to look a code up.
TEST_F(MemtoolErrorsTest, NeedsNoLibrary) {
  EXPECT_EQ(outputOf({"--library", "absent.so", "errors", "4072"}), outputOf({"errors", "4072"}));
}

// The words of a command line, some of them in quotes.
std::vector<std::string> wordsOf(const std::string &line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  for (std::string word; stream >> std::quoted(word);) words.push_back(word);
  return words;
}

TEST_F(MemtoolErrorsTest, PagesShowRealOutput) {
  const std::string page = readBytes(std::filesystem::path(MEM_DOCS) / "why-a-call-failed.md");
  const std::string mark = "```\n$ memtool ";
  int shown = 0;
  for (std::size_t at = page.find(mark); at != std::string::npos;
       at = page.find(mark, at), ++shown) {
    at += mark.size();
    const std::size_t begin = page.find('\n', at) + 1;
    const std::string line = page.substr(at, begin - 1 - at);
    EXPECT_EQ(outputOf(wordsOf(line)), page.substr(begin, page.find("```\n", begin) - begin))
        << line;
  }
  EXPECT_EQ(shown, 2);
}

TEST_F(MemtoolErrorsTest, PageOfTheManualIsWhatTheTableMakes) {
  EXPECT_EQ(outputOf({"errors", "--page", "codes.md"}), "codes.md: the page is written\n");
  EXPECT_TRUE(readBytes("codes.md") == readBytes(std::filesystem::path(MEM_DOCS) / "codes.md"))
      << "make it: cmake --build --preset release --target codes_page";
  expectRefused(2, "--page", {"errors", "--page", "codes.md", "4072"});
  expectRefused(2, "--page", {"errors", "--page", "codes.md", "--json"});
}

}  // namespace
}  // namespace memtest
