// glimmerstrand-native: with the argument `daemon`, the daemon; without it,
// the line protocol on standard input and output.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <thread>

#include "core/desktop.h"
#include "core/runner.h"
#include "mirror/allocator.h"
#include "native/agent_cursor.h"
#include "native/capture_operations.h"
#include "native/cypher_operation.h"
#include "native/daemon.h"
#include "native/gateway_operations.h"
#include "native/in_process_driver.h"
#include "native/line_operations.h"
#include "native/line_protocol.h"
#include "native/mirror_operations.h"
#include "native/operations.h"
#include "native/run_timings.h"
#include "platform/run_loop.h"
#include "platform/select_platform.h"

using namespace glimmerstrand;

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--version") == 0) {
    std::cout << "glimmerstrand-native " GLIMMERSTRAND_VERSION "\n";
    return 0;
  }
  native::fixAllocatorThresholds();
  // The platform is chosen at start. Without one the process still runs, the
  // operations that need it say why it is missing, and a Linux desktop that
  // comes later is found by the next operation that needs it. The texts shown
  // to agents are those of the desktop served, or to be served.
  static platform::PlatformSource source(std::getenv("GLIMMERSTRAND_PLATFORM"), std::getenv("GLIMMERSTRAND_SIM_APPS"));
  core::setCurrentDesktop(source.desktopName() == "linux" ? core::Desktop::linuxDesktop : core::Desktop::mac);
  static native::MirrorHost mirrorHost([](std::string& problem) { return source.find(problem); });
  platform::RunLoop& mainLoop = source.mainLoop();

  // The queues come first: the driver runs its input through the same typed
  // operations and the same serial queue as the line protocol, in both modes.
  static native::Queues queues;
  static native::AgentCursor cursor(mirrorHost.overlay(), mainLoop, native::cursorEnabledFromEnvironment());
  const native::PlatformOf platformOf = []() -> platform::Platform& { return mirrorHost.platform(); };
  static native::Capturer capturer(platformOf);
  static native::InProcessDriver driver(queues, mirrorHost, capturer, &cursor);
  static core::CypherRunner runner(driver, core::GraphMemory::shared(), native::waitingClock());
  static native::OperationTable operations;
  native::addProcessOperations(operations);
  native::addMirrorOperations(operations, mirrorHost);
  native::addMenuOperations(operations, mirrorHost);
  native::addElementOperations(operations, mirrorHost);
  native::addInputOperations(operations, mirrorHost);
  native::addApplicationOperations(operations, mirrorHost);
  native::addGatewayOperations(operations, native::Output::shared());
  native::addCypherOperation(operations, runner);
  native::addCaptureOperations(operations, platformOf, capturer);

  if (argc > 1 && std::strcmp(argv[1], "daemon") == 0)
    return native::runDaemon(native::DaemonParts{runner, mirrorHost, mainLoop});

  std::thread([] {
    static native::LineHost host(operations, queues, native::Output::shared());
    host.readRequests(0);
    // End of input ends the process at once, even while operations run: only
    // replies a moment from done get a short grace. No destructors run, so
    // workers still busy cannot trip over torn-down state.
    host.waitForReplies(std::chrono::milliseconds(100));
    ::_exit(0);
  }).detach();
  mirrorHost.startObserving();
  mainLoop.run();
  return 0;
}
