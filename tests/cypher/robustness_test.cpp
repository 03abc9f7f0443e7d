// Arbitrary input never crashes or hangs the language: random token soup,
// mutated valid scripts and hostile nesting each either parse (and then run
// over a small graph) or fail with BadRequestError.
#include <gtest/gtest.h>

#include <random>

#include "cypher/parser.h"
#include "cypher/projection.h"
#include "fixtures.h"

namespace glimmerstrand::cypher {
namespace {

const std::vector<std::string> kFragments = {"MATCH",  "match",    "WHERE",     "RETURN",   "SET",
                                             "CREATE", "DELETE",   "DETACH",    "COPY",     "CALL",
                                             "AND",    "OR",       "NOT",       "CONTAINS", "STARTS WITH",
                                             "ENDS",   "IN",       "AS",        "DISTINCT", "ORDER BY",
                                             "SKIP",   "LIMIT",    "ASC",       "DESC",     "count",
                                             "sum",    "min",      "max",       "avg",      "(",
                                             ")",      "[",        "]",         "{",        "}",
                                             ":",      ",",        ".",         "..",       "*",
                                             "=",      "<>",       "<",         ">",        "<=",
                                             ">=",     "=~",       "->",        "-",        "|",
                                             ";",      "n",        "m",         "b",        "Button",
                                             "Window", "CHILD",    "PARENT",    "name",     "x",
                                             "1",      "-2",       "3.5",       "0",        "99999999999999999999",
                                             "'a'",    "\"Play\"", "'(?i)p.*'", "'('",      "true",
                                             "null",   "'",        "\"",        "\\",       "é",
                                             "名前",   "😀",        "\xff",      "!",        "`",
                                             " ",      "\n",       "\t"};

const std::vector<std::string> kScripts = {
    "MATCH (n:Button) WHERE n.name CONTAINS 'x' RETURN n",
    "MATCH (w:Window)-[:CHILD*1..8]->(b:Button) RETURN b.name ORDER BY b.name DESC SKIP 1 LIMIT 2",
    "MATCH (a)<-[:CHILD]-(p), (p)-[:CHILD|PARENT*2]->(q) WHERE NOT (a.x = 1 OR a:Group) RETURN DISTINCT q.id",
    "MATCH (n) RETURN n.role AS r, count(*), min(n.width), max(n.name) ORDER BY count(*) DESC",
    "MATCH (n {id: 'b1'}) SET n.value = [1, 'a'], n.x = null RETURN n",
    "MATCH (t:Window) CREATE (t)-[:HAS]->(n:Note {tags: [{k: 1}]}); CALL ui.type(\"hi\", 2, true)",
    "MATCH (n) WHERE n.name =~ '(?i)pl.*' AND n.width IN [10, 20] DETACH DELETE n; MATCH (m) COPY m",
    "CREATE (:Note {a: 1})"};

// Whether the script parsed; a read then also ran.
bool mustParseOrRefuse(const std::string& script, const testing::PropertyGraph& graph) {
  try {
    for (const auto& statement : parseStatements(script))
      if (const Query* query = statement.asRead()) executeQuery(*query, graph);
    return true;
  } catch (const BadRequestError&) {
  } catch (const std::exception& e) {
    ADD_FAILURE() << "unexpected exception " << e.what() << " for: " << script;
  }
  return false;
}

TEST(CypherRobustness, RandomTokenSoup) {
  std::mt19937 random(20240611);
  auto graph = testing::uiGraph();
  for (int i = 0; i < 3000; ++i) {
    std::string script;
    int length = std::uniform_int_distribution<int>(1, 30)(random);
    for (int k = 0; k < length; ++k) {
      script += kFragments[random() % kFragments.size()];
      if (random() % 3) script += ' ';
    }
    mustParseOrRefuse(script, graph);
  }
}

TEST(CypherRobustness, MutatedScripts) {
  std::mt19937 random(7);
  auto graph = testing::uiGraph();
  int parsed = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string script = kScripts[random() % kScripts.size()];
    int mutations = std::uniform_int_distribution<int>(1, 4)(random);
    for (int k = 0; k < mutations && !script.empty(); ++k) {
      std::size_t at = random() % script.size();
      switch (random() % 5) {
        case 0:
          script.erase(at, 1 + random() % 6);
          break;
        case 1:
          script.insert(at, kFragments[random() % kFragments.size()]);
          break;
        case 2:
          script.insert(at, script.substr(at, random() % 12));
          break;
        case 3:
          std::swap(script[at], script[random() % script.size()]);
          break;
        default:
          script[at] = static_cast<char>(random() % 256);
          break;
      }
    }
    parsed += mustParseOrRefuse(script, graph);
  }
  EXPECT_GT(parsed, 100) << "the mutations should leave enough valid scripts to run";
}

TEST(CypherRobustness, HostileNestingIsRefusedNotOverflowed) {
  const std::string where = "MATCH (n) WHERE ";
  for (const std::string& deep :
       {where + std::string(100'000, '(') + "n.x = 1" + std::string(100'000, ')') + " RETURN n",
        where +
            [] {
              std::string s;
              for (int i = 0; i < 50'000; ++i) s += "NOT ";
              return s;
            }() +
            "n.x = 1 RETURN n",
        where +
            [] {
              std::string s = "n.x = 0";
              for (int i = 0; i < 50'000; ++i) s += " OR n.x = 1";
              return s;
            }() +
            " RETURN n"}) {
    try {
      parseStatements(deep);
      FAIL() << "a WHERE nested this deep parsed";
    } catch (const BadRequestError& e) {
      EXPECT_NE(e.message().find("WHERE expression nests deeper than 1000 levels"), std::string::npos) << e.message();
    }
  }
  // Long flat shapes are no nesting: they parse.
  std::string chain = "MATCH (a)";
  for (int i = 0; i < 5'000; ++i) chain += "-[:CHILD]->()";
  EXPECT_NO_THROW(parseStatements(chain + " RETURN a"));
  std::string list = "MATCH (n) WHERE n.x IN [0";
  for (int i = 1; i < 50'000; ++i) list += ", " + std::to_string(i);
  EXPECT_NO_THROW(parseStatements(list + "] RETURN n"));
  std::string many;
  for (int i = 0; i < 2'000; ++i) many += "MATCH (n) RETURN n;";
  EXPECT_EQ(parseStatements(many).size(), 2'000u);
}

}  // namespace
}  // namespace glimmerstrand::cypher
