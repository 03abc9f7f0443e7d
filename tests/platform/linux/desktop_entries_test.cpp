// Desktop entries as GIO reads, expands and starts them, in XDG folders of
// the test's own: no desktop needed.
#include "platform/linux/desktop_entries.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace glimmerstrand::platform::linux_desktop {
namespace {

namespace fs = std::filesystem;

void write(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

// XDG folders made once per process: GLib reads the variables once.
class DesktopEntriesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/glimmer-entries-XXXXXX";
    root_ = ::mkdtemp(pattern);
    ::setenv("XDG_DATA_HOME", (root_ / "home").c_str(), 1);
    ::setenv("XDG_DATA_DIRS", (root_ / "system").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (root_ / "config").c_str(), 1);
    ::setenv("XDG_CONFIG_DIRS", (root_ / "config-system").c_str(), 1);
    ::setenv("LC_ALL", "C", 1);
    ::unsetenv("LANGUAGE");
    // No session bus: an entry is always spawned, never activated over D-Bus.
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (root_ / "no-bus").string()).c_str(), 1);

    // Records its arguments, where its standard streams lead, and whether it
    // leads a session of its own.
    write(root_ / "record.sh",
          "#!/bin/sh\n"
          "out=$(readlink /proc/$$/fd/1)\n"
          "in=$(readlink /proc/$$/fd/0)\n"
          "session=$(cut -d' ' -f6 /proc/$$/stat)\n"
          "{ echo $$; echo \"$in\"; echo \"$out\"; [ \"$session\" = $$ ] && echo own-session\n"
          "  for a in \"$@\"; do printf '%s\\n' \"$a\"; done; } > \"$(dirname \"$0\")/args.tmp\"\n"
          "mv \"$(dirname \"$0\")/args.tmp\" \"$(dirname \"$0\")/args.out\"\n");
    fs::permissions(root_ / "record.sh", fs::perms::owner_all);
    write(root_ / "system/applications/glimmer-args.desktop",
          "[Desktop Entry]\nType=Application\nName=Arguments\nName[ja_JP]=Hikisu JP\nName[ja]=Hikisu\n"
          "Name[de_DE]=Argumente\nIcon=glimmer-icon\nMimeType=x-scheme-handler/glimmer;\n"
          "Exec=\"" +
              (root_ / "record.sh").string() + "\" \"two words\" %U %i %c %k 100%%\n");
    write(root_ / "system/applications/glimmer-shadowed.desktop",
          "[Desktop Entry]\nType=Application\nName=System copy\nExec=true\n");
    write(root_ / "home/applications/glimmer-shadowed.desktop",
          "[Desktop Entry]\nType=Application\nName=Home copy\nExec=true\n");
    write(root_ / "system/applications/glimmer-unlisted.desktop",
          "[Desktop Entry]\nType=Application\nName=Unlisted\nNoDisplay=true\nExec=true\n");
    write(root_ / "system/applications/glimmer-link.desktop",
          "[Desktop Entry]\nType=Link\nName=Link\nURL=https://example.com/\n");
    write(root_ / "config/mimeapps.list", "[Default Applications]\nx-scheme-handler/glimmer=glimmer-args.desktop\n");
  }
  static void TearDownTestSuite() { fs::remove_all(root_); }

  static std::vector<std::string> recorded() {
    const auto file = root_ / "args.out";
    for (int k = 0; k < 500 && !fs::exists(file); ++k) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    fs::remove(file);
    return lines;
  }

  static inline fs::path root_;
};

TEST_F(DesktopEntriesTest, ShownApplicationsWithEveryLanguageOfTheirNames) {
  std::vector<InstalledApplication> ours;
  for (auto& app : installedEntries())
    if (app.bundleId.starts_with("glimmer-")) ours.push_back(app);
  const std::string home = (root_ / "home/applications").string(), system = (root_ / "system/applications").string();
  ASSERT_EQ(ours.size(), 2u);
  // The home folder comes first and decides the id it shares with another.
  EXPECT_EQ(ours[0].bundleId, "glimmer-shadowed");
  EXPECT_EQ(ours[0].path, home + "/glimmer-shadowed.desktop");
  EXPECT_EQ(ours[0].names, (std::map<std::string, std::string>{{"en", "Home copy"}}));
  EXPECT_EQ(ours[1].bundleId, "glimmer-args");
  EXPECT_EQ(ours[1].names,
            (std::map<std::string, std::string>{{"en", "Arguments"}, {"ja", "Hikisu"}, {"de", "Argumente"}}));
  EXPECT_EQ(entryFolders(), (std::vector<std::string>{home, system}));
}

TEST_F(DesktopEntriesTest, ExecFieldCodesAreFilledInAndTheApplicationRunsApart) {
  const std::string entry = (root_ / "system/applications/glimmer-args.desktop").string();
  // A file URI goes as its path; %i is the icon with its flag, %c the name,
  // %k the entry, %% a percent sign.
  const Started started = startEntry(entry, {"file:///tmp/a%20b.txt", "https://example.com/x"});
  ASSERT_FALSE(started.error) << *started.error;
  ASSERT_TRUE(started.pid);
  EXPECT_EQ(recorded(), (std::vector<std::string>{std::to_string(*started.pid), "/dev/null", "/dev/null", "own-session",
                                                  "two words", "/tmp/a b.txt", "https://example.com/x", "--icon",
                                                  "glimmer-icon", "Arguments", entry, "100%"}));
}

TEST_F(DesktopEntriesTest, ACommandRunsApartAndAMissingOneSaysWhy) {
  const Started started = startCommand({(root_ / "record.sh").string(), "x"});
  ASSERT_TRUE(started.pid);
  EXPECT_EQ(recorded(),
            (std::vector<std::string>{std::to_string(*started.pid), "/dev/null", "/dev/null", "own-session", "x"}));
  const Started missing = startCommand({"glimmer-no-such-program"});
  EXPECT_FALSE(missing.pid);
  EXPECT_TRUE(missing.error && missing.error->find("glimmer-no-such-program") != std::string::npos);
  EXPECT_TRUE(startEntry((root_ / "nothing.desktop").string()).error);
}

TEST_F(DesktopEntriesTest, TheDefaultHandlerOfASchemeAndItsProgram) {
  const auto handler = handlerEntry("glimmer:anything");
  ASSERT_TRUE(handler);
  EXPECT_EQ(*handler, (root_ / "system/applications/glimmer-args.desktop").string());
  EXPECT_EQ(entryProgram(*handler), "record.sh");
  EXPECT_EQ(handlerEntry("glimmer-unknown-scheme:x"), std::nullopt);
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
