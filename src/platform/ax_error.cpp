#include "platform/ax_error.h"

namespace glimmerstrand::platform {

std::string_view axErrorName(AxError error) {
  switch (error) {
    case AxError::success:
      return "success";
    case AxError::failure:
      return "failure";
    case AxError::illegalArgument:
      return "illegalArgument";
    case AxError::invalidElement:
      return "invalidElement";
    case AxError::invalidObserver:
      return "invalidObserver";
    case AxError::cannotComplete:
      return "cannotComplete";
    case AxError::attributeUnsupported:
      return "attributeUnsupported";
    case AxError::actionUnsupported:
      return "actionUnsupported";
    case AxError::notificationUnsupported:
      return "notificationUnsupported";
    case AxError::notImplemented:
      return "notImplemented";
    case AxError::notificationAlreadyRegistered:
      return "notificationAlreadyRegistered";
    case AxError::notificationNotRegistered:
      return "notificationNotRegistered";
    case AxError::apiDisabled:
      return "apiDisabled";
    case AxError::noValue:
      return "noValue";
    case AxError::parameterizedAttributeUnsupported:
      return "parameterizedAttributeUnsupported";
    case AxError::notEnoughPrecision:
      return "notEnoughPrecision";
  }
  return "unknown";
}

}  // namespace glimmerstrand::platform
