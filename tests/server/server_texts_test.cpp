#include "server/server_texts.h"

#include <gtest/gtest.h>

#include <sstream>

#include "core/procedures.h"
#include "core/runner.h"

namespace glimmerstrand::server {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

TEST(ServerInstructions, ProcedureLineFollowsTheTable) {
  auto lines = linesOf(serverInstructions());
  ASSERT_EQ(lines.size(), 30u);
  const std::string& procedures = lines[13];
  ASSERT_TRUE(procedures.starts_with("Procedures: ")) << procedures;
  ASSERT_TRUE(procedures.ends_with(".")) << procedures;
  std::size_t at = 0;
  for (const auto& procedure : core::procedureTable()) {
    auto found = procedures.find(procedure.usage, at);
    ASSERT_NE(found, std::string::npos) << procedure.name;
    at = found + procedure.usage.size();
  }
  EXPECT_NE(lines[11].find("at most " + std::to_string(core::rowCap) + " rows"), std::string::npos);
  EXPECT_EQ(lines[23], "Examples:");
}

TEST(UsageText, WrapsTheInstructions) {
  const std::string& usage = usageText();
  ASSERT_TRUE(usage.starts_with("---\nname: glimmerstrand\ndescription: "));
  ASSERT_TRUE(usage.ends_with("\n\n" + serverInstructions()));
  EXPECT_EQ(linesOf(usage).size(), 9u + 30u);
}

}  // namespace
}  // namespace glimmerstrand::server
