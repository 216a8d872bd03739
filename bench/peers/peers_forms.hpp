// Forms in which a catalogue is stored and sent: how each is measured.
//
// A form is a class, made like a work, with
//   Encoded encode(const Graph &)   the encoded catalogue, an owner with size()
//   Input load(const Encoded &)     a copy to decode, with refresh(), which restores it, as if it
//                                   had just been read, and
//   decode(Input &, Visitor &)      reads the copy and passes all packages to the visitor
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "peers_records.hpp"
#include "peers_work.hpp"

namespace bench {

// Encoded bytes in one piece, 8-byte aligned.
class Bytes {
 public:
  Bytes(const void *data, std::size_t size) : words_((size + 7) / 8), size_(size) {
    std::memcpy(words_.data(), data, size);
  }
  const std::uint8_t *data() const { return reinterpret_cast<const std::uint8_t *>(words_.data()); }
  char *text() { return reinterpret_cast<char *>(words_.data()); }
  std::size_t size() const { return size_; }

 private:
  std::vector<std::uint64_t> words_;
  std::size_t size_;
};

// A copy of encoded bytes with a NUL after them. refresh() writes all of it again for every form,
// even if decoding does not change it: then all decoders find it in the same caches.
class InputBytes {
 public:
  explicit InputBytes(const Bytes &fresh) : fresh_(fresh), copy_(fresh) {}
  void refresh() { std::memcpy(copy_.text(), fresh_.data(), fresh_.size()); }
  Bytes &bytes() { return copy_; }

 private:
  const Bytes fresh_;
  Bytes copy_;
};

template <class Form>
class FormWork {
 public:
  template <class... Args>
  explicit FormWork(std::size_t packages, Args &...args)
      : graph_(Graph::ofPackages(packages)), form_(args...) {}

  // The decoded catalogue equals the encoded one, in every character; twice, from a refreshed copy.
  void check() {
    demandSpeed();
    Digest expected;
    visitRecords(graph_.root(), expected);
    auto input = form_.load(form_.encode(graph_));
    for (int i = 0; i < 2; ++i) {
      input.refresh();
      Digest digest;
      form_.decode(input, digest);
      demand(digest.result() == expected.result(), "the decoded catalogue differs");
    }
  }

 protected:
  std::int64_t packages() const { return static_cast<std::int64_t>(graph_.count()); }

  // An encoder whose time grows with the square of the graph is not measured with a large one.
  void demandSpeed() {
    constexpr std::size_t kLarge = 100000;
    constexpr double kMostSeconds = 0.2;
    if (graph_.count() < kLarge) return;
    const Graph &smaller = Graph::ofPackages(kLarge / 10);
    const double start = threadSeconds();
    form_.encode(smaller);
    if (threadSeconds() - start > kMostSeconds)
      throw TooSlow("10,000 packages take too long already");
  }

  const Graph &graph_;
  Form form_;
};

// The encoded form is made and freed.
template <class Form>
class Encode : public FormWork<Form> {
 public:
  using FormWork<Form>::FormWork;
  std::int64_t run() {
    const auto encoded = this->form_.encode(this->graph_);
    size_ = encoded.size();
    return this->packages();
  }
  double size() const { return static_cast<double>(size_) / static_cast<double>(this->packages()); }

 private:
  std::size_t size_ = 0;
};

template <class Form>
class Decode : public FormWork<Form> {
 public:
  using FormWork<Form>::FormWork;

  void prepare() {
    if (!input_) input_.emplace(this->form_.load(this->form_.encode(this->graph_)));
    input_->refresh();
  }
  std::int64_t run() {
    Touch touch;
    this->form_.decode(*input_, touch);
    benchmark::DoNotOptimize(touch.result());
    return this->packages();
  }

 private:
  using Input = decltype(std::declval<Form &>().load(
      std::declval<Form &>().encode(std::declval<const Graph &>())));
  std::optional<Input> input_;
};

inline constexpr std::size_t kGraphSizes[] = {1000, 10000, 100000};

template <class Form>
void addLibraryForm(const std::string &table, const std::string &encode,
                    const std::string &decode) {
  for (const std::size_t count : kGraphSizes) {
    const std::string column = "/" + std::to_string(count);
    addLibrary(table + "-encode/" + encode + column, HostKind::bench,
               [count](BenchSession &session) { return Encode<Form>(count, session); });
    addLibrary(table + "-decode/" + decode + column, HostKind::bench,
               [count](BenchSession &session) { return Decode<Form>(count, session); });
  }
}

template <class Form>
void addPeerForm(const std::string &table, const std::string &row) {
  for (const std::size_t count : kGraphSizes) {
    const std::string column = "/" + std::to_string(count);
    addPeer(table + "-encode/" + row + column, [count] { return Encode<Form>(count); });
    addPeer(table + "-decode/" + row + column, [count] { return Decode<Form>(count); });
  }
}

// One function for each form or family of forms.
void addPackedChain();
void addFlatBuffers();
void addCapnProto();
void addProtobuf();
void addBoostSerialization();
void addPortString();
void addTextFormat();
void addRapidJson();

}  // namespace bench
