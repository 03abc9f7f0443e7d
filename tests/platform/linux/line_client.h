// glimmerstrand-native in line mode as a child process, for tests that drive
// it one request at a time.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "core/json_value.h"

namespace glimmerstrand::testing {

class LineClient {
 public:
  /// Starts the binary with these variables added to this process's.
  LineClient(const std::string& binary, const std::map<std::string, std::string>& environment);
  ~LineClient();
  LineClient(const LineClient&) = delete;
  LineClient& operator=(const LineClient&) = delete;

  /// Sends one request and returns its reply; throws when none comes in 30 s.
  core::JSONValue call(const std::string& method, const std::string& paramsJson);
  /// The result of a cypher statement run against the application named.
  core::JSONValue cypher(const std::string& app, const std::string& statement);

 private:
  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::int64_t nextId_ = 1;
  std::string pending_;
};

}  // namespace glimmerstrand::testing
