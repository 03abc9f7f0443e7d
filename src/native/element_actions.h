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
#include "native/operations.h"

namespace glimmerstrand::native {

class MirrorHost;

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

/// press, focus, setValue, selectAll, readText, inspect, elementFrame and
/// showMenu; menu items resolve through the host's menu cache.
void addElementOperations(OperationTable& table, MirrorHost& host);

}  // namespace glimmerstrand::native
