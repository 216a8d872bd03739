#include "catalog_report.hpp"

#include <iomanip>
#include <ostream>
#include <sstream>
#include <string_view>

#include "catalog_errors.hpp"
#include "utf_text.hpp"

namespace catalog {
namespace {

// "1,234,567"
std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t end = digits.size(); end > 3;) {
    end -= 3;
    digits.insert(end, 1, ',');
  }
  return digits;
}

constexpr std::size_t kNameWidth = 14;
constexpr std::size_t kNumberWidth = 12;

std::string line(std::string name, const std::string &value) {
  name.resize(kNameWidth, ' ');
  if (value.size() < kNumberWidth) name.append(kNumberWidth - value.size(), ' ');
  return "  " + name + value;
}

std::string line(const std::string &name, std::uint64_t number) {
  return line(name, grouped(number));
}

// Wide text, put together piece by piece.
class WideReport {
 public:
  explicit WideReport(const mem::Context &context)
      : buffer_(need(mem::ConcatBuffer::open(context))) {}

  WideReport &operator<<(std::string_view text) {
    need(buffer_.append(utf16FromUtf8(text)));
    return *this;
  }

  // Ends the buffer.
  std::string takeUtf8() {
    std::string text = utf8FromUtf16(buffer_.text());
    need(buffer_.close());
    return text;
  }

 private:
  mem::ConcatBuffer buffer_;
};

void addRecords(WideReport &text, const Report &report) {
  const RecordCounts &records = report.records;
  text << "Catalogue " << report.catalogue << "\n"
       << line("structures", records.packages + records.dependencies) << "  ("
       << grouped(records.packages) << " packages, " << grouped(records.dependencies)
       << " dependencies, " << grouped(records.references) << " resolved to a package)\n"
       << line("strings", records.narrowStrings + records.wideStrings) << "  ("
       << grouped(records.narrowStrings) << " narrow, " << grouped(records.wideStrings)
       << " wide)\n";
}

void addFiles(WideReport &text, const Report &report) {
  const bool isRead = report.blockLength == 0;
  text << "Packed chain " << report.chainFile << "\n" << line("blocks", report.chain.blocks);
  if (!isRead)
    text << "  of " << grouped(static_cast<std::uint64_t>(report.blockLength)) << " bytes";
  text << "\n"
       << line("bytes", report.chain.bytes) << "  used, "
       << (isRead ? "read from the file; all is as it was\n" : "written to the file\n")
       << "Port string " << report.chainFile << ".port\n"
       << line("characters", report.portCharacters)
       << (isRead ? "  read from the file; all is as it was\n" : "  written to the file\n");
}

void addNames(WideReport &text, const NameCounts &names) {
  text << "String sink\n"
       << line("names", names.names) << "  in " << grouped(names.separateBytes)
       << " bytes as separate copies\n"
       << line("distinct", names.distinct) << "  in " << grouped(names.sinkBytes)
       << " bytes of the sink\n";
}

void addSteps(WideReport &text, const std::vector<Step> &steps) {
  text << "Milliseconds\n";
  for (const Step &step : steps) {
    std::ostringstream number;
    number << std::fixed << std::setprecision(1) << step.milliseconds;
    text << line(step.name, number.str()) << "\n";
  }
}

}  // namespace

std::string composeReport(const mem::Context &context, const Report &report) {
  WideReport text(context);
  addRecords(text, report);
  addFiles(text, report);
  if (report.names.names != 0) addNames(text, report.names);
  addSteps(text, report.steps);
  return text.takeUtf8();
}

void printAccount(std::ostream &stream, const refhost::Account &account) {
  stream << "Storage obtained from the host\n"
         << line("in all", account.totalBytes) << "  bytes in " << grouped(account.totalCount)
         << " areas\n"
         << line("at the peak", account.peakBytes) << "  bytes\n"
         << line("not returned", account.liveBytes) << "  bytes in " << grouped(account.liveCount)
         << " areas\n";
}

}  // namespace catalog
