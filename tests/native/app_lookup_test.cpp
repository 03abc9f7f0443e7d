#include "native/app_lookup.h"

#include <gtest/gtest.h>

#include "core/errors.h"
#include "native/line_operations.h"
#include "platform/sim/driven_clock.h"
#include "platform/sim/sim_desktop.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;
using platform::sim::AppSpec;

AppSpec app(std::int32_t pid, std::string name, std::string bundleId, std::string bundlePath = "") {
  AppSpec spec;
  spec.pid = pid;
  spec.name = std::move(name);
  spec.bundleId = std::move(bundleId);
  spec.bundlePath = std::move(bundlePath);
  return spec;
}

platform::sim::DesktopSpec threeApps() {
  platform::sim::DesktopSpec spec;
  spec.apps = {app(10, "Notes", "com.example.notes", "/opt/apps/Quick Notes.app"), app(11, "Mail", "com.example.mail"),
               app(12, "Notes", "org.other.notes"), app(13, "helper", "", "/usr/bin/helper")};
  spec.apps[1].frontmost = true;
  return spec;
}

struct Lookup {
  explicit Lookup(const platform::sim::DesktopSpec& spec = threeApps()) : desktop(spec, clock, clock.mainLoop()) {}
  ~Lookup() { clock.runUntilIdle(); }
  std::int32_t find(JSONValue::Object params) {
    return lookup.findApp(appQueryOf(JSONValue(std::move(params))).keys).pid;
  }
  /// "code: message" of a selection that must fail.
  std::string failed(JSONValue::Object params) {
    try {
      lookup.selectApp(appQueryOf(JSONValue(std::move(params))));
    } catch (const core::GlimmerstrandError& e) {
      return e.code() + ": " + e.message();
    }
    return "selected";
  }

  platform::sim::DrivenClock clock;
  platform::sim::SimDesktop desktop;
  AppLookup lookup{desktop.workspace()};
};

TEST(AppLookup, EachKeyThatFindsNothingLeadsToTheNext) {
  Lookup l;
  struct Case {
    const char* name;
    JSONValue::Object params;
    std::int32_t pid;
  };
  const Case cases[] = {
      {"pid", {{"pid", 11}}, 11},
      {"bundle id", {{"bundleId", "org.other.notes"}}, 12},
      {"name, first of two", {{"name", "Notes"}}, 10},
      {"bundle id as a name", {{"name", "COM.EXAMPLE.MAIL"}}, 11},
      {"bundle file without extension", {{"name", "quick notes"}}, 10},
      {"missing pid, then name", {{"pid", 4242}, {"name", "mail"}}, 11},
      {"pid beyond 32 bits, then bundle id", {{"pid", 4294967307.0}, {"bundleId", "com.example.mail"}}, 11},
      {"empty bundle id names no application without one", {{"bundleId", ""}, {"name", "mail"}}, 11},
  };
  for (const auto& c : cases) EXPECT_EQ(l.find(c.params), c.pid) << c.name;
}

TEST(AppLookup, NamesMatchWholeAndNothingFallsBackToTheFront) {
  Lookup l;
  EXPECT_EQ(l.failed({{"name", "Note"}}), "not_found: アプリが見つかりません");
  EXPECT_EQ(l.failed({{"pid", 99}}), "not_found: アプリが見つかりません");
  // A key given with a value that names nothing is still a key.
  EXPECT_EQ(l.failed({{"pid", "eleven"}}), "not_found: アプリが見つかりません");
  EXPECT_EQ(l.failed({{"pid", 11.5}}), "not_found: アプリが見つかりません");
  EXPECT_EQ(l.lookup.selectApp(AppQuery{}).pid, 11);
  EXPECT_EQ(l.lookup.selectApp(core::AppSelector{}).pid, 11);
}

TEST(AppLookup, ARememberedNameIsCheckedBeforeItIsBelieved) {
  Lookup l;
  EXPECT_EQ(l.find({{"name", "mail"}}), 11);
  l.desktop.workspace().terminate(11);
  l.desktop.addApp(app(21, "Mail", "com.example.mail"));
  EXPECT_EQ(l.find({{"name", "mail"}}), 21);
  // A reused pid that now belongs to another application does not match.
  l.desktop.workspace().terminate(21);
  l.desktop.addApp(app(21, "Calendar", "com.example.calendar"));
  l.desktop.addApp(app(22, "Mail", "com.example.mail"));
  EXPECT_EQ(l.find({{"name", "mail"}}), 22);
}

TEST(AppLookup, WithoutAFrontmostApplicationTheSelectorFails) {
  Lookup empty(platform::sim::DesktopSpec{});
  EXPECT_EQ(empty.failed({}), "native: 最前面のアプリがわかりません");
}

}  // namespace
}  // namespace glimmerstrand::native
