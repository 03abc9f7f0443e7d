// Calls on a D-Bus connection through GIO, one at a time or pipelined. GDBus
// connections are thread-safe, so every function here may be called from any
// thread at once; a pipelined batch waits on a main context of its own, so it
// never depends on a loop that another thread runs. Internal to the Linux
// backend: it exposes GLib types.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/ax_error.h"
#include "platform/ax_value.h"

namespace glimmerstrand::platform::linux_desktop {

struct VariantUnref {
  void operator()(GVariant* v) const { g_variant_unref(v); }
};
/// An owned reference to a GVariant.
using Variant = std::unique_ptr<GVariant, VariantUnref>;

/// Takes ownership of `value`, sinking a floating reference.
inline Variant own(GVariant* value) { return Variant(value ? g_variant_ref_sink(value) : nullptr); }

struct ObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
using Connection = std::unique_ptr<GDBusConnection, ObjectUnref>;

/// One method call.
struct Call {
  std::string bus;
  std::string path;
  const char* interface = nullptr;
  const char* method = nullptr;
  Variant args;                    // a tuple, or null for none
  GDBusConnection* via = nullptr;  // the connection to call on, when not the one given with the call
};

/// What came back: the reply tuple, or the error in our vocabulary with the
/// D-Bus error's name for logs.
struct Reply {
  Variant value;
  AxError error = AxError::success;
  std::string errorName;
  bool ok() const { return error == AxError::success; }
};

/// Translates a failed call into our error numbers: a name or object that no
/// longer exists is a gone element, a missing method or interface an
/// unsupported attribute, a timeout an application that did not answer.
AxError translateError(const GError* error);

/// Calls and waits for the reply, at most `timeoutMs`.
Reply callSync(GDBusConnection* connection, const Call& call, int timeoutMs);

/// Sends every call before waiting for any reply, then waits for all of them
/// until the application has answered none for `timeoutMs` (or ten times
/// that has passed in all); what is left then fails as unanswered. Replies
/// come in the order of the calls.
std::vector<Reply> callAll(GDBusConnection* connection, const std::vector<Call>& calls, int timeoutMs);

/// `Properties.Get` of one property (never GetAll: it crashes some toolkits).
Call propertyCall(const std::string& bus, const std::string& path, const char* interface, const char* property);

/// A value of one basic type; absent when null or of another type.
std::optional<std::string> stringOf(const Variant& value);
std::optional<std::int32_t> int32Of(const Variant& value);
/// A string, cut as platform::cutText says without copying more of it.
std::optional<std::string> boundedStringOf(const Variant& value);
std::optional<std::uint32_t> uint32Of(const Variant& value);
std::optional<double> doubleOf(const Variant& value);
std::optional<bool> boolOf(const Variant& value);

/// What a call that answers with success or a boolean did: a refusal
/// (false) cannot complete.
AxError outcomeOf(const Reply& reply);

/// The one child of a reply tuple, unboxed when it is a variant (as a
/// property's value is); null when the reply failed or has no such child.
Variant replyChild(const Reply& reply, std::size_t index = 0);

}  // namespace glimmerstrand::platform::linux_desktop
