// Shared strings: one copy of each, found by its text.
#include <boost/flyweight.hpp>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "peers_tables.hpp"
#include "peers_work.hpp"

namespace bench {

namespace {

// Unsorted names: the number is spread over 32 bits.
std::vector<std::string> names(std::size_t count) {
  std::vector<std::string> made;
  for (std::size_t i = 0; i < count; ++i) {
    const auto spread = static_cast<std::uint32_t>(i) * 2654435761U;
    made.push_back(refhost::formatText("%08x-package-name", spread));
  }
  return made;
}

// Each store keeps its strings until it is emptied.
class LibrarySink {
 public:
  explicit LibrarySink(BenchSession &session) : mem_(session.mem()) {}
  ~LibrarySink() { empty(); }
  LibrarySink(const LibrarySink &) = delete;
  LibrarySink &operator=(const LibrarySink &) = delete;

  const char *keep(const std::string &text) {
    const char *pSunk = nullptr;
    require(mem_.MEM_SinkString(text.c_str(), &pSunk), "MEM_SinkString");
    return pSunk;
  }
  void forgetUses() {}
  // Restarting a sink empties it faster than deleting each string.
  void empty() {
    mem_.MEM_SinkTerm();
    require(mem_.MEM_SinkInit(), "MEM_SinkInit");
  }

 private:
  MEMFunctionVector &mem_;
};

class Flyweights {
 public:
  using Shared = boost::flyweight<std::string>;

  const char *keep(const std::string &text) {
    kept_.emplace_back(text);
    return kept_.back().get().c_str();
  }
  // A string is kept while it has one use.
  void forgetUses() {
    if (first_.empty()) first_ = kept_;
    kept_.clear();
  }
  void empty() {
    kept_.clear();
    first_.clear();
  }

 private:
  std::vector<Shared> kept_;
  std::vector<Shared> first_;
};

class GuardedSet {
 public:
  const char *keep(const std::string &text) {
    const std::lock_guard lock(mutex_);
    return set_.insert(text).first->c_str();
  }
  void forgetUses() {}
  void empty() { set_ = {}; }

 private:
  std::mutex mutex_;
  std::unordered_set<std::string> set_;
};

template <class Store>
class SinkWork {
 public:
  template <class... Args>
  explicit SinkWork(std::size_t count, Args &...args) : store_(args...), names_(names(count)) {}

  void check() {
    std::vector<const char *> first;
    for (const std::string &name : names_) {
      const char *kept = store_.keep(name);
      demand(kept != name.c_str() && kept == name, "a string is not kept");
      first.push_back(kept);
    }
    for (std::size_t i = 0; i < names_.size(); ++i) {
      demand(store_.keep(names_[i]) == first[i], "a string is kept twice");
    }
    store_.empty();
  }

 protected:
  std::int64_t keepAll() {
    for (const std::string &name : names_) benchmark::DoNotOptimize(store_.keep(name));
    return static_cast<std::int64_t>(names_.size());
  }

  Store store_;
  const std::vector<std::string> names_;
};

// All strings are new.
template <class Store>
class NewStrings : public SinkWork<Store> {
 public:
  using SinkWork<Store>::SinkWork;
  void prepare() { this->store_.empty(); }
  std::int64_t run() { return this->keepAll(); }
};

// All strings are already in the store.
template <class Store>
class KnownStrings : public SinkWork<Store> {
 public:
  template <class... Args>
  explicit KnownStrings(std::size_t count, Args &...args) : SinkWork<Store>(count, args...) {
    this->keepAll();
  }
  void prepare() { this->store_.forgetUses(); }
  std::int64_t run() { return this->keepAll(); }
};

template <template <class> class Work>
void addTable(const std::string &table) {
  for (const std::size_t count : {1000U, 10000U, 100000U}) {
    const std::string column = "/" + std::to_string(count);
    addLibrary(table + "/MEM_SinkString" + column, HostKind::bench,
               [count](BenchSession &session) { return Work<LibrarySink>(count, session); });
    addPeer(table + "/boost::flyweight" + column, [count] { return Work<Flyweights>(count); });
    addPeer(table + "/unordered_set behind a mutex" + column,
            [count] { return Work<GuardedSet>(count); });
  }
}

}  // namespace

void addSinks() {
  addTable<NewStrings>("sink-new");
  addTable<KnownStrings>("sink-known");
}

}  // namespace bench
