// The library's context blocks as hosts see them, byte by byte, for tests of process and sink
// start. Offsets are written as numbers here, on purpose: they are what hosts rely on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string_view>
#include <vector>

#include "memtest.hpp"

namespace memtest {

inline constexpr std::uint32_t kSinkBlockLen = 0x44000;
inline constexpr std::uint32_t kSinkMapLen = 16384;
inline constexpr std::uint32_t kSinkIndexLen = 16384;
inline constexpr std::uint16_t kSinkSubPool = 230;

template <class T>
void put(Bytes &bytes, std::size_t offset, T value) {
  std::memcpy(&bytes.at(offset), &value, sizeof value);
}

inline void putText(Bytes &bytes, std::size_t offset, std::string_view text) {
  std::memcpy(&bytes.at(offset), text.data(), text.size());
}

// How far the sink has come in its start. Each step includes those before.
enum class SinkStep { none, gate, segment, index };

// The only storage of a length that the host has given out in the sink's subpool, or null.
inline std::uint8_t *sinkStorage(const refhost::Host &host, std::uint32_t length) {
  std::uint8_t *found = nullptr;
  for (const refhost::Leak &area : host.leaks()) {
    if (area.subPool == kSinkSubPool && area.kind == 0 && area.length == length) {
      EXPECT_EQ(found, nullptr) << "more than one area of " << length << " bytes";
      found = static_cast<std::uint8_t *>(area.area);
    }
  }
  return found;
}

// A host call that can fail during process start, what is recorded then, and how far the sink has
// come by then: what it has to release.
struct StartFailure {
  refhost::Service service;
  std::uint64_t nth;
  std::uint32_t innerCode;
  const char *innerText;
  SinkStep reached;
};

inline void PrintTo(const StartFailure &row, std::ostream *out) {
  *out << refhost::serviceName(row.service) << " call " << row.nth;
}

inline const std::vector<StartFailure> &sinkStartFailures() {
  using refhost::Service;
  static const std::vector<StartFailure> rows = {
      {Service::CreateGate, 1, 4081, "CreateFailed", SinkStep::none},
      {Service::GetStorage, 1, 4080, "GetVSTGErr", SinkStep::gate},
      {Service::ProtectStorage, 1, 4080, "ProtPageErr", SinkStep::segment},
      {Service::GetStorage, 2, 4080, "GetVSTGErr", SinkStep::segment},
  };
  return rows;
}

inline void putSink(Bytes &image, const refhost::Host &host, SinkStep step) {
  if (step >= SinkStep::gate) {
    EXPECT_NE(host.anchor()->Gate, 0U);
    put(image, 3176, host.anchor()->Gate);
  }
  if (step >= SinkStep::segment) {
    std::uint8_t *const base = sinkStorage(host, kSinkBlockLen);
    put(image, 96, std::int32_t{1});
    put(image, 104, base);
    put(image, 112, base + 16384);
    put(image, 120, base + 0x43FFF);
    put(image, 128, base);
    put(image, 144, std::int32_t{0x40000});
  }
  if (step >= SinkStep::index) {
    put(image, 3184, sinkStorage(host, kSinkIndexLen));
    put(image, 3192, std::uint32_t{16384});
    put(image, 3196, std::uint32_t{1024});
    put(image, 3212, std::int32_t{1023});
  }
}

// The process block after an initialisation that came as far as `step`.
inline Bytes processBlockImage(const refhost::Host &host, SinkStep step) {
  Bytes image(3248);
  put(image, 0, std::uint32_t{3248});
  putText(image, 4, ">PST_MEMProcessBlock    ");
  put(image, 30, std::uint16_t{1});
  putSink(image, host, step);
  if (step == SinkStep::index) image[32] = 3;
  return image;
}

// Names of all addresses that start and stop hand to the host.
inline AddressNames startNames(refhost::Host &host) {
  AddressNames names;
  const MEMProcessBlock *const block = host.anchor();
  if (block == nullptr) return names;
  names[asNumber(block)] = "block";
  names[asNumber(host.messageTable())] = "table";
  if (block->Segments[0].pBase != nullptr) {
    names[asNumber(block->Segments[0].pBase)] = "base";
    names[asNumber(block->Segments[0].pBase + kSinkMapLen)] = "space";
  }
  if (block->pIndex != nullptr) names[asNumber(block->pIndex)] = "index";
  return names;
}

inline Lines sinkStartLines() {
  return framed("MEM_SinkInit",
                {"GetAnchor(0, 3, cell)", "CreateGate(cell)", "GetStorage(cell, 278528, 230, 0)",
                 "ProtectStorage(space, 262144, 230, 16)", "GetStorage(cell, 16384, 230, 0)"});
}

// How a sink that has come as far as `step` releases what it has.
inline Lines sinkReleaseLines(SinkStep step, std::uint32_t gate, const std::string &frame) {
  Lines lines;
  if (step >= SinkStep::segment) {
    lines.push_back(frame + ": ProtectStorage(space, 262144, 230, 32)");
    lines.push_back(frame + ": FreeStorage(base, 278528, 230)");
  }
  if (step >= SinkStep::index) lines.push_back(frame + ": FreeStorage(index, 16384, 230)");
  if (step >= SinkStep::gate) {
    lines.push_back(frame + ": DeleteGate(" + std::to_string(gate) + ")");
  }
  return lines;
}

// `inner` between the calls of `outer`, from `place` on.
inline Lines nested(Lines outer, std::ptrdiff_t place, const Lines &inner) {
  outer.insert(outer.begin() + place, inner.begin(), inner.end());
  return outer;
}

inline Lines sinkStopLines(SinkStep step, std::uint32_t gate) {
  return framed("MEM_SinkTerm",
                joined({{"GetAnchor(0, 3, cell)"}, sinkReleaseLines(step, gate, "MEM_SinkTerm")}));
}

// The calls of a start, `lines` when it succeeds, up to the failing one, and how the sink then
// releases what it has.
inline Lines linesOfFailedStart(const Lines &lines, const StartFailure &failure,
                                std::uint32_t gate) {
  const std::string failing = ": " + std::string(refhost::serviceName(failure.service)) + "(";
  Lines made;
  std::uint64_t seen = 0;
  for (const std::string &line : lines) {
    made.push_back(line);
    if (line.find(failing) != std::string::npos && ++seen == failure.nth) break;
  }
  return joined({made, sinkReleaseLines(failure.reached, gate, "MEM_SinkInit")});
}

// Names the areas of the sink, which a failed start has returned by now.
inline void nameReturned(AddressNames &names, const std::vector<refhost::HostCall> &calls) {
  for (const refhost::HostCall &call : calls) {
    if (call.service != refhost::Service::ProtectStorage) continue;
    names[call.args[0]] = "space";
    names[call.args[0] - kSinkMapLen] = "base";
  }
}

inline Lines processStartLines() {
  return framed("MEM_ProcessInit", joined({{"GetPoolStorage(1, 3248, cell)",
                                            "SetAnchor(0, 3, block)", "RegisterMessages(3, table)"},
                                           sinkStartLines()}));
}

inline Lines processStopLines(SinkStep step, std::uint32_t gate) {
  return framed("MEM_ProcessTerm", joined({{"GetAnchor(0, 3, cell)"},
                                           sinkStopLines(step, gate),
                                           {"FreePoolStorage(1, block)", "SetAnchor(0, 3, null)",
                                            "RegisterMessages(3, null)"}}));
}

}  // namespace memtest
