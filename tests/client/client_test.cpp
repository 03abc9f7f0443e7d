#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "client/client.h"

namespace glimmerstrand::client {
namespace {

struct Output {
  int status;
  std::string text;
};

// Runs the client with a private state folder on the simulated desktop.
Output runClient(const std::filesystem::path& state, const std::string& arguments, const std::string& input = "") {
  const auto command = "XDG_STATE_HOME=" + state.string() +
                       " GLIMMERSTRAND_PLATFORM=sim GLIMMERSTRAND_SOCKET= " + std::string(GLIMMERSTRAND_CLIENT_BINARY) +
                       " " + arguments + " 2>&1 <<'EOF'\n" + input + "\nEOF";
  FILE* pipe = ::popen(command.c_str(), "r");
  std::string text;
  std::array<char, 4096> buffer;
  for (std::size_t n; (n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) text.append(buffer.data(), n);
  int status = ::pclose(pipe);
  return {WEXITSTATUS(status), text};
}

class ClientTest : public ::testing::Test {
 protected:
  ClientTest() : state_(std::filesystem::temp_directory_path() / ("client-" + std::to_string(::getpid()))) {}
  ~ClientTest() override {
    // The daemon the client started: stopped by its socket's owner pid.
    auto out = runClient(state_, "--json status");
    auto at = out.text.find("\"pid\":");
    if (at != std::string::npos) ::kill(std::stoi(out.text.substr(at + 6)), SIGTERM);
    std::filesystem::remove_all(state_);
  }
  std::filesystem::path state_;
};

TEST_F(ClientTest, StartsTheDaemonAndAnswersStatementsAsText) {
  auto query = runClient(state_, "--app Calculator query 'MATCH (b:Button {name:\"7\"}) RETURN b.name'");
  EXPECT_EQ(query.status, 0) << query.text;
  EXPECT_NE(query.text.find("b.name\n7\n"), std::string::npos) << query.text;
  auto fromInput = runClient(state_, "--app Calculator do -", "MATCH (b:Button {name:\"7\"}) SET b.selected = 1");
  EXPECT_EQ(fromInput.status, 1) << "a failed statement is a failed command";
  EXPECT_NE(fromInput.text.find("は書き換えられません"), std::string::npos) << fromInput.text;
  EXPECT_EQ(runClient(state_, "nonsense").status, 2);
}

}  // namespace
}  // namespace glimmerstrand::client
