#include "client/mcp_http.h"

#include <algorithm>
#include <array>
#include <vector>

#include "core/errors.h"
#include "core/json_value.h"

namespace glimmerstrand::client {
namespace {

using core::JSONValue;

constexpr std::array<std::string_view, 5> protocolVersions{"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05",
                                                           "2024-10-07"};
constexpr std::size_t sessionIdBytes = 16;

HttpResponse json(int status, std::string body) {
  return {status, {{"Content-Type", "application/json"}}, std::move(body)};
}

// A failure of the transport, as a JSON-RPC error without the request's id.
HttpResponse failure(int status, int code, const std::string& message, const JSONValue& id = nullptr) {
  return json(status,
              core::jsonText(JSONValue::Object{
                  {"jsonrpc", "2.0"}, {"id", id}, {"error", JSONValue::Object{{"code", code}, {"message", message}}}}));
}

// Whether the daemon's session answers this message: a request, or a message
// with an id that is neither a request nor a response (an invalid one).
bool isAnswered(const JSONValue& message) {
  const JSONValue* id = message.find("id");
  if (!id || !(id->asString() || id->asNumber())) return false;
  if (core::optionalString(message, "method")) return true;
  return !message.find("result") && !message.find("error");
}

// The daemon reads one message per line; JSON keeps line ends only between
// its tokens, where a blank means the same.
std::string oneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return text;
}

}  // namespace

bool knownProtocolVersion(const std::string& version) {
  return std::find(protocolVersions.begin(), protocolVersions.end(), version) != protocolVersions.end();
}

McpHttpTransport::McpHttpTransport(OpenLink openLink, McpHttpOptions options)
    : openLink_(std::move(openLink)), options_(std::move(options)) {}

std::optional<HttpResponse> McpHttpTransport::screen(const HttpRequest& head) const {
  if (auto origin = head.header("origin"); origin && !originAllowed(*origin))
    return failure(403, -32000, "Forbidden: requests from the web page at " + *origin + " are not allowed");
  const auto authorization = head.header("authorization");
  const auto token = authorization ? bearerToken(*authorization) : std::nullopt;
  if (!token || !sameToken(*token, options_.token)) {
    auto refused = failure(401, -32000, "Unauthorized: send the header Authorization: Bearer TOKEN");
    refused.headers.emplace_back("WWW-Authenticate", "Bearer");
    return refused;
  }
  if (head.path != "/mcp") return failure(404, -32000, "Not Found: the MCP endpoint is /mcp");
  if (head.method != "POST" && head.method != "DELETE") {
    // No stream of our own messages is offered: the daemon sends none.
    auto refused = failure(405, -32000, "Method Not Allowed: POST messages, DELETE to end a session");
    refused.headers.emplace_back("Allow", "POST, DELETE");
    return refused;
  }
  if (auto version = head.header("mcp-protocol-version"); version && !knownProtocolVersion(*version))
    return failure(400, -32000, "Bad Request: unsupported MCP-Protocol-Version " + *version);
  return std::nullopt;
}

HttpResponse McpHttpTransport::handle(const HttpRequest& request) {
  return request.method == "DELETE" ? remove(request) : post(request);
}

HttpResponse McpHttpTransport::post(const HttpRequest& request) {
  JSONValue message;
  try {
    message = core::parseJSON(request.body);
  } catch (const core::GlimmerstrandError& error) {
    return failure(400, -32700, "Parse error: " + error.message());
  }
  if (!message.asObject()) return failure(400, -32600, "Invalid Request: one JSON-RPC message per POST, as an object");
  const bool answered = isAnswered(message);
  const auto given = request.header("mcp-session-id");
  std::string id;
  if (given) {
    id = *given;
  } else if (answered && core::optionalString(message, "method") == "initialize") {
    auto started = startSession();
    if (!started) return failure(503, -32000, "Service Unavailable: every session has a call in progress");
    id = *started;
  } else {
    return failure(400, -32000, "Bad Request: no Mcp-Session-Id header; a session starts with initialize");
  }

  std::shared_ptr<DaemonLink> link;
  try {
    link = beginCall(id);
  } catch (const std::exception& error) {
    if (!given) endCall(id, nullptr, DaemonLink::Outcome::lost);
    return failure(503, -32000, "Service Unavailable: " + core::errorMessage(error));
  }
  if (!link) return failure(404, -32001, "Session not found: start a new one with initialize");

  if (!answered) {
    const bool sent = link->post(oneLine(request.body));
    endCall(id, link, sent ? DaemonLink::Outcome::replied : DaemonLink::Outcome::lost);
    return {202, {}, ""};
  }
  const JSONValue& requestId = *message.find("id");
  auto answer = link->request(oneLine(request.body), core::jsonText(requestId), request.socket);
  endCall(id, link, answer.outcome);
  switch (answer.outcome) {
    case DaemonLink::Outcome::replied: {
      auto response = json(200, std::move(answer.reply));
      if (!given) response.headers.emplace_back("Mcp-Session-Id", id);
      return response;
    }
    case DaemonLink::Outcome::duplicate:
      return failure(400, -32600, "Invalid Request: a request with this id is in progress in this session", requestId);
    case DaemonLink::Outcome::clientGone:
      return failure(400, -32000, "the client went away");  // nobody reads it
    case DaemonLink::Outcome::lost:
      break;
  }
  return failure(502, -32603, "the daemon ended the session before it replied; send the request again", requestId);
}

HttpResponse McpHttpTransport::remove(const HttpRequest& request) {
  const auto id = request.header("mcp-session-id");
  if (!id) return failure(400, -32000, "Bad Request: no Mcp-Session-Id header");
  std::shared_ptr<DaemonLink> link;
  {
    std::lock_guard guard(lock_);
    auto found = sessions_.find(*id);
    if (found == sessions_.end()) return failure(404, -32001, "Session not found");
    link = std::move(found->second.link);
    sessions_.erase(found);
  }
  if (link) link->retire();  // the daemon releases the session's leases
  return {204, {}, ""};
}

std::optional<std::string> McpHttpTransport::startSession() {
  std::vector<std::shared_ptr<DaemonLink>> ended;
  std::optional<std::string> id;
  {
    std::lock_guard guard(lock_);
    const auto now = Clock::now();
    for (auto it = sessions_.begin(); it != sessions_.end();) {
      const bool idle = it->second.calls == 0 && now - it->second.lastUsed > options_.sessionIdleLimit;
      if (idle && it->second.link) ended.push_back(it->second.link);
      it = idle ? sessions_.erase(it) : std::next(it);
    }
    if (sessions_.size() >= options_.maxSessions) {
      auto oldest = sessions_.end();
      for (auto it = sessions_.begin(); it != sessions_.end(); ++it)
        if (it->second.calls == 0 && (oldest == sessions_.end() || it->second.lastUsed < oldest->second.lastUsed))
          oldest = it;
      if (oldest != sessions_.end()) {
        if (oldest->second.link) ended.push_back(oldest->second.link);
        sessions_.erase(oldest);
      }
    }
    if (sessions_.size() < options_.maxSessions) {
      id = randomHex(sessionIdBytes);
      sessions_[*id] = Session{nullptr, now, 0};
    }
  }
  for (const auto& link : ended) link->retire();
  return id;
}

std::shared_ptr<DaemonLink> McpHttpTransport::beginCall(const std::string& id) {
  {
    std::lock_guard guard(lock_);
    auto found = sessions_.find(id);
    if (found == sessions_.end()) return nullptr;
    ++found->second.calls;
    found->second.lastUsed = Clock::now();
    if (found->second.link && found->second.link->usable()) return found->second.link;
  }
  std::shared_ptr<DaemonLink> fresh;
  try {
    fresh = openLink_();  // outside the lock: it connects to the daemon
  } catch (...) {
    endCall(id, nullptr, DaemonLink::Outcome::replied);
    throw;
  }
  std::shared_ptr<DaemonLink> spare;
  std::shared_ptr<DaemonLink> chosen;
  {
    std::lock_guard guard(lock_);
    auto found = sessions_.find(id);
    if (found == sessions_.end()) {
      spare = fresh;  // ended meanwhile, by DELETE
    } else if (found->second.link && found->second.link->usable()) {
      spare = fresh;  // another call opened one first
      chosen = found->second.link;
    } else {
      found->second.link = fresh;
      chosen = fresh;
    }
  }
  if (spare) spare->retire();
  return chosen;
}

void McpHttpTransport::endCall(const std::string& id, const std::shared_ptr<DaemonLink>& link,
                               DaemonLink::Outcome outcome) {
  std::shared_ptr<DaemonLink> retired;
  {
    std::lock_guard guard(lock_);
    auto found = sessions_.find(id);
    if (found == sessions_.end()) return;
    auto& session = found->second;
    session.calls = std::max(0, session.calls - 1);
    session.lastUsed = Clock::now();
    if (!link && outcome == DaemonLink::Outcome::lost && session.calls == 0 && !session.link) {
      sessions_.erase(found);  // a session that never reached the daemon
      return;
    }
    // A client that went away mid-call keeps its session, but not its leases:
    // its link ends, which lets the daemon release them once the call is over.
    // The session's next request opens a new link.
    const bool ends = outcome == DaemonLink::Outcome::clientGone || outcome == DaemonLink::Outcome::lost;
    if (ends && link && session.link == link) {
      retired = std::move(session.link);
      session.link.reset();
    }
  }
  if (retired) retired->retire();
}

std::size_t McpHttpTransport::sessionCount() const {
  std::lock_guard guard(lock_);
  return sessions_.size();
}

}  // namespace glimmerstrand::client
