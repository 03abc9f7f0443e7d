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

TEST(AxNodeJson, KeysInOrderAndAbsentOptionalsLeaveNoKey) {
  EXPECT_EQ(jsonText(toJSON(fullNode())),
            R"({"i":4,"uid":77,"parent":1,"depth":2,"role":"AXButton","subrole":"AXCloseButton","title":"Play",)"
            R"("description":"d","value":"v","identifier":"id","placeholder":"p",)"
            R"("frame":{"x":1,"y":2.5,"width":3,"height":4},"enabled":false,"focused":true,"help":"h",)"
            R"("selected":true,"expanded":false,"shortcut":"⌘C","checked":true,"menu":true,)"
            R"("url":"https://example.com/","details":"det","offscreen":12})");
  AxNode bare;
  bare.i = 3;
  EXPECT_EQ(jsonText(toJSON(bare)), R"({"i":3,"parent":-1,"depth":0})");
}

TEST(SelectorJson, WrongTypesCountAsAbsent) {
  EXPECT_EQ(appSelectorFromJSON(parseJSON(R"({"pid":9,"bundleId":7,"name":"n"})")),
            (AppSelector{9, std::nullopt, "n"}));
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
