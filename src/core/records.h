// The plain records in which a screen, an element, an application and the
// result of a UI action travel between the mirror, the driver and the runner.
// Values only: compared and hashed over all fields in the order listed.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/json_value.h"

namespace glimmerstrand::core {

struct Rect {
  double x = 0, y = 0, width = 0, height = 0;
  bool operator==(const Rect&) const = default;
};

struct Point {
  double x = 0, y = 0;
  bool operator==(const Point&) const = default;
};

/// An application as the driver found it.
struct AppInfo {
  std::int64_t pid = 0;
  std::string bundleId;
  std::string name;
  bool operator==(const AppInfo&) const = default;
};

struct RunningApp {
  std::int64_t pid = 0;
  std::string bundleId;
  std::string name;
  bool active = false;
  bool hidden = false;
  bool operator==(const RunningApp&) const = default;
};

/// How a caller points at an application; no field set means the frontmost.
struct AppSelector {
  std::optional<std::int64_t> pid;
  std::optional<std::string> bundleId;
  std::optional<std::string> name;
  bool operator==(const AppSelector&) const = default;
};

/// One element of an application's tree. Texts arrive cut and cleaned by the
/// mirror.
struct AxNode {
  std::int64_t i = 0;
  std::optional<std::int64_t> uid;
  std::int64_t parent = -1;
  std::int64_t depth = 0;
  std::optional<std::string> role;
  std::optional<std::string> subrole;
  std::optional<std::string> title;
  std::optional<std::string> description;
  std::optional<std::string> value;
  std::optional<std::string> identifier;
  std::optional<std::string> placeholder;
  std::optional<Rect> frame;
  std::optional<bool> enabled;
  std::optional<bool> focused;
  std::optional<std::string> help;
  std::optional<bool> selected;
  std::optional<bool> expanded;
  std::optional<std::string> shortcut;
  std::optional<bool> checked;
  std::optional<bool> menu;
  std::optional<std::string> url;
  std::optional<std::string> details;
  std::optional<std::int64_t> offscreen;
  bool operator==(const AxNode&) const = default;
};

/// An immutable, shared list of nodes: copying a snapshot out of a mirror, into
/// a graph or into a pending write costs a reference, not 10,000 node copies.
/// Reads like a const std::vector; compares by contents.
class NodeList {
 public:
  NodeList() : nodes_(noNodes()) {}
  NodeList(std::vector<AxNode> nodes) : nodes_(std::make_shared<const std::vector<AxNode>>(std::move(nodes))) {}
  NodeList(std::initializer_list<AxNode> nodes) : NodeList(std::vector<AxNode>(nodes)) {}
  explicit NodeList(std::shared_ptr<const std::vector<AxNode>> nodes) : nodes_(nodes ? std::move(nodes) : noNodes()) {}

  const std::vector<AxNode>& vector() const { return *nodes_; }
  const std::shared_ptr<const std::vector<AxNode>>& shared() const { return nodes_; }
  std::size_t size() const { return nodes_->size(); }
  bool empty() const { return nodes_->empty(); }
  const AxNode& operator[](std::size_t at) const { return (*nodes_)[at]; }
  std::vector<AxNode>::const_iterator begin() const { return nodes_->begin(); }
  std::vector<AxNode>::const_iterator end() const { return nodes_->end(); }

  friend bool operator==(const NodeList& a, const NodeList& b) {
    return a.nodes_ == b.nodes_ || *a.nodes_ == *b.nodes_;
  }

 private:
  static const std::shared_ptr<const std::vector<AxNode>>& noNodes() {
    static const auto none = std::make_shared<const std::vector<AxNode>>();
    return none;
  }
  std::shared_ptr<const std::vector<AxNode>> nodes_;
};

struct AxSnapshot {
  AppInfo app;
  std::int64_t pid = 0;
  std::int64_t generation = 0;
  double ageMs = 0;
  double walkMs = 0;
  bool dirty = false;
  bool truncated = false;
  /// The application has answered nothing since one of our presses: it
  /// runs a window of its own from within it, and the copy is as it stood.
  bool held = false;
  std::int64_t notifications = 0;
  NodeList nodes;
  double elapsedMs = 0;
  bool operator==(const AxSnapshot&) const = default;
};

/// The application menu bar as a tree of its own, indices counted from 0.
struct AxMenus {
  AppInfo app;
  std::int64_t pid = 0;
  NodeList nodes;
  bool operator==(const AxMenus&) const = default;
};

struct SnapshotOptions {
  AppSelector app;
  bool fresh = false;
  bool all = false;
  std::optional<std::int64_t> timeoutMs;
  std::optional<std::int64_t> maxAgeMs;
  bool operator==(const SnapshotOptions&) const = default;
};

/// How the runner names an element to the driver. `menu` is true or absent,
/// never false.
struct ElementRef {
  std::int64_t pid = 0;
  std::int64_t generation = 0;
  std::int64_t i = 0;
  std::optional<std::int64_t> uid;
  std::optional<bool> menu;
  bool operator==(const ElementRef&) const = default;
};

struct PressResult {
  std::string method;
  bool completed = false;
  std::int64_t notificationsBefore = 0;
  double elapsedMs = 0;
  bool operator==(const PressResult&) const = default;
};

struct SettleResult {
  bool changed = false;
  bool settled = false;
  std::int64_t notifications = 0;
  double waitedMs = 0;
  bool operator==(const SettleResult&) const = default;
};

struct SettleOptions {
  std::int64_t pid = 0;
  std::optional<std::int64_t> since;
  std::optional<std::int64_t> quietMs;
  std::optional<std::int64_t> firstMs;
  std::optional<std::int64_t> timeoutMs;
  bool operator==(const SettleOptions&) const = default;
};

struct ClickOptions {
  std::string button = "left";
  std::int64_t count = 1;
  bool operator==(const ClickOptions&) const = default;
};

struct ScrollDelta {
  std::optional<double> dx, dy, x, y;
  bool operator==(const ScrollDelta&) const = default;
};

struct SetValueResult {
  bool applied = false;
  bool operator==(const SetValueResult&) const = default;
};

struct QuitResult {
  std::string name;
  std::int64_t pid = 0;
  bool terminated = false;
  bool operator==(const QuitResult&) const = default;
};

struct WindowInfo {
  std::int64_t index = 0;
  std::string title;
  bool main = false;
  bool focused = false;
  bool minimized = false;
  bool operator==(const WindowInfo&) const = default;
};

/// A window by its index or by its title.
struct WindowSelector {
  std::variant<double, std::string> by;
  bool operator==(const WindowSelector&) const = default;
};

struct ReadTextResult {
  std::string text;
  bool truncated = false;
  bool operator==(const ReadTextResult&) const = default;
};

struct InspectResult {
  struct Action {
    std::string name;
    std::string description;
    bool operator==(const Action&) const = default;
  };
  struct Attribute {
    std::string name;
    std::string value;
    bool settable = false;
    bool operator==(const Attribute&) const = default;
  };
  std::vector<Action> actions;
  std::vector<Attribute> attributes;
  bool operator==(const InspectResult&) const = default;
};

struct CaptureOptions {
  std::int64_t maxSide = 0;
  std::string format = "jpeg";
  double quality = 0.8;
  std::optional<std::int64_t> pid;
  bool operator==(const CaptureOptions&) const = default;
};

struct Capture {
  std::string format;
  std::vector<std::uint8_t> bytes;
  std::int64_t width = 0;
  std::int64_t height = 0;
  Rect region;
  bool operator==(const Capture&) const = default;
};

// Hashing over all fields, in order. Overloads for each record, so that any
// record can be a key of a hash map through RecordHash.
std::size_t hashValue(const Rect& v);
std::size_t hashValue(const Point& v);
std::size_t hashValue(const AppInfo& v);
std::size_t hashValue(const RunningApp& v);
std::size_t hashValue(const AppSelector& v);
std::size_t hashValue(const AxNode& v);
std::size_t hashValue(const AxSnapshot& v);
std::size_t hashValue(const AxMenus& v);
std::size_t hashValue(const SnapshotOptions& v);
std::size_t hashValue(const ElementRef& v);
std::size_t hashValue(const PressResult& v);
std::size_t hashValue(const SettleResult& v);
std::size_t hashValue(const SettleOptions& v);
std::size_t hashValue(const ClickOptions& v);
std::size_t hashValue(const ScrollDelta& v);
std::size_t hashValue(const SetValueResult& v);
std::size_t hashValue(const QuitResult& v);
std::size_t hashValue(const WindowInfo& v);
std::size_t hashValue(const WindowSelector& v);
std::size_t hashValue(const ReadTextResult& v);
std::size_t hashValue(const InspectResult& v);
std::size_t hashValue(const CaptureOptions& v);
std::size_t hashValue(const Capture& v);

/// std::unordered_map<ElementRef, T, RecordHash> and the like.
struct RecordHash {
  template <typename T>
  std::size_t operator()(const T& v) const {
    return hashValue(v);
  }
};

// JSON forms of the records the line protocol and the server write: keys are
// the field names; an absent optional leaves no key.
JSONValue toJSON(const Rect& v);
JSONValue toJSON(const AppInfo& v);
JSONValue toJSON(const RunningApp& v);
JSONValue toJSON(const AxNode& v);
JSONValue toJSON(const PressResult& v);
JSONValue toJSON(const SettleResult& v);
JSONValue toJSON(const QuitResult& v);
JSONValue toJSON(const WindowInfo& v);
JSONValue toJSON(const ReadTextResult& v);
JSONValue toJSON(const InspectResult& v);

/// A selector from the line protocol's `app` object. Missing keys leave
/// fields absent; a value of the wrong type counts as absent.
AppSelector appSelectorFromJSON(const JSONValue& v);

}  // namespace glimmerstrand::core
