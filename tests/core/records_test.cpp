#include "core/records.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace glimmerstrand::core {
namespace {

// Every field set, each to something other than its default.
AxNode fullNode() {
  return AxNode{4,      77,         1,
                2,      "AXButton", "AXCloseButton",
                "Play", "d",        "v",
                "id",   "p",        Rect{1, 2.5, 3, 4},
                false,  true,       "h",
                true,   false,      "⌘C",
                true,   true,       "https://example.com/",
                "det",  12};
}

TEST(AxNodeJson, RoundTripsAndAbsentOptionalsLeaveNoKey) {
  EXPECT_EQ(axNodeFromJSON(parseJSON(jsonText(toJSON(fullNode())))), fullNode());
  AxNode bare;
  bare.i = 3;
  EXPECT_EQ(jsonText(toJSON(bare)), R"({"i":3,"parent":-1,"depth":0})");
  EXPECT_EQ(axNodeFromJSON(toJSON(bare)), bare);
}

TEST(AxNodeJson, ReadBackDefaultsAndLenientTypes) {
  AxNode n = axNodeFromJSON(parseJSON(R"({"uid":5.0,"role":7,"enabled":0,"frame":{"x":1}})"));
  AxNode expected;
  expected.uid = 5;
  expected.enabled = false;  // a number reads as a bool; a number is no role, an incomplete frame no frame
  EXPECT_EQ(n, expected);
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
