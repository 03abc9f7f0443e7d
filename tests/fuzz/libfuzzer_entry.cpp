// The libFuzzer entry of one target, chosen by GLIMMERSTRAND_FUZZ_TARGET at
// compile time.
#include "targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return glimmerstrand::fuzz::GLIMMERSTRAND_FUZZ_TARGET(data, size);
}
