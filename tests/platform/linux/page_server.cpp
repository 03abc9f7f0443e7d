#include "page_server.h"

#include "platform/linux/test_desktop.h"

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace glimmerstrand::testing {
namespace {

// A port nobody listens on now, for the server to take.
int freePort() {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(s, reinterpret_cast<sockaddr*>(&address), length);
  ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(s);
  return ntohs(address.sin_port);
}

}  // namespace

PageServer::PageServer(const std::filesystem::path& folder, const std::map<std::string, std::string>& pages)
    : log_(folder / "requests.log"), port_(freePort()) {
  for (const auto& [name, html] : pages) std::ofstream(folder / name) << html;
  pid_ = ::fork();
  if (pid_ == 0) {
    const std::string port = std::to_string(port_), directory = folder.string(), log = log_.string();
    if (!std::freopen(log.c_str(), "w", stderr) || !std::freopen("/dev/null", "w", stdout)) ::_exit(127);
    ::execlp("python3", "python3", "-m", "http.server", port.c_str(), "--bind", "127.0.0.1", "--directory",
             directory.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
}

PageServer::~PageServer() {
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

std::string PageServer::url(const std::string& page) const {
  return "http://127.0.0.1:" + std::to_string(port_) + "/" + page;
}

std::string PageServer::log() const {
  std::ifstream in(log_);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void removeBrowserFolder(const std::filesystem::path& folder) {
  std::error_code error;
  for (int attempt = 0; attempt < 10; ++attempt) {
    std::filesystem::remove_all(folder, error);
    if (!error) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  throw std::filesystem::filesystem_error("the folder stays", folder, error);
}

void endBrowserSuite(TestDesktop*& desktop, PageServer*& server, const std::filesystem::path& folder) {
  delete desktop;
  delete server;
  desktop = nullptr;
  server = nullptr;
  removeBrowserFolder(folder);
}

std::string priceListPage(int rows) {
  std::string html =
      "<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Price list</title></head><body>"
      "<h1>Price list</h1><table><caption>Prices</caption><tr><th>Item</th><th>Price</th></tr>";
  for (int n = 1; n <= rows; ++n)
    html += "<tr><td>Item " + std::to_string(n) + "</td><td>" + std::to_string(n * 7) + "</td></tr>";
  return html + "</table></body></html>";
}

}  // namespace glimmerstrand::testing
