#include "refhost_timeline.hpp"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

namespace refhost {

namespace {

// A text as JSON, in ASCII. Bytes that are not UTF-8 become U+FFFD. Plain texts take a short way:
// writing an event should take little of the time that the time line shows.
std::string quoted(const std::string &text) {
  const bool isPlain = std::all_of(text.begin(), text.end(), [](char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
  });
  if (isPlain) return '"' + text + '"';
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

std::string named(const std::string &name) {
  return ",\"name\":" + quoted(name);
}

}  // namespace

std::uint64_t HostClock::ticks() {
  const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
}

std::uint64_t HostClock::now() const {
  return ticks() - start_;
}

Timeline::~Timeline() {
  finish();
}

void Timeline::toFile(const std::filesystem::path &path) {
  std::ofstream file;
  if (!path.empty()) {
    file.open(path, std::ios::trunc | std::ios::binary);
    if (!file) throw std::runtime_error("cannot write time line file " + path.string());
  }
  const std::lock_guard lock(mutex_);
  finish();
  file_ = std::move(file);
  isFirst_ = true;
  isOn_.store(file_.is_open(), std::memory_order_relaxed);
  if (file_.is_open()) file_ << "[\n";
}

void Timeline::begin(std::uint64_t thread, std::size_t depth, const char *name) {
  const std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  OpenCalls &calls = callsOf(thread);
  write('B', thread, named(name));
  calls.push_back(depth);
}

void Timeline::endTo(std::uint64_t thread, std::size_t depth, std::optional<std::uint32_t> result) {
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(thread);
  if (found == open_.end()) return;
  OpenCalls &calls = found->second;
  while (!calls.empty() && calls.back() > depth) {
    writeEnd(thread, result);
    calls.pop_back();
  }
}

void Timeline::endThread(std::uint64_t thread) {
  endTo(thread, 0);
  const std::lock_guard lock(mutex_);
  open_.erase(thread);
}

void Timeline::mark(const TraceRecord &record) {
  const std::lock_guard lock(mutex_);
  if (!file_.is_open()) return;
  callsOf(record.thread);
  write('i', record.thread,
        ",\"s\":\"t\"" + named(record.type) + ",\"args\":{\"function\":" + quoted(record.function) +
            ",\"source\":" + quoted(record.source) + ",\"line\":" + std::to_string(record.line) +
            ",\"text\":" + quoted(record.text) + "}");
}

// REQUIRES (this and the following): mutex_ held, or no other thread uses the time line.

Timeline::OpenCalls &Timeline::callsOf(std::uint64_t thread) {
  const auto [calls, isNew] = open_.try_emplace(thread);
  if (isNew) {
    write(
        'M', thread,
        ",\"name\":\"thread_name\",\"args\":{\"name\":\"thread " + std::to_string(thread) + "\"}");
  }
  return calls->second;
}

void Timeline::writeEnd(std::uint64_t thread, std::optional<std::uint32_t> result) {
  write('E', thread, result ? ",\"args\":{\"result\":" + std::to_string(*result) + "}" : "");
}

// Times are microseconds.
void Timeline::write(char phase, std::uint64_t thread, const std::string &more) {
  const std::uint64_t time = clock_.now();
  const std::string fraction = std::to_string(1000 + time % 1000).substr(1);
  file_ << (isFirst_ ? "{\"ph\":\"" : ",\n{\"ph\":\"") << phase
        << "\",\"ts\":" << std::to_string(time / 1000) << '.' << fraction
        << ",\"pid\":1,\"tid\":" << std::to_string(thread) << more << '}';
  isFirst_ = false;
}

void Timeline::finish() {
  if (!file_.is_open()) return;
  for (const auto &[thread, calls] : open_) {
    for (std::size_t i = calls.size(); i > 0; --i) writeEnd(thread, {});
  }
  open_.clear();
  file_ << "\n]\n";
  file_.close();
  isOn_.store(false, std::memory_order_relaxed);
}

}  // namespace refhost
