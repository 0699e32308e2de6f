#ifndef KX_MP4_DURATIONATOM_H
#define KX_MP4_DURATIONATOM_H

#include <algorithm>

#include "Atom.h"
#include "Log.h"
#include "PlaceInFile.h"

namespace kx_mp4 {

/// The greatest 32-bit number for a duration that has no room in 32 bits. Headers of version 0 mean
/// "not known" by it (ISO/IEC 14496-12, 8.2.2.3).
constexpr int64_t AtMost32Bits(int64_t duration) {
    return std::min<int64_t>(duration, UINT32_MAX);
}

/// What 'mvhd', 'tkhd', 'elst' and 'mdhd' share: a full box whose times take 32 bits in version 0
/// and 64 bits in version 1, and whose duration can be rewritten in place.
///
/// Version 1 is written when it was asked for, and when a value needs it. In the fixed-header mode
/// the form stays the one that room was laid out for.
///
/// `Box` has `kSource`, its file in the log; `kNotWritten`, what it logs when it is to be rewritten
/// before it was written; and its list of fields in two halves: `PutHead(out, wide, values)` up to
/// the duration, `PutTail(out, wide, values)` behind it, where `Values` are those that vary.
template <class Box>
class DurationAtom : public LeafAtom<Box> {
public:
    using LeafAtom<Box>::LeafAtom;

    void SetUse64bitTime() { m_b64bitTime = true; }
    /// With `mode`, no value changes the size of the box.
    void SetFixedHeaderMode(bool mode) { m_fixedHeaderMode = mode; }
    /// In the box's ticks. A negative one is written modulo 2^32 in version 0.
    void SetDuration(int64_t nDuration) { m_nTotallDuration = nDuration; }

    /// Whether a value does not fit version 0.
    bool NeedsVersion1() const { return m_nTotallDuration > int64_t{UINT32_MAX}; }

    /// The box in version 1 (`wide`) or 0.
    template <class Out, class Values>
    static constexpr void Put(Out& out, bool wide, int64_t duration, const Values& values) {
        Box::PutHead(out, wide, values);
        PutTime(out, wide, duration);
        Box::PutTail(out, wide, values);
    }
    template <class Out>
    void Put(Out& out) const {
        Put(out, Is64bit(), WrittenDuration(), this->Self().m_values);
    }

    void Write() override {
        m_place.Mark(*this->m_pWriter);
        m_writtenWide = Is64bit();
        LeafAtom<Box>::Write();
    }
    /// Rewrites the duration in the file and leaves the writer behind it.
    void Update() {
        if (!m_place.IsKnown()) {
            LogError(Box::kNotWritten, Box::kSource, __LINE__, "Update");
            return;
        }
        // Whatever lies behind the box in the file keeps its place.
        m_b64bitTime = m_writtenWide;
        m_fixedHeaderMode = true;
        if (NeedsVersion1() && !m_writtenWide) WarnOfLongDuration();
        const uint32_t offset = CountBytes(
            [this](auto& out) { Box::PutHead(out, m_writtenWide, this->Self().m_values); });
        m_place.Rewrite(*this->m_pWriter, offset, [this](IBaseIO& writer) {
            PutTime(writer, m_writtenWide, WrittenDuration());
        });
    }

protected:
    bool Is64bit() const {
        return m_b64bitTime || (!m_fixedHeaderMode && this->Self().NeedsVersion1());
    }
    int64_t WrittenDuration() const {
        return Is64bit() ? m_nTotallDuration : AtMost32Bits(m_nTotallDuration);
    }

private:
    void WarnOfLongDuration() {
        if (m_longDurationLogged) return;
        m_longDurationLogged = true;
        LogWarn("a duration of %lld ticks has no room in the 32 bits reserved for it", Box::kSource,
                __LINE__, "Update", static_cast<long long>(m_nTotallDuration));
    }

    bool m_b64bitTime = false;
    bool m_fixedHeaderMode = false;
    bool m_writtenWide = false;
    bool m_longDurationLogged = false;
    int64_t m_nTotallDuration = 0;
    PlaceInFile m_place;
};

}  // namespace kx_mp4

#endif  // KX_MP4_DURATIONATOM_H
