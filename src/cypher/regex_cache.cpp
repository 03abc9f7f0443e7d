#include "cypher/regex_cache.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>

#include "cypher/values.h"

namespace glimmerstrand::cypher {

class CompiledRegex {
 public:
  explicit CompiledRegex(std::unique_ptr<icu::RegexPattern> pattern) : pattern_(std::move(pattern)) {}
  const icu::RegexPattern& pattern() const { return *pattern_; }

 private:
  std::unique_ptr<icu::RegexPattern> pattern_;
};

namespace {

icu::UnicodeString utf16(std::string_view text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::shared_ptr<const CompiledRegex> compileWholeString(std::string_view written) {
  constexpr std::string_view kCaseless = "(?i)";
  const bool caseless = written.starts_with(kCaseless);
  std::string_view body = caseless ? written.substr(kCaseless.size()) : written;
  // Anchored at both ends so the pattern must match the whole text, a final
  // line feed included; alternatives are grouped first.
  icu::UnicodeString wrapped = utf16("\\A(?:");
  wrapped += utf16(body);
  wrapped += utf16(")\\z");
  UErrorCode status = U_ZERO_ERROR;
  UParseError where;
  std::unique_ptr<icu::RegexPattern> pattern(
      icu::RegexPattern::compile(wrapped, caseless ? UREGEX_CASE_INSENSITIVE : 0, where, status));
  if (U_FAILURE(status) || !pattern)
    throw BadRequestError("Invalid regular expression \"" + std::string(written) +
                          "\": Invalid regular expression: /^(?:" + std::string(body) + ")$/" +
                          (caseless ? "iu" : "u") + ": Invalid pattern");
  return std::make_shared<const CompiledRegex>(std::move(pattern));
}

}  // namespace

bool regexMatches(const CompiledRegex& regex, std::string_view text) {
  const icu::UnicodeString input = utf16(text);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(regex.pattern().matcher(input, status));
  if (U_FAILURE(status)) return false;
  bool found = matcher->find(status);
  return U_SUCCESS(status) && found;
}

RegexCache& RegexCache::shared() {
  static RegexCache* cache = new RegexCache();  // lives as long as the process
  return *cache;
}

std::shared_ptr<const CompiledRegex> RegexCache::compile(std::string_view pattern) {
  const std::string key(pattern);
  {
    std::lock_guard guard(lock_);
    if (auto hit = entries_.find(key); hit != entries_.end()) return hit->second;
  }
  auto compiled = compileWholeString(pattern);
  std::lock_guard guard(lock_);
  if (entries_.size() >= kFlushAt) entries_.clear();
  entries_.insert_or_assign(key, compiled);
  return compiled;
}

std::size_t RegexCache::count() const {
  std::lock_guard guard(lock_);
  return entries_.size();
}

}  // namespace glimmerstrand::cypher
