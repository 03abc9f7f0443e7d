// glimmerstrand-native as a daemon of a test's or a bench's own, with one
// connection to its socket for plain requests, one line each way.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

namespace glimmerstrand::testing {

class DaemonClient {
 public:
  /// Starts the daemon with these variables set (an empty value removes
  /// one); its state folder, and so its socket, is `stateFolder`. Waits up to
  /// 10 s for the socket to answer; throws when it doesn't.
  DaemonClient(const std::string& binary, const std::string& stateFolder,
               const std::map<std::string, std::string>& environment);
  ~DaemonClient();
  DaemonClient(const DaemonClient&) = delete;
  DaemonClient& operator=(const DaemonClient&) = delete;

  /// Sends one request line and returns the reply line.
  std::string roundTrip(const std::string& line);

 private:
  pid_t child_ = -1;
  int fd_ = -1;
  std::string pending_;
};

}  // namespace glimmerstrand::testing
