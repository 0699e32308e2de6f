#ifndef KX_MP4_MOOF_H
#define KX_MP4_MOOF_H

#include <array>
#include <cstddef>
#include <vector>

#include "Atom.h"

namespace kx_mp4 {

/// What a fragment says of one sample.
struct FragmentSample {
    int64_t offset = 0;             ///< Position in the file.
    uint32_t size = 0;              ///< Bytes.
    uint32_t duration = 0;          ///< Ticks.
    int32_t compositionOffset = 0;  ///< Ticks.
    bool sync = true;
};

/// What a fragment says of one track. Without samples the track is left out.
struct FragmentTrack {
    int32_t trackId = 0;
    int64_t decodeTime = 0;  ///< Of the first sample, ticks from the track's beginning.
    std::vector<FragmentSample> samples;
};

}  // namespace kx_mp4

/// Movie Fragment Header Box, 'mfhd' - ISO/IEC 14496-12, 8.8.5 - inside 'moof' - constant
///
/// | offset | bytes | field                                      |
/// | 12     | 4     | number of the fragment in the file, from 1 |
class CMp4MfhdAtom : public kx_mp4::ConstantAtom<CMp4MfhdAtom> {
public:
    using ConstantAtom::ConstantAtom;

    void SetSequenceNumber(uint32_t number) { m_number = number; }

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_number);
    }
    template <class Out>
    static constexpr void Put(Out& out, uint32_t number) {
        out.WriteInt32(kSize);
        out.WriteTag("mfhd");
        out.WriteInt32(0);
        out.WriteInt32(number);
    }

    static constexpr uint32_t kSize = 16;

private:
    uint32_t m_number = 1;
};
static_assert(kx_mp4::SizeOf<CMp4MfhdAtom>(0U) == CMp4MfhdAtom::kSize);

/// Track Fragment Header Box, 'tfhd' - ISO/IEC 14496-12, 8.8.7 - inside 'traf' - constant
///
/// | offset | bytes | field                                                               |
/// | 9      | 3     | flags: 1 base data offset present                                   |
/// | 12     | 4     | track ID                                                            |
/// | 16     | 8     | base data offset: position in the file that offsets are counted from |
class CMp4TfhdAtom : public kx_mp4::ConstantAtom<CMp4TfhdAtom> {
public:
    using ConstantAtom::ConstantAtom;

    void Set(int32_t trackId, int64_t baseDataOffset) {
        m_trackId = trackId;
        m_baseDataOffset = baseDataOffset;
    }

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_trackId, m_baseDataOffset);
    }
    template <class Out>
    static constexpr void Put(Out& out, int32_t trackId, int64_t baseDataOffset) {
        constexpr uint32_t kBaseDataOffsetPresent = 0x000001;
        out.WriteInt32(kSize);
        out.WriteTag("tfhd");
        out.WriteInt32(kBaseDataOffsetPresent);
        out.WriteInt32(kx_mp4::Low32(trackId));
        out.WriteInt64(static_cast<uint64_t>(baseDataOffset));
    }

    static constexpr uint32_t kSize = 24;

private:
    int32_t m_trackId = 0;
    int64_t m_baseDataOffset = 0;
};
static_assert(kx_mp4::SizeOf<CMp4TfhdAtom>(0, 0) == CMp4TfhdAtom::kSize);

/// Track Fragment Decode Time Box, 'tfdt' - ISO/IEC 14496-12, 8.8.12 - inside 'traf' - constant
///
/// | offset | bytes | field                                                            |
/// | 8      | 1     | version: 1                                                       |
/// | 12     | 8     | decode time of the first sample from the track's beginning, ticks |
class CMp4TfdtAtom : public kx_mp4::ConstantAtom<CMp4TfdtAtom> {
public:
    using ConstantAtom::ConstantAtom;

    void SetDecodeTime(int64_t time) { m_time = time; }

    template <class Out>
    void Put(Out& out) const {
        Put(out, m_time);
    }
    template <class Out>
    static constexpr void Put(Out& out, int64_t time) {
        constexpr uint32_t kVersion1 = 0x01000000;
        out.WriteInt32(kSize);
        out.WriteTag("tfdt");
        out.WriteInt32(kVersion1);
        out.WriteInt64(static_cast<uint64_t>(time));
    }

    static constexpr uint32_t kSize = 20;

private:
    int64_t m_time = 0;
};
static_assert(kx_mp4::SizeOf<CMp4TfdtAtom>(0) == CMp4TfdtAtom::kSize);

/// Track Run Box, 'trun' - ISO/IEC 14496-12, 8.8.8 - inside 'traf' - constant
///
/// | offset | bytes | field                                                                     |
/// | 8      | 1     | version: 1, composition offsets are signed                                |
/// | 9      | 3     | flags: 1 data offset, 0x100 durations, 0x200 sizes, 0x400 flags,          |
/// |        |       | 0x800 composition offsets                                                 |
/// | 12     | 4     | sample count                                                              |
/// | 16     | 4     | data offset: the first sample's position from the base data offset        |
/// | 20     | 16 n  | entries: duration, size, flags, composition offset                        |
///
/// The flags of a sample: 0x02000000 of a sync sample, which depends on no other; 0x01010000 of
/// every other, which does. The samples of a run lie one behind the other in the file.
class CMp4TrunAtom : public kx_mp4::ConstantAtom<CMp4TrunAtom> {
public:
    using ConstantAtom::ConstantAtom;

    /// The samples [begin, end), borrowed until Write, and the base that their offsets count from.
    void Set(const kx_mp4::FragmentSample* begin, const kx_mp4::FragmentSample* end,
             int64_t baseDataOffset) {
        m_begin = begin;
        m_end = end;
        m_base = baseDataOffset;
    }

    template <class Out>
    void Put(Out& out) const {
        constexpr uint32_t kHeaderSize = 20;
        constexpr uint32_t kEntrySize = 16;
        constexpr uint32_t kVersion1AllFields = 0x01000F01;
        constexpr uint32_t kSyncSample = 0x02000000;
        constexpr uint32_t kDependentSample = 0x01010000;
        const auto count = static_cast<uint32_t>(m_end - m_begin);
        out.WriteInt32(kHeaderSize + kEntrySize * count);
        out.WriteTag("trun");
        out.WriteInt32(kVersion1AllFields);
        out.WriteInt32(count);
        out.WriteInt32(kx_mp4::Low32(m_begin->offset - m_base));
        for (const kx_mp4::FragmentSample* sample = m_begin; sample != m_end; ++sample) {
            out.WriteInt32(sample->duration);
            out.WriteInt32(sample->size);
            out.WriteInt32(sample->sync ? kSyncSample : kDependentSample);
            out.WriteInt32(static_cast<uint32_t>(sample->compositionOffset));
        }
    }

private:
    const kx_mp4::FragmentSample* m_begin = nullptr;
    const kx_mp4::FragmentSample* m_end = nullptr;
    int64_t m_base = 0;
};

/// Track Fragment Box, 'traf' - ISO/IEC 14496-12, 8.8.6 - inside 'moof' - container of 'tfhd',
/// 'tfdt' and a 'trun' for every stretch of the file that holds nothing but this track
class CMp4TrafAtom : public kx_mp4::ContainerAtom<CMp4TrafAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "traf";

    explicit CMp4TrafAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_tfhd(pWriter), m_tfdt(pWriter), m_trun(pWriter) {}

    /// A track with samples, borrowed until Write. All begin less than 2 GiB behind the base.
    void Set(const kx_mp4::FragmentTrack& track, int64_t baseDataOffset);

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_tfhd);
        visit(m_tfdt);
        const kx_mp4::FragmentSample* const end = m_samples->data() + m_samples->size();
        for (const kx_mp4::FragmentSample* run = m_samples->data(); run != end;) {
            const kx_mp4::FragmentSample* const next = EndOfRun(run, end);
            m_trun.Set(run, next, m_base);
            visit(m_trun);
            run = next;
        }
    }

private:
    static const kx_mp4::FragmentSample* EndOfRun(const kx_mp4::FragmentSample* begin,
                                                  const kx_mp4::FragmentSample* end);

    CMp4TfhdAtom m_tfhd;
    CMp4TfdtAtom m_tfdt;
    CMp4TrunAtom m_trun;
    const std::vector<kx_mp4::FragmentSample>* m_samples = nullptr;
    int64_t m_base = 0;
};

/// Movie Fragment Box, 'moof' - ISO/IEC 14496-12, 8.8.4 - in the file, behind the samples that it
/// lists - container of 'mfhd' and a 'traf' for every track that has some of them
class CMp4MoofAtom : public kx_mp4::ContainerAtom<CMp4MoofAtom> {
public:
    static constexpr kx_mp4::FourCC kType = "moof";
    static constexpr size_t kMaxTracks = 4;

    explicit CMp4MoofAtom(IBaseIO* pWriter)
        : ContainerAtom(pWriter), m_mfhd(pWriter), m_traf(pWriter) {}

    /// The tracks are borrowed until Write.
    void Set(uint32_t number, const std::array<kx_mp4::FragmentTrack, kMaxTracks>& tracks,
             int64_t baseDataOffset) {
        m_mfhd.SetSequenceNumber(number);
        m_tracks = &tracks;
        m_base = baseDataOffset;
    }

    template <class F>
    void ForEachChild(F&& visit) {
        visit(m_mfhd);
        if (m_tracks == nullptr) return;
        for (const kx_mp4::FragmentTrack& track : *m_tracks) {
            if (track.trackId == 0 || track.samples.empty()) continue;
            m_traf.Set(track, m_base);
            visit(m_traf);
        }
    }

private:
    CMp4MfhdAtom m_mfhd;
    CMp4TrafAtom m_traf;
    const std::array<kx_mp4::FragmentTrack, kMaxTracks>* m_tracks = nullptr;
    int64_t m_base = 0;
};

#endif  // KX_MP4_MOOF_H
