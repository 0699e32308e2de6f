/// @file
/// Cuts an Annex-B stream of H.264 or HEVC into access units, one coded picture each.
#ifndef KXMUX_ACCESSUNITCUTTER_H
#define KXMUX_ACCESSUNITCUTTER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "AnnexBReader.h"
#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// The NAL units of one coded picture (a frame, or a field of one) behind start codes, in the
/// order of the stream.
class AccessUnit {
public:
    /// The unit in Annex-B form, every start code four bytes.
    const std::vector<uint8_t>& Bytes() const { return m_bytes; }
    size_t NalCount() const { return m_nals.size(); }
    NalUnit Nal(size_t index) const {
        return {m_bytes.data() + m_nals[index].offset, m_nals[index].size};
    }

    void Clear();
    void Append(const NalUnit& nal);
    void Append(const AccessUnit& other);
    /// Moves the NAL units from `first` on to the end of another unit.
    void MoveTail(size_t first, AccessUnit& to);

private:
    struct Span {
        size_t offset;
        size_t size;
    };
    std::vector<uint8_t> m_bytes;
    std::vector<Span> m_nals;
};

/// What the order of NAL units says about where an access unit begins.
class PictureBoundary {
public:
    enum class Role {
        kDelimiter,  ///< the next picture is a new one
        kLead,       ///< belongs to the next picture when it stands after a picture's last slice
        kSlice,      ///< coded data of the picture
        kFollow,     ///< belongs to what stands before it
    };

    PictureBoundary() = default;
    virtual ~PictureBoundary() = default;
    PictureBoundary(const PictureBoundary&) = delete;
    PictureBoundary& operator=(const PictureBoundary&) = delete;

    virtual Role Classify(const NalUnit& nal) = 0;
    /// Whether the slice is the first of a new picture. Called once for each slice, in order;
    /// `afterDelimiter` says that a delimiter stands between it and the slice before.
    virtual bool StartsPicture(const NalUnit& slice, bool afterDelimiter) = 0;
};

/// The rules of ITU-T H.264, 7.4.1.2.3 and 7.4.1.2.4, or ITU-T H.265, 7.4.2.4.4.
std::unique_ptr<PictureBoundary> MakePictureBoundary(mp4_video_codec codec);

class AccessUnitCutter {
public:
    /// An access unit longer than this is refused.
    static constexpr size_t kMaxSize = AnnexBReader::kMaxNalSize;

    /// Borrows the source. The codec is #MP4_MVC_H264 or #MP4_MVC_HEVC.
    AccessUnitCutter(mp4_video_codec codec, ByteSource& source,
                     size_t pieceSize = size_t{256} << 10);

    /// Replaces the unit with the next access unit; false at the end of the input. Units without a
    /// coded picture at the end of the stream are dropped. Throws StreamError.
    bool Next(AccessUnit& unit);
    /// Whether the input ended within an access unit: behind its last picture stand units of the
    /// next one, or a start code alone.
    bool IsCutOff() const { return m_cutOff; }
    /// Bytes in front of the first start code.
    size_t SkippedBytes() const { return m_reader.SkippedBytes(); }

private:
    AnnexBReader m_reader;
    std::unique_ptr<PictureBoundary> m_boundary;
    AccessUnit m_next;
    bool m_nextHasPicture = false;
    bool m_cutOff = false;
};

}  // namespace kxmux

#endif  // KXMUX_ACCESSUNITCUTTER_H
