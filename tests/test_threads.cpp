// Frames of different tracks from different threads. These tests are also run under
// ThreadSanitizer; there a report is a failure.
#include <gtest/gtest.h>

#include <algorithm>
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

namespace {

constexpr uint32_t kPictures = 300;

class Threads : public ::testing::Test {
protected:
    void Open(uint32_t flags, const streams::Recipe& recipe = {}) {
        ASSERT_EQ(
            m_muxer.Create(m_folder.Path("out.mp4"), MP4_CONTAINER_MP4, streams::FileConfig(flags)),
            MP4_STATUS_SUCCESS);
        ASSERT_EQ(streams::Run(m_muxer, streams::SetUpEverything(recipe)), MP4_STATUS_SUCCESS);
        m_steps = streams::WriteEverything(kPictures, recipe);
    }

    /// Writes the samples of each track from a thread of its own; each stops when the muxer answers
    /// that no file is open. Returns those that were taken.
    template <class Meanwhile>
    std::vector<streams::Expected> WriteFromFourThreads(Meanwhile&& meanwhile) {
        std::vector<char> taken(m_steps.size());
        std::vector<std::thread> threads;
        for (const char* const handler : {"vide", "soun", "clcp", "tmcd"})
            threads.emplace_back([this, handler, &taken] {
                for (size_t i = 0; i < m_steps.size(); ++i) {
                    if (m_steps[i].sample->handler != handler) continue;
                    const mp4_status_t status = m_steps[i].run(m_muxer);
                    if (status == MP4_STATUS_FILE_NOT_OPEN) break;
                    EXPECT_EQ(status, MP4_STATUS_SUCCESS);
                    taken[i] = 1;
                }
            });
        meanwhile();
        for (std::thread& thread : threads)
            thread.join();
        std::vector<streams::Expected> samples;
        for (size_t i = 0; i < taken.size(); ++i)
            if (taken[i] != 0) samples.push_back(*m_steps[i].sample);
        return samples;
    }

    void ExpectFile(const std::vector<streams::Expected>& taken) {
        const MovieReader movie(ReadFile(m_folder.Path("out.mp4")));
        streams::ExpectHolds(movie, taken);
        uint64_t media = 8;
        for (const streams::Expected& sample : taken)
            media += sample.bytes.size();
        EXPECT_EQ(movie.At("mdat").size, media) << "whole samples and nothing between them";
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    std::vector<streams::Step> m_steps;
    CMp4Muxer m_muxer;
};

TEST_F(Threads, FourWriteAndAFifthAsks) {
    for (const bool deferred : {false, true}) {
        Open(deferred ? uint32_t{MP4_FLAG_REPAIR_INFO} : 0U, {MP4_MVC_H264, deferred});
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
        EXPECT_EQ(taken.size(), m_steps.size());
        ExpectFile(taken);
    }
}

// If a query waited for the write, the write would never be let go.
TEST_F(Threads, QueriesDoNotWaitForAWriteNorForClose) {
    MemoryOutput out;
    ASSERT_EQ(m_muxer.Create("out.mp4", MP4_CONTAINER_MP4, 0, out.Callbacks()), MP4_STATUS_SUCCESS);
    ASSERT_EQ(streams::Run(m_muxer, streams::Everything(10)), MP4_STATUS_SUCCESS);
    const auto steps = streams::WriteEverything(11);
    const auto& picture = *std::find_if(steps.rbegin(), steps.rend(), [](const auto& step) {
        return step.sample->handler == "vide";
    });
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
        std::thread blocked([&] {
            EXPECT_EQ(closing ? m_muxer.Close() : picture.run(m_muxer), MP4_STATUS_SUCCESS);
        });
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
        Open(MP4_FLAG_REPAIR_INFO);
        const auto taken = WriteFromFourThreads([this, round] {
            while (m_muxer.GetDurationMS() < static_cast<uint64_t>(round) * 300)
                std::this_thread::yield();
            EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        });
        EXPECT_EQ(m_muxer.Close(), MP4_STATUS_SUCCESS);
        if (!taken.empty()) ExpectFile(taken);
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
