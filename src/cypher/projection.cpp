#include "cypher/projection.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <unordered_map>
#include <unordered_set>

#include "cypher/binding.h"
#include "cypher/matcher.h"
#include "cypher/text_order.h"

namespace glimmerstrand::cypher {
namespace {

constexpr const char* kBoundHint = "Use a variable that is bound in the MATCH pattern.";

using KeyList = std::vector<ScalarValue>;

// Rows with their ORDER BY keys (keys stay empty without ORDER BY).
struct Table {
  std::vector<Row> rows;
  std::vector<KeyList> keys;
};

Node boundNode(const BindingVars& vars, const std::string& variable, const char* clause) {
  if (auto node = vars.find(variable)) return *node;
  throw BadRequestError("Unknown variable \"" + variable + "\" in " + clause, kBoundHint);
}

std::string propertyColumn(const ReturnItem::Property& item) {
  return item.alias.value_or(item.variable + "." + item.property);
}

const std::string* argVariable(const AggregateArg& arg) {
  if (auto v = std::get_if<AggregateArg::Variable>(&arg.value)) return &v->name;
  if (auto p = std::get_if<PropertyRef>(&arg.value)) return &p->variable;
  return nullptr;
}

// ------------------------------------------------------------ plain path

// Writes one RETURN item's cells. A name the row has already keeps its place.
void addCells(Row& row, const ReturnItem& item, const BindingVars& vars, const GraphAdapter& graph) {
  if (auto v = std::get_if<ReturnItem::Variable>(&item.value)) {
    Node node = boundNode(vars, v->variable, "RETURN");
    row.set(v->alias.value_or(v->variable), RowValue(graph.rowObject(node)));
  } else if (auto p = std::get_if<ReturnItem::Property>(&item.value)) {
    Node node = boundNode(vars, p->variable, "RETURN");
    row.set(propertyColumn(*p), RowValue(graph.property(node, p->property)));
  } else if (std::holds_alternative<ReturnItem::All>(item.value)) {
    for (std::size_t i = 0; i < vars.size(); ++i) row.set(vars.name(i), RowValue(graph.rowObject(vars.node(i))));
  }
}

KeyList plainKeys(const Query& query, const BindingVars& vars, const GraphAdapter& graph) {
  KeyList keys;
  for (const auto& item : query.orderBy) {
    if (auto p = std::get_if<OrderKey::Property>(&item.key.value)) {
      keys.push_back(graph.property(boundNode(vars, p->variable, "ORDER BY"), p->property));
    } else if (auto v = std::get_if<OrderKey::Variable>(&item.key.value)) {
      throw BadRequestError(
          "ORDER BY requires a property such as ORDER BY " + v->name + ".startTime, not a bare node variable",
          "Order by a property of a bound variable.");
    } else {
      throw BadRequestError("ORDER BY with an aggregate requires aggregate functions in RETURN",
                            "Add the aggregate to RETURN, e.g. RETURN t, count(n) ORDER BY count(n).");
    }
  }
  return keys;
}

// Rows past SKIP + LIMIT can only be cut, unless a sort or DISTINCT still has
// to see them; every binding holds the same variables, so stopping early
// cannot hide an error either.
std::size_t rowsNeeded(const Query& query) {
  if (!query.orderBy.empty() || query.distinct || !query.limit) return std::numeric_limits<std::size_t>::max();
  const auto skip = static_cast<std::uint64_t>(std::max<std::int64_t>(query.skip.value_or(0), 0));
  const auto limit = static_cast<std::uint64_t>(std::max<std::int64_t>(*query.limit, 0));
  return static_cast<std::size_t>(std::min<std::uint64_t>(skip + limit, std::numeric_limits<std::size_t>::max() / 2));
}

Table plainTable(const Query& query, const BindingList& list, const GraphAdapter& graph) {
  Table table;
  const std::size_t needed = rowsNeeded(query);
  for (std::size_t i = 0; i < list.size() && table.rows.size() < needed; ++i) {
    BindingVars vars = list.vars(i);
    Row row;
    for (const auto& item : query.returns) addCells(row, item, vars, graph);
    table.rows.push_back(std::move(row));
    if (!query.orderBy.empty()) table.keys.push_back(plainKeys(query, vars, graph));
  }
  return table;
}

// ------------------------------------------------------------ aggregates

// Order of two min/max candidates (numbers and texts only).
int compareCandidates(const ScalarValue& value, const ScalarValue& best) {
  if (value.isNumber() && best.isNumber()) {
    double difference = *value.asNumber() - *best.asNumber();
    return difference < 0 ? -1 : difference > 0 ? 1 : 0;
  }
  if (value.isString() && best.isString() && value == best) return 0;
  return compareText(value.text(), best.text());
}

ScalarValue aggregate(const AggregateItem& item, const BindingList& list, std::span<const std::size_t> members,
                      const GraphAdapter& graph) {
  const std::string fn(rawText(item.function));
  if (std::holds_alternative<AggregateArg::Star>(item.arg.value)) {
    if (item.function != AggregateFunc::count) throw BadRequestError(fn + "() requires a property argument");
    return ScalarValue(static_cast<double>(members.size()));
  }
  if (auto v = std::get_if<AggregateArg::Variable>(&item.arg.value)) {
    if (item.function != AggregateFunc::count) throw BadRequestError(fn + "() requires a property argument");
    auto holds = [&](std::size_t i) { return list.vars(i).find(v->name).has_value(); };
    return ScalarValue(static_cast<double>(std::count_if(members.begin(), members.end(), holds)));
  }
  const auto& ref = std::get<PropertyRef>(item.arg.value);
  double count = 0, sum = 0, numbers = 0;
  std::optional<ScalarValue> best;
  for (std::size_t i : members) {
    auto node = list.vars(i).find(ref.variable);
    if (!node) continue;
    ScalarValue value = graph.property(*node, ref.property);
    if (value.isNull()) continue;
    ++count;
    if (auto d = value.asNumber()) {
      sum += *d;
      ++numbers;
    }
    const bool ranks = item.function == AggregateFunc::min || item.function == AggregateFunc::max;
    if (!ranks || value.isBool()) continue;
    if (!best) {
      best = std::move(value);
      continue;
    }
    int order = compareCandidates(value, *best);
    if ((item.function == AggregateFunc::min && order < 0) || (item.function == AggregateFunc::max && order > 0))
      best = std::move(value);
  }
  switch (item.function) {
    case AggregateFunc::count:
      return ScalarValue(count);
    case AggregateFunc::sum:
      return ScalarValue(sum);
    case AggregateFunc::avg:
      return numbers > 0 ? ScalarValue(sum / numbers) : ScalarValue();
    default:
      return best.value_or(ScalarValue());
  }
}

// ------------------------------------------------------------ aggregating path

// A group key part: a node's identity for a variable, a scalar for a property.
using GroupPart = std::variant<std::int64_t, ScalarValue>;
using GroupKey = std::vector<GroupPart>;

struct GroupKeyHash {
  std::size_t operator()(const GroupKey& key) const {
    std::size_t h = key.size();
    for (const auto& part : key) {
      std::size_t x = std::holds_alternative<std::int64_t>(part) ? std::hash<std::int64_t>()(std::get<0>(part))
                                                                 : hashValue(std::get<1>(part));
      h = h * 1000003u ^ x;
    }
    return h;
  }
};

struct Group {
  std::size_t first = 0;
  std::vector<std::size_t> members;
};

void checkAggregateVariables(const Query& query, const std::vector<const AggregateItem*>& aggregates) {
  const auto bound = boundVariables(query.match());
  for (const auto* item : aggregates) {
    const std::string* variable = argVariable(item->arg);
    if (variable && !bound.contains(*variable))
      throw BadRequestError("Unknown variable \"" + *variable + "\" in " + item->alias, kBoundHint);
  }
}

GroupKey groupKey(const std::vector<const ReturnItem*>& groupItems, const BindingVars& vars,
                  const GraphAdapter& graph) {
  GroupKey key;
  for (const auto* item : groupItems) {
    if (auto v = std::get_if<ReturnItem::Variable>(&item->value)) {
      key.emplace_back(graph.identity(boundNode(vars, v->variable, "RETURN")));
    } else if (auto p = std::get_if<ReturnItem::Property>(&item->value)) {
      ScalarValue value = graph.property(boundNode(vars, p->variable, "RETURN"), p->property);
      // Every NaN and infinity falls into the group of null.
      if (auto d = value.asNumber(); d && !std::isfinite(*d)) value = ScalarValue();
      key.emplace_back(std::move(value));
    } else {
      for (std::size_t i = 0; i < vars.size(); ++i) key.emplace_back(graph.identity(vars.node(i)));
    }
  }
  return key;
}

std::vector<Group> groupBindings(const std::vector<const ReturnItem*>& groupItems, const BindingList& list,
                                 const GraphAdapter& graph) {
  std::vector<Group> groups;
  std::unordered_map<GroupKey, std::size_t, GroupKeyHash> index;
  for (std::size_t i = 0; i < list.size(); ++i) {
    auto [at, added] = index.try_emplace(groupKey(groupItems, list.vars(i), graph), groups.size());
    if (added) groups.push_back(Group{i, {}});
    groups[at->second].members.push_back(i);
  }
  return groups;
}

KeyList aggregatingKeys(const Query& query, const Row& row) {
  KeyList keys;
  for (const auto& item : query.orderBy) {
    std::string column;
    if (auto p = std::get_if<OrderKey::Property>(&item.key.value)) {
      column = propertyColumn(*p);
    } else if (auto a = std::get_if<AggregateItem>(&item.key.value)) {
      column = a->alias;
    } else {
      throw BadRequestError("ORDER BY in an aggregating query must reference a grouping key or aggregate",
                            "Order by a returned property or aggregate, e.g. ORDER BY count(n) DESC.");
    }
    const RowValue* cell = row.get(column);
    if (!cell)
      throw BadRequestError("ORDER BY \"" + column + "\" must appear in RETURN for an aggregating query",
                            "Add the expression to RETURN, or order by a returned item.");
    const ScalarValue* scalar = cell->asScalar();
    keys.push_back(scalar ? *scalar : ScalarValue());
  }
  return keys;
}

Table aggregatingTable(const Query& query, const BindingList& list, const GraphAdapter& graph) {
  std::vector<const ReturnItem*> groupItems;
  std::vector<const AggregateItem*> aggregates;
  for (const auto& item : query.returns) {
    if (auto a = std::get_if<AggregateItem>(&item.value))
      aggregates.push_back(a);
    else
      groupItems.push_back(&item);
  }
  checkAggregateVariables(query, aggregates);
  std::vector<Group> groups = groupBindings(groupItems, list, graph);
  // Without group items, no bindings still make one row of empty aggregates.
  if (groupItems.empty() && groups.empty()) groups.push_back(Group{});
  Table table;
  for (const auto& group : groups) {
    Row row;
    if (!group.members.empty())
      for (const auto* item : groupItems) addCells(row, *item, list.vars(group.first), graph);
    for (const auto* item : aggregates) row.set(item->alias, RowValue(aggregate(*item, list, group.members, graph)));
    table.rows.push_back(std::move(row));
  }
  if (!query.orderBy.empty())
    for (const auto& row : table.rows) table.keys.push_back(aggregatingKeys(query, row));
  return table;
}

// ------------------------------------------------------------ order, distinct, cut

int compareKey(const ScalarValue& x, const ScalarValue& y) {
  if (x.isNull() || y.isNull()) return x.isNull() == y.isNull() ? 0 : x.isNull() ? 1 : -1;
  if (x.isBool() && y.isBool()) return *x.asBool() == *y.asBool() ? 0 : *x.asBool() ? 1 : -1;
  if (x.isNumber() && y.isNumber()) return *x.asNumber() < *y.asNumber() ? -1 : *x.asNumber() > *y.asNumber() ? 1 : 0;
  if (x.isString() && y.isString() && x == y) return 0;
  return compareText(x.text(), y.text());
}

// A merge sort of row indices: stable, and well defined even if mixed-kind
// keys compare inconsistently.
void sortStably(std::vector<std::size_t>& order, const std::vector<KeyList>& keys, std::span<const OrderItem> orderBy) {
  std::vector<std::size_t> merged(order.size());
  for (std::size_t width = 1; width < order.size(); width *= 2) {
    for (std::size_t lo = 0; lo < order.size(); lo += 2 * width) {
      std::size_t mid = std::min(lo + width, order.size()), hi = std::min(lo + 2 * width, order.size());
      std::size_t i = lo, j = mid, out = lo;
      while (i < mid && j < hi)
        merged[out++] = compareRowKeys(keys[order[j]], keys[order[i]], orderBy) < 0 ? order[j++] : order[i++];
      while (i < mid) merged[out++] = order[i++];
      while (j < hi) merged[out++] = order[j++];
    }
    std::swap(order, merged);
  }
}

std::vector<Row> sortedRows(Table table, std::span<const OrderItem> orderBy) {
  if (orderBy.empty()) return std::move(table.rows);
  std::vector<std::size_t> order(table.rows.size());
  std::iota(order.begin(), order.end(), 0);
  sortStably(order, table.keys, orderBy);
  std::vector<Row> rows;
  rows.reserve(order.size());
  for (std::size_t i : order) rows.push_back(std::move(table.rows[i]));
  return rows;
}

struct RowHash {
  std::size_t operator()(const Row& row) const { return hashValue(row); }
};

std::vector<Row> distinctRows(std::vector<Row> rows) {
  std::unordered_set<Row, RowHash> seen;
  std::vector<Row> kept;
  for (auto& row : rows)
    if (seen.insert(distinctNormalForm(row)).second) kept.push_back(std::move(row));
  return kept;
}

std::vector<Row> cut(std::vector<Row> rows, const std::optional<std::int64_t>& skip,
                     const std::optional<std::int64_t>& limit) {
  const auto n = static_cast<std::int64_t>(rows.size());
  std::int64_t start = skip ? std::min(n, *skip) : 0;
  std::int64_t end = n;
  if (limit && *limit <= std::numeric_limits<std::int64_t>::max() - start) end = std::min(n, start + *limit);
  return std::vector<Row>(std::make_move_iterator(rows.begin() + start), std::make_move_iterator(rows.begin() + end));
}

}  // namespace

int compareRowKeys(std::span<const ScalarValue> a, std::span<const ScalarValue> b, std::span<const OrderItem> orderBy) {
  static const ScalarValue kMissing;
  for (std::size_t i = 0; i < orderBy.size(); ++i) {
    int order = compareKey(i < a.size() ? a[i] : kMissing, i < b.size() ? b[i] : kMissing);
    if (orderBy[i].direction == OrderDirection::descending) order = -order;
    if (order != 0) return order;
  }
  return 0;
}

std::vector<Row> executeQuery(const Query& query, const GraphAdapter& graph) {
  BindingList list = matchBindings(query.pattern, query.more, query.where, graph);
  const bool aggregating = std::any_of(query.returns.begin(), query.returns.end(), [](const ReturnItem& item) {
    return std::holds_alternative<AggregateItem>(item.value);
  });
  Table table = aggregating ? aggregatingTable(query, list, graph) : plainTable(query, list, graph);
  std::vector<Row> rows = sortedRows(std::move(table), query.orderBy);
  if (query.distinct) rows = distinctRows(std::move(rows));
  return cut(std::move(rows), query.skip, query.limit);
}

}  // namespace glimmerstrand::cypher
