// A line client driving glimmerstrand-native on the simulated desktop: list
// the applications, open one by its Japanese name, type into its focused
// field, press a menu item by its m-id and read what it did.
#include <gtest/gtest.h>

#include <string>

#include "core/json_value.h"
#include "support/line_client.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using glimmerstrand::testing::LineClient;

std::int64_t uidOf(const JSONValue& copy, const std::string& identifier) {
  for (const auto& node : *copy.find("nodes")->asArray())
    if (core::optionalString(node, "identifier") == identifier) return *core::optionalInt(node, "uid");
  throw std::runtime_error("no node " + identifier);
}

TEST(ActionsEndToEnd, OpenByJapaneseNameTypeAndPressAMenuItem) {
  // The built-in demo desktop.
  LineClient client(GLIMMERSTRAND_NATIVE_BINARY, {{"GLIMMERSTRAND_PLATFORM", "sim"}, {"GLIMMERSTRAND_SIM_APPS", ""}});
  auto apps = client.call("apps", JSONValue::Object{});
  ASSERT_EQ(apps.asArray()->size(), 3u);
  EXPECT_EQ(core::optionalString(apps.asArray()->front(), "name"), "Calculator");

  auto notes = client.call("launch", JSONValue::Object{{"name", "メモ"}});
  ASSERT_EQ(core::optionalInt(notes, "pid"), 504);
  const JSONValue pid = std::int64_t{504};

  auto typed = client.call("type", JSONValue::Object{{"text", "Dear diary"}, {"pid", pid}});
  EXPECT_EQ(core::optionalBool(typed, "seen"), true);

  auto menus = client.call("axMenus", JSONValue::Object{{"pid", pid}});
  auto pressed =
      client.call("press", JSONValue::Object{{"pid", pid}, {"uid", uidOf(menus, "signature")}, {"menu", true}});
  // Whether the press call itself came back before the application's first
  // notification is a race; what it did shows in the note below.
  EXPECT_EQ(core::optionalString(pressed, "method"), "press");

  auto copy = client.call("axSnapshot", JSONValue::Object{{"pid", pid}, {"fresh", true}, {"all", true}});
  auto text = client.call("readText", JSONValue::Object{{"pid", pid}, {"uid", uidOf(copy, "note")}});
  EXPECT_EQ(core::optionalString(text, "text"), "Dear diary\n— sent from Notes");
}

}  // namespace
}  // namespace glimmerstrand::native
