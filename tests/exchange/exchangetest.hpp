// What the tests of the example share.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "catalog_support.hpp"
#include "exchange_jobs.hpp"
#include "pipe_broker.hpp"
#include "refhost.hpp"
#include "transport.hpp"

namespace exchangetest {

inline const refhost::Library &library() {
  static const refhost::Library loaded(refhost::Library::besideProgram());
  return loaded;
}

// The jobs of the sample catalogue.
inline exchange::JobList sampleJobs(std::size_t packagesPerJob, std::uint32_t times = 1) {
  const std::filesystem::path sample =
      refhost::Library::besideProgram().parent_path() / "sample-status";
  return {catalog::readBytes(sample), "sample", packagesPerJob, times};
}

// Streams without processes.
class LocalTransport : public exchange::PipeBroker {
 public:
  LocalTransport() : PipeBroker({exchange::Milliseconds(20), exchange::Milliseconds(400)}) {}

  std::vector<exchange::Delivery> takeAll(exchange::Stream stream) {
    std::vector<exchange::Delivery> all;
    while (auto delivery = take(stream, exchange::Milliseconds(0))) {
      acknowledge(stream, delivery->id);
      all.push_back(*delivery);
    }
    return all;
  }
};

}  // namespace exchangetest
