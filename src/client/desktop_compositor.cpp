#include "client/desktop_compositor.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "core/errors.h"

namespace glimmerstrand::client {

namespace {

namespace fs = std::filesystem;
using core::GlimmerstrandError;

constexpr const char* compositorUser = "glimmerstrand-desktop";
constexpr int width = 1280, height = 800;
// A screenshot waits for the output's next frame: a headless output that
// could draw often keeps that wait short, and draws nothing while nothing
// changes.
constexpr int refreshHz = 240;

[[noreturn]] void fail(const std::string& message) { throw GlimmerstrandError(core::codes::native, message); }

std::optional<Credentials> userNamed(const char* name) {
  const passwd* entry = ::getpwnam(name);
  if (!entry) return std::nullopt;
  return Credentials{entry->pw_uid, entry->pw_gid};
}

// The compositor's own user, made once as a system user without a home or a
// login; where it cannot be made, nobody.
Credentials unprivilegedUser() {
  if (auto user = userNamed(compositorUser)) return *user;
  const std::string command = std::string("useradd --system --no-create-home --home-dir /nonexistent ") +
                              "--shell /usr/sbin/nologin --user-group " + compositorUser + " >/dev/null 2>&1";
  if (std::system(command.c_str()) == 0)
    if (auto user = userNamed(compositorUser)) return *user;
  if (auto nobody = userNamed("nobody")) return *nobody;
  fail(std::string("sway は root では動きません。ユーザー ") + compositorUser + " も nobody も使えません");
}

}  // namespace

bool knownCompositor(const std::string& name) { return name == "sway"; }

std::string swayConfiguration(int w, int h) {
  // Every output of the headless backend at the desktop's size; nothing
  // drawn but the windows; focus by click or by request only, so that the
  // agent's pointer moves take it from nobody. The headless backend draws
  // the pointer into every frame, screenshots included: it is hidden once it
  // rests, and the agent's own cursor shows where it acts.
  return "# The headless desktop of glimmerstrand desktop start.\n"
         "xwayland disable\n"
         "output * mode --custom " +
         std::to_string(w) + "x" + std::to_string(h) + "@" + std::to_string(refreshHz) +
         "Hz\n"
         "default_border none\n"
         "default_floating_border none\n"
         "focus_follows_mouse no\n"
         "mouse_warping none\n"
         "seat * hide_cursor 100\n";
}

CompositorPlan planCompositor(const std::string& name, const fs::path& folder) {
  if (!knownCompositor(name)) fail("未知のコンポジターです: " + name + " (sway が使えます)");
  CompositorPlan plan;
  plan.name = name;
  removeCompositorFolder(folder);
  if (::getuid() == 0) {
    plan.runAs = unprivilegedUser();
    // A folder of its user's own, which it reaches wherever the desktop's
    // lies; the desktop's folder names it for stop.
    std::string made = (fs::temp_directory_path() / "glimmerstrand-compositor-XXXXXX").string();
    if (!::mkdtemp(made.data())) fail("cannot make a folder for " + name + " in " + fs::temp_directory_path().string());
    plan.runtime = made;
    fs::create_symlink(plan.runtime, folder / "compositor");
  } else {
    plan.runtime = folder / "compositor";
    fs::create_directories(plan.runtime);
  }
  fs::permissions(plan.runtime, fs::perms::owner_all);
  const fs::path config = plan.runtime / "sway.conf";
  std::ofstream(config) << swayConfiguration(width, height);
  if (plan.runAs && (::chown(plan.runtime.c_str(), plan.runAs->uid, plan.runAs->gid) != 0 ||
                     ::chown(config.c_str(), plan.runAs->uid, plan.runAs->gid) != 0))
    fail("cannot give " + plan.runtime.string() + " to the compositor's user");
  plan.command = {"sway", "--config", config.string()};
  plan.environment = {{"XDG_RUNTIME_DIR", plan.runtime.string()}, {"HOME", plan.runtime.string()},
                      {"PATH", "/usr/local/bin:/usr/bin:/bin"},   {"WLR_BACKENDS", "headless"},
                      {"WLR_LIBINPUT_NO_DEVICES", "1"},           {"WLR_RENDERER", "pixman"}};
  return plan;
}

void removeCompositorFolder(const fs::path& folder) {
  std::error_code error;
  const fs::path link = folder / "compositor";
  if (fs::is_symlink(link, error)) {
    const fs::path target = fs::read_symlink(link, error);
    // Only a folder of ours: the link may have been changed by another hand.
    if (!error && target.filename().string().starts_with("glimmerstrand-compositor-")) fs::remove_all(target, error);
  }
  fs::remove_all(link, error);
}

std::optional<std::vector<std::pair<std::string, std::string>>> compositorSockets(const CompositorPlan& plan) {
  std::optional<fs::path> display, ipc;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(plan.runtime, error)) {
    const std::string file = entry.path().filename().string();
    if (!entry.is_socket(error)) continue;
    if (file.starts_with("wayland-")) display = entry.path();
    if (file.starts_with("sway-ipc.")) ipc = entry.path();
  }
  // sway makes its IPC socket once its outputs are up, after the display's.
  if (!display || !ipc) return std::nullopt;
  return std::vector<std::pair<std::string, std::string>>{{"WAYLAND_DISPLAY", display->string()},
                                                          {"SWAYSOCK", ipc->string()}};
}

const std::vector<std::pair<std::string, std::string>>& waylandToolkitSettings() {
  static const std::vector<std::pair<std::string, std::string>> settings{{"XDG_SESSION_TYPE", "wayland"},
                                                                         {"XDG_CURRENT_DESKTOP", "sway"},
                                                                         {"GDK_BACKEND", "wayland"},
                                                                         {"QT_QPA_PLATFORM", "wayland"}};
  return settings;
}

}  // namespace glimmerstrand::client
