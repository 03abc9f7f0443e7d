// The command line of `glimmerstrand`: parsed whole before anything connects,
// so a usage error never reaches or starts a daemon.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace glimmerstrand::client {

/// What one command accepts, and its help.
struct CommandInfo {
  std::string_view name;
  std::string_view synopsis;  // the arguments after the name, for usage lines
  std::string_view summary;   // one line, for the command list
  std::string_view details;   // the rest of `help COMMAND`
  bool takesStatements = false;
  bool takesApp = false;
  bool takesJson = false;
  bool takesWords = false;  // the words after it are its own: options included
  bool takesHttp = false;   // --http ADDRESS:PORT and --token-file FILE
};

/// Every command, in the order the usage text lists them.
const std::vector<CommandInfo>& commands();
const CommandInfo* findCommand(std::string_view name);

/// A parsed command line. `command` is empty when only help or the version
/// was asked for.
struct Invocation {
  std::string command;
  std::optional<std::string> statements;  // do, query: the text, or "-" for standard input
  std::optional<std::string> app;
  std::vector<std::string> words;        // desktop: its subcommand and what follows
  std::optional<std::string> http;       // mcp: serve MCP over HTTP on ADDRESS:PORT
  std::optional<std::string> tokenFile;  // mcp --http: the file that holds the bearer token
  bool json = false;
  bool help = false;  // -h, --help, or the command `help`
  bool version = false;
  std::optional<std::string> helpTopic;  // `help do`, `do --help`
};

/// Parses the arguments after the program name. A usage error throws
/// GlimmerstrandError with code "invalid_argument", naming what is wrong.
Invocation parseArguments(const std::vector<std::string>& args);

/// The whole usage text (`--help`), or one command's (`help do`).
std::string usageText();
std::string commandHelp(const CommandInfo& command);

/// The one version of the client, the daemon and the MCP server.
std::string_view versionText();

}  // namespace glimmerstrand::client
