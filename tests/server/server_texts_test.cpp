// What the server tells agents about the desktop: on the simulated desktop
// the Mac's texts, word for word; on the Linux desktop none that names a Mac.
#include "server/server_texts.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

#include "core/procedures.h"
#include "server/mcp_session.h"
#include "support/desktop_texts.h"

namespace glimmerstrand::server {
namespace {

using core::Desktop;
using glimmerstrand::testing::DesktopScope;
using glimmerstrand::testing::macWordsIn;

std::string toolText(const char* key) { return core::optionalString(doToolDefinition(), key).value_or(""); }

std::string schemaExample() {
  const auto tool = doToolDefinition();
  const auto* cypher = tool.find("inputSchema")->find("properties")->find("cypher");
  return core::optionalString(*cypher, "description").value_or("");
}

std::string annotationTitle() {
  return core::optionalString(*doToolDefinition().find("annotations"), "title").value_or("");
}

std::string procedureUsages() {
  std::string all;
  for (const auto& procedure : core::procedureTable()) all += procedure.usage + "\n";
  return all;
}

const std::pair<const char*, std::function<std::string()>> shownTexts[] = {
    {"tool title", [] { return toolText("title"); }},
    {"annotation title", annotationTitle},
    {"tool description", [] { return toolText("description"); }},
    {"schema example", schemaExample},
    {"procedure usage", procedureUsages},
    {"instructions", serverInstructions},
    {"usage text", usageText},
};

TEST(DesktopTexts, OnLinuxNoTextNamesAMac) {
  std::map<std::string, std::string> onMac;
  {
    DesktopScope mac(Desktop::mac);
    for (const auto& [what, text] : shownTexts) onMac[what] = text();
  }
  DesktopScope linuxDesktop(Desktop::linuxDesktop);
  for (const auto& [what, text] : shownTexts) {
    const std::string shown = text();
    EXPECT_EQ(macWordsIn(shown), std::vector<std::string>{}) << what << ":\n" << shown;
    EXPECT_NE(shown, onMac[what]) << what << " is the Mac's";
  }
  for (const char* word : {"AT-SPI", "Firefox", "LibreOffice", "Files", "Calculator", "ctrl+v"})
    EXPECT_NE(serverInstructions().find(word), std::string::npos) << word;
}

TEST(DesktopTexts, TheSimulatedDesktopShowsTheMacTextsWordForWord) {
  // The tool's own listing is checked word for word in the daemon's transcript.
  DesktopScope mac(Desktop::mac);
  std::ifstream file(GLIMMERSTRAND_SOURCE_DIR "/tests/server/data/skill.mac.txt");
  std::stringstream expected;
  expected << file.rdbuf();
  ASSERT_FALSE(expected.str().empty());
  EXPECT_EQ(usageText() + "\n", expected.str());
  EXPECT_TRUE(usageText().ends_with("\n\n" + serverInstructions()));
}

}  // namespace
}  // namespace glimmerstrand::server
