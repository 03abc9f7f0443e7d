// glimmerstrand-native: with the argument `daemon`, the daemon; without it,
// the line protocol on standard input and output.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "native/line_protocol.h"
#include "native/mirror_operations.h"
#include "native/operations.h"
#include "platform/run_loop.h"
#include "platform/select_platform.h"

using namespace glimmerstrand;

int main(int argc, char** argv) {
  // The platform is chosen once. Without one the process still runs, and the
  // operations that need it say why it is missing.
  static platform::PlatformChoice choice =
      platform::selectPlatform(std::getenv("GLIMMERSTRAND_PLATFORM"), std::getenv("GLIMMERSTRAND_SIM_APPS"));
  static native::MirrorHost mirrorHost(choice.platform.get(), choice.problem);

  // The table and the queues come first: the driver runs its input through the
  // same handlers and the same serial queue in both modes.
  static native::OperationTable operations;
  native::addProcessOperations(operations);
  native::addMirrorOperations(operations, mirrorHost);
  static native::Queues queues;

  if (argc > 1 && std::strcmp(argv[1], "daemon") == 0) {
    const char message[] = "{\"level\":\"error\",\"name\":\"daemon\",\"message\":\"daemon mode is not built yet\"}\n";
    [[maybe_unused]] auto ignored = ::write(2, message, sizeof message - 1);
    return 1;
  }

  static platform::TaskRunLoop fallbackLoop;
  platform::RunLoop& mainLoop = choice.platform ? choice.platform->mainLoop() : fallbackLoop;
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
