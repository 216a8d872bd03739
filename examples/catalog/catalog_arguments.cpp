#include "catalog_arguments.hpp"

#include <charconv>

#include "catalog_errors.hpp"
#include "utf_text.hpp"

namespace catalog {

const std::string_view kUsage =
    "Usage: catalog [options] [CATALOGUE]\n"
    "\n"
    "Reads a package catalogue in the form of dpkg's status file, builds linked structures from\n"
    "it in a heap of QJ7MEM00, packs them into a chain of blocks and writes the chain to a file,\n"
    "and as a port string to a second one, named FILE.port.\n"
    "Without CATALOGUE it reads /var/lib/dpkg/status or, where there is none, the sample beside\n"
    "the program.\n"
    "\n"
    "With --read it reads the two files that an earlier run wrote, on whatever platform, turns\n"
    "them back into structures and compares these with the catalogue.\n"
    "\n"
    "  --output FILE      write the chain to FILE instead of a file in the temp directory\n"
    "  --read             read the chain file of an earlier run from the temp directory\n"
    "  --read-from FILE   read the chain file FILE\n"
    "  --block-length N   length of the chain's blocks in bytes (32768)\n"
    "  --help             show this text\n"
    "\n"
    "Exit code: 0 success, 1 a service failed, storage was not returned or the chain differs from\n"
    "the catalogue, 2 wrong input.\n";

namespace {

std::int32_t parseBlockLength(const std::string &text) {
  std::int32_t length = 0;
  const char *const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, length);
  if (error != std::errc() || stop != end || length < 1) {
    throw InputError("--block-length needs a number from 1 to 2147483647, not \"" + text + "\"");
  }
  return length;
}

// The word behind option `words[index]`; moves `index` there.
const std::string &optionValue(const std::vector<std::string> &words, std::size_t &index) {
  if (index + 1 == words.size()) throw InputError(words[index] + " needs a value (try --help)");
  return words[++index];
}

std::filesystem::path filePath(const std::string &text, const std::string &what) {
  if (text.empty()) throw InputError("the name of the " + what + " is empty");
  return pathFromUtf8(text);
}

}  // namespace

Arguments parseArguments(const std::vector<std::string> &words) {
  Arguments arguments;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string &word = words[i];
    if (word == "--help") {
      arguments.help = true;
    } else if (word == "--output") {
      arguments.chainFile = filePath(optionValue(words, i), "output file");
    } else if (word == "--read") {
      arguments.reads = true;
    } else if (word == "--read-from") {
      arguments.reads = true;
      arguments.chainFile = filePath(optionValue(words, i), "chain file");
    } else if (word == "--block-length") {
      arguments.blockLength = parseBlockLength(optionValue(words, i));
    } else if (word.starts_with("-")) {
      throw InputError("unknown option " + word + " (try --help)");
    } else if (!arguments.catalogue.empty()) {
      throw InputError("more than one catalogue: " + word + " (try --help)");
    } else {
      arguments.catalogue = filePath(word, "catalogue");
    }
  }
  return arguments;
}

}  // namespace catalog
