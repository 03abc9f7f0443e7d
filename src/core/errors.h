// The error of the whole system and the helpers that read a code and a
// message off any error. Errors are exceptions that travel until one caller
// turns them into a reply or a statement error.
#pragma once

#include <exception>
#include <optional>
#include <string>

namespace glimmerstrand::core {

/// Codes used across the system; only the code is ever tested by callers.
namespace codes {
inline constexpr const char* invalidArgument = "invalid_argument";
inline constexpr const char* notFound = "not_found";
inline constexpr const char* permission = "permission";
inline constexpr const char* noAction = "no_action";
inline constexpr const char* stale = "stale";
inline constexpr const char* timeout = "timeout";
inline constexpr const char* focusNotMoved = "focus_not_moved";
inline constexpr const char* native = "native";
inline constexpr const char* busy = "busy";
inline constexpr const char* internal = "internal";
/// No desktop to work on: none was reachable when the process last looked.
inline constexpr const char* noDesktop = "no_desktop";
}  // namespace codes

/// Printed form: "GlimmerstrandError(" code "): " message.
class GlimmerstrandError : public std::exception {
 public:
  GlimmerstrandError(std::string code, std::string message);

  const std::string& code() const { return code_; }
  const std::string& message() const { return message_; }
  const char* what() const noexcept override { return printed_.c_str(); }

  friend bool operator==(const GlimmerstrandError& a, const GlimmerstrandError& b) {
    return a.code_ == b.code_ && a.message_ == b.message_;
  }

 private:
  std::string code_;
  std::string message_;
  std::string printed_;
};

/// The code of a GlimmerstrandError or a BadRequestError; absent otherwise.
std::optional<std::string> errorCode(const std::exception& error);
/// The message of those two; the printable description of any other error.
std::string errorMessage(const std::exception& error);
bool hasCode(const std::exception& error, const std::string& code);

}  // namespace glimmerstrand::core
