#include "trouble.hpp"

#include <signal.h>

#include <cstddef>

#include "exchange_jobs.hpp"

namespace exchange {
namespace {

constexpr std::uint32_t kFatalJob = 3;  // the third job of the worker

// Offset of the name of the first package: after the used length, the version, the control block
// and the package's own segment.
constexpr std::size_t kFirstName = 2 + 4 + 978 + 48;

// In turn: bytes that are not a chain, a chain that cannot be unpacked, one of other structures,
// one with other contents, one that is too short, no chain.
void damage(std::uint32_t way, Message &result) {
  std::string &chain = result[kChainField];
  switch (way % 6) {
    case 0:
      chain = "these bytes are no chain";
      return;
    case 1:
      for (std::size_t i = chain.size() / 2; i < chain.size(); ++i) chain[i] = '\x7f';
      return;
    case 2:
      chain[10] = static_cast<char>(chain[10] ^ 8);  // the length of the first kind of segment
      return;
    case 3:
      chain[kFirstName] = static_cast<char>(chain[kFirstName] ^ 1);
      return;
    case 4:
      chain.resize(chain.size() - 5);
      return;
    default:
      result.erase(kChainField);
  }
}

}  // namespace

bool WorkerTrouble::isFatalJob() {
  return ++jobs_ == kFatalJob;
}

void WorkerTrouble::beforePublishing(std::uint32_t job, Message &result) {
  if (trouble_ == Trouble::killed && isFatalJob()) raise(SIGKILL);
  if (trouble_ == Trouble::broken && damaged_.insert(job).second) damage(job, result);
}

void WorkerTrouble::afterPublishing(Transport &transport, const Message &result) {
  if (trouble_ == Trouble::killedLate && isFatalJob()) raise(SIGKILL);
  if (trouble_ == Trouble::doubled) transport.publish(Stream::results, result);
}

}  // namespace exchange
