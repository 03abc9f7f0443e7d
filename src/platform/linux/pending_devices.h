// Input, clipboard, capture, screen lock and overlay of the Linux desktop
// before their X11 backends exist: each answers that it could not act, so a
// caller reports a failure instead of pretending.
#pragma once

#include "platform/input.h"
#include "platform/overlay_painter.h"
#include "platform/pasteboard.h"
#include "platform/screen.h"
#include "platform/session.h"

namespace glimmerstrand::platform::linux_desktop {

class PendingInput final : public Input {
 public:
  bool postPointer(const PointerEvent&, std::optional<std::int32_t>) override { return false; }
  bool postKey(const KeyEvent&, std::optional<std::int32_t>) override { return false; }
  bool postScroll(const ScrollEvent&, std::optional<std::int32_t>) override { return false; }
  AxPoint pointerLocation() override { return {}; }
  void warpPointer(AxPoint) override {}
  const std::unordered_map<std::string, std::uint16_t>& keyCodes() override { return keys_; }
  const std::unordered_map<std::string, ModifierKey>& modifierKeys() override { return modifiers_; }

 private:
  std::unordered_map<std::string, std::uint16_t> keys_;
  std::unordered_map<std::string, ModifierKey> modifiers_;
};

class PendingPasteboard final : public Pasteboard {
 public:
  void clear() override {}
  std::optional<std::string> readText() override { return std::nullopt; }
  bool writeText(const std::string&) override { return false; }
  bool writeImage(ImageFormat, const std::vector<std::uint8_t>&) override { return false; }
  std::int64_t changeCount() override { return 0; }
};

class PendingScreen final : public Screen {
 public:
  std::vector<Display> displays() override { return {}; }
  bool hasCapturePermission() override { return true; }
  bool requestCapturePermission() override { return true; }
  std::optional<Pixels> capture(const AxRect&, double, std::optional<std::int32_t>) override { return std::nullopt; }
};

class PendingSession final : public Session {
 public:
  bool isScreenLocked() override { return false; }
};

class PendingOverlay final : public OverlayPainter {
 public:
  PanelId createPanel(AxSize, CursorShape, std::uint32_t) override { return ++last_; }
  void move(PanelId, AxPoint, std::int64_t) override {}
  void close(PanelId) override {}
  void setAlpha(PanelId, double, std::int64_t) override {}
  void pulse(PanelId, double, std::int64_t) override {}

 private:
  PanelId last_ = 0;
};

}  // namespace glimmerstrand::platform::linux_desktop
