// An operator new that counts and can fail, for one source file of a test program. Memcheck puts
// its own in the place of this.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace kest::test {

inline std::atomic<unsigned> allocations{0};
inline size_t allocationLimit = SIZE_MAX;  // of one request

}  // namespace kest::test

void* operator new(size_t size) {
    ++kest::test::allocations;
    void* memory = size <= kest::test::allocationLimit ? std::malloc(size) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
