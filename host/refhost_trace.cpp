#include "refhost_trace.hpp"

#include <ostream>
#include <stdexcept>
#include <utility>

#include "refhost_impl.hpp"
#include "refhost_unicode.hpp"

namespace refhost {

namespace {

std::string textOrEmpty(const char *text) {
  return text == nullptr ? "" : text;
}

void appendVisibly(std::string &line, const std::string &text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      line += formatText("\\x%02X", byte);
    } else {
      line += c;
    }
  }
}

}  // namespace

std::string traceLine(const TraceRecord &record, TraceLineStyle style) {
  std::string line;
  if (style.time) {
    const std::uint64_t microseconds = record.time / 1000;
    line += formatText("%5llu.%06llu ", microseconds / 1'000'000, microseconds % 1'000'000);
  }
  if (style.thread) line += formatText("T%llu ", record.thread);
  if (style.depth && record.depth > 1) line.append(2 * (record.depth - 1), ' ');
  line += record.type + ' ' + record.function + '(' + record.source + ':' +
          std::to_string(record.line) + ") ";
  appendVisibly(line, record.text);
  return line;
}

void TraceOutput::write(const TraceRecord &record) {
  std::shared_ptr<const Callback> callback;
  {
    const std::lock_guard lock(mutex_);
    callback = callback_;
    if (stream_ != nullptr) *stream_ << traceLine(record, style_) << '\n';
    // Each line is flushed, so that the file of a program that crashes is complete.
    if (file_.is_open()) file_ << traceLine(record, style_) << std::endl;
    if (keeping_) records_.push_back(record);
  }
  // Outside the lock: the callback may use the library, which may trace.
  if (callback) (*callback)(record);
}

void TraceOutput::keep(bool on) {
  const std::lock_guard lock(mutex_);
  keeping_ = on;
}

std::vector<TraceRecord> TraceOutput::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(records_, {});
}

void TraceOutput::toStream(std::ostream *stream) {
  const std::lock_guard lock(mutex_);
  stream_ = stream;
}

void TraceOutput::toFile(const std::filesystem::path &path) {
  std::ofstream file;
  if (!path.empty()) {
    file.open(path, std::ios::trunc);
    if (!file) throw std::runtime_error("cannot write trace file " + path.string());
  }
  const std::lock_guard lock(mutex_);
  file_ = std::move(file);
}

void TraceOutput::setStyle(TraceLineStyle style) {
  const std::lock_guard lock(mutex_);
  style_ = style;
}

void TraceOutput::toCallback(Callback callback) {
  auto shared = callback ? std::make_shared<const Callback>(std::move(callback)) : nullptr;
  const std::lock_guard lock(mutex_);
  callback_ = std::move(shared);
}

namespace services {

namespace {

// The text of the record that is written next. A test may have put its own buffer, or none, into
// the environment.
std::string traceBufferText(Call &call) {
  const MEMTraceBuf *buffer = call.thread().env.pTraceBuf;
  if (buffer == nullptr) return {};
  std::size_t length = buffer->TextLen;
  if (length > kTraceTextRoom) {
    call.misuse(formatText("the trace text of %llu bytes is longer than the buffer of %llu bytes",
                           length, kTraceTextRoom));
    length = kTraceTextRoom;
  }
  return {reinterpret_cast<const char *>(buffer) + offsetof(MEMTraceBuf, Text), length};
}

void write(Call &call, Service service, std::int32_t component, TraceRecord record) {
  call.checkComponent(component);
  record.writtenBy = service;
  record.time = call.host().clock.now();
  record.thread = call.thread().number;
  record.depth = call.thread().frames.depth();
  if (call.host().timeline.isOn()) call.host().timeline.mark(record);
  call.host().trace.write(record);
}

TraceRecord makeRecord(const char *type, const char *source, const char *function,
                       std::int32_t line, std::string text) {
  TraceRecord record;
  record.type = textOrEmpty(type);
  record.source = textOrEmpty(source);
  record.function = textOrEmpty(function);
  record.line = line;
  record.text = std::move(text);
  return record;
}

}  // namespace

void writeRecord(std::int32_t component, std::int32_t zero, const char *pType, const char *pSource,
                 const char *pFunction, std::int32_t line) {
  Call call(Service::WriteRecord, component, zero, pType, pSource);
  if (call.faulted()) return;
  write(call, Service::WriteRecord, component,
        makeRecord(pType, pSource, pFunction, line, traceBufferText(call)));
}

void writeException(std::int32_t component, std::int32_t zero, const char *pType,
                    const char *pSource, const char *pFunction, std::int32_t line) {
  Call call(Service::WriteException, component, zero, pType, pSource);
  if (call.faulted()) return;
  write(call, Service::WriteException, component,
        makeRecord(pType, pSource, pFunction, line, traceBufferText(call)));
}

void writeWideRecord(std::int32_t component, std::int32_t zero, const char *pType,
                     const char *pSource, const char *pFunction, std::int32_t line,
                     const char16_t *pText) {
  Call call(Service::WriteWideRecord, component, zero, pType, pSource);
  if (call.faulted()) return;
  write(call, Service::WriteWideRecord, component,
        makeRecord(pType, pSource, pFunction, line, utf8FromUtf16(pText)));
}

}  // namespace services

}  // namespace refhost
