#include "core/records.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace glimmerstrand::core {
namespace {

AxNode fullNode() {
  AxNode n;
  n.i = 4;
  n.uid = 77;
  n.parent = 1;
  n.depth = 2;
  n.role = "AXButton";
  n.subrole = "AXCloseButton";
  n.title = "Play";
  n.description = "d";
  n.value = "v";
  n.identifier = "id";
  n.placeholder = "p";
  n.frame = Rect{1, 2.5, 3, 4};
  n.enabled = false;
  n.focused = true;
  n.help = "h";
  n.selected = true;
  n.expanded = false;
  n.shortcut = "⌘C";
  n.checked = true;
  n.menu = true;
  n.url = "https://example.com/";
  n.details = "det";
  n.offscreen = 12;
  return n;
}

TEST(AxNodeJson, AbsentOptionalsLeaveNoKeyAndReadBackAbsent) {
  AxNode node;
  node.i = 3;
  EXPECT_EQ(jsonText(toJSON(node)), R"({"i":3,"parent":-1,"depth":0})");
  AxNode back = axNodeFromJSON(toJSON(node));
  EXPECT_EQ(back, node);
  EXPECT_FALSE(back.uid.has_value());
}

TEST(AxNodeJson, EveryFieldRoundTrips) {
  AxNode n = fullNode();
  EXPECT_EQ(axNodeFromJSON(parseJSON(jsonText(toJSON(n)))), n);
}

TEST(AxNodeJson, ReadBackDefaultsAndLenientTypes) {
  AxNode n = axNodeFromJSON(parseJSON(R"({"uid":5.0,"role":7,"enabled":0,"frame":{"x":1}})"));
  EXPECT_EQ(n.i, 0);
  EXPECT_EQ(n.parent, -1);
  EXPECT_EQ(n.depth, 0);
  EXPECT_EQ(n.uid, 5);
  EXPECT_FALSE(n.role.has_value()) << "a number is not a role";
  EXPECT_EQ(n.enabled, false);
  EXPECT_FALSE(n.frame.has_value()) << "an incomplete frame is no frame";
}

TEST(SnapshotJson, RoundTripsWithAppAndNodes) {
  AxSnapshot s{AppInfo{501, "com.example.calculator", "Calculator"},
               501,
               7,
               1.5,
               20.25,
               true,
               false,
               33,
               {fullNode(), AxNode{}},
               0.5};
  EXPECT_EQ(axSnapshotFromJSON(parseJSON(jsonText(toJSON(s)))), s);
  AxMenus m{AppInfo{1, "b", "n"}, 1, {fullNode()}};
  EXPECT_EQ(axMenusFromJSON(toJSON(m)), m);
}

TEST(SelectorAndRefJson, KeyOrderAndAbsentKeys) {
  EXPECT_EQ(jsonText(toJSON(AppSelector{std::nullopt, "b", "n"})), R"({"bundleId":"b","name":"n"})");
  EXPECT_EQ(jsonText(toJSON(ElementRef{9, 2, 3, 44, true})), R"({"pid":9,"generation":2,"i":3,"uid":44,"menu":true})");
  EXPECT_EQ(jsonText(toJSON(ElementRef{9, 2, 3, std::nullopt, std::nullopt})), R"({"pid":9,"generation":2,"i":3})");
  EXPECT_EQ(jsonText(toJSON(SnapshotOptions{AppSelector{5, {}, {}}, true, false, std::nullopt, 200})),
            R"({"pid":5,"fresh":true,"all":false,"maxAgeMs":200})");
  EXPECT_EQ(elementRefFromJSON(parseJSON(R"({"pid":9,"i":1,"menu":false})")).menu, std::nullopt);
}

TEST(RecordHash, EqualRecordsHashAlikeAndFieldsMatter) {
  AxNode a = fullNode(), b = fullNode();
  EXPECT_EQ(hashValue(a), hashValue(b));
  b.title = "Pause";
  EXPECT_NE(a, b);
  EXPECT_NE(hashValue(a), hashValue(b));
  std::unordered_set<ElementRef, RecordHash> refs{ElementRef{1, 1, 1, {}, {}}, ElementRef{1, 1, 1, {}, {}},
                                                  ElementRef{1, 1, 1, 5, {}}};
  EXPECT_EQ(refs.size(), 2u);
}

}  // namespace
}  // namespace glimmerstrand::core
