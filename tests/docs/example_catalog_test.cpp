// The parts of the catalogue example: what its reader makes of a status file and refuses, and that
// the chain file holds the catalogue, read back here by hand.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "catalog_arguments.hpp"
#include "catalog_model.hpp"
#include "catalog_report.hpp"
#include "catalog_support.hpp"
#include "memtest.hpp"
#include "record_files.hpp"
#include "status_reader.hpp"

namespace {

using catalog::Dependency;
using catalog::InputError;
using catalog::Package;

std::string refusal(const std::string &text) {
  try {
    catalog::parseCatalogue(text, "status");
  } catch (const InputError &error) {
    return error.what();
  }
  return "accepted";
}

TEST(StatusReader, TakesNameVersionAndFirstLineOfDescription) {
  const std::vector<Package> packages = catalog::parseCatalogue(
      "Package: a\nVersion: 1:2-3\nDescription: first line\n long form\n .\n more\n\n"
      "Package: b\n",
      "status");
  ASSERT_EQ(packages.size(), 2U);
  EXPECT_EQ(packages[0].name, "a");
  EXPECT_EQ(packages[0].version, "1:2-3");
  EXPECT_EQ(packages[0].summary, "first line");
  EXPECT_EQ(packages[1].name, "b");
  EXPECT_EQ(packages[1].version, "");
  EXPECT_EQ(packages[1].summary, "");
}

TEST(StatusReader, SplitsDependenciesIntoAlternatives) {
  const std::vector<Package> packages = catalog::parseCatalogue(
      "Package: a\nDepends: b (>= 1.0), c:any|d ( = 2 ) ,\n e,\nPre-Depends: f\n", "status");
  ASSERT_EQ(packages.size(), 1U);
  const std::vector<Dependency> &found = packages[0].dependencies;
  const std::vector<Dependency> expected = {{"f", "", true, false},
                                            {"b", ">= 1.0", false, false},
                                            {"c:any", "", false, false},
                                            {"d", "= 2", false, true},
                                            {"e", "", false, false}};
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(found[i].name, expected[i].name);
    EXPECT_EQ(found[i].constraint, expected[i].constraint);
    EXPECT_EQ(found[i].preDepends, expected[i].preDepends);
    EXPECT_EQ(found[i].alternative, expected[i].alternative);
  }
  EXPECT_EQ(catalog::bareName("c:any"), "c");
  EXPECT_EQ(catalog::bareName("b"), "b");
}

TEST(StatusReader, AcceptsEitherLineEndAnyCaseAndBlankLinesAnywhere) {
  const std::vector<Package> packages = catalog::parseCatalogue(
      "\n \t\nPACKAGE:a\r\nversion:\t1 \r\n\r\n\r\n\t\r\nPackage: b\r\nVersion: 2", "status");
  ASSERT_EQ(packages.size(), 2U);
  EXPECT_EQ(packages[0].name, "a");
  EXPECT_EQ(packages[0].version, "1");
  EXPECT_EQ(packages[1].version, "2");
}

TEST(StatusReader, RefusesWhatIsNoCatalogueWithLineAndReason) {
  using namespace std::string_literals;
  EXPECT_EQ(refusal(""), "status is empty");
  EXPECT_EQ(refusal("\n \n\n"), "status holds no package");
  EXPECT_EQ(refusal("Package: a\n\nthis is a line\n"),
            "status, line 3: is no field (\"Name: value\"), continuation or blank line");
  EXPECT_EQ(refusal("# comment: here\n"),
            "status, line 1: is no field (\"Name: value\"), continuation or blank line");
  EXPECT_EQ(refusal(": value\n"),
            "status, line 1: is no field (\"Name: value\"), continuation or blank line");
  EXPECT_EQ(refusal("Two words: value\n"),
            "status, line 1: is no field (\"Name: value\"), continuation or blank line");
  EXPECT_EQ(refusal("Package: a\n\n continued\n"), "status, line 3: continues no field");
  EXPECT_EQ(refusal("Package: a\n\nVersion: 1\nDescription: b\n"),
            "status, line 3: begins a stanza without a package name");
  EXPECT_EQ(refusal("Package: a\nPackage: b\n"),
            "status, line 2: repeats a field of the same package");
  EXPECT_EQ(refusal("Package: a\nVersion: 1\0002\n"s), "status, line 2: holds a NUL character");
  for (const char *list : {"b (>= 1", "(>= 1)", "b | | c", "b (1) c"}) {
    EXPECT_EQ(refusal(std::string("Package: a\nDepends: ") + list + "\n"),
              "status, line 2: holds a dependency that is not \"name\" or "
              "\"name (relation version)\"")
        << list;
  }
}

TEST(UtfText, ConvertsBetweenUtf8AndUtf16) {
  const std::string narrow = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z";
  const std::u16string wide = u"a\u00E4\u20AC\U0001F600z";
  EXPECT_EQ(catalog::utf16FromUtf8(narrow), wide);
  EXPECT_EQ(catalog::utf8FromUtf16(wide), narrow);
  EXPECT_EQ(catalog::utf16FromUtf8("\xF4\x8F\xBF\xBF"), u"\U0010FFFF");
}

TEST(UtfText, ReplacesWhatIsNotWellFormed) {
  EXPECT_EQ(catalog::utf16FromUtf8("a\xE4z"), u"a\uFFFDz");                  // a lone lead byte
  EXPECT_EQ(catalog::utf16FromUtf8("\x80"), u"\uFFFD");                      // a lone trail byte
  EXPECT_EQ(catalog::utf16FromUtf8("\xE2\x82"), u"\uFFFD\uFFFD");            // cut off
  EXPECT_EQ(catalog::utf16FromUtf8("\xC0\x80"), u"\uFFFD\uFFFD");            // overlong
  EXPECT_EQ(catalog::utf16FromUtf8("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");  // a surrogate
  EXPECT_EQ(catalog::utf16FromUtf8("\xF4\x90\x80\x80").substr(0, 1), u"\uFFFD");  // too large
  const char16_t loneHigh[] = {u'a', 0xD83D, u'z', 0};
  EXPECT_EQ(catalog::utf8FromUtf16(loneHigh), "a\xEF\xBF\xBDz");
}

TEST(CatalogArguments, RefusesWhatItDoesNotKnow) {
  const auto refused = [](const std::vector<std::string> &words) {
    try {
      catalog::parseArguments(words);
    } catch (const InputError &) {
      return true;
    }
    return false;
  };
  EXPECT_TRUE(refused({"--unknown"}));
  EXPECT_TRUE(refused({"--output"}));
  EXPECT_TRUE(refused({"--output", ""}));
  EXPECT_TRUE(refused({""}));
  EXPECT_TRUE(refused({"a", "b"}));
  EXPECT_TRUE(refused({"--output", "a", "--read-from", "b"}));
  for (const char *length : {"0", "-1", "x", "1x", "", "2147483648"}) {
    EXPECT_TRUE(refused({"--block-length", length})) << length;
  }
  const catalog::Arguments arguments =
      catalog::parseArguments({"--block-length", "2147483647", "in", "--output", "out"});
  EXPECT_EQ(arguments.blockLength, 2147483647);
  EXPECT_EQ(arguments.catalogue, "in");
  EXPECT_EQ(arguments.chainFile, "out");
}

class CatalogRecordsTest : public memtest::StartedTest {
 protected:
  const catalog::PackageRecord *build(const std::vector<Package> &packages) {
    return catalog::buildRecords(context, heap, packages);
  }

  const mem::Context context = mem::contextOf(host);
  mem::Heap heap = catalog::need(mem::Heap::open(context));
};

TEST_F(CatalogRecordsTest, DependenciesLeadBackwardForwardToThemselvesAndToTheFirstOfAName) {
  const std::vector<Package> packages = catalog::parseCatalogue(
      "Package: a\nDepends: b:any, c, absent\n\n"
      "Package: b\nDepends: a, b, c\n\n"
      "Package: b\nDepends: b, absent\n\n"
      "Package: c\nDepends: b\n",
      "status");
  const catalog::PackageRecord *const root = build(packages);
  catalog::checkRecords(root, packages);
  EXPECT_EQ(catalog::countRecords(root).references, 7U);
  EXPECT_EQ(catalog::countRecords(root).dependencies, 9U);
}

TEST_F(CatalogRecordsTest, WaitingListReusesTheCellsOfWhatNoLongerWaits) {
  constexpr std::size_t kWaiting = 1000;
  const std::uint64_t liveBefore = host.account().liveCount;
  std::vector<catalog::DependencyRecord> dependencies(kWaiting);
  catalog::DependencyRecord other{};
  catalog::PackageRecord package{};
  {
    catalog::WaitingList waiting(context);
    waiting.add("other", other);
    std::uint64_t areas = 0;
    for (int round = 0; round < 3; ++round) {
      for (catalog::DependencyRecord &dependency : dependencies) {
        dependency.pPackage = nullptr;
        waiting.add("a", dependency);
      }
      EXPECT_EQ(waiting.resolve("b", package), 0U);
      EXPECT_EQ(waiting.resolve("a", package), kWaiting);
      EXPECT_EQ(waiting.resolve("a", package), 0U) << "they wait no longer";
      for (const catalog::DependencyRecord &dependency : dependencies) {
        ASSERT_EQ(dependency.pPackage, &package);
      }
      if (round == 0) areas = host.account().totalCount;
      EXPECT_EQ(host.account().totalCount, areas) << "round " << round;
    }
  }
  EXPECT_EQ(other.pPackage, nullptr);
  EXPECT_EQ(host.account().liveCount, liveBefore);
}

TEST_F(CatalogRecordsTest, ReportTellsTheMostNeededPackagesWithTheirSummaries) {
  const std::vector<Package> packages = catalog::parseCatalogue(
      "Package: a\nDepends: late, absent, absent, absent\n\n"
      "Package: b\nDescription: \xC3\xA9t\xC3\xA9\nDepends: a, late\n\n"
      "Package: late\nDescription: comes last\nDepends: b\n",
      "status");
  const catalog::PackageRecord *const root = build(packages);
  EXPECT_EQ(catalog::neededLines(context, catalog::mostNeeded(root, 9)),
            "  late                     2  dependencies: comes last\n"
            "  a                        1  dependencies\n"
            "  b                        1  dependencies: \xC3\xA9t\xC3\xA9\n");
  const auto first = catalog::mostNeeded(root, 1);
  ASSERT_EQ(first.size(), 1U);
  EXPECT_STREQ(first[0].package->pName, "late");
  EXPECT_TRUE(catalog::mostNeeded(nullptr, 1).empty());
}

// A chain file taken apart by hand. Content offsets count from the used length, as in the file.
class ChainFile {
 public:
  explicit ChainFile(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    for (std::size_t at = 0; at < bytes.size();) {
      std::uint16_t used = 0;
      std::memcpy(&used, bytes.data() + at, sizeof(used));
      if (used < sizeof(used) || used > bytes.size() - at) throw std::runtime_error("broken chain");
      blocks_.push_back(bytes.substr(at, used));
      at += used;
    }
  }

  const std::vector<std::string> &blocks() const { return blocks_; }

  template <typename Value>
  Value read(MemPackRelPtr place, std::size_t offset) const {
    Value value;
    std::memcpy(&value, at(place, offset, sizeof(value)), sizeof(value));
    return value;
  }

  static bool isNull(MemPackRelPtr place) { return place.Block == 0 && place.Offset == 0; }

  // Empty for a null pointer.
  std::string narrow(MemPackRelPtr place) const {
    if (isNull(place)) return {};
    std::string text;
    while (const char c = read<char>(place, text.size())) text.push_back(c);
    return text;
  }

  std::u16string wide(MemPackRelPtr place) const {
    if (isNull(place)) return {};
    EXPECT_EQ(place.Offset % 4, 0) << "wide text is aligned for writers and readers of any width";
    std::u16string text;
    while (const char16_t unit = read<char16_t>(place, text.size() * 2)) text.push_back(unit);
    return text;
  }

 private:
  const char *at(MemPackRelPtr place, std::size_t offset, std::size_t length) const {
    const std::string &block = blocks_.at(static_cast<std::size_t>(place.Block));
    const std::size_t start = static_cast<std::size_t>(place.Offset) + offset;
    if (start > block.size() || length > block.size() - start) {
      throw std::runtime_error("a relative pointer leads out of its block");
    }
    return block.data() + start;
  }

  std::vector<std::string> blocks_;
};

// Follows the chain from the root and compares it with the packages, record by record.
class ChainComparison {
 public:
  explicit ChainComparison(const ChainFile &file) : file_(file) {}

  void compare(MemPackRelPtr root, const std::vector<Package> &packages) {
    MemPackRelPtr place = root;
    for (const Package &package : packages) {
      ASSERT_FALSE(ChainFile::isNull(place)) << package.name;
      const auto record = readPackage(place);
      EXPECT_EQ(record.name, package.name);
      EXPECT_EQ(record.version, package.version);
      EXPECT_EQ(record.summary, catalog::utf16FromUtf8(package.summary));
      names_[{place.Block, place.Offset}] = record.name;
      compareDependencies(record.firstDependency, package);
      place = record.next;
    }
    EXPECT_TRUE(ChainFile::isNull(place)) << "the chain holds more packages";
    compareReferences(packages);
  }

 private:
  struct PackageView {
    MemPackRelPtr next, firstDependency;
    std::string name, version;
    std::u16string summary;
  };

  struct Reference {
    std::string name;
    MemPackRelPtr place;
  };

  MemPackRelPtr pointer(MemPackRelPtr place, std::size_t offset) const {
    return file_.read<MemPackRelPtr>(place, offset);
  }

  PackageView readPackage(MemPackRelPtr place) const {
    return {pointer(place, 0), pointer(place, 32), file_.narrow(pointer(place, 8)),
            file_.narrow(pointer(place, 16)), file_.wide(pointer(place, 24))};
  }

  void compareDependencies(MemPackRelPtr place, const Package &package) {
    for (const Dependency &dependency : package.dependencies) {
      ASSERT_FALSE(ChainFile::isNull(place)) << package.name << " needs " << dependency.name;
      EXPECT_EQ(file_.narrow(pointer(place, 8)), dependency.name);
      EXPECT_EQ(file_.narrow(pointer(place, 16)), dependency.constraint);
      references_.push_back({std::string(catalog::bareName(dependency.name)), pointer(place, 24)});
      EXPECT_EQ(file_.read<std::uint32_t>(place, 32),
                (dependency.preDepends ? 1U : 0U) | (dependency.alternative ? 2U : 0U));
      place = pointer(place, 0);
    }
    EXPECT_TRUE(ChainFile::isNull(place)) << package.name << " has more dependencies";
  }

  // A reference names the first package of its name, and is null only where there is none.
  void compareReferences(const std::vector<Package> &packages) const {
    for (const Reference &reference : references_) {
      const bool isKnown =
          std::any_of(packages.begin(), packages.end(),
                      [&](const Package &package) { return package.name == reference.name; });
      EXPECT_EQ(!ChainFile::isNull(reference.place), isKnown) << reference.name;
      if (!isKnown) continue;
      const auto found = names_.find({reference.place.Block, reference.place.Offset});
      ASSERT_NE(found, names_.end()) << reference.name << " leads to something that is no package";
      EXPECT_EQ(found->second, reference.name);
    }
  }

  const ChainFile &file_;
  std::map<std::pair<std::int16_t, std::int16_t>, std::string> names_;  // by place
  std::vector<Reference> references_;
};

class CatalogChain : public memtest::StartedTest {
 protected:
  void packAndCompare(std::int32_t blockLength, std::size_t leastBlocks) {
    const std::vector<Package> packages = catalog::readCatalogue(samplePath());
    mem::Heap heap = openHeap();
    const catalog::PackageRecord *const root = catalog::buildRecords(context, heap, packages);
    const mem::PackedChain chain = pack(*root, blockLength);
    const std::filesystem::path path = chainPath();
    catalog::writeChainFile(chain, path);

    const ChainFile file(path);
    ASSERT_EQ(std::filesystem::file_size(path), chain.size().bytes);
    ASSERT_EQ(file.blocks().size(), chain.size().blocks);
    EXPECT_GE(file.blocks().size(), leastBlocks);
    const std::string &first = file.blocks()[0];
    const MemPackCB &packCB = catalog::kPackTable.controlBlock();
    EXPECT_EQ(first.substr(2, 4), "0220");
    EXPECT_EQ(std::memcmp(first.data() + 6, &packCB, sizeof(packCB)), 0);
    const std::int16_t rootOffset = 6 + static_cast<std::int16_t>(sizeof(packCB));
    ChainComparison(file).compare({0, rootOffset, 0}, packages);
    std::filesystem::remove(path);
  }

  mem::Heap openHeap() { return catalog::need(mem::Heap::open(context, {.subPool = 20})); }

  mem::PackedChain pack(const catalog::PackageRecord &root, std::int32_t blockLength) {
    return catalog::need(mem::PackedChain::pack(context, catalog::kPackTable, root, blockLength));
  }

  static std::filesystem::path samplePath() {
    return refhost::Library::besideProgram().parent_path() / "sample-status";
  }

  // A MEM_HashOpen whose heap fails leaves its control block to the host; MEM_Pack opens one table.
  void returnAbandonedTable() {
    constexpr std::uint32_t kTableLength = 1072;
    for (const refhost::Leak &leak : host.leaks()) {
      if (leak.subPool != 0 || leak.length != kTableLength) continue;
      mem.MEM_Free(leak.area, kTableLength, 0);
      return;
    }
  }

  // Beside the program, with the test's name in it: tests run side by side.
  static std::filesystem::path chainPath() {
    const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    return refhost::Library::besideProgram().parent_path() /
           ("example_catalog_test_" + name + ".chain");
  }

  const mem::Context context = mem::contextOf(host);
};

TEST_F(CatalogChain, HoldsTheSampleInOneBlock) {
  packAndCompare(32768, 1);
}

TEST_F(CatalogChain, HoldsTheSampleInManyBlocks) {
  packAndCompare(1100, 5);
}

TEST_F(CatalogChain, FailureToPackIsReportedWithCodeNameMessageAndText) {
  const std::vector<Package> packages = catalog::readCatalogue(samplePath());
  mem::Heap heap = openHeap();
  const catalog::PackageRecord *const root = catalog::buildRecords(context, heap, packages);
  try {
    const mem::PackedChain chain = pack(*root, 900);
    FAIL() << "a block of 900 bytes cannot hold the control block";
  } catch (const catalog::ServiceError &error) {
    EXPECT_STREQ(error.what(),
                 "MEM_Pack failed: 4066 MEMERR_PACKBMIN, Too Many blocks for Unpack "
                 "(BlockTooSmallforMemPackCB=900)");
  }
  EXPECT_EQ(host.account(0).liveCount, 0U) << "the failed call's blocks were returned";
}

TEST_F(CatalogChain, LackOfStorageReturnsWhatWasObtained) {
  const std::vector<Package> packages = catalog::readCatalogue(samplePath());
  const std::uint64_t liveBefore = host.account().liveCount;
  for (std::uint64_t nth = 1;; ++nth) {
    refhost::Fault fault;
    fault.service = refhost::Service::GetStorage;
    fault.nth = nth;
    host.arm(fault);
    const std::uint64_t firedBefore = host.faultsFired();
    try {
      mem::Heap heap = openHeap();
      const catalog::PackageRecord *const root = catalog::buildRecords(context, heap, packages);
      const mem::PackedChain chain = pack(*root, 1100);
      catalog::neededLines(context, catalog::mostNeeded(root, packages.size()));
    } catch (const catalog::ServiceError &) {
    }
    host.disarm();
    returnAbandonedTable();
    EXPECT_EQ(host.account().liveCount, liveBefore) << "call " << nth;
    if (host.faultsFired() == firedBefore) break;
    ASSERT_LT(nth, 1000U);
  }
}

}  // namespace
