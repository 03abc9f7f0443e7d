#include "core/desktop.h"

#include <atomic>

namespace glimmerstrand::core {
namespace {

std::atomic<Desktop> chosen{Desktop::mac};

}  // namespace

Desktop currentDesktop() { return chosen.load(std::memory_order_relaxed); }

void setCurrentDesktop(Desktop desktop) { chosen.store(desktop, std::memory_order_relaxed); }

}  // namespace glimmerstrand::core
