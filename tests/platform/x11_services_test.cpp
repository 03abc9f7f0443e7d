// The screen lock, the agent's cursor overlay and activation notifications of
// the linux platform, on a headless desktop with a window manager: a fake
// screensaver flips the lock both ways; a cursor panel shows where it was
// moved without taking the focus or the clicks; activating an application
// tells the observers once, with its pid.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/desktop_suite.h"
#include "platform/linux/linux_session.h"
#include "platform/linux/x11_connection.h"
#include "x11_desktop.h"

// Xlib's macros (None, Status) clash with GoogleTest's names: it comes last.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <gio/gio.h>
#undef CursorShape  // X.h's, not the seam's

extern char** environ;

namespace glimmerstrand::testing {
namespace {

using platform::Platform;

class X11ServicesTest : public DesktopSuite {
 protected:
  static void SetUpTestSuite() {
    startSuite({"galculator", "mousepad"});
    // No system bus: only the session's screensaver can answer, whatever the machine runs.
    if (desktop_)
      ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + desktop_->folder() + "/no-system-bus").c_str(), 1);
    startPlatform(true);
  }
  static void TearDownTestSuite() { endSuite(); }

  static Platform& platform() { return *platform_; }

  /// Runs `work` on the main run loop, as the overlay's callers do, and waits for it.
  template <typename Work>
  static auto onMainLoop(Work work) {
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    platform().mainLoop().post([&task] { task(); });
    return result.get();
  }
  /// A cursor panel of one colour, moved to `at` and faded in, on the main loop.
  static auto showPanel(platform::CursorShape shape, std::uint32_t colour, platform::AxPoint at,
                        std::int64_t fadeInMs) {
    return onMainLoop([&] {
      auto& painter = platform().overlay();
      auto id = painter.createPanel({56, 56}, shape, colour);
      painter.move(id, at, 0);
      painter.setAlpha(id, 1, fadeInMs);
      return id;
    });
  }
};

/// Calls a method on a bus; true when it answered.
bool callOn(GBusType type, const char* bus, const char* path, const char* interface, const char* method,
            GVariant* args) {
  GDBusConnection* connection = g_bus_get_sync(type, nullptr, nullptr);
  if (!connection) return false;
  // The test's own buses stop while this process goes on.
  g_dbus_connection_set_exit_on_close(connection, FALSE);
  GVariant* reply = g_dbus_connection_call_sync(connection, bus, path, interface, method, args, nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
  g_object_unref(connection);
  if (reply) g_variant_unref(reply);
  return reply != nullptr;
}

bool setScreenSaver(bool active) {
  return callOn(G_BUS_TYPE_SESSION, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
                "org.freedesktop.ScreenSaver", "SetActive", g_variant_new("(b)", active));
}

bool screenSaverAnswers() {
  return callOn(G_BUS_TYPE_SESSION, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver",
                "org.freedesktop.ScreenSaver", "GetActive", nullptr);
}

bool setLockedHint(bool locked) {
  return callOn(G_BUS_TYPE_SYSTEM, "org.freedesktop.login1", "/org/freedesktop/login1/session/auto",
                "org.freedesktop.login1.Session", "SetLockedHint", g_variant_new("(b)", locked));
}

/// A fake service of tests/platform/data, stopped by its pid.
class FakeService {
 public:
  explicit FakeService(const std::string& script) {
    const std::string path = GLIMMERSTRAND_SOURCE_DIR "/tests/platform/data/" + script;
    char* argv[] = {const_cast<char*>("/usr/bin/python3"), const_cast<char*>(path.c_str()), nullptr};
    if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv, environ) != 0) pid_ = 0;
  }
  ~FakeService() { stop(); }
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }

 private:
  pid_t pid_ = 0;
};

TEST_F(X11ServicesTest, ScreenLockFollowsTheScreensaverAndIsOffWithoutOne) {
  platform::linux_desktop::LinuxSession before;
  EXPECT_FALSE(before.isScreenLocked()) << "no service at all: not locked";

  FakeService screenSaver("fake_screensaver.py");
  ASSERT_TRUE(eventually(screenSaverAnswers, std::chrono::seconds(10)));
  platform::linux_desktop::LinuxSession session;
  struct Step {
    const char* what;
    bool lock;
  };
  for (auto step : std::vector<Step>{{"locked", true}, {"unlocked", false}, {"locked again", true}}) {
    SCOPED_TRACE(step.what);
    ASSERT_TRUE(setScreenSaver(step.lock));
    EXPECT_EQ(session.isScreenLocked(), step.lock);
  }
  // A service that goes away leaves the screen unlocked, not stuck locked.
  screenSaver.stop();
  EXPECT_FALSE(session.isScreenLocked());
}

TEST_F(X11ServicesTest, LogindsLockedHintComesBeforeTheScreensaver) {
  // A system bus of the test's own, with logind's session object on it.
  const std::string command =
      "dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=1 "
      "--address=unix:path=" +
      desktop_->folder() + "/system-bus";
  FILE* out = ::popen(command.c_str(), "r");
  ASSERT_NE(out, nullptr);
  char address[512] = {}, pid[32] = {};
  const bool started = std::fgets(address, sizeof address, out) && std::fgets(pid, sizeof pid, out);
  ::pclose(out);
  ASSERT_TRUE(started);
  address[std::strcspn(address, "\n")] = 0;
  const std::string before = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
  // Stopped however the test ends.
  std::shared_ptr<void> stopBus(nullptr, [&](void*) {
    ::kill(std::atoi(pid), SIGTERM);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", before.c_str(), 1);
  });
  {
    FakeService logind("fake_logind.py");
    FakeService screenSaver("fake_screensaver.py");
    ASSERT_TRUE(eventually([] { return setLockedHint(false) && setScreenSaver(true); }, std::chrono::seconds(10)));
    platform::linux_desktop::LinuxSession session;
    EXPECT_FALSE(session.isScreenLocked()) << "logind's answer wins";
    ASSERT_TRUE(setLockedHint(true));
    EXPECT_TRUE(session.isScreenLocked());
    ASSERT_TRUE(setLockedHint(false));
    EXPECT_FALSE(session.isScreenLocked());
    // Without logind the screensaver answers.
    logind.stop();
    EXPECT_TRUE(session.isScreenLocked());
  }
}

/// The colour at one point of the screen, or of one process's windows alone.
std::uint32_t colourAt(Platform& platform, double x, double y, std::optional<std::int32_t> pid = std::nullopt) {
  auto pixels = platform.screen().capture({x, y, 1, 1}, 1, pid);
  return pixels ? pixelAt(*pixels, 0, 0) : 0xdeadbeef;
}

std::optional<::Window> focusNow() {
  auto* x = platform::linux_desktop::openX11();
  ::Window focus = 0;
  int revert = 0;
  XGetInputFocus(x, &focus, &revert);
  platform::linux_desktop::closeX11(x);
  return focus;
}

TEST_F(X11ServicesTest, CursorPanelShowsWhereItIsMovedAndTakesNeitherFocusNorClicks) {
  constexpr std::uint32_t background = 0x202020, cursor = 0xff9500;
  ColourWindow below(400, 300, background, true);
  // The window manager may still be moving the focus the suite's start gave:
  // the focus before is the one that stays.
  auto focusBefore = focusNow();
  for (int still = 0, tries = 0; still < 5 && tries < 100; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    const auto now = focusNow();
    still = now == focusBefore ? still + 1 : 0;
    focusBefore = now;
  }
  auto& painter = platform().overlay();
  // The tip at (500, 380); a point well inside the arrow, below and right of it.
  const auto panel = showPanel(platform::CursorShape::arrow, cursor, {480, 360}, 120);
  const double insideX = 500 + 3, insideY = 380 + 10;
  EXPECT_TRUE(eventually([&] { return colourAt(platform(), insideX, insideY) == cursor; }))
      << std::hex << colourAt(platform(), insideX, insideY);
  EXPECT_EQ(colourAt(platform(), insideX, insideY, ::getpid()), background) << "the panel is no window of this process";
  EXPECT_EQ(focusNow(), focusBefore);

  // A glide ends where it was sent.
  onMainLoop([&] {
    painter.move(panel, {500, 360}, 180);
    painter.pulse(panel, 0.3, 350);
  });
  EXPECT_TRUE(eventually([&] { return colourAt(platform(), insideX + 20, insideY) == cursor; }));
  EXPECT_EQ(focusNow(), focusBefore);

  // A click on the cursor reaches the window below it.
  auto& input = platform().input();
  const platform::AxPoint at{insideX + 20, insideY};
  ASSERT_TRUE(input.postPointer({platform::PointerAction::down, platform::MouseButton::left, 1, at, 0}, {}));
  ASSERT_TRUE(input.postPointer({platform::PointerAction::up, platform::MouseButton::left, 1, at, 0}, {}));
  EXPECT_TRUE(eventually([&] { return below.clicked(); }));

  onMainLoop([&] { painter.close(panel); });
  EXPECT_TRUE(eventually([&] { return colourAt(platform(), insideX + 20, insideY) == background; }));
}

TEST_F(X11ServicesTest, FadingOutHidesThePanel) {
  constexpr std::uint32_t background = 0x104010, cursor = 0x34c759;
  ColourWindow below(700, 300, background, true);
  auto& painter = platform().overlay();
  const auto panel = showPanel(platform::CursorShape::iBeam, cursor, {760, 340}, 0);
  // The I-beam's stem runs down from its top centre.
  const double stemX = 780, stemY = 370;
  EXPECT_TRUE(eventually([&] { return colourAt(platform(), stemX, stemY) == cursor; }));
  onMainLoop([&] { painter.setAlpha(panel, 0, 200); });
  EXPECT_TRUE(eventually([&] { return colourAt(platform(), stemX, stemY) == background; }));
  onMainLoop([&] { painter.close(panel); });
}

TEST_F(X11ServicesTest, ActivatingAnotherApplicationNotifiesOnceWithItsPid) {
  const auto calculator = desktop_->pid("galculator");
  const auto editor = desktop_->pid("mousepad");
  auto& workspace = platform().workspace();
  auto front = [&] { return workspace.frontmost().value_or(platform::RunningApplication{}).pid; };
  ASSERT_TRUE(workspace.activate(editor));
  ASSERT_TRUE(eventually([&] { return front() == editor; }));

  std::mutex lock;
  std::vector<std::int32_t> told;
  workspace.observeActivation([&](const platform::RunningApplication& app) {
    std::lock_guard guard(lock);
    told.push_back(app.pid);
  });
  auto toldNow = [&] {
    std::lock_guard guard(lock);
    return told;
  };
  ASSERT_TRUE(workspace.activate(calculator));
  EXPECT_TRUE(eventually([&] { return !toldNow().empty(); }));
  ASSERT_TRUE(workspace.activate(editor));
  EXPECT_TRUE(eventually([&] { return toldNow().size() >= 2; }));
  // The second activation's notice ends the list, so any repeat of the first came before it.
  EXPECT_EQ(toldNow(), (std::vector<std::int32_t>{calculator, editor}));
}

}  // namespace
}  // namespace glimmerstrand::testing
