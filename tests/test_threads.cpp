// Frames of different tracks from different threads. These tests are also run under
// ThreadSanitizer; there a report is a failure.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

constexpr uint32_t kFrames = 300;

class Threads : public ::testing::Test {
protected:
    void Open(uint32_t flags, bool deferred) {
        auto config = streams::FileConfig(flags);
        ASSERT_EQ(m_muxer.Create(m_folder.Wide("out.mp4").c_str(), &config), MP4_STATUS_SUCCESS);
        const auto steps = deferred
                               ? streams::SetUpEverything(streams::Deferred(streams::H264Track()),
                                                          streams::AdtsTrack())
                               : streams::SetUpEverything();
        ASSERT_EQ(streams::Run(m_muxer, steps), MP4_STATUS_SUCCESS);
    }

    mp4_status_t Video(uint32_t i) {
        const Bytes picture = test_pattern::Picture(i);
        return m_muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()),
                                       uint64_t{i} * 3000, uint64_t{i} * 3000);
    }
    mp4_status_t Audio(uint32_t i) {
        const Bytes frame = test_pattern::AdtsSilence();
        return m_muxer.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                       uint64_t{i} * 1024);
    }
    mp4_status_t Caption(uint32_t i) {
        const auto low = static_cast<uint8_t>(i);
        const Bytes packet{0x61, 0x02, 1, 0xFC, static_cast<uint8_t>(i >> 8), low};
        return m_muxer.WriteSubtitleFrame(packet.data(), 6, uint64_t{i} * 33);
    }
    mp4_status_t Timecode(uint32_t i) { return m_muxer.WriteTimeCode(static_cast<int>(i)); }

    /// Writes frames 0 .. kFrames - 1 of each track from a thread of its own; each stops when the
    /// muxer answers that no file is open. Returns how many frames of each track were taken.
    template <class Meanwhile>
    std::vector<uint32_t> WriteFromFourThreads(Meanwhile&& meanwhile) {
        using Writer = mp4_status_t (Threads::*)(uint32_t);
        const Writer kWriters[] = {&Threads::Video, &Threads::Audio, &Threads::Caption,
                                   &Threads::Timecode};
        std::vector<uint32_t> taken(4);
        std::vector<std::thread> threads;
        for (size_t kind = 0; kind < 4; ++kind)
            threads.emplace_back([this, writer = kWriters[kind], &count = taken[kind]] {
                while (count < kFrames) {
                    const mp4_status_t status = (this->*writer)(count);
                    if (status == MP4_STATUS_FILE_NOT_OPEN) break;
                    EXPECT_EQ(status, MP4_STATUS_SUCCESS);
                    ++count;
                }
            });
        meanwhile();
        for (std::thread& thread : threads)
            thread.join();
        return taken;
    }

    void ExpectFile(const std::vector<uint32_t>& taken) {
        const MovieReader movie(ReadFile(m_folder.Path("out.mp4")));
        const std::string kHandlers[] = {"vide", "soun", "clcp", "tmcd"};
        uint64_t media = 0;
        for (size_t kind = 0; kind < 4; ++kind) {
            if (taken[kind] == 0) continue;
            const Track& track = movie.TrackOf(kHandlers[kind]);
            ASSERT_EQ(track.samples.size(), taken[kind]) << kHandlers[kind];
            for (uint32_t i = 0; i < taken[kind]; ++i) {
                media += track.samples[i].size;
                const Bytes bytes = movie.SampleBytes(track.samples[i]);
                ASSERT_EQ(bytes, ExpectedSample(kind, i)) << kHandlers[kind] << i;
            }
        }
        EXPECT_EQ(movie.At("mdat").size, 8 + media) << "whole samples and nothing between them";
    }

    static Bytes ExpectedSample(size_t kind, uint32_t i) {
        const Bytes number{static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        if (kind == 0) return streams::LengthPrefixed(streams::PictureUnits(i));
        if (kind == 1) return test_pattern::kSilence;
        return Hex(kind == 2 ? "0000000a 63646174" : "0000") + number;
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    CMp4Muxer m_muxer;
};

TEST_F(Threads, FourWriteAndAFifthAsks) {
    for (const bool deferred : {false, true}) {
        Open(deferred ? uint32_t{MP4_FLAG_REPAIR_INFO} : 0U, deferred);
        std::atomic<bool> done{false};
        std::thread asking([&] {
            uint64_t last = 0;
            mp4_statistics_t statistics{};
            statistics.struct_size = sizeof statistics;
            while (!done) {
                const uint64_t now = m_muxer.GetDurationMS();
                EXPECT_GE(now, last);
                last = now;
                EXPECT_EQ(m_muxer.GetStatistics(&statistics), MP4_STATUS_SUCCESS);
            }
        });
        const auto taken = WriteFromFourThreads([] {});
        done = true;
        asking.join();
        EXPECT_EQ(m_muxer.GetDurationMS(), 10000U);
        ASSERT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        EXPECT_EQ(taken, std::vector<uint32_t>(4, kFrames));
        ExpectFile(taken);
    }
}

// If a query waited for the write, the write would never be let go.
TEST_F(Threads, QueriesDoNotWaitForAWriteNorForClose) {
    MemoryOutput out;
    ASSERT_EQ(m_muxer.Create("out.mp4", MP4_CONTAINER_MP4, 0, out.Callbacks()), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::Everything(10)), MP4_STATUS_SUCCESS);
    const uint64_t duration = m_muxer.GetDurationMS();
    ASSERT_GT(duration, 0U);
    for (const bool closing : {false, true}) {
        std::promise<void> stuck;
        std::promise<void> letGo;
        out.onCall = [&, armed = true](std::string_view callback) mutable {
            if (callback != "write" || !std::exchange(armed, false)) return true;
            stuck.set_value();
            letGo.get_future().wait();
            return true;
        };
        std::thread blocked(
            [&] { EXPECT_EQ(closing ? m_muxer.Close() : Video(10), MP4_STATUS_SUCCESS); });
        stuck.get_future().wait();
        EXPECT_TRUE(m_muxer.IsOpen());
        EXPECT_GE(m_muxer.GetDurationMS(), duration);
        EXPECT_GT(m_muxer.GetMoovSize(), 0U);
        EXPECT_GT(m_muxer.GetVideoBitrate(), 0.0);
        EXPECT_GT(m_muxer.GetAudioBitrate(), 0.0);
        EXPECT_GT(m_muxer.GetCurFileSize(), 0);
        mp4_statistics_t statistics{};
        statistics.struct_size = sizeof statistics;
        EXPECT_EQ(m_muxer.GetStatistics(&statistics), MP4_STATUS_SUCCESS);
        EXPECT_EQ(statistics.video.samples, closing ? 11U : 10U);
        letGo.set_value();
        blocked.join();
    }
    EXPECT_FALSE(m_muxer.IsOpen());
    EXPECT_EQ(m_muxer.GetMoovSize(), 0U);
}

TEST_F(Threads, CloseWhileOthersWrite) {
    for (int round = 0; round < 5; ++round) {
        Open(MP4_FLAG_REPAIR_INFO, false);
        const auto taken = WriteFromFourThreads([this, round] {
            while (m_muxer.GetDurationMS() < static_cast<uint64_t>(round) * 300)
                std::this_thread::yield();
            EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        });
        EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        if (taken != std::vector<uint32_t>(4)) ExpectFile(taken);
    }
}

TEST_F(Threads, SeveralMuxersAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this, i] {
            const auto path = m_folder.Wide("out" + std::to_string(i) + ".mp4");
            EXPECT_EQ(streams::RecordEverything(path, streams::FileConfig(0), 30),
                      MP4_STATUS_SUCCESS);
        });
    for (std::thread& thread : threads)
        thread.join();
    const Bytes first = ReadFile(m_folder.Path("out0.mp4"));
    streams::ExpectHolds(MovieReader(first), streams::ExpectEverything(30));
    for (int i = 1; i < 4; ++i)
        EXPECT_EQ(ReadFile(m_folder.Path("out" + std::to_string(i) + ".mp4")), first);
}

}  // namespace
