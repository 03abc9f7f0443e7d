// Read queries over the fixture graphs with their exact rows, or their exact
// failure: matching, WHERE, projection, ordering, DISTINCT and the cut.
#include <gtest/gtest.h>

#include "cypher/parser.h"
#include "cypher/projection.h"
#include "fixtures.h"
#include "rows_text.h"

namespace glimmerstrand::cypher {
namespace {

using testing::fixture;
using testing::rowsText;

struct QueryCase {
  std::string query;
  std::string rows;  // expected rows, when no error is expected
  const char* error = nullptr;
  const char* hint = nullptr;  // the hint of the expected error, if any
};

void expectRows(const char* graphName, const std::vector<QueryCase>& cases) {
  auto graph = fixture(graphName);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    const Query query = *parseStatement(c.query).asRead();
    try {
      std::string rows = rowsText(executeQuery(query, graph));
      EXPECT_EQ(c.error, nullptr) << "rows: " << rows;
      EXPECT_EQ(rows, c.rows);
    } catch (const BadRequestError& e) {
      ASSERT_NE(c.error, nullptr) << e.message();
      EXPECT_EQ(e.message(), c.error);
      EXPECT_EQ(e.hint(), c.hint ? std::optional<std::string>(c.hint) : std::nullopt);
    }
  }
}

const char* const kBoundHint = "Use a variable that is bound in the MATCH pattern.";
const char* const kWhereHint = "Use a variable that is bound in the MATCH pattern before referencing it in WHERE.";

const std::vector<QueryCase> kMatching = {
    // No candidate, so the bad relationship is never followed.
    {"MATCH (n:Ghost)<-[:NOPE]-(m) RETURN m", ""},
    {"MATCH (n:Button)<-[:LINKS]-(m) RETURN m", "",
     "Relationship \"LINKS\" cannot be followed backwards; write it as -[:LINKS]->"},
    {"MATCH (a {id: 'b3'})<-[:CHILD]-(b) RETURN b.id", "{b.id: \"g1\"}"},
    // A cycle returns to its start once per path.
    {"MATCH (a {id: 'b1'})-[:CHILD|PARENT*2]->(b) RETURN b.id",
     "{b.id: \"app\"} | {b.id: \"b1\"} | {b.id: \"b2\"} | {b.id: \"g1\"}"},
    {"MATCH (a:CheckBox|Button) RETURN a.id",
     "{a.id: \"b1\"} | {a.id: \"b2\"} | {a.id: \"b3\"} | {a.id: \"c1\"} | {a.id: \"b4\"}"},
    {"MATCH (a), (a:Window) RETURN a.id", "{a.id: \"w1\"} | {a.id: \"w2\"}"},
    {"MATCH (a) WHERE a.width > 15 MATCH (a)<-[:CHILD]-(p) WHERE p.id = 'g1' RETURN a.id", "{a.id: \"b3\"}"},
    // An anonymous node still multiplies rows.
    {"MATCH (w:Window)-[:CHILD]->() RETURN w.id",
     "{w.id: \"w1\"} | {w.id: \"w1\"} | {w.id: \"w1\"} | {w.id: \"w2\"} | {w.id: \"w2\"}"},
    {"MATCH (a:Button)-[:PARENT]->()-[:CHILD]->(a) RETURN a.id",
     "{a.id: \"b1\"} | {a.id: \"b2\"} | {a.id: \"b3\"} | {a.id: \"b4\"}"},
    {"MATCH (w {id: 'w1'})-[:CHILD*0..1]->(x) RETURN x.id", "{x.id: \"b1\"} | {x.id: \"b2\"} | {x.id: \"g1\"}"},
    {"MATCH (n:Button {name: null}) RETURN n.id", "{n.id: \"b4\"}"},
    {"MATCH (:Window) RETURN *", "{} | {}"},
};

TEST(CypherQueries, Matching) { expectRows("ui", kMatching); }

const std::vector<QueryCase> kWhere = {
    {"MATCH (n:Button) WHERE n.name = null RETURN n.id", "{n.id: \"b4\"}"},
    {"MATCH (n:Button) WHERE n.name <> null RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b2\"} | {n.id: \"b3\"}"},
    {"MATCH (t) WHERE t.name = 10 OR t.width = '10' OR t.enabled = 0 RETURN t.id", ""},
    // WHERE compares code units, not collation.
    {"MATCH (n:Button) WHERE n.name < 'b' RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b2\"}"},
    {"MATCH (n:Button) WHERE n.name CONTAINS '' RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b2\"} | {n.id: \"b3\"}"},
    {"MATCH (n) WHERE n.width CONTAINS '' RETURN n.id", ""},
    {"MATCH (n) WHERE n.name STARTS WITH 'Pl' OR n.name ENDS WITH 'op' RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b2\"}"},
    {"MATCH (n) WHERE n.name =~ 'la' RETURN n.id", ""},
    {"MATCH (n) WHERE n.name =~ '(?i)PLAY' RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b3\"}"},
    {"MATCH (n:Button) WHERE n.name =~ '(' RETURN n.id", "",
     "Invalid regular expression \"(\": Invalid regular expression: /^(?:()$/u: Invalid pattern"},
    // A missing property never compiles the pattern.
    {"MATCH (n {id: 'b4'}) WHERE n.name =~ '(' RETURN n.id", ""},
    {"MATCH (n {id: 'b4'}) WHERE n.name =~ 1 RETURN n.id", "", "Operator \"=~\" requires a string pattern"},
    {"MATCH (n) WHERE n.width IN [10, 20] RETURN n.id", "{n.id: \"b1\"} | {n.id: \"b3\"}"},
    {"MATCH (n:Button) WHERE n.name IN [null] RETURN n.id", "{n.id: \"b4\"}"},
    {"MATCH (n:Button) WHERE m.x = 1 OR n.name = 'Play' RETURN n.id", "", "Unknown variable \"m\" in WHERE",
     kWhereHint},
    // An unknown variable that is never reached is no error.
    {"MATCH (n {id: 'b1'}) WHERE n.name = 'Play' OR m.x = 1 RETURN n.id", "{n.id: \"b1\"}"},
    {"MATCH (n) WHERE n:Control AND NOT n:Button OR n:Ghost RETURN n.id", "{n.id: \"c1\"}"},
};

TEST(CypherQueries, Where) { expectRows("ui", kWhere); }

const std::vector<QueryCase> kProjectionOverTheWindowTree = {
    {"MATCH (n:Ghost) RETURN count(*)", "{count(*): 0}"},
    {"MATCH (n:Ghost) RETURN sum(n.x), avg(n.x), min(n.x)", "{sum(n.x): 0, avg(n.x): null, min(n.x): null}"},
    {"MATCH (n:Ghost) RETURN n.role, count(*)", ""},
    {"MATCH (n) RETURN m", "", "Unknown variable \"m\" in RETURN", kBoundHint},
    // Without bindings, only aggregates check their variables.
    {"MATCH (n:Ghost) RETURN m.x", ""},
    {"MATCH (n) RETURN count(m)", "", "Unknown variable \"m\" in count(m)", kBoundHint},
    {"MATCH (w:Window)-[:CHILD]->(c) RETURN w, count(c) AS n",
     "{w: {_label: \"Window\", id: \"w1\", name: \"Main\", order: 1}, n: 3} | "
     "{w: {_label: \"Window\", id: \"w2\", name: \"Prefs\", order: 2}, n: 2}"},
    {"MATCH (n {id: 'g1'}) RETURN n.id, n, *", "{n.id: \"g1\", n: {_label: \"Group\", id: \"g1\"}}"},
};

TEST(CypherQueries, ProjectionOverTheWindowTree) { expectRows("ui", kProjectionOverTheWindowTree); }

const std::vector<QueryCase> kOrderingAndAggregatesOverItems = {
    // A regex must match the final line feed too.
    {"MATCH (s:Text) WHERE s.line =~ 'a' OR s.line =~ '.' RETURN s.id", "{s.id: \"s1\"}"},
    {"MATCH (n:Item) RETURN n AS m ORDER BY m", "",
     "ORDER BY requires a property such as ORDER BY m.startTime, not a bare node variable",
     "Order by a property of a bound variable."},
    {"MATCH (n:Item) RETURN n.x ORDER BY count(*)", "",
     "ORDER BY with an aggregate requires aggregate functions in RETURN",
     "Add the aggregate to RETURN, e.g. RETURN t, count(n) ORDER BY count(n)."},
    {"MATCH (n:Item) RETURN n.k ORDER BY m.x", "", "Unknown variable \"m\" in ORDER BY", kBoundHint},
    {"MATCH (n:Item) RETURN n.id ORDER BY n.x DESC",
     "{n.id: \"i3\"} | {n.id: \"i4\"} | {n.id: \"i2\"} | {n.id: \"i1\"} | {n.id: \"i5\"} | {n.id: \"i0\"}"},
    {"MATCH (n:Item) RETURN n.x AS x ORDER BY x", "{x: 2} | {x: 5} | {x: 10} | {x: \"abc\"} | {x: true} | {x: null}"},
    {"MATCH (s:Text) RETURN s.v ORDER BY s.v", "{s.v: \"10\"} | {s.v: 9}"},
    // Equal keys keep the match order.
    {"MATCH (n:Item) RETURN n.id, n.k ORDER BY n.k",
     "{n.id: \"i0\", n.k: \"a\"} | {n.id: \"i2\", n.k: \"a\"} | {n.id: \"i1\", n.k: \"b\"} | "
     "{n.id: \"i3\", n.k: \"c\"} | {n.id: \"i4\", n.k: NaN} | {n.id: \"i5\", n.k: Infinity}"},
    // DISTINCT after the sort, on the normal form.
    {"MATCH (n:Item) RETURN DISTINCT n.k ORDER BY n.x", "{n.k: \"a\"} | {n.k: Infinity} | {n.k: \"b\"} | {n.k: \"c\"}"},
    // Non-finite keys share one group.
    {"MATCH (n:Item) RETURN count(*), n.k",
     "{n.k: \"a\", count(*): 2} | {n.k: \"b\", count(*): 1} | {n.k: \"c\", count(*): 1} | "
     "{n.k: NaN, count(*): 2}"},
    {"MATCH (n:Item) RETURN sum(n.x) AS s, avg(n.x) AS a, min(n.x) AS lo, max(n.x) AS hi, count(n.x) AS c, "
     "count(n) AS cn",
     "{s: 17, a: 5.666666666666667, lo: 2, hi: \"abc\", c: 5, cn: 6}"},
    {"MATCH (n:Item) RETURN n.k, count(*) ORDER BY n.x", "",
     "ORDER BY \"n.x\" must appear in RETURN for an aggregating query",
     "Add the expression to RETURN, or order by a returned item."},
    {"MATCH (n:Item) RETURN n.k, count(*) ORDER BY n", "",
     "ORDER BY in an aggregating query must reference a grouping key or aggregate",
     "Order by a returned property or aggregate, e.g. ORDER BY count(n) DESC."},
    {"MATCH (n:Item) RETURN n.k SKIP 1 LIMIT 1", "{n.k: \"b\"}"},
    // A LIMIT past the end means all.
    {"MATCH (n:Item) RETURN n.k SKIP 5 LIMIT 9223372036854775807", "{n.k: Infinity}"},
};

TEST(CypherQueries, OrderingAndAggregatesOverItems) { expectRows("items", kOrderingAndAggregatesOverItems); }

}  // namespace
}  // namespace glimmerstrand::cypher
