// The accessibility error numbers. Backends translate their own failures into
// these, so the logic above the seam speaks one vocabulary on every platform.
#pragma once

#include <cstdint>
#include <string_view>

namespace glimmerstrand::platform {

enum class AxError : std::int32_t {
  success = 0,
  failure = -25200,
  illegalArgument = -25201,
  invalidElement = -25202,  // the element is gone
  invalidObserver = -25203,
  cannotComplete = -25204,  // the application did not answer in time, or could not
  attributeUnsupported = -25205,
  actionUnsupported = -25206,
  notificationUnsupported = -25207,  // the application will never send it
  notImplemented = -25208,
  notificationAlreadyRegistered = -25209,
  notificationNotRegistered = -25210,
  apiDisabled = -25211,  // no accessibility permission
  noValue = -25212,
  parameterizedAttributeUnsupported = -25213,
  notEnoughPrecision = -25214,
};

/// "invalidElement" and so on; "unknown" for a number outside the table.
std::string_view axErrorName(AxError error);

}  // namespace glimmerstrand::platform
