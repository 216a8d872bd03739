// memtool as a whole: arguments, help, progress; and the command heapmap.

#include <chrono>
#include <thread>

#include "heap_script.hpp"
#include "memtooltest.hpp"
#include "tool_file.hpp"
#include "tool_progress.hpp"
#include "tool_svg.hpp"
#include "tool_text.hpp"

namespace memtest {
namespace {

class MemtoolCommandsTest : public ToolTest {};

std::string fixture(const char *name) {
  return (std::filesystem::path(MEM_FIXTURES) / "memtool" / name).string();
}

TEST_F(MemtoolCommandsTest, WrongUseEndsWithTwo) {
  expectRefused(2, "a command is required (try --help)", {});
  expectRefused(2, "there is no command \"nonsense\"", {"nonsense"});
  expectRefused(2, "there is no command \"chian\"; the most similar one is chain", {"chian"});
  expectRefused(2, "there is no option --libary; the most similar one is --library",
                {"errors", "--libary=x"});
  expectRefused(2, "--nonsense", {"errors", "--nonsense"});
  expectRefused(2, "more", {"errors", "4033", "more"});
  expectRefused(2, "--library", {"errors", "--library"});
}

TEST_F(MemtoolCommandsTest, HelpHasExamplesForEachCommand) {
  EXPECT_NE(outputOf({"--help"}).find("Exit codes: 0"), std::string::npos);
  for (const char *command : {"chain", "contract", "errors", "heapmap"}) {
    const std::string help = outputOf({command, "--help"});
    EXPECT_NE(help.find(std::string("Usage: memtool ") + command), std::string::npos) << help;
    EXPECT_NE(help.find("Examples:\n  memtool " + std::string(command)), std::string::npos) << help;
  }
  EXPECT_TRUE(outputOf({"--version"}).starts_with("memtool "));
}

TEST_F(MemtoolCommandsTest, HelpListsTheCommands) {
  const std::string help = outputOf({"--help"});
  EXPECT_NE(help.find("Usage: memtool [OPTIONS] COMMAND\n"), std::string::npos) << help;
  EXPECT_NE(help.find("\nCommands:\n  chain "), std::string::npos) << help;
}

TEST_F(MemtoolCommandsTest, FileOfTheOtherFormNamesTheCommand) {
  const std::string chain = fixture("items.chain");
  const std::string port = fixture("port/order.port");
  const std::string defs = fixture("port/order.defs.json");
  const std::string useChain = "; the file looks like a packed chain: use memtool chain\n";
  const std::string usePort = "; the file looks like a port string: use memtool port\n";
  expectRefused(1, useChain, {"port", chain});
  expectRefused(1, useChain, {"port", "--check", chain});
  expectRefused(1, useChain, {"port", "--defs", defs, chain});
  expectRefused(1, usePort, {"chain", port});
  expectRefused(1, usePort, {"chain", "--check", port});
  std::string damaged = readBytes(port);
  damaged.resize(damaged.size() / 2);
  writeBytes("damaged.port", damaged);
  EXPECT_EQ(runTool({"port", "damaged.port"}).err.find("looks like"), std::string::npos);
}

// A copy of a fixture in the test's folder, perhaps only its first bytes.
std::string copyOf(const char *name, const char *copy, std::size_t length = std::string::npos) {
  writeBytes(copy, readBytes(fixture(name)).substr(0, length));
  return copy;
}

TEST_F(MemtoolCommandsTest, OutputsNeverReplaceInputs) {
  const std::string chain = copyOf("items.chain", "items.chain");
  const std::string port = copyOf("port/order.port", "order.port");
  const std::string graph = copyOf("port/order.graph.json", "graph.json");
  const std::string defs = copyOf("port/order.defs.json", "defs.json");
  writeBytes("script", "open h heap 1\n");
  const std::vector<std::vector<std::string>> calls = {
      {"chain", chain, "--svg", "./items.chain"},
      {"chain", chain, "--to-native", chain},
      {"chain", "--encode", graph, "--defs", defs, "-o", defs},
      {"port", port, "--svg", port},
      {"port", "--encode", graph, "--defs", defs, "-o", graph},
      {"heapmap", "script", "--svg", "script"}};
  for (const std::vector<std::string> &call : calls) {
    expectRefused(2, call.back() + " is also read; name another file to write", call);
    std::vector<std::string> toStdin = call;
    toStdin.back() = "-";
    expectRefused(2, "- names input only", toStdin);
  }
  EXPECT_EQ(readBytes(chain), readBytes(fixture("items.chain")));
  EXPECT_EQ(readBytes(defs), readBytes(fixture("port/order.defs.json")));
  EXPECT_FALSE(std::filesystem::exists("-"));
}

TEST_F(MemtoolCommandsTest, JsonOfSeveralFilesIsWholeAfterFaults) {
  const std::string good = copyOf("port/order.port", "order.port");
  const std::string cut = copyOf("port/order.port", "cut.port", 40);
  const std::string defs = fixture("port/order.defs.json");
  for (const std::vector<std::string> &more :
       {std::vector<std::string>{}, {"--check"}, {"--check", "--defs", defs}}) {
    std::vector<std::string> words{"port", cut, good, "--json"};
    words.insert(words.end(), more.begin(), more.end());
    const ToolRun run = runTool(words);
    EXPECT_EQ(run.code, 1);
    const Json json = Json::parse(run.out, nullptr, false);
    ASSERT_EQ(json.size(), 2U) << run.out;
    EXPECT_EQ(json[0]["file"], cut);
    EXPECT_EQ(json[0]["fault"]["offset"], 40U);
    EXPECT_EQ(json[1]["file"], good);
  }
}

TEST_F(MemtoolCommandsTest, JsonErrorsHaveFileAndOffset) {
  const std::string cut = copyOf("port/order.port", "cut.port", 40);
  const Json fault = Json::parse(runTool({"--json-errors", "port", cut, "--check"}).err);
  EXPECT_EQ(fault["file"], cut);
  EXPECT_EQ(fault["offset"], 40U);
  const Json absent = Json::parse(runTool({"--json-errors", "chain", "absent"}).err);
  EXPECT_EQ(absent["file"], "absent");
  EXPECT_EQ(absent["exitCode"], 3);
}

TEST_F(MemtoolCommandsTest, DefinitionsAreReadOnce) {
  const std::string port = fixture("port/order.port");
  writeBytes("defs.json", "{}");
  expectRefused(1, "defs.json", {"port", port, port, "--defs", "defs.json"});
}

TEST_F(MemtoolCommandsTest, FailureWithoutMessageGetsThePlace) {
  writeBytes("header.port", "(9999999999,9999999999)(1<1N5>)");
  expectRefused(1, "character 31: expected structure text 2 of 9999999999, found the end",
                {"port", "header.port", "--defs", fixture("port/order.defs.json")});
}

TEST_F(MemtoolCommandsTest, NumbersOfOptionsAreDecimal) {
  const std::string chain = fixture("items.chain");
  const std::string port = fixture("port/order.port");
  for (const char *wrong : {"-5", "0x1", "010", "", "1 "}) {
    for (const char *option : {"--limit", "--depth", "--block"}) {
      EXPECT_EQ(runTool({"chain", chain, option, wrong, "--svg", "x.svg", "--json"}).code, 2)
          << option << " " << wrong;
    }
    for (const char *option : {"--limit", "--depth", "--root"}) {
      EXPECT_EQ(runTool({"port", port, option, wrong}).code, 2) << option << " " << wrong;
    }
    EXPECT_EQ(runTool({"diff", port, port, "--limit", wrong}).code, 2) << wrong;
  }
  expectRefused(2, "--limit: expected a decimal number, found \"010\"",
                {"chain", chain, "--limit", "010"});
  EXPECT_EQ(runTool({"chain", chain, "--limit", "0"}).code, 0);
  expectRefused(2, "--pointers: expected 4 or 8, found \"5\"", {"chain", chain, "--pointers", "5"});
}

TEST_F(MemtoolCommandsTest, LibraryThatIsNone) {
  expectRefused(3, "there is no library absent.so; name it with --library PATH",
                {"heapmap", "--library", "absent.so"});
  expectRefused(3, "there is no library absent.so", {"--library", "absent.so", "heapmap"});
  writeBytes("text.so", "this is no library");
  expectRefused(3, "cannot load", {"heapmap", "--library", "text.so"});
}

TEST_F(MemtoolCommandsTest, HeapmapOfTheExampleIsAsItWas) {
  const std::filesystem::path fixtures = std::filesystem::path(MEM_FIXTURES) / "memtool";
  EXPECT_EQ(outputOf({"heapmap"}), readBytes(fixtures / "heapmap.txt"));
  outputOf({"heapmap", "--svg", "out.svg"});
  const std::string svg = readBytes("out.svg");
  EXPECT_EQ(XmlCheck::fault(svg), "");
  EXPECT_EQ(svg, readBytes(fixtures / "heapmap.svg"));
  // The script that it prints is the one that it runs.
  writeBytes("script", outputOf({"heapmap", "--example"}));
  EXPECT_EQ(outputOf({"heapmap", "script"}), readBytes(fixtures / "heapmap.txt"));
}

// What classes the legend of a picture explains, as "size1 17 to 64".
std::vector<std::string> meaningsIn(const std::string &svg) {
  std::vector<std::string> meanings;
  std::size_t at = svg.find("Entries and cells by");
  while (at != std::string::npos) {
    at = svg.find("class=\"part ", at);
    if (at == std::string::npos) break;
    at += 12;
    const std::string className = svg.substr(at, svg.find('"', at) - at);
    at = svg.find("class=\"dim\">", at) + 12;
    meanings.push_back(className + svg.substr(at, svg.find('<', at) - at).replace(0, 0, " "));
  }
  return meanings;
}

std::string pictureOf(std::vector<std::string> words) {
  words.insert(words.begin(), "heapmap");
  words.insert(words.end(), {"--svg", "out.svg"});
  outputOf(words);
  std::string svg = readBytes("out.svg");
  EXPECT_EQ(XmlCheck::fault(svg), "");
  return svg;
}

std::size_t countOf(const std::string &text, const std::string &part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(MemtoolCommandsTest, ColoursOfEntriesMeanWhatTheLegendSays) {
  writeBytes("script",
             "open h heap 1\nentry h a 16\nentry h b 17\nchain h c 64 3\n"
             "entry h d 65\nentry h e 300\nentry h f 2000\nentry h g 5000\n");
  const std::string bySize = pictureOf({"script"});
  EXPECT_EQ(meaningsIn(bySize),
            (std::vector<std::string>{"size0 up to 16", "size1 17 to 64", "size2 65 to 256",
                                      "size3 257 to 1,024", "size4 1,025 to 4,096",
                                      "size5 4,097 and more"}));
  EXPECT_EQ(countOf(bySize, "class=\"part size1\""), 1U + 3U + 1U) << "b, c.1 to c.3, legend";
  EXPECT_EQ(pictureOf({"script", "--colour", "size"}), bySize);
  const std::string byAge = pictureOf({"script", "--colour", "age"});
  EXPECT_NE(byAge.find("by the script's line"), std::string::npos);
  EXPECT_EQ(meaningsIn(byAge), (std::vector<std::string>{"age0 1 to 2", "age1 3 to 4", "age2 5",
                                                         "age3 6 to 7", "age4 8"}));
  const std::string byOwner = pictureOf({"script", "--colour", "owner"});
  EXPECT_EQ(meaningsIn(byOwner),
            (std::vector<std::string>{"owner0 g", "owner1 f", "owner2 e", "owner3 c", "owner4 d",
                                      "owner5 b", "owner6 a"}));
  EXPECT_EQ(countOf(byOwner, "class=\"part owner3\""), 3U + 1U);
}

TEST_F(MemtoolCommandsTest, OwnersThatAreManyShareAColour) {
  std::string script = "open h heap 4\n";
  for (int i = 0; i < 12; ++i) {
    script += "entry h e" + std::to_string(i) + " " + std::to_string(200 - 8 * i) + "\n";
  }
  writeBytes("script", script);
  const std::string svg = pictureOf({"script", "--colour", "owner"});
  const std::vector<std::string> meanings = meaningsIn(svg);
  ASSERT_EQ(meanings.size(), 8U);
  EXPECT_EQ(meanings.front(), "owner0 e0");
  EXPECT_EQ(meanings.back(), "owner7 others");
  EXPECT_EQ(countOf(svg, "class=\"part owner7\""), 5U + 1U);
}

TEST_F(MemtoolCommandsTest, ColoursAreAskedForWithAPicture) {
  expectRefused(2, "--colour goes with --svg", {"heapmap", "--colour", "age"});
  expectRefused(2, "--colour", {"heapmap", "--svg", "out.svg", "--colour", "blue"});
}

// --- statistics of a program

// A host with a heap, a pool and a table, and what it writes of them.
std::string snapshotOf(const refhost::Options &options, bool withMaps = true) {
  const refhost::Library module(refhost::Library::besideProgram());
  refhost::Session session(module.bindEntry(), options);
  const MEMFunctionVector &mem = session.vector();
  HMEMHEAP heap = nullptr;
  HMEMCELL pool = nullptr;
  void *entry = nullptr;
  EXPECT_EQ(mem.MEM_EHeapOpen(&heap, 1, 7), 0);
  for (const int length : {100, 5, 900, 2000}) {
    EXPECT_EQ(mem.MEM_EHeapAllocEntry(heap, length, &entry), 0);
    if (length == 100) {
      EXPECT_EQ(mem.MEM_EHeapFreeEntry(heap, length, entry), 0);
    }
  }
  EXPECT_EQ(mem.MEM_CellOpen(&pool, 1024, 100, 7), 0);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(mem.MEM_CellAllocEntry(pool, &entry), 0);
    if (i == 4) {
      EXPECT_EQ(mem.MEM_CellFreeEntry(pool, entry), 0);
    }
  }
  std::string json = session.host().statistics(withMaps).json();
  EXPECT_EQ(mem.MEM_CellClose(pool), 0);
  EXPECT_EQ(mem.MEM_EHeapClose(heap), 0);
  return json;
}

refhost::Options withPlaces() {
  refhost::Options options;
  options.places = true;
  return options;
}

// Lines of a table without where entries were made.
std::string linesOf(const std::string &text) {
  std::istringstream stream(text);
  std::string shown;
  for (std::string line; std::getline(stream, line);) {
    line.resize(std::min(line.find("  MEM_"), line.size()));
    shown += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
  }
  return shown;
}

TEST_F(MemtoolCommandsTest, SnapshotsOfProgramsAreShown) {
  writeBytes("snapshot.json", snapshotOf(withPlaces()));
  const std::string shown = linesOf(outputOf({"heapmap", "snapshot.json"}));
  for (const char *const part :
       {"== snapshot.json after 19 calls\n",
        "heap 1: enhanced heap, areas of 1,024 bytes, subpool 7\n"
        "  opened by MEM_EHeapOpen, call 2; 3 entries of 2,905 bytes, 840 lost at the ends of "
        "areas\n",
        "        64    104  #3 (100), freed\n       168     16  #5 (5)\n       184    840  free\n",
        "         0     24  head\n        24    904  #6 (900)\n       928     96  free\n",
        "  large block, 2,024 bytes\n", "        24   2000  #7\n",
        "pool 1: cell pool, areas of 1,024 bytes, cells of 100 bytes, subpool 7\n",
        "       216    100  #9\n", "       616    100  #15\n", "  area 2, 1,024 bytes\n"}) {
    EXPECT_NE(shown.find(part), std::string::npos) << part << "is not in\n" << shown;
  }
  const std::string svg = pictureOf({"snapshot.json", "--colour", "owner"});
  const std::vector<std::string> meanings = meaningsIn(svg);
  ASSERT_EQ(meanings.size(), 2U);
  EXPECT_EQ(meanings[0].find("owner0 MEM_EHeapAllocEntry from memtool_commands_test"), 0U)
      << meanings[0];
  EXPECT_EQ(meanings[1].find("owner1 MEM_CellAllocEntry from memtool_commands_test"), 0U)
      << meanings[1];
  EXPECT_NE(svg.find("large block, 2,024 bytes, not drawn to its end"), std::string::npos);
  EXPECT_NE(pictureOf({"snapshot.json", "--colour", "age"}).find("by the call that made them"),
            std::string::npos);
}

TEST_F(MemtoolCommandsTest, SnapshotsOfCheckedProgramsHaveRedZones) {
  refhost::Options options;
  options.checked = true;
  writeBytes("snapshot.json", snapshotOf(options));
  const std::string shown = linesOf(outputOf({"heapmap", "snapshot.json"}));
  EXPECT_NE(shown.find("        64     64  red zone\n       128    104  #2 (100), freed\n"
                       "       232     64  red zone\n"),
            std::string::npos)
      << shown;
  EXPECT_NE(pictureOf({"snapshot.json"}).find(">red zone<"), std::string::npos);
}

// Of a big heap's areas the first are drawn, and indistinguishable entries are one part.
TEST_F(MemtoolCommandsTest, PicturesOfBigHeapsStaySmall) {
  std::string areas;
  for (int area = 0; area < 1000; ++area) {
    areas += areas.empty() ? "" : ",";
    areas += R"({"area":"0x1","length":262144,"head":24,"isLarge":false,"free":262144,"entries":[)";
    for (int i = 0; area < 30 && i < 1000; ++i) {
      areas += (i == 0 ? "" : ",") + std::string(R"({"offset":)") + std::to_string(24 + 8 * i) +
               R"(,"asked":8,"taken":8,"made":null})";
    }
    areas += "]}";
  }
  writeBytes("big.json", R"({"heaps":{"open":[{"handle":"0x1","opened":null,"kind":"standard",)"
                         R"("subPool":7,"areaSize":262144,"live":1,"bytesLive":8,"bytesWasted":0,)"
                         R"("map":[)" +
                             areas + "]}]}}");
  const std::string svg = pictureOf({"big.json"});
  EXPECT_LT(svg.size(), 50000U);
  EXPECT_NE(svg.find("976 more areas and large blocks are not drawn"), std::string::npos);
  EXPECT_NE(svg.find(">unknown<"), std::string::npos);
}

TEST_F(MemtoolCommandsTest, WhatIsNoSnapshotIsRefusedWithItsPlace) {
  const auto refused = [](const std::string &json, const std::string &text) {
    writeBytes("x.json", json);
    expectRefused(1, text, {"heapmap", "x.json"});
  };
  refused("{", "x.json: no JSON from byte 1 on");
  refused("{}", "x.json: this JSON has no statistics of heaps or pools");
  refused(R"({"isDifference":true,"heaps":{"open":[]}})",
          "this is a difference of statistics, which has no maps");
  refused(snapshotOf(withPlaces(), false),
          "no heap or pool has a map; write the statistics with statistics(true)");
  refused(snapshotOf({}, true), "no heap or pool has a map");
  const std::string before =
      R"({"heaps":{"open":[{"handle":"0x1","opened":null,"kind":"standard","subPool":7,)"
      R"("areaSize":1024,"live":1,"bytesLive":8,"bytesWasted":0,"map":[{"area":"0x1",)";
  const auto refusedArea = [&](const std::string &area, const std::string &text) {
    refused(before + area + "}]}]}}", text);
  };
  refusedArea(R"("length":-1)", "map[0].length: expected a whole number from 1 to 4294967295");
  refusedArea(R"("length":1024,"head":1025)", "head: expected a whole number from 0 to 1024");
  refusedArea(R"("length":1024,"head":24,"free":1025)", "free: expected a whole number");
  refusedArea(R"("length":1024,"head":24)", "\"entries\" is missing");
  const std::string entries = R"("length":1024,"head":24,"entries":[{"offset":)";
  refusedArea(entries + R"(1025}])", "entries[0].offset: expected a whole number from 0 to 1024");
  refusedArea(entries + R"(1000,"asked":1,"taken":25}])", "taken: expected a whole number from 0");
  refusedArea(entries + R"(900,"zone":901}])", "zone: expected a whole number from 0 to 900");
  refusedArea(entries + R"(900,"zone":100,"asked":1,"taken":100}])",
              "the entry ends after its area");
  refusedArea(entries + R"(16,"asked":1,"taken":8,"made":null}])",
              "the entry at offset 16 begins before 24");
  refusedArea(entries + R"(40,"zone":32,"asked":1,"taken":8,"made":null}])",
              "the entry at offset 40 begins before 24");
  refusedArea(entries + R"(24,"asked":1,"taken":16,"made":null},)"
                        R"({"offset":32,"asked":1,"taken":16,"made":null}])",
              "the entry at offset 32 begins before 40");
  refusedArea(entries + R"(24,"asked":1,"taken":16,"made":{"service":1}}])",
              "made.service: expected text");
}

TEST_F(MemtoolCommandsTest, OutputsReplaceOldFilesWhole) {
  memtool::writeFile("out", "new");
  EXPECT_EQ(readBytes("out"), "new");
  std::filesystem::permissions(
      "out", std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const auto mode = std::filesystem::status("out").permissions();
  memtool::writeFile("out", "newer");
  EXPECT_EQ(readBytes("out"), "newer");
  EXPECT_EQ(std::filesystem::status("out").permissions(), mode);
  std::filesystem::create_hard_link("out", "second");
  memtool::writeFile("out", "newest");
  EXPECT_EQ(readBytes("second"), "newest");
  std::error_code failed;
  std::filesystem::create_symlink("second", "link", failed);
  if (!failed) {
    memtool::writeFile("link", "through");
    EXPECT_TRUE(std::filesystem::is_symlink("link"));
    EXPECT_EQ(readBytes("second"), "through");
  }
  std::size_t files = 0;
  for (const auto &entry : std::filesystem::directory_iterator(".")) {
    files += entry.path().empty() ? 0U : 1U;
  }
  EXPECT_EQ(files, failed ? 2U : 3U);  // nothing else is left
}

std::vector<memtool::Snapshot> runScript(const std::string &script) {
  memtool::RunningLibrary library({});
  const std::uint64_t before = library.host().account().liveBytes;
  std::vector<memtool::Snapshot> snapshots = memtool::runHeapScript(library, "script", script);
  EXPECT_EQ(library.host().account().liveBytes, before);
  EXPECT_TRUE(library.host().takeMisuses().empty());
  return snapshots;
}

// The parts of an area as "0+56 head, 56+120 root".
std::string partsText(const memtool::Store &store, std::size_t area) {
  std::string text;
  for (const memtool::AreaPart &part : memtool::partsOf(store, store.areas.at(area))) {
    text += (text.empty() ? "" : ", ") + std::to_string(part.offset) + "+" +
            std::to_string(part.length) + " " + part.text;
  }
  return text;
}

TEST_F(MemtoolCommandsTest, WhatIsOpenAtTheEndIsShown) {
  const auto snapshots = runScript("open h heap 1\nentry h a 968\n");
  ASSERT_EQ(snapshots.size(), 1U);
  EXPECT_EQ(partsText(snapshots[0].stores[0], 0), "0+56 head, 56+968 a");
  EXPECT_EQ(runScript("open h heap 1\nshow\nclose h\n").size(), 1U);
  EXPECT_TRUE(runScript("").empty());
}

TEST_F(MemtoolCommandsTest, EntryTooLargeGetsABlock) {
  const auto snapshots = runScript("open h heap 1\nentry h a 969\nentry h b 1");
  const memtool::Store &store = snapshots.at(0).stores.at(0);
  ASSERT_EQ(store.areas.size(), 2U);
  EXPECT_TRUE(store.areas[1].isLarge);
  EXPECT_EQ(partsText(store, 0), "0+56 head, 56+8 b (1), 64+960 free");
  EXPECT_EQ(partsText(store, 1), "0+24 head, 24+976 a (969)");
}

TEST_F(MemtoolCommandsTest, EnhancedHeapKeepsFreedEntries) {
  const auto snapshots =
      runScript("open e eheap 1\nentry e a 1\nentry e b 40\nfree e a\nentry e a 16\n");
  EXPECT_EQ(partsText(snapshots.at(0).stores.at(0), 0),
            "0+64 head, 64+16 a (1), freed, 80+40 b, 120+16 a, 136+888 free");
}

TEST_F(MemtoolCommandsTest, PoolUsesCellsAgain) {
  const auto snapshots = runScript(
      "open p pool 1024 100\nshow\ncell p a 8\ncell p b\nfree p a.3\nshow\nclear p\nshow\n");
  ASSERT_EQ(snapshots.size(), 3U);
  EXPECT_EQ(partsText(snapshots[0].stores[0], 0), "0+216 head, 216+800 8 free cells, 1016+8 rest");
  EXPECT_EQ(snapshots[1].stores[0].areas.size(), 2U);
  EXPECT_EQ(partsText(snapshots[1].stores[0], 0),
            "0+216 head, 216+100 a.1, 316+100 a.2, 416+100 1 free cell, 516+100 a.4, "
            "616+100 a.5, 716+100 a.6, 816+100 a.7, 916+100 a.8, 1016+8 rest");
  EXPECT_EQ(snapshots[2].stores[0].areas.size(), 1U);
  EXPECT_EQ(partsText(snapshots[2].stores[0], 0), partsText(snapshots[0].stores[0], 0));
}

TEST_F(MemtoolCommandsTest, ScriptMistakesNameTheLine) {
  const auto refused = [](const std::string &script, const std::string &text) {
    writeBytes("script", script);
    expectRefused(1, text, {"heapmap", "script"});
  };
  refused("\n# comment\nfly h\n", "script, line 3: unknown call \"fly\"; a line begins with open");
  refused("open h heap\n", "line 1: expected: open NAME heap|eheap AREA_KB");
  refused("open h box 1\n", "line 1: expected: open");
  refused("open h heap 1\nopen h heap 1\n", "line 2: \"h\" is already open");
  refused("open h heap 257\n", "line 1: \"257\" is not a number from 1 to 256");
  refused("open p pool 256 250\n", "line 1: MEM_CellOpen failed: 4011 MEMERR_CELLSIZE");
  refused("entry h a 1\n", "line 1: no heap or pool \"h\" is open");
  refused("open h heap 1\nentry h a x\n", "line 2: \"x\" is not a number from 1 to 2147483647");
  refused("open h heap 1\nentry h a 0\n", "line 2: \"0\" is not a number from 1 to 2147483647");
  refused("open h heap 1\nentry h a 1\nentry h a 1\n", "line 3: \"h\" already has an entry \"a\"");
  refused("open h heap 1\nentry h a 1\nfree h a\n",
          "line 3: entries of a standard heap cannot be freed; close the heap");
  refused("open h eheap 1\nfree h a\n", "line 2: \"h\" has no entry \"a\"");
  refused("open h heap 1\nchain h a 4 2\n", "line 2: the entries of a chain contain a pointer");
  refused("open h heap 1\ncell h a\n", "line 2: a heap has entries; expected: entry HEAP");
  refused("open p pool 512 32\nentry p a 1\n", "line 2: a pool has cells; expected: cell POOL");
  refused("open h heap 1\nclear h\n", "line 2: only a pool can be cleared");
  refused("show\n", "line 1: no heap or pool is open to show");
  refused("close h\n", "line 1: no heap or pool \"h\" is open");
  expectRefused(3, "cannot read absent", {"heapmap", "absent"});
}

// Each number of a script is taken as far as the library takes it, and the message says how far.
TEST_F(MemtoolCommandsTest, NumbersOfScriptsHaveTheirRanges) {
  struct Row {
    std::string before;
    std::int64_t least;
    std::int64_t most;
    std::string after;
    bool isTooMuch;  // the library or its host refuses the most
  };
  const std::int64_t kMost = 2147483647;
  const Row rows[] = {{"open h heap ", 1, 256, "", false},
                      {"open h eheap ", 1, 256, "", false},
                      {"open h heap 1 ", 0, 65535, "", false},
                      {"open h eheap 1 ", 0, 65535, "", false},
                      {"open p pool ", 256, 1048576, " 8", false},
                      {"open p pool 1024 ", 8, 1048576, "", true},
                      {"open p pool 512 8 ", -32768, 32767, "", false},
                      {"open h heap 1\nentry h a ", 1, kMost, "", true},
                      {"open h eheap 1\nentry h a ", 0, kMost, "", true},
                      {"open h heap 1\nchain h a ", 8, kMost, " 2", true},
                      {"open h heap 1\nchain h a 8 ", 1, 1000, "", false},
                      {"open p pool 512 8\ncell p a ", 1, 1000, "", false}};
  for (const Row &row : rows) {
    SCOPED_TRACE(row.before);
    const auto run = [&row](std::int64_t number) {
      writeBytes("script", row.before + std::to_string(number) + row.after);
      return runTool({"heapmap", "script"});
    };
    EXPECT_EQ(run(row.least).code, 0) << run(row.least).err;
    EXPECT_EQ(run(row.most).code, row.isTooMuch ? 1 : 0) << run(row.most).err;
    const std::string range = "to " + std::to_string(row.most) + "\n";
    EXPECT_NE(run(row.most + 1).err.find("\" is not a number from "), std::string::npos);
    EXPECT_TRUE(run(row.most + 1).err.ends_with(range)) << run(row.most + 1).err;
    EXPECT_EQ(run(row.least - 1).code, 1);
  }
}

// As they are written; what a host's statistics say is shown in the same way.
TEST_F(MemtoolCommandsTest, SubpoolsAreShownAsTheyAreAccepted) {
  const auto shown = [](const std::string &script, const std::string &text) {
    writeBytes("script", script);
    EXPECT_NE(outputOf({"heapmap", "script"}).find(text), std::string::npos) << script;
  };
  shown("open h heap 1 40000\n", "areas of 1,024 bytes, subpool 40000\n");
  shown("open h eheap 1 65531\n", "areas of 1,024 bytes, subpool 65531\n");
  shown("open p pool 512 8 -5\n", "cells of 8 bytes, subpool -5\n");
  std::string json = readBytes(std::filesystem::path(MEM_FIXTURES) / "memtool" / "orders.json");
  const std::string seven = "\"subPool\":7";
  ASSERT_NE(json.find(seven), std::string::npos);
  for (const std::string number : {"-5", "65531"}) {
    std::string changed = json;
    for (std::size_t at = 0; (at = changed.find(seven, at)) != std::string::npos; ++at) {
      changed.replace(at, seven.size(), "\"subPool\":" + number);
    }
    writeBytes("x.json", changed);
    const std::string out = outputOf({"heapmap", "x.json"});
    EXPECT_NE(out.find("enhanced heap, areas of 1,024 bytes, subpool 65531\n"), std::string::npos)
        << out;
  }
}

TEST_F(MemtoolCommandsTest, ScriptsWithoutCommandsSaySo) {
  for (const char *script : {"", "\n \n", "# nothing\n\t# more", "\xEF\xBB\xBF\n"}) {
    writeBytes("script", script);
    EXPECT_EQ(outputOf({"heapmap", "script"}), "script: the script has no commands\n");
  }
  writeBytes("script", "open h heap 1\nclose h\n");
  EXPECT_EQ(outputOf({"heapmap", "script"}), "");
}

// A file of another kind may be one line of any length.
TEST_F(MemtoolCommandsTest, MessagesOnScriptsAreShort) {
  const std::string word(400000, 'x');
  const std::string shown = "\"" + std::string(40, 'x') + "\"…";
  const auto refused = [](const std::string &script, const std::string &text) {
    writeBytes("script", script);
    expectRefused(1, text, {"heapmap", "script"});
    EXPECT_LT(runTool({"heapmap", "script"}).err.size(), 300U);
  };
  refused(word, "line 1: unknown call " + shown);
  refused("open h heap " + word, "line 1: " + shown + " is not a number from ");
  refused("entry " + word + " a 1", "no heap or pool " + shown + " is open");
  const std::string open = "open " + word + " eheap 1\n";
  refused(open + open, "line 2: " + shown + " is already open");
  refused(open + "free " + word + " " + word, shown + " has no entry " + shown);
  const std::string entry = "entry " + word + " " + word + " 1\n";
  refused(open + entry + entry, "line 3: " + shown + " already has an entry " + shown);
}

// Editors of Windows write such a mark.
TEST_F(MemtoolCommandsTest, ByteOrderMarksOfScriptsAndSnapshotsMeanNothing) {
  const std::string mark = "\xEF\xBB\xBF";
  writeBytes("script", mark + "open h heap 1\nshow\n");
  EXPECT_NE(outputOf({"heapmap", "script"}).find("h: standard heap"), std::string::npos);
  const std::string snapshot =
      readBytes(std::filesystem::path(MEM_FIXTURES) / "memtool" / "orders.json");
  writeBytes("orders.json", snapshot);
  const std::string shown = outputOf({"heapmap", "orders.json"});
  writeBytes("orders.json", mark + snapshot);
  EXPECT_EQ(outputOf({"heapmap", "orders.json"}), shown);
  writeBytes("x.json", mark + "{ 5");
  expectRefused(1, "x.json: no JSON from byte 5 on (line 1, column 3)", {"heapmap", "x.json"});
  writeBytes("x.json", mark + "{\"heaps\": 5}");
  expectRefused(1, "(line 1, column 11)", {"heapmap", "x.json"});
}

// A failing script leaves nothing open.
TEST_F(MemtoolCommandsTest, FailedScriptGivesAllStorageBack) {
  memtool::RunningLibrary library({});
  const std::uint64_t before = library.host().account().liveBytes;
  EXPECT_THROW(memtool::runHeapScript(library, "script",
                                      "open h heap 1\nopen e eheap 1\nopen p pool 512 32\n"
                                      "entry e a 100000\nfly\n"),
               memtool::ToolError);
  EXPECT_EQ(library.host().account().liveBytes, before);
  EXPECT_EQ(library.host().leaks().size(), library.host().account().liveCount);
}

// Text between two marks, from `at` on; `at` moves after it. "" when there is none.
std::string takeBetween(const std::string &text, std::size_t &at, const std::string &from,
                        const std::string &to) {
  const std::size_t start = text.find(from, at);
  if (start == std::string::npos) return "";
  const std::size_t end = text.find(to, start + from.size());
  at = end + to.size();
  return text.substr(start + from.size(), end - start - from.size());
}

// What docs/memtool.md shows is what the program writes, and its pictures are the program's.
TEST_F(MemtoolCommandsTest, ManualShowsRealOutput) {
  const std::filesystem::path fixtures(MEM_FIXTURES);
  std::filesystem::copy_file(fixtures / "memtool" / "items.chain", "items.chain");
  std::filesystem::copy_file(fixtures / "memtool" / "orders.json", "orders.json");
  std::filesystem::copy_file(fixtures / "chains" / "ebcdic0200_32bit.chain", "mainframe.chain");
  std::string doubtful = readBytes("items.chain");
  doubtful[988] = 7;  // the upper half of the root's sibling pointer
  writeBytes("doubtful.chain", doubtful);
  const std::string whole = readBytes("items.chain");
  writeBytes("short.chain", whole.substr(0, whole.size() - 20));
  std::string damaged = readBytes("items.chain");
  damaged[984] = 7;  // the block number of the root's sibling
  writeBytes("damaged.chain", damaged);
  std::string changed = whole;
  changed[1036 + 34] = 'd';  // the second item's text
  writeBytes("changed.chain", changed);

  const std::filesystem::path docs = fixtures.parent_path().parent_path() / "docs";
  const std::string manual = readBytes(docs / "memtool.md");
  std::size_t at = 0;
  writeBytes("jobs.script", takeBetween(manual, at, "`jobs.script` is\n\n```\n", "```\n"));
  int shown = 0;
  for (at = 0;; ++shown) {
    const std::string arguments = takeBetween(manual, at, "```\n$ memtool ", "\n");
    if (arguments.empty()) break;
    --at;
    const std::string output = takeBetween(manual, at, "\n", "```\n");
    std::istringstream stream(arguments);
    const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    const ToolRun run = runTool(words);
    EXPECT_EQ(run.out + run.err, output) << arguments;
  }
  EXPECT_GE(shown, 8);
  EXPECT_EQ(readBytes("items.svg"), readBytes(docs / "pictures" / "items.svg"));
  EXPECT_EQ(readBytes(docs / "pictures" / "heapmap.svg"),
            readBytes(fixtures / "memtool" / "heapmap.svg"));
}

TEST_F(MemtoolCommandsTest, ProgressShowsOnATerminalOnly) {
  for (const bool isTerminal : {true, false}) {
    std::ostringstream out;
    std::ostringstream err;
    memtool::Console console(out, err, {false, isTerminal, 60});
    {
      memtool::Progress progress(console, "reading", 200);
      progress.redraw(10);  // too early
      EXPECT_EQ(err.str(), "");
      std::this_thread::sleep_for(std::chrono::milliseconds(600));
      progress.redraw(100);
    }
    EXPECT_EQ(out.str(), "");
    if (isTerminal) {
      EXPECT_NE(err.str().find("reading [====="), std::string::npos) << err.str();
      EXPECT_NE(err.str().find(" 50 %"), std::string::npos) << err.str();
      EXPECT_TRUE(err.str().ends_with("\r\x1b[K"));
    } else {
      EXPECT_EQ(err.str(), "");
    }
  }
}

TEST_F(MemtoolCommandsTest, TextHelpers) {
  EXPECT_EQ(memtool::validUtf8("a\xC3\xA4\xFF\xC0\x80\xED\xA0\x80"),
            "aä\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(memtool::inQuotes("äöü", 2), "\"äö\"…");
  EXPECT_EQ(memtool::inQuotes("a\"\\\n\x7F"), "\"a\\\"\\\\\\x0A\\x7F\"");
  EXPECT_EQ(memtool::columnsOf("äb"), 2U);
  EXPECT_EQ(memtool::grouped(0), "0");
  EXPECT_EQ(memtool::grouped(999), "999");
  EXPECT_EQ(memtool::grouped(1000), "1,000");
  EXPECT_EQ(memtool::grouped(12345678), "12,345,678");
  EXPECT_EQ(memtool::utf8FromUtf16(u"a\xD83D\xDE00\xD800"), "a\U0001F600\uFFFD");
  EXPECT_EQ(memtool::displayColumns("日本a😀"), 7U);
  EXPECT_EQ(memtool::fitted("日本語", 5), "日本…");
  EXPECT_EQ(memtool::fitted("abc", 3), "abc");
  EXPECT_EQ(memtool::fitted("abcd", 3), "ab…");
}

}  // namespace
}  // namespace memtest
