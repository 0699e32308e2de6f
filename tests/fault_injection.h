/// @file
/// System calls and memory that fail on demand. Test programs are linked so that the library's
/// calls of malloc, realloc and aligned_alloc come through here (operator new does by itself), and
/// with system_call_faults.cpp those of open, write, writev, pwritev, lseek, fsync, ftruncate and
/// close.
#ifndef KX_MP4_TESTS_FAULT_INJECTION_H
#define KX_MP4_TESTS_FAULT_INJECTION_H

#include <string_view>

/// While it exists, the `failingCall`-th of the calls (from 1, all kinds counted together) fails
/// with the error number, once or from then on. One at a time.
class FaultInjection {
public:
    /// A `failure`: that call, if it is a write of more than one byte, writes only half.
    static constexpr int kShortWrite = -1;
    /// A `failure`: calls are counted and none fails.
    static constexpr int kNone = 0;

    enum class Of {
        kFiles,     ///< System calls on any file.
        kSideFile,  ///< System calls on files whose name ends in ".info".
        kOutput,    ///< System calls on other files.
        kMemory,    ///< Allocations.
    };

    FaultInjection(int failingCall, int failure, Of of = Of::kFiles, bool forGood = false);
    ~FaultInjection();
    FaultInjection(const FaultInjection&) = delete;
    FaultInjection& operator=(const FaultInjection&) = delete;

    int Calls() const;
    /// Whether the failing call was reached.
    bool Hit() const;
};

/// While it exists, the thread that made it is left alone: for what a test does in between.
class FaultPause {
public:
    FaultPause() { ++s_depth; }
    ~FaultPause() { --s_depth; }
    FaultPause(const FaultPause&) = delete;
    FaultPause& operator=(const FaultPause&) = delete;

    static bool IsOn() { return s_depth != 0; }

private:
    static inline thread_local int s_depth = 0;
};

/// For the wrappers of system calls.
namespace fault_injection {

bool WatchesFiles();
/// Counts a call on the file of that name, when such calls are watched; whether it is to fail.
bool FailsOn(std::string_view path);
/// Sets the error number, for a result of -1.
int Refuse();
bool IsShort();
int Failure();

}  // namespace fault_injection

#endif  // KX_MP4_TESTS_FAULT_INJECTION_H
