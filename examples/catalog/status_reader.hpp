// Reads a package catalogue in the form of dpkg's status file.
//
// The file is a sequence of stanzas, one for each package, with blank lines between them. A stanza
// is a sequence of fields "Name: value"; a line that begins with a blank or tab continues the field
// before it. Names of fields are compared without case. Lines may end with CR LF.
//
// Threading: the functions have no state.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

// A dependency of a package: an element of the fields Depends and Pre-Depends.
struct Dependency {
  std::string name;          // as written, with an architecture qualifier ("python3:any")
  std::string constraint;    // "(>= 2.36)" without the parentheses, empty if there is none
  bool preDepends = false;   // from Pre-Depends
  bool alternative = false;  // after a "|": it may replace the dependency before it
};

struct Package {
  std::string name;     // never empty
  std::string version;  // empty if the stanza has none
  std::string summary;  // first line of the description, UTF-8; empty if the stanza has none
  std::vector<Dependency> dependencies;  // Pre-Depends first, then Depends, in written order
};

// The name that a dependency's package has in the catalogue: without ":any" or another
// architecture.
std::string_view bareName(std::string_view dependencyName);

// Packages in the order of the file, one or more. `source` names the text in messages. Throws
// InputError with source, line number and reason if the text is not a catalogue.
std::vector<Package> parseCatalogue(std::string_view text, const std::string &source);

// The catalogue to read by default: the machine's own, else the sample in the folder of the
// program.
std::filesystem::path defaultCatalogue(const std::filesystem::path &programFolder);

// parseCatalogue for a file. Throws InputError if the file cannot be read, too.
std::vector<Package> readCatalogue(const std::filesystem::path &path);

}  // namespace catalog
