// The messages of a run: jobs, which are pieces of the catalogue's text, and results, which are
// packed chains of their records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "status_reader.hpp"
#include "transport.hpp"

namespace exchange {

// Fields of messages.
inline constexpr const char *kJobField = "job";      // its number, in decimal
inline constexpr const char *kTextField = "text";    // of a job: stanzas of the catalogue
inline constexpr const char *kChainField = "chain";  // of a result: the chain's file form
inline constexpr const char *kCodeField = "code";    // of a dead message: the library's code, or 0
inline constexpr const char *kReasonField = "reason";  // of a dead message: why it is unusable
inline constexpr const char *kFromField = "from";      // of a dead message: its stream

// Some packages of the catalogue, in its order.
struct Shard {
  std::string text;
  std::vector<catalog::Package> packages;
};

// All jobs of a run: each shard of the catalogue `times` times. Job n is for shard n modulo the
// number of shards.
class JobList {
 public:
  // `source` names the text in messages. Throws InputError if the text is not a catalogue, or if
  // the jobs would need too much memory.
  JobList(std::string_view text, const std::string &source, std::size_t packagesPerJob,
          std::uint32_t times);

  std::uint32_t count() const { return count_; }
  std::size_t shardCount() const { return shards_.size(); }
  std::size_t shardOf(std::uint32_t job) const { return job % shards_.size(); }
  const Shard &shard(std::size_t number) const { return shards_[number]; }
  const std::vector<catalog::Package> &packages() const { return packages_; }

  Message message(std::uint32_t job) const;

 private:
  std::vector<Shard> shards_;
  std::vector<catalog::Package> packages_;  // of all shards
  std::uint32_t count_ = 0;
};

// The number of a message's job; null if it has none.
std::optional<std::uint32_t> jobOf(const Message &message);

// A field's bytes; null if the message does not have it.
const std::string *fieldOf(const Message &message, const char *name);

// Moves a message from its stream to the stream of dead messages, with the reason.
void setAside(Transport &transport, Stream from, const Delivery &delivery, std::uint32_t code,
              const std::string &reason);

}  // namespace exchange
