// A small HTTP/1.1 server over libmicrohttpd, for `glimmerstrand mcp --http`:
// it hands whole requests to a handler and writes its responses. The library
// parses HTTP; this file bounds what a client may make it hold.
//
// Threads: one per client connection (the library's thread-per-connection
// mode), so a handler may block for as long as a call into the daemon takes
// without holding up other clients; at most `maxConnections` at once. The
// screen and the handler run on those threads, concurrently for different
// connections. A handler gets the connection's socket, so that it can notice
// its client hanging up while it waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/http_access.h"

namespace glimmerstrand::client {

struct HttpRequest {
  std::string method;                          // "POST", "GET", ...
  std::string path;                            // without the query
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;                            // empty in the screen
  int socket = -1;                             // the client's connection: to watch, never to read or write

  /// A header's value, when the request has it.
  std::optional<std::string> header(const std::string& lowerCaseName) const;
};

struct HttpResponse {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
};

struct HttpServerOptions {
  std::size_t maxBodyBytes = 4 << 20;    // a larger body is refused with 413 before it is read
  std::chrono::seconds idleTimeout{60};  // a connection that sends nothing for this long is closed
  unsigned maxConnections = 256;
};

class HttpServer {
 public:
  /// Answers from the request line and headers alone, before any of the body
  /// is read; none lets the request go on to the handler.
  using Screen = std::function<std::optional<HttpResponse>(const HttpRequest& head)>;
  using Handler = std::function<HttpResponse(const HttpRequest& request)>;

  /// Binds `address` and serves until stopped or destroyed. Throws
  /// GlimmerstrandError when the address can't be bound.
  static std::unique_ptr<HttpServer> start(const ListenAddress& address, Screen screen, Handler handler,
                                           HttpServerOptions options = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// The bound port: the one asked for, or the one the system chose for 0.
  std::uint16_t port() const { return port_; }
  /// "127.0.0.1:8765", "[::1]:8765": the address as a URL names it.
  std::string authority() const;

  /// Stops accepting and waits for the connections' threads to end, which
  /// waits for handlers that still run.
  void stop();

  struct Library;  // the library's daemon and its callbacks, in the source file

 private:
  HttpServer() = default;

  Screen screen_;
  Handler handler_;
  HttpServerOptions options_;
  ListenAddress address_;
  std::uint16_t port_ = 0;
  std::unique_ptr<Library> library_;
};

}  // namespace glimmerstrand::client
