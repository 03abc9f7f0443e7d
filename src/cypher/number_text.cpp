// numberText: the shortest round-trip digits come from std::to_chars, and the
// layout of those digits follows ECMAScript's Number::toString.
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "cypher/values.h"

namespace glimmerstrand::cypher {

std::string numberText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  if (value == 0.0) return "0";

  // Scientific form with the fewest digits that read back exactly: "d.ddde±x".
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, std::fabs(value), std::chars_format::scientific);
  std::string_view sci(buf, static_cast<std::size_t>(end - buf));
  std::size_t e = sci.find('e');
  std::string digits;
  for (char c : sci.substr(0, e))
    if (c != '.') digits += c;
  while (digits.size() > 1 && digits.back() == '0') digits.pop_back();
  const int k = static_cast<int>(digits.size());
  const int n = std::atoi(std::string(sci.substr(e + 1)).c_str()) + 1;

  std::string out = value < 0 ? "-" : "";
  if (k <= n && n < 22) {
    out += digits;
    out.append(static_cast<std::size_t>(n - k), '0');
  } else if (1 <= n && n < 22) {
    out += digits.substr(0, static_cast<std::size_t>(n));
    out += '.';
    out += digits.substr(static_cast<std::size_t>(n));
  } else if (-5 <= n && n <= 0) {
    out += "0.";
    out.append(static_cast<std::size_t>(-n), '0');
    out += digits;
  } else {
    out += digits[0];
    if (k > 1) {
      out += '.';
      out += digits.substr(1);
    }
    out += 'e';
    out += n - 1 >= 0 ? '+' : '-';
    out += std::to_string(std::abs(n - 1));
  }
  return out;
}

}  // namespace glimmerstrand::cypher
