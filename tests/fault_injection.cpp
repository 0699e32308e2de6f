#include "fault_injection.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string_view>

namespace {

using Of = FaultInjection::Of;

std::atomic<bool> g_active{false};
std::atomic<Of> g_of{Of::kFiles};
std::atomic<int> g_calls{0};
std::atomic<int> g_failingCall{0};
std::atomic<int> g_failure{0};
std::atomic<bool> g_forGood{false};

/// Counts a call and answers whether it fails.
bool Fails() {
    const int call = ++g_calls;
    return g_failure != FaultInjection::kNone && g_failingCall != 0 &&
           (g_forGood ? call >= g_failingCall : call == g_failingCall);
}

bool IsWatched(std::string_view path) {
    constexpr std::string_view kEnd = ".info";
    constexpr std::string_view kRemoved = " (deleted)";  // as the system names it
    if (path.size() > kRemoved.size() && path.substr(path.size() - kRemoved.size()) == kRemoved)
        path.remove_suffix(kRemoved.size());
    const bool side = path.size() >= kEnd.size() && path.substr(path.size() - kEnd.size()) == kEnd;
    return g_of == Of::kFiles || side == (g_of == Of::kSideFile);
}

}  // namespace

namespace fault_injection {

bool WatchesFiles() {
    return g_active && !FaultPause::IsOn() && g_of != Of::kMemory;
}

bool FailsOn(std::string_view path) {
    return WatchesFiles() && IsWatched(path) && Fails();
}

int Refuse() {
    errno = g_failure;
    return -1;
}

bool IsShort() {
    return g_failure == FaultInjection::kShortWrite;
}

int Failure() {
    return g_failure;
}

}  // namespace fault_injection

namespace {

bool MemoryFails() {
    if (!g_active || FaultPause::IsOn() || g_of != Of::kMemory || !Fails()) return false;
    errno = g_failure;
    return true;
}

}  // namespace

// The names are the linker's: --wrap=malloc sends calls of malloc to __wrap_malloc.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __real_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void* __real_aligned_alloc(size_t alignment, size_t size);

void* __wrap_malloc(size_t size) {
    return MemoryFails() ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size) {
    return MemoryFails() ? nullptr : __real_realloc(block, size);
}

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
    return MemoryFails() ? nullptr : __real_aligned_alloc(alignment, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)

void* operator new(size_t size) {
    void* const block = MemoryFails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return MemoryFails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

FaultInjection::FaultInjection(int failingCall, int failure, Of of, bool forGood) {
    g_calls = 0;
    g_failingCall = failingCall;
    g_failure = failure;
    g_of = of;
    g_forGood = forGood;
    g_active = true;
}

FaultInjection::~FaultInjection() {
    g_active = false;
}

int FaultInjection::Calls() const {
    return g_calls;
}

bool FaultInjection::Hit() const {
    return g_failingCall != 0 && g_calls >= g_failingCall;
}
