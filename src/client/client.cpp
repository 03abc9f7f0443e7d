#include "client/client.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <thread>

#include "client/arguments.h"
#include "client/daemon_process.h"
#include "client/desktop.h"
#include "client/mcp_http.h"
#include "client/reports.h"
#include "core/errors.h"
#include "core/json_value.h"

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;
using core::JSONValue;

// Settings a running daemon keeps from its start; a shell that sets them
// otherwise would silently talk to the wrong desktop.
constexpr const char* daemonSettings[] = {"GLIMMERSTRAND_PLATFORM", "GLIMMERSTRAND_SIM_APPS"};

std::string environmentValue(const std::map<std::string, std::string>& environment, const std::string& name) {
  auto found = environment.find(name);
  return found == environment.end() ? "" : found->second;
}

void checkSettings(pid_t pid, const DaemonPaths& paths) {
  const auto theirs = processEnvironment(pid);
  if (!theirs) return;  // gone already, or not ours to read: nothing to compare
  for (const char* name : daemonSettings) {
    const char* mine = std::getenv(name);
    if (!mine || !*mine) continue;  // unset here: the running daemon's choice stands
    const std::string running = environmentValue(*theirs, name);
    if (running == mine) continue;
    throw GlimmerstrandError(core::codes::invalidArgument,
                             "the daemon on " + paths.socket + " (pid " + std::to_string(pid) + ") runs with " + name +
                                 (running.empty() ? " unset" : "=" + running) + ", but this command has " + name + "=" +
                                 mine + "; to restart it with this command's settings, run: glimmerstrand restart");
  }
}

// A daemon started from a shell or agent host without a display of its own
// goes to our headless desktop, when one runs.
Connection startDaemonOnDesktop(const DaemonPaths& paths) {
  adoptRunningDesktop();
  return startDaemon(paths);
}

// A connection to the running daemon, or to one started now.
Connection reach(const DaemonPaths& paths) {
  if (auto connection = connectTo(paths.socket)) {
    checkSettings(connection->peerPid(), paths);
    return std::move(*connection);
  }
  return startDaemonOnDesktop(paths);
}

std::optional<std::string> daemonVersion(const DaemonPaths& paths) {
  auto connection = connectTo(paths.socket);
  if (!connection) return std::nullopt;
  connection->send(R"({"mode":"mcp"})");
  const auto reply = core::parseJSON(
      connection->request(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
                          R"("capabilities":{},"clientInfo":{"name":"glimmerstrand","version":")" +
                          std::string(versionText()) + "\"}}}"));
  const JSONValue* result = reply.find("result");
  const JSONValue* info = result ? result->find("serverInfo") : nullptr;
  return info ? core::optionalString(*info, "version") : std::nullopt;
}

DaemonFacts factsOf(const Connection& connection, const DaemonPaths& paths) {
  DaemonFacts facts{connection.peerPid(), daemonVersion(paths), "unknown", paths.log().string(), paths};
  facts.instance = platform::instanceName(platform::processEnvironmentValue).value_or("default");
  if (auto environment = processEnvironment(facts.pid)) {
    const auto chosen = environmentValue(*environment, "GLIMMERSTRAND_PLATFORM");
    facts.platform = chosen.empty() ? "linux (GLIMMERSTRAND_PLATFORM unset)" : chosen;
    if (environment->count("INVOCATION_ID")) facts.log = "the journal: journalctl --user -u glimmerstrand";
    if (chosen != "sim") {
      const auto folder = desktopFolder(platform::processEnvironmentValue);
      facts.display = displayText(*environment, runningDesktopEnvironment(folder), folder.string());
    }
  }
  return facts;
}

JSONValue ask(const Connection& connection, const std::string& operation, JSONValue::Object params = {},
              bool text = false) {
  JSONValue::Object line{{"operation", operation}, {"params", std::move(params)}};
  if (text) core::put(line, "format", "text");
  return core::parseJSON(connection.request(core::jsonText(line)));
}

int printReply(const JSONValue& reply, const std::string& command) {
  const JSONValue* result = reply.find("result");
  if (!result) {
    std::cerr << replyErrorText(reply);
    return 1;
  }
  if (auto text = core::optionalString(*result, "text"))
    std::cout << *text << "\n";
  else if (command == "ping")
    std::cout << "pong\n";
  else
    std::cout << core::jsonText(*result) << "\n";
  return replyStatus(reply);
}

int statement(const Connection& connection, const Invocation& invocation) {
  JSONValue::Object params;
  if (invocation.statements) {
    std::string statements = *invocation.statements;
    if (statements == "-") statements.assign(std::istreambuf_iterator<char>(std::cin), {});
    core::put(params, "cypher", statements);
  }
  core::putIf(params, "app", invocation.app);
  const JSONValue reply = ask(connection, invocation.command, std::move(params), !invocation.json);
  if (!invocation.json) return printReply(reply, invocation.command);
  std::cout << core::jsonText(reply) << "\n";
  return replyStatus(reply);
}

int report(const Connection& connection, const Invocation& invocation, const DaemonPaths& paths) {
  const bool isStatus = invocation.command == "status";
  const JSONValue reply = ask(connection, invocation.command);
  if (invocation.json) {
    std::cout << core::jsonText(reply) << "\n";
    return replyStatus(reply);
  }
  // The text of status tells whether the platform is usable, which only the doctor knows.
  const JSONValue doctor = isStatus ? ask(connection, "doctor") : reply;
  const DaemonFacts facts = factsOf(connection, paths);
  std::cout << (isStatus ? statusText(facts, reply, doctor) : doctorText(facts, doctor));
  return replyStatus(reply);
}

// The pid of the daemon that was stopped; none when none answered.
std::optional<pid_t> stopRunning(const DaemonPaths& paths) {
  auto connection = connectTo(paths.socket);
  if (!connection) return std::nullopt;
  const pid_t pid = connection->peerPid();
  connection.reset();
  stopDaemon(pid);
  return pid;
}

int stop(const DaemonPaths& paths) {
  if (auto pid = stopRunning(paths))
    std::cout << "stopped the daemon (pid " << *pid << ") on " << paths.socket << "\n";
  else
    std::cout << "no daemon answers on " << paths.socket << "\n";
  return 0;
}

int restart(const DaemonPaths& paths) {
  stopRunning(paths);
  const Connection connection = startDaemonOnDesktop(paths);
  std::cout << "started the daemon (pid " << connection.peerPid() << ") on " << paths.socket << "; its log is "
            << paths.log().string() << "\n";
  return 0;
}

// Copies lines both ways between standard input/output and the socket,
// after switching the connection to MCP.
int bridgeMcp(const Connection& connection) {
  connection.send(R"({"mode":"mcp"})");
  const int fd = connection.fd();
  std::thread([fd] {
    char buffer[65536];
    for (ssize_t n; (n = ::read(0, buffer, sizeof buffer)) > 0;)
      if (::send(fd, buffer, static_cast<std::size_t>(n), MSG_NOSIGNAL) != n) break;
    ::shutdown(fd, SHUT_WR);
  }).detach();
  char buffer[65536];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    if (::write(1, buffer, static_cast<std::size_t>(n)) != n) return 1;
  return 0;
}

// Serves MCP over HTTP until a signal ends it. Every session is a connection
// to the daemon, so ending the process ends them all, and the daemon releases
// their leases.
int serveMcpOverHttp(const Invocation& invocation, const DaemonPaths& paths) {
  const ListenAddress address = parseListenAddress(*invocation.http);
  const TokenChoice token = chooseToken(platform::processEnvironmentValue, invocation.tokenFile, paths.stateFolder);
  // Reached, or started, before any thread of this process runs.
  reach(paths);
  sigset_t stopping;
  sigemptyset(&stopping);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stopping, s);
  pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
  ::signal(SIGPIPE, SIG_IGN);

  McpHttpTransport transport([socket = paths.socket] { return DaemonLink::open(socket); }, {token.token});
  const auto server = HttpServer::start(
      address, [&](const HttpRequest& head) { return transport.screen(head); },
      [&](const HttpRequest& request) { return transport.handle(request); });
  std::cerr << "glimmerstrand: MCP on http://" << server->authority() << "/mcp for the daemon on " << paths.socket
            << "; " << token.source << std::endl;
  int received = 0;
  sigwait(&stopping, &received);
  std::_Exit(0);  // sessions' threads may be in calls: nothing waits for them
}

int runCommand(const Invocation& invocation) {
  if (invocation.command == "desktop") return runDesktopCommand(invocation.words);
  const auto paths = daemonPaths();
  if (invocation.command == "stop") return stop(paths);
  if (invocation.command == "restart") return restart(paths);
  if (invocation.command == "mcp" && invocation.http) return serveMcpOverHttp(invocation, paths);
  const Connection connection = reach(paths);
  if (invocation.command == "mcp") return bridgeMcp(connection);
  if (invocation.command == "status" || invocation.command == "doctor") return report(connection, invocation, paths);
  return statement(connection, invocation);
}

int help(const Invocation& invocation) {
  if (invocation.helpTopic)
    std::cout << commandHelp(*findCommand(*invocation.helpTopic));
  else
    std::cout << usageText();
  return 0;
}

}  // namespace

int runClient(const std::vector<std::string>& args) {
  Invocation invocation;
  try {
    invocation = parseArguments(args);
  } catch (const GlimmerstrandError& e) {
    std::cerr << "glimmerstrand: " << e.message() << "\nTry 'glimmerstrand --help' for more information.\n";
    return 2;
  }
  if (invocation.help) return help(invocation);
  if (invocation.version) {
    std::cout << "glimmerstrand " << versionText() << "\n";
    return 0;
  }
  try {
    return runCommand(invocation);
  } catch (const std::exception& e) {
    std::cerr << "glimmerstrand: " << core::errorMessage(e) << "\n";
    return 1;
  }
}

}  // namespace glimmerstrand::client
