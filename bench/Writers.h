/// @file
/// What is compared: the library in three configurations, another muxer, and two floors that only
/// move the bytes.
#ifndef KX_MP4_BENCH_WRITERS_H
#define KX_MP4_BENCH_WRITERS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Workload.h"

/// Records samples into a file. Failures are std::runtime_error.
class Writer {
public:
    Writer() = default;
    virtual ~Writer() = default;
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    virtual void Open(const std::string& path, const Workload::Shape& shape) = 0;
    virtual void Write(const Sample& sample) = 0;
    virtual void Close() = 0;
    /// Asks for the size of the index; false where there is no such query.
    virtual bool QueryIndexSize() { return false; }
};

struct WriterKind {
    std::string name;
    std::function<std::unique_ptr<Writer>()> make;
};

/// Every writer of this build.
std::vector<WriterKind> WriterKinds();

#ifdef KX_MP4_BENCH_LIBAVFORMAT
std::unique_ptr<Writer> MakeLibavformatWriter();
#endif

/// Names that ratios are made with.
constexpr const char* kLibavformat = "libavformat";
constexpr const char* kOneWrite = "one write per frame";

#endif  // KX_MP4_BENCH_WRITERS_H
