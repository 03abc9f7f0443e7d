#include "platform/linux/gdbus_call.h"

#include <algorithm>
#include <cstring>

namespace glimmerstrand::platform::linux_desktop {

namespace {

// However steadily an application answers, a batch ends after this many
// of its timeouts in all.
constexpr gint64 wholeBatchTimeouts = 10;

struct ErrorFree {
  void operator()(GError* e) const { g_error_free(e); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

Reply replyOf(GVariant* value, GError* raw) {
  ErrorPtr error(raw);
  Reply reply;
  if (error) {
    reply.error = translateError(error.get());
    if (g_dbus_error_is_remote_error(error.get())) {
      gchar* name = g_dbus_error_get_remote_error(error.get());
      reply.errorName = name ? name : "";
      g_free(name);
    } else {
      reply.errorName = error->message ? error->message : "";
    }
    return reply;
  }
  reply.value = Variant(value);
  return reply;
}

bool wellFormed(const Call& call) {
  return g_dbus_is_name(call.bus.c_str()) && g_variant_is_object_path(call.path.c_str()) &&
         g_dbus_is_interface_name(call.interface) && g_dbus_is_member_name(call.method);
}

// GDBus owns its arguments' floating references only; a Call keeps its own
// reference, so hand over a fresh one each time.
// The call's arguments are held (not floating), so GDBus takes a reference of
// its own for the message and leaves ours to the Call; an extra one here was
// never given back and kept every request's arguments alive.
GVariant* argsOf(const Call& call) { return call.args.get(); }

}  // namespace

AxError translateError(const GError* error) {
  if (!error) return AxError::success;
  if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_TIMED_OUT) return AxError::cannotComplete;
  if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CLOSED) return AxError::cannotComplete;
  // A batch cancels what is left at its deadline.
  if (error->domain == G_IO_ERROR && error->code == G_IO_ERROR_CANCELLED) return AxError::cannotComplete;
  if (error->domain == G_DBUS_ERROR) {
    switch (error->code) {
      case G_DBUS_ERROR_UNKNOWN_OBJECT:
      case G_DBUS_ERROR_SERVICE_UNKNOWN:
      case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
        return AxError::invalidElement;
      case G_DBUS_ERROR_UNKNOWN_METHOD:
      case G_DBUS_ERROR_UNKNOWN_INTERFACE:
      case G_DBUS_ERROR_UNKNOWN_PROPERTY:
      case G_DBUS_ERROR_INVALID_ARGS:
        return AxError::attributeUnsupported;
      case G_DBUS_ERROR_NO_REPLY:
      case G_DBUS_ERROR_TIMEOUT:
      case G_DBUS_ERROR_TIMED_OUT:
        return AxError::cannotComplete;
      default:
        break;
    }
  }
  return AxError::failure;
}

Reply callSync(GDBusConnection* connection, const Call& call, int timeoutMs) {
  if (!wellFormed(call))
    return replyOf(nullptr, g_error_new_literal(G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT, "no such object"));
  GError* error = nullptr;
  GVariant* value = g_dbus_connection_call_sync(call.via ? call.via : connection, call.bus.c_str(), call.path.c_str(),
                                                call.interface, call.method, argsOf(call), nullptr,
                                                G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs, nullptr, &error);
  return replyOf(value, error);
}

std::vector<Reply> callAll(GDBusConnection* connection, const std::vector<Call>& calls, int timeoutMs) {
  std::vector<Reply> replies(calls.size());
  if (calls.empty()) return replies;
  if (calls.size() == 1) {
    replies[0] = callSync(connection, calls[0], timeoutMs);
    return replies;
  }
  struct Batch {
    std::vector<Reply>* replies;
    std::size_t remaining;
    GCancellable* cancellable;
    gint64 lastAnswerUs;  // monotonic
    gint64 startUs;
    gint64 silenceUs;  // no answer for this long: the application does not answer
    gint64 limitUs;    // the whole batch
  };
  struct Pending {
    Batch* batch;
    std::size_t index;
  };
  const gint64 silenceUs = static_cast<gint64>(std::max(timeoutMs, 1)) * 1000;
  Batch batch{&replies,
              calls.size(),
              g_cancellable_new(),
              g_get_monotonic_time(),
              g_get_monotonic_time(),
              silenceUs,
              silenceUs * wholeBatchTimeouts};
  // Replies are dispatched to the main context that is the thread's default
  // when a call is made: a private one, iterated right here.
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);
  // One watch for the batch rather than a timeout per call: each timeout is
  // a source of the context, and a context looks at every source on each
  // iteration, which made a batch of thousands of calls quadratic. The
  // watch ends the batch when the application has stopped answering, so a
  // large batch that it answers steadily is not cut short.
  GSource* watch = g_timeout_source_new(static_cast<guint>(std::max<gint64>(silenceUs / 4000, 5)));
  g_source_set_callback(
      watch,
      [](gpointer data) -> gboolean {
        auto* b = static_cast<Batch*>(data);
        const gint64 now = g_get_monotonic_time();
        if (now - b->lastAnswerUs < b->silenceUs && now - b->startUs < b->limitUs) return G_SOURCE_CONTINUE;
        g_cancellable_cancel(b->cancellable);
        return G_SOURCE_REMOVE;
      },
      &batch, nullptr);
  g_source_attach(watch, context);
  std::vector<Pending> pending(calls.size());
  for (std::size_t k = 0; k < calls.size(); ++k) {
    pending[k] = Pending{&batch, k};
    const Call& call = calls[k];
    // GDBus refuses a malformed call without ever calling back, which would
    // leave the batch waiting for good: an element not (or no longer) on the
    // bus has no valid name.
    if (!wellFormed(call)) {
      replies[k] = replyOf(nullptr, g_error_new_literal(G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_OBJECT, "no such object"));
      --batch.remaining;
      continue;
    }
    g_dbus_connection_call(
        call.via ? call.via : connection, call.bus.c_str(), call.path.c_str(), call.interface, call.method,
        argsOf(call), nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, G_MAXINT, batch.cancellable,
        [](GObject* source, GAsyncResult* result, gpointer data) {
          auto* p = static_cast<Pending*>(data);
          GError* error = nullptr;
          GVariant* value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
          (*p->batch->replies)[p->index] = replyOf(value, error);
          p->batch->lastAnswerUs = g_get_monotonic_time();
          --p->batch->remaining;
        },
        &pending[k]);
  }
  while (batch.remaining > 0) g_main_context_iteration(context, TRUE);
  g_source_destroy(watch);
  g_source_unref(watch);
  g_object_unref(batch.cancellable);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
  return replies;
}

Call propertyCall(const std::string& bus, const std::string& path, const char* interface, const char* property) {
  return Call{bus, path, "org.freedesktop.DBus.Properties", "Get", own(g_variant_new("(ss)", interface, property))};
}

Variant replyChild(const Reply& reply, std::size_t index) {
  if (!reply.ok() || !reply.value || !g_variant_is_container(reply.value.get())) return nullptr;
  if (index >= g_variant_n_children(reply.value.get())) return nullptr;
  Variant child(g_variant_get_child_value(reply.value.get(), index));
  if (g_variant_is_of_type(child.get(), G_VARIANT_TYPE_VARIANT)) return Variant(g_variant_get_variant(child.get()));
  return child;
}

namespace {

bool holds(const Variant& value, const GVariantType* type) { return value && g_variant_is_of_type(value.get(), type); }

}  // namespace

std::optional<std::string> stringOf(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_STRING)) return std::nullopt;
  return g_variant_get_string(value.get(), nullptr);
}

std::optional<std::string> boundedStringOf(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_STRING)) return std::nullopt;
  gsize length = 0;
  const gchar* text = g_variant_get_string(value.get(), &length);
  // The character that reaches past the limit is whole within four more bytes.
  return cutText(std::string(text, std::min<gsize>(length, maxTextBytes + 4)));
}

std::optional<std::int32_t> int32Of(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_INT32)) return std::nullopt;
  return g_variant_get_int32(value.get());
}

std::optional<std::uint32_t> uint32Of(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_UINT32)) return std::nullopt;
  return g_variant_get_uint32(value.get());
}

std::optional<double> doubleOf(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_DOUBLE)) return std::nullopt;
  return g_variant_get_double(value.get());
}

std::optional<bool> boolOf(const Variant& value) {
  if (!holds(value, G_VARIANT_TYPE_BOOLEAN)) return std::nullopt;
  return g_variant_get_boolean(value.get());
}

AxError outcomeOf(const Reply& reply) {
  if (!reply.ok()) return reply.error;
  return boolOf(replyChild(reply)).value_or(true) ? AxError::success : AxError::cannotComplete;
}

}  // namespace glimmerstrand::platform::linux_desktop
