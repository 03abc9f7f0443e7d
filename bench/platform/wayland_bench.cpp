// What the Wayland devices cost on a headless sway of the bench's own
// (1280x800, the pixman renderer, galculator beside mousepad, which is in
// front): a key to the application that is not in front, its window given
// the focus and the focus given back, up to the compositor's answer; a
// screenshot of the whole output encoded as the daemon encodes it; one
// application's window alone; the clipboard set and read back, by us and by
// another client. Each warms up for a second first.
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "native/image_encoding.h"
#include "platform/linux/atspi_accessibility.h"
#include "platform/linux/glib_run_loop.h"
#include "platform/linux/test_desktop.h"
#include "platform/wayland/sway_ipc.h"
#include "platform/wayland/wayland_client.h"
#include "platform/wayland/wayland_input.h"
#include "platform/wayland/wayland_pasteboard.h"
#include "platform/wayland/wayland_screen.h"
#include "platform/wayland/wayland_windows.h"

namespace {

namespace lx = glimmerstrand::platform::linux_desktop;
namespace wl = glimmerstrand::platform::wayland_desktop;

std::unique_ptr<wl::WaylandClient> connected() {
  std::string problem;
  auto client = wl::WaylandClient::connect(problem);
  if (!client) throw std::runtime_error(problem);
  return client;
}

// The devices as the platform makes them, and their connection, whose round
// trip tells when the compositor has handled what was sent.
struct Bench {
  glimmerstrand::testing::TestDesktop desktop{{"galculator", "mousepad"}, false, "sway"};
  lx::GlibRunLoop loop;
  lx::AtspiBus bus;
  std::unique_ptr<wl::WaylandClient> client = connected();
  lx::AtspiAccessibility accessibility{bus, loop};
  wl::WaylandWindows windows{*client, loop, accessibility};
  wl::WaylandInput input{*client, windows};
  wl::WaylandPasteboard pasteboard{*client};
  wl::WaylandScreen screen{*client};
  std::int32_t calculator = desktop.pid("galculator"), editor = desktop.pid("mousepad");

  static lx::AtspiBus busOrThrow() {
    std::string problem;
    auto bus = lx::AtspiBus::connect(problem);
    if (!bus) throw std::runtime_error(problem);
    return std::move(*bus);
  }

  Bench() : bus(busOrThrow()) {
    windows.activate(editor);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (windows.frontPid() != editor) {
      if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("the editor did not come to the front");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
};

Bench& bench() {
  static Bench shared;
  return shared;
}

std::vector<std::uint8_t> jpeg(const glimmerstrand::platform::Pixels& pixels) {
  glimmerstrand::native::RgbaImage image{pixels.width, pixels.height, pixels.rgba};
  return glimmerstrand::native::encodeImage(image, "jpeg", 0.8);
}

void KeyToBackgroundApplication(benchmark::State& state) {
  auto& b = bench();
  const auto shift = b.input.modifierKeys().at("shift").keyCode;
  for (auto _ : state) {
    // Shift alone changes nothing in the calculator, however often it is pressed.
    if (!b.input.postKey({shift, true, 0, {}}, b.calculator) || !b.input.postKey({shift, false, 0, {}}, b.calculator))
      state.SkipWithError("the key was not sent");
    // The focus, the key and the focus given back have been handled.
    if (!b.client->settle(std::chrono::seconds(1))) state.SkipWithError("no answer");
    // At an agent's pace: a compositor cuts off a client that cannot read
    // its events as fast as thousands of focus changes a second bring them.
    state.PauseTiming();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    state.ResumeTiming();
  }
}
BENCHMARK(KeyToBackgroundApplication)->Unit(benchmark::kMillisecond)->Iterations(300);

void ScreenshotOfTheDisplayAsJpeg(benchmark::State& state) {
  auto& b = bench();
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto pixels = b.screen.capture({0, 0, 1280, 800}, 1, std::nullopt);
    if (!pixels) state.SkipWithError("no pixels");
    bytes = jpeg(*pixels).size();
  }
  state.counters["jpegBytes"] = static_cast<double>(bytes);
}
BENCHMARK(ScreenshotOfTheDisplayAsJpeg)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void ScreenshotOfTheDisplayPixelsOnly(benchmark::State& state) {
  auto& b = bench();
  for (auto _ : state) benchmark::DoNotOptimize(b.screen.capture({0, 0, 1280, 800}, 1, std::nullopt));
}
BENCHMARK(ScreenshotOfTheDisplayPixelsOnly)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void OneApplicationsWindowAloneAsJpeg(benchmark::State& state) {
  auto& b = bench();
  std::optional<glimmerstrand::platform::AxRect> region;
  if (auto socket = wl::swaySocket())
    for (const auto& view : wl::parseSwayTree(wl::swayRequest(*socket, 4, "", std::chrono::seconds(1)).value_or("")))
      if (view.pid == b.calculator) region = view.frame;
  if (!region) {
    state.SkipWithError("the calculator has no window");
    return;
  }
  state.counters["width"] = region->width;
  state.counters["height"] = region->height;
  for (auto _ : state) {
    auto pixels = b.screen.capture(*region, 1, b.calculator);
    if (!pixels) state.SkipWithError("no pixels");
    benchmark::DoNotOptimize(jpeg(*pixels));
  }
}
BENCHMARK(OneApplicationsWindowAloneAsJpeg)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void ClipboardSetAndRead(benchmark::State& state) {
  auto& b = bench();
  for (auto _ : state)
    if (!b.pasteboard.writeText("glimmerstrand bench") || b.pasteboard.readText() != "glimmerstrand bench")
      state.SkipWithError("the clipboard did not carry the text");
}
BENCHMARK(ClipboardSetAndRead)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

// The same text read on a connection of its own: the compositor passes a
// pipe to our source, whose events another thread answers, as an
// application's paste is.
void ClipboardSetAndReadByAnotherClient(benchmark::State& state) {
  auto& b = bench();
  static auto otherClient = connected();
  static wl::WaylandPasteboard other(*otherClient);
  for (auto _ : state) {
    if (!b.pasteboard.writeText("glimmerstrand bench")) state.SkipWithError("not set");
    // The other connection hears of the new selection in its own time.
    otherClient->settle(std::chrono::seconds(1));
    if (other.readText() != "glimmerstrand bench") state.SkipWithError("the clipboard did not carry the text");
  }
}
BENCHMARK(ClipboardSetAndReadByAnotherClient)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

}  // namespace
