/// @file
/// System calls that fail on demand. The test program is linked so that the library's calls of
/// write, writev, lseek and fsync come through here.
#ifndef KX_MP4_TESTS_FAULT_INJECTION_H
#define KX_MP4_TESTS_FAULT_INJECTION_H

/// While it exists, the `failingCall`-th of the calls (from 1, all four kinds counted together)
/// fails once with the error number. A `failure` of kShortWrite lets that call, if it is a write
/// of more than one byte, write only half.
class FaultInjection {
public:
    static constexpr int kShortWrite = -1;
    /// Calls are counted and none fails.
    static constexpr int kNone = 0;

    FaultInjection(int failingCall, int failure);
    ~FaultInjection();
    FaultInjection(const FaultInjection&) = delete;
    FaultInjection& operator=(const FaultInjection&) = delete;

    int Calls() const;
    /// Whether the failing call was reached.
    bool Hit() const;
};

#endif  // KX_MP4_TESTS_FAULT_INJECTION_H
