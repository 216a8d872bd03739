// Where trace records go. Any thread may call any member; lines of several threads do not mix.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "refhost.hpp"

namespace refhost {

class TraceOutput {
 public:
  explicit TraceOutput(TraceLineStyle style) : style_(style) {}

  void write(const TraceRecord &record);

  void keep(bool on);
  std::vector<TraceRecord> take();
  void toStream(std::ostream *stream);
  void toFile(const std::filesystem::path &path);
  void setStyle(TraceLineStyle style);
  void toCallback(std::function<void(const TraceRecord &)> callback);

 private:
  using Callback = std::function<void(const TraceRecord &)>;

  std::mutex mutex_;
  TraceLineStyle style_;
  bool keeping_ = false;
  std::vector<TraceRecord> records_;
  std::ostream *stream_ = nullptr;  // not owned
  std::ofstream file_;
  std::shared_ptr<const Callback> callback_;  // shared with the calls that are running
};

}  // namespace refhost
