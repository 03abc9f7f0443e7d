#include "cypher/text_order.h"

#include <unicode/coll.h>
#include <unicode/locid.h>

#include <memory>

namespace glimmerstrand::cypher {
namespace {

// One collator per thread, cloned from one made once: a collator is not to
// be shared between threads while it compares. None only if ICU cannot
// allocate one.
const icu::Collator* collator() {
  static const icu::Collator* prototype = [] {
    UErrorCode status = U_ZERO_ERROR;
    icu::Collator* made = icu::Collator::createInstance(icu::Locale("en", "US"), status);
    return U_SUCCESS(status) ? made : nullptr;
  }();
  thread_local std::unique_ptr<icu::Collator> mine(prototype ? prototype->clone() : nullptr);
  return mine.get();
}

}  // namespace

int compareText(std::string_view a, std::string_view b) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Collator* order = collator();
  if (!order) return a < b ? -1 : a > b ? 1 : 0;
  UCollationResult result = order->compareUTF8(icu::StringPiece(a.data(), static_cast<int32_t>(a.size())),
                                               icu::StringPiece(b.data(), static_cast<int32_t>(b.size())), status);
  if (U_FAILURE(status)) return a < b ? -1 : a > b ? 1 : 0;
  return result == UCOL_LESS ? -1 : result == UCOL_GREATER ? 1 : 0;
}

}  // namespace glimmerstrand::cypher
