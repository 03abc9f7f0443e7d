// An application's top levels as a person sees them: which are windows,
// which dialogs read as sheets of which window, and what is in front.
#include "platform/linux/atspi_windows.h"

#include <atspi/atspi-constants.h>
#include <gtest/gtest.h>

namespace glimmerstrand::platform::linux_desktop {
namespace {

constexpr std::uint64_t bit(int state) { return std::uint64_t{1} << state; }
constexpr std::uint64_t onScreen = bit(ATSPI_STATE_VISIBLE) | bit(ATSPI_STATE_SHOWING);

ElementRecord top(std::uint32_t role, std::uint64_t states) {
  ElementRecord r;
  r.role = role;
  r.states = States{states};
  return r;
}

struct Expected {
  TopLevelKind kind;
  std::optional<std::size_t> owner;
};

TEST(TopLevels, DialogsAreSheetsOfTheWindowTheyBelongTo) {
  using enum TopLevelKind;
  struct Case {
    const char* what;
    std::vector<ElementRecord> records;
    std::string toolkit, lastActive;
    std::vector<Expected> expected;
    std::optional<std::size_t> front;
  };
  const auto frame = top(ATSPI_ROLE_FRAME, onScreen);
  const auto activeFrame = top(ATSPI_ROLE_FRAME, onScreen | bit(ATSPI_STATE_ACTIVE));
  const auto chooser = top(ATSPI_ROLE_FILE_CHOOSER, onScreen | bit(ATSPI_STATE_MODAL) | bit(ATSPI_STATE_ACTIVE));
  const auto qtDialog = top(ATSPI_ROLE_DIALOG, onScreen);
  const Case cases[] = {
      {"a GTK3 file chooser over its window", {frame, chooser}, "GTK", "", {{window, {}}, {sheet, 0}}, 0},
      {"GTK4's dialog is a filler that never shows",
       {activeFrame, top(ATSPI_ROLE_FILLER, bit(ATSPI_STATE_VISIBLE))},
       "GTK4",
       "",
       {{window, {}}, {sheet, 0}},
       0},
      {"a dialog alone is a window", {qtDialog}, "Qt", "", {{window, {}}}, {}},
      {"the window last active owns the dialog",
       {frame, frame, qtDialog},
       "Qt",
       "/1",
       {{window, {}}, {window, {}}, {sheet, 1}},
       {}},
      {"the active window owns it before the last one",
       {frame, activeFrame, qtDialog},
       "Qt",
       "/0",
       {{window, {}}, {window, {}}, {sheet, 1}},
       1},
      {"menus, pop-ups, tooltips and unmapped windows are no windows",
       {frame, top(ATSPI_ROLE_POPUP_MENU, onScreen), top(ATSPI_ROLE_WINDOW, onScreen | bit(ATSPI_STATE_ACTIVE)),
        top(ATSPI_ROLE_TOOL_TIP, onScreen), top(ATSPI_ROLE_FRAME, bit(ATSPI_STATE_VISIBLE))},
       "GTK",
       "",
       {{window, {}}, {menu, {}}, {menu, {}}, {hidden, {}}, {hidden, {}}},
       {}},
      {"a minimised window is still a window",
       {top(ATSPI_ROLE_FRAME, bit(ATSPI_STATE_VISIBLE) | bit(ATSPI_STATE_ICONIFIED))},
       "GTK",
       "",
       {{window, {}}},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<ObjectRef> refs;
    for (std::size_t k = 0; k < c.records.size(); ++k) refs.push_back({":1.5", "/" + std::to_string(k)});
    const auto tops = classifyTopLevels(refs, c.records, c.toolkit, c.lastActive);
    ASSERT_EQ(tops.size(), c.expected.size());
    for (std::size_t k = 0; k < tops.size(); ++k) {
      EXPECT_EQ(tops[k].kind, c.expected[k].kind) << k;
      EXPECT_EQ(tops[k].owner, c.expected[k].owner) << k;
    }
    EXPECT_EQ(frontWindow(tops), c.front);
  }
}

TEST(TopLevels, WhatCannotBeReadIsLeftOut) {
  auto gone = top(ATSPI_ROLE_FRAME, onScreen);
  gone.error = AxError::invalidElement;
  const auto tops =
      classifyTopLevels({{":1.5", "/0"}, {":1.5", "/1"}}, {gone, top(ATSPI_ROLE_FRAME, onScreen)}, "GTK", "");
  ASSERT_EQ(tops.size(), 1u);
  EXPECT_EQ(tops[0].ref.path, "/1");
}

}  // namespace
}  // namespace glimmerstrand::platform::linux_desktop
