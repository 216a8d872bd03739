#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/level.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/tracking.hpp>
#include <boost/serialization/vector.hpp>
#include <streambuf>

#include "peers_forms.hpp"

namespace bench {

// The records as classes that own their texts. A shared reference is the package's number, because
// tracked pointers would recurse to the depth of the whole graph.
struct BoostDependency {
  std::uint32_t flags = 0;
  std::uint32_t target = 0;
  std::string constraint;

  template <class Archive>
  void serialize(Archive &archive, unsigned) {
    archive &flags &target &constraint;
  }
};

struct BoostPackage {
  std::uint32_t number = 0;
  std::string name;
  std::string version;
  std::string summary;
  std::vector<BoostDependency> dependencies;

  template <class Archive>
  void serialize(Archive &archive, unsigned) {
    archive &number &name &version &summary &dependencies;
  }
};

}  // namespace bench

// No class information and no tracking of addresses: the fastest settings.
BOOST_CLASS_IMPLEMENTATION(bench::BoostDependency, boost::serialization::object_serializable)
BOOST_CLASS_IMPLEMENTATION(bench::BoostPackage, boost::serialization::object_serializable)
BOOST_CLASS_TRACKING(bench::BoostDependency, boost::serialization::track_never)
BOOST_CLASS_TRACKING(bench::BoostPackage, boost::serialization::track_never)

namespace bench {

namespace {

constexpr unsigned kArchiveFlags = boost::archive::no_header | boost::archive::no_codecvt;

// Appends to a string directly, because a string stream is slower.
class StringWriter : public std::streambuf {
 public:
  std::string take() { return std::move(text_); }

 protected:
  std::streamsize xsputn(const char *bytes, std::streamsize count) override {
    text_.append(bytes, static_cast<std::size_t>(count));
    return count;
  }
  int_type overflow(int_type byte) override {
    text_.push_back(static_cast<char>(byte));
    return byte;
  }

 private:
  std::string text_;
};

class MemoryReader : public std::streambuf {
 public:
  explicit MemoryReader(Bytes &bytes) {
    setg(bytes.text(), bytes.text(), bytes.text() + bytes.size());
  }
};

class BoostForm {
 public:
  std::string encode(const Graph &graph) {
    StringWriter writer;
    {
      boost::archive::binary_oarchive archive(writer, kArchiveFlags);
      auto count = static_cast<std::uint32_t>(graph.count());
      archive << count;
      forEach(graph.root(), [this, &archive](const PackageRecord &record) {
        copyFrom(record);
        archive << static_cast<const BoostPackage &>(package_);
      });
    }
    return writer.take();
  }
  static InputBytes load(const std::string &encoded) {
    return InputBytes(Bytes(encoded.data(), encoded.size()));
  }

  template <class Visitor>
  static void decode(InputBytes &input, Visitor &visitor) {
    MemoryReader reader(input.bytes());
    boost::archive::binary_iarchive archive(reader, kArchiveFlags);
    std::uint32_t count = 0;
    archive >> count;
    std::vector<BoostPackage> packages(count);
    for (BoostPackage &package : packages) archive >> package;
    for (const BoostPackage &package : packages) {
      visitor.package(package.number, package.name.c_str(), package.version.c_str(),
                      package.summary.c_str());
      for (const BoostDependency &dependency : package.dependencies) {
        visitor.dependency(dependency.flags, dependency.constraint.c_str(),
                           packages[dependency.target].number);
      }
    }
  }

 private:
  void copyFrom(const PackageRecord &record) {
    package_.number = record.Number;
    package_.name = record.pName;
    package_.version = record.pVersion;
    package_.summary = record.pSummary;
    package_.dependencies.resize(record.DependencyCount);
    auto to = package_.dependencies.begin();
    forEach(record.pFirstDependency, [&to](const DependencyRecord &from) {
      to->flags = from.Flags;
      to->target = from.pPackage->Number;
      to->constraint = from.pConstraint == nullptr ? "" : from.pConstraint;
      ++to;
    });
  }

  BoostPackage package_;  // used again for each package, with its storage
};

}  // namespace

void addBoostSerialization() {
  addPeerForm<BoostForm>("graph", "Boost.Serialization");
}

}  // namespace bench
