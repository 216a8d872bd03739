// Runs memtool's commands inside a test: arguments in, exit code and both streams out. And checks
// of what it writes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "memtool_run.hpp"

namespace memtest {

using Json = nlohmann::ordered_json;

struct ToolRun {
  int code = -1;
  std::string out;
  std::string err;
};

inline ToolRun runTool(const std::vector<std::string> &words, bool hasColour = false) {
  std::ostringstream out;
  std::ostringstream err;
  memtool::Console console(out, err, {hasColour, false, 80});
  ToolRun run;
  run.code = memtool::runMemtool(words, console);
  run.out = out.str();
  run.err = err.str();
  return run;
}

// A run that must succeed and say nothing on stderr; returns what it writes.
inline std::string outputOf(const std::vector<std::string> &words) {
  const ToolRun run = runTool(words);
  EXPECT_EQ(run.code, memtool::kExitFine) << run.err;
  EXPECT_EQ(run.err, "");
  return run.out;
}

inline bool isOneLine(std::string_view text) {
  return text.size() > 1 && text.find('\n') == text.size() - 1;
}

// Whole lines, each of them a failure of the program's; or nothing.
inline bool areLines(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos || !text.starts_with("memtool: ")) return false;
    text.remove_prefix(end + 1);
  }
  return true;
}

// A run that must end with the code and with one line on stderr that holds `text`.
inline void expectRefused(int code, std::string_view text, const std::vector<std::string> &words) {
  const ToolRun run = runTool(words);
  EXPECT_EQ(run.code, code) << run.err;
  EXPECT_TRUE(isOneLine(run.err)) << run.err;
  EXPECT_TRUE(run.err.starts_with("memtool: ")) << run.err;
  EXPECT_NE(run.err.find(text), std::string::npos) << run.err;
}

inline std::string readBytes(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// Writes a new file: some file systems wait for the disk when an old one is written over.
inline void writeBytes(const std::filesystem::path &path, std::string_view bytes) {
  std::filesystem::remove(path);
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  ASSERT_TRUE(file) << path;
}

// A folder of the test's own, empty at its start, which is the current one while the test runs.
class ToolTest : public ::testing::Test {
 protected:
  ToolTest() : before_(std::filesystem::current_path()) {
    const ::testing::TestInfo &info = *::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info.test_suite_name()) + "." + info.name();
    std::replace(name.begin(), name.end(), '/', '.');
    work_ = std::filesystem::path(MEMTOOL_WORK) / name;
    std::filesystem::remove_all(work_);
    std::filesystem::create_directories(work_);
    std::filesystem::current_path(work_);
  }
  ~ToolTest() override {
    std::filesystem::current_path(before_);
    std::filesystem::remove_all(work_);
  }

 private:
  std::filesystem::path before_;
  std::filesystem::path work_;
};

// Looks through XML that has no CDATA and no DOCTYPE. "" when it is well-formed, else what is not.
class XmlCheck {
 public:
  static std::string fault(std::string_view xml) {
    XmlCheck check(xml);
    return check.run();
  }

 private:
  explicit XmlCheck(std::string_view xml) : rest_(xml) {}

  std::string run() {
    if (!rest_.starts_with("<?xml ")) return "no XML declaration";
    rest_.remove_prefix(rest_.find("?>") + 2);
    while (!rest_.empty()) {
      const std::string fault = rest_[0] == '<' ? takeTag() : takeText();
      if (!fault.empty()) return fault + " at \"" + std::string(rest_.substr(0, 40)) + "\"";
    }
    if (!open_.empty()) return "<" + open_.back() + "> is not closed";
    return hasRoot_ ? "" : "no element";
  }

  std::string takeText() {
    const std::size_t end = std::min(rest_.find('<'), rest_.size());
    const std::string_view text = rest_.substr(0, end);
    if (open_.empty() && text.find_first_not_of(" \r\n") != std::string_view::npos) {
      return "text outside of the element";
    }
    if (!isText(text)) return "a character that is not allowed here";
    rest_.remove_prefix(end);
    return "";
  }

  static bool isText(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
      const auto byte = static_cast<unsigned char>(text[i]);
      if (byte < 0x20 && byte != '\n' && byte != '\t' && byte != '\r') return false;
      if (text.substr(i).starts_with("\xEF\xBF\xBE") ||
          text.substr(i).starts_with("\xEF\xBF\xBF")) {
        return false;
      }
      if (byte != '&') continue;
      const auto isEntity = [&](std::string_view name) { return text.substr(i).starts_with(name); };
      if (!isEntity("&amp;") && !isEntity("&lt;") && !isEntity("&gt;") && !isEntity("&quot;")) {
        return false;
      }
    }
    return true;
  }

  std::string takeTag() {
    const std::size_t end = rest_.find('>');
    if (end == std::string_view::npos) return "a tag without an end";
    std::string_view tag = rest_.substr(1, end - 1);
    if (std::count(tag.begin(), tag.end(), '"') % 2 != 0) return "a > within an attribute";
    if (tag.starts_with('/')) {
      if (open_.empty() || open_.back() != tag.substr(1)) return "a wrong end tag";
      open_.pop_back();
    } else {
      if (open_.empty() && hasRoot_) return "a second element";
      if (!isText(tag) || tag.find('<') != std::string_view::npos) return "a wrong attribute";
      hasRoot_ = true;
      const std::string name(tag.substr(0, tag.find_first_of(" /\n")));
      if (!tag.ends_with('/')) open_.push_back(name);
    }
    rest_.remove_prefix(end + 1);
    return "";
  }

  std::string_view rest_;
  std::vector<std::string> open_;
  bool hasRoot_ = false;
};

}  // namespace memtest
