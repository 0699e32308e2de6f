#include "AnnexBFeed.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace kxmux {
namespace {

void CopyOnce(std::vector<uint8_t>& set, const NalUnit& nal) {
    // The muxer's description has 16 bits for the size of a set.
    constexpr size_t kMaxSize = std::numeric_limits<int16_t>::max();
    if (set.empty() && nal.size <= kMaxSize) set.assign(nal.data, nal.data + nal.size);
}

int16_t SizeOf(const std::vector<uint8_t>& set) {
    return static_cast<int16_t>(set.size());
}

}  // namespace

void ParameterSetCopies::Collect(mp4_video_codec codec, const AccessUnit& unit) {
    for (size_t i = 0; i < unit.NalCount(); ++i) {
        const NalUnit nal = unit.Nal(i);
        if (codec == MP4_MVC_H264) {
            const uint8_t type = h264::NalUnitType(nal.data[0]);
            if (type == h264::kNalSps) CopyOnce(sps, nal);
            if (type == h264::kNalPps) CopyOnce(pps, nal);
            continue;
        }
        hevc::NalHeader header;
        if (!hevc::ParseNalHeader(nal.data, nal.size, &header) || header.layer_id > 0) continue;
        if (header.type == hevc::kNalVps) CopyOnce(vps, nal);
        if (header.type == hevc::kNalSps) CopyOnce(sps, nal);
        if (header.type == hevc::kNalPps) CopyOnce(pps, nal);
    }
}

bool ParameterSetCopies::Complete(mp4_video_codec codec) const {
    return !sps.empty() && !pps.empty() && (codec == MP4_MVC_H264 || !vps.empty());
}

bool FrameOrderer::Next(Frame& frame) {
    while (!m_order.Pop(&frame.times)) {
        if (m_ended) return false;
        if (ReadPicture()) continue;
        m_ended = true;
        if (!m_order.Finish()) throw StreamError(m_order.Error());
    }
    std::swap(frame.unit, m_held.front());
    m_held.pop_front();
    return true;
}

/// Reads one picture and gives it to the order; false at the end of the input.
bool FrameOrderer::ReadPicture() {
    if (!ReadDecodable()) return false;
    const PictureInfo info = ReadInfo();
    m_maxReorder = std::max(m_maxReorder, info.max_reorder);
    if (!m_order.Push(info)) throw StreamError(m_order.Error());
    if (info.second_field && !m_held.empty()) {
        m_held.back().Append(m_unit);
    } else {
        m_held.push_back(std::move(m_unit));
        ++m_index;
    }
    return true;
}

/// Reads the next picture, without those in front of the first parameter sets.
bool FrameOrderer::ReadDecodable() {
    const bool hadSets = m_sets.Complete(m_codec);
    while (m_cutter.Next(m_unit)) {
        if (hadSets) return true;
        m_sets.Collect(m_codec, m_unit);
        if (m_sets.Complete(m_codec)) return true;
        ++m_dropped;
    }
    return false;
}

PictureInfo FrameOrderer::ReadInfo() {
    for (size_t i = 0; i < m_unit.NalCount(); ++i) {
        const NalUnit nal = m_unit.Nal(i);
        if (!m_reader->Add(nal.data, nal.size)) throw StreamError(m_reader->Error());
    }
    PictureInfo info;
    if (!m_reader->End(&info)) throw StreamError(m_reader->Error());
    return info;
}

AnnexBFeed::AnnexBFeed(const VideoOptions& options)
    : VideoFeed(options), m_source(options.path), m_frames(options.codec, m_source) {
    if (!Prepare()) {
        const bool any = m_frames.Dropped() > 0;
        throw Error(0, any ? "no parameter sets in the whole stream" : "no picture in the stream");
    }
    FindSize();
    m_reordered = FindReordering();
}

void AnnexBFeed::FindSize() {
    const auto& set = m_frames.ParameterSets().sps;
    uint32_t width = 0;
    uint32_t height = 0;
    h264::Sps h264Sps;
    hevc::Sps hevcSps;
    if (Options().codec == MP4_MVC_H264 && h264::ParseSps(set.data(), set.size(), &h264Sps)) {
        width = h264Sps.width;
        height = h264Sps.height;
    }
    if (Options().codec == MP4_MVC_HEVC && hevc::ParseSps(set.data(), set.size(), &hevcSps)) {
        width = hevcSps.width;
        height = hevcSps.height;
    }
    SetSize(width, height);
}

/// Whether any frame is presented in another place than it is decoded in. The muxer has to be told
/// before the first frame, so a stream that may reorder is read ahead up to the first frame that
/// is; an input that cannot be read twice is taken at its word.
bool AnnexBFeed::FindReordering() const {
    if (m_frames.IsReordered()) return true;
    if (m_frames.MaxReorder() == 0) return false;
    if (m_source.Size() == 0) return true;
    try {
        FileSource source(Path());
        FrameOrderer ahead(Options().codec, source);
        FrameOrderer::Frame frame;
        while (!ahead.IsReordered() && ahead.Next(frame)) {
        }
        return ahead.IsReordered();
    } catch (const StreamError&) {
        // The recording itself will come to the fault and tell of it.
        return m_frames.IsReordered();
    }
}

mp4_status_t AnnexBFeed::Declare(CMp4Muxer& muxer) {
    if (m_reordered && Options().compositionOffsets) {
        const mp4_status_t status = muxer.SetCompositionOffsets(true);
        if (status != MP4_STATUS_SUCCESS) return status;
    }
    mp4_video_track_info_t info = BaseInfo();
    const ParameterSetCopies& sets = m_frames.ParameterSets();
    if (!Options().deferred && info.codec == MP4_MVC_H264) {
        info.h264 = {sets.sps.data(), SizeOf(sets.sps), sets.pps.data(), SizeOf(sets.pps)};
    } else if (!Options().deferred) {
        info.hevc = {sets.sps.data(),  SizeOf(sets.sps), sets.pps.data(),
                     SizeOf(sets.pps), sets.vps.data(),  SizeOf(sets.vps)};
    }
    return muxer.SetVideoTrack(&info);
}

mp4_status_t AnnexBFeed::Write(CMp4Muxer& muxer) {
    const auto& bytes = m_frame.unit.Bytes();
    const uint64_t dts = m_frame.times.dts * TicksPerFrame();
    const uint64_t pts = m_reordered ? m_frame.times.pts * TicksPerFrame() : dts;
    const auto size = static_cast<uint32_t>(bytes.size());
    const mp4_status_t status = muxer.WriteVideoFrame(bytes.data(), size, pts, dts);
    if (status == MP4_STATUS_SUCCESS) CountFrame(bytes.size());
    return status;
}

std::string AnnexBFeed::Note() const {
    std::string note;
    const auto add = [&note](const std::string& text) {
        note += (note.empty() ? "" : "; ") + text;
    };
    if (m_reordered) {
        add(Options().compositionOffsets ? "frames are reordered, composition offsets written"
                                         : "frames are reordered, shown in decode order as asked");
    }
    if (m_frames.Dropped() > 0) {
        add(std::to_string(m_frames.Dropped()) +
            " pictures before the first parameter sets dropped");
    }
    if (m_frames.SkippedBytes() > 0) {
        add(std::to_string(m_frames.SkippedBytes()) + " bytes before the first start code skipped");
    }
    return note;
}

}  // namespace kxmux
