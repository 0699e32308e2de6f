// Any repair info file beside any recording: the repair neither crashes nor grows without bound,
// what it calls repaired is a finished file, and a second repair changes nothing.
//
// | 1 byte: 1 composition offsets | 4 bytes: length n of the info file | n bytes | recording |
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "file_walk.h"
#include "kx_mp4/repair.h"

// The boxes' log lines would only slow the search down.
extern "C" {
void zv_log_error(const char*, const char*, int, const char*, ...) {}
void zv_log_warn(const char*, const char*, int, const char*, ...) {}
void zv_log_info(const char*, const char*, int, const char*, ...) {}
}

namespace {

using kx_mp4::RepairOutcome;

class MemoryFile {
public:
    MemoryFile() : m_file(memfd_create("fuzz", MFD_CLOEXEC)) { Require(m_file >= 0); }
    ~MemoryFile() { close(m_file); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_file); }
    void Set(const uint8_t* data, size_t size) {
        Require(ftruncate(m_file, 0) == 0);
        Require(pwrite(m_file, data, size, 0) == static_cast<ssize_t>(size));
    }
    std::vector<uint8_t> Content() const {
        const off_t size = lseek(m_file, 0, SEEK_END);
        std::vector<uint8_t> bytes(static_cast<size_t>(size));
        Require(pread(m_file, bytes.data(), bytes.size(), 0) == size);
        return bytes;
    }

private:
    int m_file;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MemoryFile info;
    static MemoryFile recording;
    constexpr size_t kHead = 5;
    if (size < kHead) return 0;
    size_t infoSize = 0;
    for (size_t i = 1; i < kHead; ++i)
        infoSize = infoSize << 8 | data[i];
    infoSize = std::min(infoSize, size - kHead);
    info.Set(data + kHead, infoSize);
    recording.Set(data + kHead + infoSize, size - kHead - infoSize);
    const std::vector<uint8_t> before = recording.Content();

    kx_mp4::RepairOptions options;
    options.info_path = info.Path();
    if ((data[0] & 2) == 0) options.composition_offsets = (data[0] & 1) != 0;
    options.in_place = true;
    options.keep_info = true;
    options.dry_run = true;
    const kx_mp4::RepairReport trial = Repair(recording.Path(), options);
    Require(recording.Content() == before);
    options.dry_run = false;
    const kx_mp4::RepairReport report = Repair(recording.Path(), options);
    Require(report.outcome == trial.outcome && report.reason == trial.reason);
    const std::vector<uint8_t> repaired = recording.Content();
    if (report.outcome == RepairOutcome::kFailed) {
        Require(repaired == before && !report.reason.empty());
        return 0;
    }
    Require(repaired.size() == report.output_bytes);
    FileWalk(repaired).CheckFinished();
    Require(Repair(recording.Path(), options).outcome != RepairOutcome::kFailed);
    Require(recording.Content() == repaired);
    return 0;
}
