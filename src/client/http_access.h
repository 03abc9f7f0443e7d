// Who may use `glimmerstrand mcp --http`, and where it listens: the bearer
// token every request must carry, the origins a web page may call from, and
// the address the server binds. Plain functions; none keeps state.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "client/daemon_process.h"

namespace glimmerstrand::client {

/// The token of an `Authorization: Bearer TOKEN` header; none for any other
/// scheme or an empty token.
std::optional<std::string_view> bearerToken(std::string_view authorization);

/// Whether two tokens are equal, in a time that does not tell how much of
/// them matched.
bool sameToken(std::string_view given, std::string_view expected);

/// Whether a web page of this `Origin` may call: only pages served from this
/// machine's loopback names. A page elsewhere whose name was made to point
/// here (DNS rebinding) names its own host, and is refused.
bool originAllowed(std::string_view origin);

/// The bearer token, and where it came from for the start message (the token
/// itself is never printed).
struct TokenChoice {
  std::string token;
  std::string source;
};

/// GLIMMERSTRAND_HTTP_TOKEN when set, else the contents of `tokenFile`
/// (trailing blanks and line ends dropped), else `http-token` in
/// `stateFolder`, made with a new random token (mode 0600) when missing.
/// Throws GlimmerstrandError when a file can't be read or holds no token.
TokenChoice chooseToken(const Environment& environment, const std::optional<std::string>& tokenFile,
                        const std::filesystem::path& stateFolder);

/// `bytes` random bytes from the kernel, as lower-case hex.
std::string randomHex(std::size_t bytes);

/// Where to listen: "PORT" or ":PORT" (on 127.0.0.1), "HOST:PORT", or
/// "[IPV6]:PORT". Throws GlimmerstrandError "invalid_argument" otherwise.
struct ListenAddress {
  std::string host;
  std::uint16_t port = 0;
};
ListenAddress parseListenAddress(std::string_view text);

}  // namespace glimmerstrand::client
