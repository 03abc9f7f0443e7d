// Compiled regular expressions of `=~`, shared by every query of the process
// so that a pattern is not recompiled for each binding or each query.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace glimmerstrand::cypher {

/// A compiled whole-string pattern; immutable, usable from several threads.
class CompiledRegex;

/// Whether `regex` matches the whole of `text`. Throws BadRequestError,
/// naming the pattern, when the match runs away (catastrophic backtracking)
/// and is stopped, or when the engine fails otherwise.
bool regexMatches(const CompiledRegex& regex, std::string_view text);

/// The process-wide cache of compiled patterns, made on first use.
///
/// Thread-safety: `lock_` guards `entries_`. It is held for one lookup, or
/// for one flush and insert, never while a pattern compiles or matches.
class RegexCache {
 public:
  /// Flushed whole, not by age, when an insert finds this many entries.
  static constexpr std::size_t kFlushAt = 101;

  static RegexCache& shared();

  /// The compiled form of `pattern` as written; a leading "(?i)" makes it
  /// case-insensitive. Throws BadRequestError when it does not compile.
  std::shared_ptr<const CompiledRegex> compile(std::string_view pattern);

  std::size_t count() const;

 private:
  mutable std::mutex lock_;
  std::unordered_map<std::string, std::shared_ptr<const CompiledRegex>> entries_;
};

}  // namespace glimmerstrand::cypher
