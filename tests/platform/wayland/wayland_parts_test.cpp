// The parts of the Wayland backend that need no compositor: our keymap as
// the compositor's XKB compiles it, sway's tree read into windows, toplevels
// matched to applications by app id, and captured pixels of each format.
#include <gtest/gtest.h>
#include <wayland-client-protocol.h>
#include <xkbcommon/xkbcommon.h>

#include <memory>
#include <set>

#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_keymap.h"
#include "platform/wayland/wayland_screen.h"
#include "platform/wayland/wayland_windows.h"

namespace glimmerstrand::platform::wayland_desktop {
namespace {

using Context = std::unique_ptr<xkb_context, decltype(&xkb_context_unref)>;
using Keymap = std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)>;
using KeyState = std::unique_ptr<xkb_state, decltype(&xkb_state_unref)>;

// The keymap as a compositor compiles it; null when it does not compile.
Keymap compiled(const WaylandKeymap& keymap) {
  static Context context(xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES), xkb_context_unref);
  return Keymap(xkb_keymap_new_from_string(context.get(), keymap.text().c_str(), XKB_KEYMAP_FORMAT_TEXT_V1,
                                           XKB_KEYMAP_COMPILE_NO_FLAGS),
                xkb_keymap_unref);
}

// What a key types with or without shift held, as a client reads it.
std::uint32_t typed(xkb_keymap* keymap, std::uint16_t code, bool shift) {
  KeyState state(xkb_state_new(keymap), xkb_state_unref);
  if (shift) xkb_state_update_mask(state.get(), shiftMask, 0, 0, 0, 0, 0);
  return xkb_state_key_get_utf32(state.get(), code + 8);
}

TEST(WaylandKeymap, EveryNamedKeyTypesWhatItsNameSays) {
  WaylandKeymap keymap;
  auto xkb = compiled(keymap);
  ASSERT_TRUE(xkb) << keymap.text();
  struct Case {
    const char* name;
    char32_t typed;  // 0: a key that types nothing
  };
  for (auto c :
       {Case{"a", U'a'}, Case{"z", U'z'}, Case{"0", U'0'}, Case{"=", U'='}, Case{"`", U'`'}, Case{"\\", U'\\'},
        Case{"space", U' '}, Case{"return", U'\r'}, Case{"enter", U'\r'}, Case{"tab", U'\t'}, Case{"escape", 0x1b},
        Case{"backspace", 0x08}, Case{"delete", 0x08}, Case{"forwarddelete", 0x7f}, Case{"left", 0}, Case{"f12", 0}}) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(keymap.keyCodes().count(c.name));
    const auto code = keymap.keyCodes().at(c.name);
    EXPECT_EQ(typed(xkb.get(), code, false), c.typed);
    KeyState state(xkb_state_new(xkb.get()), xkb_state_unref);
    EXPECT_NE(xkb_state_key_get_one_sym(state.get(), code + 8), XKB_KEY_NoSymbol) << "the key has a keysym";
  }
}

TEST(WaylandKeymap, ModifierKeysHoldTheirModifiers) {
  WaylandKeymap keymap;
  auto xkb = compiled(keymap);
  ASSERT_TRUE(xkb);
  for (auto [mask, name] : {std::pair{shiftMask, XKB_MOD_NAME_SHIFT}, std::pair{controlMask, XKB_MOD_NAME_CTRL},
                            std::pair{altMask, XKB_MOD_NAME_ALT}, std::pair{superMask, XKB_MOD_NAME_LOGO}}) {
    SCOPED_TRACE(name);
    KeyState state(xkb_state_new(xkb.get()), xkb_state_unref);
    xkb_state_update_key(state.get(), WaylandKeymap::modifierKey(mask) + 8, XKB_KEY_DOWN);
    EXPECT_EQ(xkb_state_serialize_mods(state.get(), XKB_STATE_MODS_DEPRESSED), mask);
    EXPECT_EQ(xkb_state_mod_name_is_active(state.get(), name, XKB_STATE_MODS_EFFECTIVE), 1);
  }
}

TEST(WaylandKeymap, EveryCharacterOfATextHasAKeyAfterTheKeymapIsSentAgainWhereItNeedsOne) {
  WaylandKeymap keymap;
  struct Case {
    char32_t character;
    bool shift;
    bool changesKeymap;
  };
  // The shifted characters of a US keyboard take shift; others take a spare key once.
  for (auto c :
       {Case{U'q', false, false}, Case{U'Q', true, false}, Case{U'!', true, false}, Case{U'~', true, false},
        Case{U'é', false, true}, Case{U'日', false, true}, Case{U'😀', false, true}, Case{U'é', false, false}}) {
    SCOPED_TRACE(static_cast<std::uint32_t>(c.character));
    bool changed = false;
    const KeyStroke stroke = keymap.strokeFor(c.character, changed);
    EXPECT_EQ(changed, c.changesKeymap);
    EXPECT_EQ(stroke.shift, c.shift);
    auto xkb = compiled(keymap);
    ASSERT_TRUE(xkb) << keymap.text();
    EXPECT_EQ(typed(xkb.get(), stroke.code, stroke.shift), c.character);
  }
}

TEST(WaylandKeymap, SpareKeysAreTakenInTurnAndTheOldestCharacterLosesItsKey) {
  WaylandKeymap keymap;
  bool changed = false;
  const auto first = keymap.strokeFor(0x4e00, changed).code;
  std::set<std::uint16_t> codes{first};
  char32_t c = 0x4e01;
  // Until the first spare comes round again.
  for (;; ++c) {
    const auto code = keymap.strokeFor(c, changed).code;
    ASSERT_TRUE(changed);
    if (code == first) break;
    EXPECT_TRUE(codes.insert(code).second) << "a spare key taken twice before every other";
  }
  EXPECT_GT(codes.size(), 100u) << "enough spare keys for a line of text";
  // The first character's key now types the last; the first takes another.
  auto xkb = compiled(keymap);
  ASSERT_TRUE(xkb);
  EXPECT_EQ(typed(xkb.get(), first, false), c);
  EXPECT_NE(keymap.strokeFor(0x4e00, changed).code, first);
  EXPECT_TRUE(changed);
}

TEST(SwayTree, WindowsAreReadWithTheirPlaceOnTheDesktop) {
  // A tiled GTK window beside a floating one that draws its own shadow, and an X client's class.
  const std::string tree = R"({"id":1,"type":"root","nodes":[{"id":2,"type":"output","nodes":[
    {"id":3,"type":"workspace","name":"1","nodes":[
      {"id":4,"type":"con","pid":101,"app_id":"galculator","name":"galculator","focused":true,"visible":true,
       "rect":{"x":0,"y":0,"width":640,"height":800},"window_rect":{"x":2,"y":3,"width":636,"height":795},
       "geometry":{"x":0,"y":0,"width":636,"height":795},"nodes":[]},
      {"id":5,"type":"con","name":"split","nodes":[
        {"id":6,"type":"con","pid":102,"app_id":null,"name":"xterm","visible":false,
         "window_properties":{"class":"XTerm"},
         "rect":{"x":640,"y":0,"width":640,"height":800},"window_rect":{"x":0,"y":0,"width":640,"height":800},
         "geometry":{"x":0,"y":0,"width":640,"height":800},"nodes":[]}]}],
     "floating_nodes":[
      {"id":7,"type":"floating_con","pid":103,"app_id":"org.gtk.WidgetFactory","name":"Widget Factory",
       "visible":true,"rect":{"x":300,"y":200,"width":500,"height":400},
       "window_rect":{"x":0,"y":0,"width":500,"height":400},"geometry":{"x":26,"y":23,"width":500,"height":400},
       "nodes":[]}]}]}]})";
  const auto views = parseSwayTree(tree);
  ASSERT_EQ(views.size(), 3u);
  struct Case {
    std::int32_t pid;
    const char* appId;
    const char* title;
    AxRect frame;
    AxPoint surface;
    bool focused;
  };
  const Case expected[] = {{101, "galculator", "galculator", {2, 3, 636, 795}, {2, 3}, true},
                           {102, "XTerm", "xterm", {640, 0, 640, 800}, {640, 0}, false},
                           {103, "org.gtk.WidgetFactory", "Widget Factory", {300, 200, 500, 400}, {274, 177}, false}};
  for (std::size_t k = 0; k < views.size(); ++k) {
    SCOPED_TRACE(expected[k].title);
    EXPECT_EQ(views[k].pid, expected[k].pid);
    EXPECT_EQ(views[k].appId, expected[k].appId);
    EXPECT_EQ(views[k].title, expected[k].title);
    EXPECT_EQ(views[k].frame, expected[k].frame);
    EXPECT_EQ(views[k].surface, expected[k].surface);
    EXPECT_EQ(views[k].focused, expected[k].focused);
  }
  EXPECT_TRUE(parseSwayTree("not json").empty());
}

TEST(SwayTree, WindowsThatMovedOrChangedSizeAreToldByTheirProcess) {
  auto view = [](std::int64_t id, std::int32_t pid, AxRect frame) {
    SwayView v;
    v.id = id;
    v.pid = pid;
    v.frame = frame;
    return v;
  };
  const std::vector<SwayView> before{view(1, 11, {0, 0, 640, 800}), view(2, 12, {640, 0, 640, 800}),
                                     view(3, 13, {0, 0, 100, 100})};
  // A third window opened: the first two re-tile; the one left alone and the one that left say nothing.
  const std::vector<SwayView> after{view(1, 11, {0, 0, 426, 800}), view(2, 12, {426, 0, 427, 800}),
                                    view(4, 14, {853, 0, 427, 800})};
  EXPECT_EQ(frameChanges(before, after), (std::vector<FrameChange>{{11, true}, {12, true}, {14, true}}));
  const std::vector<SwayView> moved{view(1, 11, {10, 20, 426, 800}), view(2, 12, {426, 0, 427, 800}),
                                    view(4, 14, {853, 0, 427, 800})};
  EXPECT_EQ(frameChanges(after, moved), (std::vector<FrameChange>{{11, false}}));
  EXPECT_TRUE(frameChanges(moved, moved).empty());
}

TEST(ToplevelPids, AppIdsFindTheirApplicationOnlyWhenOneMatches) {
  const std::vector<PidCandidate> running{{11, "galculator", "galculator"},
                                          {12, "mousepad", "Mousepad"},
                                          {13, "gtk3-widget-factory", "gtk3-widget-factory"},
                                          {14, "python3", "form"},
                                          {15, "python3", "list"}};
  struct Case {
    const char* appId;
    std::int32_t pid;
  };
  for (auto c :
       {Case{"galculator", 11}, Case{"org.xfce.mousepad", 12}, Case{"MOUSEPAD", 12}, Case{"gtk3-widget-factory", 13},
        Case{"form", 14}, Case{"python3", 0}, Case{"org.gnome.Calculator", 0}, Case{"", 0}}) {
    SCOPED_TRACE(c.appId);
    EXPECT_EQ(pidForAppId(c.appId, running), c.pid);
  }
}

TEST(CapturedPixels, EveryFormatComesOutAsTopDownRgba) {
  // One red pixel above one half-transparent blue one, with four bytes of padding a row.
  struct Case {
    std::uint32_t format;
    std::vector<std::uint8_t> rows;
    bool upsideDown;
  };
  const std::vector<std::uint8_t> red = {255, 0, 0, 255}, blue = {0, 0, 255, 128};
  auto padded = [](std::vector<std::uint8_t> top, std::vector<std::uint8_t> bottom) {
    std::vector<std::uint8_t> rows = top;
    rows.insert(rows.end(), 4, 0);
    rows.insert(rows.end(), bottom.begin(), bottom.end());
    rows.insert(rows.end(), 4, 0);
    return rows;
  };
  const Case cases[] = {
      {WL_SHM_FORMAT_ARGB8888, padded({0, 0, 255, 255}, {255, 0, 0, 128}), false},
      {WL_SHM_FORMAT_ABGR8888, padded({255, 0, 0, 255}, {0, 0, 255, 128}), false},
      {WL_SHM_FORMAT_ARGB8888, padded({255, 0, 0, 128}, {0, 0, 255, 255}), true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.format);
    auto pixels = rgbaOf(c.rows.data(), c.format, 1, 2, 8, c.upsideDown);
    ASSERT_TRUE(pixels);
    EXPECT_EQ(std::vector<std::uint8_t>(pixels->rgba.begin(), pixels->rgba.begin() + 4), red);
    EXPECT_EQ(std::vector<std::uint8_t>(pixels->rgba.begin() + 4, pixels->rgba.end()), blue);
  }
  // Without alpha a pixel is opaque, whatever the padding byte holds.
  const std::vector<std::uint8_t> unused = {0, 0, 255, 7};
  EXPECT_EQ(rgbaOf(unused.data(), WL_SHM_FORMAT_XRGB8888, 1, 1, 4, false)->rgba, red);
  EXPECT_FALSE(rgbaOf(unused.data(), WL_SHM_FORMAT_RGB565, 1, 1, 4, false));
}

}  // namespace
}  // namespace glimmerstrand::platform::wayland_desktop
