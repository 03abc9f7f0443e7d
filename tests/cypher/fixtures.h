// The small graphs the query tests run against.
//
// "ui", a window tree (CHILD down, PARENT up, LINKS without inverse):
//   app App {id, name: Music}
//     w1 Window {order: 1}      w2 Window {order: 2}
//       b1 Button "Play" 10       c1 CheckBox "Shuffle"
//       b2 Button "Stop" 30       b4 Button (no name)
//       g1 Group
//         b3 Button "play" 20
//         t1 StaticText "10"
// "items", properties of every kind for ordering and aggregates.
#pragma once

#include <cmath>
#include <limits>
#include <string>

#include "property_graph.h"

namespace glimmerstrand::cypher::testing {

inline PropertyGraph uiGraph() {
  PropertyGraph g;
  g.declareInverse("CHILD", "PARENT");
  auto app = g.add({"App"}, {{"id", "app"}, {"name", "Music"}});
  auto w1 = g.add({"Window"}, {{"id", "w1"}, {"name", "Main"}, {"order", 1}});
  auto b1 = g.add({"Button", "Control"}, {{"id", "b1"}, {"name", "Play"}, {"width", 10}});
  auto b2 = g.add({"Button", "Control"}, {{"id", "b2"}, {"name", "Stop"}, {"width", 30}, {"enabled", false}});
  auto g1 = g.add({"Group"}, {{"id", "g1"}});
  auto b3 = g.add({"Button", "Control"}, {{"id", "b3"}, {"name", "play"}, {"width", 20}});
  auto t1 = g.add({"StaticText"}, {{"id", "t1"}, {"name", "10"}});
  auto w2 = g.add({"Window"}, {{"id", "w2"}, {"name", "Prefs"}, {"order", 2}});
  auto c1 = g.add({"CheckBox", "Control"}, {{"id", "c1"}, {"name", "Shuffle"}, {"checked", true}});
  auto b4 = g.add({"Button", "Control"}, {{"id", "b4"}});
  g.child(app, w1);
  g.child(w1, b1);
  g.child(w1, b2);
  g.child(w1, g1);
  g.child(g1, b3);
  g.child(g1, t1);
  g.child(app, w2);
  g.child(w2, c1);
  g.child(w2, b4);
  g.relate(b1, "LINKS", c1);
  return g;
}

inline PropertyGraph itemsGraph() {
  PropertyGraph g;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  g.add({"Item"}, {{"id", "i0"}, {"k", "a"}, {"x", 2}});
  g.add({"Item"}, {{"id", "i1"}, {"k", "b"}, {"x", 10}});
  g.add({"Item"}, {{"id", "i2"}, {"k", "a"}, {"x", "abc"}});
  g.add({"Item"}, {{"id", "i3"}, {"k", "c"}});
  g.add({"Item"}, {{"id", "i4"}, {"k", nan}, {"x", true}});
  g.add({"Item"}, {{"id", "i5"}, {"k", inf}, {"x", 5}});
  g.add({"Text"}, {{"id", "s0"}, {"v", 9}, {"line", "a\n"}});
  g.add({"Text"}, {{"id", "s1"}, {"v", "10"}, {"line", "é"}});
  return g;
}

inline PropertyGraph fixture(const std::string& name) { return name == "ui" ? uiGraph() : itemsGraph(); }

}  // namespace glimmerstrand::cypher::testing
