#include "native/gateway_operations.h"

#include <unistd.h>

#include <cmath>
#include <memory>

#include "core/errors.h"
#include "server/gateway.h"

namespace glimmerstrand::native {
namespace {

using core::JSONValue;

JSONValue eventJSON(const server::GatewayEvent& event) {
  JSONValue::Object object{{"event", "gateway"}};
  if (auto open = std::get_if<server::GatewayOpen>(&event)) {
    core::put(object, "type", "open");
    core::put(object, "conn", open->connection);
  } else if (auto line = std::get_if<server::GatewayLine>(&event)) {
    core::put(object, "type", "line");
    core::put(object, "conn", line->connection);
    core::put(object, "line", line->text);
  } else if (auto close = std::get_if<server::GatewayClose>(&event)) {
    core::put(object, "type", "close");
    core::put(object, "conn", close->connection);
  } else {
    core::put(object, "type", "rejected");
    core::put(object, "reason", std::get<server::GatewayRejected>(event).reason);
  }
  return object;
}

void writeRejection(const std::string& reason) {
  std::string line = "接続を断りました: " + reason + "\n";
  [[maybe_unused]] auto written = ::write(2, line.data(), line.size());
}

std::int64_t connectionParam(const JSONValue& params) {
  return static_cast<std::int64_t>(std::llround(requiredNumber("conn", params)));
}

}  // namespace

void addGatewayOperations(OperationTable& table, Output& output) {
  auto gateway = server::Gateway::make([&output](const server::GatewayEvent& event) {
    if (auto rejected = std::get_if<server::GatewayRejected>(&event)) writeRejection(rejected->reason);
    output.writeLine(core::jsonText(eventJSON(event)));
  });

  table.add("gatewayListen", [gateway](const JSONValue& params) -> HandlerResult {
    std::string path = requiredString("path", params);
    auto requirement = core::optionalString(params, "requirement");
    bool verifies = gateway->listen(path, requirement);
    return JSONValue::Object{{"listening", true}, {"verifiesSignature", verifies}};
  });
  table.add("gatewaySend", [gateway](const JSONValue& params) -> HandlerResult {
    std::int64_t connection = connectionParam(params);
    std::string line = requiredString("line", params);
    gateway->send(connection, line);
    return JSONValue::Object{{"sent", true}};
  });
  table.add("gatewayClose", [gateway](const JSONValue& params) -> HandlerResult {
    bool closed = gateway->closeConnection(connectionParam(params));
    return JSONValue::Object{{"closed", closed}};
  });
}

}  // namespace glimmerstrand::native
