// memtool port: what it shows of port strings, what --check finds in them, definitions, graphs to
// encode, and pictures.

#include <array>
#include <cctype>
#include <optional>
#include <regex>

#include "memtooltest.hpp"

namespace memtest {
namespace {

std::filesystem::path fixture(const std::string &name) {
  return std::filesystem::path(MEM_FIXTURES) / "memtool" / "port" / name;
}

// A port string around structure texts. Its header is right if `structures` is.
std::string portText(const std::string &body, std::size_t structures = 1) {
  const auto digits = [](std::size_t number) {
    const std::string text = std::to_string(number);
    return std::string(10 - text.size(), '0') + text;
  };
  return "(" + digits(body.size() + 23) + "," + digits(structures) + ")" + body;
}

class MemtoolPortTest : public ToolTest {
 protected:
  MemtoolPortTest() {
    for (const char *name : {"order.port", "order.defs.json", "order.graph.json", "all.port",
                             "all.defs.json", "all.json", "catalog.defs.json"}) {
      std::filesystem::copy_file(fixture(name), name);
    }
    std::filesystem::copy_file(std::filesystem::path(MEM_FIXTURES) / "catalog-sample.chain.port",
                               "catalog.port");
  }

  static Json jsonOf(const std::vector<std::string> &words) { return Json::parse(outputOf(words)); }

  static std::string message(std::size_t place, const std::string &expected,
                             const std::string &found) {
    return "character " + std::to_string(place) + ": expected " + expected + ", found " + found;
  }

  // Readers stop there: reported with and without --check.
  static void expectFault(const std::string &text, std::size_t place, const std::string &expected,
                          const std::string &found) {
    SCOPED_TRACE(text);
    const std::string told = "bad.port: " + message(place, expected, found) + "\n";
    writeBytes("bad.port", text);
    expectRefused(1, told, {"port", "bad.port", "--check"});
    expectRefused(1, told, {"port", "bad.port"});
    const ToolRun json = runTool({"port", "bad.port", "--json"});
    EXPECT_EQ(json.code, 1);
    const Json fault = Json::parse(json.out)["fault"];
    ASSERT_TRUE(fault.is_object());
    EXPECT_EQ(fault["offset"], place);
    EXPECT_EQ(fault["expected"], expected);
    EXPECT_EQ(fault["found"], found);
  }

  // Readers let it pass: reported with --check only.
  static void expectDeviation(const std::string &text, std::size_t place,
                              const std::string &expected, const std::string &found) {
    SCOPED_TRACE(text);
    writeBytes("odd.port", text);
    expectRefused(1, "odd.port: " + message(place, expected, found) + "\n",
                  {"port", "odd.port", "--check"});
    EXPECT_NE(outputOf({"port", "odd.port"}), "");
    EXPECT_TRUE(jsonOf({"port", "odd.port", "--json"})["fault"].is_null());
  }

  // The one field of the one structure.
  static Json fieldOf(const std::string &value, std::string &shown) {
    writeBytes("one.port", portText("(1<1" + value + ">)"));
    EXPECT_EQ(outputOf({"port", "one.port", "--check"}).find("one.port: valid, "), 0U);
    const std::string text = outputOf({"port", "one.port"});
    const std::string mark = "\n    1  ";
    shown = text.substr(text.find(mark) + mark.size());
    shown.pop_back();
    return jsonOf({"port", "one.port", "--json"})["structures"][0]["fields"][0];
  }

  static void expectField(const std::string &value, const std::string &form, const Json &wanted,
                          const std::string &wantedText) {
    SCOPED_TRACE(value);
    std::string shown;
    const Json field = fieldOf(value, shown);
    EXPECT_EQ(field, Json({{"id", 1}, {"form", form}, {"value", wanted}}));
    EXPECT_EQ(shown, form + "  " + wantedText);
  }

  static void expectBadDefinitions(const std::string &json, const std::string &message) {
    SCOPED_TRACE(json);
    writeBytes("bad.json", json);
    expectRefused(1, "bad.json: " + message, {"port", "order.port", "--defs", "bad.json"});
  }

  static void expectBadGraph(const std::string &definitions, const std::string &json,
                             const std::string &message) {
    SCOPED_TRACE(json);
    writeBytes("graph.json", json);
    expectRefused(1, "graph.json: " + message,
                  {"port", "--encode", "graph.json", "--defs", definitions});
  }
};

TEST_F(MemtoolPortTest, ExampleIsAsItWas) {
  const std::string defs = "order.defs.json";
  EXPECT_EQ(outputOf({"port", "order.port"}), readBytes(fixture("order.txt")));
  EXPECT_EQ(outputOf({"port", "order.port", "--json"}), readBytes(fixture("order.json")));
  EXPECT_EQ(outputOf({"port", "order.port", "--check"}),
            "order.port: valid, 64 characters, 2 structures\n");
  EXPECT_EQ(outputOf({"port", "order.port", "--defs", defs}), readBytes(fixture("order.defs.txt")));
  EXPECT_EQ(outputOf({"port", "order.port", "--defs", defs, "--json"}),
            readBytes(fixture("order.graph.json")));
  EXPECT_EQ(outputOf({"port", "order.port", "--defs", defs, "--svg", "out.svg"}),
            "out.svg: the picture is written\n");
  EXPECT_EQ(readBytes("out.svg"), readBytes(fixture("order.svg")));
  EXPECT_EQ(outputOf({"port", "all.port"}), readBytes(fixture("all.txt")));
  EXPECT_EQ(outputOf({"port", "all.port", "--defs", "all.defs.json"}),
            readBytes(fixture("all.defs.txt")));
}

// The manual's example is the program's output, and its picture was drawn by the program.
TEST_F(MemtoolPortTest, ManualShowsWhatTheProgramWrites) {
  const std::filesystem::path docs = MEM_DOCS;
  const std::string manual = readBytes(docs / "memtool-port.md");
  for (const char *name :
       {"order.port", "order.txt", "order.defs.txt", "order.defs.json", "order.graph.json"}) {
    EXPECT_NE(manual.find(readBytes(fixture(name))), std::string::npos) << name;
  }
  const std::string json = readBytes(fixture("order.json"));
  EXPECT_NE(manual.find(json.substr(0, json.find("        {\n          \"id\": 2"))),
            std::string::npos);
  writeBytes("broken.port", "(0000000064,0000000002)(21<1N-503/2Xab//c\"/3S2>)(7<1N04/2H1FA0>)");
  const std::string fault = runTool({"port", "broken.port", "--check"}).err;
  EXPECT_NE(manual.find("$ memtool port broken.port --check\n" + fault), std::string::npos)
      << fault;
  writeBytes("newer.port", "(0000000050,0000000001)(21<1N-503/4N1/5E(99<1N>)>)");
  const std::string notes =
      outputOf({"port", "newer.port", "--check", "--defs", "order.defs.json"});
  EXPECT_NE(manual.find("$ memtool port newer.port --check --defs order.defs.json\n" + notes),
            std::string::npos)
      << notes;
  std::filesystem::copy_file(fixture("shop.port"), "shop.port");
  outputOf({"port", "shop.port", "--defs", fixture("shop.defs.json").string(), "--svg", "out.svg"});
  EXPECT_EQ(readBytes("out.svg"), readBytes(docs / "pictures" / "memtool-port.svg"));
  EXPECT_EQ(outputOf({"port", "--encode", fixture("shop.json").string(), "--defs",
                      fixture("shop.defs.json").string()}),
            readBytes("shop.port"));
}

TEST_F(MemtoolPortTest, ColoursOnlyWhereTheConsoleHasThem) {
  const ToolRun plain = runTool({"port", "order.port"});
  const ToolRun coloured = runTool({"port", "order.port"}, true);
  EXPECT_EQ(plain.out.find('\x1b'), std::string::npos);
  EXPECT_NE(coloured.out.find('\x1b'), std::string::npos);
  EXPECT_EQ(std::regex_replace(coloured.out, std::regex("\x1b\\[[0-9;]*m"), ""), plain.out);
}

TEST_F(MemtoolPortTest, EveryFormOfValue) {
  expectField("N503", "number", 305, "305");
  expectField("N", "number", 0, "0");
  expectField("N-503", "number", -305, "-305");
  expectField("N51615590737044764481", "number", "18446744073709551615", "18446744073709551615");
  expectField("N-8085774586302733229", "number", "-9223372036854775808", "-9223372036854775808");
  // Numbers of 32 bits are numbers; only 64-bit fields hold others.
  expectField("N5927694924", "number", 4294967295, "4294967295");
  expectField("N6927694924", "number", "4294967296", "4294967296");
  expectField("N-8463847412", "number", -2147483648, "-2147483648");
  expectField("N-9463847412", "number", "-2147483649", "-2147483649");
  expectField("\"a/\"b//c/0\"", "text", std::string("a\"b/c\0", 6), "\"a\\\"b/c\\x00\"");
  expectField("\"\"", "text", "", "\"\"");
  expectField("\"\xC3\xA9\"", "text", "é", "\"é\"");
  expectField("\"\xE9\"", "text", {{"hex", "E9"}}, "\"\xEF\xBF\xBD\"");
  expectField("X", "string", nullptr, "null");
  expectField("X\"\"", "string", "", "\"\"");
  expectField("X21\"abcdefghij>/\"\"", "string", "abcdefghij>\"", "\"abcdefghij>\\\"\"");
  expectField("H", "bytes", "", "no bytes");
  expectField("H1FA0", "bytes", "1FA0", "1F A0");
  expectField("B10100001", "flags", 0x85, "85 bit0 bit2 bit7");
  expectField("S", "pointer", nullptr, "null");
  expectField("S1", "pointer", 1, "-> 1");
  expectField("'a/'b///23Y'", "wide text", "a'b/é", "\"a'b/é\"");
  expectField("'/3?oo'", "wide text", "\xEF\xBF\xBF", "\"\xEF\xBF\xBF\"");
  expectField("'/3=Pd/3=dN'", "wide text", "𝄞", "\"𝄞\"");
  expectField("'/3=Pd'", "wide text", {{"units", {0xD834}}}, "\"\xEF\xBF\xBD\"");
  expectField("x", "wide string", nullptr, "null");
  expectField("x;''", "wide string", "", "\"\"");
  expectField("x2;1'/3=Pd/3=dN!'", "wide string", "𝄞!", "\"𝄞!\"");
}

TEST_F(MemtoolPortTest, EmbeddedStructuresAndElements) {
  writeBytes("one.port", portText("(01,2<3E(7<1N>)/5N1/5N2>)"));
  EXPECT_EQ(outputOf({"port", "one.port"}),
            "one.port: 48 characters, 1 structure\n"
            "\n"
            "1  StructID 10, 2 elements, at character 23\n"
            "    3  structure  StructID 7\n"
            "        1  number  0\n"
            "    5  number     1\n"
            "    5  number     2\n");
  EXPECT_EQ(jsonOf({"port", "one.port", "--json"})["structures"],
            Json::parse(R"([{"number": 1, "offset": 23, "structID": 10, "elements": 2, "fields": [
                {"id": 3, "form": "structure", "value":
                    {"structID": 7, "fields": [{"id": 1, "form": "number", "value": 0}]}},
                {"id": 5, "form": "number", "value": 1},
                {"id": 5, "form": "number", "value": 2}]}])"));
}

TEST_F(MemtoolPortTest, LongValuesAreCut) {
  writeBytes("one.port",
             portText("(1<1\"" + std::string(500, 'a') + "\"/2H" + std::string(2000, 'A') + ">)"));
  const std::string text = outputOf({"port", "one.port"});
  EXPECT_NE(text.find("\"" + std::string(200, 'a') + "\"…\n"), std::string::npos) << text;
  EXPECT_NE(text.find(" AA … (1,000 bytes)\n"), std::string::npos) << text;
  const Json json = jsonOf({"port", "one.port", "--json"});
  EXPECT_EQ(json["structures"][0]["fields"][0]["value"], std::string(500, 'a'));
  EXPECT_EQ(json["structures"][0]["fields"][1]["value"], std::string(2000, 'A'));
}

// JSON is written in pieces, which must not divide a character.
TEST_F(MemtoolPortTest, LongValuesAreWholeInJson) {
  const auto times = [](std::size_t count, const std::string &text) {
    std::string made;
    for (std::size_t i = 0; i < count; ++i) made += text;
    return made;
  };
  for (const std::size_t shift : {0U, 1U, 2U, 3U}) {
    SCOPED_TRACE(shift);
    const std::string start(shift, 'a');
    const std::string narrow = start + times(30000, "本") + times(30000, "ä\t");
    const std::string lone = start + times(70000, "b") + "/3=Pd";
    writeBytes("one.port", portText("(1<1\"" + narrow + "\"/2\"" + narrow + "\xE9\"/3'" + start +
                                    times(70000, "/3=Pd/3=dN") + "'/4'" + lone + "'/5H" +
                                    times(70000 + shift, "1F") + ">)"));
    const Json fields = jsonOf({"port", "one.port", "--json"})["structures"][0]["fields"];
    ASSERT_EQ(fields.size(), 5U);
    EXPECT_EQ(fields[0]["value"], narrow);
    EXPECT_EQ(fields[1]["value"]["hex"].get<std::string>().size(), 2 * narrow.size() + 2);
    EXPECT_TRUE(fields[1]["value"]["hex"].get<std::string>().ends_with("C3A409E9"));
    EXPECT_EQ(fields[2]["value"], start + times(70000, "𝄞"));
    EXPECT_EQ(fields[3]["value"]["units"].size(), shift + 70001);
    EXPECT_EQ(fields[3]["value"]["units"].back(), 0xD834);
    EXPECT_EQ(fields[4]["value"], times(70000 + shift, "1F"));
  }
}

TEST_F(MemtoolPortTest, FaultsOfTheHeader) {
  expectFault("", 0, "\"(\" of the header", "the end");
  expectFault("(00000", 6, "ten digits in the header", "the end");
  expectFault("(0000000064,000000000x)", 21, "ten digits in the header", "'x'");
  expectFault("(0000000064,0000000002", 22, "\")\" of the header", "the end");
  expectFault(portText("", 0), 12, "a number of structures from 1 on", "0");
  expectFault(portText(""), 23, "structure text 1 of 1", "the end");
  expectFault(portText("(1<1N>)", 3), 30, "structure text 2 of 3", "the end");
  const std::string sound = portText("(1<1N>)");
  expectDeviation("[" + sound.substr(1), 0, "\"(\" of the header", "'['");
  expectDeviation(sound.substr(0, 11) + ";" + sound.substr(12), 11, "\",\" of the header", "';'");
  expectDeviation("(x" + sound.substr(2), 1, "ten digits in the header", "'x'");
  expectDeviation("(0000000031" + sound.substr(11), 1, "0000000030 characters in all",
                  "0000000031");
  expectDeviation(sound + "\n", 30, "the end after 1 structure", "the byte 0A");
}

// Two files in one, for example.
TEST_F(MemtoolPortTest, CharactersAfterTheLastStructureAreCounted) {
  const std::string sound = portText("(1<1N>)");
  for (const std::string &more : {std::string("\n"), sound}) {
    writeBytes("one.port", sound + more);
    const std::string shown = outputOf({"port", "one.port"});
    const std::string line = "\n" + std::to_string(more.size()) +
                             (more.size() == 1 ? " character" : " characters") +
                             " after the last structure, which readers ignore: see --check\n";
    EXPECT_TRUE(shown.ends_with(line)) << shown;
  }
}

TEST_F(MemtoolPortTest, FaultsOfStructures) {
  expectFault(portText("1<1N>)"), 23, "\"(\" of a structure", "'1'");
  expectFault(portText("(<1N>)"), 24, "a StructID from 1 to 2147483647", "'<'");
  expectFault(portText("(0<1N>)"), 24, "a StructID from 1 to 2147483647", "0");
  expectFault(portText("(8463847412<1N>)"), 24, "a StructID from 1 to 2147483647", "2147483648");
  expectFault(portText("(99999999999999999999999<1N>)"), 24, "a StructID from 1 to 2147483647",
              "more");
  expectFault(portText("(1>1N>)"), 25, "digits of the StructID, \",\" or \"<\" of the fields",
              "'>'");
  expectFault(portText("(1,2>1N>)"), 27, "digits of the element count or \"<\" of the fields",
              "'>'");
  expectFault(portText("(1<N>)"), 26, "a FieldID from 1 to 4294967295", "'N'");
  expectFault(portText("(1<1N/>)"), 29, "a FieldID from 1 to 4294967295", "'>'");
  expectFault(portText("(1<1N"), 28, "\"/\" of a further field or \">\" after the last one",
              "the end");
  expectFault(portText("(1<1N>"), 29, "\")\" of the structure", "the end");
  expectFault(portText("(1<1N>>"), 29, "\")\" of the structure", "'>'");
  expectFault(portText("(1<1"), 27, "a field's value", "the end");
  expectFault(portText("(1<1Q>)"), 27,
              "a field's value, which begins with one of \" ' X x H N S B E", "'Q'");
  expectFault(portText("(1<1E1>)"), 28, "\"(\" of a structure", "'1'");

  std::string nested = "(1<1N>)";
  for (int level = 0; level < 64; ++level) nested = "(1<1E" + nested + ">)";
  writeBytes("deep.port", portText(nested));
  EXPECT_NE(outputOf({"port", "deep.port", "--check"}), "");
  expectFault(portText("(1<1E" + nested + ">)"), 347, "at most 64 structures within one another",
              "'E'");

  // What a writer makes of a structure of which no field is ported.
  writeBytes("empty.port", portText("(1<>)"));
  EXPECT_NE(outputOf({"port", "empty.port", "--check"}), "");
}

TEST_F(MemtoolPortTest, FaultsOfValues) {
  const auto fault = [](const std::string &value, std::size_t place, const std::string &expected,
                        const std::string &found) {
    expectFault(portText("(1<1" + value), place, expected, found);
  };
  fault("S2>)", 28, "a structure number up to 1", "2");
  fault("S99999999999999999999999>)", 28, "a structure number up to 1", "more");
  for (const char *pointer : {"4294967296", "4294967297"}) {  // 0 and 1 in 32 bits, reversed
    std::string digits(pointer);
    std::reverse(digits.begin(), digits.end());
    expectFault(portText("(1<1S" + digits + ">)", 9999999999), 28,
                "a structure number up to 4294967295", pointer);
  }
  fault("B1010", 32, "eight flags, each 0 or 1", "the end");
  fault("B10102000>)", 32, "eight flags, each 0 or 1", "'2'");
  fault("H1fA0>)", 29, "two hexadecimal digits in capitals, \"/\" or \">\"", "'f'");
  fault("H1", 29, "two hexadecimal digits", "the end");
  fault("\"abc", 31, "\" at the end of text", "the end");
  fault("\"abc/", 32, "the character after \"/\"", "the end");
  fault("'abc", 31, "' at the end of wide text", "the end");
  fault("'/3=P", 32, "the groups of a wide unit", "the end");
  fault("X3abc\"", 29, "the string's length and \"", "'a'");
  fault("X3\"ab\">)", 28, "2 as the string's length", "3");
  fault("X3\"abcd\">)", 28, "4 as the string's length", "3");
  fault("X99999999999999999999999\"abcd\">)", 28, "4 as the string's length", "more");
  fault("x3'abc'>)", 29, "the number of code points and \";\"", "'''");
  fault("x3;abc'>)", 30, "the number of surrogate pairs and '", "'a'");
  fault("x3;1'abc'>)", 28, "3 as the sum of code points and pairs", "3 and 1");
}

TEST_F(MemtoolPortTest, WhatReadersLetPass) {
  const auto odd = [](const std::string &fields, std::size_t place, const std::string &expected,
                      const std::string &found) {
    expectDeviation(portText("(1<" + fields + ">)"), place, expected, found);
  };
  odd("1N50", 29, "a most significant digit, which is not 0", "'0'");
  odd("1N-", 29, "digits after \"-\"", "'>'");
  odd("1N61615590737044764481", 28, "a number of at most 64 bits", "more");
  odd("1N-9085774586302733229", 29, "a number of at most 64 bits", "more");
  odd("1N;2N", 28, "\"/\" of a further field or \">\" after the last one", "';'");
  odd("2N/1N", 29, "a FieldID from 2 on", "field 1");
  odd("1N/1N", 26, "field 1 1 time", "it 2 times");
  odd("1N/1N/2N", 32, "no field after the repeat field", "field 2");
  odd("1\"a/b\"", 30, "one of 0 / \" after \"/\"", "'b'");
  odd(std::string("1\"a\0b\"", 6), 29, "/0 for a zero byte", "the byte 00");
  odd("1X1\"/0\"", 28, "a string without a zero byte", "one");
  odd("1'/b'", 29, "a digit, \"/\" or ' after \"/\"", "'b'");
  odd("1'\xE9'", 28, "\"/\" before a unit that is not 1 to 127", "the byte E9");
  odd("1'/303Y'", 29, "a unit in as few groups of 6 bits as it needs", "'3'");
  odd("1'/2~~'", 29, "a unit in as few groups of 6 bits as it needs", "'2'");
  odd("1x1;1'ab'", 30, "0 as the number of surrogate pairs", "1");
  odd("1x1;'/0'", 30, "a string without a zero unit", "one");
  std::string header = portText("(1<1N>)");
  for (const char *count : {"1abcdefghi", "1         "}) {
    expectDeviation(header.replace(12, 10, count), 13, "ten digits in the header",
                    count[1] == 'a' ? "'a'" : "' '");
  }
  expectDeviation(header.replace(12, 10, "        +1"), 12, "ten digits in the header", "' '");
  expectDeviation(portText("(1,3<1N/1N>)"), 28, "field 1 3 times", "it 2 times");
  expectDeviation(portText("(1<1S3>)(1<1S>)(1<1S>)", 3), 28,
                  "a structure number up to 2, the next new one", "3");
  expectDeviation(portText("(1<1S>)(1<1S>)", 2), 30, "a structure that a pointer before it names",
                  "number 2");
}

// What is before a fault is shown.
TEST_F(MemtoolPortTest, FaultyTextsAreShownUpToTheFault) {
  writeBytes("bad.port", portText("(1<1S2/2N7>)(1<1Q>)", 2));
  const ToolRun run = runTool({"port", "bad.port"});
  EXPECT_EQ(run.code, 1);
  EXPECT_NE(run.out.find("    1  pointer  -> 2\n    2  number   7\n"), std::string::npos);
  EXPECT_NE(run.err.find("bad.port: character 39: "), std::string::npos);
  const ToolRun picture = runTool({"port", "bad.port", "--svg", "out.svg"});
  EXPECT_EQ(picture.code, 1);
  EXPECT_EQ(XmlCheck::fault(readBytes("out.svg")), "");
}

// Lines of the text form, made from the JSON.
std::string textOf(const Json &structure, std::size_t indent) {
  std::size_t widest = 0;
  std::size_t widestId = 0;
  for (const Json &field : structure["fields"]) {
    widest = std::max(widest, field["form"].get<std::string>().size());
    widestId = std::max(widestId, field["id"].dump().size());
  }
  std::string text;
  for (const Json &field : structure["fields"]) {
    const std::string id = field["id"].dump();
    std::string form = field["form"];
    const Json &value = field["value"];
    std::string shown = value.dump();
    if (form == "pointer" && !value.is_null()) shown = "-> " + shown;
    form.resize(widest, ' ');
    text +=
        std::string(indent + widestId - id.size(), ' ') + id + "  " + form + "  " + shown + "\n";
  }
  return text;
}

TEST_F(MemtoolPortTest, JsonAgreesWithTheText) {
  const Json json = jsonOf({"port", "catalog.port", "--json"});
  std::string text = "catalog.port: 4,652 characters, 72 structures\n";
  EXPECT_EQ(json["characters"], 4652);
  EXPECT_EQ(json["structures"].size(), 72U);
  for (const Json &structure : json["structures"]) {
    text += "\n" + structure["number"].dump() + "  StructID " + structure["structID"].dump() +
            ", at character " + structure["offset"].dump() + "\n" + textOf(structure, 4);
  }
  EXPECT_EQ(outputOf({"port", "catalog.port"}), text);
}

TEST_F(MemtoolPortTest, CatalogueIsSoundAndComesBack) {
  EXPECT_EQ(outputOf({"port", "catalog.port", "--check"}),
            "catalog.port: valid, 4,652 characters, 72 structures\n");
  EXPECT_EQ(outputOf({"port", "catalog.port", "--check", "--defs", "catalog.defs.json"}),
            "catalog.port: valid, 4,652 characters, 72 structures\n");
  const std::string graph =
      outputOf({"port", "catalog.port", "--defs", "catalog.defs.json", "--json"});
  const Json json = Json::parse(graph);
  EXPECT_EQ(json["structures"].size(), 72U);
  EXPECT_EQ(json["structures"][1]["fields"]["summary"],
            "Bibliothèque C standard – bibliothèques partagées");
  writeBytes("graph.json", graph);
  EXPECT_EQ(outputOf({"port", "--encode", "graph.json", "--defs", "catalog.defs.json"}),
            readBytes("catalog.port"));
}

TEST_F(MemtoolPortTest, EncodesEveryType) {
  EXPECT_EQ(outputOf({"port", "--encode", "all.json", "--defs", "all.defs.json", "-o", "out"}),
            "out: 482 characters\n");
  EXPECT_EQ(readBytes("out"), readBytes("all.port"));
  EXPECT_NE(outputOf({"port", "out", "--check", "--defs", "all.defs.json"}), "");

  // What was described comes back, with labels in the order of the text and nothing left out.
  const Json wanted = Json::parse(readBytes("all.json"));
  const Json got = jsonOf({"port", "out", "--defs", "all.defs.json", "--json"});
  ASSERT_EQ(got["structures"].size(), 2U);
  Json fields = wanted["structures"][1]["fields"];
  fields["char"] = std::string("a\0\"/é", 6);
  fields["pnt"] = "2";
  fields["asLong"] = -2147483647;
  fields["uBigInt"] = "18446744073709551615";
  fields["bigInt"] = "-9223372036854775808";
  fields["absent"] = "n/a";
  fields["rowCount"] = 3;
  fields["rows"][2] = {{"key", 0}, {"text", nullptr}};
  const Json &top = got["structures"][0]["fields"];
  EXPECT_EQ(top.size(), fields.size());
  for (const auto &[name, value] : fields.items()) EXPECT_EQ(top.at(name), value) << name;
  EXPECT_EQ(got["structures"][1]["fields"]["pnt"], "1");
  EXPECT_EQ(got["structures"][1]["fields"]["rows"], Json::array());

  writeBytes("again.json", got.dump());
  EXPECT_EQ(outputOf({"port", "--encode", "again.json", "--defs", "all.defs.json"}),
            readBytes("all.port"));
}

// The library's rules on absent fields and on counts, through the program.
TEST_F(MemtoolPortTest, DefaultsAndCounts) {
  writeBytes("defs.json", R"({"structures": [{"id": 1, "name": "S", "length": 48,
      "countField": "bytes", "countIsLength": true, "fields": [
      {"id": 1, "name": "text", "type": "CharSZ", "offset": 0, "length": 6, "default": "none"},
      {"id": 2, "name": "wide", "type": "WPStr", "offset": 8, "default": "é"},
      {"id": 3, "name": "string", "type": "PStr", "offset": 16, "default": "shared"},
      {"id": 4, "name": "number", "type": "Long", "offset": 24, "default": -7},
      {"id": 5, "name": "char", "type": "Char", "offset": 28, "length": 3, "default": "x"},
      {"id": 6, "name": "bit", "type": "Bit", "offset": 31, "default": 5},
      {"id": 7, "name": "wchar", "type": "WChar", "offset": 32, "length": 4, "default": "é"},
      {"id": 8, "name": "big", "type": "BigInt", "offset": 36, "notPorted": true, "default": 9},
      {"id": 9, "name": "bytes", "type": "Short", "offset": 44},
      {"id": 10, "name": "more", "type": "Bit", "offset": 46}]}]})");
  writeBytes("graph.json",
             R"({"structures": [{"structure": "S", "fields": {"more": [1, 2, 4]}}]})");
  const std::string text = outputOf({"port", "--encode", "graph.json", "--defs", "defs.json"});
  EXPECT_EQ(text, portText("(1,3<1\"none\"/2x1;'/23Y'/3X6\"shared\"/4N-7/5\"x  \"/6B10100000/"
                           "7'/23Y '/9N05/01B10000000/01B01000000/01B00100000>)"));
  writeBytes("one.port", portText("(1,2<9N94/01B10000000/01B01000000>)"));
  const Json fields =
      jsonOf({"port", "one.port", "--defs", "defs.json", "--json"})["structures"][0]["fields"];
  EXPECT_EQ(fields, Json::parse(R"({"text": "none", "wide": "é", "string": "shared", "number": -7,
      "char": "x  ", "bit": 5, "wchar": "é ", "big": "9", "bytes": 49, "more": [1, 2]})"));
  expectBadGraph("defs.json",
                 R"({"structures": [{"structure": 1, "fields": {"bytes": 49, "more": [1]}}]})",
                 "structures[0].fields: bytes counts 2 elements, more has 1");
  // A count below 0 has no elements, and no digits in the text.
  writeBytes("graph.json", R"({"structures": [{"structure": 1, "fields": {"bytes": -1}}]})");
  EXPECT_NE(outputOf({"port", "--encode", "graph.json", "--defs", "defs.json"}).find("(1,<"),
            std::string::npos);
}

// The reader refuses an embedded structure that does not fill its field.
TEST_F(MemtoolPortTest, EmbeddedArraysThatAreNotDescribedFillTheirField) {
  writeBytes("defs.json", R"({"structures": [
      {"id": 5, "name": "Row", "length": 8, "countField": "count", "fields": [
          {"id": 1, "name": "count", "type": "ULong", "offset": 0},
          {"id": 2, "name": "values", "type": "ULong", "offset": 4}]},
      {"id": 6, "name": "Sheet", "length": 16, "countField": "rows", "fields": [
          {"id": 1, "name": "rows", "type": "ULong", "offset": 0},
          {"id": 2, "name": "row", "type": "Substructure", "structure": "Row", "offset": 4,
           "length": 12}]},
      {"id": 7, "name": "Book", "length": 44, "fields": [
          {"id": 1, "name": "key", "type": "ULong", "offset": 0},
          {"id": 2, "name": "sheet", "type": "Substructure", "structure": "Sheet", "offset": 4,
           "length": 28},
          {"id": 3, "name": "row", "type": "Substructure", "structure": "Row", "offset": 32,
           "length": 12, "default": "000000000000000000000000"}]}]})");
  const std::string row = "(5,2<1N2/2N/2N>)";
  const std::string book =
      portText("(7<1N7/2E(6,2<1N2/2E" + row + "/2E" + row + ">)/3E" + row + ">)");
  for (const char *fields :
       {R"("key": 7)", R"("key": 7, "row": {})",
        R"("key": 7, "sheet": {}, "row": {"values": [0, 0]})",
        R"("key": 7, "sheet": {"row": [{}, {}]}, "row": {"count": 2, "values": [0, 0]})"}) {
    SCOPED_TRACE(fields);
    writeBytes("graph.json", std::string(R"({"structures": [{"structure": "Book", "fields": {)") +
                                 fields + "}}]}");
    EXPECT_EQ(outputOf({"port", "--encode", "graph.json", "--defs", "defs.json"}), book);
  }
  writeBytes("book.port", book);
  EXPECT_NE(outputOf({"port", "book.port", "--check", "--defs", "defs.json"}).find("valid"),
            std::string::npos);
}

// A field that the text did not set, of several in one place.
TEST_F(MemtoolPortTest, AlternativesOfAPointer) {
  writeBytes("defs.json", R"({"structures": [{"id": 1, "name": "S", "length": 16, "fields": [
      {"id": 1, "name": "kind", "type": "Short", "offset": 0},
      {"id": 2, "name": "number", "type": "Long", "offset": 8, "required": true},
      {"id": 3, "name": "text", "type": "PStr", "offset": 8, "required": true}]}]})");
  const auto fieldsOf = [](const std::string &body) {
    writeBytes("one.port", portText(body));
    return jsonOf({"port", "one.port", "--defs", "defs.json", "--json"})["structures"][0]["fields"];
  };
  EXPECT_EQ(fieldsOf("(1<1N1/2N7>)"), Json::parse(R"({"kind": 1, "number": 7})"));
  EXPECT_EQ(fieldsOf("(1<1N2/3X2\"ab\">)"), Json::parse(R"({"kind": 2, "text": "ab"})"));
  // The writer writes both, so that a number would be followed as an address.
  expectBadGraph(
      "defs.json", R"({"structures": [{"structure": "S", "fields": {"number": 7}}]})",
      "structures[0]: field text has bytes of another field or a default, and is no pointer");
}

TEST_F(MemtoolPortTest, WhatTheLibraryRefuses) {
  const auto refused = [](const std::string &body, const std::string &message) {
    writeBytes("bad.port", portText(body));
    expectRefused(1, "bad.port: " + message, {"port", "bad.port", "--defs", "order.defs.json"});
  };
  refused("(31<1N>)", "Unknown StructID: 13! (before character 26)");
  refused("(21<1\"a\">)", "Not a numeric field! (before character 29)");
  refused("(21<1H1f>)", "Not a numeric field!");
  refused("(7<2H1f>)", "Field conversion failed!");
  refused("(21<>)", "FieldID 0 cannot be found in StructID 12! (before character 27)");
  refused("(21<1N", "End of port string reached!");
  refused("", "End of port string reached!");
  writeBytes("bad.port", "");
  expectRefused(1, "bad.port: End of port string reached! (before character 0)",
                {"port", "bad.port", "--defs", "order.defs.json"});
  writeBytes("bad.port", portText("(21<1N>)", 0));
  expectRefused(1, "bad.port: MEM_Port1StrToStruct failed without a message",
                {"port", "bad.port", "--defs", "order.defs.json"});
}

// The reader links a pointer to any structure; the definition of its field may be a longer one.
// What the library skips, drops or changes without a failure is reported, and stays no fault.
TEST_F(MemtoolPortTest, NotesOnWhatTheLibraryDrops) {
  const auto check = [](const std::string &body, std::size_t structures) {
    writeBytes("new.port", portText(body, structures));
    return outputOf({"port", "new.port", "--check", "--defs", "order.defs.json"});
  };
  const std::string item = "(7<1N04/2H1FA0>)";
  EXPECT_EQ(check("(21<1N-503/2\"ab//c\"/3S2>)" + item, 2),
            "new.port: valid, 64 characters, 2 structures\n");
  EXPECT_EQ(check("(21<1N1/4N1/5E(99<1N>)/6N>)", 1),
            "new.port: valid, 50 characters, 1 structure\n"
            "new.port: character 31: the library drops field 4 and all after it, 5, 6: it is newer "
            "than Order (StructID 12), whose last one is first\n"
            "new.port: character 37: StructID 99 is unknown; the library does not look at it\n");
  EXPECT_EQ(
      check("(21<1N1/3S2>)(7<1N/3N>)", 2),
      "new.port: valid, 46 characters, 2 structures\n"
      "new.port: character 42: the library drops field 3: it is newer than Item (StructID 7), "
      "whose last one is key\n");
  EXPECT_EQ(
      check("(21<1N8463847412/2\"abcdefgh\"/3S2>)(7<1N63556/2H0A0B0C>)", 2),
      "new.port: valid, 78 characters, 2 structures\n"
      "new.port: character 27: the library keeps 32 bits of the number 2147483648 of field "
      "amount of Order (StructID 12)\n"
      "new.port: character 40: the library keeps 7 of the 8 characters of field code of Order "
      "(StructID 12)\n"
      "new.port: character 60: the library keeps 16 bits of the number 65536 of field pieces "
      "of Item (StructID 7)\n"
      "new.port: character 68: the library keeps 2 of the 3 bytes of field key of Item "
      "(StructID 7)\n");
  EXPECT_EQ(
      check("(21<1N1/3S2>)(7<1N-9>)", 2),
      "new.port: valid, 45 characters, 2 structures\n"
      "new.port: character 39: the library takes the digits after the sign of field pieces of "
      "Item (StructID 7) for a FieldID\n");
  writeBytes("new.port", portText("(21<1N8463847412/2\"abcdefgh\"/3S2>)(7<1N63556/2H0A0B0C>)", 2));
  // Only --check with definitions shows them.
  EXPECT_EQ(outputOf({"port", "new.port", "--check"}),
            "new.port: valid, 78 characters, 2 structures\n");
  EXPECT_EQ(outputOf({"port", "new.port", "--defs", "order.defs.json"}).find("the library"),
            std::string::npos);
}

// What doubles cannot hold goes through programs that know doubles only, and both forms are read.
TEST_F(MemtoolPortTest, BigNumbersSurviveDoubles) {
  writeBytes("big.json", R"({"structures": [{"id": 1, "length": 16, "fields": [
      {"id": 1, "name": "u", "type": "UBigInt", "offset": 0},
      {"id": 2, "name": "s", "type": "BigInt", "offset": 8}]}]})");
  const auto encoded = [](const std::string &u, const std::string &s) {
    writeBytes("graph.json", R"({"structures": [{"structure": "1", "fields": {"u": )" + u +
                                 R"(, "s": )" + s + "}}]}");
    outputOf({"port", "--encode", "graph.json", "--defs", "big.json", "-o", "big.port"});
    return readBytes("big.port");
  };
  const std::string text = encoded("\"9007199254740995\"", "\"-9007199254740995\"");
  EXPECT_EQ(encoded("9007199254740995", "-9007199254740995"), text);
  const std::string graph = outputOf({"port", "big.port", "--defs", "big.json", "--json"});
  const Json fields = Json::parse(graph)["structures"][0]["fields"];
  EXPECT_EQ(fields["u"], "9007199254740995");
  EXPECT_EQ(fields["s"], "-9007199254740995");
  // A program that reads numbers as doubles and writes all of them again.
  std::string doubles = Json::parse(graph).dump();
  writeBytes("doubles.json", doubles);
  outputOf({"port", "--encode", "doubles.json", "--defs", "big.json", "-o", "again.port"});
  EXPECT_EQ(readBytes("again.port"), text);
  // Small ones of 64-bit fields are strings, too: the type decides, not the value.
  encoded("1", "-1");
  const Json small = jsonOf({"port", "big.port", "--defs", "big.json", "--json"});
  EXPECT_EQ(small["structures"][0]["fields"]["u"], "1");
  EXPECT_EQ(small["structures"][0]["fields"]["s"], "-1");
}

TEST_F(MemtoolPortTest, MistakesInJsonHaveLineAndColumn) {
  const auto refused = [](const std::string &graph, const std::string &place) {
    writeBytes("graph.json", graph);
    expectRefused(1, place, {"port", "--encode", "graph.json", "--defs", "order.defs.json"});
  };
  refused("{\n  \"structures\": [\n    nonsense\n]}", "(line 3, column 6)");
  refused(
      "{\n  \"structures\": [{\"structure\": \"Order\",\n  \"fields\": {\"code\": \"\\\"äö\",\n"
      "   \"amount\": \"x\"}}]}",
      ".amount: expected a whole number from -2147483648 to 2147483647 (line 4, column 14)");
  refused(
      "{\"structures\": [{\"structure\": \"Order\", \"fields\": {\"code\": \"äö\", \"amount\": "
      "[]}}]}",
      "(line 1, column 75)");
  writeBytes("bad.defs.json", "{\"structures\":\n  [{\"id\": 0}]}");
  expectRefused(1, "(line 2, column 11)", {"port", "order.port", "--defs", "bad.defs.json"});
}

TEST_F(MemtoolPortTest, NotesInJson) {
  writeBytes("new.port", portText("(21<1N1/4E(99<1N>)>)"));
  const std::vector<std::string> words{"port", "new.port", "--defs", "order.defs.json", "--json"};
  EXPECT_FALSE(jsonOf(words).contains("notes"));
  std::vector<std::string> checking = words;
  checking.push_back("--check");
  const std::string report = outputOf(checking);
  const Json notes = Json::parse(report)["notes"];
  ASSERT_EQ(notes.size(), 2U);
  EXPECT_EQ(notes[0]["offset"], 31);
  EXPECT_EQ(notes[0]["structID"], 12);
  EXPECT_EQ(notes[0]["fieldID"], 4);
  EXPECT_EQ(notes[0]["what"],
            "the library drops field 4: it is newer than Order (StructID 12), whose last one is "
            "first");
  EXPECT_EQ(notes[1]["structID"], 99);
  EXPECT_TRUE(notes[1]["fieldID"].is_null());
  // It is short: no graph.
  EXPECT_FALSE(Json::parse(report).contains("root"));
  EXPECT_EQ(Json::parse(report)["structures"], 1);
}

// While it drops fields, the library takes double quotes alone for quotes.
TEST_F(MemtoolPortTest, NotesOnAFailure) {
  writeBytes("new.port", portText("(21<1N1/4'<'>)"));
  const std::vector<std::string> words{"port", "new.port", "--check", "--defs", "order.defs.json"};
  expectRefused(1, "new.port: End of port string reached!", words);
  EXPECT_NE(runTool(words).out.find("new.port: character 31: the wide text contains one of \" < >, "
                                    "which the library takes for a mark while it drops fields\n"),
            std::string::npos);
}

TEST_F(MemtoolPortTest, PointersToStructuresThatAreTooShort) {
  writeBytes("bad.port", portText("(7<1N1>)"));
  EXPECT_NE(outputOf({"port", "bad.port", "--defs", "order.defs.json"}), "");
  writeBytes("defs.json", R"({"structures": [
      {"id": 1, "length": 16, "fields": [
        {"id": 1, "name": "next", "type": "Pnt", "offset": 0, "structure": 1},
        {"id": 2, "name": "short", "type": "Pnt", "offset": 8, "structure": 2}]},
      {"id": 2, "length": 2, "fields": [{"id": 1, "type": "Short", "offset": 0}]}]})");
  writeBytes("bad.port", portText("(1<1S2>)(2<1N7>)", 2));
  expectRefused(1,
                "structure 2 (1): field next is beyond the bytes that were read for the structure",
                {"port", "bad.port", "--defs", "defs.json"});
  // Counts that are larger than the text's.
  writeBytes("defs.json", R"({"structures": [{"id": 1, "length": 4, "countField": "n", "fields": [
        {"id": 1, "name": "n", "type": "Long", "offset": 0, "length": 4},
        {"id": 2, "name": "b", "type": "Bit", "offset": 3}]}]})");
  writeBytes("bad.port", portText("(1,2<1N0001>)"));
  expectRefused(1, "structure 1 (1): field b is beyond the bytes that were read for the structure",
                {"port", "bad.port", "--defs", "defs.json"});
  // A text of a few characters that asks for much.
  writeBytes("bad.port", portText("(1,9999999999<1N1>)"));
  expectRefused(1, "Allocation Failure!", {"port", "bad.port", "--defs", "defs.json"});
}

// Bytes that a definition puts where a pointer is.
TEST_F(MemtoolPortTest, PointersThatNoTextMade) {
  writeBytes("defs.json", R"({"structures": [
      {"id": 1, "length": 24, "fields": [
        {"id": 1, "type": "Long", "offset": 0},
        {"id": 2, "type": "Substructure", "offset": 8, "structure": 2,
         "default": "01000000000000000000000000000000"}]},
      {"id": 2, "length": 16, "fields": [
        {"id": 1, "name": "text", "type": "PStr", "offset": 0},
        {"id": 2, "name": "next", "type": "Pnt", "offset": 8, "structure": 1}]}]})");
  writeBytes("bad.port", portText("(1<1N>)"));
  expectRefused(1, "structure 1 (2): field text is a pointer to nothing that was read",
                {"port", "bad.port", "--defs", "defs.json"});
  expectBadGraph(
      "defs.json", R"({"structures": [{"structure": 1, "fields": {}}]})",
      "structures[0]: field text has bytes of another field or a default, and is no pointer");
}

TEST_F(MemtoolPortTest, StructuresThatNoPointerLeadsTo) {
  writeBytes("one.port", portText("(7<1N1>)(7<1N2>)(7<1N3>)", 3));
  const std::string text = outputOf({"port", "one.port", "--defs", "order.defs.json"});
  EXPECT_NE(text.find("\n2 more to which no pointer leads\n"), std::string::npos) << text;
}

TEST_F(MemtoolPortTest, WrongDefinitions) {
  const auto structure = [](const std::string &members) {
    return R"({"structures": [{"id": 1, )" + members + "}]}";
  };
  // A field, and how the message continues after "structures[0].fields[".
  const auto field = [&structure](const std::string &members, const std::string &message) {
    expectBadDefinitions(structure(R"("length": 16, "fields": [{"id": 1, )" + members + "}]"),
                         "structures[0].fields[" + message);
  };
  expectBadDefinitions("", "no JSON from byte 0 on");
  expectBadDefinitions("{\"structures\": \"\xFF\"}", "no JSON from byte");
  expectBadDefinitions("[]", "expected an object");
  expectBadDefinitions("{}", "\"structures\" is missing");
  expectBadDefinitions(R"({"structures": 5})", "structures: expected an array");
  expectBadDefinitions(R"({"structures": []})", "no structure is defined");
  expectBadDefinitions(R"({"structures": [5]})", "structures[0]: expected an object");
  expectBadDefinitions(R"({"structures": [], "more": 1})",
                       "unknown key \"more\"; known are structures");
  expectBadDefinitions(R"({"structures": [{"id": 0}]})",
                       "structures[0].id: expected a whole number from 1 to 2147483647");
  expectBadDefinitions(R"({"structures": [{"id": 1.5}]})", "structures[0].id: expected a whole");
  expectBadDefinitions(R"({"structures": [{"id": 18446744073709551615}]})",
                       "structures[0].id: expected a whole");
  expectBadDefinitions(R"({"structures": [{"id": 1e999}]})", "JSON with a number that is too");
  expectBadDefinitions(structure(R"("length": -1)"), "structures[0].length: expected a whole");
  expectBadDefinitions(structure(R"("length": 4)"), "structures[0]: \"fields\" is missing");
  expectBadDefinitions(structure(R"("name": "12", "length": 4)"),
                       "structures[0].name: a name must not be empty or a number");
  expectBadDefinitions(structure(R"("name": "a\nb", "length": 4)"),
                       "structures[0].name: a name must not have control characters");
  expectBadDefinitions(R"({"structures": [{"id": 1, "length": 1}, {"id": 1, "length": 1}]})",
                       "structures[1]: a second structure with the id 1");
  expectBadDefinitions(R"({"structures": [{"id": 1, "name": "a", "length": 1},
                                          {"id": 2, "name": "a", "length": 1}]})",
                       "structures[1]: a second structure a");

  field(R"("type": "Integer")", "0].type: unknown type; there are Char, CharSZ, ");
  for (const std::string type : {"SByte", "UByte", "Float", "Double"}) {
    field(R"("type": ")" + type + '"',
          "0].type: only packed chains have this type; there are Char, CharSZ, ");
  }
  field(R"("type": 17)", "0].type: expected a whole");
  field(R"("type": "Char", "offset": 0)", "0]: \"length\" is missing");
  field(R"("type": "Char", "offset": 0, "length": 0)",
        "0].length: expected a whole number from 1 ");
  field(R"("type": "Bit", "offset": 0, "length": 2)",
        "0].length: expected a whole number from 1 to 1");
  field(R"("type": "Long", "offset": 0, "length": 2)",
        "0].length: expected a whole number from 4 ");
  field(R"("type": "Long", "offset": 13)", "0]: 4 bytes at 13 exceed the structure's 16");
  field(R"("type": "Long", "offset": -1)", "0].offset: expected a whole number from 0 ");
  field(R"("type": "Pnt", "offset": 0)", "0]: \"structure\" is missing");
  field(R"("type": "Pnt", "offset": 0, "structure": "none")", "0].structure: no such structure");
  field(R"("type": "Long", "offset": 0, "structure": 1)",
        "0]: only Pnt and Substructure name a structure");
  field(R"("type": "Pnt", "offset": 0, "structure": 1, "default": "1")",
        "0].default: a pointer has no default but null");
  field(R"("type": "Short", "offset": 0, "default": 32768)",
        "0].default: expected a whole number from -32768 to ");
  field(R"("type": "Bin", "offset": 0, "length": 2, "default": "1F")",
        "0].default: expected 2 bytes in hexadecimal");
  field(R"("type": "PStr", "offset": 0, "default": "a\u0000b")",
        "0].default: text with a zero in it");
  field(R"("type": "Long", "offset": 0, "required": 1)", "0].required: expected true or false");
  field(R"("type": "Long", "offset": 0}, {"id": 1, "type": 7, "offset": 4)",
        "1]: the ids of fields must ascend");
  field(R"("name": "a", "type": "Long", "offset": 0},
                                {"id": 2, "name": "a", "type": 7, "offset": 4)",
        "1]: a second field a");

  const std::string fields = R"(, "fields": [{"id": 1, "name": "n", "type": "Long", "offset": 0},
      {"id": 2, "name": "b", "type": "Bit", "offset": 4}])";
  const auto counted = [&](const std::string &members) {
    return structure(R"("length": 8, )" + members + fields);
  };
  expectBadDefinitions(counted(R"("countField": "x")"), "structures[0].countField: no such field");
  expectBadDefinitions(counted(R"("countField": "b")"),
                       "structures[0].countField: the field that counts must be a Short, ");
  expectBadDefinitions(counted(R"("countIsLength": true)"),
                       "structures[0]: countIsLength needs countField");
  expectBadDefinitions(
      structure(R"("length": 4, "countField": 1,
                   "fields": [{"id": 1, "type": "Long", "offset": 0}])"),
      "structures[0].countField: the last field is the repeat field and cannot count itself");
}

TEST_F(MemtoolPortTest, RepeatedKeys) {
  const auto bad = [](const std::string &json, const std::string &message) {
    expectBadDefinitions(json, message);
  };
  bad(R"({"structures": 1, "structures": [{}]})",
      "the key \"structures\" appears a second time (line 1, column 19)");
  bad("{\"structures\": [{}, {\"id\": {\"a\": 1},\n  \"i\\u0064\": 2}]}",
      "structures[1]: the key \"id\" appears a second time (line 2, column 3)");
  bad(R"({"structures": [{"id": 1}], "x": {"y": 1, "ü": [0, [[], {"n": "}", "n": 1}]]}, "x": 5})",
      "x.ü[1][1]: the key \"n\" appears a second time (line 1, column 68)");
  const auto badArray = [](const std::string &json, const std::string &message) {
    writeBytes("bad.json", json);
    expectRefused(1, "bad.json" + message, {"port", "order.port", "--defs", "bad.json"});
  };
  badArray(R"([1, {"a": 1, "b": "a", "a": 1}])",
           "[1]: the key \"a\" appears a second time (line 1, column 24)");
  bad(R"({"structures": 1, "structures": [})", "no JSON from byte 33 on (line 1, column 34)");
  const std::string key(100, 'k');
  bad("{\"" + key + "\": 1, \"" + key + "\": 1}",
      "the key \"" + key.substr(0, 40) + "\"… appears a second time");
  constexpr std::size_t kDeep = 100000;
  badArray(
      std::string(kDeep, '[') + R"({"a": 1, "a": 1})" + std::string(kDeep, ']'),
      "[0][0][0][0][0][0][0][0]…: the key \"a\" appears a second time (line 1, column 100010)");
  writeBytes("same.json", R"({"structures": [{"id": 1, "length": 1, "fields": [
      {"id": 1, "name": "id", "type": "Bit", "offset": 0, "default": 1}]}, {"id": 2, "length": 1,
      "fields": []}]})");
  outputOf({"defs", "same.json"});
}

// Colons and quotes in text are no members.
TEST_F(MemtoolPortTest, RepeatedKeysBesideTextLikeJson) {
  const std::vector<std::string> texts{R"(:)",     R"(::"a": 1,)", R"(\\)",   R"(\)",
                                       R"(":\":)", R"(\\":\)",     R"(\\"")", R"(","a": ")"};
  for (const std::string &text : texts) {
    SCOPED_TRACE(text);
    const auto definitions = [&](const std::string &more) {
      const std::string json = Json(text).dump();
      return R"({"structures": [{"id": 1, "length": 90, "fields": [{"id": 1, "type": "CharSZ",)"
             R"("offset": 0, "length": 90, "default": )" +
             json + more + "}]}]}";
    };
    writeBytes("good.json", definitions(""));
    outputOf({"defs", "good.json"});
    expectBadDefinitions(definitions(", \"id\": 1"),
                         "structures[0].fields[0]: the key \"id\" appears a second time (line 1, ");
    expectBadDefinitions(
        definitions(", \"default\": " + Json(text).dump()),
        "structures[0].fields[0]: the key \"default\" appears a second time (line 1, ");
  }
}

TEST_F(MemtoolPortTest, DefinitionsOfChainsAndGraphsAreNamed) {
  const auto structure = [](const std::string &members) {
    return R"({"structures": [{"id": 1, "length": 8)" + members + "}]}";
  };
  const auto ofChains = [](const std::string &json, const std::string &place,
                           const std::string &key) {
    const std::string message = place + "unknown key \"" + key +
                                "\": these definitions are for packed chains, not for port strings";
    expectBadDefinitions(json, message);
    expectRefused(1, "bad.json: " + message, {"conform", "bad.json", "bad.json"});
  };
  ofChains(R"({"pointers": 8, "structures": []})", "", "pointers");
  ofChains(structure(R"(, "segment": "C", "fields": [])"), "structures[0]: ", "segment");
  ofChains(structure(R"(, "next": "a", "fields": [])"), "structures[0]: ", "next");
  for (const std::string key : {"reference", "count", "toEnd"}) {
    ofChains(
        structure(R"(, "fields": [{"id": 1, "type": "Long", "offset": 0, ")" + key + "\": true}]"),
        "structures[0].fields[0]: ", key);
  }
  const std::string graph = ": this is a graph, not definitions";
  expectBadDefinitions(R"({"root": "1", "structures": []})", "unknown key \"root\"" + graph);
  expectBadDefinitions(R"({"structures": [{"label": "1", "structure": "A", "fields": {}}]})",
                       "structures[0]: unknown key \"label\"" + graph);
  expectBadDefinitions(R"({"structures": [{"structure": "A", "fields": {}}]})",
                       "structures[0]: unknown key \"structure\"" + graph);
  for (const std::string key : {"selection", "notes", "faults"}) {
    expectBadDefinitions("{\"" + key + "\": 1, \"structures\": []}",
                         "unknown key \"" + key + '"' + graph);
  }
  expectBadDefinitions(R"({"file": "a.port", "structures": []})",
                       "unknown key \"file\": this is JSON on a file, not definitions");
}

// Where a graph is expected.
TEST_F(MemtoolPortTest, DefinitionsAsGraphs) {
  const auto bad = [](const std::string &json, const std::string &message) {
    writeBytes("bad.json", json);
    for (const std::string command : {"port", "chain"}) {
      expectRefused(1, "bad.json: " + message,
                    {command, "--encode", "bad.json", "--defs", "order.defs.json", "-o", "out"});
    }
  };
  const std::string definitions = ": these are definitions, not a graph (line 1, column ";
  bad(readBytes("order.defs.json"), "structures[0]: unknown key \"id\": these are definitions");
  bad(R"({"pointers": 8, "structures": []})", "unknown key \"pointers\"" + definitions);
  for (const std::string key :
       {"id", "name", "length", "segment", "next", "countField", "countIsLength"}) {
    bad("{\"structures\": [{\"" + key + "\": 1}]}",
        "structures[0]: unknown key \"" + key + '"' + definitions);
  }
  const std::string report =
      "unknown key \"file\": this JSON was written without --defs, or with --check; a graph is "
      "written by --defs DEFS.json --json (line 1, column 1)";
  for (const std::string option : {"--json", "--check"}) {
    bad(outputOf({"port", "order.port", "--json", option}), report);
  }
  bad(R"({"structures": 1})", "structures: expected an array");
  bad(R"({"structures": [1]})", "structures[0]: expected an object");
  bad("[]", "expected an object");
}

TEST_F(MemtoolPortTest, StructuresWithoutEnd) {
  expectBadDefinitions(
      R"({"structures": [{"id": 1, "length": 4, "fields": [
          {"id": 1, "type": "Substructure", "offset": 0, "structure": 1}]}]})",
      "structures[0]: more than 64 structures within one another");
  const auto chain = [](std::size_t structures, std::size_t fields) {
    Json json;
    for (std::size_t i = 1; i <= structures; ++i) {
      Json list = Json::array();
      for (std::size_t k = 1; k <= fields; ++k) {
        Json field{{"id", k}, {"type", i == structures ? "Bit" : "Substructure"}, {"offset", 0}};
        if (i < structures) field["structure"] = i + 1;
        list.push_back(std::move(field));
      }
      json["structures"].push_back({{"id", i}, {"length", 1}, {"fields", std::move(list)}});
    }
    return json.dump();
  };
  expectBadDefinitions(chain(66, 1), "structures[0]: more than 64 structures within one another");
  expectBadDefinitions(chain(20, 2),
                       "structures[0]: more than 65,536 fields with those of embedded structures");
  writeBytes("deep.json", chain(65, 1));
  writeBytes("graph.json", R"({"structures": [{"structure": 1, "fields": {}}]})");
  const std::string text = outputOf({"port", "--encode", "graph.json", "--defs", "deep.json"});
  writeBytes("deep.port", text);
  EXPECT_NE(outputOf({"port", "deep.port", "--defs", "deep.json", "--check"}), "");
}

TEST_F(MemtoolPortTest, WrongGraphs) {
  const auto order = [](const std::string &json, const std::string &message) {
    expectBadGraph("order.defs.json", json, message);
  };
  const auto fields = [&order](const std::string &members, const std::string &message) {
    order(R"({"structures": [{"structure": "Order", "fields": {)" + members + "}}]}",
          "structures[0].fields" + message);
  };
  order("{", "no JSON from byte 1 on");
  order("[]", "expected an object");
  order("{}", "\"structures\" is missing");
  order(R"({"structures": []})", "there is no structure");
  order(R"({"structures": [{}]})", "structures[0]: \"structure\" is missing");
  order(R"({"structures": [{"structure": "X", "fields": {}}]})",
        "structures[0].structure: no definition has this name or id");
  order(R"({"structures": [{"structure": 12}]})", "structures[0]: \"fields\" is missing");
  order(R"({"structures": [{"structure": 12, "fields": []}]})",
        "structures[0].fields: expected an object");
  order(R"({"root": "x", "structures": [{"structure": 12, "fields": {}}]})",
        "root: no structure has this label");
  order(R"({"structures": [{"label": "a", "structure": 12, "fields": {}},
                           {"label": "a", "structure": 12, "fields": {}}]})",
        "structures[1].label: a second structure with this label");
  fields(R"("x": 1)", ": Order has no field \"x\"");
  fields(R"("amount": 1, "1": 2)", ".amount: appears a second time");
  fields(R"("amount": 2147483648)", ".amount: expected a whole number from -2147483648 to ");
  fields(R"("amount": "1x")", ".amount: expected a whole number");
  fields(R"("amount": "")", ".amount: expected a whole number");
  fields(R"("amount": "2147483648")", ".amount: expected a whole number from -2147483648 to ");
  fields(R"("code": "12345678")", ".code: 8 bytes; the field has room for 7");
  fields(R"("code": "a\u0000")", ".code: text with a zero in it");
  fields(R"("code": 5)", ".code: expected text");
  fields(R"("code": {"hex": "1"})", ".code.hex: expected bytes in hexadecimal capitals");
  fields(R"("code": {"hax": "1"})", ".code: unknown key \"hax\"; known are hex");
  fields(R"("first": "1")", ".first: no structure has the label \"1\"");
  fields(R"("first": 1)", ".first: expected text");
  order(R"({"structures": [{"label": "a", "structure": 12, "fields": {"first": "a"}}]})",
        "structures[0].fields.first: \"a\" is a Order, and the field points to a Item");
  order(R"({"structures": [{"structure": "Item", "fields": {"key": "00"}}]})",
        "structures[0].fields.key: expected 2 bytes in hexadecimal capitals");

  const auto all = [](const std::string &members, const std::string &message) {
    expectBadGraph(
        "all.defs.json",
        R"({"structures": [{"structure": 10, "fields": {"asLong": 1, )" + members + "}}]}",
        "structures[0].fields" + message);
  };
  all(R"("uBigInt": -1)", ".uBigInt: expected a whole number from 0 to 18446744073709551615");
  all(R"("bigInt": 9223372036854775808)", ".bigInt: expected a whole number from ");
  all(R"("bit": 256)", ".bit: expected a whole number from 0 to 255");
  all(R"("wPStr": {"units": [65536]})", ".wPStr.units[0]: expected a whole number");
  all(R"("wPStr": {"units": [0]})", ".wPStr: text with a zero in it");
  all(R"("wChar": "12345")", ".wChar: 10 bytes; the field has room for 8");
  all(R"("wCharSZ": "12345678")", ".wCharSZ: 16 bytes; the field has room for 14");
  all(R"("sub": 1)", ".sub: expected an object");
  all(R"("sub": {"kex": 1})", ".sub: 20 has no field \"kex\"");
  all(R"("rows": {})", ".rows: expected an array");
  all(R"("rows": [{"key": "1x"}])", ".rows[0].key: expected a whole number");
  all(R"("rowCount": 2, "rows": [{}])", ": rowCount counts 2 elements, rows has 1");
  expectBadGraph("all.defs.json", R"({"structures": [{"structure": 10, "fields": {}}]})",
                 "structures[0].fields: field asLong is required");
}

TEST_F(MemtoolPortTest, WrongUse) {
  expectRefused(2, "port needs a FILE, or --encode", {"port"});
  expectRefused(2, "--output goes with --encode", {"port", "order.port", "-o", "x"});
  expectRefused(2, "--encode needs --defs", {"port", "--encode", "all.json"});
  for (const char *word : {"--json", "--check", "order.port"}) {
    expectRefused(2, "--encode takes --defs and --output only",
                  {"port", "--encode", "all.json", "--defs", "all.defs.json", word});
  }
  expectRefused(2, "--svg takes one FILE", {"port", "order.port", "more", "--svg", "out.svg"});
  expectRefused(2, "--defs", {"port", "order.port", "--defs"});
  expectRefused(3, "cannot read absent", {"port", "absent"});
  expectRefused(3, "cannot read absent", {"port", "order.port", "--defs", "absent"});
  expectRefused(3, "cannot read absent", {"port", "--encode", "absent", "--defs", "all.defs.json"});
  expectRefused(3, "cannot write", {"port", "order.port", "--svg", "absent/out.svg"});
  expectRefused(3, "there is no library",
                {"port", "order.port", "--defs", "order.defs.json", "--library", "absent"});
  const std::string help = outputOf({"port", "--help"});
  EXPECT_NE(help.find("Examples:\n  memtool port FILE "), std::string::npos) << help;
}

// Boxes and lines of a picture.
struct Rect {
  double x, y, width, height;
};
struct Line {
  double x1, y1, x2, y2;
};

std::vector<Rect> boxesOf(const std::string &svg) {
  std::vector<Rect> boxes;
  const std::regex rect(
      "<rect x=\"([0-9.]+)\" y=\"([0-9.]+)\" width=\"([0-9.]+)\" height=\"([0-9.]+)\" "
      "class=\"box\"/>");
  for (std::sregex_iterator at(svg.begin(), svg.end(), rect), end; at != end; ++at) {
    boxes.push_back(
        {std::stod((*at)[1]), std::stod((*at)[2]), std::stod((*at)[3]), std::stod((*at)[4])});
  }
  return boxes;
}

// The straight parts, from each point to the next; bends are short and are between them.
std::vector<std::vector<Line>> arrowsOf(const std::string &svg) {
  std::vector<std::vector<Line>> arrows;
  const std::regex path("<path d=\"([^\"]*)\" class=\"(ahead|back)\" marker");
  const std::regex number("[0-9.]+");
  for (std::sregex_iterator at(svg.begin(), svg.end(), path), end; at != end; ++at) {
    const std::string data = (*at)[1];
    std::vector<double> numbers;
    for (std::sregex_iterator n(data.begin(), data.end(), number); n != end; ++n) {
      numbers.push_back(std::stod(n->str()));
    }
    std::vector<Line> &lines = arrows.emplace_back();
    for (std::size_t i = 2; i + 1 < numbers.size(); i += 2) {
      lines.push_back({numbers[i - 2], numbers[i - 1], numbers[i], numbers[i + 1]});
    }
  }
  return arrows;
}

bool overlap(const Rect &a, const Rect &b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

bool crosses(const Line &line, const Rect &box) {
  return std::max(line.x1, line.x2) > box.x && std::min(line.x1, line.x2) < box.x + box.width &&
         std::max(line.y1, line.y2) > box.y && std::min(line.y1, line.y2) < box.y + box.height;
}

void expectReadable(const std::string &svg) {
  ASSERT_EQ(XmlCheck::fault(svg), "");
  std::smatch size;
  ASSERT_TRUE(std::regex_search(svg, size, std::regex("viewBox=\"0 0 ([0-9]+) ([0-9]+)\"")));
  const std::vector<Rect> boxes = boxesOf(svg);
  for (std::size_t i = 0; i < boxes.size(); ++i) {
    EXPECT_LT(boxes[i].x + boxes[i].width, std::stod(size[1]));
    EXPECT_LT(boxes[i].y + boxes[i].height, std::stod(size[2]));
    for (std::size_t k = 0; k < i; ++k) EXPECT_FALSE(overlap(boxes[i], boxes[k])) << i << " " << k;
  }
  for (const std::vector<Line> &arrow : arrowsOf(svg)) {
    for (const Line &line : arrow) {
      EXPECT_GT(std::min(line.y1, line.y2), 36) << "through the title";
      EXPECT_LT(std::max(line.x1, line.x2), std::stod(size[1]));
      for (const Rect &box : boxes) EXPECT_FALSE(crosses(line, box));
    }
  }
}

std::string reversed(std::size_t number) {
  std::string digits = number == 0 ? "" : std::to_string(number);
  std::reverse(digits.begin(), digits.end());
  return digits;
}

TEST_F(MemtoolPortTest, PicturesAreReadable) {
  outputOf({"port", "catalog.port", "--svg", "out.svg"});
  const std::string catalogue = readBytes("out.svg");
  expectReadable(catalogue);
  EXPECT_EQ(boxesOf(catalogue).size(), 40U);
  EXPECT_NE(catalogue.find("72 structures; the first 40 are drawn"), std::string::npos);
  EXPECT_NE(catalogue.find("→ 41 (not drawn)"), std::string::npos);

  // Every structure points to itself, to the next ones and back to all before it.
  constexpr std::size_t kCount = 12;
  std::string body;
  for (std::size_t i = 1; i <= kCount; ++i) {
    body +=
        "(1<1S" + reversed(i < kCount ? i + 1 : 0) + "/2S" + reversed(i + 2 <= kCount ? i + 2 : 0);
    for (std::size_t k = 1; k <= i; ++k) body += "/" + reversed(k + 2) + "S" + reversed(k);
    body += ">)";
  }
  writeBytes("knot.port", portText(body, kCount));
  outputOf({"port", "knot.port", "--svg", "out.svg", "--check"});
  const std::string knot = readBytes("out.svg");
  expectReadable(knot);
  EXPECT_EQ(arrowsOf(knot).size(), (kCount - 1) + (kCount - 2) + kCount * (kCount + 1) / 2);

  // Structures that nothing leads to, and more fields than are drawn.
  std::string many = "(1<1S3";
  for (std::size_t k = 2; k <= 40; ++k) many += "/" + reversed(k) + "N";
  writeBytes("odd.port", portText(many + ">)(1<1S3>)(1<1S2>)", 3));
  outputOf({"port", "odd.port", "--svg", "out.svg"});
  const std::string odd = readBytes("out.svg");
  expectReadable(odd);
  EXPECT_EQ(boxesOf(odd).size(), 3U);
  EXPECT_NE(odd.find("… 17 more"), std::string::npos);
}

TEST_F(MemtoolPortTest, PicturesOfHostileText) {
  writeBytes("one.port", portText("(1<1\"<&>\x01\xFF/\"\"/2'/3?oo/3?on'/3\"" +
                                  std::string(5000, '<') + "\">)"));
  outputOf({"port", "one.port", "--svg", "out.svg"});
  expectReadable(readBytes("out.svg"));
  std::filesystem::copy_file("order.port", "a & b.port");
  outputOf({"port", "a & b.port", "--svg", "out.svg"});
  expectReadable(readBytes("out.svg"));
}

}  // namespace
}  // namespace memtest
