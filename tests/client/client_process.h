// Runs the client binary as a shell would, with a private state folder, and
// keeps what it wrote on each stream.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace glimmerstrand::client::testing {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;

  static std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }
};

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

/// A scratch folder with the environment of one user of the client: its own
/// state folder, the simulated desktop, and no socket setting.
class ClientProcess {
 public:
  ClientProcess(std::string binary, const std::string& name)
      : binary_(std::move(binary)),
        folder_(std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
    environment_ = {{"HOME", folder_.string()},
                    {"PATH", "/usr/bin:/bin"},
                    {"XDG_STATE_HOME", (folder_ / "state").string()},
                    {"GLIMMERSTRAND_PLATFORM", "sim"}};
  }
  ~ClientProcess() { std::filesystem::remove_all(folder_); }

  const std::filesystem::path& folder() const { return folder_; }
  std::filesystem::path stateFolder() const { return folder_ / "state" / "glimmerstrand"; }
  std::map<std::string, std::string>& environment() { return environment_; }

  Outcome run(const std::vector<std::string>& args, const std::string& input = "",
              const std::map<std::string, std::string>& extra = {}) const {
    const auto in = folder_ / "stdin", out = folder_ / "stdout", err = folder_ / "stderr";
    std::ofstream(in) << input;
    auto variables = environment_;
    for (const auto& [name, value] : extra) variables[name] = value;
    std::vector<std::string> entries;
    for (const auto& [name, value] : variables) entries.push_back(name + "=" + value);
    pid_t child = ::fork();
    if (child == 0) {
      ::dup2(::open(in.c_str(), O_RDONLY), 0);
      ::dup2(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
      ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
      std::vector<char*> argv{const_cast<char*>(binary_.c_str())}, envp;
      for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      for (const auto& entry : entries) envp.push_back(const_cast<char*>(entry.c_str()));
      argv.push_back(nullptr);
      envp.push_back(nullptr);
      ::execve(binary_.c_str(), argv.data(), envp.data());
      ::_exit(127);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  }

 private:
  std::string binary_;
  std::filesystem::path folder_;
  std::map<std::string, std::string> environment_;
};

}  // namespace glimmerstrand::client::testing
