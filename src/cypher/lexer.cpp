#include "cypher/lexer.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <array>

#include "cypher/unicode_text.h"
#include "cypher/values.h"

namespace glimmerstrand::cypher {
namespace {

// The 25 keywords, then the three words that make literals.
constexpr std::array<std::string_view, 28> kSpecialWords = {
    "MATCH",  "WHERE",  "RETURN", "LIMIT",    "AND",   "OR",   "NOT",   "CONTAINS", "STARTS", "ENDS",
    "AS",     "WITH",   "IN",     "DISTINCT", "ORDER", "BY",   "SKIP",  "ASC",      "DESC",   "SET",
    "CREATE", "DELETE", "DETACH", "COPY",     "CALL",  "TRUE", "FALSE", "NULL"};
constexpr std::size_t kKeywordCount = 25;

constexpr std::array<std::string_view, 6> kTwoUnitPunct = {"->", "..", ">=", "<=", "<>", "=~"};
constexpr std::string_view kOneUnitPunct = "()[]{}:,.*=<>|-;";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isLetter(char32_t cp) {
  switch (u_charType(static_cast<UChar32>(cp))) {
    case U_UPPERCASE_LETTER:
    case U_LOWERCASE_LETTER:
    case U_TITLECASE_LETTER:
    case U_MODIFIER_LETTER:
    case U_OTHER_LETTER:
      return true;
    default:
      return false;
  }
}

bool isNumberChar(char32_t cp) {
  switch (u_charType(static_cast<UChar32>(cp))) {
    case U_DECIMAL_DIGIT_NUMBER:
    case U_LETTER_NUMBER:
    case U_OTHER_NUMBER:
      return true;
    default:
      return false;
  }
}

// Classification goes by single UTF-16 unit: a supplementary code point is a
// surrogate pair and never a word character.
bool startsWord(CodePoint cp) {
  if (cp.value < 0x80) return cp.value == '_' || (cp.value | 0x20) - 'a' < 26u;
  return cp.units() == 1 && isLetter(cp.value);
}

bool continuesWord(CodePoint cp) {
  if (cp.value < 0x80) return startsWord(cp) || isDigit(static_cast<char>(cp.value));
  return cp.units() == 1 && (isLetter(cp.value) || isNumberChar(cp.value));
}

char asciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool isAscii(std::string_view text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

// The index in kSpecialWords of the word's full Unicode upper-casing, if it
// is one of them. ASCII words are compared in place, without upper-casing.
std::optional<std::size_t> specialWord(std::string_view word) {
  if (isAscii(word)) {
    for (std::size_t k = 0; k < kSpecialWords.size(); ++k) {
      std::string_view special = kSpecialWords[k];
      if (special.size() != word.size()) continue;
      std::size_t i = 0;
      while (i < word.size() && asciiUpper(word[i]) == special[i]) ++i;
      if (i == word.size()) return k;
    }
    return std::nullopt;
  }
  std::string upper;
  icu::UnicodeString::fromUTF8(icu::StringPiece(word.data(), static_cast<int32_t>(word.size())))
      .toUpper(icu::Locale::getRoot())
      .toUTF8String(upper);
  for (std::size_t k = 0; k < kSpecialWords.size(); ++k)
    if (kSpecialWords[k] == upper) return k;
  return std::nullopt;
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  std::vector<Token> run() {
    tokens_.reserve(text_.size() / 3 + 1);
    while (at_ < text_.size()) step();
    return std::move(tokens_);
  }

 private:
  void step() {
    char c = text_[at_];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      advance(1, 1);
    } else if (c == '"' || c == '\'') {
      readString(c);
    } else if (isDigit(c) || (c == '-' && at_ + 1 < text_.size() && isDigit(text_[at_ + 1]))) {
      readNumber();
    } else if (CodePoint cp = decodeAt(text_, at_); startsWord(cp)) {
      readWord();
    } else if (!readPunct()) {
      // It fails on its first unit: half of a surrogate pair alone prints as U+FFFD.
      const std::string shown = utf8(utf16(text_.substr(at_, cp.bytes)).substr(0, 1));
      throw BadRequestError("Unexpected character \"" + shown + "\" at position " + std::to_string(unit_));
    }
  }

  void advance(std::size_t bytes, std::int64_t units) {
    at_ += bytes;
    unit_ += units;
  }

  void emit(TokenType type, std::string value, std::int64_t start, std::optional<std::string> raw = std::nullopt) {
    tokens_.push_back(Token{type, std::move(value), start, std::move(raw)});
  }

  void readString(char quote) {
    const std::int64_t start = unit_;
    advance(1, 1);
    std::string value;
    std::size_t runStart = at_;
    while (at_ < text_.size()) {
      char c = text_[at_];
      if (c == quote) {
        value.append(text_.substr(runStart, at_ - runStart));
        advance(1, 1);
        emit(TokenType::string, std::move(value), start);
        return;
      }
      if (c == '\\' && at_ + 1 < text_.size()) {
        value.append(text_.substr(runStart, at_ - runStart));
        advance(1, 1);
        runStart = at_;  // the escaped unit is taken literally with the run
      }
      CodePoint cp = decodeAt(text_, at_);
      advance(cp.bytes, static_cast<std::int64_t>(cp.units()));
    }
    throw BadRequestError("Unterminated string literal at position " + std::to_string(start));
  }

  void readNumber() {
    const std::int64_t start = unit_;
    std::size_t begin = at_;
    std::size_t i = at_ + (text_[at_] == '-' ? 1 : 0);
    while (i < text_.size() && isDigit(text_[i])) ++i;
    if (i + 1 < text_.size() && text_[i] == '.' && isDigit(text_[i + 1])) {
      ++i;
      while (i < text_.size() && isDigit(text_[i])) ++i;
    }
    advance(i - begin, static_cast<std::int64_t>(i - begin));
    emit(TokenType::number, std::string(text_.substr(begin, i - begin)), start);
  }

  void readWord() {
    const std::int64_t start = unit_;
    std::size_t begin = at_;
    while (at_ < text_.size()) {
      auto c = static_cast<unsigned char>(text_[at_]);
      if (c < 0x80) {
        if (c != '_' && !isDigit(static_cast<char>(c)) && static_cast<unsigned>((c | 0x20) - 'a') >= 26u) break;
        advance(1, 1);
        continue;
      }
      CodePoint cp = decodeAt(text_, at_);
      if (!continuesWord(cp)) break;
      advance(cp.bytes, 1);
    }
    std::string word(text_.substr(begin, at_ - begin));
    std::optional<std::size_t> special = specialWord(word);
    if (!special) {
      emit(TokenType::identifier, std::move(word), start);
    } else if (*special < kKeywordCount) {
      emit(TokenType::keyword, std::string(kSpecialWords[*special]), start, std::move(word));
    } else if (kSpecialWords[*special] == "NULL") {
      emit(TokenType::null, "null", start);
    } else {
      emit(TokenType::boolean, kSpecialWords[*special] == "TRUE" ? "true" : "false", start);
    }
  }

  bool readPunct() {
    if (at_ + 1 < text_.size()) {
      std::string_view two = text_.substr(at_, 2);
      for (auto p : kTwoUnitPunct) {
        if (p == two) {
          emit(TokenType::punct, std::string(p), unit_);
          advance(2, 2);
          return true;
        }
      }
    }
    if (kOneUnitPunct.find(text_[at_]) == std::string_view::npos) return false;
    emit(TokenType::punct, std::string(1, text_[at_]), unit_);
    advance(1, 1);
    return true;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::int64_t unit_ = 0;
  std::vector<Token> tokens_;
};

}  // namespace

std::string_view typeName(TokenType type) {
  switch (type) {
    case TokenType::keyword:
      return "keyword";
    case TokenType::identifier:
      return "identifier";
    case TokenType::number:
      return "number";
    case TokenType::string:
      return "string";
    case TokenType::boolean:
      return "boolean";
    case TokenType::null:
      return "null";
    case TokenType::punct:
      return "punct";
  }
  return "";
}

std::vector<Token> tokenize(std::string_view text) {
  if (!isValidUtf8(text)) return Lexer(validUtf8(text)).run();
  return Lexer(text).run();
}

}  // namespace glimmerstrand::cypher
