#include "worker.hpp"

#include <optional>
#include <vector>

#include "catalog_model.hpp"
#include "catalog_support.hpp"
#include "exchange_jobs.hpp"
#include "running_library.hpp"

namespace exchange {
namespace {

constexpr mem::HeapSettings kRecordHeap = {.areaKb = 64, .subPool = 20};
constexpr Milliseconds kWait{200};  // for a job, before checking whether the run has ended

// A job that has been delivered more often may be the reason that its workers die.
constexpr int kMostDeliveries = 5;

class Worker {
 public:
  Worker(Transport &transport, const mem::Context &context, Trouble trouble, ProcessReport &report)
      : transport_(transport), context_(context), trouble_(trouble), report_(report) {}

  void run() {
    do {
      while (const std::optional<Delivery> job = take()) handle(*job);
    } while (!transport_.hasEnded());
  }

 private:
  std::optional<Delivery> take() {
    return report_.times.measure(Work::transport,
                                 [&] { return transport_.take(Stream::jobs, kWait); });
  }

  void handle(const Delivery &delivery) {
    if (delivery.deliveries > 1) ++report_.repeated;
    try {
      if (delivery.deliveries > kMostDeliveries) {
        throw catalog::InputError("delivered more than " + std::to_string(kMostDeliveries) +
                                  " times without a result");
      }
      doJob(delivery);
    } catch (const catalog::InputError &error) {
      ++report_.setAside;
      setAside(transport_, Stream::jobs, delivery, 0, error.what());
    }
  }

  // The order matters: a job is acknowledged only after its result is in the other stream. If a
  // worker dies in between, its job is done again; no job is lost.
  void doJob(const Delivery &delivery) {
    const std::optional<std::uint32_t> job = jobOf(delivery.message);
    const std::string *const text = fieldOf(delivery.message, kTextField);
    if (!job || text == nullptr) throw catalog::InputError("a job without a number or a text");
    Message result = {{kJobField, std::to_string(*job)}, {kChainField, pack(*text)}};
    report_.jobBytes += text->size();
    report_.chainBytes += result[kChainField].size();

    trouble_.beforePublishing(*job, result);
    report_.times.measure(Work::transport, [&] { transport_.publish(Stream::results, result); });
    trouble_.afterPublishing(transport_, result);
    report_.times.measure(Work::transport,
                          [&] { transport_.acknowledge(Stream::jobs, delivery.id); });
    ++report_.jobs;
  }

  // Returns the chain's file form: the used bytes of its blocks.
  std::string pack(const std::string &text) {
    mem::Heap heap;
    const catalog::PackageRecord *root = nullptr;
    report_.times.measure(Work::build, [&] {
      const std::vector<catalog::Package> packages = catalog::parseCatalogue(text, "the job");
      heap = catalog::need(mem::Heap::open(context_, kRecordHeap));
      root = catalog::buildRecords(context_, heap, packages);
    });
    std::string bytes;
    report_.times.measure(Work::pack, [&] {
      const mem::PackedChain chain =
          catalog::need(mem::PackedChain::pack(context_, catalog::kPackTable, *root));
      for (const std::span<const std::byte> used : chain) {
        bytes.append(reinterpret_cast<const char *>(used.data()), used.size());
      }
    });
    catalog::need(heap.close());
    return bytes;
  }

  Transport &transport_;
  const mem::Context &context_;
  WorkerTrouble trouble_;
  ProcessReport &report_;
};

}  // namespace

ProcessReport work(Transport &transport, const refhost::Library &library, const std::string &name,
                   Trouble trouble) {
  ProcessReport report;
  report.role = Role::worker;
  report.name = name;
  report.isFinal = true;
  refhost::Host host;
  {
    const catalog::RunningLibrary running(host, library.bindEntry());
    Worker(transport, running.context(), trouble, report).run();
  }
  report.storageBytes = host.account().totalBytes;
  report.liveBytes = host.account().liveBytes;
  report.liveCount = host.account().liveCount;
  transport.publish(Stream::reports, messageOf(report));
  return report;
}

}  // namespace exchange
