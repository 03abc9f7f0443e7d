// The application most mirror tests watch: a window with a toolbar, a list
// of ten rows, a footer with a status text, and a group of 150 buttons.
#pragma once

#include "mirror_sim.h"

namespace glimmerstrand::native::testing {

constexpr std::int32_t labPid = 700;

inline platform::sim::DesktopSpec labDesktop(bool ticking = false) {
  auto tools = keyed("AXGroup", "tools", 0, 0, 800, 40)
                   .child(keyed("AXButton", "go", 10, 5, 60, 30).title("Go"))
                   .child(keyed("AXTextField", "field", 100, 5, 200, 30).withSettable({"AXValue", "AXFocused"}));
  auto list = keyed("AXList", "list", 0, 50, 800, 300);
  for (int i = 1; i <= 10; ++i)
    list.child(
        keyed("AXRow", "row" + std::to_string(i), 0, 50 + i * 20.0, 800, 20)
            .child(element("AXStaticText").value("Row " + std::to_string(i)).withFrame(0, 50 + i * 20.0, 800, 20)));
  auto footer = keyed("AXGroup", "footer", 0, 560, 800, 40)
                    .child(keyed("AXStaticText", "status", 10, 565, 200, 30).value("idle"));
  if (ticking) footer.child(keyed("AXStaticText", "clock", 300, 565, 100, 30).markTicking());
  auto many = keyed("AXGroup", "many", 0, 360, 800, 190);
  for (int i = 0; i < 150; ++i)
    many.child(keyed("AXButton", "b" + std::to_string(i), (i % 15) * 50.0, 360 + (i / 15) * 19.0, 50, 19)
                   .title("b" + std::to_string(i)));
  auto window =
      keyed("AXWindow", "window", 0, 0, 800, 600).title("Lab").child(tools).child(list).child(footer).child(many);
  window.child(element("AXSplitter").withFrame(0, 355, 800, 5));  // nothing to call it by: not labeled
  return platform::sim::DesktopSpec{{}, {appWith(labPid, {window})}};
}

}  // namespace glimmerstrand::native::testing
