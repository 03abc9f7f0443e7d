// Clicks, a drag and the wheel on the GTK3 widget factory in front, through
// the daemon's procedures, as the X11 and the Wayland driver tests check
// them; each session reads the screen its own way.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "platform/desktop_suite.h"

namespace glimmerstrand::testing {

/// `screenColour` gives one pixel of the screen as 0xRRGGBB.
inline void expectPointerLandsOnTheWidgetFactory(LineClient& client,
                                                 const std::function<std::uint32_t(int x, int y)>& screenColour) {
  using core::JSONValue;
  const std::string app = "gtk3-widget-factory";
  auto rows = [&](const std::string& statement) { return cypherRows(client, app, statement); };
  auto first = [&](const std::string& statement, const std::string& column) {
    return firstCell(client, app, statement, column);
  };
  auto number = [](const JSONValue& row, const char* column) {
    const auto* value = row.find(column);
    return value && value->asNumber() ? *value->asNumber() : -1;
  };

  // A click on a toggle button that is up presses it, and the agent's cursor
  // shows there: its arrow's body, in the first colour, just below the tip.
  auto found = rows(
      "MATCH (n:CheckBox {name: 'togglebutton', value: '0'}) RETURN n.id, n.x, n.y, n.width, n.height "
      "ORDER BY n.y LIMIT 1");
  ASSERT_EQ(found.size(), 1u);
  const std::string toggle = *found.front().find("n.id")->asString();
  const int tipX = static_cast<int>(number(found.front(), "n.x") + number(found.front(), "n.width") / 2);
  const int tipY = static_cast<int>(number(found.front(), "n.y") + number(found.front(), "n.height") / 2);
  // Watched while the click runs: the reply may come after the cursor has faded.
  std::atomic<bool> shown = false, done = false;
  std::thread watcher([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!shown && !done && std::chrono::steady_clock::now() < deadline) {
      shown = screenColour(tipX + 3, tipY + 10) == 0x007AFF;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  rows("CALL ui.click(\"" + toggle + "\")");
  eventually([&] { return shown.load(); }, std::chrono::milliseconds(500));
  done = true;
  watcher.join();
  EXPECT_TRUE(shown) << "the agent's cursor at the click, below " << tipX << "," << tipY;
  EXPECT_TRUE(eventually([&] { return first("MATCH (n {id: '" + toggle + "'}) RETURN n.value", "n.value") == "1"; }));

  // Dragging the first horizontal slider's knob from its middle to the left
  // lowers its value. Sliders on hidden pages have no frame.
  std::optional<JSONValue> slider;
  for (auto& row : rows("MATCH (n:Slider) RETURN n.id, n.value, n.x, n.y, n.width, n.height ORDER BY n.y"))
    if (!slider && number(row, "n.width") > number(row, "n.height")) slider = row;
  ASSERT_TRUE(slider);
  const std::string sliderId = *slider->find("n.id")->asString();
  const double before = std::stod(*slider->find("n.value")->asString());
  const double midX = number(*slider, "n.x") + number(*slider, "n.width") / 2;
  const double midY = number(*slider, "n.y") + number(*slider, "n.height") / 2;
  rows("CALL ui.drag(" + std::to_string(midX) + ", " + std::to_string(midY) + ", " + std::to_string(midX - 100) + ", " +
       std::to_string(midY) + ")");
  EXPECT_TRUE(eventually([&] {
    auto value = first("MATCH (n {id: '" + sliderId + "'}) RETURN n.value", "n.value");
    return !value.empty() && std::stod(value) < before;
  })) << "from "
      << before;

  // The wheel over the text view scrolls it: its vertical scroll bar, the
  // one shown with a frame, leaves the top.
  const auto area = first("MATCH (a:ScrollArea)-[:CHILD]->(t:TextArea) RETURN a.id", "a.id");
  ASSERT_FALSE(area.empty());
  const std::string bar = "MATCH (a {id: '" + area + "'})-[:CHILD]->(b:ScrollBar) WHERE b.y > 0 RETURN b.value";
  ASSERT_EQ(first(bar, "b.value"), "0");
  rows("CALL ui.scroll(\"" + area + "\", \"down\", 2)");
  EXPECT_TRUE(eventually([&] {
    auto value = first(bar, "b.value");
    return !value.empty() && std::stod(value) > 0;
  }));
}

}  // namespace glimmerstrand::testing
