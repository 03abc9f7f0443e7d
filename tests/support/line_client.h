// glimmerstrand-native in line mode as a child process, for tests that drive
// it one request at a time. A reply that does not come within 30 seconds, or
// a process that ends, fails the call with an exception.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "core/json_value.h"

namespace glimmerstrand::testing {

class LineClient {
 public:
  /// Starts the binary with these variables set in its environment; an
  /// empty value removes the variable.
  LineClient(const std::string& binary, const std::map<std::string, std::string>& environment);
  ~LineClient();
  LineClient(const LineClient&) = delete;
  LineClient& operator=(const LineClient&) = delete;

  /// Sends one request and returns its whole reply, ok or not.
  core::JSONValue reply(const std::string& method, const core::JSONValue& params);
  /// The result of a request that must succeed; throws with the reply
  /// otherwise.
  core::JSONValue call(const std::string& method, const core::JSONValue& params);

 private:
  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::int64_t nextId_ = 1;
  std::string pending_;
};

/// The results of a script against the application named (none when the
/// name is empty); throws when a statement fails.
std::vector<core::JSONValue> cypherResults(LineClient& client, const std::string& app, const std::string& script);

/// The rows of the script's last statement.
std::vector<core::JSONValue> cypherRows(LineClient& client, const std::string& app, const std::string& script);

/// One column of the rows of the script's last read, as texts; null reads
/// as "null".
std::vector<std::string> cypherColumn(LineClient& client, const std::string& app, const std::string& read,
                                      const std::string& name);

/// The column's first cell as cypherColumn gives it; empty without rows.
std::string firstCell(LineClient& client, const std::string& app, const std::string& read, const std::string& name);

}  // namespace glimmerstrand::testing
