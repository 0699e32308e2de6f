/// @file
/// The file that a recording becomes: under which name, of which kind, and what may be replaced.
#ifndef KXMUX_OUTPUT_H
#define KXMUX_OUTPUT_H

#include <cstdint>
#include <optional>
#include <string>

#include "InputSet.h"
#include "kx_mp4/Mp4Muxer.h"

namespace kxmux {

/// How the bytes reach the output.
enum class OutputMode {
    kFile,       ///< the library's own file
    kCallbacks,  ///< callbacks over a plain file
    kBuffered,   ///< the library's buffered file, which is callbacks too
};

enum class Container { kMp4, kQuickTime };

struct OutputOptions {
    std::string path;
    std::optional<Container> container;  ///< Else by the extension: .mov and .qt, or any other.
    OutputMode mode = OutputMode::kFile;
    bool overwrite = false;
    bool repairInfo = true;
    /// Takes the bytes in place of a file. Then there is no repair info file either.
    mp4_file_io_func_t* callbacks = nullptr;
};

class Output {
public:
    explicit Output(OutputOptions options);

    const std::string& Path() const { return m_options.path; }
    bool IsQuickTime() const { return m_container == Container::kQuickTime; }
    /// Whether a repair info file is kept beside the output.
    bool HasRepairInfo() const { return m_repairInfo; }
    std::string RepairInfoPath() const { return m_options.path + ".info"; }

    /// Refuses, as RecordingError, a path that cannot become a recording, that is there already or
    /// that is one of the inputs.
    void Check(const InputSet& inputs);
    /// Whether it is a file by the library's own output.
    bool IsPlainFile() const {
        return m_options.mode == OutputMode::kFile && m_options.callbacks == nullptr && m_regular;
    }
    /// Removes what may be replaced, for one who makes files that are not there yet: names of
    /// segments are free anyway.
    void MakeFree(bool segments) const;
    /// Creates the file through the muxer. Throws RecordingError.
    void Create(CMp4Muxer& muxer, uint32_t flags);
    mp4_status_t Close(CMp4Muxer& muxer);
    /// Removes the file, in which nothing was recorded, and its repair info file; false when Create
    /// did not make it.
    bool Discard();
    /// What the user can do with a file that was not closed, as the end of a sentence.
    std::string RepairHint() const;

private:
    void CheckKind();
    void CheckFree() const;
    void Reserve();
    mp4_config_t Config(uint32_t flags) const;
    mp4_status_t CreateAliased(CMp4Muxer& muxer, mp4_config_t& config);

    OutputOptions m_options;
    Container m_container;
    std::wstring m_widePath;   // of the output; relative to m_folder with an alias
    std::wstring m_givenPath;  // what the muxer is told, by which it decides the kind
    std::string m_folder;      // of the output, when there is an alias; empty: the working folder
    bool m_aliased = false;    // m_givenPath is another name than the output's
    bool m_repairInfo;
    bool m_made = false;
    bool m_regular = true;  // or not there yet
};

}  // namespace kxmux

#endif  // KXMUX_OUTPUT_H
