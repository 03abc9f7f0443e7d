#include "client/reports.h"

#include <algorithm>
#include <cmath>

#include "client/arguments.h"

namespace glimmerstrand::client {
namespace {

using core::JSONValue;

std::string labelled(std::string label, const std::string& value) {
  label.resize(std::max<std::size_t>(label.size() + 1, 14), ' ');
  return label + value + "\n";
}

std::string scalarText(const JSONValue& value) {
  if (value.isNull()) return "none";
  if (const auto* b = value.asBool()) return *b ? "yes" : "no";
  if (const auto* s = value.asString()) return *s;
  return core::jsonText(value);
}

bool isScalar(const JSONValue& value) { return !value.asArray() && !value.asObject(); }

// "key: value, key: value" for an object of scalars, on one line.
std::string inlineObject(const JSONValue::Object& object) {
  std::string text;
  for (const auto& [key, value] : object) text += (text.empty() ? "" : ", ") + key + ": " + scalarText(value);
  return text;
}

// Any reply of the daemon, as indented lines: whatever the platform reports
// reads without knowing its keys.
void appendReadable(std::string& out, const JSONValue& value, const std::string& indent) {
  if (const auto* object = value.asObject()) {
    for (const auto& [key, field] : *object) {
      if (isScalar(field)) {
        out += indent + labelled(key, scalarText(field));
      } else if (field.asArray() && field.asArray()->empty()) {
        out += indent + labelled(key, "none");
      } else {
        out += indent + key + "\n";
        appendReadable(out, field, indent + "  ");
      }
    }
  } else if (const auto* array = value.asArray()) {
    for (const auto& item : *array) {
      const auto* object = item.asObject();
      bool flat =
          object && std::all_of(object->begin(), object->end(), [](const auto& f) { return isScalar(f.second); });
      if (isScalar(item) || flat) {
        out += indent + "- " + (flat ? inlineObject(*object) : scalarText(item)) + "\n";
      } else {
        out += indent + "-\n";
        appendReadable(out, item, indent + "  ");
      }
    }
  } else {
    out += indent + scalarText(value) + "\n";
  }
}

std::string versionLine(const DaemonFacts& facts) {
  std::string line = "glimmerstrand " + std::string(versionText()) + ", daemon pid " + std::to_string(facts.pid);
  if (facts.version && *facts.version != versionText())
    line += " runs version " + *facts.version + "; run: glimmerstrand restart";
  return line + "\n";
}

std::string placesText(const DaemonFacts& facts) {
  std::string text = labelled("instance", facts.instance);
  if (!facts.display.empty()) text += labelled("display", facts.display);
  return text + labelled("socket", facts.paths.socket) + labelled("state folder", facts.paths.stateFolder.string()) +
         labelled("log", facts.log);
}

std::string valueOf(const std::map<std::string, std::string>& environment, const std::string& name) {
  auto found = environment.find(name);
  return found == environment.end() ? "" : found->second;
}

std::string errorMessage(const JSONValue& reply) {
  const JSONValue* error = reply.find("error");
  return error ? core::optionalString(*error, "message").value_or(core::jsonText(*error)) : core::jsonText(reply);
}

std::string platformText(const DaemonFacts& facts, const JSONValue& doctor) {
  if (doctor.find("result")) return facts.platform + ", usable";
  return facts.platform + ", not usable: " + errorMessage(doctor) +
         "\n              after changing GLIMMERSTRAND_PLATFORM, run: glimmerstrand restart";
}

std::string mirrorLine(const JSONValue& mirror) {
  const auto name = core::optionalString(mirror, "app").value_or("(no name)");
  const auto pid = core::optionalInt(mirror, "pid").value_or(0);
  const auto elements = core::optionalInt(mirror, "elements").value_or(0);
  std::string line = "  " + name + " (pid " + std::to_string(pid) + "): " + std::to_string(elements) + " elements";
  if (auto walk = core::optionalNumber(mirror, "walkMs")) line += ", walked in " + cypher::numberText(*walk) + " ms";
  if (auto age = core::optionalNumber(mirror, "ageMs"); age && *age >= 0)
    line += ", copy " + durationText(*age) + " old";
  return line + "\n";
}

std::string mirrorsText(const JSONValue& result) {
  const JSONValue* mirrors = result.find("mirrors");
  if (!mirrors || !mirrors->asArray() || mirrors->asArray()->empty()) return labelled("mirrors", "none");
  std::string text = labelled("mirrors", std::to_string(mirrors->asArray()->size()));
  for (const auto& mirror : *mirrors->asArray()) text += mirrorLine(mirror);
  return text;
}

}  // namespace

std::string displayText(const std::map<std::string, std::string>& daemonEnvironment,
                        const std::optional<std::map<std::string, std::string>>& desktopEnvironment,
                        const std::string& desktopFolder) {
  const std::string own = valueOf(daemonEnvironment, "DISPLAY");
  const std::string wayland = valueOf(daemonEnvironment, "WAYLAND_DISPLAY");
  const std::string desktop = desktopEnvironment ? valueOf(*desktopEnvironment, "DISPLAY") : "";
  if (!desktop.empty() && wayland.empty() && (own.empty() || own == desktop))
    return desktop + ", the headless desktop in " + desktopFolder;
  if (!wayland.empty()) return "Wayland " + wayland + (own.empty() ? "" : ", X " + own) + ", its own";
  if (!own.empty()) return own + ", its own";
  return "none: it has none of its own, and no headless desktop runs in " + desktopFolder;
}

int replyStatus(const JSONValue& reply) {
  const JSONValue* result = reply.find("result");
  const bool ok = reply.find("ok") && reply.find("ok")->asBool() && *reply.find("ok")->asBool();
  return ok && result && !result->find("error") ? 0 : 1;
}

std::string replyErrorText(const JSONValue& reply) {
  std::string text = "glimmerstrand: " + errorMessage(reply) + "\n";
  const JSONValue* error = reply.find("error");
  if (auto retry = error ? core::optionalString(*error, "retry") : std::nullopt) text += "hint: " + *retry + "\n";
  return text;
}

std::string durationText(double milliseconds) {
  const auto seconds = static_cast<long long>(std::floor(milliseconds / 1000));
  if (seconds < 1) return std::to_string(static_cast<long long>(std::floor(milliseconds + 0.5))) + " ms";
  if (seconds < 60) return std::to_string(seconds) + " s";
  if (seconds < 3600) return std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s";
  if (seconds < 86400) return std::to_string(seconds / 3600) + " h " + std::to_string(seconds % 3600 / 60) + " min";
  return std::to_string(seconds / 86400) + " d " + std::to_string(seconds % 86400 / 3600) + " h";
}

std::string statusText(const DaemonFacts& facts, const JSONValue& status, const JSONValue& doctor) {
  std::string text = versionLine(facts) + labelled("platform", platformText(facts, doctor)) + placesText(facts);
  const JSONValue* result = status.find("result");
  if (!result) return text + labelled("status", "failed: " + errorMessage(status));
  if (auto uptime = core::optionalNumber(*result, "uptimeMs")) text += labelled("up", durationText(*uptime));
  text += labelled("MCP sessions", std::to_string(core::optionalInt(*result, "sessions").value_or(0)));
  return text + mirrorsText(*result);
}

std::string doctorText(const DaemonFacts& facts, const JSONValue& doctor) {
  std::string text = versionLine(facts) + labelled("platform", platformText(facts, doctor)) + placesText(facts);
  if (const JSONValue* result = doctor.find("result")) appendReadable(text, *result, "");
  return text;
}

}  // namespace glimmerstrand::client
