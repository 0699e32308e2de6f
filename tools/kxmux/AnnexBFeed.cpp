#include "AnnexBFeed.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "ParameterSetKeeper.h"
#include "StreamRate.h"

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
        const auto kind = kx_mp4::KindOfParameterSet(codec, nal.data, nal.size);
        if (kind == kx_mp4::ParameterSetKind::kVps) CopyOnce(vps, nal);
        if (kind == kx_mp4::ParameterSetKind::kSps) CopyOnce(sps, nal);
        if (kind == kx_mp4::ParameterSetKind::kPps) CopyOnce(pps, nal);
    }
}

bool ParameterSetCopies::Complete(mp4_video_codec codec) const {
    return !sps.empty() && !pps.empty() && (codec == MP4_MVC_H264 || !vps.empty());
}

bool FrameOrderer::Next(Frame& frame) {
    OrderedTimes times;
    while (!m_order.Pop(&times)) {
        if (m_failure) std::rethrow_exception(std::exchange(m_failure, nullptr));
        if (m_ended) return false;
        ReadOrEnd();
    }
    std::swap(frame, m_held.front());
    frame.times = times;
    m_held.pop_front();
    return true;
}

/// Reads one picture. At the end of the input, whatever ends it, the frames that are held become
/// ready.
void FrameOrderer::ReadOrEnd() {
    try {
        if (ReadPicture()) return;
    } catch (const StreamError&) {
        m_failure = std::current_exception();
    } catch (const Interrupted&) {
        m_failure = std::current_exception();
    }
    m_ended = true;
    if (m_order.Finish() || m_failure) return;
    m_failure = std::make_exception_ptr(StreamError(m_order.Error()));
}

/// Reads one picture and gives it to the order; false at the end of the input.
bool FrameOrderer::ReadPicture() {
    if (!ReadDecodable()) {
        if (m_cutter.IsCutOff()) throw StreamError("cut off before its picture");
        return false;
    }
    const PictureInfo info = ReadInfo();
    m_maxReorder = std::max(m_maxReorder, info.max_reorder);
    if (!m_order.Push(info)) throw StreamError(m_order.Error());
    if (info.second_field && !m_held.empty()) {
        m_held.back().unit.Append(m_unit);
    } else {
        m_held.push_back({std::move(m_unit), {}, info.width, info.height});
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

AnnexBFeed::AnnexBFeed(const VideoOptions& options, Input& input)
    : VideoFeed(options), m_input(input), m_frames(options.codec, input) {
    RequireFirst("no picture with its parameter sets in the stream");
    ReadParameterSets();
    m_usesOrder = NeedsOrder();
    if (m_usesOrder && Options().compositionOffsets)
        m_delay = (m_frame.times.pts - m_frame.times.dts) * TicksPerFrame();
}

bool AnnexBFeed::ReadFrame() {
    if (!m_frames.Next(m_frame)) return false;
    NoteSize(m_frame.times.dts, m_frame.width, m_frame.height);
    return true;
}

void AnnexBFeed::ReadParameterSets() {
    const ParameterSetCopies& sets = m_frames.ParameterSets();
    const bool isHevc = Options().codec == MP4_MVC_HEVC;
    SetRate(isHevc ? HevcFrameRate(sets.vps, sets.sps) : H264FrameRate(sets.sps));
    SetSize(m_frame.width, m_frame.height);
}

/// Whether frames get the presentation times of their order. Not so where the stream is allowed to
/// reorder and never does: it needs no delay then. One that can be read twice is read ahead up to
/// the first frame that is reordered; a pipe is taken at its word.
bool AnnexBFeed::NeedsOrder() const {
    const bool delayed = m_frames.MaxReorder() > 0;
    if (!delayed || m_frames.IsReordered() || !m_input.CanReopen()) return true;
    try {
        InputSet set;
        FrameOrderer ahead(Options().codec, set.Open(Path()));
        FrameOrderer::Frame frame;
        while (!ahead.IsReordered() && ahead.Next(frame)) {
        }
        return ahead.IsReordered();
    } catch (const StreamError&) {
        // The recording itself will come to the fault and tell of it.
        return m_frames.IsReordered();
    }
}

mp4_status_t AnnexBFeed::Declare(FrameSink& sink) {
    // Whatever the first parameter sets say: later ones may allow reordering, and the muxer has to
    // be told before the first frame. Without reordering it makes no difference.
    const mp4_status_t status = sink.SetCompositionOffsets(Options().compositionOffsets);
    if (status != MP4_STATUS_SUCCESS) return status;
    mp4_video_track_info_t info = BaseInfo();
    const ParameterSetCopies& sets = m_frames.ParameterSets();
    if (!Options().deferred && info.codec == MP4_MVC_H264) {
        info.h264 = {sets.sps.data(), SizeOf(sets.sps), sets.pps.data(), SizeOf(sets.pps)};
    } else if (!Options().deferred) {
        info.hevc = {sets.sps.data(),  SizeOf(sets.sps), sets.pps.data(),
                     SizeOf(sets.pps), sets.vps.data(),  SizeOf(sets.vps)};
    }
    return sink.SetVideoTrack(&info);
}

mp4_status_t AnnexBFeed::Write(FrameSink& sink) const {
    const auto& bytes = m_frame.unit.Bytes();
    const uint64_t dts = Start() + m_frame.times.dts * TicksPerFrame();
    const uint64_t pts = m_usesOrder ? Start() + m_frame.times.pts * TicksPerFrame() : dts;
    return sink.WriteVideoFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), pts, dts);
}

std::string AnnexBFeed::Note() const {
    std::string note;
    const auto add = [&note](const std::string& text) {
        note += (note.empty() ? "" : "; ") + text;
    };
    if (m_frames.IsReordered()) {
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
