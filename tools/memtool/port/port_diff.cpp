#include "port_diff.hpp"

#include <fmt/format.h>

#include <map>
#include <string>

#include "port_values.hpp"

namespace memtool {
namespace {

constexpr std::size_t kMostShown = 60;  // characters of a value

// A field by its name: "3", "3[1]" for an element, "3.1" in an embedded structure.
struct NamedField {
  PortField field;
  std::string text = {};  // of an embedded structure: its kind and elements
};
using NamedFields = std::map<std::string, NamedField>;

std::string headText(const PortStructure &structure) {
  std::string text = fmt::format("StructID {}", structure.id);
  if (structure.elements) text += fmt::format(", {} elements", *structure.elements);
  return text;
}

void addFields(PortReader &reader, const std::string &prefix, NamedFields &named) {
  std::map<std::uint32_t, std::size_t> times;
  for (PortFields fields(reader); fields.next();) {
    const PortField &field = fields.field();
    const std::size_t time = times[field.id]++;
    const std::string index = time == 0 ? "" : fmt::format("[{}]", time);
    const std::string name = fmt::format("{}{}{}", prefix, field.id, index);
    if (const auto *embedded = std::get_if<PortEmbedded>(&field.value)) {
      named[name] = {field, headText(embedded->structure)};
      addFields(reader, name + ".", named);
    } else {
      named[name] = {field, ""};
    }
  }
}

std::string shown(const NamedField &named) {
  if (!named.text.empty()) return named.text;
  return showPortValue(named.field.value, kMostShown).text;
}

bool isSame(const PortNumber &a, const PortNumber &b) {
  return a.isNegative == b.isNegative && a.magnitude == b.magnitude;
}
bool isSame(const PortText &a, const PortText &b) {
  return a.isString == b.isString && a.isNull == b.isNull && a.length == b.length &&
         a.bytes() == b.bytes();
}
bool isSame(const PortWideText &a, const PortWideText &b) {
  return a.isString == b.isString && a.isNull == b.isNull && a.length == b.length &&
         a.units() == b.units();
}
bool isSame(const PortBytes &a, const PortBytes &b) {
  return a.size() == b.size() && a.bytes(0, a.size()) == b.bytes(0, b.size());
}
bool isSame(PortFlags a, PortFlags b) {
  return a.bits == b.bits;
}
bool isSame(PortPointer, PortPointer) {
  return true;  // followed
}
bool isSame(const PortEmbedded &, const PortEmbedded &) {
  return true;  // their fields are compared on their own
}

bool haveSameValue(const PortValue &a, const PortValue &b) {
  if (a.index() != b.index()) return false;
  return std::visit(
      [&b](const auto &value) { return isSame(value, std::get<std::decay_t<decltype(value)>>(b)); },
      a);
}

class PortDiff {
 public:
  PortDiff(const PortDocument &a, const PortDocument &b, const DifferenceSink &sink)
      : a_(a), b_(b), walk_(a.count(), b.count(), placeOf(a), placeOf(b), sink) {}

  PortComparison run() {
    walk_.begin(0, 0);
    while (const auto pair = walk_.next()) compare(*a_.read(pair->a + 1), *b_.read(pair->b + 1));
    return {walk_.pairs(), walk_.differences()};
  }

 private:
  static GraphWalk::PlaceOf placeOf(const PortDocument &document) {
    return [&document](std::size_t node) {
      return fmt::format("structure {}, character {}", node + 1,
                         document.structure(node + 1).offset.value_or(0));
    };
  }

  void compare(PortReader &readerA, PortReader &readerB) {
    const PortStructure &a = readerA.structure();
    const PortStructure &b = readerB.structure();
    if (a.id != b.id) {
      walk_.differ("StructID", std::to_string(a.id), std::to_string(b.id));
      return;
    }
    if (a.elements != b.elements) walk_.differ("elements", elements(a), elements(b));
    NamedFields fieldsA;
    NamedFields fieldsB;
    addFields(readerA, "", fieldsA);
    addFields(readerB, "", fieldsB);
    for (const auto &[name, field] : fieldsA) {
      const auto other = fieldsB.find(name);
      if (other == fieldsB.end()) {
        walk_.differ("field " + name, shown(field), "absent");
      } else {
        compareField("field " + name, field, other->second);
      }
    }
    for (const auto &[name, field] : fieldsB) {
      if (fieldsA.count(name) == 0) walk_.differ("field " + name, "absent", shown(field));
    }
  }

  static std::string elements(const PortStructure &structure) {
    return structure.elements ? std::to_string(*structure.elements) : "none";
  }

  void compareField(const std::string &name, const NamedField &a, const NamedField &b) {
    const PortValue &one = a.field.value;
    const PortValue &other = b.field.value;
    if (one.index() != other.index()) {
      const auto formed = [](const NamedField &field) {
        return fmt::format("{} {}", portFormName(field.field.value), shown(field));
      };
      walk_.differ(name, formed(a), formed(b));
    } else if (const auto *pointer = std::get_if<PortPointer>(&one)) {
      walk_.follow(name, target(*pointer), target(std::get<PortPointer>(other)));
    } else if (!haveSameValue(one, other) || a.text != b.text) {
      walk_.differ(name, shown(a), shown(b));
    }
  }

  static std::optional<std::size_t> target(PortPointer pointer) {
    if (pointer.number == 0) return {};
    return pointer.number - 1;
  }

  const PortDocument &a_;
  const PortDocument &b_;
  GraphWalk walk_;
};

}  // namespace

PortComparison comparePorts(const PortDocument &a, const PortDocument &b,
                            const DifferenceSink &sink) {
  return PortDiff(a, b, sink).run();
}

}  // namespace memtool
