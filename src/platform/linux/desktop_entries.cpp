#include "platform/linux/desktop_entries.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <thread>

#include "platform/headless_desktop.h"

namespace glimmerstrand::platform::linux_desktop {
namespace {

struct Unref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Owned = std::unique_ptr<T, Unref>;

// Reaped by a thread of ours: GLib reaps only where a main context of its own
// runs, and a launcher left a zombie would read as still running, as if its
// application had not yet handed over (LibreOffice's does).
constexpr auto spawnFlags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                                                     G_SPAWN_STDERR_TO_DEV_NULL | G_SPAWN_DO_NOT_REAP_CHILD);

void reapWhenItEnds(pid_t pid) {
  std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
}

// Runs in the child before the program does.
void newSession(gpointer) { ::setsid(); }

// Our environment with the mark of the headless desktop we run on, if any,
// so that stopping that desktop ends what we launched too.
gchar** launchEnvironment() {
  gchar** variables = g_get_environ();
  if (auto desktop = desktopOfThisProcess())
    variables = g_environ_setenv(variables, desktopMemberVariable, desktop->c_str(), TRUE);
  return variables;
}

std::string messageOf(GError* error) {
  std::string message = error ? error->message : "";
  g_clear_error(&error);
  return message;
}

// Name as "en", and each Name[xx] by its language: GKeyFile keeps every
// translation when asked to, where GDesktopAppInfo gives only the current
// locale's.
std::map<std::string, std::string> namesOf(const char* path) {
  std::map<std::string, std::string> names;
  std::unique_ptr<GKeyFile, void (*)(GKeyFile*)> file(g_key_file_new(), g_key_file_free);
  if (!g_key_file_load_from_file(file.get(), path, G_KEY_FILE_KEEP_TRANSLATIONS, nullptr)) return names;
  gsize count = 0;
  std::unique_ptr<gchar*, void (*)(gchar**)> keys(
      g_key_file_get_keys(file.get(), G_KEY_FILE_DESKTOP_GROUP, &count, nullptr), g_strfreev);
  for (gsize k = 0; keys && k < count; ++k) {
    const std::string key = keys.get()[k];
    if (key != "Name" && !(key.starts_with("Name[") && key.ends_with("]"))) continue;
    gchar* text = g_key_file_get_string(file.get(), G_KEY_FILE_DESKTOP_GROUP, key.c_str(), nullptr);
    if (!text) continue;
    const std::string value = text;
    g_free(text);
    if (key == "Name") {
      names["en"] = value;
      continue;
    }
    const std::string language = key.substr(5, key.size() - 6);
    // "ja_JP" and "ja" both name the Japanese display name; the plain one wins.
    const auto cut = language.find_first_of("_.@");
    const std::string base = language.substr(0, cut);
    if (cut == std::string::npos || !names.count(base)) names[base] = value;
  }
  return names;
}

// Where an entry's file lies in the folders' order.
std::size_t folderRank(const std::string& path, const std::vector<std::string>& folders) {
  for (std::size_t k = 0; k < folders.size(); ++k)
    if (path.starts_with(folders[k] + "/")) return k;
  return folders.size();
}

}  // namespace

std::vector<std::string> entryFolders() {
  std::vector<std::string> out{(std::filesystem::path(g_get_user_data_dir()) / "applications").string()};
  for (const gchar* const* dir = g_get_system_data_dirs(); *dir; ++dir)
    if (**dir) out.push_back((std::filesystem::path(*dir) / "applications").string());
  return out;
}

std::vector<InstalledApplication> installedEntries() {
  std::vector<InstalledApplication> out;
  GList* all = g_app_info_get_all();
  for (GList* item = all; item; item = item->next) {
    if (!G_IS_DESKTOP_APP_INFO(item->data)) continue;
    auto* info = G_DESKTOP_APP_INFO(item->data);
    const char* id = g_app_info_get_id(G_APP_INFO(info));
    const char* path = g_desktop_app_info_get_filename(info);
    if (!id || !path || g_desktop_app_info_get_nodisplay(info) || g_desktop_app_info_get_is_hidden(info)) continue;
    std::string bundleId = id;
    if (bundleId.ends_with(".desktop")) bundleId.resize(bundleId.size() - 8);
    out.push_back(InstalledApplication{std::move(bundleId), path, namesOf(path)});
  }
  g_list_free_full(all, g_object_unref);
  // A stable order: by folder, then by id.
  const auto folders = entryFolders();
  std::sort(out.begin(), out.end(), [&](const InstalledApplication& a, const InstalledApplication& b) {
    const auto ra = folderRank(a.path, folders), rb = folderRank(b.path, folders);
    return ra != rb ? ra < rb : a.bundleId < b.bundleId;
  });
  return out;
}

Started startEntry(const std::string& path, const std::vector<std::string>& uris) {
  Owned<GDesktopAppInfo> info(g_desktop_app_info_new_from_filename(path.c_str()));
  if (!info) return Started{std::nullopt, "no application entry at " + path};
  GList* list = nullptr;
  for (const auto& uri : uris) list = g_list_append(list, const_cast<char*>(uri.c_str()));
  Owned<GAppLaunchContext> context(g_app_launch_context_new());
  if (auto desktop = desktopOfThisProcess())
    g_app_launch_context_setenv(context.get(), desktopMemberVariable, desktop->c_str());
  Started started;
  GError* error = nullptr;
  const bool ok = g_desktop_app_info_launch_uris_as_manager(
      info.get(), list, context.get(), spawnFlags, newSession, nullptr,
      [](GDesktopAppInfo*, GPid pid, gpointer data) { static_cast<Started*>(data)->pid = pid; }, &started, &error);
  g_list_free(list);
  if (!ok) started.error = messageOf(error);
  if (started.pid) reapWhenItEnds(*started.pid);
  return started;
}

Started startCommand(const std::vector<std::string>& command) {
  if (command.empty()) return Started{std::nullopt, "no command"};
  std::vector<gchar*> argv;
  for (const auto& word : command) argv.push_back(const_cast<gchar*>(word.c_str()));
  argv.push_back(nullptr);
  GPid pid = 0;
  GError* error = nullptr;
  gchar** environment = launchEnvironment();
  const bool ok = g_spawn_async(nullptr, argv.data(), environment, spawnFlags, newSession, nullptr, &pid, &error);
  g_strfreev(environment);
  if (!ok) return Started{std::nullopt, messageOf(error)};
  reapWhenItEnds(pid);
  return Started{pid, std::nullopt};
}

namespace {

// The default application for a content type; without one, as on a desktop
// nobody has set defaults on, the first that says it handles the type.
GAppInfo* handlerForType(const std::string& type) {
  if (GAppInfo* chosen = g_app_info_get_default_for_type(type.c_str(), FALSE)) return chosen;
  GList* all = g_app_info_get_all_for_type(type.c_str());
  GAppInfo* first = all ? G_APP_INFO(g_object_ref(all->data)) : nullptr;
  g_list_free_full(all, g_object_unref);
  if (first) return first;
  // Without the MIME cache of the desktop's database, the entries' own lists.
  GList* entries = g_app_info_get_all();
  for (GList* at = entries; at && !first; at = at->next) {
    const char* const* types = g_app_info_get_supported_types(G_APP_INFO(at->data));
    for (; types && *types && !first; ++types)
      if (type == *types) first = G_APP_INFO(g_object_ref(at->data));
  }
  g_list_free_full(entries, g_object_unref);
  return first;
}

}  // namespace

std::optional<std::string> handlerEntry(const std::string& url) {
  GAppInfo* info = nullptr;
  if (url.starts_with("file:")) {
    Owned<GFile> file(g_file_new_for_uri(url.c_str()));
    Owned<GFileInfo> about(g_file_query_info(file.get(), G_FILE_ATTRIBUTE_STANDARD_CONTENT_TYPE, G_FILE_QUERY_INFO_NONE,
                                             nullptr, nullptr));
    if (about)
      if (const char* type = g_file_info_get_content_type(about.get())) info = handlerForType(type);
  } else if (char* scheme = g_uri_parse_scheme(url.c_str())) {
    info = handlerForType(std::string("x-scheme-handler/") + scheme);
    g_free(scheme);
  }
  if (!info) return std::nullopt;
  Owned<GAppInfo> owned(info);
  if (!G_IS_DESKTOP_APP_INFO(info)) return std::nullopt;
  const char* file = g_desktop_app_info_get_filename(G_DESKTOP_APP_INFO(info));
  return file ? std::optional<std::string>(file) : std::nullopt;
}

std::optional<std::string> entryProgram(const std::string& path) {
  Owned<GDesktopAppInfo> info(g_desktop_app_info_new_from_filename(path.c_str()));
  if (!info) return std::nullopt;
  // The Exec line's first word, its quotes undone as GIO undoes them when it
  // launches (g_app_info_get_executable keeps them).
  const char* line = g_app_info_get_commandline(G_APP_INFO(info.get()));
  gchar** words = nullptr;
  if (!line || !g_shell_parse_argv(line, nullptr, &words, nullptr)) return std::nullopt;
  std::string program = std::filesystem::path(words[0]).filename().string();
  g_strfreev(words);
  return program.empty() ? std::nullopt : std::optional(program);
}

}  // namespace glimmerstrand::platform::linux_desktop
