// Scripts and their exact failures (message, hint, position), and the records
// the parser builds where the shape is the point.
#include <gtest/gtest.h>

#include "cypher/parser.h"

namespace glimmerstrand::cypher {
namespace {

constexpr const char* kGrammar = "<grammar>";

struct ParseFailure {
  std::string script;
  std::string message;
  const char* hint = kGrammar;  // kGrammar, a text, or nullptr for none
};

void expectFailures(const std::vector<ParseFailure>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    try {
      parseStatement(c.script);
      ADD_FAILURE() << "parsed";
    } catch (const BadRequestError& e) {
      EXPECT_EQ(e.code(), "invalid_argument");
      EXPECT_EQ(e.message(), c.message);
      std::optional<std::string> hint;
      if (c.hint) hint = c.hint == kGrammar ? std::string(kGrammarHint) : c.hint;
      EXPECT_EQ(e.hint(), hint);
    }
  }
}

std::string found(const std::string& value, int at) {
  return ", but found \"" + value + "\" (position " + std::to_string(at) + ")";
}
const std::string kEnd = ", but found end of query";
const std::string P = "Cypher parse error: ";
const std::string kAfterMatch = P + "Expected RETURN, SET, CREATE, DELETE, or COPY after MATCH clause";
const char* const kBound = "Use a variable that appears in the MATCH pattern.";

const std::vector<ParseFailure> kStatementAndReadErrors = {
    {"", "Empty statement"},
    {"MATCH (n) RETURN n; MATCH (m) RETURN m.x != 1", "Unexpected character \"!\" at position 41", nullptr},
    {"RETURN 1", P + "Expected keyword \"MATCH\", \"CREATE\", or \"CALL\"" + found("RETURN", 0)},
    {"MATCH (n); RETURN n", kAfterMatch + kEnd},  // a statement ends at its separator
    {"MATCH (n) RETURN n;\nMATCH (m) RETURN m m", P + "Unexpected token after RETURN clause" + found("m", 39)},
    {"MATCH (n) WHERE n.order = 1 RETURN n", P + "Expected identifier" + found("ORDER", 18)},
    {"MATCH (n) WHERE n.x", "Unexpected end of query", nullptr},
    {"MATCH (n) WHERE n.a = b.c RETURN n", P + "Expected a scalar value but found \"b\"" + found(".", 23)},
    {"MATCH (n) WHERE n.a IS NULL RETURN n", P + "Expected a comparison operator but found \"IS\"" + found("null", 23)},
    {"MATCH (a)--(b) RETURN a", P + "Expected \"[\"" + found("-", 10)},
    {"MATCH (a)-[:R*2..1]->(b) RETURN a", P + "Variable-length range max (1) is less than min (2)" + found("]", 18)},
    {"MATCH (n) RETURN n LIMIT 2.5", P + "Expected an integer but found \"2.5\"" + kEnd},
    {"MATCH (n) RETURN n SKIP -1 LIMIT 1", P + "SKIP must be a non-negative integer" + found("LIMIT", 27)},
    {"MATCH (n), (m) RETURN n, m AS n LIMIT 1", P + "Duplicate RETURN column \"n\"" + found("LIMIT", 32),
     "Give each column a distinct name with AS."},
    {"MATCH (n) RETURN *, count(*)", P + "RETURN * cannot be combined with aggregate functions" + kEnd},
    {"MATCH (n) RETURN sum(n) AS s",
     P + "sum() requires a property argument such as sum(n.pitch); only count() accepts count(*) or count(var)" +
         found("AS", 24)},
    {"MATCH (n) RETURN n; MATCH (m) RETURN m", "Expected a single statement but found 2"},
};

TEST(CypherParser, StatementAndReadErrors) { expectFailures(kStatementAndReadErrors); }

const char* const noReturn = "Remove RETURN from the write statement, or use a read-only MATCH ... RETURN query.";

const std::vector<ParseFailure> kWriteErrors = {
    {"CREATE (n)", P + "CREATE requires a node label such as (n:Note)" + found(")", 9)},
    {"CREATE n:L",
     P + "Standalone CREATE requires a node pattern such as CREATE (n:Label {prop: value})" + found("n", 7)},
    {"CREATE (a)-[:R]->(b:L)", P + "Standalone CREATE cannot use an anchored relationship pattern" + found("(", 7),
     "Use MATCH ... CREATE (a)-[:REL]->(n:Label) for anchored CREATE."},
    {"MATCH (t) CREATE (t)-[:R]->(n:L) RETURN n",
     P + "Write statements must not include RETURN; the response includes the diff automatically" + found("RETURN", 33),
     noReturn},
    {"MATCH (t) CREATE (x)-[:R]->(n:L)",
     P + "Variable \"x\" in anchored CREATE is not bound in the MATCH pattern" + kEnd, kBound},
    {"MATCH (t) CREATE (t)-[:R|S]->(n:L)",
     P + "Anchored CREATE supports only a single relationship type" + found("|", 24),
     "Use one relationship type, e.g. [:HAS_DEVICE]."},
    {"MATCH (a), (b) SET a.x = 1, b.y = 2 RETURN a",
     P + "SET assignments must target a single variable" + found("RETURN", 36),
     "Split assignments across multiple do calls when updating different variables."},
    {"CALL p() RETURN 1",
     P + "Unexpected token after CALL statement; a single CALL with literal arguments is required" +
         found("RETURN", 9)},
};

TEST(CypherParser, WriteErrors) { expectFailures(kWriteErrors); }

// ------------------------------------------------------------ records

Query readOf(const std::string& script) {
  Statement s = parseStatement(script);
  EXPECT_NE(s.asRead(), nullptr) << script;
  return s.asRead() ? *s.asRead() : Query{};
}

TEST(CypherParser, HopForms) {
  struct Hops {
    std::string written;
    std::int64_t min, max;
  };
  for (const auto& h : std::vector<Hops>{{"", 1, 1},
                                         {"*", 1, 8},
                                         {"*2..5", 2, 5},
                                         {"*..4", 1, 4},
                                         {"*0", 0, 0},
                                         {"*1..99999999999999999999", 1, INT64_MAX}}) {
    Query q = readOf("MATCH (a)-[:R" + h.written + "]->(b) RETURN a");
    const auto& r = q.pattern.chain.at(0).relationship;
    EXPECT_EQ(r.minHops, h.min) << h.written;
    EXPECT_EQ(r.maxHops, h.max) << h.written;
  }
}

TEST(CypherParser, ScriptSplitting) {
  EXPECT_EQ(parseStatements(";MATCH (n) RETURN n;; CALL a.b(';') ;").size(), 2u);
  EXPECT_EQ(parseStatement("CALL ui.type(\"hello\");").asCall()->procedure, "ui.type");
}

TEST(CypherParser, PatternParts) {
  Query q = readOf("MATCH (n:A|B {a: 1, b: 'x', a: 2})<-[:R|S*2]-(), (m) MATCH (o) RETURN *");
  EXPECT_EQ(q.pattern.start.label, "A|B");
  EXPECT_EQ(q.pattern.start.properties.keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(*q.pattern.start.properties.get("a"), ScalarValue(2));
  const auto& r = q.pattern.chain.at(0).relationship;
  EXPECT_EQ(r.types, (std::vector<std::string>{"R", "S"}));
  EXPECT_EQ(r.direction, RelationshipDirection::incoming);
  EXPECT_FALSE(q.pattern.chain.at(0).node.variable);
  ASSERT_EQ(q.more.size(), 2u);
  EXPECT_EQ(q.more[1].start.variable, "o");
  EXPECT_EQ(boundVariables(q.match()), (std::set<std::string>{"n", "m", "o"}));
}

TEST(CypherParser, OrderKeysAreRewrittenAgainstReturn) {
  auto keys = [](const std::string& script) { return readOf(script).orderBy; };
  using Prop = ReturnItem::Property;
  EXPECT_EQ(keys("MATCH (n) RETURN n.x AS nx ORDER BY nx DESC")[0],
            (OrderItem{OrderKey{Prop{"n", "x", "nx"}}, OrderDirection::descending}));
  EXPECT_EQ(keys("MATCH (n) RETURN n.x AS nx ORDER BY n.x")[0].key, (OrderKey{Prop{"n", "x", "nx"}}));
  auto counted = keys("MATCH (n) RETURN n.r, count(*) AS c ORDER BY c, COUNT(*) ASC, count(n)");
  const AggregateItem star{AggregateFunc::count, AggregateArg{AggregateArg::Star{}}, "c"};
  EXPECT_EQ(counted[0].key, OrderKey{star});
  EXPECT_EQ(counted[1].key, OrderKey{star});
  EXPECT_EQ(std::get<AggregateItem>(counted[2].key.value).alias, "count(n)");
}

TEST(CypherParser, WriteRecords) {
  const SetStatement* set = nullptr;
  Statement s = parseStatement("MATCH (a) SET a.x = 1, a.y = [], a.z = [{k: 'v'}] RETURN a");
  ASSERT_TRUE(set = s.asSet());
  EXPECT_EQ(set->assignments.size(), 3u);
  EXPECT_EQ(set->assignments[1].value, (WriteValue{WriteValue::List{}}));
  EXPECT_EQ(set->assignments[2].value.asMaps()->at(0).keys(), std::vector<std::string>{"k"});
  ASSERT_TRUE(set->then);
  EXPECT_EQ(set->then->match(), set->match);

  EXPECT_EQ(parseStatement("MATCH (n) DETACH DELETE n"), parseStatement("MATCH (n) DELETE n"));
  Statement call = parseStatement("CALL a.b.c(1, 'x', true, null)");
  EXPECT_EQ(call.asCall()->procedure, "a.b.c");
  EXPECT_EQ(call.asCall()->args, (std::vector<ScalarValue>{1, "x", true, nullptr}));
}

}  // namespace
}  // namespace glimmerstrand::cypher
