#include "exchange_jobs.hpp"

#include <charconv>

#include "catalog_support.hpp"

namespace exchange {
namespace {

// All jobs are published at once: they must fit into the memory of the server or the coordinator.
constexpr std::uint64_t kMostJobBytes = std::uint64_t{1} << 30;

// Removes and returns the next stanza of a catalogue's text, with the blank lines after it.
std::string_view takeStanza(std::string_view &text) {
  std::size_t end = 0;
  bool hasField = false;
  while (end < text.size()) {
    const std::size_t lineEnd = std::min(text.find('\n', end), text.size() - 1) + 1;
    const std::string_view line = text.substr(end, lineEnd - end);
    const bool isBlank = line.find_first_not_of(" \t\r\n") == std::string_view::npos;
    end = lineEnd;
    if (isBlank && hasField) break;
    hasField = hasField || !isBlank;
  }
  const std::string_view stanza = text.substr(0, end);
  text.remove_prefix(end);
  return hasField ? stanza : std::string_view();
}

}  // namespace

JobList::JobList(std::string_view text, const std::string &source, std::size_t packagesPerJob,
                 std::uint32_t times)
    : packages_(catalog::parseCatalogue(text, source)) {
  const std::uint64_t bytes = std::uint64_t{text.size()} * times;
  if (bytes > kMostJobBytes) {
    throw catalog::InputError("--times " + std::to_string(times) + ": the jobs of " + source +
                              " would need more than 1 GiB");
  }
  while (!text.empty()) {
    std::string shard;
    for (std::size_t i = 0; i < packagesPerJob && !text.empty(); ++i) shard += takeStanza(text);
    if (shard.empty()) break;
    shards_.push_back({shard, catalog::parseCatalogue(shard, source)});
  }
  count_ = static_cast<std::uint32_t>(shards_.size()) * times;
}

Message JobList::message(std::uint32_t job) const {
  return {{kJobField, std::to_string(job)}, {kTextField, shard(shardOf(job)).text}};
}

std::optional<std::uint32_t> jobOf(const Message &message) {
  const std::string *const text = fieldOf(message, kJobField);
  if (text == nullptr) return std::nullopt;
  std::uint32_t job = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), job);
  if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return job;
}

const std::string *fieldOf(const Message &message, const char *name) {
  const auto found = message.find(name);
  return found == message.end() ? nullptr : &found->second;
}

void setAside(Transport &transport, Stream from, const Delivery &delivery, std::uint32_t code,
              const std::string &reason) {
  Message dead = delivery.message;
  dead[kFromField] = nameOf(from);
  dead[kCodeField] = std::to_string(code);
  dead[kReasonField] = reason;
  transport.publish(Stream::dead, dead);
  transport.acknowledge(from, delivery.id);
}

}  // namespace exchange
