#include "eventloop/memoryreserve.h"

#include <array>
#include <cstdlib>
#include <new>
#include <utility>

namespace kavo::impl {

namespace {

// All blocks together are far more than live555 allocates for any request.
constexpr std::size_t blockSize = 16 * std::size_t{1024};
constinit std::array<void*, 64> g_Blocks{};
constinit std::new_handler g_Before = nullptr;

// Returning makes `new` retry.
void useReserve() {
  if (eventLoopRole.isHeld()) {
    for (void*& block : g_Blocks) {
      if (block != nullptr) {
        std::free(std::exchange(block, nullptr));
        return;
      }
    }
  }
  if (g_Before == nullptr) {
    throw std::bad_alloc();
  }
  g_Before();
}

bool fill() {
  for (void*& block : g_Blocks) {
    if (block == nullptr) {
      block = std::malloc(blockSize);
    }
    if (block == nullptr) {
      return false;
    }
  }
  return true;
}

void empty() {
  for (void*& block : g_Blocks) {
    std::free(std::exchange(block, nullptr));
  }
}

}  // namespace

MemoryReserve::MemoryReserve() {
  if (!fill()) {
    empty();
    throw std::bad_alloc();
  }
  g_Before = std::set_new_handler(useReserve);
}

MemoryReserve::~MemoryReserve() {
  // Unless the host has set another since, which may call this one.
  if (std::get_new_handler() == useReserve) {
    std::set_new_handler(g_Before);
  }
  empty();
}

bool MemoryReserve::refill() { return fill(); }

}  // namespace kavo::impl
