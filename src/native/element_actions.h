// Actions on one element through the accessibility interface, without the
// user's pointer or keyboard: press, focus, setValue, selectAll, readText,
// inspect, elementFrame and showMenu. Each reports what it could confirm, and
// the acting ones give the mirror's notification count from before they acted,
// for the caller to pass as `since` to waitSettle.
//
// Everything runs on the caller's thread, bounded by the platform's messaging
// timeout, except the call of a press: that runs on a worker of its own which
// is never joined, so that a target that hangs holds up that worker and no
// caller.
#pragma once

#include <cstdint>
#include <string>

#include "core/records.h"
#include "mirror/app_mirror.h"
#include "mirror/mirrors.h"
#include "platform/platform.h"

namespace glimmerstrand::native {

/// What a press should act on: the element or its nearest ancestor within 5
/// levels that has AXPress or a settable AXSelected; the element itself when
/// there is none.
Element pressTarget(platform::Accessibility& ax, const Element& element);

/// Polls every 15 ms, for up to `ms`, until the application's keyboard focus
/// lies on `target` or within 7 levels below it.
bool waitFocusInside(MirrorEnvironment environment, const Element& app, const Element& target, std::int64_t ms);

/// The visible text under an element in reading order: titles, values and
/// descriptions, each once, joined by line feeds.
core::ReadTextResult readElementText(platform::Accessibility& ax, const Element& element, bool deep,
                                     std::int64_t maxChars);

/// An attribute's value as inspect shows it to a person: "null", a text cut at
/// 200 characters, "(x, y)", "WxH", "[3 items]", "element AXButton", ...
std::string inspectValueText(platform::Accessibility& ax, const platform::AxValue& value);

struct PressOptions {
  /// Wait for the call itself, not only for the application's first reaction.
  bool waitComplete = false;
  std::int64_t timeoutMs = 1000;
};
/// How the element was pressed ("press", "select" or "focus"), whether the
/// call completed in time, and how many menus its pick left open were closed.
struct PressReport : core::PressResult {
  std::int64_t menusClosed = 0;
};
PressReport press(platform::Platform& platform, const ResolvedElement& target, const PressOptions& options = {});

struct FocusReport {
  std::int64_t notificationsBefore = 0;
  std::string method;  // "focus", or "press" for a control that takes the focus only so
  bool moved = false;
};
FocusReport focus(platform::Platform& platform, const ResolvedElement& target);

struct SetValueReport : core::SetValueResult {
  std::int64_t notificationsBefore = 0;
  double elapsedMs = 0;
};
SetValueReport setValue(platform::Platform& platform, const ResolvedElement& target, const std::string& text);

/// Selects the element's whole text; its length in UTF-16 units.
std::int64_t selectAll(platform::Platform& platform, const ResolvedElement& target);
core::ReadTextResult readText(platform::Platform& platform, const ResolvedElement& target, bool deep = true,
                              std::int64_t maxChars = 100000);
core::InspectResult inspect(platform::Platform& platform, const ResolvedElement& target);
/// Fails "stale" when the element no longer tells where it is.
core::Rect elementFrame(platform::Platform& platform, const ResolvedElement& target);
/// Opens the element's context menu; the notification count from before.
std::int64_t showMenu(platform::Platform& platform, const ResolvedElement& target);

}  // namespace glimmerstrand::native
