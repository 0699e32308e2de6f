/// @file
/// What the code under test asks of the system: kept in order, or failing on demand. The test
/// programs are linked so that its system calls on files and its allocations come through here
/// (operator new does by itself).
#ifndef KX_MP4_TESTS_SYSTEM_CALLS_H
#define KX_MP4_TESTS_SYSTEM_CALLS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "movie_reader.h"

/// While it exists, the `failingCall`-th of the calls (from 1, all kinds counted together) fails
/// with the error number, once or from then on. One at a time.
class FaultInjection {
public:
    /// A `failure`: that call, if it is a write of more than one byte, writes only half.
    static constexpr int kShortWrite = -1;

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

    /// Those that came so far. With 0 as `failingCall` they are counted and none fails.
    int Calls() const;
    /// Whether the failing call was reached.
    bool Hit() const;

    /// For allocations.cpp.
    static bool RefusesMemory();
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

/// What file systems differ in.
struct FileSystem {
    /// What it says it has room for; UINT64_MAX: the truth.
    static inline uint64_t room = UINT64_MAX;
    /// Whether it copies between files by itself.
    static inline bool copies = true;
};

struct FileOperation {
    enum Kind { kWrite, kTruncate, kSync, kRemove, kMark };
    Kind kind = kWrite;
    std::string path;       // not of a mark
    uint64_t position = 0;  // of a write; the size of a truncation
    Bytes bytes;            // of a write
};

/// Files by their paths, as they are at one moment.
class FileStates {
public:
    /// Applies an operation; of a write only the first `bytes` bytes.
    void Apply(const FileOperation& operation, size_t bytes = SIZE_MAX);
    /// The content; empty for a file that is not there.
    const Bytes& Of(const std::string& path) const;
    Bytes& Of(const std::string& path) { return m_files[path]; }
    bool Has(const std::string& path) const { return m_files.count(path) != 0; }

private:
    std::map<std::string, Bytes> m_files;
};

/// While it exists, operations on files whose path begins so are recorded. One at a time.
class WriteLog {
public:
    explicit WriteLog(const std::string& pathBegin);
    ~WriteLog();
    WriteLog(const WriteLog&) = delete;
    WriteLog& operator=(const WriteLog&) = delete;

    /// Puts a mark between what came and what comes.
    void Mark() { operations.push_back({FileOperation::kMark, {}, 0, {}}); }

    std::vector<FileOperation> operations;
};

void WriteWholeFile(const std::string& path, const Bytes& content);

#endif  // KX_MP4_TESTS_SYSTEM_CALLS_H
