#include "targets.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "core/errors.h"
#include "core/json_value.h"
#include "cypher/fixtures.h"
#include "cypher/parser.h"
#include "cypher/projection.h"
#include "cypher/unicode_text.h"
#include "server/mcp_session.h"
#include "server/request_handler.h"
#include "server/support/fake_backend.h"
#include "server/utf8_lines.h"

namespace glimmerstrand::fuzz {
namespace {

using core::JSONValue;

// A broken promise: abort, so that libFuzzer keeps the input and a test fails.
void require(bool holds, std::string_view what, std::string_view input) {
  if (holds) return;
  std::fprintf(stderr, "broken: %.*s\ninput: %.*s\n", static_cast<int>(what.size()), what.data(),
               static_cast<int>(input.size()), input.data());
  std::abort();
}

bool isJSONObject(std::string_view line) {
  try {
    return core::parseJSON(line).asObject() != nullptr;
  } catch (const core::GlimmerstrandError&) {
    return false;
  }
}

// Whether a request line deserves a reply: it is a JSON object, or one whose
// id can still be read.
bool answerable(std::string_view line) {
  try {
    return core::parseJSON(line).asObject() != nullptr;
  } catch (const core::GlimmerstrandError&) {
    return core::keyOfRefusedText(line, "id").has_value();
  }
}

// The lines of the input as the gateway hands them on: split at line feeds,
// decoded with replacement, empty ones dropped.
template <typename Each>
void eachLine(const std::uint8_t* data, std::size_t size, Each each) {
  server::LineBuffer buffer;
  buffer.append(std::string_view(reinterpret_cast<const char*>(data), size));
  buffer.append("\n");
  while (auto line = buffer.nextLine())
    if (!line->empty()) each(*line);
}

server::ServerLog quietLog(const std::string& name) {
  return server::makeLog(name, "silent", [](std::string_view) {});
}

}  // namespace

int requestLines(const std::uint8_t* data, std::size_t size) {
  static auto backend = std::make_shared<server::testing::FakeBackend>();
  static server::RequestHandler handler(backend, "/nonexistent/glimmerstrand-fuzz", quietLog("daemon"),
                                        [] { return std::int64_t{0}; });
  eachLine(data, size, [](const std::string& line) {
    auto reply = handler.handleLine(line);
    require(!reply || isJSONObject(*reply), "a reply that is no JSON object", line);
    require(reply.has_value() == answerable(line), "a request answered or left unanswered wrongly", line);
  });
  return 0;
}

int mcpMessages(const std::uint8_t* data, std::size_t size) {
  auto backend = std::make_shared<server::testing::FakeBackend>();
  std::vector<std::string> sent;
  server::McpSession session(
      backend, [&](const std::string& line) { sent.push_back(line); }, quietLog("mcp"));
  eachLine(data, size, [&](const std::string& line) {
    sent.clear();
    session.handleLine(line);
    require(sent.size() <= 1, "more than one reply to one message", line);
    for (const auto& reply : sent) {
      require(isJSONObject(reply), "a reply that is no JSON object", line);
      require(core::parseJSON(reply).find("jsonrpc") != nullptr, "a reply without jsonrpc", line);
    }
  });
  return 0;
}

int statements(const std::uint8_t* data, std::size_t size) {
  static const auto graph = cypher::testing::uiGraph();
  const std::string text = cypher::validUtf8(std::string_view(reinterpret_cast<const char*>(data), size));
  try {
    for (const auto& statement : cypher::parseStatements(text))
      if (auto read = statement.asRead()) cypher::executeQuery(*read, graph);
  } catch (const cypher::BadRequestError&) {
    // The language's own answer to bad input.
  } catch (const std::exception& error) {
    require(false, error.what(), text);
  }
  return 0;
}

}  // namespace glimmerstrand::fuzz
