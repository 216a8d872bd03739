#include "soakstock.hpp"

#include "portmodel.hpp"

namespace soak {

namespace {

SinkText textOf(std::size_t number, memtest::Random &random) {
  const std::size_t tail = random.oneIn(20) ? random.between(100, 2000) : random.below(20);
  const std::string narrow = "text" + std::to_string(number) + std::string(tail, '.');
  return {number % 3 == 0, narrow, std::u16string(narrow.begin(), narrow.end())};
}

}  // namespace

void Violations::add(const std::string &what) {
  count_.fetch_add(1, std::memory_order_relaxed);
  const std::lock_guard lock(mutex_);
  if (texts_.size() < kKept) texts_.push_back(what);
}

std::vector<std::string> Violations::texts() const {
  const std::lock_guard lock(mutex_);
  return texts_;
}

Stock::Stock(std::uint64_t seed) {
  memtest::Random random(seed);
  const std::vector<chainwriter::Writer> &writers = chainwriter::allWriters();
  for (std::size_t i = 0; i < kStructures; ++i) {
    auto structure = std::make_unique<memtest::RandomStructure>(random.bits());
    packmodel::Outcome outcome =
        packmodel::pack(structure->controlBlock(), structure->root(), structure->blockLen());
    packed.push_back({std::move(structure), std::move(outcome)});

    const chainwriter::Writer &writer = writers[i % writers.size()];
    const chainwriter::Tree tree = chainwriter::randomTree(random.bits());
    const std::size_t blockLen = chainwriter::smallestBlockLen(tree, writer) + 2000;
    foreign.push_back(
        {tree, chainwriter::write(tree, writer, blockLen), chainwriter::readersControlBlock(tree)});

    auto graph = std::make_unique<memtest::PortGraph>(random.bits());
    std::string text = portmodel::write(graph->defs(), graph->rootID(), graph->root());
    ported.push_back({std::move(graph), std::move(text)});
  }
  for (std::size_t i = 0; i < kTexts; ++i) texts.push_back(textOf(i, random));
}

}  // namespace soak
