// What the colours of entries in a picture of heaps mean.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "heap_store.hpp"

namespace memtool {

enum class ColourBy { Size, Age, Owner };

class EntryColours {
 public:
  EntryColours(ColourBy by, const std::vector<Snapshot> &snapshots);

  // The class of an entry in the style sheet.
  std::string classOf(const StoreEntry &entry) const;

  // What the classes that occur mean, in order.
  struct Meaning {
    std::string className;
    std::string text;
  };
  const std::vector<Meaning> &meanings() const { return meanings_; }
  // "Entries and cells by the bytes asked for:"
  const char *title() const;

  // Rules for these classes.
  const char *styles() const;

 private:
  std::size_t classNumberOf(const StoreEntry &entry) const;
  std::string textOf(std::size_t number) const;

  ColourBy by_;
  bool isOfProgram_ = false;
  std::uint64_t last_ = 1;                     // the highest line or call that has made an entry
  std::map<std::string, std::size_t> owners_;  // the classes of those that have one of their own
  std::vector<std::string> ownerNames_;
  std::vector<Meaning> meanings_;
};

}  // namespace memtool
