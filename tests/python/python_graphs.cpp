// Graphs for the tests of the Python package, one a line on the streams.
//
//   python_graphs make SEED COUNT   random graphs: {"defs", "text", "graph"}
//   python_graphs read              of {"defs", "text"} the graph that memtool reads, or {"error"};
//                                   without "defs" those of the line before hold
//
// Texts are hexadecimal. "graph" has the form of `memtool port --defs --json`.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

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

}  // namespace

int main(int count, char **words) {
  Graphs graphs;
  const std::string mode = count > 1 ? words[1] : "";
  if (mode == "make" && count == 4) {
    const std::uint64_t first = std::strtoull(words[2], nullptr, 10);
    const std::uint64_t graphCount = std::strtoull(words[3], nullptr, 10);
    for (std::uint64_t seed = first; seed < first + graphCount; ++seed) graphs.make(seed);
    return 0;
  }
  if (mode != "read") return 2;
  for (std::string line; std::getline(std::cin, line);) graphs.read(line);
  return 0;
}
