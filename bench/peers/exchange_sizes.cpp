// The bytes of a result of examples/exchange, as a packed chain and in other forms, for jobs of
// several sizes. Prints a table of docs/between-processes.md.
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <exception>
#include <iostream>
#include <string>
#include <unordered_map>

#include "catalog_model.hpp"
#include "catalog_report.hpp"
#include "catalog_support.hpp"
#include "exchange_jobs.hpp"
#include "peers_shard.pb.h"
#include "refhost.hpp"
#include "running_library.hpp"

namespace {

using catalog::DependencyRecord;
using catalog::need;
using catalog::PackageRecord;

struct Sizes {
  std::uint64_t text = 0;
  std::uint64_t chain = 0;
  std::uint64_t port = 0;
  std::uint64_t protobuf = 0;
  std::uint64_t json = 0;
};

// Numbers of packages, from 1.
using Places = std::unordered_map<const PackageRecord *, std::uint32_t>;

Places placesOf(const PackageRecord *root) {
  Places places = {{nullptr, 0}};
  for (const PackageRecord *package = root; package != nullptr; package = package->pNext) {
    places.emplace(package, static_cast<std::uint32_t>(places.size()));
  }
  return places;
}

std::string text(const char *narrow) {
  return narrow == nullptr ? std::string() : std::string(narrow);
}

std::string text(const char16_t *wide) {
  return wide == nullptr ? std::string() : catalog::utf8FromUtf16(wide);
}

std::uint64_t protobufSize(const PackageRecord *root) {
  const Places places = placesOf(root);
  bench::pb::Shard shard;
  catalog::forEachRecord(root, [&](const PackageRecord &from) {
    bench::pb::ShardPackage &package = *shard.add_packages();
    package.set_name(text(from.pName));
    package.set_version(text(from.pVersion));
    package.set_summary(text(from.pSummary));
    catalog::forEachRecord(from.pFirstDependency, [&](const DependencyRecord &entry) {
      bench::pb::ShardDependency &dependency = *package.add_dependencies();
      dependency.set_name(text(entry.pName));
      dependency.set_constraint(text(entry.pConstraint));
      dependency.set_flags(entry.Flags);
      dependency.set_package(places.at(entry.pPackage));
    });
  });
  return shard.ByteSizeLong();
}

// Members without a value are left out.
class JsonWriter {
 public:
  std::uint64_t size(const PackageRecord *root) {
    const Places places = placesOf(root);
    writer_.StartArray();
    catalog::forEachRecord(root, [&](const PackageRecord &package) {
      writer_.StartObject();
      add("name", text(package.pName));
      add("version", text(package.pVersion));
      add("summary", text(package.pSummary));
      writer_.Key("dependencies");
      writer_.StartArray();
      catalog::forEachRecord(package.pFirstDependency, [&](const DependencyRecord &dependency) {
        writer_.StartObject();
        add("name", text(dependency.pName));
        add("constraint", text(dependency.pConstraint));
        add("flags", dependency.Flags);
        add("package", places.at(dependency.pPackage));
        writer_.EndObject();
      });
      writer_.EndArray();
      writer_.EndObject();
    });
    writer_.EndArray();
    return buffer_.GetSize();
  }

 private:
  void add(const char *key, const std::string &value) {
    if (value.empty()) return;
    writer_.Key(key);
    writer_.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  }
  void add(const char *key, std::uint32_t value) {
    if (value == 0) return;
    writer_.Key(key);
    writer_.Uint(value);
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
};

void addShard(const mem::Context &context, const exchange::Shard &shard, Sizes &sizes) {
  mem::Heap heap = need(mem::Heap::open(context));
  const PackageRecord *const root = catalog::buildRecords(context, heap, shard.packages);
  sizes.text += shard.text.size();
  sizes.chain += need(mem::PackedChain::pack(context, catalog::kPackTable, *root)).size().bytes;
  sizes.port += need(mem::PortString::write(context, catalog::kPortTable, *root)).length();
  sizes.protobuf += protobufSize(root);
  sizes.json += JsonWriter().size(root);
}

void printTable(const mem::Context &context, const std::filesystem::path &path) {
  const std::string source = catalog::utf8FromPath(path);
  const std::string bytes = catalog::readBytes(path);
  std::cout << "| packages of a job | jobs | catalogue's text | packed chain | port string | "
               "protobuf | JSON |\n|--:|--:|--:|--:|--:|--:|--:|\n";
  for (const std::size_t packages : {std::size_t{1}, std::size_t{10}, std::size_t{50},
                                     catalog::parseCatalogue(bytes, source).size()}) {
    const exchange::JobList jobs(bytes, source, packages, 1);
    Sizes sizes;
    for (std::size_t i = 0; i < jobs.shardCount(); ++i) addShard(context, jobs.shard(i), sizes);
    std::cout << "| " << catalog::grouped(packages) << " | " << catalog::grouped(jobs.shardCount());
    for (const std::uint64_t size :
         {sizes.text, sizes.chain, sizes.port, sizes.protobuf, sizes.json}) {
      std::cout << " | " << catalog::grouped(size / jobs.shardCount());
    }
    std::cout << " |\n";
  }
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const std::filesystem::path libraryPath = refhost::Library::besideProgram();
    const refhost::Library library(libraryPath);
    refhost::Host host;
    const catalog::RunningLibrary running(host, library.bindEntry());
    printTable(running.context(), argc > 1 ? std::filesystem::path(argv[1])
                                           : catalog::defaultCatalogue(libraryPath.parent_path()));
    return 0;
  } catch (const std::exception &error) {
    std::cerr << "exchange_sizes: " << error.what() << '\n';
    return 1;
  }
}
