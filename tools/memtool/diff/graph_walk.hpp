// Compares two graphs from their roots on: pairs their nodes, finds the paths to them, and reports
// differences.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace memtool {

struct Difference {
  std::string path;    // "root/sibling*3/child 1"
  std::string what;    // "bytes at +12"
  std::string a;       // the value in the first graph
  std::string b;       // and in the second
  std::string placeA;  // of the nodes in their files
  std::string placeB;

  // "root/child 1: bytes at +12: 05 / 06 (at 0:984 and 1:2)".
  std::string text() const;
};
using DifferenceSink = std::function<void(const Difference &)>;

// Pairs nodes breadth first. Each node is compared once, with the node of the other graph that the
// same pointers reach. If one graph shares a node and the other one has two, that is a difference,
// and the second one is not followed. The time is therefore proportional to the smaller graph,
// whatever its depth, and cycles end.
class GraphWalk {
 public:
  using PlaceOf = std::function<std::string(std::size_t)>;  // of a node

  GraphWalk(std::size_t nodesA, std::size_t nodesB, PlaceOf placeA, PlaceOf placeB,
            DifferenceSink sink)
      : stepOfA_(nodesA, kNone),
        stepOfB_(nodesB, kNone),
        placeA_(std::move(placeA)),
        placeB_(std::move(placeB)),
        sink_(std::move(sink)) {}

  struct Pair {
    std::size_t a;
    std::size_t b;
  };

  void begin(std::size_t a, std::size_t b) { enter("", a, b); }
  // The next pair to compare; none at the end.
  std::optional<Pair> next();

  // For the current pair: the pointer `name` leads to these nodes, or is null.
  void follow(const std::string &name, std::optional<std::size_t> a, std::optional<std::size_t> b);
  void differ(const std::string &what, const std::string &a, const std::string &b);

  std::size_t pairs() const { return steps_.size(); }
  std::uint64_t differences() const { return differences_; }

 private:
  static constexpr std::uint32_t kNone = UINT32_MAX;

  // How a pair was first reached. Successive pointers of one name are one step.
  struct Step {
    std::uint32_t a;
    std::uint32_t b;
    std::uint32_t parent;
    std::uint32_t times;
    std::string name;
  };

  void enter(const std::string &name, std::size_t a, std::size_t b);
  std::string pathOf(std::size_t step) const;
  std::string shared(const PlaceOf &placeOf, std::size_t node, std::uint32_t step) const;

  std::vector<std::uint32_t> stepOfA_;  // the step by which each node was reached
  std::vector<std::uint32_t> stepOfB_;
  PlaceOf placeA_;
  PlaceOf placeB_;
  DifferenceSink sink_;
  std::vector<Step> steps_;
  std::size_t next_ = 0;
  std::size_t current_ = 0;
  std::uint64_t differences_ = 0;
};

}  // namespace memtool
