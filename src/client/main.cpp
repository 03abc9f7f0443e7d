// glimmerstrand: statements from the shell, and the MCP bridge for agent hosts.
#include "client/client.h"

int main(int argc, char** argv) {
  return glimmerstrand::client::runClient(std::vector<std::string>(argv + 1, argv + argc));
}
