#include "desktop_reads.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>

#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_reader.h"
#include "platform/linux/linux_platform.h"

namespace glimmerstrand::bench {

namespace lx = platform::linux_desktop;

LinuxReads::LinuxReads() {
  std::string problem;
  platform_ = lx::makeLinuxPlatform(problem);
  if (!platform_) throw std::runtime_error(problem);
  bus_ = lx::AtspiBus::connect(problem);
  if (!bus_) throw std::runtime_error(problem);
  loop_ = std::thread([this] { platform_->mainLoop().run(); });
}

LinuxReads::~LinuxReads() {
  platform_->mainLoop().stop();
  loop_.join();
}

native::WalkResult walkWindow(platform::Accessibility& ax, const platform::Element& app) {
  return native::walkTree(ax, app, "window", native::AppMirror::maxDepth, native::AppMirror::maxNodes);
}

namespace {

std::size_t perCallWalk(GDBusConnection* connection, const lx::ObjectRef& ref, int depth) {
  const auto parts = lx::basicPart | lx::extentsPart | lx::contentPart;
  auto record = lx::readRecords(connection, {ref}, parts, 5000).front();
  if (record.error != platform::AxError::success || depth > 60) return 1;
  auto counted =
      lx::callSync(connection, lx::propertyCall(ref.bus, ref.path, "org.a11y.atspi.Accessible", "ChildCount"), 5000);
  const auto childCount = lx::int32Of(lx::replyChild(counted)).value_or(0);
  if (childCount <= 0 || childCount > 10000) return 1;
  auto reply =
      lx::callSync(connection, lx::Call{ref.bus, ref.path, "org.a11y.atspi.Accessible", "GetChildren", nullptr}, 5000);
  std::size_t count = 1;
  for (const auto& child : lx::objectRefs(lx::replyChild(reply))) count += perCallWalk(connection, child, depth + 1);
  return count;
}

}  // namespace

std::size_t perCallWalk(GDBusConnection* connection, const platform::Element& element) {
  const auto* e = element.as<lx::AtspiElement>();
  return e ? perCallWalk(connection, lx::ObjectRef{e->bus(), e->path()}, 0) : 0;
}

void withDaemon(const std::map<std::string, std::string>& desktopEnvironment,
                const std::function<void(testing::DaemonClient&)>& use) {
  static std::atomic<int> made = 0;
  const auto folder = std::filesystem::temp_directory_path() /
                      ("glimmerstrand-bench-daemon-" + std::to_string(::getpid()) + "-" + std::to_string(++made));
  std::filesystem::create_directories(folder);
  auto environment = desktopEnvironment;
  environment["GLIMMERSTRAND_PLATFORM"] = "linux";
  environment["GLIMMERSTRAND_LOG_LEVEL"] = "silent";
  environment["GLIMMERSTRAND_CURSOR"] = "0";
  {
    testing::DaemonClient daemon(GLIMMERSTRAND_NATIVE_BINARY, folder.string(), environment);
    use(daemon);
  }
  std::filesystem::remove_all(folder);
}

std::string request(const char* operation, const std::string& app, const std::string& statement) {
  return std::string(R"({"operation":")") + operation + R"(","params":{"app":")" + app + R"(","cypher":")" + statement +
         R"("}})";
}

}  // namespace glimmerstrand::bench
