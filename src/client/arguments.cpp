#include "client/arguments.h"

#include "client/desktop_compositor.h"

#include <algorithm>

#include "client/http_access.h"
#include "core/errors.h"

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;

[[noreturn]] void usageError(const std::string& message) {
  throw GlimmerstrandError(core::codes::invalidArgument, message);
}

// An option's value, from `--app X` or `--app=X`; `k` moves past a separate value.
std::string optionValue(const std::vector<std::string>& args, std::size_t& k, std::string_view name) {
  const std::string& arg = args[k];
  std::string value;
  if (arg.size() > name.size() && arg[name.size()] == '=')
    value = arg.substr(name.size() + 1);
  else if (k + 1 < args.size())
    value = args[++k];
  else
    usageError("option " + std::string(name) + " needs a value");
  if (value.empty()) usageError("option " + std::string(name) + " needs a value");
  return value;
}

bool isOption(const std::string& arg, std::string_view name) {
  return arg == name || (arg.starts_with(name) && arg.size() > name.size() && arg[name.size()] == '=');
}

// The options a command was given that it does not take, named in the error.
void checkOptions(const Invocation& invocation, const CommandInfo& command) {
  const std::string name(command.name);
  if (invocation.app && !command.takesApp) usageError("option --app does not apply to '" + name + "'");
  if (invocation.json && !command.takesJson) usageError("option --json does not apply to '" + name + "'");
  if (invocation.http && !command.takesHttp) usageError("option --http does not apply to '" + name + "'");
  if (invocation.tokenFile && !command.takesHttp) usageError("option --token-file does not apply to '" + name + "'");
  if (invocation.tokenFile && !invocation.http) usageError("option --token-file needs --http");
  if (invocation.http) parseListenAddress(*invocation.http);  // throws the usage error
}

// desktop start [--wm | --no-wm] [--wayland COMPOSITOR] [APP...] | stop | status
void takeDesktopWords(Invocation& invocation, const std::vector<std::string>& words) {
  if (words.empty()) usageError("'desktop' needs start, stop or status");
  const std::string& action = words[0];
  if (action != "start" && action != "stop" && action != "status")
    usageError("unknown desktop command '" + action + "': use start, stop or status");
  for (std::size_t k = 1; k < words.size(); ++k) {
    if (action != "start") usageError("unexpected argument '" + words[k] + "': 'desktop " + action + "' takes none");
    if (words[k] == "--wayland") {
      if (k + 1 >= words.size() || !knownCompositor(words[k + 1]))
        usageError("'desktop start --wayland' needs a compositor: sway");
      ++k;
      continue;
    }
    if (words[k].starts_with("-") && words[k] != "--wm" && words[k] != "--no-wm")
      usageError("unknown option '" + words[k] + "' of 'desktop start'");
  }
  invocation.words = words;
}

void takeOperands(Invocation& invocation, const CommandInfo& command, const std::vector<std::string>& operands) {
  const std::string name(command.name);
  if (command.takesWords) return takeDesktopWords(invocation, operands);
  if (command.name == "help") {
    if (operands.size() > 1) usageError("unexpected argument '" + operands[1] + "' after 'help " + operands[0] + "'");
    invocation.help = true;
    if (!operands.empty()) invocation.helpTopic = operands[0];
    invocation.command.clear();
    return;
  }
  if (command.takesStatements) {
    if (operands.empty()) usageError("'" + name + "' needs statements, or - to read them from standard input");
    if (operands.size() > 1)
      usageError("unexpected argument '" + operands[1] + "': '" + name + "' takes the statements as one argument");
    invocation.statements = operands[0];
    return;
  }
  if (!operands.empty()) usageError("unexpected argument '" + operands[0] + "': '" + name + "' takes none");
}

}  // namespace

const std::vector<CommandInfo>& commands() {
  static const std::vector<CommandInfo> all{
      {"do", "STATEMENTS", "run statements that read and act",
       "Runs Cypher statements, separated by ;, against an application: reads come from\n"
       "the daemon's live copy of its accessibility tree, writes and procedures act on it.\n"
       "STATEMENTS - reads them from standard input.",
       true, true, true},
      {"query", "STATEMENTS", "run statements that only read", "Like do, but a statement that would act is refused.",
       true, true, true},
      {"status", "", "the daemon: version, platform, socket, uptime, mirrors",
       "Shows the running daemon and what it mirrors; --json prints its raw reply.", false, false, true},
      {"doctor", "", "what the platform can do, and what is missing",
       "Shows whether the platform is usable, what is missing and how to fix it;\n"
       "--json prints the daemon's raw reply.",
       false, false, true},
      {"ping", "", "check that the daemon answers", "", false, false, true},
      {"skill", "", "the usage text written for agents", "", false, false, true},
      {"mcp", "[--http ADDRESS:PORT [--token-file FILE]]",
       "serve MCP to an agent host, on standard input and output or HTTP",
       "An agent host launches this command: it speaks the Model Context Protocol on\n"
       "standard input and output, with one tool, do.\n"
       "--http serves the protocol's Streamable HTTP transport instead, at\n"
       "http://ADDRESS:PORT/mcp (a PORT alone listens on 127.0.0.1), for agent hosts\n"
       "outside this machine or sandbox. Every request must carry the header\n"
       "Authorization: Bearer TOKEN, where TOKEN is $GLIMMERSTRAND_HTTP_TOKEN, else the\n"
       "contents of --token-file FILE, else the contents of http-token in the state\n"
       "folder, made on first use (mode 0600). Requests from a web page of another\n"
       "origin than this machine are refused.",
       false, false, false, false, true},
      {"stop", "", "stop the daemon", "Stops the daemon that answers on the socket; nothing to do when none runs.",
       false, false, false},
      {"restart", "", "stop the daemon and start it with this command's settings",
       "Use it after changing GLIMMERSTRAND_PLATFORM or GLIMMERSTRAND_SIM_APPS: a running\n"
       "daemon keeps the settings it was started with.",
       false, false, false},
      {"desktop", "start [--no-wm] [--wayland sway] [APP...] | stop | status",
       "a headless desktop for agents, and its applications",
       "start runs an X server (Xvfb), a session bus, the accessibility bus, a window\n"
       "manager (openbox; --no-wm leaves it out) and each APP, a command with optional\n"
       "arguments, waits until each application's accessibility tree answers, and\n"
       "prints the environment for eval:\n"
       "  eval \"$(glimmerstrand desktop start gtk3-widget-factory)\"\n"
       "--wayland sway runs a headless sway instead of the X server and the window\n"
       "manager, its applications as Wayland clients; started by root, sway runs as\n"
       "the unprivileged user glimmerstrand-desktop.\n"
       "stop ends what start started, by pid; status lists each process.\n"
       "A daemon that the client starts with no DISPLAY uses the running desktop.\n"
       "Its folder is $GLIMMERSTRAND_DESKTOP_DIR, else one of this user's under\n"
       "/run/user or /tmp; the logs of every process are there.",
       false, false, false, true},
      {"help", "[COMMAND]", "this text, or one command's", "", false, false, false},
  };
  return all;
}

const CommandInfo* findCommand(std::string_view name) {
  const auto& all = commands();
  auto found = std::find_if(all.begin(), all.end(), [&](const CommandInfo& c) { return c.name == name; });
  return found == all.end() ? nullptr : &*found;
}

Invocation parseArguments(const std::vector<std::string>& args) {
  Invocation invocation;
  std::vector<std::string> positional;
  bool optionsEnded = false;
  bool verbatim = false;  // after a command that takes its own words
  for (std::size_t k = 0; k < args.size(); ++k) {
    const std::string& arg = args[k];
    if (verbatim && arg != "-h" && arg != "--help") {
      positional.push_back(arg);
    } else if (optionsEnded || arg == "-" || !arg.starts_with("-")) {
      const CommandInfo* command = positional.empty() ? findCommand(arg) : nullptr;
      verbatim = command && command->takesWords;
      positional.push_back(arg);
    } else if (arg == "--")
      optionsEnded = true;
    else if (arg == "-h" || arg == "--help")
      invocation.help = true;
    else if (arg == "--version")
      invocation.version = true;
    else if (arg == "--json")
      invocation.json = true;
    else if (isOption(arg, "--app"))
      invocation.app = optionValue(args, k, "--app");
    else if (isOption(arg, "--http"))
      invocation.http = optionValue(args, k, "--http");
    else if (isOption(arg, "--token-file"))
      invocation.tokenFile = optionValue(args, k, "--token-file");
    else
      usageError("unknown option '" + arg + "'");
  }
  if (positional.empty()) {
    if (!invocation.help && !invocation.version) usageError("missing command");
    return invocation;
  }
  const CommandInfo* command = findCommand(positional[0]);
  if (!command) usageError("unknown command '" + positional[0] + "'");
  invocation.command = positional[0];
  if (invocation.help) {  // `do --help`: the command's help, whatever else was given
    invocation.helpTopic = invocation.command;
    invocation.command.clear();
    return invocation;
  }
  if (invocation.version) return invocation;
  checkOptions(invocation, *command);
  takeOperands(invocation, *command, std::vector<std::string>(positional.begin() + 1, positional.end()));
  if (invocation.helpTopic && !findCommand(*invocation.helpTopic))
    usageError("unknown command '" + *invocation.helpTopic + "'");
  return invocation;
}

std::string usageText() {
  std::string text =
      "usage: glimmerstrand [--app APP] [--json] COMMAND [ARGUMENTS]\n"
      "\n"
      "Looks at and operates desktop applications through their accessibility trees,\n"
      "with Cypher statements sent to the glimmerstrand daemon, which starts when none\n"
      "answers.\n"
      "\n"
      "commands:\n";
  for (const auto& command : commands()) {
    std::string head =
        std::string(command.name) + (command.synopsis.empty() ? "" : " ") + std::string(command.synopsis);
    head.resize(std::max<std::size_t>(head.size() + 2, 20), ' ');
    text += "  " + head + std::string(command.summary) + "\n";
  }
  text +=
      "\n"
      "options:\n"
      "  --app APP, --app=APP  the application: a name, a bundle id, or pid:N (do, query)\n"
      "  --json                print the daemon's reply as JSON\n"
      "  --http ADDRESS:PORT   serve MCP over HTTP there (mcp)\n"
      "  --token-file FILE     the bearer token for --http, from FILE (mcp)\n"
      "  -h, --help            show this text; with a command, that command's help\n"
      "  --version             show the version\n"
      "\n"
      "Exit status: 0 when everything succeeded, 1 when a statement or the daemon\n"
      "failed, 2 for a usage error. See glimmerstrand(1).\n";
  return text;
}

std::string commandHelp(const CommandInfo& command) {
  std::string options;
  if (command.takesApp) options += " [--app APP]";
  if (command.takesJson) options += " [--json]";
  std::string text = "usage: glimmerstrand" + options + " " + std::string(command.name) +
                     (command.synopsis.empty() ? "" : " ") + std::string(command.synopsis) + "\n\n" +
                     std::string(command.summary) + "\n";
  if (!command.details.empty()) text += "\n" + std::string(command.details) + "\n";
  return text;
}

std::string_view versionText() { return GLIMMERSTRAND_VERSION; }

}  // namespace glimmerstrand::client
