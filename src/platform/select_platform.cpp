#include "platform/select_platform.h"

#include <exception>
#include <sstream>

#include "platform/linux/linux_platform.h"
#include "platform/sim/demo_apps.h"
#include "platform/sim/fixture.h"
#include "platform/sim/sim_platform.h"

namespace glimmerstrand::platform {

namespace {

std::string trimmed(const std::string& text) {
  auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

PlatformChoice simulated(const char* simApps) {
  try {
    auto spec = simApps && *simApps ? sim::loadFixture(simApps) : sim::demoDesktop();
    return {std::make_unique<sim::SimPlatform>(spec), ""};
  } catch (const std::exception& e) {
    return {nullptr, std::string("模擬デスクトップを作れません: ") + e.what()};
  }
}

}  // namespace

PlatformChoice selectPlatform(const char* platformNames, const char* simApps) {
  std::string names = platformNames && *platformNames ? platformNames : "linux";
  std::stringstream list(names);
  std::string problem;
  for (std::string name; std::getline(list, name, ',');) {
    name = trimmed(name);
    PlatformChoice choice;
    if (name == "sim") {
      choice = simulated(simApps);
    } else if (name == "linux") {
      choice.platform = linux_desktop::makeLinuxPlatform(choice.problem);
    } else {
      choice.problem = "未知のプラットフォームです: " + name;
    }
    if (choice.platform) return choice;
    if (!problem.empty()) problem += "; ";
    problem += choice.problem;
  }
  return {nullptr, problem};
}

}  // namespace glimmerstrand::platform
