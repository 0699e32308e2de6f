#include "LiveIndex.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "Log.h"
#include "Rescale.h"

namespace kx_mp4 {
namespace {

constexpr const char* kSource = "src/LiveIndex";
/// An interval ends early here: memory is bounded whatever the timestamps do.
constexpr size_t kMostSamples = 65536;
/// And here: a sample begins at most 2 GiB behind the first one, as 'trun' has room for it.
constexpr int64_t kMostBytes = int64_t{1} << 30;
/// Where the byte lies that decides over a header.
constexpr int64_t kLowestSizeByte = 3;
constexpr uint64_t kLargePlaceholder = 1;

constexpr size_t IndexOf(LiveTrack track) {
    return static_cast<size_t>(track);
}

/// a - b, wrapping.
int64_t Difference(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

template <class Out>
void PutLargeMdatHeader(Out& out, uint32_t size) {
    out.WriteInt32(size);
    out.WriteTag("mdat");
    out.WriteInt64(kLargePlaceholder);
}

}  // namespace

void LiveIndex::Declare(LiveTrack track, bool configured, uint32_t timescale,
                        uint64_t frameDuration) {
    Track& state = m_tracks[IndexOf(track)];
    const bool isNew = !state.declared;
    state.declared = true;
    state.timescale = timescale;
    state.frameDuration = Low32(static_cast<int64_t>(frameDuration));
    if (configured && !state.configured) m_order.push_back(track);
    state.configured = state.configured || configured;
    if (isNew && m_begun && IsRunning()) {
        LogWarn(
            "a track is declared after the live index has begun, it will only be in the "
            "final index",
            kSource, __LINE__, "Declare");
    }
}

void LiveIndex::WriteHeader(IBaseIO& writer) {
    constexpr uint32_t kLargeSizeFollows = 1;
    Resume(writer, static_cast<int64_t>(writer.Ftell()));
    CBufferIO header;
    header.Init(&writer);
    header.WriteInt32(kFreeSize);
    header.WriteTag("free");
    PutLargeMdatHeader(header, kLargeSizeFollows);
    PutLargeMdatHeader(header, 0);
    header.Flush();
}

void LiveIndex::Resume(IBaseIO& writer, int64_t headerPosition) {
    m_writer = &writer;
    m_headerPosition = headerPosition;
    m_mdatPosition = MdatPosition();
    m_intervalEnd = m_mdatPosition + kMdatHeaderSize;
}

// Samples

void LiveIndex::AddSample(LiveTrack track, int64_t offset, uint32_t size, int64_t pts, int64_t dts,
                          bool sync) {
    if (!IsRunning() || (m_begun && m_pending[IndexOf(track)].trackId == 0)) return;
    try {
        Note(track, offset, size, pts, dts, sync);
    } catch (...) {
        GiveUp();
    }
}

void LiveIndex::Note(LiveTrack track, int64_t offset, uint32_t size, int64_t pts, int64_t dts,
                     bool sync) {
    Track& state = m_tracks[IndexOf(track)];
    FragmentTrack& pending = m_pending[IndexOf(track)];
    const auto compositionOffset = static_cast<int32_t>(Low32(Difference(pts, dts)));
    const uint32_t step = Low32(Difference(dts, state.last));
    pending.samples.push_back({offset, size, 0, compositionOffset, sync});
    const size_t samples = pending.samples.size();
    if (samples > 1) pending.samples[samples - 2].duration = step;
    if (state.started && dts >= state.last) state.lastStep = step;
    if (!state.started) state.start = dts;
    if (samples == 1) {
        pending.decodeTime = std::max<int64_t>(0, Difference(dts, state.start));
        state.intervalStart = dts;
        state.firstPts = pts;
    }
    state.started = true;
    state.last = dts;
    state.firstPts = std::min(state.firstPts, pts);
    m_intervalEnd = offset + size;
    ++m_pendingSamples;
}

bool LiveIndex::IsFull() const {
    return m_pendingSamples >= kMostSamples || m_intervalEnd - m_mdatPosition >= kMostBytes;
}

bool LiveIndex::WaitsForConfiguration() const {
    return !m_begun && std::any_of(m_tracks.begin(), m_tracks.end(), [](const Track& track) {
        return track.declared && !track.configured;
    });
}

bool LiveIndex::IsDue(LiveTrack track, int64_t dts) const {
    constexpr uint32_t kMillisecondsPerSecond = 1000;
    if (!IsRunning() || m_pendingSamples == 0) return false;
    if (IsFull()) return true;
    if (m_pending[IndexOf(track)].samples.empty() || WaitsForConfiguration()) return false;
    const Track& state = m_tracks[IndexOf(track)];
    return Difference(dts, state.intervalStart) >=
           Rescale(m_intervalMs, state.timescale, kMillisecondsPerSecond);
}

// The index of an interval

void LiveIndex::EndInterval(LiveTrack track, int64_t dts, const FillMovie& fill) {
    SettleLastDurations();
    std::vector<FragmentSample>& samples = m_pending[IndexOf(track)].samples;
    if (!samples.empty())
        samples.back().duration = Low32(Difference(dts, m_tracks[IndexOf(track)].last));
    WriteIndex(fill);
}

void LiveIndex::EndLastInterval(const FillMovie& fill) {
    if (!IsRunning() || m_pendingSamples == 0) return;
    SettleLastDurations();
    WriteIndex(fill);
}

/// Nobody knows when the sample comes that follows: it lasts as long as the one before did.
void LiveIndex::SettleLastDurations() {
    for (size_t i = 0; i < kTracks; ++i) {
        const Track& state = m_tracks[i];
        if (m_pending[i].samples.empty()) continue;
        m_pending[i].samples.back().duration =
            state.lastStep != 0 ? state.lastStep : state.frameDuration;
    }
    std::vector<FragmentSample>& counters = m_pending[IndexOf(LiveTrack::kTimecode)].samples;
    if (!counters.empty()) counters.back().duration = Low32(TimecodeDuration());
}

/// The counter lasts as long as the video; that is not known before the end.
int64_t LiveIndex::TimecodeDuration() const {
    const Track& video = m_tracks[IndexOf(LiveTrack::kVideo)];
    return Rescale(Difference(video.last, video.start),
                   m_tracks[IndexOf(LiveTrack::kTimecode)].timescale, video.timescale);
}

/// A failure of the output passes through; until the last byte is there, what was written is a
/// part of the open `mdat`.
void LiveIndex::WriteIndex(const FillMovie& fill) {
    CBufferIO index;
    index.Init(m_writer);
    try {
        MakeIndex(index, fill);
    } catch (...) {
        GiveUp();
        return;
    }
    const int64_t end = static_cast<int64_t>(m_writer->Ftell());
    index.Flush();
    CloseMdat(end);
    ForgetInterval();
}

uint64_t LiveIndex::IndexSize(const FillMovie& fill) const {
    CBufferIO index;
    index.Init(nullptr);
    LiveIndex(*this).MakeIndex(index, fill);
    return index.GetSize();
}

void LiveIndex::MakeIndex(CBufferIO& index, const FillMovie& fill) {
    if (!m_begun) MakeMovieBox(index, fill);
    CMp4MoofAtom moof(&index);
    moof.Set(++m_sequence, m_pending, m_mdatPosition + kMdatHeaderSize);
    moof.Write();
    PutLargeMdatHeader(index, 0);
}

void LiveIndex::MakeMovieBox(CBufferIO& index, const FillMovie& fill) {
    const Track& video = m_tracks[IndexOf(LiveTrack::kVideo)];
    CMp4MoovAtom movie(&index, false, nullptr);
    fill(movie, m_order);
    movie.SetForFragments(
        video.started ? std::max<int64_t>(0, Difference(video.firstPts, video.start)) : 0);
    movie.Write();
    BeginMovie();
}

/// Hands out the IDs in the order in which the movie box does.
void LiveIndex::BeginMovie() {
    int32_t id = 0;
    for (const LiveTrack track : m_order)
        m_pending[IndexOf(track)].trackId = ++id;
    m_begun = true;
}

void LiveIndex::SkipIndex(int64_t nextMdat) {
    if (!m_begun) BeginMovie();
    ++m_sequence;
    m_mdatPosition = nextMdat;
    m_intervalEnd = nextMdat + kMdatHeaderSize;
    ForgetInterval();
}

/// Closes the open `mdat` at `end`, where the index lies; the next one has been opened behind it.
void LiveIndex::CloseMdat(int64_t end) {
    const auto next = static_cast<int64_t>(m_writer->Ftell());
    m_writer->Seek(m_mdatPosition + kBoxHeaderSize, SEEK_SET);
    m_writer->WriteInt64(static_cast<uint64_t>(end - m_mdatPosition));
    m_writer->Seek(m_mdatPosition + kLowestSizeByte, SEEK_SET);
    m_writer->WriteInt8(1);
    m_writer->Seek(next, SEEK_SET);
    m_mdatPosition = next - kMdatHeaderSize;
    m_intervalEnd = next;
}

void LiveIndex::ForgetInterval() {
    for (FragmentTrack& track : m_pending)
        track.samples.clear();
    m_pendingSamples = 0;
}

void LiveIndex::GiveUp() {
    m_givenUp = true;
    ForgetInterval();
    LogWarn("no live index can be made any more, the recording goes on without it", kSource,
            __LINE__, "GiveUp");
}

void LiveIndex::Finish(int64_t movieBox) {
    const int64_t end = static_cast<int64_t>(m_writer->Ftell());
    const int64_t mdat = m_headerPosition + kBoxHeaderSize;
    m_writer->Seek(mdat + kBoxHeaderSize, SEEK_SET);
    m_writer->WriteInt64(static_cast<uint64_t>(movieBox - mdat));
    m_writer->Flush();
    m_writer->Seek(m_headerPosition + kLowestSizeByte, SEEK_SET);
    m_writer->WriteInt8(kBoxHeaderSize);
    m_writer->Seek(end, SEEK_SET);
}

}  // namespace kx_mp4
