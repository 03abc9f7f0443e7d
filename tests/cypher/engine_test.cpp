// The language's operations called directly: write targets, the work budget,
// the regex cache and comparisons, with operands the parser never builds.
#include <gtest/gtest.h>

#include <thread>

#include "cypher/matcher.h"
#include "cypher/parser.h"
#include "cypher/projection.h"
#include "cypher/regex_cache.h"
#include "cypher/targets.h"
#include "cypher/where.h"
#include "fixtures.h"
#include "rows_text.h"

namespace glimmerstrand::cypher {
namespace {

using testing::PropertyGraph;

MatchClause matchOf(const std::string& text) { return parseStatement(text + " RETURN *").asRead()->match(); }

std::vector<std::string> targetIds(const std::string& match, const std::string& variable, const PropertyGraph& g) {
  std::vector<std::string> ids;
  for (Node node : resolveTargets(matchOf(match), variable, g)) ids.push_back(*g.property(node, "id").asString());
  return ids;
}

TEST(CypherTargets, EachNodeOnceInOrderOfFirstReach) {
  auto g = testing::uiGraph();
  EXPECT_EQ(targetIds("MATCH (n)-[:CHILD]->(b)", "n", g), (std::vector<std::string>{"app", "w1", "g1", "w2"}));
  try {
    resolveTargets(matchOf("MATCH (n)"), "m", g);
    FAIL();
  } catch (const BadRequestError& e) {
    EXPECT_EQ(e.message(), "Unknown variable \"m\" in write target resolution");
    EXPECT_EQ(e.hint(), "Use a variable that is bound in the MATCH pattern.");
  }
}

// A tree of `size` nodes, each with up to `fanout` children, breadth first.
PropertyGraph tree(std::size_t size, std::size_t fanout) {
  PropertyGraph g;
  g.declareInverse("CHILD", "PARENT");
  g.add({"Window"}, {{"name", "root"}});
  for (std::size_t i = 1; i < size; ++i) {
    g.add({i % 3 ? "Group" : "Button"}, {{"name", "n" + std::to_string(i)}});
    g.child((i - 1) / fanout, i);
  }
  return g;
}

TEST(CypherBudget, LargeMatchesFailAndAskToNarrow) {
  auto g = tree(10'000, 4);
  const Query wide = *parseStatement("MATCH (w:Window)-[:CHILD|PARENT*1..8]->(b) RETURN count(*)").asRead();
  try {
    executeQuery(wide, g);
    FAIL();
  } catch (const BadRequestError& e) {
    EXPECT_EQ(e.message(), "パターンの照合が上限の 500000 件を超えました。MATCH の条件を絞ってください");
    EXPECT_EQ(e.hint(),
              "Narrow the pattern: give the start node a label or property, follow fewer relationship types, or "
              "lower the hop range (e.g. *1..3).");
  }
  const Query open = *parseStatement("MATCH (a)-[:CHILD|PARENT*1..99999999]->(b) RETURN count(*)").asRead();
  EXPECT_THROW(executeQuery(open, g), BadRequestError);
  const Query down = *parseStatement("MATCH (w:Window)-[:CHILD*1..8]->(b:Button) RETURN count(*)").asRead();
  EXPECT_EQ(testing::rowsText(executeQuery(down, g)), "{count(*): 3333}");
  // Cartesian bindings count too.
  EXPECT_THROW(matchBindings(matchOf("MATCH (a), (b)"), g), BadRequestError);
  EXPECT_EQ(matchBindings(matchOf("MATCH (a), (b:Window)"), g).size(), 10'000u);
}

TEST(CypherMatcher, CandidateLabelsAndGraphFailures) {
  auto g = testing::uiGraph();
  matchBindings(matchOf("MATCH (n:A|B)"), g);
  EXPECT_EQ(g.unlabelledScans, 1);
  matchBindings(matchOf("MATCH (n:Window), (m:Button)"), g);
  EXPECT_EQ(g.labelledScans, 3);  // the second part is asked anew for each binding
  BindingList list = matchBindings(matchOf("MATCH (a:Group)-[:CHILD]->(b), (c {id: 'w2'})"), g);
  EXPECT_EQ(list.variables, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(list.vars(1).toMap().keys(), list.variables);
  g.failOnProperty("boom");
  try {
    executeQuery(*parseStatement("MATCH (n) WHERE n.boom = 1 RETURN n").asRead(), g);
    FAIL();
  } catch (const BadRequestError& e) {
    EXPECT_EQ(e.message(), "property boom failed");
  }
}

TEST(CypherWhere, HandMadeOperands) {
  ComparisonOperand list{ComparisonOperand::List{1, "a"}};
  EXPECT_TRUE(evaluateComparison(ScalarValue("a"), ComparisonOperator::in, list));
  EXPECT_FALSE(evaluateComparison(ScalarValue(), ComparisonOperator::in, list));
  EXPECT_TRUE(evaluateComparison(ScalarValue(1), ComparisonOperator::in, ComparisonOperand{ScalarValue(1.0)}));
  try {
    evaluateComparison(ScalarValue(1), ComparisonOperator::startsWith, list);
    FAIL();
  } catch (const BadRequestError& e) {
    EXPECT_EQ(e.message(), "Operator \"STARTS_WITH\" does not accept a list");
    EXPECT_FALSE(e.hint());
  }
  // Code units, not code points: U+FF5E sorts after a supplementary letter.
  EXPECT_TRUE(evaluateComparison(ScalarValue("\U0001F600"), ComparisonOperator::less,
                                 ComparisonOperand{ScalarValue("\uFF5E")}));
}

TEST(CypherRegexCache, FlushesWholeAtOneHundredAndOneEntries) {
  RegexCache cache;
  for (int i = 0; i < 101; ++i) cache.compile("p" + std::to_string(i));
  EXPECT_EQ(cache.count(), 101u);
  auto early = cache.compile("p0");  // a hit: nothing is inserted
  EXPECT_EQ(cache.count(), 101u);
  cache.compile("p101");
  EXPECT_EQ(cache.count(), 1u);
  auto again = cache.compile("p0");
  EXPECT_NE(early, again);
  EXPECT_TRUE(regexMatches(*again, "p0"));
  EXPECT_FALSE(regexMatches(*again, "p0 "));
  EXPECT_THROW(cache.compile("a{"), BadRequestError);
  EXPECT_EQ(cache.count(), 2u);  // a failed compile caches nothing
}

TEST(CypherRegexCache, SharedAcrossThreads) {
  auto g = testing::uiGraph();
  const Query query = *parseStatement("MATCH (n) WHERE n.name =~ '(?i)p.*' RETURN n.id").asRead();
  std::vector<std::thread> threads;
  std::vector<std::string> results(4);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) results[t] = testing::rowsText(executeQuery(query, g));
    });
  for (auto& thread : threads) thread.join();
  for (const auto& rows : results) EXPECT_EQ(rows, "{n.id: \"b1\"} | {n.id: \"b3\"} | {n.id: \"w2\"}");
}

// Patterns that backtrack exponentially on a text they do not match: the
// match is stopped and the statement fails naming the pattern, while the same
// patterns still answer on texts they match quickly.
TEST(CypherRegexCache, RunawayMatchesStopWithAnErrorNamingThePattern) {
  const std::string runaway(40, 'a');
  struct Case {
    std::string pattern;
    std::string matching;
  };
  const std::vector<Case> cases{{"(a+)+b", "aaab"}, {"(a|aa)+b", "aab"}, {"(a*)*b", "ab"}, {"(?i)(A+)+B", "aAb"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.pattern);
    auto compiled = RegexCache::shared().compile(c.pattern);
    EXPECT_TRUE(regexMatches(*compiled, c.matching));
    try {
      regexMatches(*compiled, runaway);
      FAIL() << "the match ended by itself";
    } catch (const BadRequestError& e) {
      EXPECT_EQ(e.code(), "invalid_argument");
      EXPECT_NE(e.message().find("\"" + c.pattern + "\""), std::string::npos) << e.message();
    }
  }
  // Through a statement: the first binding that runs away ends the query.
  PropertyGraph g;
  g.add({"StaticText"}, {{"value", runaway}});
  const Query query = *parseStatement("MATCH (t:StaticText) WHERE t.value =~ '(a+)+b' RETURN t.value").asRead();
  EXPECT_THROW(executeQuery(query, g), BadRequestError);
  // A long text that a simple pattern matches in linear time is no runaway.
  EXPECT_TRUE(regexMatches(*RegexCache::shared().compile("[ab]*c"), std::string(200'000, 'a') + "c"));
}

TEST(CypherOrder, CompareRowKeys) {
  const std::vector<OrderItem> asc{{OrderKey{OrderKey::Variable{"k"}}, OrderDirection::ascending}};
  const std::vector<OrderItem> desc{{OrderKey{OrderKey::Variable{"k"}}, OrderDirection::descending}};
  using Keys = std::vector<ScalarValue>;
  EXPECT_EQ(compareRowKeys(Keys{nullptr}, Keys{}, asc), 0);  // a missing key is null
  EXPECT_GT(compareRowKeys(Keys{nullptr}, Keys{1}, asc), 0);
  EXPECT_LT(compareRowKeys(Keys{nullptr}, Keys{1}, desc), 0);
  EXPECT_LT(compareRowKeys(Keys{"a"}, Keys{"B"}, asc), 0);  // collation, not code units
  EXPECT_EQ(compareRowKeys(Keys{true}, Keys{"true"}, asc), 0);
  const std::vector<OrderItem> two{asc[0], desc[0]};
  EXPECT_GT(compareRowKeys(Keys{1, 1}, Keys{1, 2}, two), 0);
}

}  // namespace
}  // namespace glimmerstrand::cypher
