#include "native/menu_closing.h"

#include <algorithm>
#include <string>

#include "native/input.h"

namespace glimmerstrand::native {

namespace {

using platform::Element;

constexpr std::int64_t msNs = 1'000'000;
// How long menus get to close by themselves, before and after each key.
constexpr std::int64_t closeWaitMs = 250;
constexpr std::int64_t closeLookMs = 20;
// Menus nest a few levels deep: a menu bar's menu, a submenu, one more.
constexpr int maxEscapes = 4;
constexpr double answerSeconds = 0.3;

std::string roleOf(platform::Accessibility& ax, const Element& element) {
  return ax.copy(element, "AXRole").as<std::string>().value_or("");
}

std::vector<Element> childrenOf(platform::Accessibility& ax, const Element& element) {
  std::vector<Element> out;
  if (auto list = ax.copy(element, "AXChildren").as<platform::AxList>())
    for (const auto& value : *list)
      if (auto child = value.get<Element>(); child && !child->isNull()) out.push_back(*child);
  return out;
}

bool anyChildIs(platform::Accessibility& ax, const Element& element, std::initializer_list<std::string_view> roles) {
  for (const auto& child : childrenOf(ax, element))
    if (std::find(roles.begin(), roles.end(), roleOf(ax, child)) != roles.end()) return true;
  return false;
}

bool anyStillOpen(const std::vector<Element>& before, const std::vector<Element>& now) {
  return std::any_of(before.begin(), before.end(),
                     [&](const Element& menu) { return std::find(now.begin(), now.end(), menu) != now.end(); });
}

// Looks until none of `before` is open or `ms` have passed; the first look
// comes before the first sleep. True when all are closed.
bool closedWithin(platform::Platform& platform, std::int32_t pid, const std::vector<Element>& before, std::int64_t ms) {
  auto& clock = platform.clock();
  const std::int64_t start = clock.nowNs();
  for (;;) {
    if (!anyStillOpen(before, openMenus(platform.accessibility(), pid))) return true;
    if (clock.nowNs() - start >= ms * msNs) return false;
    clock.sleepNs(closeLookMs * msNs);
  }
}

// False when a key could not be made: the press happened all the same, and
// the menu stays as the application left it.
bool sendEscape(platform::Platform& platform, std::int32_t pid) {
  for (const auto& event : keyComboEvents(platform.input(), "escape"))
    if (!platform.input().postKey(event, pid)) return false;
  return true;
}

}  // namespace

bool isLeafMenuItem(platform::Accessibility& ax, const Element& element) {
  return roleOf(ax, element) == "AXMenuItem" && !anyChildIs(ax, element, {"AXMenu", "AXMenuItem"});
}

std::vector<Element> openMenus(platform::Accessibility& ax, std::int32_t pid) {
  Element app = ax.applicationElement(pid);
  ax.setMessagingTimeout(app, answerSeconds);
  std::vector<Element> open;
  for (const auto& child : childrenOf(ax, app)) {
    const std::string role = roleOf(ax, child);
    // A context menu stands alone, or in a window that holds nothing else.
    if (role == "AXMenu" || (role == "AXWindow" && anyChildIs(ax, child, {"AXMenu"}))) open.push_back(child);
  }
  if (auto bar = ax.copy(app, "AXMenuBar").as<Element>(); bar && !bar->isNull())
    for (const auto& item : childrenOf(ax, *bar))
      if (ax.copy(item, "AXSelected").as<bool>().value_or(false)) open.push_back(item);
  return open;
}

int closeMenusLeftOpen(platform::Platform& platform, std::int32_t pid, const std::vector<Element>& before) {
  if (before.empty() || closedWithin(platform, pid, before, closeWaitMs)) return 0;
  int escapes = 0;
  while (escapes < maxEscapes) {
    if (!sendEscape(platform, pid)) break;
    ++escapes;
    if (closedWithin(platform, pid, before, closeWaitMs)) break;
  }
  return escapes;
}

}  // namespace glimmerstrand::native
