#include "graph_walk.hpp"

#include <fmt/format.h>

#include <algorithm>

namespace memtool {
namespace {

constexpr std::size_t kMostSteps = 32;  // of a path that is shown

}  // namespace

std::string Difference::text() const {
  return fmt::format("{}: {}: {} / {} (at {} and {})", path, what, a, b, placeA, placeB);
}

void GraphWalk::enter(const std::string &name, std::size_t a, std::size_t b) {
  const auto index = static_cast<std::uint32_t>(steps_.size());
  Step step{static_cast<std::uint32_t>(a), static_cast<std::uint32_t>(b), kNone, 1, name};
  if (index > 0) {
    const Step &before = steps_[current_];
    const bool goesOn = before.name == name && before.parent != kNone;
    step.parent = goesOn ? before.parent : static_cast<std::uint32_t>(current_);
    if (goesOn) step.times = before.times + 1;
  }
  stepOfA_[a] = index;
  stepOfB_[b] = index;
  steps_.push_back(std::move(step));
}

std::optional<GraphWalk::Pair> GraphWalk::next() {
  if (next_ == steps_.size()) return {};
  current_ = next_++;
  return Pair{steps_[current_].a, steps_[current_].b};
}

// Of a long path only the last steps are shown.
std::string GraphWalk::pathOf(std::size_t step) const {
  std::vector<std::string> names;
  std::size_t at = step;
  while (steps_[at].parent != kNone && names.size() < kMostSteps) {
    const Step &one = steps_[at];
    names.push_back(one.times == 1 ? one.name : fmt::format("{}*{}", one.name, one.times));
    at = one.parent;
  }
  std::string path = steps_[at].parent == kNone ? "root" : "…";
  for (auto name = names.rbegin(); name != names.rend(); ++name) path += "/" + *name;
  return path;
}

std::string GraphWalk::shared(const PlaceOf &placeOf, std::size_t node, std::uint32_t step) const {
  return step == kNone ? fmt::format("{}, met for the first time", placeOf(node))
                       : fmt::format("{}, shared with {}", placeOf(node), pathOf(step));
}

void GraphWalk::follow(const std::string &name, std::optional<std::size_t> a,
                       std::optional<std::size_t> b) {
  if (!a && !b) return;
  if (!a || !b) {
    differ(name, a ? placeA_(*a) : "null", b ? placeB_(*b) : "null");
    return;
  }
  const std::uint32_t stepA = stepOfA_[*a];
  const std::uint32_t stepB = stepOfB_[*b];
  if (stepA == kNone && stepB == kNone) return enter(name, *a, *b);
  if (stepA == stepB) return;
  differ(name, shared(placeA_, *a, stepA), shared(placeB_, *b, stepB));
}

void GraphWalk::differ(const std::string &what, const std::string &a, const std::string &b) {
  ++differences_;
  const Step &step = steps_[current_];
  sink_({pathOf(current_), what, a, b, placeA_(step.a), placeB_(step.b)});
}

}  // namespace memtool
