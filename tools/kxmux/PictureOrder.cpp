#include "PictureOrder.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace kxmux {
namespace {

constexpr int64_t kCountMax = std::numeric_limits<int32_t>::max();
constexpr int64_t kCountMin = std::numeric_limits<int32_t>::min();

bool IsInRange(int64_t count) {
    return count >= kCountMin && count <= kCountMax;
}

/// PicOrderCntMsb of a picture after one with these values: the nearest count that the low bits
/// can stand for (H.264 8.2.1.1, H.265 8.3.1).
int64_t MostSignificant(uint32_t lsb, uint32_t bits, int64_t previousMsb, int64_t previousLsb) {
    const int64_t modulus = int64_t{1} << bits;
    const int64_t difference = int64_t{lsb} - previousLsb;
    if (difference <= -modulus / 2) return previousMsb + modulus;
    if (difference > modulus / 2) return previousMsb - modulus;
    return previousMsb;
}

struct FieldCounts {
    int64_t top = 0;
    int64_t bottom = 0;
};

/// Picture order count of H.264, 8.2.1.
class H264OrderReader : public PictureOrderReader {
public:
    bool Add(const uint8_t* nal, size_t size) override {
        if (size == 0) return true;
        const uint8_t type = h264::NalUnitType(nal[0]);
        if (!m_sets.Add(nal, size)) {
            return Fail(type == h264::kNalSps ? "the sequence parameter set cannot be read"
                                              : "the picture parameter set cannot be read");
        }
        const bool slice =
            type == h264::kNalSlice || type == h264::kNalIdrSlice || type == h264::kNalPartitionA;
        if (!slice || m_slice) return true;
        h264::SliceHeader header;
        if (!h264::ParseSliceHeader(nal, size, m_sets, &header)) {
            return Fail("the slice header cannot be read or its parameter sets are missing");
        }
        if (header.redundant_pic_cnt == 0) m_slice = header;
        return true;
    }

    bool End(PictureInfo* info) override {
        if (!m_slice) return Fail("the access unit holds no picture");
        const h264::SliceHeader slice = *m_slice;
        m_slice.reset();
        const h264::Sps* sps = m_sets.FindSps(slice.sps_id);
        if (sps == nullptr) return Fail("the sequence parameter set is missing");
        FieldCounts counts;
        if (!Count(slice, *sps, &counts)) return false;
        if (!IsInRange(counts.top) || !IsInRange(counts.bottom)) {
            return Fail("the picture order count is out of range");
        }
        *info = {};
        info->order_count = OrderCount(slice, counts);
        info->starts_sequence = slice.IsIdr() || slice.resets_order;
        info->random_access = slice.IsIdr();
        info->second_field = IsSecondField(slice);
        info->first_field = slice.field_pic && !info->second_field;
        info->max_reorder = sps->MaxReorderFrames();
        info->width = sps->width;
        info->height = sps->height;
        m_firstField.reset();
        if (info->first_field) m_firstField = slice;
        return true;
    }

private:
    static int64_t OrderCount(const h264::SliceHeader& slice, const FieldCounts& counts) {
        if (slice.field_pic) return slice.bottom_field ? counts.bottom : counts.top;
        return std::min(counts.top, counts.bottom);
    }

    /// Complementary reference and non-reference field pairs, 3.30 and 3.31.
    bool IsSecondField(const h264::SliceHeader& slice) const {
        if (!m_firstField || !slice.field_pic || slice.IsIdr() || slice.resets_order) return false;
        const uint32_t frameNum = m_firstField->resets_order ? 0 : m_firstField->frame_num;
        return slice.bottom_field != m_firstField->bottom_field && slice.frame_num == frameNum &&
               slice.IsReference() == m_firstField->IsReference();
    }

    bool Count(const h264::SliceHeader& slice, const h264::Sps& sps, FieldCounts* counts) {
        if (sps.pic_order_cnt_type == 0) {
            *counts = CountType0(slice, sps);
            return true;
        }
        UpdateFrameNumOffset(slice, sps);
        if (!IsInRange(m_frameNumOffset)) return Fail("frame_num wraps too often");
        if (sps.pic_order_cnt_type == 2) {
            const int64_t frameNum = m_frameNumOffset + slice.frame_num;
            const int64_t count = 2 * frameNum - (slice.IsReference() ? 0 : 1);
            *counts = slice.IsIdr() ? FieldCounts{} : FieldCounts{count, count};
        } else if (!CountType1(slice, sps, counts)) {
            return false;
        }
        if (slice.resets_order) Reset(slice, counts);
        m_previousFrameNum = slice.resets_order ? 0 : slice.frame_num;
        if (slice.resets_order) m_frameNumOffset = 0;
        m_started = true;
        return true;
    }

    /// After memory_management_control_operation 5 the picture counts from itself.
    static void Reset(const h264::SliceHeader& slice, FieldCounts* counts) {
        const int64_t base = OrderCount(slice, *counts);
        counts->top = slice.field_pic ? 0 : counts->top - base;
        counts->bottom = slice.field_pic ? 0 : counts->bottom - base;
    }

    /// 8.2.1.1.
    FieldCounts CountType0(const h264::SliceHeader& slice, const h264::Sps& sps) {
        // A stream that does not begin with an IDR picture counts from its first picture.
        if (slice.IsIdr() || !m_started) {
            m_previousMsb = 0;
            m_previousLsb = slice.IsIdr() ? 0 : slice.pic_order_cnt_lsb;
        }
        m_started = true;
        const int64_t msb = MostSignificant(slice.pic_order_cnt_lsb, sps.log2_max_pic_order_cnt_lsb,
                                            m_previousMsb, m_previousLsb);
        FieldCounts counts;
        counts.top = msb + slice.pic_order_cnt_lsb;
        counts.bottom = counts.top + (slice.field_pic ? 0 : slice.delta_pic_order_cnt_bottom);
        if (slice.resets_order) Reset(slice, &counts);
        if (slice.IsReference()) {
            m_previousMsb = slice.resets_order ? 0 : msb;
            m_previousLsb = slice.pic_order_cnt_lsb;
            if (slice.resets_order) m_previousLsb = slice.bottom_field ? 0 : counts.top;
        }
        return counts;
    }

    /// FrameNumOffset of 8.2.1.2 and 8.2.1.3. A gap in frame_num wraps at most once, like the
    /// frames that 8.2.5.2 infers for it, and so needs no step of its own.
    void UpdateFrameNumOffset(const h264::SliceHeader& slice, const h264::Sps& sps) {
        if (slice.IsIdr() || !m_started) {
            m_frameNumOffset = 0;
        } else if (m_previousFrameNum > slice.frame_num) {
            m_frameNumOffset += int64_t{1} << sps.log2_max_frame_num;
        }
    }

    /// 8.2.1.2.
    bool CountType1(const h264::SliceHeader& slice, const h264::Sps& sps, FieldCounts* counts) {
        const auto cycle = static_cast<int64_t>(sps.offset_for_ref_frame.size());
        int64_t perCycle = 0;
        for (const int32_t offset : sps.offset_for_ref_frame)
            perCycle += offset;
        if (!IsInRange(perCycle)) return Fail("the picture order count's cycle is out of range");

        int64_t frameNum = cycle == 0 ? 0 : m_frameNumOffset + slice.frame_num;
        if (!slice.IsReference() && frameNum > 0) --frameNum;
        int64_t expected = 0;
        if (frameNum > 0) {
            expected = (frameNum - 1) / cycle * perCycle;
            const auto inCycle = (frameNum - 1) % cycle;
            for (int64_t i = 0; i <= inCycle; ++i) {
                expected += sps.offset_for_ref_frame[static_cast<size_t>(i)];
            }
        }
        if (!slice.IsReference()) expected += sps.offset_for_non_ref_pic;
        counts->top = expected + slice.delta_pic_order_cnt[0];
        counts->bottom = counts->top + sps.offset_for_top_to_bottom_field;
        if (!slice.field_pic) counts->bottom += slice.delta_pic_order_cnt[1];
        return true;
    }

    h264::ParameterSets m_sets;
    std::optional<h264::SliceHeader> m_slice;  // the first of the access unit that is being read
    std::optional<h264::SliceHeader> m_firstField;  // the picture before, when it may get a second
    int64_t m_previousMsb = 0;
    int64_t m_previousLsb = 0;
    int64_t m_frameNumOffset = 0;
    uint32_t m_previousFrameNum = 0;
    bool m_started = false;
};

/// Picture order count of HEVC, 8.3.1, with the random-access rules of 8.1.3.
class HevcOrderReader : public PictureOrderReader {
public:
    bool Add(const uint8_t* nal, size_t size) override {
        hevc::NalHeader unit;
        if (!hevc::ParseNalHeader(nal, size, &unit) || unit.layer_id != 0) return true;
        if (!m_sets.Add(nal, size)) {
            return Fail(unit.type == hevc::kNalSps ? "the sequence parameter set cannot be read"
                                                   : "the picture parameter set cannot be read");
        }
        if (unit.type == hevc::kNalEndOfSequence || unit.type == hevc::kNalEndOfBitstream) {
            m_atSequenceStart = true;
        }
        const bool slice = unit.type <= hevc::kNalRaslR ||
                           (unit.type >= hevc::kNalBlaWLp && unit.type <= hevc::kNalCra);
        if (!slice || m_slice) return true;
        hevc::SliceHeader header;
        if (!hevc::ParseSliceHeader(nal, size, m_sets, &header)) {
            return Fail("the slice header cannot be read or its parameter sets are missing");
        }
        if (!header.first_slice_segment_in_pic) {
            return Fail("the first slice segment of the picture is missing");
        }
        m_slice = header;
        m_startsSequence = m_atSequenceStart;
        m_atSequenceStart = false;
        return true;
    }

    bool End(PictureInfo* info) override {
        if (!m_slice) return Fail("the access unit holds no picture");
        const hevc::SliceHeader slice = *m_slice;
        m_slice.reset();
        const hevc::Sps* sps = m_sets.FindSps(slice.sps_id);
        if (sps == nullptr) return Fail("the sequence parameter set is missing");

        const hevc::NalHeader& nal = slice.nal;
        // NoRaslOutputFlag of 8.1.3.
        const bool starts = nal.IsIrap() && (nal.IsIdr() || nal.IsBla() || m_startsSequence);
        if (nal.IsIrap()) m_skipsRasl = starts;
        const int64_t count = Count(slice, *sps, starts);
        if (!IsInRange(count)) return Fail("the picture order count is out of range");
        *info = {};
        info->order_count = count;
        info->starts_sequence = starts;
        info->random_access = nal.IsIrap();
        info->shown = slice.pic_output && !(nal.IsRasl() && m_skipsRasl);
        info->max_reorder = sps->max_num_reorder_pics;
        info->width = sps->width;
        info->height = sps->height;
        return true;
    }

private:
    int64_t Count(const hevc::SliceHeader& slice, const hevc::Sps& sps, bool starts) {
        // A stream that does not begin with a random-access picture counts from its first picture.
        const bool anchor = starts || !m_started;
        const int64_t lsb = slice.pic_order_cnt_lsb;
        const int64_t msb =
            anchor ? 0
                   : MostSignificant(slice.pic_order_cnt_lsb, sps.log2_max_pic_order_cnt_lsb,
                                     m_previousMsb, m_previousLsb);
        const hevc::NalHeader& nal = slice.nal;
        const bool keeps =
            nal.temporal_id == 0 && !nal.IsLeading() && !nal.IsSubLayerNonReference();
        if (keeps || anchor) {
            m_previousMsb = msb;
            m_previousLsb = lsb;
        }
        m_started = true;
        return msb + lsb;
    }

    hevc::ParameterSets m_sets;
    std::optional<hevc::SliceHeader> m_slice;  // the first of the access unit that is being read
    int64_t m_previousMsb = 0;
    int64_t m_previousLsb = 0;
    bool m_started = false;
    bool m_atSequenceStart = true;  // of the next picture: nothing, or an end of sequence, before
    bool m_startsSequence = false;  // the same of the picture that is being read
    bool m_skipsRasl = false;       // of the last random-access picture
};

}  // namespace

std::unique_ptr<PictureOrderReader> PictureOrderReader::Create(mp4_video_codec codec) {
    if (codec == MP4_MVC_H264) return std::make_unique<H264OrderReader>();
    if (codec == MP4_MVC_HEVC) return std::make_unique<HevcOrderReader>();
    return nullptr;
}

bool PresentationOrder::Push(const PictureInfo& info) {
    if (!m_error.empty()) return false;
    if (info.second_field) {
        if (!m_open) return Fail(m_pushed, "a second field without a first one");
        PictureInfo& frame = m_frames.back().info;
        frame.order_count = std::min(frame.order_count, info.order_count);
        frame.shown = frame.shown || info.shown;
        return CloseOpenFrame();
    }
    if (!CloseOpenFrame()) return false;
    if (m_frames.size() == kMaxHeld) {
        return Fail(m_pushed - m_frames.size(),
                    "not presented within " + std::to_string(kMaxHeld) + " frames");
    }
    m_frames.push_back({info});
    ++m_pushed;
    m_open = true;
    return info.first_field || CloseOpenFrame();
}

bool PresentationOrder::Finish() {
    const bool closed = m_error.empty() && CloseOpenFrame();
    RankAll();
    return closed;
}

bool PresentationOrder::Pop(OrderedTimes* times) {
    if (m_frames.empty() || !m_frames.front().ranked) return false;
    times->dts = m_pushed - m_frames.size();
    times->pts = m_frames.front().rank + m_delay;
    m_frames.pop_front();
    return true;
}

/// Takes the last frame, which can get no further field, among the waiting ones.
bool PresentationOrder::CloseOpenFrame() {
    if (!m_open) return true;
    m_open = false;
    const uint64_t index = m_pushed - 1;
    const PictureInfo& info = m_frames.back().info;
    if (index == 0) m_delay = info.max_reorder;
    if (info.starts_sequence) {
        RankAll();
        m_lastOrderCount = std::numeric_limits<int64_t>::min();
    }
    if (info.order_count <= m_lastOrderCount && !info.shown) {
        Rank(index);
        return true;
    }
    if (!Admit(index, info)) return false;
    while (m_shownWaiting > info.max_reorder)
        RankFirst();
    return true;
}

bool PresentationOrder::Admit(uint64_t index, const PictureInfo& info) {
    const std::string count = "picture order count " + std::to_string(info.order_count);
    if (info.order_count < m_lastOrderCount) {
        return Fail(index, count + " comes later than the reordering of " +
                               std::to_string(info.max_reorder) + " frames that the stream allows");
    }
    if (info.order_count == m_lastOrderCount ||
        !m_waiting.emplace(info.order_count, index).second) {
        return Fail(index, count + " is there twice");
    }
    if (info.shown) ++m_shownWaiting;
    return true;
}

void PresentationOrder::RankFirst() {
    const auto first = m_waiting.begin();
    m_lastOrderCount = first->first;
    const uint64_t index = first->second;
    m_waiting.erase(first);
    if (FrameAt(index).info.shown) --m_shownWaiting;
    Rank(index);
}

void PresentationOrder::RankAll() {
    while (!m_waiting.empty())
        RankFirst();
}

void PresentationOrder::Rank(uint64_t index) {
    Frame& frame = FrameAt(index);
    frame.rank = m_ranked++;
    frame.ranked = true;
    if (frame.rank != index) m_reordered = true;
}

PresentationOrder::Frame& PresentationOrder::FrameAt(uint64_t index) {
    return m_frames[static_cast<size_t>(index - (m_pushed - m_frames.size()))];
}

bool PresentationOrder::Fail(uint64_t index, const std::string& reason) {
    m_error = "frame " + std::to_string(index) + ": " + reason;
    return false;
}

}  // namespace kxmux
