// What one case did, as lines: every call with its result and what it stored, the host's services
// in order with their arguments, the trace records where they were written, and what the call left
// in the thread environment. Two builds did the same when the lines are the same.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "refhost.hpp"

namespace replay {

// The lines of a case, for a digest of them. With a stream to write them to, bytes are shown in
// full, and lines are written after each call, so that they show how far a case came that ends the
// process.
class CaseLog {
 public:
  explicit CaseLog(std::FILE *stream = nullptr) : stream_(stream) {}

  // Whose addresses are not comparable: a module is somewhere else in every run.
  void setModule(const void *start, std::size_t length);

  void clear() { text_.clear(); }
  std::uint64_t digest() const;
  void writeOn();  // what there is so far

  CaseLog &operator<<(std::string_view text) {
    text_ += text;
    return *this;
  }
  CaseLog &operator<<(std::int64_t number);
  CaseLog &address(std::uint64_t value);
  CaseLog &address(const void *value) {
    return address(std::uint64_t{reinterpret_cast<std::uintptr_t>(value)});
  }
  // A text that may hold anything, addresses among it.
  CaseLog &quoted(std::string_view text);
  void end() { text_ += '\n'; }

  void bytes(std::string_view what, const void *from, std::size_t length);

 private:
  std::string_view nameOf(std::uint64_t address) const;
  std::size_t hexLength(std::string_view text) const;
  bool isIncomparable(std::string_view digits, bool isFunction) const;

  std::FILE *const stream_;
  std::uint64_t moduleStart_ = 0;
  std::size_t moduleLen_ = 0;
  std::string text_;
};

// Watches the library's calls under one host.
class Watch {
 public:
  Watch(refhost::Host &host, CaseLog &log);

  refhost::Host &host() { return host_; }
  MEMFunctionVector &mem() { return host_.vector(); }
  CaseLog &log() { return log_; }

  // A line about what comes next.
  void note(std::string_view what) {
    log_ << what;
    log_.end();
    log_.writeOn();
  }

  // Shows a call that has just been made, and all that came of it.
  template <class Result>
  Result did(std::string_view what, Result result) {
    log_ << what << " = " << static_cast<std::int64_t>(result);
    finish();
    return result;
  }
  void did(std::string_view what) {
    log_ << what;
    finish();
  }

  // All live storage of a subpool, byte by byte.
  void storage(std::uint16_t subPool);

 private:
  void finish();
  void showHostCalls();
  void showEnvironment();

  refhost::Host &host_;
  CaseLog &log_;
};

}  // namespace replay
