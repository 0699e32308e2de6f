/// @file
/// The file that a repair makes beside the recording.
#ifndef KX_MP4_REPAIR_UNFINISHEDFILE_H
#define KX_MP4_REPAIR_UNFINISHEDFILE_H

#include <initializer_list>
#include <string>

#include "PosixFile.h"

namespace kx_mp4 {

/// A new file that grows under a name of its own, and is removed when it does not become complete.
class UnfinishedFile {
public:
    /// Named after `path`, with the permissions of `like`.
    UnfinishedFile(const std::string& path, const PosixFile& like)
        : m_target(path), m_folder(path), m_file(path, like, m_path) {}
    ~UnfinishedFile();
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;

    PosixFile& File() { return m_file; }
    /// Gives the file its name; what stands there is only replaced when `overwrite` is set.
    void BecomeComplete(bool overwrite);

private:
    const std::string m_target;
    ContainingFolder m_folder;
    std::string m_path;
    PosixFile m_file;
    bool m_complete = false;
};

/// Throws RepairRefused unless `path` is a name that is free, or with `overwrite` that of a file
/// that is none of the inputs.
void RefuseOutput(const std::string& path, std::initializer_list<const PosixFile*> inputs,
                  bool overwrite);

}  // namespace kx_mp4

#endif  // KX_MP4_REPAIR_UNFINISHEDFILE_H
