/// @file
/// Decode and presentation times of H.264 and HEVC streams, from the picture order count that the
/// stream itself carries.
///
/// A stream without a container has no times, only the order of decoding and, in each picture, a
/// count that grows in the order of output. Two steps make times of it:
///
///     access units --> PictureOrderReader --> PictureInfo --> PresentationOrder --> OrderedTimes
///     (decode order)   one per codec          one each         holds a few          decode order
#ifndef KXMUX_PICTUREORDER_H
#define KXMUX_PICTUREORDER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "H264Syntax.h"
#include "HevcSyntax.h"
#include "kx_mp4/kx_mp4.h"

namespace kxmux {

/// What orders one picture among the others.
struct PictureInfo {
    int64_t order_count = 0;  ///< PicOrderCnt; of a frame the lesser of its two fields'.
    /// Every picture before this one in decode order is presented before it: IDR pictures,
    /// memory_management_control_operation 5, random-access pictures that start a sequence.
    bool starts_sequence = false;
    /// Decoding can start here: IDR, for HEVC also CRA and BLA.
    bool random_access = false;
    /// A field; the picture that follows may be its second field.
    bool first_field = false;
    /// The second field of the picture before: the two make one frame, one sample of a file. The
    /// caller appends its access unit to the one before.
    bool second_field = false;
    /// A decoder that starts at the start of the stream outputs it. Not so: pic_output_flag 0,
    /// and RASL pictures after a CRA or BLA picture that starts a sequence.
    bool shown = true;
    /// The most frames that precede any frame in decode order and follow it in presentation order.
    uint32_t max_reorder = 0;
    uint32_t width = 0;   ///< Luma samples that are shown.
    uint32_t height = 0;  ///< Luma samples that are shown.
};

/// Reads the picture order count of one access unit after the other (ITU-T H.264 8.2.1, H.265
/// 8.3.1).
class PictureOrderReader {
public:
    /// Null for codecs other than H.264 and HEVC.
    static std::unique_ptr<PictureOrderReader> Create(mp4_video_codec codec);
    virtual ~PictureOrderReader() = default;
    PictureOrderReader(const PictureOrderReader&) = delete;
    PictureOrderReader& operator=(const PictureOrderReader&) = delete;

    /// Takes the next NAL unit, without start code, of the access unit that is being read: one
    /// coded picture (H.264: one frame or one field) with the parameter sets and other units
    /// before and after its slices. The bytes are read during the call only.
    /// @return False when the stream cannot be ordered; Error() then says why, as one phrase
    ///         without a final stop. The reader is of no further use.
    virtual bool Add(const uint8_t* nal, size_t size) = 0;
    /// Ends the access unit and tells what orders its picture. False as for Add.
    virtual bool End(PictureInfo* info) = 0;
    const std::string& Error() const { return m_error; }

protected:
    PictureOrderReader() = default;
    bool Fail(std::string reason) {
        m_error = std::move(reason);
        return false;
    }

private:
    std::string m_error;
};

/// Place of a frame in both orders. One unit is the duration of a frame, 1 / frame rate.
struct OrderedTimes {
    uint64_t dts = 0;  ///< Index in decode order.
    uint64_t pts = 0;  ///< Index in presentation order plus the stream's constant delay.
};

/// Ranks pictures in presentation order while the stream is still being read.
///
/// A picture's rank is known once as many pictures wait as the stream may reorder, or a new
/// sequence starts; until then it is held. The delay is the reordering that the first picture's
/// stream declares (its level's limit where it declares nothing), so pts is not less than dts
/// unless a later sequence declares more.
///
///     PresentationOrder order;
///     for each access unit: read info; if (!order.Push(info)) stop with order.Error();
///                           while (order.Pop(&times)) write the oldest frame that is held
///     if (!order.Finish()) stop; while (order.Pop(&times)) write the oldest frame that is held
class PresentationOrder {
public:
    /// Adds the next picture in decode order. A second field joins the frame before it.
    /// @return False when the pictures contradict what the stream declares; Error() then names the
    ///         frame, counted from 0 in decode order, and the reason in one line.
    bool Push(const PictureInfo& info);
    /// Ends the stream, also after a failure: the rank of every frame that was taken becomes known.
    bool Finish();
    /// Takes the times of the next frame in decode order; false when they are not known yet.
    bool Pop(OrderedTimes* times);

    /// Whether any frame so far is presented in another place than its decode order.
    bool IsReordered() const { return m_reordered; }
    /// Frames that are held: pushed, and not popped yet. At most kMaxHeld.
    size_t Held() const { return m_frames.size(); }
    const std::string& Error() const { return m_error; }

    /// A frame that has to wait longer than this is refused.
    static constexpr size_t kMaxHeld = 1024;

private:
    struct Frame {
        PictureInfo info;
        uint64_t rank = 0;
        bool ranked = false;
    };

    bool CloseOpenFrame();
    bool Admit(uint64_t index, const PictureInfo& info);
    void RankFirst();
    void RankAll();
    void Rank(uint64_t index);
    Frame& FrameAt(uint64_t index);
    bool Fail(uint64_t index, const std::string& reason);

    std::deque<Frame> m_frames;             // held, in decode order
    std::map<int64_t, uint64_t> m_waiting;  // order count -> index, of frames without rank
    uint32_t m_shownWaiting = 0;            // of them, those that are shown
    uint64_t m_pushed = 0;
    uint64_t m_ranked = 0;
    uint64_t m_delay = 0;
    // Of the frame that was ranked last; the least value at the start of a sequence.
    int64_t m_lastOrderCount = std::numeric_limits<int64_t>::min();
    bool m_open = false;  // the last frame is not among the waiting ones yet
    bool m_reordered = false;
    std::string m_error;
};

}  // namespace kxmux

#endif  // KXMUX_PICTUREORDER_H
