// Full walks of an application's tree, the building of a node from one
// multi-attribute read, and the splicing of subtree walks into a copy.
#include <algorithm>
#include <array>
#include <memory>
#include <unordered_set>

#include "cypher/unicode_text.h"
#include "cypher/values.h"
#include "mirror/app_mirror.h"
#include "native/text_case.h"

namespace glimmerstrand::native {

using platform::AxList;
using platform::AxPoint;
using platform::AxSize;
using platform::AxValue;

namespace {

enum Attribute : std::size_t {
  role,
  subrole,
  title,
  description,
  value,
  identifier,
  placeholder,
  position,
  size,
  enabled,
  focused,
  help,
  selected,
  expanded,
  cmdChar,
  cmdModifiers,
  markChar,
  url,
  valueDescription,
  children,
};

constexpr std::size_t labelLimit = 120;
constexpr std::size_t urlLimit = 300;

bool isDirectionalMark(char32_t c) {
  return c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

void removeDirectionalMarks(std::string& text) {
  if (text.find('\xE2') == std::string::npos) return;  // every mark starts with this byte
  std::string kept;
  kept.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const auto c = cypher::decodeAt(text, i);
    if (!isDirectionalMark(c.value)) kept.append(text, i, c.bytes);
    i += c.bytes;
  }
  text = std::move(kept);
}

// The text cut after `limit` characters, with `mark` appended when something
// was cut.
std::string limitCharacters(const std::string& text, std::size_t limit, std::string_view mark) {
  std::string cut = cypher::graphemePrefix(text, limit);
  return cut.size() == text.size() ? text : cut + std::string(mark);
}

std::optional<bool> boolean(const AxValue& v) {
  if (auto b = v.get<bool>()) return *b;
  if (auto n = v.get<double>()) return *n != 0;
  return std::nullopt;
}

bool isClipRole(const std::optional<std::string>& role) {
  return role && (*role == "AXScrollArea" || *role == "AXWindow" || *role == "AXSheet");
}

std::optional<core::Rect> positiveRect(const std::optional<core::Rect>& frame) {
  if (frame && frame->width > 0 && frame->height > 0) return frame;
  return std::nullopt;
}

std::optional<core::Rect> intersect(const std::optional<core::Rect>& a, const core::Rect& b) {
  if (!a) return std::nullopt;
  double x1 = std::max(a->x, b.x), y1 = std::max(a->y, b.y);
  double x2 = std::min(a->x + a->width, b.x + b.width), y2 = std::min(a->y + a->height, b.y + b.height);
  if (x2 < x1 || y2 < y1) return std::nullopt;
  return core::Rect{x1, y1, x2 - x1, y2 - y1};
}

Clip narrowed(const Clip& clip, const core::Rect& rect) {
  return Clip{true, clip.set ? intersect(clip.rect, rect) : std::optional<core::Rect>(rect)};
}

std::optional<core::Rect> frameOf(const AxValue& point, const AxValue& size) {
  auto p = point.get<AxPoint>();
  auto s = size.get<AxSize>();
  if (!p || !s) return std::nullopt;
  return core::Rect{p->x, p->y, s->width, s->height};
}

// The value as a list of elements; absent when it is anything else.
std::optional<std::vector<Element>> elementList(const AxValue& v) {
  auto list = v.get<AxList>();
  if (!list) return std::nullopt;
  std::vector<Element> out;
  out.reserve(list->size());
  for (const auto& item : *list) {
    auto element = item.get<Element>();
    if (!element || element->isNull()) return std::nullopt;
    out.push_back(*element);
  }
  return out;
}

// Whether the application answers a call on the walk's first element: one
// that does not, after a subtree did not either, is hung as a whole.
bool stillAnswers(platform::Accessibility& ax, const Element& root) {
  static const std::vector<std::string> probe{"AXRole"};
  return ax.copyMultiple(root, probe).error != platform::AxError::cannotComplete;
}

// Tells the backend that a walk is in progress for as long as it lives.
class WalkBracket {
 public:
  explicit WalkBracket(platform::Accessibility& ax) : ax_(ax) { ax_.walkStarted(); }
  ~WalkBracket() { ax_.walkEnded(); }
  WalkBracket(const WalkBracket&) = delete;
  WalkBracket& operator=(const WalkBracket&) = delete;

 private:
  platform::Accessibility& ax_;
};

std::optional<Element> elementOf(const AxValue& v) {
  auto element = v.get<Element>();
  if (!element || element->isNull()) return std::nullopt;
  return *element;
}

}  // namespace

const std::vector<std::string>& walkAttributes() {
  static const std::vector<std::string> names{"AXRole",
                                              "AXSubrole",
                                              "AXTitle",
                                              "AXDescription",
                                              "AXValue",
                                              "AXIdentifier",
                                              "AXPlaceholderValue",
                                              "AXPosition",
                                              "AXSize",
                                              "AXEnabled",
                                              "AXFocused",
                                              "AXHelp",
                                              "AXSelected",
                                              "AXExpanded",
                                              "AXMenuItemCmdChar",
                                              "AXMenuItemCmdModifiers",
                                              "AXMenuItemMarkChar",
                                              "AXURL",
                                              "AXValueDescription",
                                              "AXChildren"};
  return names;
}

const std::vector<std::string>& refreshAttributes() {
  static const std::vector<std::string> names(walkAttributes().begin(), walkAttributes().end() - 1);
  return names;
}

bool anyTextCut(const std::vector<AxValue>& values) {
  return std::any_of(values.begin(), values.end(), [](const AxValue& value) {
    if (auto text = value.get<std::string>()) return platform::textWasCut(*text);
    if (auto url = value.get<platform::AxUrl>()) return platform::textWasCut(url->text);
    return false;
  });
}

std::optional<std::string> cleanText(const AxValue& v, std::size_t limit) {
  std::string text;
  if (auto s = v.get<std::string>())
    text = *s;
  else if (auto n = v.get<double>())
    text = cypher::numberText(*n);
  else
    return std::nullopt;
  removeDirectionalMarks(text);
  text = std::string(cypher::trimmedText(text));
  if (text.empty()) return std::nullopt;
  return limitCharacters(text, limit, "…");
}

std::optional<std::string> shortcutText(const AxValue& key, const AxValue& modifiers) {
  auto cleaned = cleanText(key, 8);
  if (!cleaned) return std::nullopt;
  std::string out;
  auto add = [&](std::string_view part) {
    if (!out.empty()) out += '+';
    out += part;
  };
  if (auto bits = modifiers.get<double>()) {
    auto m = static_cast<std::int64_t>(*bits);
    if (m & 4) add("ctrl");
    if (m & 2) add("alt");
    if (m & 1) add("shift");
    if (!(m & 8)) add("cmd");
  } else {
    add("cmd");
  }
  add(lowerText(*cleaned));
  return out;
}

core::AxNode buildNode(const std::vector<AxValue>& values) {
  static const AxValue none;
  // An error value in a slot counts as missing.
  auto at = [&](std::size_t k) -> const AxValue& { return values[k].isError() ? none : values[k]; };
  core::AxNode node;
  node.role = cleanText(at(role), labelLimit);
  node.subrole = cleanText(at(subrole), labelLimit);
  node.title = cleanText(at(title), labelLimit);
  node.description = cleanText(at(description), labelLimit);
  node.value = cleanText(at(value), labelLimit);
  node.identifier = cleanText(at(identifier), labelLimit);
  node.placeholder = cleanText(at(placeholder), labelLimit);
  node.frame = frameOf(at(position), at(size));
  if (boolean(at(enabled)) == false) node.enabled = false;
  if (boolean(at(focused)) == true) node.focused = true;
  node.help = cleanText(at(help), labelLimit);
  if (boolean(at(selected)) == true) node.selected = true;
  node.expanded = boolean(at(expanded));
  node.shortcut = shortcutText(at(cmdChar), at(cmdModifiers));
  if (cleanText(at(markChar), labelLimit)) node.checked = true;
  std::string link;
  if (auto u = at(url).get<platform::AxUrl>()) link = u->text;
  if (auto s = at(url).get<std::string>()) link = *s;
  if (!link.empty()) node.url = limitCharacters(link, urlLimit, "");
  node.details = cleanText(at(valueDescription), labelLimit);
  return node;
}

bool isLabeled(const core::AxNode& node) {
  return node.frame &&
         (node.title || node.description || node.value || node.placeholder || node.identifier || node.focused);
}

std::uint64_t treeSignature(const std::vector<core::AxNode>& nodes) {
  std::uint64_t hash = 14695981039346656037ULL;  // FNV-1a
  auto feed = [&](const std::optional<std::string>& text) {
    if (text)
      for (unsigned char c : *text) hash = (hash ^ c) * 1099511628211ULL;
    hash = (hash ^ 0xFF) * 1099511628211ULL;  // 0xFF never occurs in UTF-8: a separator
  };
  for (const auto& node : nodes) {
    feed(node.role);
    feed(node.title);
    feed(node.description);
    feed(node.value);
    feed(node.placeholder);
    feed(node.identifier);
  }
  return hash;
}

Element rootElement(platform::Accessibility& ax, const Element& app, std::string_view scope) {
  if (scope == "app") return app;
  if (scope == "menubar") return elementOf(ax.copy(app, "AXMenuBar")).value_or(app);
  const platform::AxValue focused = ax.copy(app, "AXFocusedWindow");
  // An application that does not answer would make each further read wait
  // out its timeout too: the walk from the application element finds out.
  if (auto error = focused.get<platform::AxError>(); error && *error == platform::AxError::cannotComplete) return app;
  if (auto window = elementOf(focused)) return *window;
  if (auto window = elementOf(ax.copy(app, "AXMainWindow"))) return *window;
  auto windows = ax.copy(app, "AXWindows");
  if (auto list = windows.get<AxList>(); list && !list->empty())
    if (auto first = elementOf(list->front())) return *first;
  return app;
}

namespace {

// The children in the band, read in one batch where a probe could not be
// placed: rows scrolled out of a toolkit's view often report no frame, and
// such a row counts as outside.
std::pair<std::size_t, std::size_t> scannedChildRange(platform::Accessibility& ax, const std::vector<Element>& children,
                                                      double bandTop, double bandBottom) {
  static const std::vector<std::string> frameNames{"AXPosition", "AXSize"};
  ax.prefetch(children, frameNames);
  std::size_t start = children.size(), end = 0;
  for (std::size_t index = 0; index < children.size(); ++index) {
    auto read = ax.copyMultiple(children[index], frameNames);
    if (!read.ok() || read.value.size() != 2) continue;
    auto frame = positiveRect(frameOf(read.value[0], read.value[1]));
    if (!frame || frame->y + frame->height < bandTop || frame->y > bandBottom) continue;
    start = std::min(start, index);
    end = index + 1;
  }
  return start < end ? std::pair{start, end} : std::pair<std::size_t, std::size_t>{0, 0};
}

}  // namespace

std::pair<std::size_t, std::size_t> visibleChildRange(platform::Accessibility& ax, const std::vector<Element>& children,
                                                      const core::Rect& clip) {
  static const std::vector<std::string> frameNames{"AXPosition", "AXSize"};
  const double bandTop = clip.y - clip.height;
  const double bandBottom = clip.y + clip.height + clip.height;
  const std::size_t count = children.size();
  bool unreadable = false;
  auto probe = [&](std::size_t index) -> core::Rect {
    auto read = ax.copyMultiple(children[index], frameNames);
    std::optional<core::Rect> frame;
    if (read.ok() && read.value.size() == 2) frame = positiveRect(frameOf(read.value[0], read.value[1]));
    if (!frame) unreadable = true;
    return frame.value_or(core::Rect{});
  };
  std::size_t low = 0, high = count;
  while (low < high) {
    std::size_t middle = low + (high - low) / 2;
    core::Rect frame = probe(middle);
    if (unreadable) return scannedChildRange(ax, children, bandTop, bandBottom);
    if (frame.y + frame.height >= bandTop)
      high = middle;
    else
      low = middle + 1;
  }
  const std::size_t start = low;
  high = count;
  while (low < high) {
    std::size_t middle = low + (high - low) / 2;
    core::Rect frame = probe(middle);
    if (unreadable) return scannedChildRange(ax, children, bandTop, bandBottom);
    if (frame.y > bandBottom)
      high = middle;
    else
      low = middle + 1;
  }
  return {start, low};
}

Clip inheritedClip(platform::Accessibility& ax, const Element& element) {
  static const std::vector<std::string> names{"AXRole", "AXPosition", "AXSize", "AXParent"};
  Clip clip;
  auto current = elementOf(ax.copy(element, "AXParent"));
  for (int step = 0; current && step < 40; ++step) {
    auto read = ax.copyMultiple(*current, names);
    if (!read.ok() || read.value.size() != names.size()) break;
    auto role = cleanText(read.value[0], labelLimit);
    if (isClipRole(role))
      if (auto rect = positiveRect(frameOf(read.value[1], read.value[2]))) clip = narrowed(clip, *rect);
    if (role == "AXWindow" || role == "AXApplication") break;
    current = elementOf(read.value[3]);
  }
  return clip;
}

WalkResult walkElement(platform::Accessibility& ax, const Element& element, std::int64_t depth, std::int64_t maxDepth,
                       std::int64_t maxNodes, std::size_t expectedNodes, MenuContents menus) {
  struct Entry {
    Element element;
    std::int64_t depth;
    std::int64_t parent;
    Clip clip;
  };
  const WalkBracket bracket(ax);
  const auto& names = walkAttributes();
  WalkResult result;
  std::vector<Entry> stack;
  stack.push_back(Entry{element, depth, -1, depth < 1 ? Clip{} : inheritedClip(ax, element)});
  std::unordered_set<Element, platform::ElementHash> seen;
  const auto expected =
      std::min<std::size_t>(expectedNodes, static_cast<std::size_t>(std::max<std::int64_t>(maxNodes, 0)));
  result.nodes.reserve(expected);
  result.elements.reserve(expected);
  seen.reserve(expected);
  std::int64_t silent = 0;
  while (!stack.empty()) {
    Entry entry = std::move(stack.back());
    stack.pop_back();
    if (static_cast<std::int64_t>(result.nodes.size()) >= maxNodes) {
      result.truncated = true;
      result.overBudget = true;
      break;
    }
    if (!seen.insert(entry.element).second) continue;  // cycles and duplicates
    auto read = ax.copyMultiple(entry.element, names);
    if (!read.ok() || read.value.size() != names.size()) {
      ++result.incomplete;
      if (read.error != platform::AxError::cannotComplete) continue;  // gone: nothing to show
      if (entry.parent < 0 || !stillAnswers(ax, element)) {
        result.unanswered = true;  // the application is hung: nothing more will answer
        break;
      }
      // One subtree does not answer while the rest does: leave it out.
      result.truncated = true;
      if (++silent > maxSilentSubtrees) break;
      continue;
    }
    if (anyTextCut(read.value)) result.truncated = true;
    core::AxNode node = buildNode(read.value);
    const auto index = static_cast<std::int64_t>(result.nodes.size());
    node.i = index;
    node.parent = entry.parent;
    node.depth = entry.depth;
    result.nodes.push_back(std::move(node));
    result.elements.push_back(entry.element);
    const core::AxNode& added = result.nodes.back();

    if (added.role == "AXColumn") continue;
    if (menus == MenuContents::whenOpen && added.role == "AXMenuBarItem" && added.selected != true) continue;
    auto kids = elementList(read.value[children]);
    if (!kids) continue;
    if (auto left = ax.childrenLeftOut(entry.element); left > 0) result.nodes.back().offscreen = left;
    if (entry.depth >= maxDepth) {
      if (!kids->empty()) result.truncated = true;
      continue;
    }
    Clip clip = entry.clip;
    if (isClipRole(added.role))
      if (auto rect = positiveRect(added.frame)) clip = narrowed(entry.clip, *rect);
    if (kids->size() > 500 && clip.set && clip.rect && clip.rect->height > 0) {
      auto [first, end] = visibleChildRange(ax, *kids, *clip.rect);
      if (end - first < kids->size()) {
        result.nodes.back().offscreen =
            result.nodes.back().offscreen.value_or(0) + static_cast<std::int64_t>(kids->size() - (end - first));
        *kids = std::vector<Element>(kids->begin() + static_cast<std::ptrdiff_t>(first),
                                     kids->begin() + static_cast<std::ptrdiff_t>(end));
      }
    }
    ax.prefetch(*kids, names);
    for (auto it = kids->rbegin(); it != kids->rend(); ++it) stack.push_back(Entry{*it, entry.depth + 1, index, clip});
  }
  return result;
}

WalkResult walkTree(platform::Accessibility& ax, const Element& app, std::string_view scope, std::int64_t maxDepth,
                    std::int64_t maxNodes, std::size_t expectedNodes) {
  const WalkBracket bracket(ax);
  WalkResult result = walkElement(ax, rootElement(ax, app, scope), 0, maxDepth, maxNodes, expectedNodes,
                                  scope == "window" ? MenuContents::whenOpen : MenuContents::all);
  if (scope != "window" || result.unanswered) return result;
  // Context menus and pop-ups hang from the application, outside every window.
  auto appChildren = elementList(ax.copy(app, "AXChildren"));
  if (!appChildren) return result;
  std::unordered_set<Element, platform::ElementHash> walked;
  for (const auto& child : *appChildren) {
    if (cleanText(ax.copy(child, "AXRole"), labelLimit) != "AXMenu") continue;
    // A pop-up's menu may also hang from the control that opened it.
    if (walked.empty()) walked.insert(result.elements.begin(), result.elements.end());
    if (walked.count(child)) continue;
    auto remaining = maxNodes - static_cast<std::int64_t>(result.nodes.size());
    if (remaining <= 0) continue;
    WalkResult menu = walkElement(ax, child, 0, maxDepth, remaining);
    const auto offset = static_cast<std::int64_t>(result.nodes.size());
    for (auto& node : menu.nodes) {
      node.i += offset;
      if (node.parent >= 0) node.parent += offset;
    }
    result.nodes.insert(result.nodes.end(), std::make_move_iterator(menu.nodes.begin()),
                        std::make_move_iterator(menu.nodes.end()));
    result.elements.insert(result.elements.end(), menu.elements.begin(), menu.elements.end());
    result.truncated = result.truncated || menu.truncated;
    result.overBudget = result.overBudget || menu.overBudget;
    result.incomplete += menu.incomplete;
  }
  // A menu that also hangs inside the window is in the copy once.
  dropRepeats(result);
  return result;
}

std::vector<SubtreeRange> subtreeRanges(const std::vector<core::AxNode>& nodes, std::vector<std::int64_t> indices) {
  std::sort(indices.begin(), indices.end());
  std::vector<SubtreeRange> ranges;
  const auto count = static_cast<std::int64_t>(nodes.size());
  for (auto index : indices) {
    if (index < 0 || index >= count) continue;
    auto start = static_cast<std::size_t>(index);
    if (!ranges.empty() && start < ranges.back().end) continue;
    std::size_t end = start + 1;
    while (end < nodes.size() && nodes[end].depth > nodes[start].depth) ++end;
    ranges.push_back({start, end});
  }
  return ranges;
}

WalkResult spliceSubtrees(std::vector<core::AxNode> nodes, const std::vector<Element>& elements,
                          const std::vector<SubtreeRange>& ranges, std::vector<WalkResult> walks) {
  WalkResult out;
  out.nodes.reserve(nodes.size());
  out.elements.reserve(elements.size());
  std::size_t position = 0;
  for (std::size_t k = 0; k < ranges.size(); ++k) {
    out.nodes.insert(out.nodes.end(), std::make_move_iterator(nodes.begin() + static_cast<std::ptrdiff_t>(position)),
                     std::make_move_iterator(nodes.begin() + static_cast<std::ptrdiff_t>(ranges[k].start)));
    out.elements.insert(out.elements.end(), elements.begin() + static_cast<std::ptrdiff_t>(position),
                        elements.begin() + static_cast<std::ptrdiff_t>(ranges[k].start));
    out.nodes.insert(out.nodes.end(), std::make_move_iterator(walks[k].nodes.begin()),
                     std::make_move_iterator(walks[k].nodes.end()));
    out.elements.insert(out.elements.end(), walks[k].elements.begin(), walks[k].elements.end());
    position = ranges[k].end;
  }
  out.nodes.insert(out.nodes.end(), std::make_move_iterator(nodes.begin() + static_cast<std::ptrdiff_t>(position)),
                   std::make_move_iterator(nodes.end()));
  out.elements.insert(out.elements.end(), elements.begin() + static_cast<std::ptrdiff_t>(position), elements.end());
  return out;
}

void dropRepeats(WalkResult& walk) {
  std::unordered_set<Element, platform::ElementHash> seen;
  seen.reserve(walk.elements.size());
  std::size_t kept = 0;
  bool dropped = false;
  for (std::size_t n = 0; n < walk.nodes.size();) {
    if (!seen.insert(walk.elements[n]).second) {
      // The repeat and everything below it.
      const auto depth = walk.nodes[n].depth;
      for (++n; n < walk.nodes.size() && walk.nodes[n].depth > depth; ++n) {
      }
      dropped = true;
      continue;
    }
    if (kept != n) {
      walk.nodes[kept] = std::move(walk.nodes[n]);
      walk.elements[kept] = std::move(walk.elements[n]);
    }
    ++kept;
    ++n;
  }
  if (!dropped) return;
  walk.nodes.resize(kept);
  walk.elements.resize(kept);
  renumberNodes(walk.nodes);
}

void renumberNodes(std::vector<core::AxNode>& nodes) {
  std::vector<std::int64_t> stack;
  for (std::size_t n = 0; n < nodes.size(); ++n) {
    auto depth = static_cast<std::size_t>(std::max<std::int64_t>(nodes[n].depth, 0));
    if (stack.size() > depth) stack.resize(depth);
    std::int64_t parent = depth == 0 || depth > stack.size() ? -1 : stack[depth - 1];
    nodes[n].i = static_cast<std::int64_t>(n);
    nodes[n].parent = parent;
    stack.push_back(static_cast<std::int64_t>(n));
  }
}

}  // namespace glimmerstrand::native
