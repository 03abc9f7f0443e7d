// The pasteboard, screen, session and overlay of the simulated desktop.
#include <algorithm>
#include <cmath>
#include <functional>
#include <unordered_map>

#include "platform/sim/recording_painter.h"
#include "platform/sim/sim_state.h"

namespace glimmerstrand::platform::sim {

namespace {

class SimPasteboard final : public Pasteboard {
 public:
  explicit SimPasteboard(SimDesktop::State& state) : s_(state) {}

  void clear() override {
    std::lock_guard guard(s_.lock);
    s_.pasteboardText.reset();
    s_.pasteboardImage.clear();
    ++s_.pasteboardChanges;
  }
  std::optional<std::string> readText() override {
    std::lock_guard guard(s_.lock);
    return s_.pasteboardText;
  }
  bool writeText(const std::string& text) override {
    std::lock_guard guard(s_.lock);
    s_.pasteboardText = text;
    s_.pasteboardImage.clear();
    ++s_.pasteboardChanges;
    return true;
  }
  bool writeImage(ImageFormat, const std::vector<std::uint8_t>& bytes) override {
    std::lock_guard guard(s_.lock);
    s_.pasteboardText.reset();
    s_.pasteboardImage = bytes;
    ++s_.pasteboardChanges;
    return true;
  }
  std::int64_t changeCount() override {
    std::lock_guard guard(s_.lock);
    return s_.pasteboardChanges;
  }

 private:
  SimDesktop::State& s_;
};

// Draws every element as a rectangle filled with a colour of its role, back
// to front, so that a capture has real pixels that follow the trees.
class SimScreen final : public Screen {
 public:
  explicit SimScreen(SimDesktop::State& state) : s_(state) {}

  std::vector<Display> displays() override {
    std::lock_guard guard(s_.lock);
    std::vector<Display> list;
    for (std::size_t i = 0; i < s_.displays.size(); ++i) {
      const auto& d = s_.displays[i];
      list.push_back(Display{d.id, d.bounds, d.scale, i == 0});
    }
    return list;
  }

  bool hasCapturePermission() override {
    std::lock_guard guard(s_.lock);
    return s_.screenRecording;
  }
  bool requestCapturePermission() override { return hasCapturePermission(); }

  std::optional<Pixels> capture(const AxRect& region, double scale, std::optional<std::int32_t> pid) override {
    std::lock_guard guard(s_.lock);
    if (!s_.screenRecording || region.width <= 0 || region.height <= 0 || scale <= 0) return std::nullopt;
    Pixels pixels;
    pixels.width = static_cast<std::int64_t>(std::floor(region.width * scale + 0.5));
    pixels.height = static_cast<std::int64_t>(std::floor(region.height * scale + 0.5));
    pixels.rgba.assign(static_cast<std::size_t>(pixels.width * pixels.height * 4), 0);
    fill(pixels, region, scale, region, 0x303030);
    std::vector<std::int32_t> order;  // back to front
    for (auto it = s_.launchOrder.rbegin(); it != s_.launchOrder.rend(); ++it)
      if (*it != s_.frontmost) order.push_back(*it);
    if (s_.runningApp(s_.frontmost)) order.push_back(s_.frontmost);
    for (auto appPid : order) {
      App& app = s_.apps[appPid];
      if (app.hidden || (pid && *pid != appPid)) continue;
      for (auto it = app.windows.rbegin(); it != app.windows.rend(); ++it) paint(pixels, region, scale, *it);
      for (auto id : app.menus) paint(pixels, region, scale, id);
    }
    return pixels;
  }

 private:
  void paint(Pixels& pixels, const AxRect& region, double scale, std::uint64_t id) {
    Node* node = s_.node(id);
    if (!node) return;
    if (node->frame) fill(pixels, region, scale, *node->frame, colourOf(node->role));
    for (auto child : node->children) paint(pixels, region, scale, child);
  }

  static std::uint32_t colourOf(const std::string& role) {
    return static_cast<std::uint32_t>(std::hash<std::string>{}(role)) & 0xFFFFFF;
  }

  static void fill(Pixels& pixels, const AxRect& region, double scale, const AxRect& rect, std::uint32_t colour) {
    auto clampX = [&](double x) {
      return std::clamp<std::int64_t>(static_cast<std::int64_t>(std::floor((x - region.x) * scale + 0.5)), 0,
                                      pixels.width);
    };
    auto clampY = [&](double y) {
      return std::clamp<std::int64_t>(static_cast<std::int64_t>(std::floor((y - region.y) * scale + 0.5)), 0,
                                      pixels.height);
    };
    std::int64_t left = clampX(rect.x), right = clampX(rect.x + rect.width);
    std::int64_t top = clampY(rect.y), bottom = clampY(rect.y + rect.height);
    for (std::int64_t y = top; y < bottom; ++y)
      for (std::int64_t x = left; x < right; ++x) {
        auto* p = &pixels.rgba[static_cast<std::size_t>((y * pixels.width + x) * 4)];
        p[0] = static_cast<std::uint8_t>(colour >> 16);
        p[1] = static_cast<std::uint8_t>(colour >> 8);
        p[2] = static_cast<std::uint8_t>(colour);
        p[3] = 255;
      }
  }

  SimDesktop::State& s_;
};

class SimSession final : public Session {
 public:
  explicit SimSession(SimDesktop::State& state) : s_(state) {}
  bool isScreenLocked() override {
    std::lock_guard guard(s_.lock);
    return s_.screenLocked;
  }

 private:
  SimDesktop::State& s_;
};

}  // namespace

std::unique_ptr<Pasteboard> makePasteboard(SimDesktop::State& state) { return std::make_unique<SimPasteboard>(state); }
std::unique_ptr<Screen> makeScreen(SimDesktop::State& state) { return std::make_unique<SimScreen>(state); }
std::unique_ptr<Session> makeSession(SimDesktop::State& state) { return std::make_unique<SimSession>(state); }
std::unique_ptr<OverlayPainter> makeOverlay(SimDesktop::State&) { return std::make_unique<RecordingPainter>(); }

}  // namespace glimmerstrand::platform::sim
