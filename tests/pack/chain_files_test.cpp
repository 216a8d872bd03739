// The kept chains of foreign writers, read from their files and unpacked.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "chainfixtures.hpp"
#include "unpacktest.hpp"

namespace memtest {
namespace {

using chainwriter::Fixture;

Bytes fileBytes(const std::filesystem::path &path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

class ChainFilesTest : public UnpackTest, public ::testing::WithParamInterface<Fixture> {};

TEST_P(ChainFilesTest, FileUnpacksToTheSampleTree) {
  const Fixture &fixture = GetParam();
  const std::filesystem::path path =
      std::filesystem::path(CHAIN_FIXTURES) / (fixture.name + ".chain");
  const Bytes file = fileBytes(path);
  ASSERT_FALSE(file.empty()) << path;
  load(chainrun::splitFile(file, false), fixture.chain.writer());
  expectTree(fixture.tree, fixture.chain.writer());
}

INSTANTIATE_TEST_SUITE_P(All, ChainFilesTest, ::testing::ValuesIn(chainwriter::allFixtures()),
                         [](const ::testing::TestParamInfo<Fixture> &row) {
                           return row.param.name;
                         });

}  // namespace
}  // namespace memtest
