// What the X11 devices cost on a headless desktop of the bench's own (Xvfb
// 1280x800, openbox, galculator behind mousepad): a key to an application
// that is not in front, focus taken and given back included; a screenshot
// of the whole display encoded as the daemon encodes it; one application's
// window alone; the clipboard set and read back. Each warms up for a second
// first: applications just started keep the server busy for a while.
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "native/image_encoding.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_pasteboard.h"
#include "platform/x11_desktop.h"

namespace {

using glimmerstrand::platform::Platform;

struct Bench {
  glimmerstrand::testing::TestDesktop desktop{{"galculator", "mousepad"}, true};
  std::unique_ptr<Platform> platform;
  std::int32_t calculator = 0, editor = 0;

  Bench() {
    std::string problem;
    platform = glimmerstrand::platform::linux_desktop::makeLinuxPlatform(problem);
    if (!platform) throw std::runtime_error(problem);
    calculator = desktop.pid("galculator");
    editor = desktop.pid("mousepad");
    auto& workspace = platform->workspace();
    workspace.activate(editor);
    if (!glimmerstrand::testing::eventually([&] {
          return workspace.frontmost().value_or(glimmerstrand::platform::RunningApplication{}).pid == editor;
        }))
      throw std::runtime_error("the editor did not come to the front");
  }
};

// One desktop for every benchmark, stopped when the program ends.
Bench& bench() {
  static Bench shared;
  return shared;
}

// The encoding the daemon's captures use: JPEG at the quality of a region's capture.
std::vector<std::uint8_t> jpeg(const glimmerstrand::platform::Pixels& pixels) {
  glimmerstrand::native::RgbaImage image{pixels.width, pixels.height, pixels.rgba};
  return glimmerstrand::native::encodeImage(image, "jpeg", 0.8);
}

void KeyToBackgroundApplication(benchmark::State& state) {
  auto& b = bench();
  auto& input = b.platform->input();
  const auto shift = input.modifierKeys().at("shift").keyCode;
  for (auto _ : state) {
    // Shift alone changes nothing in the calculator, however often it is pressed.
    if (!input.postKey({shift, true, 0, {}}, b.calculator) || !input.postKey({shift, false, 0, {}}, b.calculator))
      state.SkipWithError("the key was not sent");
    // A round trip to the server: the key and the focus given back have been handled.
    benchmark::DoNotOptimize(input.pointerLocation());
  }
}
BENCHMARK(KeyToBackgroundApplication)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void ScreenshotOfTheDisplayAsJpeg(benchmark::State& state) {
  auto& screen = bench().platform->screen();
  std::size_t bytes = 0;
  for (auto _ : state) {
    auto pixels = screen.capture({0, 0, 1280, 800}, 1, std::nullopt);
    if (!pixels) state.SkipWithError("no pixels");
    bytes = jpeg(*pixels).size();
  }
  state.counters["jpegBytes"] = static_cast<double>(bytes);
}
BENCHMARK(ScreenshotOfTheDisplayAsJpeg)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void ScreenshotOfTheDisplayPixelsOnly(benchmark::State& state) {
  auto& screen = bench().platform->screen();
  for (auto _ : state) benchmark::DoNotOptimize(screen.capture({0, 0, 1280, 800}, 1, std::nullopt));
}
BENCHMARK(ScreenshotOfTheDisplayPixelsOnly)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void OneApplicationsWindowAloneAsJpeg(benchmark::State& state) {
  auto& b = bench();
  auto* x = glimmerstrand::platform::linux_desktop::openX11();
  auto window = glimmerstrand::platform::linux_desktop::topWindowOf(x, b.calculator);
  glimmerstrand::platform::linux_desktop::closeX11(x);
  if (!window) {
    state.SkipWithError("the calculator has no window");
    return;
  }
  auto& screen = b.platform->screen();
  // The calculator lies behind the editor: its own pixels come from XComposite.
  const auto region = window->frame;
  state.counters["width"] = region.width;
  state.counters["height"] = region.height;
  for (auto _ : state) {
    auto pixels = screen.capture(region, 1, b.calculator);
    if (!pixels) state.SkipWithError("no pixels");
    benchmark::DoNotOptimize(jpeg(*pixels));
  }
}
BENCHMARK(OneApplicationsWindowAloneAsJpeg)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

// The listing of every window with its process that a capture of one
// application starts with.
void ListingTheClientWindows(benchmark::State& state) {
  bench();
  auto* x = glimmerstrand::platform::linux_desktop::openX11();
  for (auto _ : state) benchmark::DoNotOptimize(glimmerstrand::platform::linux_desktop::clientWindows(x));
  glimmerstrand::platform::linux_desktop::closeX11(x);
}
BENCHMARK(ListingTheClientWindows)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

void ClipboardSetAndRead(benchmark::State& state) {
  auto& board = bench().platform->pasteboard();
  for (auto _ : state) {
    if (!board.writeText("glimmerstrand bench") || board.readText() != "glimmerstrand bench")
      state.SkipWithError("the clipboard did not carry the text");
  }
}
BENCHMARK(ClipboardSetAndRead)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

// The same text read by another X client: a conversion through the server,
// answered by the owner's helper thread, as an application's paste is.
void ClipboardSetAndReadByAnotherClient(benchmark::State& state) {
  auto& board = bench().platform->pasteboard();
  static glimmerstrand::platform::linux_desktop::X11Pasteboard other;
  for (auto _ : state) {
    if (!board.writeText("glimmerstrand bench") || other.readText() != "glimmerstrand bench")
      state.SkipWithError("the clipboard did not carry the text");
  }
}
BENCHMARK(ClipboardSetAndReadByAnotherClient)->Unit(benchmark::kMillisecond)->MinWarmUpTime(1);

}  // namespace
