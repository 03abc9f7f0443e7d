#include "cypher/regex_cache.h"

#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include "cypher/values.h"

namespace glimmerstrand::cypher {

class CompiledRegex {
 public:
  CompiledRegex(std::string written, std::unique_ptr<icu::RegexPattern> pattern)
      : written_(std::move(written)), pattern_(std::move(pattern)) {}
  const icu::RegexPattern& pattern() const { return *pattern_; }
  /// The pattern as the statement wrote it, for messages.
  const std::string& written() const { return written_; }

 private:
  std::string written_;
  std::unique_ptr<icu::RegexPattern> pattern_;
};

namespace {

// The engine counts its work in steps of some ten thousand operations. A
// match that needs more than this is runaway backtracking, not a big text:
// it ends the statement instead of pinning a core. Counting steps rather
// than time gives the same answer on a fast machine and a slow one.
constexpr int32_t kMatchStepLimit = 2000;

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
  return std::make_shared<const CompiledRegex>(std::string(written), std::move(pattern));
}

}  // namespace

bool regexMatches(const CompiledRegex& regex, std::string_view text) {
  const icu::UnicodeString input = utf16(text);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> matcher(regex.pattern().matcher(input, status));
  if (U_SUCCESS(status)) matcher->setTimeLimit(kMatchStepLimit, status);
  bool found = U_SUCCESS(status) && matcher->find(status);
  if (status == U_REGEX_TIME_OUT || status == U_REGEX_STACK_OVERFLOW)
    throw BadRequestError("Regular expression \"" + regex.written() + "\" was stopped: matching it took too long",
                          "Simplify the pattern: nested repetition such as (a+)+ or (a|aa)+ can take exponential "
                          "time on a text it does not match.");
  if (U_FAILURE(status))
    throw BadRequestError("Regular expression \"" + regex.written() +
                          "\" could not be matched: " + u_errorName(status));
  return found;
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
