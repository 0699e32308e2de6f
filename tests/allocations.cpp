// Allocations that fail when system_calls.h says so; apart, as compilers match new with delete.
#include <cstdlib>
#include <new>

#include "system_calls.h"

// The names are the linker's: --wrap=malloc sends calls of malloc to __wrap_malloc.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void* __real_aligned_alloc(size_t alignment, size_t size);

void* __wrap_malloc(size_t size) {
    return FaultInjection::RefusesMemory() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return FaultInjection::RefusesMemory() ? nullptr : __real_realloc(block, size);
}

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
    return FaultInjection::RefusesMemory() ? nullptr : __real_aligned_alloc(alignment, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size == 0 ? 1 : size);
}

void* operator new(size_t size) {
    void* const block = operator new(size, std::nothrow);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
