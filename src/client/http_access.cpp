#include "client/http_access.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/errors.h"

namespace glimmerstrand::client {
namespace {

using core::GlimmerstrandError;
namespace fs = std::filesystem;

constexpr std::size_t tokenBytes = 32;
constexpr const char* tokenFileName = "http-token";

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

bool isLoopbackHost(const std::string& host) {
  if (host == "localhost" || host.ends_with(".localhost") || host == "[::1]") return true;
  in_addr address{};
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

std::string readToken(const fs::path& file) {
  std::ifstream in(file);
  if (!in) throw GlimmerstrandError(core::codes::invalidArgument, "cannot read the token file " + file.string());
  std::stringstream text;
  text << in.rdbuf();
  const std::string token(trimmed(text.str()));
  if (token.empty())
    throw GlimmerstrandError(core::codes::invalidArgument, "the token file " + file.string() + " is empty");
  return token;
}

// Made with O_EXCL at mode 0600, so the token is never readable by others,
// not even for a moment; a file that is there already is kept.
std::string ownToken(const fs::path& stateFolder) {
  const fs::path file = stateFolder / tokenFileName;
  std::error_code error;
  if (fs::create_directories(stateFolder, error)) ::chmod(stateFolder.c_str(), 0700);
  const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    if (errno != EEXIST)
      throw GlimmerstrandError(core::codes::native, "cannot write " + file.string() + ": " + std::strerror(errno));
    return readToken(file);
  }
  const std::string token = randomHex(tokenBytes);
  const std::string line = token + "\n";
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  ::close(fd);
  if (!written) throw GlimmerstrandError(core::codes::native, "cannot write " + file.string());
  return token;
}

}  // namespace

std::optional<std::string_view> bearerToken(std::string_view authorization) {
  authorization = trimmed(authorization);
  constexpr std::string_view scheme = "bearer ";
  if (authorization.size() <= scheme.size() || lowerCase(authorization.substr(0, scheme.size())) != scheme)
    return std::nullopt;
  const auto token = trimmed(authorization.substr(scheme.size()));
  if (token.empty()) return std::nullopt;
  return token;
}

bool sameToken(std::string_view given, std::string_view expected) {
  unsigned char difference = given.size() == expected.size() ? 0 : 1;
  for (std::size_t k = 0; k < expected.size(); ++k)
    difference |= static_cast<unsigned char>(expected[k] ^ (k < given.size() ? given[k] : 0));
  return difference == 0;
}

bool originAllowed(std::string_view origin) {
  const std::string text = lowerCase(trimmed(origin));
  std::string_view rest = text;
  if (rest.starts_with("http://"))
    rest.remove_prefix(7);
  else if (rest.starts_with("https://"))
    rest.remove_prefix(8);
  else
    return false;  // "null" and every other scheme
  if (rest.find_first_of("/?#@") != std::string_view::npos) return false;
  // The port, if any, follows the last colon after an IPv6 address's bracket.
  const auto bracket = rest.rfind(']');
  const auto colon = rest.rfind(':');
  std::string host(colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket)
                       ? rest.substr(0, colon)
                       : rest);
  return isLoopbackHost(host);
}

TokenChoice chooseToken(const Environment& environment, const std::optional<std::string>& tokenFile,
                        const fs::path& stateFolder) {
  if (auto token = environment("GLIMMERSTRAND_HTTP_TOKEN")) {
    const std::string value(trimmed(*token));
    if (!value.empty()) return {value, "the bearer token is $GLIMMERSTRAND_HTTP_TOKEN"};
  }
  if (tokenFile) return {readToken(*tokenFile), "the bearer token is in " + *tokenFile};
  return {ownToken(stateFolder), "the bearer token is in " + (stateFolder / tokenFileName).string()};
}

std::string randomHex(std::size_t bytes) {
  std::string raw(bytes, '\0');
  for (std::size_t got = 0; got < bytes;) {
    const ssize_t n = ::getrandom(raw.data() + got, bytes - got, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw GlimmerstrandError(core::codes::native, std::string("no random bytes: ") + std::strerror(errno));
    got += static_cast<std::size_t>(n);
  }
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes * 2);
  for (unsigned char c : raw) {
    hex.push_back(digits[c >> 4]);
    hex.push_back(digits[c & 15]);
  }
  return hex;
}

ListenAddress parseListenAddress(std::string_view text) {
  const auto invalid = [&] {
    return GlimmerstrandError(core::codes::invalidArgument,
                              "--http wants ADDRESS:PORT, such as 127.0.0.1:8765, [::1]:8765 or 0.0.0.0:8765, or a "
                              "PORT alone; not '" +
                                  std::string(text) + "'");
  };
  ListenAddress address{"127.0.0.1", 0};
  std::string_view port = text;
  if (const auto colon = text.rfind(':'); colon != std::string_view::npos) {
    std::string_view host = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (host.starts_with('[')) {
      if (!host.ends_with(']') || host.size() < 3) throw invalid();
      host = host.substr(1, host.size() - 2);
    } else if (host.find(':') != std::string_view::npos) {
      throw invalid();  // an IPv6 address needs its brackets
    }
    if (!host.empty()) address.host = host;
  }
  unsigned value = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
  if (port.empty() || error != std::errc() || end != port.data() + port.size() || value > 65535) throw invalid();
  address.port = static_cast<std::uint16_t>(value);
  return address;
}

}  // namespace glimmerstrand::client
