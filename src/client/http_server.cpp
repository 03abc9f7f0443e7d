#include "client/http_server.h"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/errors.h"

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;

// One request on its way through the library's calls: its head and the body
// gathered so far.
struct Exchange {
  HttpRequest request;
  bool tooLarge = false;
};

MHD_Result collectHeader(void* target, MHD_ValueKind, const char* name, const char* value) {
  std::string lower(name);
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto& headers = *static_cast<std::map<std::string, std::string>*>(target);
  auto [entry, added] = headers.emplace(std::move(lower), value ? value : "");
  if (!added) entry->second += ", " + std::string(value ? value : "");  // repeated headers, as one list
  return MHD_YES;
}

MHD_Result queue(MHD_Connection* connection, const HttpResponse& response) {
  MHD_Response* made = MHD_create_response_from_buffer(response.body.size(), const_cast<char*>(response.body.data()),
                                                       MHD_RESPMEM_MUST_COPY);
  if (!made) return MHD_NO;
  for (const auto& [name, value] : response.headers) MHD_add_response_header(made, name.c_str(), value.c_str());
  const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(response.status), made);
  MHD_destroy_response(made);
  return queued;
}

HttpResponse plain(int status, std::string text) {
  return {status, {{"Content-Type", "text/plain; charset=utf-8"}}, std::move(text) + "\n"};
}

// A listening socket for `address`, bound and listening; its port is read
// back, as 0 asks the system for one.
int bindSocket(const ListenAddress& address, std::uint16_t& port, int& family) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(address.port);
  if (int error = ::getaddrinfo(address.host.c_str(), service.c_str(), &hints, &found); error != 0)
    throw GlimmerstrandError(core::codes::invalidArgument,
                             "cannot listen on " + address.host + ": " + ::gai_strerror(error));
  std::string failure = "no address";
  for (addrinfo* candidate = found; candidate; candidate = candidate->ai_next) {
    const int fd = ::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
    if (fd < 0) continue;
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(fd, candidate->ai_addr, candidate->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0) {
      sockaddr_storage bound{};
      socklen_t size = sizeof bound;
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size);
      port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                               : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
      family = candidate->ai_family;
      ::freeaddrinfo(found);
      return fd;
    }
    failure = std::strerror(errno);
    ::close(fd);
  }
  ::freeaddrinfo(found);
  throw GlimmerstrandError(core::codes::native,
                           "cannot listen on " + address.host + ":" + std::to_string(address.port) + ": " + failure);
}

}  // namespace

std::optional<std::string> HttpRequest::header(const std::string& lowerCaseName) const {
  auto found = headers.find(lowerCaseName);
  if (found == headers.end()) return std::nullopt;
  return found->second;
}

struct HttpServer::Library {
  HttpServer* server = nullptr;
  MHD_Daemon* daemon = nullptr;

  // The library calls this first with the head alone, then with each piece
  // of the body, then once more with none left.
  static MHD_Result onRequest(void* self, MHD_Connection* connection, const char* url, const char* method, const char*,
                              const char* data, size_t* size, void** state) {
    auto& server = *static_cast<Library*>(self)->server;
    auto* exchange = static_cast<Exchange*>(*state);
    if (!exchange) {
      auto fresh = std::make_unique<Exchange>();
      fresh->request.method = method;
      fresh->request.path = url;
      MHD_get_connection_values(connection, MHD_HEADER_KIND, &collectHeader, &fresh->request.headers);
      if (const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD))
        fresh->request.socket = info->connect_fd;
      // Refused from its head, a request costs no more: its body is never read.
      if (auto answer = server.screen_(fresh->request)) return queue(connection, *answer);
      const auto length = fresh->request.header("content-length");
      if (length && std::strtoull(length->c_str(), nullptr, 10) > server.options_.maxBodyBytes)
        return queue(connection, plain(413, "request body too large"));
      *state = fresh.release();
      return MHD_YES;
    }
    if (*size > 0) {
      auto& body = exchange->request.body;
      if (body.size() + *size > server.options_.maxBodyBytes)
        exchange->tooLarge = true;  // a body of unknown length that grew too large: dropped as it comes
      else
        body.append(data, *size);
      *size = 0;
      return MHD_YES;
    }
    if (exchange->tooLarge) return queue(connection, plain(413, "request body too large"));
    HttpResponse response;
    try {
      response = server.handler_(exchange->request);
    } catch (const std::exception& error) {
      response = plain(500, core::errorMessage(error));
    }
    return queue(connection, response);
  }

  static void onCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    delete static_cast<Exchange*>(*state);
    *state = nullptr;
  }
};

std::unique_ptr<HttpServer> HttpServer::start(const ListenAddress& address, Screen screen, Handler handler,
                                              HttpServerOptions options) {
  std::unique_ptr<HttpServer> server(new HttpServer());
  server->screen_ = std::move(screen);
  server->handler_ = std::move(handler);
  server->options_ = options;
  server->address_ = address;
  int family = AF_INET;
  const int fd = bindSocket(address, server->port_, family);
  server->library_ = std::make_unique<Library>();
  server->library_->server = server.get();
  unsigned flags = MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD;
  if (family == AF_INET6) flags |= MHD_USE_IPv6;
  server->library_->daemon =
      MHD_start_daemon(flags, 0, nullptr, nullptr, &Library::onRequest, server->library_.get(),
                       MHD_OPTION_LISTEN_SOCKET, fd, MHD_OPTION_CONNECTION_LIMIT, options.maxConnections,
                       MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned>(options.idleTimeout.count()),
                       MHD_OPTION_NOTIFY_COMPLETED, &Library::onCompleted, nullptr, MHD_OPTION_END);
  if (!server->library_->daemon) {
    ::close(fd);
    throw GlimmerstrandError(core::codes::native, "the HTTP server did not start on " + server->authority());
  }
  return server;
}

HttpServer::~HttpServer() { stop(); }

void HttpServer::stop() {
  if (library_ && library_->daemon) {
    MHD_stop_daemon(library_->daemon);  // closes the listening socket it was given
    library_->daemon = nullptr;
  }
}

std::string HttpServer::authority() const {
  const bool v6 = address_.host.find(':') != std::string::npos;
  return (v6 ? "[" + address_.host + "]" : address_.host) + ":" + std::to_string(port_);
}

}  // namespace glimmerstrand::client
