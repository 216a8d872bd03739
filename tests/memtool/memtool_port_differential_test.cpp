// memtool's verdict on damaged port strings against the library's, 20,000 of them, from the text
// alone and with definitions: where the two differ, the manual says so, and what the library drops
// memtool reports.

#include <algorithm>
#include <array>
#include <map>

#include "memtest.hpp"
#include "memtooltest.hpp"
#include "port_decode.hpp"
#include "port_notes.hpp"
#include "port_text.hpp"
#include "portdefsjson.hpp"
#include "portmutants.hpp"
#include "randomrun.hpp"
#include "tool_library.hpp"

namespace memtest {
namespace {

constexpr std::uint64_t kSeed = 20261123;
constexpr std::size_t kFewer = MEM_FEWER_CASES;  // 1, or more in builds that are slow
constexpr std::size_t kMutants = 20000 / kFewer;
constexpr std::size_t kTexts = 40;

// What memtool says, and how the manual names it.
struct Row {
  const char *what;
  const char *inManual;
};

// What memtool expects where readers let something else pass.
constexpr std::array kLetPass = {
    Row{" of the header", "other characters in the header"},
    Row{"ten digits in the header", "other characters in the header"},
    Row{"characters in all", "a wrong number of characters in the header"},
    Row{"of a further field", "other separators"},
    Row{"a FieldID from", "fields that do not ascend"},
    Row{"no field after the repeat field", "a field after the elements of the repeat field"},
    Row{" time", "another number of elements than the structure states"},
    Row{"a most significant digit", "zeros at the end of reversed digits"},
    Row{"digits after \"-\"", "a sign without digits"},
    Row{"a number of at most 64 bits", "numbers of more than 64 bits"},
    Row{"one of 0 / \" after", "other escapes"},
    Row{"a digit, \"/\" or '", "other escapes"},
    Row{"a unit in as few groups", "other escapes"},
    Row{"/0 for a zero byte", "characters that writers escape"},
    Row{"before a unit", "characters that writers escape"},
    Row{"a string without a zero", "strings with a zero in them"},
    Row{"the number of surrogate pairs", "a wrong number of surrogate pairs"},
    Row{"a structure number up to",
        "structures that are not numbered in the order of the pointers"},
    Row{"a structure that a pointer before it names",
        "structures that are not numbered in the order of the pointers"},
    Row{"the end after", "anything after the last structure"},
};
constexpr const char *kDroppedInManual = "Faults in fields that the library drops";
constexpr const char *kSignInManual = "a sign in a field without sign";
constexpr const char *kWrapsInManual = "numbers of more than 32 bits";

// Refusals that follow from the definitions, which the text alone does not show.
constexpr std::array kOfDefinitions = {
    "Unknown StructID: ",
    "FieldID ",
    "StructureID ",
    "Size mismatch between field length (",
    "Allocation Failure!",
    "Substructure expected!",
    "String too large for this field marked as NoTruncate",
    "Hex string too large for this field marked as NoTruncate",
    "Missing  at the start of a string field",
    "Missing quote at the start of a string field!",
    "Not a ",
    // After a sign of an unsigned number, and where dropped fields hold wide text.
    "Closing ) expected at the end of a structure!",
    "Cannot find ( beginning a structure!",
    "Cannot find < at the beginning of StructID ",
    "Field conversion failed!",
    "End of port string reached!",
};
constexpr const char *kOfDefinitionsInManual = "Only the definitions show";

// What memtool refuses of structures that the library has made.
constexpr std::array kOfResults = {
    Row{"is beyond the bytes that were read for the structure", "fewer elements than its count field says"},
    Row{"is a pointer to nothing that was read", "a pointer to something that was not read"},
    Row{"is no string", "a string without a terminator"},
};

std::string manual() {
  std::string text = readBytes(std::filesystem::path(MEM_DOCS) / "memtool-port.md");
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

template <class Rows>
const Row *findRow(const Rows &rows, const std::string &what) {
  const auto found = std::find_if(rows.begin(), rows.end(), [&](const Row &row) {
    return what.find(row.what) != std::string::npos;
  });
  return found == rows.end() ? nullptr : &*found;
}

// Half of the mutants have a header with their real length: a wrong one would hide other faults.
void setTotal(std::string &text) {
  if (text.size() < MEM_PORT_HEADER_LEN) return;
  const std::string digits = std::to_string(text.size());
  text.replace(1, 10, std::string(10 - digits.size(), '0') + digits);
}

// A sign in one of the three fields of unsigned numbers.
bool hasSignOfUnsigned(const std::string &text) {
  const auto has = [&](const char *field) { return text.find(field) != std::string::npos; };
  return has("/6N-") || has("/8N-") || has("/21N-");
}

// What the library made of a text.
struct Answer {
  std::int16_t status = 0;
  std::string message;                          // of a failure
  std::vector<std::string> dropped = {};        // of each field that is newer than its definition
  std::size_t droppedFrom = std::string::npos;  // character where the first of them begins
};

// A dropped field has a record of its own, with the position after its digits.
constexpr std::int32_t kLineOfDropped = 2449;
Answer answerOf(const std::string &text, const ReadOutcome &outcome) {
  constexpr std::string_view kPosition = "\nPosition: ";
  Answer answer{outcome.status, "", {}, std::string::npos};
  for (const refhost::TraceRecord &record : outcome.records) {
    const std::size_t begin = record.text.find("ERROR:") + 6;
    const std::size_t end = record.text.find(kPosition, begin);
    const std::string message = record.text.substr(begin, end - begin);
    if (record.line != kLineOfDropped) {
      if (answer.message.empty()) answer.message = message;
      continue;
    }
    answer.dropped.push_back(message);
    if (answer.droppedFrom != std::string::npos) continue;
    std::size_t at = std::stoul(record.text.substr(end + kPosition.size()));
    while (at > 0 && text[at - 1] >= '0' && text[at - 1] <= '9') --at;
    answer.droppedFrom = at;
  }
  return answer;
}

class MemtoolPortDifferentialTest : public ToolTest {
 protected:
  MemtoolPortDifferentialTest() : console_(sink_, sink_, {}) {
    Random random(firstSeed(kSeed));
    const std::vector<std::string> texts = soundTexts(7, kTexts);
    const auto any = [&]() -> const std::string & { return texts[random.below(kTexts)]; };
    for (std::size_t i = 0; i < kMutants; ++i) {
      mutants_.push_back(mutant(any(), any(), random));
      if (random.oneIn(2)) setTotal(mutants_.back());
    }
    refhost::Session session(library().bindEntry());
    session.host().keepRecords(true);
    session.host().setTraceFlags(MEM_TRACE_SKIPPED);
    HostileReader reader(session.host());
    for (const std::string &text : mutants_) {
      answers_.push_back(answerOf(text, reader.readBlock(text)));
    }
  }

  std::string about(std::size_t i) const {
    return "mutant " + std::to_string(i) + ", " + seedNote(firstSeed(kSeed)) + ": " + mutants_[i];
  }

  std::ostringstream sink_;
  memtool::Console console_;
  std::vector<std::string> mutants_;
  std::vector<Answer> answers_;  // of the library
};

// The text alone: a fault is one for the library, too, and what readers let pass they do.
TEST_F(MemtoolPortDifferentialTest, TextAlone) {
  const std::string pages = manual();
  std::map<std::string, std::size_t> seen;
  for (std::size_t i = 0; i < kMutants; ++i) {
    SCOPED_TRACE(about(i));
    const memtool::PortDocument document = memtool::readPortText(mutants_[i], console_);
    const Answer &answer = answers_[i];
    if (document.fault) {
      if (answer.status != 0) {
        ++seen["refused by both"];
      } else if (answer.droppedFrom <= document.fault->offset) {
        ++seen[kDroppedInManual];
      } else {
        const bool hasSign = hasSignOfUnsigned(mutants_[i].substr(0, document.fault->offset));
        ASSERT_TRUE(hasSign || document.fault->found == "more") << document.fault->text();
        ++seen[hasSign ? kSignInManual : kWrapsInManual];
      }
      continue;
    }
    if (document.deviation) {
      const Row *const row = findRow(kLetPass, document.deviation->expected);
      ASSERT_NE(row, nullptr) << document.deviation->text();
      ++seen[row->inManual];
    }
    if (answer.status == 0) {
      ++seen[document.deviation ? "let pass" : "valid"];
      continue;
    }
    const bool isKnown =
        std::any_of(kOfDefinitions.begin(), kOfDefinitions.end(),
                    [&](const char *known) { return answer.message.starts_with(known); });
    ASSERT_TRUE(isKnown) << answer.message;
    ++seen[kOfDefinitionsInManual];
  }
  EXPECT_GT(seen["valid"] * kFewer, 100U);
  EXPECT_GT(seen["let pass"] * kFewer, 100U);
  EXPECT_GT(seen["refused by both"] * kFewer, 10000U);
  EXPECT_GT(seen[kDroppedInManual], 0U);
  EXPECT_GT(seen[kOfDefinitionsInManual], 0U);
  for (const char *name : {kDroppedInManual, kOfDefinitionsInManual, kSignInManual}) {
    EXPECT_NE(pages.find(name), std::string::npos) << name;
  }
  for (const Row &row : kLetPass) {
    EXPECT_NE(pages.find(row.inManual), std::string::npos) << row.inManual;
  }
}

// Readers keep 32 bits of the numbers that name and count.
TEST_F(MemtoolPortDifferentialTest, NumbersThatWrap) {
  const std::string one = "7927694924";  // 2^32 + 1
  refhost::Session session(library().bindEntry());
  session.host().keepRecords(true);
  HostileReader reader(session.host());
  for (const std::string &body :
       {"(" + one + "<7N1>)", "(1<7N1/9S" + one + ">)", "(1<7N1/3X" + one + "\"a\">)",
        "(1<" + std::string("3037694924") + "N1>)"}) {
    SCOPED_TRACE(body);
    const std::string text = "(0000000000,0000000001)" + body;
    EXPECT_TRUE(memtool::readPortText(text, console_).fault);
    const ReadOutcome outcome = reader.readBlock(text);
    EXPECT_EQ(outcome.status, 0) << outcome.message;
  }
  EXPECT_NE(manual().find(kWrapsInManual), std::string::npos);
}

// With definitions: memtool refuses what the library refuses, for its reason.
TEST_F(MemtoolPortDifferentialTest, WithDefinitions) {
  const std::string pages = manual();
  memtool::RunningLibrary running({});
  const memtool::PortDefinitions definitions("defs",
                                             definitionsJson(richDefs().table(), "").dump());
  std::size_t taken = 0;
  std::size_t refused = 0;
  std::size_t dropped = 0;
  for (std::size_t i = 0; i < kMutants; ++i) {
    SCOPED_TRACE(about(i));
    const Answer &answer = answers_[i];
    if (answer.message == "Allocation Failure!") continue;  // the reader's heap is small
    std::string refusal;
    try {
      memtool::decodePortText(running, definitions, mutants_[i], console_);
    } catch (const memtool::ToolError &error) {
      refusal = error.what();
    }
    ++(refusal.empty() ? taken : refused);
    if (answer.status != 0) {
      ASSERT_NE(refusal.find(answer.message), std::string::npos) << refusal << answer.message;
      ASSERT_NE(refusal, "");
      continue;
    }
    if (!refusal.empty()) {
      ASSERT_NE(findRow(kOfResults, refusal), nullptr) << refusal;
      continue;
    }
    const memtool::PortDocument document = memtool::readPortText(mutants_[i], console_);
    if (document.fault || document.deviation) continue;
    // Every drop that the library traces is a note.
    std::vector<std::string> noted;
    bool isComparable = true;
    for (const memtool::PortNote &note : memtool::portNotes(definitions, document)) {
      isComparable = isComparable && note.what.find("after the sign") == std::string::npos;
      if (note.what.find(" drops field ") == std::string::npos) continue;
      noted.push_back("FieldID " + std::to_string(static_cast<std::int32_t>(note.fieldID)) +
                      " cannot be found in StructID " + std::to_string(note.structID) + "!");
    }
    if (!isComparable) continue;
    ASSERT_EQ(noted, answer.dropped);
    dropped += noted.size();
  }
  EXPECT_GT(taken * kFewer, 2000U);
  EXPECT_GT(refused * kFewer, 10000U);
  EXPECT_TRUE(dropped > 5 || kFewer > 1) << dropped;
  for (const Row &row : kOfResults) {
    EXPECT_NE(pages.find(row.inManual), std::string::npos) << row.inManual;
  }
}

}  // namespace
}  // namespace memtest
