#include "platform/linux/toolkit_switch.h"

#include "platform/linux/atspi_element.h"
#include "platform/linux/atspi_vocabulary.h"

namespace glimmerstrand::platform::linux_desktop {

bool waitsForAssistiveClient(std::string_view toolkit) { return toolkit == chromiumToolkit; }

AxError showAssistiveClient(GDBusConnection* connection, const std::string& bus, int timeoutMs) {
  // Chromium takes this request as the sign of a screen reader; what it
  // answers is of no use here.
  return callSync(connection, Call{bus, rootPath, "org.a11y.atspi.Accessible", "GetAttributes", nullptr}, timeoutMs)
      .error;
}

}  // namespace glimmerstrand::platform::linux_desktop
