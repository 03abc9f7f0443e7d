#include "platform/linux/glib_run_loop.h"

#include <glib.h>

namespace glimmerstrand::platform::linux_desktop {

struct GlibRunLoop::Loop {
  GMainContext* context = g_main_context_default();
  GMainLoop* loop = g_main_loop_new(context, FALSE);
};

namespace {

gboolean runOnce(gpointer data) {
  (*static_cast<RunLoop::Task*>(data))();
  return G_SOURCE_REMOVE;
}

void destroyTask(gpointer data) { delete static_cast<RunLoop::Task*>(data); }

void attach(GMainContext* context, GSource* source, RunLoop::Task task) {
  // Our tasks rank with D-Bus callbacks, so that a flood of events cannot
  // starve them.
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, runOnce, new RunLoop::Task(std::move(task)), destroyTask);
  g_source_attach(source, context);
  g_source_unref(source);
}

}  // namespace

GlibRunLoop::GlibRunLoop() : loop_(std::make_unique<Loop>()) {}

GlibRunLoop::~GlibRunLoop() { g_main_loop_unref(loop_->loop); }

void GlibRunLoop::post(Task task) { attach(loop_->context, g_idle_source_new(), std::move(task)); }

void GlibRunLoop::postAfter(std::chrono::nanoseconds delay, Task task) {
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
  attach(loop_->context, g_timeout_source_new(static_cast<guint>(ms < 0 ? 0 : ms)), std::move(task));
}

void GlibRunLoop::run() { g_main_loop_run(loop_->loop); }

void GlibRunLoop::stop() { g_main_loop_quit(loop_->loop); }

}  // namespace glimmerstrand::platform::linux_desktop
