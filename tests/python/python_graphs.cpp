// Graphs for the tests of the Python package, one a line on the streams.
//
//   python_graphs make SEED COUNT   random graphs: {"defs", "text", "graph"}
//   python_graphs read              of {"defs", "text"} the graph that memtool reads, or {"error"};
//                                   without "defs" those of the line before hold
//   python_graphs trees SEED COUNT  chains of all writers in turn: {"writer", "defs", "chain"}
//   python_graphs memtool           runs memtool with the arguments in a line: {"code", "out",
//   "err"}
//
// Texts and chains are hexadecimal. "graph" has the form of `memtool port --defs --json`.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "chaindefsjson.hpp"
#include "chainwriter.hpp"
#include "memtool_run.hpp"
#include "port_decode.hpp"
#include "port_report.hpp"
#include "port_values.hpp"
#include "portdefsjson.hpp"
#include "portgraph.hpp"
#include "portmodel.hpp"
#include "tool_console.hpp"
#include "tool_library.hpp"

namespace {

using Json = nlohmann::ordered_json;

class Graphs {
 public:
  Graphs()
      : library_(std::filesystem::path()), console_(std::cout, std::cerr, {false, false, 80}) {}

  void make(std::uint64_t seed) {
    const memtest::PortGraph graph(seed);
    const std::string text = portmodel::write(graph.defs(), graph.rootID(), graph.root());
    const Json defs = memtest::definitionsJson(graph.defs(), "n");
    define(defs);
    write({{"defs", defs}, {"text", memtool::portHex(text)}, {"graph", decode(text)}});
  }

  void read(const std::string &line) {
    const Json wanted = Json::parse(line);
    if (wanted.contains("defs")) define(wanted["defs"]);
    try {
      write(decode(memtool::portBytesOfHex(wanted["text"].get<std::string>()).value()));
    } catch (const memtool::ToolError &error) {
      write({{"error", error.what()}});
    }
  }

 private:
  void define(const Json &defs) {
    definitions_ = std::make_unique<memtool::PortDefinitions>("defs", defs.dump());
  }

  Json decode(const std::string &text) {
    const memtool::PortDocument document =
        memtool::decodePortText(library_, *definitions_, text, console_);
    return memtool::portGraphJson(document, memtool::PortSelection(document));
  }

  static void write(const Json &json) { std::cout << json.dump() << std::endl; }

  memtool::RunningLibrary library_;
  memtool::Console console_;
  std::unique_ptr<memtool::PortDefinitions> definitions_;
};

void makeTree(std::uint64_t seed) {
  const std::vector<chainwriter::Writer> &writers = chainwriter::allWriters();
  const chainwriter::Writer &writer = writers[seed % writers.size()];
  const chainwriter::Tree tree = chainwriter::randomTree(seed);
  const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writer) + 500;
  const chainwriter::Bytes bytes = chainwriter::write(tree, writer, blockLen).file();
  const Json line{{"writer", writer.name()},
                  {"defs", memtest::chainDefinitionsJson(tree, writer.pointerWidth)},
                  {"chain", memtool::portHex(std::string(bytes.begin(), bytes.end()))}};
  std::cout << line.dump() << std::endl;
}

void runTool(const std::string &line) {
  std::ostringstream out;
  std::ostringstream err;
  memtool::Console console(out, err, {false, false, 80});
  const int code = memtool::runMemtool(Json::parse(line).get<std::vector<std::string>>(), console);
  const Json answer{{"code", code}, {"out", out.str()}, {"err", err.str()}};
  std::cout << answer.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
}

}  // namespace

int main(int count, char **words) {
  const std::string mode = count > 1 ? words[1] : "";
  const std::uint64_t first = count == 4 ? std::strtoull(words[2], nullptr, 10) : 0;
  const std::uint64_t end = count == 4 ? first + std::strtoull(words[3], nullptr, 10) : 0;
  if (mode == "trees") {
    for (std::uint64_t seed = first; seed < end; ++seed) makeTree(seed);
    return 0;
  }
  if (mode == "memtool") {
    for (std::string line; std::getline(std::cin, line);) runTool(line);
    return 0;
  }
  Graphs graphs;
  if (mode == "make") {
    for (std::uint64_t seed = first; seed < end; ++seed) graphs.make(seed);
    return 0;
  }
  if (mode != "read") return 2;
  for (std::string line; std::getline(std::cin, line);) graphs.read(line);
  return 0;
}
