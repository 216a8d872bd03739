#include "tool_progress.hpp"

#include <algorithm>
#include <ostream>
#include <utility>

#include "tool_text.hpp"

namespace memtool {
namespace {

constexpr std::chrono::milliseconds kFirst{500};
constexpr std::chrono::milliseconds kNext{100};

}  // namespace

Progress::Progress(Console &console, std::string label, std::uint64_t total)
    : console_(console),
      label_(std::move(label)),
      total_(std::max<std::uint64_t>(total, 1)),
      isShown_(console.traits().showsProgress),
      next_(Clock::now() + kFirst) {}

Progress::~Progress() {
  if (isDrawn_) console_.err() << "\r\x1b[K" << std::flush;
}

void Progress::redraw(std::uint64_t done) {
  const Clock::time_point now = Clock::now();
  if (!isShown_ || now < next_) return;
  next_ = now + kNext;
  isDrawn_ = true;
  const double part = static_cast<double>(std::min(done, total_)) / static_cast<double>(total_);
  const int room =
      std::clamp(console_.traits().width - static_cast<int>(columnsOf(label_)) - 10, 10, 50);
  const auto filled = static_cast<int>(part * room);
  console_.err() << fmt::format("\r{} [{:=<{}}{: <{}}] {:3.0f} %", label_, "", filled, "",
                                room - filled, part * 100)
                 << std::flush;
}

}  // namespace memtool
