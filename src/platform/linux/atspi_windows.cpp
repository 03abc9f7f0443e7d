#include "platform/linux/atspi_windows.h"

#include <atspi/atspi-constants.h>

#include <algorithm>

namespace glimmerstrand::platform::linux_desktop {

namespace {

bool isPlainWindowRole(std::uint32_t role) { return role == ATSPI_ROLE_FRAME; }

// GTK4 gives a dialog no dialog role (a file chooser is a filler): any top
// level that is not a plain window is taken for one.
bool isDialogLike(const ElementRecord& r) { return !isPlainWindowRole(r.role) || r.states.has(ATSPI_STATE_MODAL); }

bool isHiddenTopLevel(const ElementRecord& r, std::string_view toolkit) {
  if (!r.states.visible()) return true;
  // A minimised window is still one of the application's windows.
  const bool showingCounts = toolkit == gtk3Toolkit || toolkit == qtToolkit;
  return showingCounts && !r.states.showing() && !r.states.iconified();
}

std::size_t ownerOf(const std::vector<TopLevel>& tops, const std::vector<const ElementRecord*>& records,
                    const std::vector<std::size_t>& windows, std::string_view lastActivePath) {
  for (auto k : windows)
    if (tops[k].active) return k;
  for (auto k : windows)
    if (!lastActivePath.empty() && tops[k].ref.path == lastActivePath) return k;
  for (auto k : windows)
    if (records[k]->states.showing() && !records[k]->states.iconified()) return k;
  return windows.front();
}

}  // namespace

std::vector<TopLevel> classifyTopLevels(const std::vector<ObjectRef>& refs, const std::vector<ElementRecord>& records,
                                        std::string_view toolkit, std::string_view lastActivePath) {
  std::vector<TopLevel> tops;
  std::vector<const ElementRecord*> read;
  for (std::size_t k = 0; k < refs.size() && k < records.size(); ++k) {
    const auto& r = records[k];
    if (r.error != AxError::success) continue;
    TopLevel top{refs[k], r.role, TopLevelKind::window, r.states.active(), std::nullopt};
    if (isMenuRole(r.role))
      top.kind = TopLevelKind::menu;
    else if (isHiddenTopLevel(r, toolkit) || r.role == ATSPI_ROLE_TOOL_TIP)  // a tooltip passes with the pointer
      top.kind = TopLevelKind::hidden;
    else if (r.role == ATSPI_ROLE_WINDOW)  // GTK's pop-up windows; its own windows are frames
      top.kind = TopLevelKind::menu;
    else if (isDialogLike(r))
      top.kind = TopLevelKind::sheet;  // until it proves to stand alone
    tops.push_back(std::move(top));
    read.push_back(&r);
  }
  std::vector<std::size_t> windows;
  for (std::size_t k = 0; k < tops.size(); ++k)
    if (tops[k].kind == TopLevelKind::window) windows.push_back(k);
  if (windows.empty()) {
    for (auto& top : tops)
      if (top.kind == TopLevelKind::sheet) top.kind = TopLevelKind::window;
    return tops;
  }
  const std::size_t owner = ownerOf(tops, read, windows, lastActivePath);
  for (auto& top : tops)
    if (top.kind == TopLevelKind::sheet) top.owner = owner;
  return tops;
}

std::optional<std::size_t> frontWindow(const std::vector<TopLevel>& tops) {
  for (std::size_t k = 0; k < tops.size(); ++k) {
    if (!tops[k].active) continue;
    if (tops[k].kind == TopLevelKind::window) return k;
    if (tops[k].kind == TopLevelKind::sheet) return tops[k].owner;
  }
  return std::nullopt;
}

}  // namespace glimmerstrand::platform::linux_desktop
