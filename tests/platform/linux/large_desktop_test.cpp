// Containers too large to walk whole, on a headless desktop: a LibreOffice
// Calc sheet (every cell a child, made on demand), a GTK list of 2,000 rows
// and a GTK tree view of 2,000 rows. The copy holds what is near the view,
// says how much it left out, and leaves the application as it was.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/desktop_suite.h"

namespace glimmerstrand::testing {
namespace {

using core::JSONValue;
namespace fs = std::filesystem;

const std::string formApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/form_app.py";
const std::string treeApp = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/linux/data/tree_app.py";

// A LibreOffice profile of the test's own that skips the first-start tips.
std::string officeProfile() {
  const fs::path folder = fs::temp_directory_path() / ("glimmerstrand-office-" + std::to_string(::getpid()));
  fs::create_directories(folder / "user");
  std::ofstream(folder / "user" / "registrymodifications.xcu") << R"(<?xml version="1.0" encoding="UTF-8"?>
<oor:items xmlns:oor="http://openoffice.org/2001/registry" xmlns:xs="http://www.w3.org/2001/XMLSchema">
<item oor:path="/org.openoffice.Office.Common/Misc"><prop oor:name="ShowTipOfTheDay" oor:op="fuse"><value>false</value></prop></item>
<item oor:path="/org.openoffice.Office.Common/Misc"><prop oor:name="FirstRun" oor:op="fuse"><value>false</value></prop></item>
</oor:items>
)";
  return folder.string();
}

// Resident memory of a process in bytes, from /proc.
std::int64_t residentBytes(std::int32_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  throw std::runtime_error("no resident memory for pid " + std::to_string(pid));
}

// The resident memory once it stops moving: two readings half a second
// apart within a megabyte, or the last reading after 20 s.
std::int64_t settledResidentBytes(std::int32_t pid) {
  std::int64_t last = residentBytes(pid);
  for (int round = 0; round < 40; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::int64_t now = residentBytes(pid);
    if (std::llabs(now - last) < (1 << 20)) return now;
    last = now;
  }
  return last;
}

class LargeDesktopTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    profile_ = officeProfile();
    startSuite(
        {"soffice --calc --norestore -env:UserInstallation=file://" + profile_, formApp + " 2000", treeApp + " 2000"});
  }
  static void TearDownTestSuite() {
    endSuite();
    fs::remove_all(profile_);
  }

  std::vector<std::string> column(const std::string& app, const std::string& read, const std::string& name) {
    return cypherColumn(*client_, app, read, name);
  }

  // The first node of `role` in a fresh copy, as the mirror's operation
  // gives it.
  JSONValue firstOf(const std::string& app, const std::string& role) {
    auto snapshot = client_->call("axSnapshot", JSONValue::Object{{"name", app}, {"fresh", true}, {"all", true}});
    for (const auto& node : *snapshot.find("nodes")->asArray())
      if (node.find("role") && node.find("role")->asString() && *node.find("role")->asString() == role) return node;
    throw std::runtime_error("no " + role + " in the copy of " + app);
  }

  inline static std::string profile_;
  std::unique_ptr<LineClient> client_ = lineClient();
};

TEST_F(LargeDesktopTest, TheLauncherIsFollowedToTheOffice) {
  std::ifstream command("/proc/" + std::to_string(desktop_->pid("soffice")) + "/comm");
  std::string name;
  std::getline(command, name);
  EXPECT_EQ(name, "soffice.bin");
}

TEST_F(LargeDesktopTest, MirroringASheetLeavesTheOfficeMemoryAsItWas) {
  const std::int32_t pid = desktop_->pid("soffice");
  const std::int64_t idle = settledResidentBytes(pid);
  for (int query = 0; query < 10; ++query)
    EXPECT_NE(column("soffice", "MATCH (c:Cell) RETURN count(c) AS n", "n").at(0), "0");
  const std::int64_t after = settledResidentBytes(pid);
  EXPECT_LT(after - idle, 50 << 20) << "idle " << idle << " bytes, after ten queries " << after;
  // The sheet says how many cells it left out: all but a screenful.
  const auto sheet = firstOf("soffice", "AXTable");
  ASSERT_TRUE(sheet.find("offscreen")) << core::jsonText(sheet);
  EXPECT_GT(*sheet.find("offscreen")->asNumber(), 1e9);
}

TEST_F(LargeDesktopTest, CellsAreWrittenByValueAndByKeysAndReadBack) {
  struct Case {
    const char* name;
    std::string script;
    std::string cell, expected;
  };
  const Case cases[] = {
      {"a number by value", "MATCH (c:Cell {name:'B2'}) SET c.value = '21'", "B2", "21"},
      {"a formula by value", "MATCH (c:Cell {name:'B3'}) SET c.value = '=B2*2'", "B3", "42"},
      {"text by keys", "MATCH (c:Cell {name:'C2'}) SET c.focused = true; CALL ui.type('Ada'); CALL ui.key('enter')",
       "C2", "Ada"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    cypherResults(*client_, "soffice", c.script);
    EXPECT_EQ(column("soffice", "MATCH (c:Cell {name:'" + c.cell + "'}) RETURN c.value", "c.value"),
              std::vector<std::string>{c.expected});
  }
}

TEST_F(LargeDesktopTest, LongListsAndTablesHoldTheirVisibleBand) {
  struct Case {
    const char* app;
    const char* container;
    const char* item;
    std::string first, last;
  };
  for (const auto& c : {Case{"form_app.py", "AXList", "StaticText", "Row 0", "Row 1999"},
                        Case{"tree_app.py", "AXTable", "Cell", "Row 0", "Row 1999"}}) {
    SCOPED_TRACE(c.app);
    const auto names = column(c.app, std::string("MATCH (r:") + c.item + ") RETURN r.name", "r.name");
    std::string seen;
    for (const auto& name : names) seen += name + ", ";
    EXPECT_NE(std::find(names.begin(), names.end(), c.first), names.end()) << seen;
    EXPECT_EQ(std::find(names.begin(), names.end(), c.last), names.end());
    EXPECT_LT(names.size(), 200u);
    const auto container = firstOf(c.app, c.container);
    ASSERT_TRUE(container.find("offscreen")) << core::jsonText(container);
    EXPECT_GT(*container.find("offscreen")->asNumber(), 1000);
  }
}

}  // namespace
}  // namespace glimmerstrand::testing
