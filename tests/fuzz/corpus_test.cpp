// Every checked-in seed through its fuzz target, in every build: the corpus
// stays a regression test of inputs that once broke something, or that
// reach far into a surface.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "targets.h"

namespace glimmerstrand::fuzz {
namespace {

void runCorpus(const std::string& name, int (*target)(const std::uint8_t*, std::size_t)) {
  const std::filesystem::path folder = std::filesystem::path(GLIMMERSTRAND_FUZZ_CORPUS) / name;
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    SCOPED_TRACE(entry.path().string());
    target(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++seeds;
  }
  EXPECT_GE(seeds, 3) << "the corpus of " << name << " is missing";
}

TEST(FuzzCorpus, RequestLines) { runCorpus("request_lines", requestLines); }
TEST(FuzzCorpus, McpMessages) { runCorpus("mcp_messages", mcpMessages); }
TEST(FuzzCorpus, Statements) { runCorpus("statements", statements); }

}  // namespace
}  // namespace glimmerstrand::fuzz
