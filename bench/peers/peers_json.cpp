#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "peers_forms.hpp"

namespace bench {

namespace {

class JsonText {
 public:
  explicit JsonText(const Graph &graph) {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer_);
    writer.StartArray();
    forEach(graph.root(), [&writer](const PackageRecord &record) { write(writer, record); });
    writer.EndArray();
  }
  const char *data() const { return buffer_.GetString(); }
  std::size_t size() const { return buffer_.GetSize(); }

 private:
  static void write(rapidjson::Writer<rapidjson::StringBuffer> &writer,
                    const PackageRecord &record) {
    writer.StartObject();
    writer.Key("number");
    writer.Uint(record.Number);
    writer.Key("name");
    writer.String(record.pName);
    writer.Key("version");
    writer.String(record.pVersion);
    writer.Key("summary");
    writer.String(record.pSummary);
    writer.Key("dependencies");
    writer.StartArray();
    forEach(record.pFirstDependency,
            [&writer](const DependencyRecord &dependency) { write(writer, dependency); });
    writer.EndArray();
    writer.EndObject();
  }
  static void write(rapidjson::Writer<rapidjson::StringBuffer> &writer,
                    const DependencyRecord &dependency) {
    writer.StartObject();
    writer.Key("flags");
    writer.Uint(dependency.Flags);
    writer.Key("target");
    writer.Uint(dependency.pPackage->Number);
    if (dependency.pConstraint != nullptr) {
      writer.Key("constraint");
      writer.String(dependency.pConstraint);
    }
    writer.EndObject();
  }

  mutable rapidjson::StringBuffer buffer_;  // its accessors terminate the text and are not const
};

enum class Parse { copying, inSitu };

template <Parse kParse>
class JsonForm {
 public:
  static JsonText encode(const Graph &graph) { return JsonText(graph); }
  static InputBytes load(const JsonText &text) {
    return InputBytes(Bytes(text.data(), text.size() + 1));  // with the NUL
  }

  template <class Visitor>
  static void decode(InputBytes &input, Visitor &visitor) {
    rapidjson::Document document;
    if constexpr (kParse == Parse::inSitu) {
      document.ParseInsitu(input.bytes().text());
    } else {
      document.Parse(input.bytes().text());
    }
    demand(!document.HasParseError(), "the text cannot be parsed");
    for (const auto &package : document.GetArray()) {
      visitor.package(package["number"].GetUint(), package["name"].GetString(),
                      package["version"].GetString(), package["summary"].GetString());
      for (const auto &dependency : package["dependencies"].GetArray()) {
        const auto constraint = dependency.FindMember("constraint");
        const bool hasConstraint = constraint != dependency.MemberEnd();
        visitor.dependency(dependency["flags"].GetUint(),
                           hasConstraint ? constraint->value.GetString() : nullptr,
                           document[dependency["target"].GetUint()]["number"].GetUint());
      }
    }
  }
};

}  // namespace

void addRapidJson() {
  addPeerForm<JsonForm<Parse::copying>>("text", "RapidJSON");
  for (const std::size_t count : kGraphSizes) {
    addPeer("text-decode/RapidJSON in situ/" + std::to_string(count),
            [count] { return Decode<JsonForm<Parse::inSitu>>(count); });
  }
}

}  // namespace bench
