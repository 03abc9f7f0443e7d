// What the test programs on a real desktop share: the suite's desktop,
// started once for all its cases and stopped by pid when the suite ends;
// when a suite asks, the linux platform in this process with its main loop
// on a thread of its own; glimmerstrand-native in line mode on that desktop;
// and reading captured pixels.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/linux_platform.h"
#include "platform/linux/test_desktop.h"
#include "support/line_client.h"

namespace glimmerstrand::testing {

/// The colour of one pixel as 0xRRGGBB.
inline std::uint32_t pixelAt(const platform::Pixels& p, std::int64_t x, std::int64_t y) {
  const auto* px = &p.rgba[static_cast<std::size_t>((y * p.width + x) * 4)];
  return (std::uint32_t{px[0]} << 16) | (std::uint32_t{px[1]} << 8) | px[2];
}

/// A fixture whose cases share one desktop. A suite starts it in its
/// SetUpTestSuite with startSuite, and ends it in TearDownTestSuite with
/// endSuite; a case that finds no desktop fails, saying why.
class DesktopSuite : public ::testing::Test {
 protected:
  static void startSuite(const std::vector<std::string>& apps, bool windowManager = true,
                         const std::string& compositor = "") {
    desktop_ = startDesktop(apps, problem_, windowManager, compositor);
  }
  static void endSuite() {
    if (loop_) {
      platform_->mainLoop().stop();
      loop_->join();
      delete loop_;
      loop_ = nullptr;
    }
    delete desktop_;
    desktop_ = nullptr;
  }
  /// Makes the linux platform in this process, its main loop running on a
  /// thread of its own when `running`; without one the desktop is ended, and
  /// the cases say why.
  static void startPlatform(bool running) {
    std::string problem;
    if (desktop_) platform_ = platform::linux_desktop::makeLinuxPlatform(problem).release();
    if (!platform_) {
      problem_ += problem;
      endSuite();
    } else if (running) {
      loop_ = new std::thread([] { platform_->mainLoop().run(); });
    }
  }
  void SetUp() override { ASSERT_NE(desktop_, nullptr) << "the desktop did not start: " << problem_; }

  /// glimmerstrand-native in line mode on the suite's desktop, whose
  /// variables this process took when it started.
  static std::unique_ptr<LineClient> lineClient(const std::string& platform = "linux") {
    return std::make_unique<LineClient>(GLIMMERSTRAND_NATIVE_BINARY,
                                        std::map<std::string, std::string>{{"GLIMMERSTRAND_PLATFORM", platform}});
  }

  inline static TestDesktop* desktop_ = nullptr;
  inline static std::string problem_;
  /// The suite's own platform, when it makes one: it lives as long as the
  /// process, as in the daemon.
  inline static platform::Platform* platform_ = nullptr;
  inline static std::thread* loop_ = nullptr;
};

}  // namespace glimmerstrand::testing
