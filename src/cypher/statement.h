// The statement model: what the parser builds from a script and what the
// matcher, projection and the runner read. Plain values, compared field by
// field; no shared state, safe to copy across threads.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cypher/values.h"

namespace glimmerstrand::cypher {

/// An owning, deep-copying pointer for the recursive cases of the model, so
/// that a WhereExpr stays a plain value. Never empty once constructed.
template <typename T>
class Box {
 public:
  Box(T value) : ptr_(std::make_unique<T>(std::move(value))) {}
  Box(const Box& other) : ptr_(std::make_unique<T>(*other.ptr_)) {}
  Box(Box&&) noexcept = default;
  Box& operator=(const Box& other) {
    if (this != &other) ptr_ = std::make_unique<T>(*other.ptr_);
    return *this;
  }
  Box& operator=(Box&&) noexcept = default;

  const T& operator*() const { return *ptr_; }
  const T* operator->() const { return ptr_.get(); }

  friend bool operator==(const Box& a, const Box& b) { return *a.ptr_ == *b.ptr_; }

 private:
  std::unique_ptr<T> ptr_;
};

// ---------------------------------------------------------------- patterns

struct NodePattern {
  std::optional<std::string> variable;
  /// One label, or several alternatives joined by "|" into one text.
  std::optional<std::string> label;
  OrderedMap<ScalarValue> properties;

  bool operator==(const NodePattern&) const = default;
};

enum class RelationshipDirection { outgoing, incoming };

struct RelationshipPattern {
  std::vector<std::string> types;
  std::int64_t minHops = 1;
  std::int64_t maxHops = 1;
  RelationshipDirection direction = RelationshipDirection::outgoing;

  bool operator==(const RelationshipPattern&) const = default;
};

struct PatternStep {
  RelationshipPattern relationship;
  NodePattern node;

  bool operator==(const PatternStep&) const = default;
};

struct PatternPart {
  NodePattern start;
  std::vector<PatternStep> chain;

  bool operator==(const PatternPart&) const = default;
};

// ---------------------------------------------------------------- WHERE

enum class ComparisonOperator {
  equal,
  notEqual,
  less,
  greater,
  lessOrEqual,
  greaterOrEqual,
  contains,
  startsWith,
  endsWith,
  regex,
  in,
};

/// "=", "<>", ..., "CONTAINS", "STARTS_WITH", "ENDS_WITH", "REGEX", "IN".
std::string_view rawText(ComparisonOperator op);

struct PropertyRef {
  std::string variable;
  std::string property;

  bool operator==(const PropertyRef&) const = default;
};

/// The right side of a comparison: a scalar, or the list of IN.
struct ComparisonOperand {
  using List = std::vector<ScalarValue>;
  std::variant<ScalarValue, List> value;

  const ScalarValue* asScalar() const { return std::get_if<ScalarValue>(&value); }
  const List* asList() const { return std::get_if<List>(&value); }

  bool operator==(const ComparisonOperand&) const = default;
};

struct ComparisonExpr {
  PropertyRef left;
  ComparisonOperator op = ComparisonOperator::equal;
  ComparisonOperand right;

  bool operator==(const ComparisonExpr&) const = default;
};

// `and` and `or` are alternative tokens in C++, hence the trailing underscore.
enum class LogicalOperator { and_, or_ };

/// "AND" or "OR".
std::string_view rawText(LogicalOperator op);

struct WhereExpr {
  struct Logical {
    LogicalOperator op = LogicalOperator::and_;
    Box<WhereExpr> left;
    Box<WhereExpr> right;
    bool operator==(const Logical&) const = default;
  };
  struct Not {
    Box<WhereExpr> inner;
    bool operator==(const Not&) const = default;
  };
  struct Label {
    std::string variable;
    std::string label;
    bool operator==(const Label&) const = default;
  };

  std::variant<ComparisonExpr, Logical, Not, Label> value;

  bool operator==(const WhereExpr&) const = default;
};

// ---------------------------------------------------------------- RETURN

enum class AggregateFunc { count, min, max, avg, sum };

/// "count", "min", "max", "avg", "sum".
std::string_view rawText(AggregateFunc func);

struct AggregateArg {
  struct Variable {
    std::string name;
    bool operator==(const Variable&) const = default;
  };
  struct Star {
    bool operator==(const Star&) const = default;
  };

  std::variant<Variable, PropertyRef, Star> value;

  bool operator==(const AggregateArg&) const = default;
};

struct AggregateItem {
  AggregateFunc function = AggregateFunc::count;
  AggregateArg arg;
  /// The written alias, or the default such as "count(*)"; never empty.
  std::string alias;

  bool operator==(const AggregateItem&) const = default;
};

struct ReturnItem {
  struct Variable {
    std::string variable;
    std::optional<std::string> alias;
    bool operator==(const Variable&) const = default;
  };
  struct Property {
    std::string variable;
    std::string property;
    std::optional<std::string> alias;
    bool operator==(const Property&) const = default;
  };
  /// The `*` item.
  struct All {
    bool operator==(const All&) const = default;
  };

  std::variant<Variable, Property, AggregateItem, All> value;

  bool operator==(const ReturnItem&) const = default;
};

struct OrderKey {
  struct Variable {
    std::string name;
    bool operator==(const Variable&) const = default;
  };
  using Property = ReturnItem::Property;

  std::variant<Variable, Property, AggregateItem> value;

  bool operator==(const OrderKey&) const = default;
};

enum class OrderDirection { ascending, descending };

/// "ASC" or "DESC".
std::string_view rawText(OrderDirection direction);

struct OrderItem {
  OrderKey key;
  OrderDirection direction = OrderDirection::ascending;

  bool operator==(const OrderItem&) const = default;
};

// ---------------------------------------------------------------- reads

struct MatchClause {
  PatternPart pattern;
  /// Further parts, of comma lists and repeated MATCH alike, in text order.
  std::vector<PatternPart> more;
  /// Every WHERE of the statement, joined with AND in text order.
  std::optional<WhereExpr> where;

  bool operator==(const MatchClause&) const = default;
};

struct Query {
  PatternPart pattern;
  std::vector<PatternPart> more;
  std::optional<WhereExpr> where;
  bool distinct = false;
  std::vector<ReturnItem> returns;
  std::vector<OrderItem> orderBy;
  std::optional<std::int64_t> skip;
  std::optional<std::int64_t> limit;

  /// The match fields as a clause.
  MatchClause match() const { return MatchClause{pattern, more, where}; }

  bool operator==(const Query&) const = default;
};

// ---------------------------------------------------------------- writes

/// The value of a SET assignment or of a CREATE property.
struct WriteValue {
  using List = std::vector<ScalarValue>;
  using Maps = std::vector<OrderedMap<ScalarValue>>;
  std::variant<ScalarValue, List, Maps> value;

  const ScalarValue* asScalar() const { return std::get_if<ScalarValue>(&value); }
  const List* asList() const { return std::get_if<List>(&value); }
  const Maps* asMaps() const { return std::get_if<Maps>(&value); }

  bool operator==(const WriteValue&) const = default;
};

struct SetAssignment {
  std::string variable;
  std::string property;
  WriteValue value;

  bool operator==(const SetAssignment&) const = default;
};

struct SetStatement {
  MatchClause match;
  /// At least one, all on one variable.
  std::vector<SetAssignment> assignments;
  /// The RETURN that reads after the write; its match fields are `match`'s.
  std::optional<Query> then;

  bool operator==(const SetStatement&) const = default;
};

struct CreateNodePattern {
  std::optional<std::string> variable;
  /// Always present after parsing.
  std::optional<std::string> label;
  /// Always empty after parsing.
  OrderedMap<ScalarValue> properties;
  OrderedMap<WriteValue> createProperties;

  bool operator==(const CreateNodePattern&) const = default;
};

struct CreateStatement {
  /// Absent in a standalone CREATE.
  std::optional<MatchClause> match;
  std::optional<std::string> anchorVariable;
  std::optional<std::string> relationshipType;
  CreateNodePattern node;

  bool operator==(const CreateStatement&) const = default;
};

/// DETACH leaves no trace: DELETE n and DETACH DELETE n give the same record.
struct DeleteStatement {
  MatchClause match;
  std::string variable;

  bool operator==(const DeleteStatement&) const = default;
};

struct CopyStatement {
  MatchClause match;
  std::string variable;

  bool operator==(const CopyStatement&) const = default;
};

struct CallStatement {
  /// The name's parts joined by ".", as in "ui.type".
  std::string procedure;
  std::vector<ScalarValue> args;

  bool operator==(const CallStatement&) const = default;
};

/// One statement of a script. The case order is significant.
struct Statement {
  std::variant<Query, SetStatement, CreateStatement, DeleteStatement, CopyStatement, CallStatement> value;

  const Query* asRead() const { return std::get_if<Query>(&value); }
  const SetStatement* asSet() const { return std::get_if<SetStatement>(&value); }
  const CreateStatement* asCreate() const { return std::get_if<CreateStatement>(&value); }
  const DeleteStatement* asDelete() const { return std::get_if<DeleteStatement>(&value); }
  const CopyStatement* asCopy() const { return std::get_if<CopyStatement>(&value); }
  const CallStatement* asCall() const { return std::get_if<CallStatement>(&value); }

  /// "read", "set", "create", "delete", "copy" or "call".
  std::string_view kindName() const;

  bool operator==(const Statement&) const = default;
};

/// The variable names of `pattern` and `more`: every start node's and every
/// chain node's variable.
std::set<std::string> boundVariables(const MatchClause& match);

}  // namespace glimmerstrand::cypher
