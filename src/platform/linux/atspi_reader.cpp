#include "platform/linux/atspi_reader.h"

#include <atspi/atspi-constants.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <functional>

namespace glimmerstrand::platform::linux_desktop {

namespace {

constexpr const char* accessibleIface = "org.a11y.atspi.Accessible";
constexpr const char* nullPath = "/org/a11y/atspi/null";
// The options of a select whose states are read to find the chosen one.
constexpr std::size_t maxChoiceOptions = 500;

// A round of calls, each with what to do with its reply.
class Round {
 public:
  using Handler = std::function<void(const Reply&)>;
  void add(Call call, Handler handler) {
    calls_.push_back(std::move(call));
    handlers_.push_back(std::move(handler));
  }
  void run(GDBusConnection* connection, int timeoutMs) {
    auto replies = callAll(connection, calls_, timeoutMs);
    for (std::size_t k = 0; k < replies.size(); ++k) handlers_[k](replies[k]);
    calls_.clear();
    handlers_.clear();
  }

 private:
  std::vector<Call> calls_;
  std::vector<Handler> handlers_;
};

Call method(const ObjectRef& ref, const char* interface, const char* name, GVariant* args = nullptr) {
  return Call{ref.bus, ref.path, interface, name, own(args)};
}

// An element's states as GetState and the cache give them: two words.
States statesOf(const Variant& v) {
  States states;
  if (!v || !g_variant_is_of_type(v.get(), G_VARIANT_TYPE("au"))) return states;
  std::size_t n = 0;
  auto* words = static_cast<const std::uint32_t*>(g_variant_get_fixed_array(v.get(), &n, sizeof(std::uint32_t)));
  for (std::size_t k = 0; k < n && k < 2; ++k) states.bits |= std::uint64_t(words[k]) << (32 * k);
  return states;
}

// A failure of the first, most basic call decides whether the element is
// there at all; later calls failing only leave their part empty.
void readBasic(Round& round, const ObjectRef& ref, ElementRecord& r) {
  round.add(method(ref, accessibleIface, "GetRole"), [&r](const Reply& reply) {
    if (!reply.ok()) {
      r.error = reply.error == AxError::attributeUnsupported ? AxError::invalidElement : reply.error;
      return;
    }
    r.role = uint32Of(replyChild(reply)).value_or(0);
  });
  round.add(method(ref, accessibleIface, "GetState"),
            [&r](const Reply& reply) { r.states = statesOf(replyChild(reply)); });
  round.add(method(ref, accessibleIface, "GetInterfaces"), [&r](const Reply& reply) {
    Variant v = replyChild(reply);
    if (!v || !g_variant_is_of_type(v.get(), G_VARIANT_TYPE_STRING_ARRAY)) return;
    GVariantIter iter;
    g_variant_iter_init(&iter, v.get());
    const char* name = nullptr;
    while (g_variant_iter_next(&iter, "&s", &name)) r.interfaces |= interfaceBit(name);
  });
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "Name"),
            [&r](const Reply& reply) { r.name = boundedStringOf(replyChild(reply)).value_or(""); });
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "Description"),
            [&r](const Reply& reply) { r.description = boundedStringOf(replyChild(reply)).value_or(""); });
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "AccessibleId"),
            [&r](const Reply& reply) { r.accessibleId = boundedStringOf(replyChild(reply)).value_or(""); });
}

void readChildren(Round& round, const ObjectRef& ref, ElementRecord& r) {
  round.add(method(ref, accessibleIface, "GetChildren"), [&r](const Reply& reply) {
    if (reply.ok()) r.children = objectRefs(replyChild(reply));
    // A hung application is not a gone element.
    if (reply.error == AxError::cannotComplete && r.error == AxError::success) r.error = AxError::cannotComplete;
  });
}

void readChildCount(Round& round, const ObjectRef& ref, ElementRecord& r) {
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "ChildCount"),
            [&r](const Reply& reply) { r.childCount = int32Of(replyChild(reply)).value_or(-1); });
}

// The children of an element whose state and count are known: all of them,
// or none where they must not all be asked for.
void readChildrenOrWithhold(Round& round, const ObjectRef& ref, ElementRecord& r) {
  if (withholdsChildren(r.states, r.childCount)) {
    r.childrenWithheld = true;
    r.children.emplace();
    return;
  }
  if (r.childCount == 0) {
    r.children.emplace();
    return;
  }
  readChildren(round, ref, r);
}

void readParent(Round& round, const ObjectRef& ref, ElementRecord& r) {
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "Parent"), [&r](const Reply& reply) {
    if (auto parent = objectRef(replyChild(reply)); parent && !parent->isNull()) r.parent = *parent;
  });
}

// Browsers give every object of a page the hyperlink interface; text,
// cells and the containers that only arrange others carry no address.
bool mayCarryUri(std::uint32_t role) {
  switch (role) {
    case ATSPI_ROLE_STATIC:
    case ATSPI_ROLE_LABEL:
    case ATSPI_ROLE_PARAGRAPH:
    case ATSPI_ROLE_SECTION:
    case ATSPI_ROLE_HEADING:
    case ATSPI_ROLE_TABLE:
    case ATSPI_ROLE_TABLE_ROW:
    case ATSPI_ROLE_TABLE_CELL:
    case ATSPI_ROLE_COLUMN_HEADER:
    case ATSPI_ROLE_ROW_HEADER:
    case ATSPI_ROLE_LIST:
    case ATSPI_ROLE_LIST_ITEM:
    case ATSPI_ROLE_FORM:
    case ATSPI_ROLE_LANDMARK:
    case ATSPI_ROLE_PANEL:
    case ATSPI_ROLE_FILLER:
      return false;
    default:
      return true;
  }
}

bool textIsValue(const ElementRecord& r) {
  // A spreadsheet cell is named by its address and shows its value as text.
  return isStaticTextRole(r.role) || isTextEntryRole(r.role) || isComboRole(r.role) ||
         r.role == ATSPI_ROLE_TABLE_CELL || (r.name.empty() && !isApplicationRole(r.role) && !isWindowRole(r.role));
}

// The calls that depend on what the first round told: the interfaces and
// the role.
void readSecond(Round& round, const ObjectRef& ref, ElementRecord& r, std::uint32_t parts, bool web) {
  if ((parts & childrenPart) && !r.children) readChildrenOrWithhold(round, ref, r);
  if ((parts & extentsPart) && (r.interfaces & componentInterface)) {
    round.add(method(ref, "org.a11y.atspi.Component", "GetExtents", g_variant_new("(u)", 0u)),
              [&r](const Reply& reply) {
                // Without a call of the basic part, this one tells a gone element.
                if (!(r.parts & basicPart) && reply.error == AxError::invalidElement) r.error = AxError::invalidElement;
                Variant v = replyChild(reply);
                if (!v || !g_variant_is_of_type(v.get(), G_VARIANT_TYPE("(iiii)"))) return;
                gint32 x, y, w, h;
                g_variant_get(v.get(), "(iiii)", &x, &y, &w, &h);
                // Hidden and off-screen objects report INT_MIN: they have no frame.
                if (x == INT_MIN || y == INT_MIN) return;
                r.extents = AxRect{double(x), double(y), double(w), double(h)};
              });
  }
  // A field's text may be long: only its first part is asked for, which
  // takes its count first.
  const bool wholeText = web && !(parts & textPart) && !isTextEntryRole(r.role);
  if ((parts & contentPart) && wholeText && textIsValue(r) && (r.interfaces & textInterface)) {
    round.add(method(ref, "org.a11y.atspi.Text", "GetText", g_variant_new("(ii)", 0, -1)), [&r](const Reply& reply) {
      if (reply.ok()) r.text = boundedStringOf(replyChild(reply)).value_or("");
    });
  } else if (((parts & textPart) || ((parts & contentPart) && textIsValue(r))) && (r.interfaces & textInterface)) {
    round.add(propertyCall(ref.bus, ref.path, "org.a11y.atspi.Text", "CharacterCount"),
              [&r](const Reply& reply) { r.characterCount = int32Of(replyChild(reply)).value_or(-1); });
  }
  if ((parts & contentPart) && (r.interfaces & valueInterface)) {
    auto value = [&](const char* property, std::optional<double>& out) {
      round.add(propertyCall(ref.bus, ref.path, "org.a11y.atspi.Value", property),
                [&out](const Reply& reply) { out = doubleOf(replyChild(reply)); });
    };
    value("CurrentValue", r.value);
    value("MinimumValue", r.minimum);
    value("MaximumValue", r.maximum);
    value("MinimumIncrement", r.step);
  }
  if ((parts & contentPart) && (r.interfaces & hyperlinkInterface) && mayCarryUri(r.role)) {
    round.add(method(ref, "org.a11y.atspi.Hyperlink", "GetURI", g_variant_new("(i)", 0)),
              [&r](const Reply& reply) { r.uri = boundedStringOf(replyChild(reply)).value_or(""); });
  } else if ((parts & contentPart) && (r.interfaces & documentInterface) && r.role == ATSPI_ROLE_DOCUMENT_WEB) {
    // Firefox tells a page's address only as the document's attribute.
    round.add(method(ref, "org.a11y.atspi.Document", "GetAttributeValue", g_variant_new("(s)", "DocURL")),
              [&r](const Reply& reply) { r.uri = boundedStringOf(replyChild(reply)).value_or(""); });
  }
  if ((parts & contentPart) && roleNeedsAttributes(r.role)) {
    round.add(method(ref, accessibleIface, "GetAttributes"), [&r](const Reply& reply) {
      Variant v = replyChild(reply);
      if (!v || !g_variant_is_of_type(v.get(), G_VARIANT_TYPE("a{ss}"))) return;
      const char* text = nullptr;
      if (g_variant_lookup(v.get(), "placeholder-text", "&s", &text)) r.placeholder = cutText(text);
      if (g_variant_lookup(v.get(), "xml-roles", "&s", &text)) r.xmlRoles = cutText(text);
      if (g_variant_lookup(v.get(), "level", "&s", &text)) {
        char* end = nullptr;
        const long level = std::strtol(text, &end, 10);
        if (end != text && level > 0 && level < 100) r.level = static_cast<std::int32_t>(level);
      }
    });
  }
  if (((parts & contentPart) && roleNeedsParent(r.role) && !r.parent)) readParent(round, ref, r);

  // A menu item's shortcut is the key binding of its action.
  const bool wantsShortcut = (parts & contentPart) && isMenuItemRole(r.role);
  if (((parts & actionsPart) || wantsShortcut) && (r.interfaces & actionInterface)) {
    round.add(method(ref, "org.a11y.atspi.Action", "GetActions"), [&r](const Reply& reply) {
      Variant v = replyChild(reply);
      if (!v || !g_variant_is_of_type(v.get(), G_VARIANT_TYPE("a(sss)"))) return;
      GVariantIter iter;
      g_variant_iter_init(&iter, v.get());
      const char *name, *description, *keys;
      while (g_variant_iter_next(&iter, "(&s&s&s)", &name, &description, &keys)) {
        if (r.actions.empty()) r.keyBinding = keys;
        // Firefox puts the key binding where the name belongs: asked one by
        // one, it tells the name.
        r.actions.emplace_back(std::string_view(name).find(';') == std::string_view::npos ? name : "");
      }
    });
  }
  if ((parts & textPart) && (r.interfaces & textInterface)) {
    round.add(propertyCall(ref.bus, ref.path, "org.a11y.atspi.Text", "CaretOffset"),
              [&r](const Reply& reply) { r.caret = int32Of(replyChild(reply)).value_or(-1); });
    round.add(method(ref, "org.a11y.atspi.Text", "GetSelection", g_variant_new("(i)", 0)), [&r](const Reply& reply) {
      if (!reply.ok()) return;
      gint32 start, end;
      g_variant_get(reply.value.get(), "(ii)", &start, &end);
      if (end > start) r.selection = std::pair{start, end};
    });
  }
}

void readThird(Round& round, const ObjectRef& ref, ElementRecord& r, std::uint32_t parts, bool web) {
  // Chromium and Firefox list their actions without their names; they tell
  // them one by one.
  for (std::size_t k = 0; k < r.actions.size(); ++k) {
    if (!r.actions[k].empty()) continue;
    round.add(method(ref, "org.a11y.atspi.Action", "GetName", g_variant_new("(i)", static_cast<gint32>(k))),
              [&r, k](const Reply& reply) { r.actions[k] = stringOf(replyChild(reply)).value_or(""); });
  }
  if ((parts & contentPart) && roleNeedsChildren(r.role) && r.children) {
    for (std::size_t k = 0; k < r.children->size() && k < 3; ++k) {
      round.add(method((*r.children)[k], accessibleIface, "GetRole"), [&r](const Reply& reply) {
        if (auto role = uint32Of(replyChild(reply)); role && isTextEntryRole(*role)) r.editableChild = true;
      });
    }
    // A page's select holds its options in a menu, the chosen one marked
    // selected; the other toolkits name a pop-up by its choice. The menu is
    // not asked for its selection: Firefox crashes when asked that of a page
    // on its way out.
    if (web && !r.children->empty())
      round.add(method(r.children->front(), accessibleIface, "GetChildren"), [&r](const Reply& reply) {
        if (reply.ok()) r.choiceOptions = objectRefs(replyChild(reply));
      });
  }
  // Some toolkits answer GetText(0, -1) with nothing: ask for the count,
  // and for no more than a text may carry (one more, to tell it was cut).
  if ((parts & contentPart) && r.characterCount > 0 && textIsValue(r)) {
    const auto end = std::min<gint32>(r.characterCount, static_cast<gint32>(maxTextBytes + 1));
    round.add(method(ref, "org.a11y.atspi.Text", "GetText", g_variant_new("(ii)", 0, end)), [&r](const Reply& reply) {
      if (reply.ok()) r.text = boundedStringOf(replyChild(reply)).value_or("");
    });
  } else if ((parts & contentPart) && r.characterCount == 0 && textIsValue(r)) {
    r.text = "";
  }
  if ((parts & contentPart) && roleNeedsParent(r.role) && r.parent) {
    round.add(method(*r.parent, accessibleIface, "GetRole"),
              [&r](const Reply& reply) { r.parentRole = uint32Of(replyChild(reply)); });
  }
}

}  // namespace

std::optional<ObjectRef> objectRef(const Variant& value) {
  if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE("(so)"))) return std::nullopt;
  const char* bus = nullptr;
  const char* path = nullptr;
  g_variant_get(value.get(), "(&s&o)", &bus, &path);
  return ObjectRef{bus, path};
}

std::vector<ObjectRef> objectRefs(const Variant& list) {
  std::vector<ObjectRef> refs;
  if (!list || !g_variant_is_of_type(list.get(), G_VARIANT_TYPE("a(so)"))) return refs;
  refs.reserve(g_variant_n_children(list.get()));
  GVariantIter iter;
  g_variant_iter_init(&iter, list.get());
  const char* bus = nullptr;
  const char* path = nullptr;
  while (g_variant_iter_next(&iter, "(&s&o)", &bus, &path))
    if (std::string_view(path) != nullPath) refs.push_back(ObjectRef{bus, path});
  return refs;
}

CachedItems readCachedItems(GDBusConnection* connection, const std::string& bus, int timeoutMs) {
  CachedItems items;
  Reply reply =
      callSync(connection, Call{bus, "/org/a11y/atspi/cache", "org.a11y.atspi.Cache", "GetItems", nullptr}, timeoutMs);
  Variant list = replyChild(reply);
  // GTK's items: self, application, parent, index in parent, child count,
  // interfaces, name, role, description, states.
  if (!list || !g_variant_is_of_type(list.get(), G_VARIANT_TYPE("a((so)(so)(so)iiassusau)"))) return items;
  GVariantIter iter;
  g_variant_iter_init(&iter, list.get());
  for (GVariant* raw; (raw = g_variant_iter_next_value(&iter));) {
    Variant item(raw);
    auto self = objectRef(Variant(g_variant_get_child_value(raw, 0)));
    if (!self) continue;
    CachedItem c;
    if (auto parent = objectRef(Variant(g_variant_get_child_value(raw, 2))); parent && !parent->isNull())
      c.parent = parent->path;
    c.indexInParent = int32Of(Variant(g_variant_get_child_value(raw, 3))).value_or(-1);
    c.childCount = int32Of(Variant(g_variant_get_child_value(raw, 4))).value_or(-1);
    GVariantIter names;
    Variant interfaces(g_variant_get_child_value(raw, 5));
    g_variant_iter_init(&names, interfaces.get());
    for (const char* name = nullptr; g_variant_iter_next(&names, "&s", &name);) c.interfaces |= interfaceBit(name);
    c.name = boundedStringOf(Variant(g_variant_get_child_value(raw, 6))).value_or("");
    c.role = uint32Of(Variant(g_variant_get_child_value(raw, 7))).value_or(0);
    c.description = boundedStringOf(Variant(g_variant_get_child_value(raw, 8))).value_or("");
    c.states = statesOf(Variant(g_variant_get_child_value(raw, 9)));
    items.emplace(self->path, std::move(c));
  }
  return items;
}

CachedTree cachedTree(const std::string& bus, CachedItems items) {
  CachedTree tree;
  // Each parent's places, filled by the children's indices; a list with a
  // place left empty or taken twice is not the cache's to tell.
  std::unordered_map<std::string, std::vector<const std::string*>> places;
  std::unordered_map<std::string, bool> broken;
  for (const auto& [path, item] : items) {
    if (item.parent.empty()) continue;
    auto parent = items.find(item.parent);
    if (parent == items.end() || parent->second.childCount < 0) continue;
    auto& slots = places[item.parent];
    slots.resize(static_cast<std::size_t>(parent->second.childCount), nullptr);
    const auto index = item.indexInParent;
    if (index < 0 || static_cast<std::size_t>(index) >= slots.size() || slots[static_cast<std::size_t>(index)])
      broken[item.parent] = true;
    else
      slots[static_cast<std::size_t>(index)] = &path;
  }
  for (auto& [parent, slots] : places) {
    if (broken.count(parent) || std::find(slots.begin(), slots.end(), nullptr) != slots.end()) continue;
    auto& children = tree.children[parent];
    children.reserve(slots.size());
    for (const auto* path : slots) children.push_back(ObjectRef{bus, *path});
  }
  // A leaf's children are told by its count alone.
  for (const auto& [path, item] : items)
    if (item.childCount == 0) tree.children.try_emplace(path);
  tree.items = std::move(items);
  return tree;
}

std::vector<ObjectRef> cachedDescendants(const CachedTree& tree, const std::vector<ObjectRef>& roots,
                                         std::size_t budget, std::size_t levels,
                                         const std::function<bool(const CachedItem&)>& enters) {
  std::vector<ObjectRef> found;
  std::vector<ObjectRef> level = roots;
  for (std::size_t depth = 0; depth < levels && !level.empty() && found.size() < budget; ++depth) {
    const std::size_t start = found.size();
    for (const auto& ref : level) {
      auto item = tree.items.find(ref.path);
      auto children = tree.children.find(ref.path);
      if (item == tree.items.end() || children == tree.children.end() || !enters(item->second)) continue;
      for (const auto& child : children->second) {
        if (found.size() >= budget) break;
        found.push_back(child);
      }
    }
    level.assign(found.begin() + static_cast<std::ptrdiff_t>(start), found.end());
  }
  return found;
}

namespace {

// The basic part from the cache. The accessible id, which it lacks, is read
// where the basic part is asked for: it also tells whether the element is
// still there, as the cache can outlive it.
void takeCached(Round& round, const ObjectRef& ref, const CachedItem& c, ElementRecord& r) {
  r.role = c.role;
  r.states = c.states;
  r.interfaces = c.interfaces;
  r.name = c.name;
  r.description = c.description;
  if (!(r.parts & basicPart)) return;
  round.add(propertyCall(ref.bus, ref.path, accessibleIface, "AccessibleId"), [&r](const Reply& reply) {
    // The cache can outlive the element: the one call left tells.
    if (reply.error == AxError::invalidElement) r.error = AxError::invalidElement;
    r.accessibleId = boundedStringOf(replyChild(reply)).value_or("");
  });
}

}  // namespace

bool withholdsChildren(const States& states, std::int32_t childCount) {
  // More than a walk takes in at all: what is near the view is read instead.
  constexpr std::int32_t mostListed = 10000;
  return states.managesDescendants() || childCount > mostListed;
}

std::vector<ElementRecord> readRecords(GDBusConnection* connection, const std::vector<ObjectRef>& elements,
                                       std::uint32_t parts, int timeoutMs, const CachedTree* cached, bool web) {
  const std::uint32_t asked = parts;
  // Interfaces and role steer every later part: read them whenever more
  // than the structure is asked for.
  if (parts & ~(childrenPart | parentPart)) parts |= basicPart;
  std::vector<ElementRecord> records(elements.size());
  // Elements whose basic part came from the cache, whose second round went
  // out with the first.
  std::vector<bool> early(elements.size(), false);
  Round round;
  for (std::size_t k = 0; k < elements.size(); ++k) {
    ElementRecord& r = records[k];
    r.parts = parts;
    const CachedItem* item = nullptr;
    if (cached && (parts & basicPart))
      if (auto it = cached->items.find(elements[k].path); it != cached->items.end()) item = &it->second;
    if (item) {
      // What the caller did not ask for is not read only to tell it.
      if (!(asked & basicPart)) r.parts = asked;
      takeCached(round, elements[k], *item, r);
      r.childCount = item->childCount;
      if ((parts & childrenPart) && !withholdsChildren(r.states, r.childCount))
        if (auto known = cached->children.find(elements[k].path); known != cached->children.end())
          r.children = known->second;
      if (parts & parentPart) readParent(round, elements[k], r);
      readSecond(round, elements[k], r, parts, web);
      early[k] = true;
      continue;
    }
    if (parts & basicPart) readBasic(round, elements[k], r);
    if ((parts & childrenPart) && (parts & basicPart)) {
      // The children come in the second round, once state and count tell
      // whether they may all be asked for.
      readChildCount(round, elements[k], r);
    } else if (parts & childrenPart) {
      readChildren(round, elements[k], r);
    }
    if (parts & parentPart) readParent(round, elements[k], r);
  }
  if (!(parts & basicPart)) {
    // Structure only: a missing answer is all we can go by.
    round.run(connection, timeoutMs);
    for (auto& r : records)
      if ((parts & childrenPart) && !r.children && r.error == AxError::success) r.error = AxError::invalidElement;
    return records;
  }
  round.run(connection, timeoutMs);
  bool second = false;
  for (std::size_t k = 0; k < elements.size(); ++k) {
    if (early[k] || records[k].error != AxError::success) continue;
    readSecond(round, elements[k], records[k], parts, web);
    second = true;
  }
  if (second) round.run(connection, timeoutMs);
  for (std::size_t k = 0; k < elements.size(); ++k)
    if (records[k].error == AxError::success) readThird(round, elements[k], records[k], parts, web);
  round.run(connection, timeoutMs);
  bool options = false;
  for (auto& r : records)
    for (std::size_t k = 0; k < r.choiceOptions.size() && k < maxChoiceOptions; ++k) {
      options = true;
      round.add(method(r.choiceOptions[k], accessibleIface, "GetState"), [&r, k](const Reply& reply) {
        if (!r.choiceRef && statesOf(replyChild(reply)).selected()) r.choiceRef = r.choiceOptions[k];
      });
    }
  if (options) round.run(connection, timeoutMs);
  bool chosen = false;
  for (auto& r : records) {
    if (!r.choiceRef) continue;
    chosen = true;
    round.add(propertyCall(r.choiceRef->bus, r.choiceRef->path, accessibleIface, "Name"),
              [&r](const Reply& reply) { r.choice = boundedStringOf(replyChild(reply)).value_or(""); });
  }
  if (chosen) round.run(connection, timeoutMs);
  return records;
}

namespace {

bool isUpper(char c) { return std::isupper(static_cast<unsigned char>(c)); }
bool isAlnum(char c) { return std::isalnum(static_cast<unsigned char>(c)); }

// A type name such as "GtkButton", "AdwTabBox" or "EditorSourceView": one
// word of letters and digits in which a capital follows a small letter at
// least once past the first. GTK names an unnamed widget after its class.
bool isTypeName(std::string_view name) {
  if (name.size() < 4 || !isUpper(name.front())) return false;
  int humps = 0;
  for (std::size_t k = 1; k < name.size(); ++k) {
    if (!isAlnum(name[k])) return false;
    if (isUpper(name[k]) && std::islower(static_cast<unsigned char>(name[k - 1]))) ++humps;
  }
  return humps > 0;
}

// The class prefixes of GTK and the libraries built on it; GTK3 names only
// these widgets after their class, GTK4 every unnamed widget.
bool hasToolkitPrefix(std::string_view name) {
  for (std::string_view prefix : {"Gtk", "Adw", "Hdy", "Gdk", "Gsk"})
    if (name.substr(0, prefix.size()) == prefix && name.size() > prefix.size() && isUpper(name[prefix.size()]))
      return true;
  return false;
}

// A button's label read twice ("1 1", "_Retry Retry"): the second reading,
// which has no mnemonic mark; the name itself otherwise.
std::string undoubled(const std::string& name) {
  for (auto space = name.find(' '); space != std::string::npos; space = name.find(' ', space + 1)) {
    std::string first = name.substr(0, space);
    std::erase(first, '_');
    if (first == std::string_view(name).substr(space + 1)) return name.substr(space + 1);
  }
  return name;
}

std::string_view entityText(std::string_view entity) {
  static const std::pair<std::string_view, std::string_view> entities[] = {
      {"amp", "&"}, {"lt", "<"}, {"gt", ">"}, {"quot", "\""}, {"apos", "'"}, {"nbsp", " "}, {"#39", "'"}};
  for (const auto& [name, text] : entities)
    if (name == entity) return text;
  return {};
}

}  // namespace

std::string plainText(const std::string& richText) {
  // Qt takes a label for rich text when it holds a tag; anything else is
  // plain already, angle brackets and all.
  auto isTagStart = [&](std::size_t at) {
    return at + 1 < richText.size() && (std::isalpha(static_cast<unsigned char>(richText[at + 1])) ||
                                        (richText[at + 1] == '/' && at + 2 < richText.size()));
  };
  bool tagged = false;
  for (auto at = richText.find('<'); at != std::string::npos && !tagged; at = richText.find('<', at + 1))
    tagged = isTagStart(at) && richText.find('>', at) != std::string::npos;
  if (!tagged) return richText;
  std::string out;
  for (std::size_t k = 0; k < richText.size();) {
    const char c = richText[k];
    if (c == '<' && isTagStart(k)) {
      const auto close = richText.find('>', k);
      if (close == std::string::npos) break;
      std::string tag = richText.substr(k + 1, close - k - 1);
      std::transform(tag.begin(), tag.end(), tag.begin(), [](unsigned char t) { return std::tolower(t); });
      // A power keeps its meaning in plain text as x^3.
      if (tag == "sup") out += '^';
      if (tag == "br" || tag == "br/" || tag == "br /" || tag == "p" || tag == "/p") out += ' ';
      k = close + 1;
    } else if (c == '&') {
      const auto semicolon = richText.find(';', k);
      std::string_view text;
      if (semicolon != std::string::npos && semicolon - k <= 6)
        text = entityText(std::string_view(richText).substr(k + 1, semicolon - k - 1));
      if (text.empty()) {
        out += c;
        ++k;
      } else {
        out += text;
        k = semicolon + 1;
      }
    } else {
      out += c;
      ++k;
    }
  }
  return out;
}

std::string cleanedName(const std::string& name, std::uint32_t role, std::string_view toolkit) {
  if (toolkit == qtToolkit) return plainText(name);
  if (toolkit != gtk3Toolkit && toolkit != gtk4Toolkit) return name;
  // An unlabelled widget named after its class has no name. Labels show
  // their own text, which may well be one capitalised word.
  if (hasToolkitPrefix(name) && isTypeName(name)) return "";
  if (toolkit == gtk4Toolkit && !isStaticTextRole(role) && isTypeName(name)) return "";
  const bool buttonLike = role == ATSPI_ROLE_PUSH_BUTTON || role == ATSPI_ROLE_TOGGLE_BUTTON ||
                          role == ATSPI_ROLE_CHECK_BOX || role == ATSPI_ROLE_RADIO_BUTTON ||
                          role == ATSPI_ROLE_PUSH_BUTTON_MENU;
  return buttonLike ? undoubled(name) : name;
}

}  // namespace glimmerstrand::platform::linux_desktop
