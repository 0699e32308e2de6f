/// @file
/// What a piece of code did to the files of a folder, in order: the material for every "what if it
/// had stopped here". The test program is linked so that the libraries' system calls come through
/// here.
#ifndef KX_MP4_TESTS_WRITE_LOG_H
#define KX_MP4_TESTS_WRITE_LOG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "movie_reader.h"

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

/// While it exists, operations on files below the folder are recorded. One at a time.
class WriteLog {
public:
    explicit WriteLog(const std::string& folder);
    ~WriteLog();
    WriteLog(const WriteLog&) = delete;
    WriteLog& operator=(const WriteLog&) = delete;

    /// Puts a mark between what came and what comes.
    void Mark();

    std::vector<FileOperation> operations;
};

void WriteWholeFile(const std::string& path, const Bytes& content);

#endif  // KX_MP4_TESTS_WRITE_LOG_H
