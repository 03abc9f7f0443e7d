#include "platform/linux/atspi_bus.h"

#include <algorithm>

namespace glimmerstrand::platform::linux_desktop {

namespace {

constexpr int setupTimeoutMs = 3000;

Call busDaemonCall(const char* method, GVariant* args) {
  return Call{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method, own(args)};
}

Call statusCall(const char* method, GVariant* args) {
  return Call{"org.a11y.Bus", "/org/a11y/bus", "org.freedesktop.DBus.Properties", method, own(args)};
}

std::string describe(GError* error) {
  std::string text = error && error->message ? error->message : "unknown error";
  if (error) g_error_free(error);
  return text;
}

}  // namespace

std::optional<AtspiBus> AtspiBus::connect(std::string& problem) {
  GError* error = nullptr;
  Connection session(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error));
  if (!session) {
    problem = "セッションバスに接続できません: " + describe(error);
    return std::nullopt;
  }
  g_dbus_connection_set_exit_on_close(session.get(), FALSE);
  // An address given by the environment wins, as every toolkit does.
  std::string address;
  if (const char* given = g_getenv("AT_SPI_BUS_ADDRESS"); given && *given) {
    address = given;
  } else {
    Reply reply = callSync(session.get(), Call{"org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", nullptr},
                           setupTimeoutMs);
    Variant value = replyChild(reply);
    if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)) {
      problem = "アクセシビリティバスが見つかりません (org.a11y.Bus: " +
                (reply.errorName.empty() ? std::string("no address") : reply.errorName) + ")";
      return std::nullopt;
    }
    address = g_variant_get_string(value.get(), nullptr);
  }
  auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  Connection accessibility(g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, &error));
  if (!accessibility) {
    problem = "アクセシビリティバスに接続できません: " + describe(error);
    return std::nullopt;
  }
  g_dbus_connection_set_exit_on_close(accessibility.get(), FALSE);
  return AtspiBus(std::move(session), std::move(accessibility), std::move(address));
}

bool AtspiBus::isEnabled() const {
  Reply reply = callSync(session_.get(), statusCall("Get", g_variant_new("(ss)", "org.a11y.Status", "IsEnabled")),
                         setupTimeoutMs);
  Variant value = replyChild(reply);
  return value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_BOOLEAN) && g_variant_get_boolean(value.get());
}

bool AtspiBus::enable() const {
  callSync(session_.get(),
           statusCall("Set", g_variant_new("(ssv)", "org.a11y.Status", "IsEnabled", g_variant_new_boolean(TRUE))),
           setupTimeoutMs);
  return isEnabled();
}

std::vector<std::int32_t> AtspiBus::sessionProcesses() const {
  Variant names = replyChild(callSync(session_.get(), busDaemonCall("ListNames", nullptr), setupTimeoutMs));
  if (!names || !g_variant_is_of_type(names.get(), G_VARIANT_TYPE("as"))) return {};
  // Every process holds a unique name (":1.42"); well-known names repeat them.
  std::vector<Call> calls;
  GVariantIter iter;
  g_variant_iter_init(&iter, names.get());
  const char* name = nullptr;
  while (g_variant_iter_next(&iter, "&s", &name))
    if (name[0] == ':') calls.push_back(busDaemonCall("GetConnectionUnixProcessID", g_variant_new("(s)", name)));
  std::vector<std::int32_t> pids;
  for (const auto& reply : callAll(session_.get(), calls, setupTimeoutMs))
    if (auto pid = uint32Of(replyChild(reply))) pids.push_back(static_cast<std::int32_t>(*pid));
  std::sort(pids.begin(), pids.end());
  pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
  return pids;
}

}  // namespace glimmerstrand::platform::linux_desktop
