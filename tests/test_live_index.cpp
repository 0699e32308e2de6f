// The live index: what a reader finds at every byte of every write, and what Close leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <tuple>

#include "Movie.h"
#include "golden_text.h"
#include "log_capture.h"
#include "memory_output.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

namespace movie = kx_mp4::movie;

constexpr uint32_t kIntervalMs = 100;
constexpr uint32_t kPictureTicks = 3000;  // of 90 kHz
using Counts = std::map<std::string, size_t>;
using SamplesByHandler = std::map<std::string, std::vector<Sample>>;

/// One write, and the samples that the calls before had handed over.
struct LoggedWrite {
    uint64_t position = 0;
    Bytes bytes;
    Counts handed;
};

/// The one byte that closes a header is what makes an interval finished.
bool IsClosing(const LoggedWrite& write) {
    return write.bytes == Bytes{1};
}

struct Scenario {
    const char* name;
    const wchar_t* path;
    streams::Recipe recipe;
    uint32_t flags = 0;
    bool reordered = false;
};

/// A file that is not copied.
class StateSource final : public movie::BoxSource {
public:
    explicit StateSource(const Bytes& bytes) : m_bytes(bytes) {}
    uint64_t Size() const override { return m_bytes.size(); }
    bool Read(uint64_t position, uint8_t* out, size_t size) const override {
        if (size > m_bytes.size() || position > m_bytes.size() - size) return false;
        std::copy_n(m_bytes.data() + position, size, out);
        return true;
    }

private:
    const Bytes& m_bytes;
};

SamplesByHandler SamplesOf(const Bytes& file) {
    const movie::Movie found = movie::ReadMovie(std::make_shared<StateSource>(file));
    SamplesByHandler samples;
    if (found.moov == nullptr) return samples;
    movie::VisitSamples(found, [&](size_t track, const Sample& sample) {
        samples[found.tracks[track].handler].push_back(sample);
    });
    return samples;
}

/// The metadata boxes of the last movie box.
std::string MetadataOf(const Bytes& file) {
    const movie::Movie found = movie::ReadMovie(std::make_shared<StateSource>(file));
    return found.moov->At("udta").Dump() + found.moov->At("meta").Dump();
}

/// Everything but the duration, which is a guess for the last sample of an interval.
auto Facts(const Sample& sample) {
    return std::tuple(sample.offset, sample.size, sample.dts, sample.cts, sample.sync);
}

std::vector<streams::Step> Frames(const Scenario& scenario, uint32_t pictures) {
    auto steps = streams::WriteEverything(pictures, scenario.recipe);
    uint64_t i = 0;
    for (streams::Step& step : steps) {
        if (!scenario.reordered || step.sample->handler != "vide") continue;
        step.run = [i](CMp4Muxer& muxer) {
            const Bytes picture = test_pattern::Picture(static_cast<uint32_t>(i));
            return muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                         (i + 2 - i % 3) * kPictureTicks, i * kPictureTicks);
        };
        ++i;
    }
    return steps;
}

/// A recording into memory with everything that reached the output.
struct Recorded {
    Recorded(const Scenario& scenario, uint32_t intervalMs, uint32_t pictures = 8) {
        output.onWrite = [this](uint64_t position, const uint8_t* bytes, uint32_t size) {
            writes.push_back({position, Bytes(bytes, bytes + size), handed});
        };
        CMp4Muxer muxer;
        mp4_config_t config = streams::CallbackConfig(scenario.flags, output.Functions());
        bool good =
            muxer.Create(scenario.path, &config) == MP4_STATUS_SUCCESS &&
            muxer.SetCompositionOffsets(scenario.reordered) == MP4_STATUS_SUCCESS &&
            muxer.SetLiveIndex(intervalMs) == MP4_STATUS_SUCCESS &&
            streams::Run(muxer, streams::SetUpEverything(scenario.recipe)) == MP4_STATUS_SUCCESS;
        for (const streams::Step& step : Frames(scenario, pictures)) {
            good = good && step.run(muxer) == MP4_STATUS_SUCCESS;
            ++handed[step.sample->handler];
        }
        EXPECT_TRUE(muxer.Close() == MP4_STATUS_SUCCESS && good) << scenario.name;
    }

    MemoryOutput output;
    std::vector<LoggedWrite> writes;
    Counts handed;
};

class LiveIndex : public testing::TestWithParam<Scenario> {};

TEST_P(LiveIndex, EveryByteOfEveryWriteLeavesAllFinishedIntervals) {
    const LogCapture log;
    const Recorded recorded(GetParam(), kIntervalMs);
    const SamplesByHandler whole = SamplesOf(recorded.output.Content());
    Counts finished;
    Bytes state;
    size_t intervals = 0;
    for (const LoggedWrite& write : recorded.writes) {
        for (size_t i = 0; i < write.bytes.size(); ++i) {
            const size_t at = write.position + i;
            if (at >= state.size()) state.resize(at + 1);
            state[at] = write.bytes[i];
            if (IsClosing(write)) {
                finished = write.handed;
                ++intervals;
                ASSERT_EQ(MetadataOf(state), MetadataOf(recorded.output.Content()));
            }
            const SamplesByHandler found = SamplesOf(state);
            for (const auto& [handler, count] : finished)
                ASSERT_TRUE(found.count(handler) == 1 && found.at(handler).size() >= count)
                    << handler << " at byte " << i << " of the write at " << write.position;
            for (const auto& [handler, samples] : found) {
                ASSERT_LE(samples.size(), whole.at(handler).size());
                for (size_t n = 0; n < samples.size(); ++n)
                    ASSERT_EQ(Facts(samples[n]), Facts(whole.at(handler)[n])) << handler << n;
            }
        }
    }
    EXPECT_EQ(state, recorded.output.Content());
    EXPECT_EQ(intervals, 3U);
    EXPECT_EQ(finished, recorded.handed) << "the last interval is indexed before the movie box";
    EXPECT_EQ(log.Complaints(), std::vector<std::string>{});
}

TEST_P(LiveIndex, TheClosedFileIsTheSameRecording) {
    const LogCapture log;
    const Recorded withIndex(GetParam(), kIntervalMs);
    const Recorded without(GetParam(), 0);
    const MovieReader live = withIndex.output.Movie();
    const MovieReader plain = without.output.Movie();
    EXPECT_EQ(live.File().ChildTypes(), "ftyp free mdat moov");
    ASSERT_EQ(live.Tracks().size(), plain.Tracks().size());
    for (size_t i = 0; i < live.Tracks().size(); ++i) {
        const Track& its = live.Tracks()[i];
        const Track& other = plain.Tracks()[i];
        for (const char* box : {"tkhd", "edts", "mdia/mdhd", "mdia/minf/stbl/stsd"})
            EXPECT_EQ(its.box->At(box).Dump(), other.box->At(box).Dump()) << its.handler;
        ASSERT_EQ(its.samples.size(), other.samples.size()) << its.handler;
        for (size_t n = 0; n < its.samples.size(); ++n) {
            const Sample& a = its.samples[n];
            const Sample& b = other.samples[n];
            EXPECT_EQ(std::tuple(a.dts, a.cts, a.duration, a.sync),
                      std::tuple(b.dts, b.cts, b.duration, b.sync));
            EXPECT_EQ(live.SampleBytes(a), plain.SampleBytes(b)) << its.handler << n;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, LiveIndex,
                         testing::Values(Scenario{"H264", L"a.mp4", {MP4_MVC_H264, false}, 0, true},
                                         Scenario{
                                             "HevcDeferred", L"a.mp4", {MP4_MVC_HEVC, true}, 0},
                                         Scenario{"ProResWide",
                                                  L"a.mov",
                                                  {MP4_MVC_PRORES, false},
                                                  MP4_FLAG_64BIT_SIZE | MP4_FLAG_64BIT_TIME}),
                         [](const auto& instance) { return instance.param.name; });

class LiveIndexCalls : public testing::Test {
protected:
    void Create(uint32_t flags = 0) {
        mp4_config_t config = streams::CallbackConfig(flags, m_output.Functions());
        ASSERT_EQ(m_muxer.Create(L"a.mp4", &config), MP4_STATUS_SUCCESS);
    }
    mp4_status_t Video(uint64_t i, uint32_t size = 7) {
        static const Bytes kPicture = Hex("00 00 00 01 65 88 84");
        return m_muxer.WriteVideoFrame(kPicture.data(), size, i * kPictureTicks, i * kPictureTicks);
    }

    LogCapture m_log;
    MemoryOutput m_output;
    CMp4Muxer m_muxer;
};

TEST_F(LiveIndexCalls, ATrackThatComesTooLateIsInTheFinalIndexOnly) {
    Create();
    ASSERT_EQ(m_muxer.SetLiveIndex(kIntervalMs), MP4_STATUS_SUCCESS);
    const auto video = streams::H264Track();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    const auto sound = streams::AacTrack();
    for (uint64_t i = 0; i < 20; ++i) {
        ASSERT_EQ(Video(i), MP4_STATUS_SUCCESS);
        if (i < 10) continue;
        if (i == 10) {
            ASSERT_EQ(m_muxer.SetAudioTrack(&sound), MP4_STATUS_SUCCESS);
        }
        ASSERT_EQ(m_muxer.WriteAudioFrame(Hex("2110").data(), 2, i * 1600), MP4_STATUS_SUCCESS);
    }
    const SamplesByHandler live = SamplesOf(m_output.Content());
    EXPECT_EQ(live.size(), 1U);
    EXPECT_EQ(live.at("vide").size(), 18U);
    EXPECT_EQ(m_log.Complaints().size(), 1U);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_output.Movie().TrackOf("soun").samples.size(), 10U);
}

// The movie box of the live index, and two fragments.
TEST_F(LiveIndexCalls, HasTheBoxesThatAreKept) {
    Create();
    ASSERT_EQ(m_muxer.SetCompositionOffsets(true), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetLiveIndex(kIntervalMs), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::Everything(7)), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    std::string text;
    for (const Box& box : movie.File().children)
        text += box.type == "mdat" ? "mdat " + std::to_string(box.size) + "\n" : box.Dump();
    ExpectKept("live_index", text);
}

TEST_F(LiveIndexCalls, AnIntervalWithoutEndIsCutByItsSamples) {
    // Times that stand still, and sound whose configuration never comes.
    Create();
    ASSERT_EQ(m_muxer.SetLiveIndex(1000), MP4_STATUS_SUCCESS);
    const auto video = streams::H264Track();
    const auto sound = streams::AdtsTrack();
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.SetAudioTrack(&sound), MP4_STATUS_SUCCESS);
    for (int i = 0; i < 65537; ++i)
        ASSERT_EQ(Video(0), MP4_STATUS_SUCCESS);
    EXPECT_EQ(SamplesOf(m_output.Content())["vide"].size(), 65536U);
}

TEST_F(LiveIndexCalls, PastFourGibibytes) {
    constexpr uint32_t kFrameSize = 0x30000000;
    constexpr uint64_t kFrames = 7;
    static const uint8_t kFrame[1] = {};  // the output drops these bytes unread
    m_output.dropFrom = kFrameSize;
    Create();
    ASSERT_EQ(m_muxer.SetLiveIndex(UINT32_MAX), MP4_STATUS_SUCCESS);
    const auto video = streams::ProResTrack(MP4_PRORES_422);
    ASSERT_EQ(m_muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    for (uint64_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(m_muxer.WriteVideoFrame(kFrame, kFrameSize, i, i), MP4_STATUS_SUCCESS);
    ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
    const MovieReader movie = m_output.Movie();
    EXPECT_EQ(movie.File().ChildTypes(), "ftyp free mdat moov");
    const auto& samples = movie.TrackOf("vide").samples;
    ASSERT_EQ(samples.size(), kFrames);
    EXPECT_EQ(samples[1].offset, samples[0].offset + kFrameSize);
    EXPECT_GT(samples[2].offset, samples[1].offset + kFrameSize) << "an index after 1 GiB";
    EXPECT_GT(samples[6].offset, uint64_t{UINT32_MAX});
}

TEST_F(LiveIndexCalls, AFailedWriteLeavesTheFinishedIntervals) {
    const Recorded whole({"", L"a.mp4", {}}, kIntervalMs);
    Counts finished;
    for (size_t failing = 1; failing <= whole.writes.size(); ++failing) {
        MemoryOutput output;
        output.failingWrite = static_cast<int>(failing);
        CMp4Muxer muxer;
        mp4_config_t config = streams::CallbackConfig(0, output.Functions());
        ASSERT_EQ(muxer.Create(L"a.mp4", &config), MP4_STATUS_SUCCESS);
        ASSERT_EQ(muxer.SetLiveIndex(kIntervalMs), MP4_STATUS_SUCCESS);
        const mp4_status_t ran = streams::Run(muxer, streams::Everything(8));
        EXPECT_TRUE(ran != MP4_STATUS_SUCCESS || muxer.Close() != MP4_STATUS_SUCCESS) << failing;
        SamplesByHandler found = SamplesOf(output.Content());
        for (const auto& [handler, count] : finished)
            EXPECT_GE(found[handler].size(), count) << handler << " at write " << failing;
        if (IsClosing(whole.writes[failing - 1])) finished = whole.writes[failing - 1].handed;
    }
}

}  // namespace
