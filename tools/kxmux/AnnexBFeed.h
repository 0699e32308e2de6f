/// @file
/// A raw stream of H.264 or HEVC as the video track.
#ifndef KXMUX_ANNEXBFEED_H
#define KXMUX_ANNEXBFEED_H

#include <deque>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "AccessUnitCutter.h"
#include "PictureOrder.h"
#include "VideoFeed.h"

namespace kxmux {

/// The first parameter sets of a stream.
struct ParameterSetCopies {
    std::vector<uint8_t> vps;  ///< HEVC only
    std::vector<uint8_t> sps;
    std::vector<uint8_t> pps;

    /// Copies what the unit holds and is not there yet.
    void Collect(mp4_video_codec codec, const AccessUnit& unit);
    bool Complete(mp4_video_codec codec) const;
};

/// Frames of a stream in decode order with their places in presentation order.
class FrameOrderer {
public:
    struct Frame {
        AccessUnit unit;
        OrderedTimes times;
        uint32_t width = 0;
        uint32_t height = 0;
    };

    /// Borrows the source.
    FrameOrderer(mp4_video_codec codec, ByteSource& source)
        : m_codec(codec), m_cutter(codec, source), m_reader(PictureOrderReader::Create(codec)) {}

    /// Replaces the frame by the next one; false at the end. Throws StreamError and Interrupted,
    /// after the frames that were complete before.
    bool Next(Frame& frame);
    /// The index of the picture that a StreamError of Next is about.
    uint64_t Index() const { return m_index; }
    const ParameterSetCopies& ParameterSets() const { return m_sets; }
    bool IsReordered() const { return m_order.IsReordered(); }
    /// The most frames that the stream says it reorders, as far as it was read.
    uint32_t MaxReorder() const { return m_maxReorder; }
    /// Pictures before the first complete parameter sets, which nobody can decode.
    uint64_t Dropped() const { return m_dropped; }
    size_t SkippedBytes() const { return m_cutter.SkippedBytes(); }

private:
    void ReadOrEnd();
    bool ReadPicture();
    bool ReadDecodable();
    PictureInfo ReadInfo();

    mp4_video_codec m_codec;
    AccessUnitCutter m_cutter;
    std::unique_ptr<PictureOrderReader> m_reader;
    PresentationOrder m_order;
    ParameterSetCopies m_sets;
    std::deque<Frame> m_held;  // whose times are not known yet
    AccessUnit m_unit;
    uint64_t m_index = 0;
    uint64_t m_dropped = 0;
    uint32_t m_maxReorder = 0;
    bool m_ended = false;
    std::exception_ptr m_failure;  // that ended it
};

class AnnexBFeed final : public VideoFeed {
public:
    AnnexBFeed(const VideoOptions& options, Input& input);

    mp4_status_t Declare(FrameSink& sink) override;
    mp4_status_t Write(FrameSink& sink) const override;
    std::string Note() const override;
    uint64_t ReorderDelay() const override { return m_delay; }

private:
    bool ReadFrame() override;
    uint64_t FrameToRead() const override { return m_frames.Index(); }
    bool NeedsOrder() const;
    void ReadParameterSets();

    const Input& m_input;
    FrameOrderer m_frames;
    FrameOrderer::Frame m_frame;
    bool m_usesOrder = true;
    uint64_t m_delay = 0;
};

}  // namespace kxmux

#endif  // KXMUX_ANNEXBFEED_H
