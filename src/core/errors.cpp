#include "core/errors.h"

#include "cypher/values.h"

namespace glimmerstrand::core {

GlimmerstrandError::GlimmerstrandError(std::string code, std::string message)
    : code_(std::move(code)),
      message_(std::move(message)),
      printed_("GlimmerstrandError(" + code_ + "): " + message_) {}

std::optional<std::string> errorCode(const std::exception& error) {
  if (auto g = dynamic_cast<const GlimmerstrandError*>(&error)) return g->code();
  if (auto b = dynamic_cast<const cypher::BadRequestError*>(&error)) return b->code();
  return std::nullopt;
}

std::string errorMessage(const std::exception& error) {
  if (auto g = dynamic_cast<const GlimmerstrandError*>(&error)) return g->message();
  if (auto b = dynamic_cast<const cypher::BadRequestError*>(&error)) return b->message();
  return error.what();
}

bool hasCode(const std::exception& error, const std::string& code) { return errorCode(error) == code; }

}  // namespace glimmerstrand::core
