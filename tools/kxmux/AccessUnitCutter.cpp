#include "AccessUnitCutter.h"

#include <optional>
#include <string>
#include <utility>

#include "H264Syntax.h"
#include "HevcSyntax.h"

namespace h264 = kx_mp4::h264;
namespace hevc = kx_mp4::hevc;

namespace kxmux {

namespace {

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr size_t kSmallestSlice = 3;  // NAL header and slice header

class H264Boundary : public PictureBoundary {
public:
    Role Classify(const NalUnit& nal) override {
        switch (h264::NalUnitType(nal.data[0])) {
            case h264::kNalSlice:
            case h264::kNalPartitionA:
            case h264::kNalIdrSlice:
                return Role::kSlice;
            case h264::kNalAccessUnitDelimiter:
                return Role::kDelimiter;
            case h264::kNalSps:
            case h264::kNalPps:
                m_sets.Add(nal.data, nal.size);
                return Role::kLead;
            case h264::kNalSei:
            case 14:
            case 15:
            case 16:
            case 17:
            case 18:
                return Role::kLead;
            default:
                return Role::kFollow;
        }
    }

    bool StartsPicture(const NalUnit& nal, bool afterDelimiter) override {
        h264::SliceHeader slice;
        if (!h264::ParseSliceHeader(nal.data, nal.size, m_sets, &slice)) {
            return StartsUnknown(nal, afterDelimiter);
        }
        if (slice.redundant_pic_cnt > 0 && m_last) return false;
        const bool first = slice.first_mb_in_slice == 0;
        // A second slice that begins the picture begins another one, whatever its header says:
        // not every encoder changes idr_pic_id from one IDR picture to the next.
        const bool isNew = !m_last || afterDelimiter || h264::StartsNewPicture(*m_last, slice) ||
                           (first && m_sawFirst);
        m_sawFirst = first || (!isNew && m_sawFirst);
        if (isNew) m_last = slice;
        return isNew;
    }

private:
    /// Without parameter sets only first_mb_in_slice can be read: the leading ue(v), 0 is one bit.
    bool StartsUnknown(const NalUnit& nal, bool afterDelimiter) {
        m_last.reset();
        return afterDelimiter || (nal.size > 1 && (nal.data[1] & 0x80) != 0);
    }

    h264::ParameterSets m_sets;
    std::optional<h264::SliceHeader> m_last;  // of the picture's first slice
    bool m_sawFirst = false;                  // the slice that begins at the first macroblock
};

class HevcBoundary : public PictureBoundary {
public:
    Role Classify(const NalUnit& nal) override {
        hevc::NalHeader header;
        if (!hevc::ParseNalHeader(nal.data, nal.size, &header)) return Role::kFollow;
        // Pictures of other layers belong to the access unit of the base layer's.
        if (header.layer_id > 0) return Role::kFollow;
        if (header.IsSlice()) return Role::kSlice;
        if (header.type == hevc::kNalAccessUnitDelimiter) return Role::kDelimiter;
        const bool parameterSet = header.type <= hevc::kNalPps;
        const bool reserved =
            (header.type >= 41 && header.type <= 44) || (header.type >= 48 && header.type <= 55);
        const bool leads = parameterSet || reserved || header.type == hevc::kNalPrefixSei;
        return leads ? Role::kLead : Role::kFollow;
    }

    bool StartsPicture(const NalUnit& nal, bool afterDelimiter) override {
        const bool firstSegmentOfPicture = nal.size > 2 && (nal.data[2] & 0x80) != 0;
        return afterDelimiter || firstSegmentOfPicture;
    }
};

}  // namespace

void AccessUnit::Clear() {
    m_bytes.clear();
    m_nals.clear();
}

void AccessUnit::Append(const NalUnit& nal) {
    m_bytes.insert(m_bytes.end(), std::begin(kStartCode), std::end(kStartCode));
    m_nals.push_back({m_bytes.size(), nal.size});
    m_bytes.insert(m_bytes.end(), nal.data, nal.data + nal.size);
}

void AccessUnit::Append(const AccessUnit& other) {
    for (size_t i = 0; i < other.NalCount(); ++i) {
        Append(other.Nal(i));
    }
}

void AccessUnit::MoveTail(size_t first, AccessUnit& to) {
    if (first >= m_nals.size()) return;
    const size_t keep = m_nals[first].offset - sizeof kStartCode;
    for (size_t i = first; i < m_nals.size(); ++i) {
        to.Append(Nal(i));
    }
    m_bytes.resize(keep);
    m_nals.resize(first);
}

std::unique_ptr<PictureBoundary> MakePictureBoundary(mp4_video_codec codec) {
    if (codec == MP4_MVC_HEVC) return std::make_unique<HevcBoundary>();
    return std::make_unique<H264Boundary>();
}

AccessUnitCutter::AccessUnitCutter(mp4_video_codec codec, ByteSource& source, size_t pieceSize)
    : m_reader(source, pieceSize), m_boundary(MakePictureBoundary(codec)) {}

bool AccessUnitCutter::Next(AccessUnit& unit) {
    unit.Clear();
    std::swap(unit, m_next);
    bool hasPicture = std::exchange(m_nextHasPicture, false);
    bool afterDelimiter = false;
    bool tooShort = false;        // the last unit is the beginning of a slice
    std::optional<size_t> split;  // the unit that the next access unit begins with, if one follows
    NalUnit nal;
    while (m_reader.Next(nal)) {
        const auto role = m_boundary->Classify(nal);
        const bool isSlice = role == PictureBoundary::Role::kSlice;
        tooShort = isSlice && nal.size < kSmallestSlice;
        if (tooShort) continue;
        if (isSlice) {
            const bool isNew = m_boundary->StartsPicture(nal, std::exchange(afterDelimiter, false));
            if (isNew && hasPicture) {
                if (split) unit.MoveTail(*split, m_next);
                m_next.Append(nal);
                m_nextHasPicture = true;
                return true;
            }
            hasPicture = true;
            split.reset();
        } else if (role != PictureBoundary::Role::kFollow && hasPicture && !split) {
            split = unit.NalCount();
        }
        afterDelimiter = afterDelimiter || role == PictureBoundary::Role::kDelimiter;
        unit.Append(nal);
        if (unit.Bytes().size() > kMaxSize) {
            throw StreamError("longer than " + std::to_string(kMaxSize >> 20) + " MiB");
        }
    }
    const bool unitsOfNext = split || (!hasPicture && unit.NalCount() > 0);
    m_cutOff = m_cutOff || unitsOfNext || tooShort || m_reader.EndsInStartCode();
    return hasPicture;
}

}  // namespace kxmux
