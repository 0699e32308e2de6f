/// @file
/// The live index: a recording that is playable at every moment.
#ifndef KX_MP4_LIVEINDEX_H
#define KX_MP4_LIVEINDEX_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "BaseIO.h"
#include "moof.h"
#include "moov.h"

namespace kx_mp4 {

/// The tracks of a recording by their kind.
enum class LiveTrack : size_t { kVideo, kAudio, kCaption, kTimecode };

/// Writes, every interval, the index of what was just written behind it.
///
///   | ftyp | free | mdat (open) s s s ...                            the first interval runs
///   | ftyp | free | mdat | moov | moof | mdat (open) s s s ...       it is indexed; the next runs
///   | ftyp | free | mdat | moov | moof | mdat | moof | mdat (open) | moov (whole)   Close, step 1
///   | ftyp | free | mdat ...................................... | moov              Close, step 2
///
/// An open `mdat` has size 0 and reaches to the end of the file, so that what is being appended is
/// part of it until it is whole. No header changes in more than one byte that counts:
///
/// | 00 00 00 00 mdat 00 .. 01 | samples ...   open, the 64-bit size behind the type has no meaning
/// | 00 00 00 00 mdat 00 .. n  | samples ...   still open
/// | 00 00 00 01 mdat 00 .. n  | samples ...   closed by its fourth byte
///
/// and so does the last step: the `free` box in front is 24 bytes long and hides the header that
/// the whole recording will have, until its size becomes 8.
///
/// | 00 00 00 18 free : 00 00 00 01 mdat 00 .. N | 00 00 00 01 mdat 00 .. n | samples ...
/// | 00 00 00 08 free | 00 00 00 01 mdat 00 .. N : ............................ samples ...
///
/// Memory is that of one interval. Not thread safe; used under the muxer's lock.
class LiveIndex {
public:
    static constexpr size_t kTracks = CMp4MoofAtom::kMaxTracks;
    /// Of the `free` box with the hidden header.
    static constexpr uint32_t kFreeSize = 24;
    /// Of every `mdat` header: size, type, 64-bit size.
    static constexpr uint32_t kMdatHeaderSize = 16;

    /// Declares these tracks, in this order, to an empty movie box, and gives it the metadata so
    /// far.
    using FillMovie =
        std::function<void(CMp4MoovAtom& movie, const std::vector<LiveTrack>& tracks)>;

    /// Everything as for a recording without a live index.
    void Reset() { *this = LiveIndex(); }
    /// Turns it on, or off with an interval of 0.
    void SetInterval(uint32_t milliseconds) { m_intervalMs = milliseconds; }
    bool IsOn() const { return m_intervalMs != 0; }

    /// A track is now declared; `configured` when its sample entry can be written. Ticks per second
    /// and, if known, the ticks that a sample lasts. Logs when it comes too late.
    void Declare(LiveTrack track, bool configured, uint32_t timescale, uint64_t frameDuration);

    /// Writes `free` and the first, open `mdat`. The writer is borrowed from here on.
    void WriteHeader(IBaseIO& writer);
    /// Takes up a header that lies at this position already.
    void Resume(IBaseIO& writer, int64_t headerPosition);
    /// Position of the first `mdat`.
    int64_t MdatPosition() const { return m_headerPosition + kFreeSize; }

    /// Takes note of a sample that is in the output. Never fails: without memory the live index
    /// ends, and says so.
    void AddSample(LiveTrack track, int64_t offset, uint32_t size, int64_t pts, int64_t dts,
                   bool sync);
    /// Whether the interval is over when this track's next sample has this decode time.
    bool IsDue(LiveTrack track, int64_t dts) const;
    /// Ends the interval before a sample of this track and decode time: writes its index and opens
    /// the next `mdat`.
    void EndInterval(LiveTrack track, int64_t dts, const FillMovie& fill);
    /// Bytes that the index of the interval takes, with the header of the next `mdat`.
    uint64_t IndexSize(const FillMovie& fill) const;
    /// The same for an index that lies in the file already, in front of the `mdat` at this
    /// position.
    void SkipIndex(int64_t nextMdat);
    /// The same when no sample follows.
    void EndLastInterval(const FillMovie& fill);
    /// Makes everything that was written up to `movieBox`, where the index of the whole recording
    /// lies, one `mdat`. Comes when that index is on the device.
    void Finish(int64_t movieBox);

private:
    struct Track {
        bool declared = false;
        bool configured = false;
        uint32_t timescale = 0;
        uint32_t frameDuration = 0;
        uint32_t lastStep = 0;
        bool started = false;
        int64_t start = 0;          // decode time of the first sample of all
        int64_t intervalStart = 0;  // of the first one of the interval
        int64_t last = 0;           // of the latest one
        int64_t firstPts = 0;       // the earliest one of the interval
    };

    bool IsRunning() const { return IsOn() && !m_givenUp; }
    bool IsFull() const;
    bool WaitsForConfiguration() const;
    void Note(LiveTrack track, int64_t offset, uint32_t size, int64_t pts, int64_t dts, bool sync);
    void SettleLastDurations();
    int64_t TimecodeDuration() const;
    void WriteIndex(const FillMovie& fill);
    void MakeIndex(CBufferIO& index, const FillMovie& fill);
    void MakeMovieBox(CBufferIO& index, const FillMovie& fill);
    void BeginMovie();
    void CloseMdat(int64_t end);
    void ForgetInterval();
    void GiveUp();

    IBaseIO* m_writer = nullptr;
    uint32_t m_intervalMs = 0;
    bool m_begun = false;
    bool m_givenUp = false;
    uint32_t m_sequence = 0;
    int64_t m_headerPosition = 0;
    int64_t m_mdatPosition = 0;  // of the open one
    int64_t m_intervalEnd = 0;   // of the samples so far
    size_t m_pendingSamples = 0;
    std::vector<LiveTrack> m_order;  // of the configured tracks
    std::array<Track, kTracks> m_tracks;
    std::array<FragmentTrack, kTracks> m_pending;
};

}  // namespace kx_mp4

#endif  // KX_MP4_LIVEINDEX_H
