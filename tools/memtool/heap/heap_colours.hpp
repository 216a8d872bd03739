// Chooses the colours of entries in a picture of heaps.
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

  // The entry's class in the style sheet.
  std::string classOf(const StoreEntry &entry) const;

  // The meanings of the classes that occur, in order.
  struct Meaning {
    std::string className;
    std::string text;
  };
  const std::vector<Meaning> &meanings() const { return meanings_; }
  // "Entries and cells by requested bytes:"
  const char *title() const;

  // The style sheet's rules for these classes.
  const char *styles() const;

 private:
  std::size_t classNumberOf(const StoreEntry &entry) const;
  std::string textOf(std::size_t number) const;

  ColourBy by_;
  bool isOfProgram_ = false;
  std::uint64_t last_ = 1;                     // the highest line or call that made an entry
  std::map<std::string, std::size_t> owners_;  // the classes of owners with their own class
  std::vector<std::string> ownerNames_;
  std::vector<Meaning> meanings_;
};

}  // namespace memtool
