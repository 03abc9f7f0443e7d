#include "cypher/values.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>

namespace glimmerstrand::cypher {
namespace {

TEST(NumberText, FollowsTheEcmaScriptLayout) {
  const std::pair<double, const char*> cases[] = {
      {1e21, "1e+21"},
      {1e20, "100000000000000000000"},
      {0.0000001, "1e-7"},
      {-0.0, "0"},
      {std::numeric_limits<double>::quiet_NaN(), "NaN"},
      {std::numeric_limits<double>::infinity(), "Infinity"},
      {std::numeric_limits<double>::denorm_min(), "5e-324"},
  };
  for (auto [value, text] : cases) EXPECT_EQ(numberText(value), text) << text;
}

// Doubles that stress the digit generation and the layout boundaries.
std::vector<double> awkwardAndRandomDoubles() {
  std::vector<double> values;
  for (int e = -330; e <= 310; ++e) {
    double p = std::pow(10.0, e);
    values.insert(values.end(), {p, std::nextafter(p, 0.0), std::nextafter(p, INFINITY), -p, 1.5 * p, 123456789 * p});
  }
  values.insert(values.end(), {std::numeric_limits<double>::min(), std::numeric_limits<double>::denorm_min(),
                               std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
                               std::numeric_limits<double>::epsilon(), 9007199254740992.0, 9007199254740993.0});
  std::mt19937_64 random(20261123);
  for (int i = 0; i < 20000; ++i) {
    double d = std::bit_cast<double>(random());
    if (std::isfinite(d)) values.push_back(d);
  }
  std::uniform_real_distribution<double> small(-1e6, 1e6);
  for (int i = 0; i < 5000; ++i) values.push_back(small(random));
  for (int i = 0; i < 2000; ++i) values.push_back(std::round(small(random)));
  return values;
}

// node's String(x) is the reference implementation of the layout rule.
TEST(NumberText, MatchesNodeStringForManyDoubles) {
  ASSERT_EQ(std::system("node --version > /dev/null 2>&1"), 0) << "scripts/setup.sh installs node, the reference";
  auto values = awkwardAndRandomDoubles();
  auto dir = std::filesystem::temp_directory_path() / ("numbertext-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  {
    std::ofstream bits(dir / "bits.txt");
    for (double d : values) bits << std::bit_cast<std::uint64_t>(d) << '\n';
    std::ofstream script(dir / "print.js");
    script << "const lines = require('fs').readFileSync(process.argv[2], 'utf8').trim().split('\\n');\n"
              "const view = new DataView(new ArrayBuffer(8));\n"
              "const out = lines.map(l => { view.setBigUint64(0, BigInt(l)); return String(view.getFloat64(0)); });\n"
              "require('fs').writeFileSync(process.argv[3], out.join('\\n') + '\\n');\n";
  }
  auto command =
      "node " + (dir / "print.js").string() + " " + (dir / "bits.txt").string() + " " + (dir / "texts.txt").string();
  ASSERT_EQ(std::system(command.c_str()), 0);
  std::ifstream texts(dir / "texts.txt");
  std::string expected;
  int mismatches = 0;
  for (double d : values) {
    ASSERT_TRUE(std::getline(texts, expected));
    if (numberText(d) != expected && ++mismatches <= 10)
      ADD_FAILURE() << "bits " << std::bit_cast<std::uint64_t>(d) << ": " << numberText(d) << " vs " << expected;
  }
  EXPECT_EQ(mismatches, 0);
  std::filesystem::remove_all(dir);
}

TEST(ScalarEquality, FollowsIeeeAndCodeUnits) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(ScalarValue(0.0), ScalarValue(-0.0));
  EXPECT_EQ(hashValue(ScalarValue(0.0)), hashValue(ScalarValue(-0.0)));
  EXPECT_NE(ScalarValue(nan), ScalarValue(nan));
  EXPECT_NE(ScalarValue(1), ScalarValue("1"));
  EXPECT_NE(ScalarValue(true), ScalarValue(1));
  // Precomposed é against e + combining acute: different texts.
  EXPECT_NE(ScalarValue("\xC3\xA9"), ScalarValue("e\xCC\x81"));
}

TEST(OrderedMap, CanonicallyEquivalentKeysAreOneKey) {
  Row m;
  m.set("\xC3\xA9", 1);
  m.set("e\xCC\x81", 2);
  ASSERT_EQ(m.count(), 1u);
  EXPECT_EQ(m.keys()[0], "\xC3\xA9");
  EXPECT_EQ(*m.get("e\xCC\x81"), RowValue(2));
}

TEST(OrderedMap, WritesKeepPlaceAndRemovalMovesToEnd) {
  Row m{{"a", 1}, {"b", 2}, {"a", 3}};
  m.set("a", 4);
  EXPECT_EQ(m.keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(*m.get("a"), RowValue(4));
  m.remove("a");
  m.remove("zzz");
  m.set("a", 5);
  EXPECT_EQ(m.keys(), (std::vector<std::string>{"b", "a"}));
  m.setOrRemove("b", std::nullopt);
  EXPECT_EQ(m.keys(), (std::vector<std::string>{"a"}));
}

TEST(RowEquality, MapKeyOrderIsSignificant) {
  RowValue ab(Row{{"a", 1}, {"b", 2}});
  RowValue ba(Row{{"b", 2}, {"a", 1}});
  EXPECT_NE(ab, ba);
  EXPECT_EQ(ab, RowValue(Row{{"a", 1.0}, {"b", 2}}));
  EXPECT_EQ(hashValue(ab), hashValue(RowValue(Row{{"a", 1.0}, {"b", 2}})));
}

TEST(DistinctNormalForm, ReplacesNonFiniteNumbersAtAnyDepth) {
  const double inf = std::numeric_limits<double>::infinity();
  Row row{{"a", std::nan("")}, {"b", RowValue::List{1, Row{{"c", -inf}}}}};
  Row normal = distinctNormalForm(row);
  EXPECT_EQ(normal, (Row{{"a", nullptr}, {"b", RowValue::List{1, Row{{"c", nullptr}}}}}));
  EXPECT_TRUE(std::isnan(*row.get("a")->asScalar()->asNumber())) << "the row itself stays as it was";
}

}  // namespace
}  // namespace glimmerstrand::cypher
