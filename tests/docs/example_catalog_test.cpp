// The parts of the catalogue example: what its reader makes of a status file and refuses, the
// records that it builds, and how it fails. catalog_program_test compares its files with kept ones.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
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
  EXPECT_EQ(refusal("\n \n\n"), "status contains no package");
  EXPECT_EQ(refusal("Package: a\n\nthis is a line\n"),
            "status, line 3: is not a field (\"Name: value\"), a continuation or a blank line");
  EXPECT_EQ(refusal("# comment: here\n"),
            "status, line 1: is not a field (\"Name: value\"), a continuation or a blank line");
  EXPECT_EQ(refusal(": value\n"),
            "status, line 1: is not a field (\"Name: value\"), a continuation or a blank line");
  EXPECT_EQ(refusal("Two words: value\n"),
            "status, line 1: is not a field (\"Name: value\"), a continuation or a blank line");
  EXPECT_EQ(refusal("Package: a\n\n continued\n"),
            "status, line 3: is a continuation without a field before it");
  EXPECT_EQ(refusal("Package: a\n\nVersion: 1\nDescription: b\n"),
            "status, line 3: begins a stanza without a package name");
  EXPECT_EQ(refusal("Package: a\nPackage: b\n"),
            "status, line 2: repeats a field of the same package");
  EXPECT_EQ(refusal("Package: a\nVersion: 1\0002\n"s), "status, line 2: contains a NUL character");
  for (const char *list : {"b (>= 1", "(>= 1)", "b | | c", "b (1) c"}) {
    EXPECT_EQ(refusal(std::string("Package: a\nDepends: ") + list + "\n"),
              "status, line 2: contains a dependency that is not \"name\" or "
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

class CatalogChain : public memtest::StartedTest {
 protected:
  mem::Heap openHeap() { return catalog::need(mem::Heap::open(context, {.subPool = 20})); }

  mem::PackedChain pack(const catalog::PackageRecord &root, std::int32_t blockLength) {
    return catalog::need(mem::PackedChain::pack(context, catalog::kPackTable, root, blockLength));
  }

  static std::filesystem::path samplePath() {
    return refhost::Library::besideProgram().parent_path() / "sample-status";
  }

  const mem::Context context = mem::contextOf(host);
};

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
  const std::uint64_t failing = memtest::sweepFaults(
      host, memtest::faultOf(refhost::Service::GetStorage), [&](std::uint64_t) {
        try {
          mem::Heap heap = openHeap();
          const catalog::PackageRecord *const root = catalog::buildRecords(context, heap, packages);
          const mem::PackedChain chain = pack(*root, 1100);
          catalog::neededLines(context, catalog::mostNeeded(root, packages.size()));
        } catch (const catalog::ServiceError &) {
        }
        host.disarm();
        memtest::returnHashTables(host);
        EXPECT_EQ(host.account().liveCount, liveBefore);
      });
  EXPECT_GE(failing, 5U);
}

}  // namespace
