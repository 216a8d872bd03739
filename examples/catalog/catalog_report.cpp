#include "catalog_report.hpp"

#include <chrono>
#include <condition_variable>
#include <iomanip>
#include <mutex>
#include <ostream>
#include <sstream>
#include <thread>

#include "catalog_support.hpp"

namespace catalog {
namespace {

using Clock = std::chrono::steady_clock;

// Writes the progress lines of one step while the object exists.
class ProgressLines {
 public:
  ProgressLines(std::ostream &stream, const std::string &step)
      : thread_([this, &stream, &step] { write(stream, step); }) {}

  ~ProgressLines() {
    {
      const std::lock_guard lock(mutex_);
      isOver_ = true;
    }
    over_.notify_one();
    thread_.join();
  }

  ProgressLines(const ProgressLines &) = delete;
  ProgressLines &operator=(const ProgressLines &) = delete;

 private:
  void write(std::ostream &stream, const std::string &step) {
    const Clock::time_point start = Clock::now();
    std::unique_lock lock(mutex_);
    for (int seconds = 1;; ++seconds) {
      const auto isOver = [this] { return isOver_; };
      if (over_.wait_until(lock, start + std::chrono::seconds(seconds), isOver)) return;
      stream << "catalog: " << step << " has run for " << seconds << " s" << std::endl;
    }
  }

  std::mutex mutex_;
  std::condition_variable over_;
  bool isOver_ = false;
  std::thread thread_;  // last: it uses the members above
};

constexpr int kNameWidth = 14;
constexpr int kNumberWidth = 12;

void printRecords(std::ostream &stream, const Report &report) {
  const RecordCounts &records = report.records;
  stream << "Catalogue " << report.catalogue << '\n';
  line(stream, "structures", records.packages + records.dependencies)
      << "  (" << grouped(records.packages) << " packages, " << grouped(records.dependencies)
      << " dependencies, " << grouped(records.references) << " resolved to a package)\n";
  line(stream, "strings", records.narrowStrings + records.wideStrings)
      << "  (" << grouped(records.narrowStrings) << " narrow, " << grouped(records.wideStrings)
      << " wide)\n";
}

void printChain(std::ostream &stream, const Report &report) {
  stream << "Packed chain " << report.chainFile << '\n';
  if (report.blockLength == 0) {
    line(stream, "blocks", report.chain.blocks) << '\n';
    line(stream, "bytes", report.chain.bytes)
        << "  used, read from the file; equal to the catalogue\n";
    return;
  }
  line(stream, "blocks", report.chain.blocks)
      << "  of " << grouped(static_cast<std::uint64_t>(report.blockLength)) << " bytes\n";
  line(stream, "bytes", report.chain.bytes) << "  used, written to the file\n";
}

void printPort(std::ostream &stream, const Report &report) {
  stream << "Port string " << report.chainFile << ".port\n";
  line(stream, "characters", report.portCharacters)
      << (report.names.names == 0 ? "  read from the file; equal to the catalogue\n"
                                  : "  written to the file\n");
}

void printNames(std::ostream &stream, const NameCounts &names) {
  stream << "String sink\n";
  line(stream, "names", names.names)
      << "  in " << grouped(names.separateBytes) << " bytes as separate copies\n";
  line(stream, "distinct", names.distinct)
      << "  in " << grouped(names.sinkBytes) << " bytes of the sink\n";
}

void printSteps(std::ostream &stream, const Report &report) {
  stream << "Milliseconds\n";
  for (const Step &step : report.steps) {
    std::ostringstream number;
    number << std::fixed << std::setprecision(1) << step.milliseconds;
    line(stream, step.name, number.str()) << '\n';
  }
}

void printAccount(std::ostream &stream, const refhost::Account &account) {
  stream << "Storage allocated from the host\n";
  line(stream, "in all", account.totalBytes)
      << "  bytes in " << grouped(account.totalCount) << " areas\n";
  line(stream, "at the peak", account.peakBytes) << "  bytes\n";
  line(stream, "not returned", account.liveBytes)
      << "  bytes in " << grouped(account.liveCount) << " areas\n";
}

}  // namespace

void StepClock::run(const std::string &name, const std::function<void()> &work) {
  const ProgressLines progress(progress_, name);
  const Clock::time_point start = Clock::now();
  work();
  const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start;
  steps_.push_back({name, elapsed.count()});
}

std::string neededLines(const mem::Context &context, const std::vector<NeededPackage> &packages) {
  mem::ConcatBuffer lines = need(mem::ConcatBuffer::open(context));
  for (const NeededPackage &needed : packages) {
    std::ostringstream count;
    line(count, needed.package->pName, needed.dependencies) << "  dependencies";
    need(lines.append(utf16FromUtf8(count.str())));
    if (needed.package->pSummary != nullptr) {
      need(lines.append(u": "));
      need(lines.append(needed.package->pSummary));
    }
    need(lines.append(u"\n"));
  }
  return utf8FromUtf16(lines.text());
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t end = digits.size(); end > 3;) {
    end -= 3;
    digits.insert(end, 1, ',');
  }
  return digits;
}

std::ostream &line(std::ostream &stream, const std::string &name, const std::string &value) {
  return stream << "  " << std::left << std::setw(kNameWidth) << name << std::right
                << std::setw(kNumberWidth) << value;
}

std::ostream &line(std::ostream &stream, const std::string &name, std::uint64_t number) {
  return line(stream, name, grouped(number));
}

void printReport(std::ostream &stream, const Report &report) {
  printRecords(stream, report);
  if (!report.mostNeeded.empty()) stream << "Most needed packages\n" << report.mostNeeded;
  printChain(stream, report);
  printPort(stream, report);
  if (report.names.names != 0) printNames(stream, report.names);
  printSteps(stream, report);
  printAccount(stream, report.account);
}

}  // namespace catalog
