/// @file
/// The command line of kxmux.
#ifndef KXMUX_ARGUMENTS_H
#define KXMUX_ARGUMENTS_H

#include <string>
#include <string_view>
#include <vector>

#include "Recording.h"

namespace CLI {
class App;
}

namespace kxmux {

/// "N" or "N/D", both from 1 to 2^31. False for anything else.
bool ParseFrameRate(std::string_view text, FrameRate* rate);
/// "WxH", both from 1 to 65535. False for anything else.
bool ParsePictureSize(std::string_view text, PictureSize* size);
/// A number with a unit: "60s", "500ms", "5m", "1h" as milliseconds, "500M", "2G", "64K" (powers of
/// 1024) as bytes; the other one is 0. False for anything else, and for 0.
bool ParseLimit(std::string_view text, uint64_t* milliseconds, uint64_t* bytes);

/// The arguments as they are given.
class Arguments {
public:
    /// Declares the options; the object must outlive the parsing.
    void AddTo(CLI::App& app);
    /// The recording that the arguments ask for. Throws CLI::ValidationError.
    RecordingOptions Options() const;

private:
    void AddInputs(CLI::App& app);
    void AddDescription(CLI::App& app);
    void AddPresentation(CLI::App& app);
    void AddOutput(CLI::App& app);
    VideoOptions Video() const;
    OutputOptions Output() const;
    LiveOptions Live() const;
    PresentationOptions Presentation() const;
    mp4_video_codec VideoCodec() const;

    std::string m_output;
    std::string m_format;
    std::string m_video;
    std::string m_audio;
    std::string m_captions;
    std::string m_fps;
    std::string m_size;
    std::string m_codec;
    std::string m_proresFormat;
    std::string m_timecode;
    std::vector<std::string> m_metadata;
    bool m_64bit = false;
    bool m_noRepair = false;
    bool m_overwrite = false;
    bool m_deferred = false;
    bool m_callbackIo = false;
    bool m_buffered = false;
    bool m_noCompositionOffsets = false;
    bool m_plain = false;
    bool m_strict = false;
    uint32_t m_priming = 0;
    uint32_t m_rotation = 0;
    double m_liveSeconds = 0;
    std::string m_segment;
    std::string m_queue;
    std::string m_onFull;
};

}  // namespace kxmux

#endif  // KXMUX_ARGUMENTS_H
