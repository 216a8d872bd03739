// Packed trees for the tests of the Python package, one a line on the streams.
//
//   python_chains make SEED COUNT   random trees: {"chain", "nodes"}
//   python_chains read              of a chain in hexadecimal digits {"nodes"}, or {"error"}
//   python_chains defs              definitions of the catalogue's tables: {"chain", "port"}
//
// Nodes are listed depth first, a node before its children, these before its siblings.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "catalog_model.hpp"
#include "port_values.hpp"
#include "qj7mem00/mem.hpp"
#include "qj7mem00/mem/defs.hpp"
#include "randomrun.hpp"
#include "refhost.hpp"

namespace {

using Json = nlohmann::ordered_json;
using memtool::portBytesOfHex;
using memtool::portHex;

struct Blob {
  std::int16_t Count;
};

struct Node {
  Node *pNext;
  Node *pChildren;
  char *pName;
  char16_t *pTitle;
  Node *pFriend;  // not owned
  std::int64_t Number;
  std::int16_t Small;
  std::uint8_t Flags;
  char Code[5];
  Blob *pBlob;
  char16_t Key[4];
};
MEM_CHECK_SIZE(Node, 72);

constexpr auto kTable = mem::packTable(
    mem::segment<Node>(mem::sibling(MEM_FIELD(Node, pNext)), mem::child(MEM_FIELD(Node, pChildren)),
                       mem::child(MEM_FIELD(Node, pName)), mem::child(MEM_FIELD(Node, pTitle)),
                       mem::reference(MEM_FIELD(Node, pFriend)),
                       mem::child(MEM_FIELD(Node, pBlob))),
    mem::countedSegment<Blob>(MEM_FIELD(Blob, Count)));

std::string hexOf(const void *bytes, std::size_t length) {
  return portHex({static_cast<const char *>(bytes), length});
}

Json textOf(const char *text) {
  return text == nullptr ? Json() : Json(portHex(text));
}

Json textOf(const char16_t *text) {
  if (text == nullptr) return {};
  std::string bytes;
  for (char16_t unit; std::memcpy(&unit, text, sizeof unit), unit != 0; ++text) {
    bytes.append(reinterpret_cast<const char *>(&unit), sizeof unit);
  }
  return portHex(bytes);
}

// Lists a tree, which may have any alignment.
class Lister {
 public:
  Json list(const Node *root) {
    add(root);
    for (const auto &[index, target] : friends_) nodes_[index]["friend"] = places_.at(target);
    return nodes_;
  }

 private:
  void add(const Node *first) {
    for (const Node *at = first; at != nullptr;) {
      const Node node = mem::readRecord(at);
      const std::size_t index = nodes_.size();
      places_[at] = index;
      if (node.pFriend != nullptr) friends_[index] = node.pFriend;
      Json blob;
      if (node.pBlob != nullptr) {
        const Blob head = mem::readRecord(node.pBlob);
        blob = hexOf(reinterpret_cast<const char *>(node.pBlob) + sizeof head,
                     static_cast<std::size_t>(head.Count));
      }
      nodes_.push_back({{"name", textOf(node.pName)},
                        {"title", textOf(node.pTitle)},
                        {"number", node.Number},
                        {"small", node.Small},
                        {"flags", node.Flags},
                        {"code", hexOf(node.Code, sizeof node.Code)},
                        {"blob", blob},
                        {"key", hexOf(node.Key, sizeof node.Key)},
                        {"friend", nullptr},
                        {"children", 0}});
      add(node.pChildren);
      nodes_[index]["children"] = nodes_.size() - index - 1;
      at = node.pNext;
    }
  }

  Json nodes_ = Json::array();
  std::map<const Node *, std::size_t> places_;
  std::map<std::size_t, const Node *> friends_;
};

class Maker {
 public:
  explicit Maker(std::uint64_t seed) : random_(seed) {}

  const Node &tree() {
    Node *const root = list(0, random_.between(1, 3));
    for (Node &node : nodes_) {
      if (random_.oneIn(2)) node.pFriend = &nodes_[random_.below(nodes_.size())];
    }
    return *root;
  }

 private:
  Node *list(int level, std::size_t count) {
    Node *first = nullptr;
    for (; count > 0; --count) {
      Node &node = nodes_.emplace_back();
      fill(node);
      if (level < 5 && nodes_.size() < 60) node.pChildren = list(level + 1, random_.below(4));
      node.pNext = first;
      first = &node;
    }
    return first;
  }

  void fill(Node &node) {
    if (!random_.oneIn(4)) node.pName = text(random_.below(20));
    if (!random_.oneIn(4)) node.pTitle = wide(random_.below(20));
    node.Number = static_cast<std::int64_t>(random_.bits());
    node.Small = static_cast<std::int16_t>(random_.bits());
    node.Flags = static_cast<std::uint8_t>(random_.bits());
    for (char &c : node.Code) c = static_cast<char>(random_.bits());
    for (char16_t &unit : node.Key) unit = static_cast<char16_t>(random_.below(3) * 0x4E00);
    if (random_.oneIn(3)) {
      const auto count = static_cast<std::int16_t>(random_.below(50));
      std::string &bytes = texts_.emplace_back(sizeof count + static_cast<std::size_t>(count), 'b');
      std::memcpy(bytes.data(), &count, sizeof count);
      node.pBlob = reinterpret_cast<Blob *>(bytes.data());
    }
  }

  char *text(std::size_t length) {
    std::string &made = texts_.emplace_back();
    while (length-- > 0) made.push_back(static_cast<char>(random_.between(1, 255)));
    return made.data();
  }

  char16_t *wide(std::size_t length) {
    std::u16string &made = wideTexts_.emplace_back();
    while (length-- > 0) made.push_back(static_cast<char16_t>(random_.between(1, 0xFFFF)));
    return made.data();
  }

  memtest::Random random_;
  std::deque<Node> nodes_;
  std::deque<std::string> texts_;
  std::deque<std::u16string> wideTexts_;
};

void make(const mem::Context &context, std::uint64_t seed) {
  Maker maker(seed);
  const Node &root = maker.tree();
  const auto chain = mem::PackedChain::pack(context, kTable, root, seed % 3 == 0 ? 1200 : 32768);
  std::string bytes;
  for (const auto used : chain.value()) {
    bytes.append(reinterpret_cast<const char *>(used.data()), used.size());
  }
  std::cout << Json{{"chain", portHex(bytes)}, {"nodes", Lister().list(&root)}}.dump() << std::endl;
}

Json read(const mem::Context &context, const std::string &hex) {
  const std::string bytes = portBytesOfHex(hex).value();
  auto chain = mem::PackedChain::load(context, std::as_bytes(std::span(bytes)));
  if (!chain.isOk()) return {{"error", chain.error().line().text}};
  const auto root = chain.value().unpack(kTable);
  if (!root.isOk()) return {{"error", root.error().line().text}};
  return {{"nodes", Lister().list(root.value())}};
}

Json catalogueDefinitions() {
  const std::string chain =
      mem::definitionsJson(catalog::kPackTable, MEM_FIELD(catalog::PackageRecord, DependencyCount),
                           MEM_FIELD(catalog::DependencyRecord, Flags));
  return {{"chain", Json::parse(chain)},
          {"port", Json::parse(mem::definitionsJson(catalog::kPortTable))}};
}

}  // namespace

int main(int count, char **words) {
  const refhost::Library library(refhost::Library::besideProgram());
  refhost::Session session(library.bindEntry());
  const mem::Context context = mem::contextOf(session.host());
  const std::string mode = count > 1 ? words[1] : "";
  if (mode == "make" && count == 4) {
    const std::uint64_t first = std::strtoull(words[2], nullptr, 10);
    const std::uint64_t treeCount = std::strtoull(words[3], nullptr, 10);
    for (std::uint64_t seed = first; seed < first + treeCount; ++seed) make(context, seed);
    return 0;
  }
  if (mode == "defs") {
    std::cout << catalogueDefinitions().dump() << std::endl;
    return 0;
  }
  if (mode != "read") return 2;
  for (std::string line; std::getline(std::cin, line);) {
    std::cout << read(context, line).dump() << std::endl;
  }
  return 0;
}
