#ifndef TESTS_ALLOCATIONS_H
#define TESTS_ALLOCATIONS_H

#include <atomic>
#include <cstdlib>
#include <new>

// Replaces the allocation functions of the program, all that it loads among it. For one source of a program.
namespace allocations {

/** After how many allocations one is to fail, counted down by each; none is while it is negative. */
inline std::atomic<long> until_failure = -1;

}  // namespace allocations

// Not inlined: the compiler would see an allocation function and `free`, and take them for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  const bool fails = allocations::until_failure >= 0 && allocations::until_failure-- == 0;
  void* const memory = fails ? nullptr : std::malloc(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

#endif
