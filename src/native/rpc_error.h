// The failure of a line operation: a code for the client and a message for a
// person.
#pragma once

#include <exception>
#include <string>

namespace glimmerstrand::native {

class RPCError : public std::exception {
 public:
  RPCError(std::string code, std::string message)
      : code_(std::move(code)), message_(std::move(message)), printed_("RPCError(" + code_ + "): " + message_) {}

  const std::string& code() const { return code_; }
  const std::string& message() const { return message_; }
  const char* what() const noexcept override { return printed_.c_str(); }

 private:
  std::string code_;
  std::string message_;
  std::string printed_;
};

}  // namespace glimmerstrand::native
