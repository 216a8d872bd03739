#include "status_reader.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <system_error>
#include <utility>

#include "catalog_support.hpp"

namespace catalog {
namespace {

constexpr const char *kMachineCatalogue = "/var/lib/dpkg/status";
constexpr const char *kSampleCatalogue = "sample-status";

constexpr std::string_view kBlanks = " \t";

// The fields that the program uses, and their names in lower case.
enum Field : std::size_t { kPackage, kVersion, kDescription, kPreDepends, kDepends, kFieldCount };
constexpr std::array<std::string_view, kFieldCount> kFieldNames = {
    "package", "version", "description", "pre-depends", "depends"};

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Removes and returns the text before the first `separator`, or all of it if there is none.
std::string_view takeUntil(std::string_view &text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view head = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return head;
}

// Names of fields are visible ASCII characters without a colon. They do not begin with # or -, as
// comments and signatures do.
bool isFieldName(std::string_view name) {
  const auto isVisible = [](char c) { return c > ' ' && c < 0x7F; };
  return !name.empty() && name[0] != '#' && name[0] != '-' &&
         std::all_of(name.begin(), name.end(), isVisible);
}

std::optional<Field> usedField(std::string_view name) {
  const auto lowered = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  const auto equals = [&](std::string_view wanted) {
    return std::equal(wanted.begin(), wanted.end(), name.begin(), name.end(),
                      [&](char a, char b) { return a == lowered(b); });
  };
  const auto found = std::find_if(kFieldNames.begin(), kFieldNames.end(), equals);
  if (found == kFieldNames.end()) return std::nullopt;
  return static_cast<Field>(found - kFieldNames.begin());
}

class CatalogueParser {
 public:
  explicit CatalogueParser(const std::string &source) : source_(source) {}

  std::vector<Package> parse(std::string_view text) {
    while (!text.empty()) {
      std::string_view line = takeUntil(text, '\n');
      if (line.ends_with('\r')) line.remove_suffix(1);
      ++lineNumber_;
      takeLine(line);
    }
    endStanza();
    if (packages_.empty()) throw InputError(source_ + " contains no package");
    return std::move(packages_);
  }

 private:
  struct FieldValue {
    std::string text;
    std::uint64_t lineNumber = 0;  // 0: the stanza does not have the field
  };

  [[noreturn]] void fail(std::uint64_t lineNumber, const std::string &reason) const {
    throw InputError(source_ + ", line " + std::to_string(lineNumber) + ": " + reason);
  }

  void takeLine(std::string_view line) {
    if (line.find('\0') != std::string_view::npos) fail(lineNumber_, "contains a NUL character");
    if (trimmed(line).empty()) {
      endStanza();
    } else if (kBlanks.find(line[0]) != std::string_view::npos) {
      continueField(trimmed(line));
    } else {
      startField(line);
    }
  }

  void startField(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || !isFieldName(line.substr(0, colon))) {
      fail(lineNumber_, "is not a field (\"Name: value\"), a continuation or a blank line");
    }
    if (stanzaLine_ == 0) stanzaLine_ = lineNumber_;
    current_ = usedField(line.substr(0, colon));
    if (!current_) return;
    FieldValue &value = values_[*current_];
    if (value.lineNumber != 0) fail(lineNumber_, "repeats a field of the same package");
    value = {std::string(trimmed(line.substr(colon + 1))), lineNumber_};
  }

  // The lines after the first of a description are its long form, which the program does not use.
  void continueField(std::string_view text) {
    if (stanzaLine_ == 0) fail(lineNumber_, "is a continuation without a field before it");
    if (!current_ || *current_ == kDescription) return;
    values_[*current_].text.append(" ").append(text);
  }

  void endStanza() {
    if (stanzaLine_ == 0) return;
    if (values_[kPackage].text.empty()) fail(stanzaLine_, "begins a stanza without a package name");
    Package package;
    package.name = std::move(values_[kPackage].text);
    package.version = std::move(values_[kVersion].text);
    package.summary = std::move(values_[kDescription].text);
    addDependencies(package, kPreDepends);
    addDependencies(package, kDepends);
    packages_.push_back(std::move(package));
    values_ = {};
    current_.reset();
    stanzaLine_ = 0;
  }

  // "libc6 (>= 2.36), default-mta | mail-transport-agent": commas separate dependencies, bars
  // separate alternatives.
  void addDependencies(Package &package, Field field) const {
    std::string_view list = values_[field].text;
    while (!list.empty()) {
      std::string_view alternatives = takeUntil(list, ',');
      bool alternative = false;
      while (!trimmed(alternatives).empty()) {
        const std::string_view text = trimmed(takeUntil(alternatives, '|'));
        Dependency dependency = parseDependency(text, values_[field].lineNumber);
        dependency.preDepends = field == kPreDepends;
        dependency.alternative = alternative;
        package.dependencies.push_back(std::move(dependency));
        alternative = true;
      }
    }
  }

  // "name", "name (>= version)"
  Dependency parseDependency(std::string_view text, std::uint64_t lineNumber) const {
    const std::size_t open = text.find('(');
    const std::string_view name = trimmed(text.substr(0, open));
    const bool isConstrained = open != std::string_view::npos;
    if (name.empty() || (isConstrained && !text.ends_with(')'))) {
      fail(lineNumber, "contains a dependency that is not \"name\" or \"name (relation version)\"");
    }
    Dependency dependency;
    dependency.name = name;
    if (isConstrained)
      dependency.constraint = trimmed(text.substr(open + 1, text.size() - open - 2));
    return dependency;
  }

  const std::string &source_;
  std::vector<Package> packages_;
  std::uint64_t lineNumber_ = 0;
  std::uint64_t stanzaLine_ = 0;  // line of the stanza's first field, 0 between stanzas
  std::optional<Field> current_;  // the field that a continuation line continues, if used
  std::array<FieldValue, kFieldCount> values_;
};

}  // namespace

std::string_view bareName(std::string_view dependencyName) {
  return dependencyName.substr(0, dependencyName.find(':'));
}

std::vector<Package> parseCatalogue(std::string_view text, const std::string &source) {
  if (text.empty()) throw InputError(source + " is empty");
  return CatalogueParser(source).parse(text);
}

std::filesystem::path defaultCatalogue(const std::filesystem::path &programFolder) {
  std::error_code ignored;
  if (std::filesystem::is_regular_file(kMachineCatalogue, ignored)) return kMachineCatalogue;
  return programFolder / kSampleCatalogue;
}

std::vector<Package> readCatalogue(const std::filesystem::path &path) {
  return parseCatalogue(readBytes(path), utf8FromPath(path));
}

}  // namespace catalog
