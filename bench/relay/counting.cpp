// Preloaded into a relay: counts what is allocated.
#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {
std::atomic<unsigned long> allocations{0};
}

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED unsigned long counted_allocations() {
    return allocations;
}
EXPORTED void* malloc(std::size_t size) noexcept {
    ++allocations;
    return __libc_malloc(size);
}
EXPORTED void* calloc(std::size_t count, std::size_t size) noexcept {
    ++allocations;
    return __libc_calloc(count, size);
}
EXPORTED void* realloc(void* memory, std::size_t size) noexcept {
    ++allocations;
    return __libc_realloc(memory, size);
}
EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    ++allocations;
    return __libc_memalign(alignment, size);
}
