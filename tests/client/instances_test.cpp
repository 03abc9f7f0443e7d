// Several desktops of one user side by side on one host: each instance
// (GLIMMERSTRAND_INSTANCE) has its own desktop, display, daemon and state
// folder, and status tells which one it speaks to. Real X servers, buses and
// galculator; every folder is the test's own.
#include <gtest/gtest.h>

#include <regex>

#include "client/client_process.h"
#include "client/desktop.h"

namespace glimmerstrand::client {
namespace {

using testing::ClientProcess;
using testing::Outcome;

struct Instance {
  std::string name;
  std::map<std::string, std::string> exported;  // what desktop start printed
};

// The value of one labelled line of `status`: "display       :12, ...".
std::string statusLine(const std::string& status, const std::string& label) {
  const std::regex line("(^|\n)" + label + " +([^\n]*)");
  std::smatch match;
  return std::regex_search(status, match, line) ? match[2].str() : "";
}

TEST(Instances, TwoDesktopsAndDaemonsSideBySideTouchNothingOfEachOther) {
  ClientProcess client(GLIMMERSTRAND_CLIENT_BINARY, "instances");
  client.environment().erase("GLIMMERSTRAND_PLATFORM");
  const std::string tag = std::to_string(::getpid());
  std::vector<Instance> instances{{"side-a-" + tag, {}}, {"side-b-" + tag, {}}};
  const auto as = [](const Instance& instance) {
    return std::map<std::string, std::string>{{"GLIMMERSTRAND_INSTANCE", instance.name}};
  };
  struct Cleanup {
    const ClientProcess& client;
    const std::vector<Instance>& instances;
    std::function<std::map<std::string, std::string>(const Instance&)> as;
    ~Cleanup() {
      for (const auto& instance : instances) {
        client.run({"stop"}, "", as(instance));
        client.run({"desktop", "stop"}, "", as(instance));
        if (auto folder = instance.exported.find("GLIMMERSTRAND_DESKTOP_DIR"); folder != instance.exported.end())
          std::filesystem::remove_all(folder->second);  // its logs: the folder is the test's own
      }
    }
  } cleanup{client, instances, as};

  for (auto& instance : instances) {
    const Outcome started = client.run({"desktop", "start", "--no-wm", "galculator"}, "", as(instance));
    ASSERT_EQ(started.status, 0) << started.err;
    for (const auto& [name, value] : parseExportLines(started.out)) instance.exported[name] = value;
  }
  const auto& [a, b] = std::tie(instances[0], instances[1]);
  EXPECT_NE(a.exported.at("DISPLAY"), b.exported.at("DISPLAY"));
  EXPECT_NE(a.exported.at("GLIMMERSTRAND_DESKTOP_DIR"), b.exported.at("GLIMMERSTRAND_DESKTOP_DIR"));

  // Each daemon, started from a shell without a display, works on its own
  // instance's desktop and mirrors that desktop's galculator.
  const std::vector<std::string> read{"--app", "galculator", "query",
                                      "MATCH (c:Control {name:\"7\"}) RETURN c.name LIMIT 1"};
  for (const auto& instance : instances) {
    const Outcome reply = client.run(read, "", as(instance));
    EXPECT_EQ(reply.status, 0) << instance.name << ": " << reply.err;
    const Outcome status = client.run({"status"}, "", as(instance));
    EXPECT_EQ(statusLine(status.out, "instance"), instance.name) << status.out;
    EXPECT_EQ(statusLine(status.out, "display"), instance.exported.at("DISPLAY") + ", the headless desktop in " +
                                                     instance.exported.at("GLIMMERSTRAND_DESKTOP_DIR"))
        << status.out;
    EXPECT_EQ(statusLine(status.out, "state folder"),
              (client.folder() / "state" / ("glimmerstrand-" + instance.name)).string());
    EXPECT_NE(status.out.find("(pid " + instance.exported.at("GLIMMERSTRAND_PID_galculator") + ")"), std::string::npos)
        << "mirrors its own desktop's galculator:\n"
        << status.out;
  }

  // Stopping one leaves the other answering.
  EXPECT_EQ(client.run({"stop"}, "", as(a)).status, 0);
  EXPECT_EQ(client.run({"desktop", "stop"}, "", as(a)).status, 0);
  EXPECT_EQ(client.run({"desktop", "status"}, "", as(a)).status, 1);
  EXPECT_EQ(client.run({"desktop", "status"}, "", as(b)).status, 0);
  const Outcome still = client.run(read, "", as(b));
  EXPECT_EQ(still.status, 0) << still.err;
}

}  // namespace
}  // namespace glimmerstrand::client
