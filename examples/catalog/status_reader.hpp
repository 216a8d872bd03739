// Reads a package catalogue in the form of dpkg's status file.
//
// The file is a sequence of stanzas, one a package, with blank lines between them. A stanza is a
// sequence of fields "Name: value"; a line that begins with a blank or tab continues the field
// above it. Names of fields are compared without regard to case. Lines may end in CR LF.
//
// Threading: the functions are free of state.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

// One package that another one needs: an element of the fields Depends and Pre-Depends.
struct Dependency {
  std::string name;          // as written, with an architecture qualifier ("python3:any")
  std::string constraint;    // "(>= 2.36)" without the parentheses, empty when there is none
  bool preDepends = false;   // from Pre-Depends
  bool alternative = false;  // stands behind a "|": the dependency before it will do as well
};

struct Package {
  std::string name;     // never empty
  std::string version;  // empty when the stanza has none
  std::string summary;  // first line of the description, UTF-8; empty when the stanza has none
  std::vector<Dependency> dependencies;  // Pre-Depends first, then Depends, in written order
};

// The name under which a dependency's package stands in the catalogue: without ":any" and the like.
std::string_view bareName(std::string_view dependencyName);

// Packages in the order of the file, one or more. `source` names the text in messages. Throws
// InputError with source, line number and reason when the text is no catalogue.
std::vector<Package> parseCatalogue(std::string_view text, const std::string &source);

// The catalogue to read where nobody names one: the machine's own, else the sample in the folder of
// the program.
std::filesystem::path defaultCatalogue(const std::filesystem::path &programFolder);

// parseCatalogue for a file. Throws InputError too when the file cannot be read.
std::vector<Package> readCatalogue(const std::filesystem::path &path);

}  // namespace catalog
