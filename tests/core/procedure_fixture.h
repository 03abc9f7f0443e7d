// A mail window behind the recording driver, and the helpers the procedure
// tests share: run a script, read back the driver calls after the first
// snapshot, and catch a failure whether the run threw it or returned it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/errors.h"
#include "core/runner.h"
#include "fake_driver.h"

namespace glimmerstrand::core::testing {

using Lines = std::vector<std::string>;

inline AxNode framed(AxNode n, Rect frame) {
  n.frame = frame;
  return n;
}

inline const std::string settleCall = R"(waitSettle {"pid":501,"since":10,"quietMs":60,"firstMs":150})";
inline const std::string freshRead = R"(axSnapshot {"pid":501,"fresh":true,"all":true,"timeoutMs":5000})";
inline const std::string counterCall = R"(axCounter {"pid":501})";
/// The check before pointer input: the screen lock, then the application to the front.
inline const std::string frontCalls[] = {"screenLocked", R"(activate {"pid":501})", "frontmost"};

class ProcedureTest : public ::testing::Test {
 protected:
  ProcedureTest() {
    // e100 window, e101 "To" field, e102 "Send", e103 a scroll area over the
    // list e104, which runs past it; e105.. rows without frames.
    driver.nodes = {framed(node(0, -1, "AXWindow", "Mail"), {0, 0, 800, 600}),
                    framed(node(1, 0, "AXTextField", "To", "a"), {10, 10, 200, 20}),
                    framed(node(2, 0, "AXButton", "Send"), {300, 10, 80, 20}),
                    framed(node(3, 0, "AXScrollArea"), {0, 100, 400, 300}),
                    framed(node(4, 3, "AXList"), {0, 100, 400, 900})};
    for (int k = 0; k < 30; ++k) driver.nodes.push_back(node(5 + k, 4, "AXStaticText", std::nullopt, "r"));
  }

  CypherResult run(std::string_view script) {
    driver.calls.clear();
    clock.slept.clear();
    return runner.run(script, std::nullopt, false);
  }

  /// The calls of the last run after its first snapshot.
  Lines calls() const { return Lines(driver.calls.begin() + 1, driver.calls.end()); }

  /// The failure of a script, thrown or returned in the result.
  std::pair<std::string, std::string> failure(std::string_view script) {
    try {
      auto r = run(script);
      if (r.error) return {r.errorCode.value_or(""), r.error->message};
    } catch (const std::exception& e) {
      return {errorCode(e).value_or(""), errorMessage(e)};
    }
    ADD_FAILURE() << "no failure: " << script;
    return {};
  }

  static std::string ref(std::int64_t i, std::int64_t uid = -1) {
    return R"({"pid":501,"generation":1,"i":)" + std::to_string(i) + R"(,"uid":)" +
           std::to_string(uid < 0 ? i + 100 : uid) + "}";
  }

  FakeDriver driver;
  GraphMemory memory;
  ManualClock clock;
  CypherRunner runner{driver, memory, clock};
};

}  // namespace glimmerstrand::core::testing
