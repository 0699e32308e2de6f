// The recorder on a disk in memory, and its parts. Run under ThreadSanitizer as well.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <map>
#include <random>
#include <thread>

#include "RecorderState.h"
#include "SegmentName.h"
#include "Timeline.h"
#include "VideoLook.h"
#include "kx_mp4/recorder.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "simulated_disk.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

using kx_mp4::DiskFull;
using kx_mp4::FrameKind;
using kx_mp4::QueueFull;
using kx_mp4::RecorderEventKind;
using kx_mp4::RecorderOptions;
using kx_mp4::RecorderSegment;
using kx_mp4::SegmentReason;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kPicture = 3000;  // ticks of 90 kHz
constexpr int64_t kSound = 1024;    // ticks of 48 kHz

/// Four bytes that only this frame has; none of them ends in zero or looks like a start code.
Bytes Mark(int64_t number) {
    Bytes mark(4);
    for (size_t i = 0; i < mark.size(); ++i)
        mark[i] = static_cast<uint8_t>(0x80 | (number >> (7 * i) & 0x7F));
    return mark;
}

int64_t MarkOf(const Bytes& sample) {
    int64_t number = 0;
    for (size_t i = 0; i < 4; ++i)
        number |= int64_t{sample[sample.size() - 4 + i] & 0x7F} << (7 * i);
    return number;
}

/// A recording of pictures and sound that are numbered, checked file by file.
class Recorder : public ::testing::Test {
protected:
    void SetUp() override {
        m_options.flags = 0;
        m_options.name = [](uint64_t number, std::time_t) {
            return "/clip" + std::to_string(number) + ".mp4";
        };
        m_options.on_segment = [this](const RecorderSegment& segment) {
            EXPECT_NO_THROW(Check(segment));
        };
        m_options.on_event = [this](const kx_mp4::RecorderEvent& event) {
            const std::lock_guard<std::mutex> lock(m_lock);
            m_events.push_back(event.kind);
        };
        m_options.reserve_bytes = 64 << 10;
        m_options.push_ms = 0;
    }

    void Start(const mp4_video_track_info_t& video = streams::H264Track()) {
        ASSERT_EQ(m_recorder.Start(m_options), MP4_STATUS_SUCCESS);
        const auto audio = streams::AacTrack();
        ASSERT_EQ(m_recorder.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
        ASSERT_EQ(m_recorder.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    }
    mp4_status_t Picture(int64_t number, bool key, size_t size = 16, int64_t shift = 0) {
        Bytes slice(size, 0xFF);
        slice[0] = key ? 0x65 : 0x41;
        const Bytes frame = streams::AccessUnit({slice + Mark(number)});
        const auto time = static_cast<uint64_t>(number * kPicture + shift);
        const mp4_status_t status = m_recorder.WriteVideoFrame(
            frame.data(), static_cast<uint32_t>(frame.size()), time, time);
        if (status == MP4_STATUS_SUCCESS) m_pictures.push_back(number);
        return status;
    }
    mp4_status_t Sound(int64_t number, int64_t shift = 0) {
        const Bytes frame = Bytes{0x21, 0x10} + Mark(number);
        const mp4_status_t status =
            m_recorder.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                       static_cast<uint64_t>(number * kSound + shift));
        if (status == MP4_STATUS_SUCCESS) m_sounds.push_back(number);
        return status;
    }
    /// Pictures [from, to) with the sound of their time, a key frame every `distance`.
    void Feed(int64_t from, int64_t to, int64_t distance = 10) {
        for (int64_t number = from; number < to; ++number) {
            EXPECT_EQ(Picture(number, number % distance == 0), MP4_STATUS_SUCCESS) << number;
            while (m_nextSound * kSound * 90 < (number + 1) * kPicture * 48)
                EXPECT_EQ(Sound(m_nextSound++), MP4_STATUS_SUCCESS);
        }
    }
    /// Everything that was taken is in the files, in order and once.
    void ExpectEverything() {
        EXPECT_EQ(m_heldPictures, m_pictures);
        EXPECT_EQ(m_heldSounds, m_sounds);
    }

    void Check(const RecorderSegment& segment) {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_segments.push_back(segment);
        if (segment.status != MP4_STATUS_SUCCESS && segment.status != m_expectedFailure) return;
        const Bytes file = m_disk.Content(segment.path);
        EXPECT_EQ(file.size(), segment.bytes);
        const MovieReader movie(file);
        for (const auto& [handler, told, held] :
             {std::tuple("vide", segment.video, &m_heldPictures),
              std::tuple("soun", segment.audio, &m_heldSounds)}) {
            if (told.samples == 0) continue;
            const Track& track = movie.TrackOf(handler);
            EXPECT_EQ(track.samples.size(), told.samples);
            for (const Sample& sample : track.samples)
                held->push_back(MarkOf(movie.SampleBytes(sample)));
            EXPECT_EQ(track.samples.back().dts + track.lastDuration, told.end - told.first);
            EXPECT_TRUE(track.samples.front().sync) << segment.path;
        }
        if (m_removesChecked) m_disk.Remove(segment.path);
    }

    LogCapture m_log;
    SimulatedDisk m_disk;
    RecorderOptions m_options;
    std::mutex m_lock;
    std::vector<RecorderSegment> m_segments;
    std::vector<RecorderEventKind> m_events;
    std::vector<int64_t> m_pictures, m_sounds;          // taken
    std::vector<int64_t> m_heldPictures, m_heldSounds;  // in the files
    int64_t m_nextSound = 0;
    mp4_status_t m_expectedFailure = MP4_STATUS_SUCCESS;  // of files that are finished all the same
    bool m_removesChecked = false;
    kx_mp4::RecorderState m_recorder{m_disk};  // last: its threads use the rest
};

TEST_F(Recorder, CutsAtKeyFramesAndDividesTheSoundWithoutLossOrGap) {
    const char* const wanted = std::getenv("KX_MP4_RECORDER_CUTS");
    const int64_t cuts = wanted != nullptr ? std::atoll(wanted) : 300;
    m_options.segment_ms = 100;
    m_options.on_queue_full = QueueFull::kWait;
    m_options.wait_ms = 60000;
    m_removesChecked = true;
    Start();
    std::mt19937 random(1);
    int64_t sound = 0;
    for (int64_t number = 0; number < 3 * cuts; ++number) {
        ASSERT_EQ(Picture(number, number % 3 == 0), MP4_STATUS_SUCCESS);
        // Sound comes up to a second early or late.
        const int64_t upTo = number * 25 / 16 + static_cast<int64_t>(random() % 94) - 47;
        while (sound < upTo)
            ASSERT_EQ(Sound(sound++), MP4_STATUS_SUCCESS);
    }
    EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    ExpectEverything();
    ASSERT_EQ(m_segments.size(), static_cast<size_t>(cuts));
    int64_t audioEnd = m_segments.front().audio.end;
    for (size_t i = 1; i < m_segments.size(); ++i) {
        const RecorderSegment& segment = m_segments[i];
        EXPECT_EQ(segment.reason, SegmentReason::kTime);
        EXPECT_EQ(segment.video.first, m_segments[i - 1].video.end) << i;
        if (segment.audio.samples == 0) continue;
        EXPECT_EQ(segment.audio.first, audioEnd) << i;
        audioEnd = segment.audio.end;
    }
    // Sound that is early waits for the picture of its time; what is late has two seconds.
    for (size_t i = 1; i + 20 < m_segments.size(); ++i)
        EXPECT_LT(m_segments[i].audio.first * 90 - m_segments[i].video.first * 48, kSound * 90);
    EXPECT_EQ(m_recorder.Statistics().late_frames, 0U);
    EXPECT_THAT(m_disk.Names(), IsEmpty());
}

TEST_F(Recorder, AStalledDiskHoldsUpNoCallAndLosesNothingThatHasRoom) {
    std::promise<void> letGo;
    auto released = letGo.get_future().share();
    m_disk.onCall = [released](std::string_view call, const std::string&) {
        if (call == "write") released.wait();
        return 0;
    };
    Start();
    Feed(0, 8000);  // the writer collects 256 KiB before it writes
    EXPECT_GT(m_recorder.Statistics().queue_bytes, 100000U);
    letGo.set_value();
    EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    ExpectEverything();
    EXPECT_EQ(m_recorder.Statistics().frames_written, m_pictures.size() + m_sounds.size());
}

TEST_F(Recorder, AFullQueueDropsWholeGroupsOfPicturesButNoSound) {
    for (const bool waits : {false, true}) {
        std::promise<void> letGo;
        auto released = letGo.get_future().share();
        m_disk.onCall = [released](std::string_view call, const std::string&) {
            if (call == "write") released.wait();
            return 0;
        };
        m_options.queue_bytes = 256 << 10;
        m_options.on_queue_full = waits ? QueueFull::kWait : QueueFull::kDrop;
        m_options.wait_ms = 1;
        Start();
        const auto feed = [this](int64_t from, int64_t to) {
            for (int64_t number = from; number < to; ++number) {
                Picture(number, number % 10 == 0, 4000);
                EXPECT_EQ(Sound(number), MP4_STATUS_SUCCESS);
            }
        };
        feed(0, 300);
        const auto drops = m_recorder.Statistics().drops;
        EXPECT_GT(drops.queue_full, 0U);
        EXPECT_GT(drops.dependent, drops.queue_full);
        EXPECT_EQ(m_pictures.size() + drops.queue_full + drops.dependent, 300U);
        letGo.set_value();
        while (m_recorder.Statistics().queue_bytes != 0)
            std::this_thread::yield();
        feed(305, 330);
        EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
        ExpectEverything();
        for (size_t i = 1; i < m_pictures.size(); ++i)
            EXPECT_TRUE(m_pictures[i] == m_pictures[i - 1] + 1 || m_pictures[i] % 10 == 0);
        EXPECT_EQ(m_pictures.back(), 329);
        for (auto* list : {&m_pictures, &m_sounds, &m_heldPictures, &m_heldSounds})
            list->clear();
    }
}

// At every size of the disk: all that was taken is in finished files, and nothing else is there.
TEST_F(Recorder, AFullDiskLeavesFinishedFilesWithAllThatWasTaken) {
    m_options.queue_bytes = 64 << 10;
    m_options.reserve_bytes = 16 << 10;
    m_options.segment_ms = 1000;
    m_options.on_queue_full = QueueFull::kWait;
    m_options.wait_ms = 60000;
    int stopped = 0;
    for (const bool canReserve : {true, false})
        for (uint64_t blocks = 80; blocks < 420; blocks += canReserve ? 3 : 7) {
            SCOPED_TRACE(blocks * 4096);
            m_disk.canReserve = canReserve;
            m_disk.capacity = blocks * 4096;
            const mp4_status_t started = m_recorder.Start(m_options);
            if (started != MP4_STATUS_SUCCESS) {
                EXPECT_EQ(started, MP4_STATUS_NO_SPACE_LEFT);
                EXPECT_THAT(m_disk.Names(), IsEmpty());
                continue;
            }
            const auto video = streams::H264Track();
            const auto audio = streams::AacTrack();
            m_recorder.SetVideoTrack(&video);
            m_recorder.SetAudioTrack(&audio);
            mp4_status_t status = MP4_STATUS_SUCCESS;
            for (int64_t number = 0; number < 3000 && status == MP4_STATUS_SUCCESS; ++number) {
                status = Picture(number, number % 10 == 0, 1500);
                if (status == MP4_STATUS_SUCCESS) status = Sound(number);
            }
            EXPECT_EQ(status, MP4_STATUS_NO_SPACE_LEFT);
            stopped += status == MP4_STATUS_NO_SPACE_LEFT ? 1 : 0;
            EXPECT_EQ(Sound(9999), MP4_STATUS_NO_SPACE_LEFT);
            EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_NO_SPACE_LEFT);
            ExpectEverything();
            EXPECT_EQ(m_disk.Names().size(), m_segments.size());
            for (const RecorderSegment& segment : m_segments)
                EXPECT_EQ(m_disk.Remove(segment.path), 0);
            EXPECT_EQ(m_disk.Used(), 0U);
            m_segments.clear();
            for (auto* list : {&m_pictures, &m_sounds, &m_heldPictures, &m_heldSounds})
                list->clear();
        }
    EXPECT_GT(stopped, 100);
    EXPECT_THAT(m_events, testing::Contains(RecorderEventKind::kFull));
}

TEST_F(Recorder, DeletesTheOldestSegmentsToGoOn) {
    m_options.queue_bytes = 64 << 10;
    m_options.reserve_bytes = 16 << 10;
    m_options.segment_ms = 1000;
    m_options.on_disk_full = DiskFull::kDeleteOldest;
    m_options.on_segment = {};
    m_options.on_queue_full = QueueFull::kWait;
    m_options.wait_ms = 60000;
    m_disk.capacity = 1200 << 10;
    Start();
    for (int64_t number = 0; number < 3000; ++number)
        ASSERT_EQ(Picture(number, number % 10 == 0, 1500), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    const auto figures = m_recorder.Statistics();
    EXPECT_EQ(figures.frames_written, 3000U);
    EXPECT_EQ(figures.segments_finished, 100U);
    EXPECT_GT(figures.segments_deleted, 70U);
    const auto names = m_disk.Names();
    EXPECT_EQ(names.size(), 100 - figures.segments_deleted);
    for (const std::string& name : names)
        EXPECT_EQ(MovieReader(m_disk.Content(name)).TrackOf("vide").samples.size(), 30U);
}

TEST_F(Recorder, AfterAFailureANewSegmentBegins) {
    struct Case {
        const char* call;
        int error;
        SegmentReason next;
        mp4_status_t told;
    };
    for (const Case& failure :
         {Case{"write", EIO, SegmentReason::kWriteFailed, MP4_STATUS_UNEXPECTED_ERROR},
          Case{"push", EROFS, SegmentReason::kPushFailed, MP4_STATUS_READONLY_FILE_SYSTEM}}) {
        SCOPED_TRACE(failure.call);
        std::atomic<bool> fails{false};
        std::atomic<int> failures{0};
        std::atomic<int> asked{0};
        m_disk.onCall = [&](std::string_view call, const std::string& path) {
            if (!fails || call != failure.call || path != "/clip0.mp4") return 0;
            ++failures;
            return failure.error;
        };
        m_options.push_ms = 5;
        m_options.request_key_frame = [&asked] { ++asked; };
        const bool isFinished = failure.next == SegmentReason::kPushFailed;
        m_expectedFailure = isFinished ? failure.told : MP4_STATUS_SUCCESS;
        Start();
        Feed(0, 15);
        while (m_recorder.Statistics().queue_bytes != 0)
            std::this_thread::yield();
        fails = true;
        int64_t number = 15;
        int told = 0;  // once, by a call that has done its work
        for (; failures == 0; ++number) {
            told += Picture(number, false) == failure.told ? 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        fails = false;
        for (int64_t end = number + 50; number < end; ++number) {
            const mp4_status_t status = Picture(number, number == end - 20);
            if (status == MP4_STATUS_SUCCESS) continue;
            EXPECT_EQ(status, failure.told);
            ++told;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(m_recorder.Stop(0).status, failure.told);
        EXPECT_GE(told, 1);
        EXPECT_EQ(asked, 1);
        ASSERT_EQ(m_segments.size(), 2U);
        EXPECT_EQ(m_segments[0].status, failure.told);
        EXPECT_EQ(m_segments[1].status, MP4_STATUS_SUCCESS);
        EXPECT_EQ(m_segments[1].reason, failure.next);
        EXPECT_EQ(m_segments[1].video.samples, 20U);
        EXPECT_THAT(m_events, testing::Contains(RecorderEventKind::kError));
        m_segments.clear();
        m_disk.onCall = {};
        m_disk.Remove("/clip0.mp4");
        m_disk.Remove("/clip1.mp4");
        m_nextSound = 0;
    }
}

TEST_F(Recorder, ChangedParameterSetsAndCommandsBeginSegments) {
    Start();
    Feed(0, 10);
    Bytes sps = {0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x14, 0x99};  // 80 x 64
    Bytes key(16, 0xFF);
    key[0] = 0x65;
    const Bytes changed = streams::AccessUnit({sps, key + Mark(10)});
    EXPECT_EQ(m_recorder.WriteVideoFrame(changed.data(), static_cast<uint32_t>(changed.size()),
                                         10 * kPicture, 10 * kPicture),
              MP4_STATUS_SUCCESS);
    m_pictures.push_back(10);
    Feed(11, 25);
    EXPECT_EQ(m_recorder.Cut(), MP4_STATUS_SUCCESS);
    Feed(25, 35);
    EXPECT_EQ(m_recorder.Stop(0).segments, 3U);
    ExpectEverything();
    ASSERT_EQ(m_segments.size(), 3U);
    EXPECT_EQ(m_segments[1].reason, SegmentReason::kParameterSets);
    EXPECT_EQ(m_segments[1].video.samples, 20U);
    EXPECT_EQ(m_segments[2].reason, SegmentReason::kCommand);
    const MovieReader movie(m_disk.Content("/clip1.mp4"));
    const Box& record = movie.At("moov/trak/mdia/minf/stbl/stsd/avc1/avcC");
    const Bytes avcc = record.Content(8, record.size - 8);
    EXPECT_NE(std::search(avcc.begin(), avcc.end(), sps.begin(), sps.end()), avcc.end());
}

// They are sent once; a set that was sent again counts as it was last.
TEST_F(Recorder, AFurtherParameterSetIsInTheIndexOfEveryLaterFile) {
    m_options.all_parameter_sets = true;
    Start();
    Feed(0, 10);
    const Bytes resent = Hex("6848f3c8");
    for (const Bytes& pps : {streams::kFurtherPps, resent}) {
        const auto number = static_cast<int64_t>(m_pictures.size());
        const Bytes frame = streams::AccessUnit(
            {streams::kFurtherSps, pps, Bytes{0x65} + Bytes(15, 0xFF) + Mark(number)});
        EXPECT_EQ(m_recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                             static_cast<uint64_t>(number * kPicture),
                                             static_cast<uint64_t>(number * kPicture)),
                  MP4_STATUS_SUCCESS);
        m_pictures.push_back(number);
    }
    EXPECT_EQ(m_recorder.Cut(), MP4_STATUS_SUCCESS);
    Feed(12, 35);
    EXPECT_EQ(m_recorder.Stop(0).segments, 2U);
    ExpectEverything();
    const auto sets = [this](const std::string& path) {
        const MovieReader movie(m_disk.Content(path));
        const Box& record = movie.At("moov/trak/mdia/minf/stbl/stsd/avc1/avcC");
        return record.Content(8 + 6, record.size - (8 + 6));
    };
    const auto after = [](const Bytes& pps) {
        return Hex("0008") + streams::kFurtherSps + Hex("02") + Hex("0004") + test_pattern::kPps +
               Hex("0004") + pps;
    };
    const Bytes first = Hex("0007") + test_pattern::kSps;
    EXPECT_EQ(sets("/clip0.mp4"), first + after(streams::kFurtherPps));
    EXPECT_EQ(sets("/clip1.mp4"), first + after(resent));
}

TEST_F(Recorder, CutsBySizeAndByTheClock) {
    m_options.segment_bytes = 64 << 10;
    Start();
    for (int64_t number = 0; number < 100; ++number)
        EXPECT_EQ(Picture(number, number % 10 == 0, 1500), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_recorder.Stop(0).segments, 2U);
    ASSERT_EQ(m_segments.size(), 2U);
    EXPECT_EQ(m_segments[1].reason, SegmentReason::kSize);
    EXPECT_EQ(m_segments[1].video.first, 50 * kPicture);

    m_segments.clear();
    m_options.segment_bytes = 0;
    m_options.segment_wall_clock_s = 1;
    m_options.name = [](uint64_t, std::time_t due) { return "/at" + std::to_string(due); };
    Start();
    const std::time_t begin = std::time(nullptr);
    for (int64_t number = 100; std::time(nullptr) < begin + 2; ++number) {
        EXPECT_EQ(Picture(number, true), MP4_STATUS_SUCCESS);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    ExpectEverything();
    ASSERT_GE(m_segments.size(), 2U);
    for (size_t i = 1; i < m_segments.size(); ++i) {
        EXPECT_EQ(m_segments[i].reason, SegmentReason::kWallClock);
        EXPECT_EQ(m_segments[i].due, m_segments[1].due + static_cast<std::time_t>(i) - 1);
    }
}

// The same file from both forms of the stream; a file begins with what can be decoded alone.
TEST_F(Recorder, TakesLengthsAndKnowsKeyFrames) {
    const auto& sps = test_pattern::kSps;
    const auto& pps = test_pattern::kPps;
    Bytes record = {1, 0x42, 0xC0, 0x0A, 0xFF, 0xE1, 0, static_cast<uint8_t>(sps.size())};
    record = record + sps + Bytes{1, 0, static_cast<uint8_t>(pps.size())} + pps;
    const auto track = streams::Deferred(streams::H264Track());
    for (const bool lengths : {false, true}) {
        ASSERT_EQ(m_recorder.Start(m_options), MP4_STATUS_SUCCESS);
        ASSERT_EQ(lengths ? m_recorder.SetVideoTrack(&track, record.data(),
                                                     static_cast<uint32_t>(record.size()))
                          : m_recorder.SetVideoTrack(&track),
                  MP4_STATUS_SUCCESS);
        for (uint32_t i = 5; i < 30; ++i) {
            const auto units = streams::PictureUnits(i);
            const Bytes frame =
                lengths ? streams::LengthPrefixed(units) : streams::AccessUnit(units);
            EXPECT_EQ(m_recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                                 i * kPicture, i * kPicture),
                      MP4_STATUS_SUCCESS);
        }
        EXPECT_EQ(m_recorder.Stop(0).segments, 1U);
        EXPECT_EQ(m_recorder.Statistics().drops.before_key, 5U);
        m_segments.clear();
    }
    EXPECT_EQ(m_disk.Content("/clip0.mp4"), m_disk.Content("/clip0-2.mp4"));
    EXPECT_FALSE(m_disk.Content("/clip0.mp4").empty());

    const auto isKey = [](int type) {
        const Bytes unit = {static_cast<uint8_t>(type << 1), 1, 0x80};
        const Bytes frame = streams::AccessUnit({{0x46, 1, 0x50}, unit});
        return kx_mp4::LookAtPicture(MP4_MVC_HEVC, frame.data(), frame.size()).key;
    };
    for (int type = 0; type < 24; ++type)
        EXPECT_EQ(isKey(type), type >= 17 && type <= 20) << type;
}

TEST_F(Recorder, PausesAndJumpsLeaveNoGapAndKeepPictureAndSoundTogether) {
    Start();
    Feed(0, 20);
    EXPECT_EQ(m_recorder.Pause(), MP4_STATUS_SUCCESS);
    for (int64_t number = 20; number < 50; ++number)
        EXPECT_EQ(Picture(number, number % 10 == 0), MP4_STATUS_SUCCESS);
    m_pictures.resize(20);
    EXPECT_EQ(m_recorder.Resume(), MP4_STATUS_SUCCESS);
    for (int64_t number = 50; number < 80; ++number)
        EXPECT_EQ(Picture(number, number % 10 == 0), MP4_STATUS_SUCCESS);
    constexpr int64_t kHour = 3600;
    for (int64_t number = 80; number < 90; ++number)
        EXPECT_EQ(Picture(number, number % 10 == 0, 16, kHour * 90000), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    ExpectEverything();
    EXPECT_EQ(m_segments.at(0).video.end, 60 * kPicture);
    EXPECT_EQ(m_recorder.Statistics().drops.paused, 30U);
    EXPECT_EQ(m_recorder.Statistics().clock_jumps, 1U);
}

TEST_F(Recorder, StopGivesUpAfterItsLimitAndTheFileIsFinishedLater) {
    std::promise<void> letGo;
    auto released = letGo.get_future().share();
    std::atomic<bool> stuck{false};
    m_disk.onCall = [&](std::string_view call, const std::string&) {
        if (call != "write") return 0;
        stuck = true;
        released.wait();
        return 0;
    };
    Start();
    while (!stuck) {
        Feed(static_cast<int64_t>(m_pictures.size()), static_cast<int64_t>(m_pictures.size()) + 1);
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    Feed(static_cast<int64_t>(m_pictures.size()), static_cast<int64_t>(m_pictures.size()) + 50);
    const auto report = m_recorder.Stop(20);
    EXPECT_FALSE(report.drained);
    EXPECT_GT(report.frames_left, 0U);
    EXPECT_EQ(m_recorder.Start(m_options), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_EQ(Picture(0, true), MP4_STATUS_FILE_NOT_OPEN);
    letGo.set_value();
    m_recorder.Stop(0);
    ASSERT_EQ(m_segments.size(), 1U);
    EXPECT_EQ(m_segments[0].status, MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_heldPictures.size() + m_heldSounds.size() + m_recorder.Statistics().drops.stopped,
              m_pictures.size() + m_sounds.size());
}

TEST_F(Recorder, RefusesWhatItCannotRecord) {
    EXPECT_EQ(Picture(0, true), MP4_STATUS_FILE_NOT_OPEN);
    EXPECT_EQ(m_recorder.Cut(), MP4_STATUS_FILE_NOT_OPEN);
    EXPECT_EQ(m_recorder.Stop(1).status, MP4_STATUS_FILE_NOT_OPEN);
    RecorderOptions bad = m_options;
    bad.name = {};
    EXPECT_EQ(m_recorder.Start(bad), MP4_STATUS_INVALID_PARAMETER);
    bad = m_options;
    bad.queue_bytes = 1;
    EXPECT_EQ(m_recorder.Start(bad), MP4_STATUS_INVALID_PARAMETER);
    ASSERT_EQ(m_recorder.Start(m_options), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_recorder.Start(m_options), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
    EXPECT_EQ(Picture(0, true), MP4_STATUS_INVALID_VIDEO_TRACK);
    EXPECT_EQ(Sound(0), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_recorder.SetVideoTrack(nullptr), MP4_STATUS_INVALID_PARAMETER);
    const auto video = streams::H264Track();
    ASSERT_EQ(m_recorder.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
    EXPECT_EQ(m_recorder.WriteVideoFrame(nullptr, 5, 0, 0), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_recorder.WriteVideoFrame(Mark(1).data(), 4, 0, 0), MP4_STATUS_INVALID_VIDEO_STREAM);
    EXPECT_EQ(Picture(0, true, 4 << 20), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Picture(1, false), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY) << "it needs the one before";
    EXPECT_EQ(m_recorder.Stop(0).segments, 0U);
    EXPECT_THAT(m_disk.Names(), IsEmpty());
}

// Four producers, cuts, pauses and failures at random; under ThreadSanitizer every access counts.
TEST_F(Recorder, EverythingAtOnce) {
    const char* const wanted = std::getenv("KX_MP4_RECORDER_SECONDS");
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(wanted != nullptr ? std::atoll(wanted) * 1000 : 700);
    std::atomic<uint32_t> calls{0};
    m_disk.onCall = [&calls](std::string_view call, const std::string&) {
        const uint32_t count = ++calls;
        if (count % 97 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return (call == "write" || call == "push") && count % 211 == 0 ? EIO : 0;
    };
    m_options.segment_ms = 200;
    m_options.push_ms = 3;
    m_options.queue_bytes = 128 << 10;
    m_options.live_index_ms = 500;
    m_options.on_segment = [this](const RecorderSegment& segment) {
        const Bytes file = m_disk.Content(segment.path);
        m_disk.Remove(segment.path);
        if (segment.status == MP4_STATUS_SUCCESS) MovieReader movie(file);
    };
    while (std::chrono::steady_clock::now() < end) {
        Start();
        const auto captions = streams::CaptionTrack(MP4_SUBTITLE_CODEC_CC608);
        ASSERT_EQ(m_recorder.SetSubtitleTrack(&captions), MP4_STATUS_SUCCESS);
        std::vector<std::thread> producers;
        const auto produce = [&producers](auto write) {
            producers.emplace_back([write] {
                for (int64_t i = 0; i < 3000; ++i) {
                    write(i);
                    if (i % 16 == 0) std::this_thread::sleep_for(std::chrono::microseconds(300));
                }
            });
        };
        const Bytes key = streams::AccessUnit({Bytes(700, 0x65)});
        const Bytes other = streams::AccessUnit({Bytes(300, 0x41)});
        produce([&](int64_t i) {
            const Bytes& frame = i % 10 == 0 ? key : other;
            const auto time = static_cast<uint64_t>(i * kPicture);
            m_recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()), time,
                                       time);
        });
        produce([&](int64_t i) {
            m_recorder.WriteAudioFrame(key.data(), 50, static_cast<uint64_t>(i * kSound));
        });
        produce([&](int64_t i) {
            const Bytes packet = {0x61, 0x02, 0x01, 0xFC, 0x94, 0x20};
            m_recorder.WriteSubtitleFrame(packet.data(), 6, static_cast<uint64_t>(i * 33));
        });
        produce([&](int64_t i) {
            if (i % 500 == 100) m_recorder.Pause();
            if (i % 500 == 150) m_recorder.Resume();
            if (i % 700 == 0) m_recorder.Cut();
            if (i % 900 == 0) m_recorder.WriteTimeCode(static_cast<int>(i));
            m_recorder.Statistics();
        });
        for (std::thread& producer : producers)
            producer.join();
        m_recorder.Stop(calls % 2 == 0 ? 1 : 0);
        m_recorder.Stop(0);
        const auto figures = m_recorder.Statistics();
        const auto& drops = figures.drops;
        EXPECT_LE(figures.frames_written + drops.before_key + drops.late_track + drops.refused +
                      drops.stopped,
                  figures.frames_taken);
        EXPECT_EQ(figures.queue_bytes, 0U);
        EXPECT_GT(figures.segments_begun, 1U);
    }
    EXPECT_THAT(m_disk.Names(), IsEmpty());
}

TEST(RecorderFiles, KeepsARepairInfoFileAndReplacesNothing) {
    const ScratchFolder folder;
    LogCapture log;
    RecorderOptions options;
    options.pattern = folder.Path("%Y-%04i.mp4");
    options.push_ms = 5;
    std::vector<std::string> paths;
    options.on_segment = [&paths](const RecorderSegment& segment) {
        EXPECT_EQ(segment.status, MP4_STATUS_SUCCESS);
        EXPECT_FALSE(std::filesystem::exists(segment.path + ".info"));
        paths.push_back(segment.path);
    };
    for (int round = 0; round < 2; ++round) {
        CMp4Recorder recorder;
        ASSERT_EQ(recorder.Start(options), MP4_STATUS_SUCCESS);
        const auto video = streams::H264Track();
        ASSERT_EQ(recorder.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
        ASSERT_EQ(recorder.WriteTimeCode(5), MP4_STATUS_SUCCESS);
        const auto timecode = streams::TimecodeTrack();
        ASSERT_EQ(recorder.SetTCMDTrack(&timecode), MP4_STATUS_SUCCESS);
        ASSERT_EQ(recorder.SetMetadata("title", "x", 0, MP4_META_DATA_TYPE_STRING, nullptr),
                  MP4_STATUS_SUCCESS);
        for (uint32_t i = 0; i < 25; ++i) {
            const Bytes frame = streams::AccessUnit(streams::PictureUnits(i));
            ASSERT_EQ(recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                               i * kPicture, i * kPicture),
                      MP4_STATUS_SUCCESS);
            if (i == 12) recorder.Cut();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        while (recorder.GetStatistics().unpushed_us != 0)
            std::this_thread::yield();
        EXPECT_GT(recorder.GetStatistics().longest_push_us, 0U);
        EXPECT_EQ(recorder.Stop(0).segments, 2U);
    }
    ASSERT_EQ(paths.size(), 4U);
    const std::string year = paths[0].substr(0, paths[0].size() - 9);
    EXPECT_THAT(paths, ElementsAre(year + "-0000.mp4", year + "-0001.mp4", year + "-0000-2.mp4",
                                   year + "-0001-2.mp4"));
    const MovieReader movie(ReadFile(paths[1]));
    const Track& timecodes = movie.TrackOf("tmcd");
    ASSERT_EQ(timecodes.samples.size(), 1U);
    EXPECT_EQ(movie.SampleBytes(timecodes.samples[0]), (Bytes{0, 0, 0, 25}));
    EXPECT_EQ(movie.TrackOf("vide").samples.size(), 5U);
}

TEST(RecorderTimeline, TakesJumpsAndWrapsOutOfTheTimes) {
    kx_mp4::Timeline timeline(10000);
    timeline.Declare(FrameKind::kVideo, 90000, 3000);
    timeline.Declare(FrameKind::kAudio, 48000, 1024);
    int64_t now = 0;
    const auto place = [&](FrameKind kind, int64_t time, int64_t passedMs = 20) {
        now += passedMs * 1000000;
        kx_mp4::FrameHeader frame;
        frame.kind = kind;
        frame.pts = frame.dts = time;
        frame.arrival = now;
        return timeline.Place(frame).value_or(kx_mp4::FrameTimes{-1, -1}).dts;
    };
    constexpr int64_t kStart = int64_t{1} << 32;
    constexpr int64_t kHour = int64_t{90000} * 3600;
    EXPECT_EQ(place(FrameKind::kVideo, kStart - 3000), kStart - 3000);
    EXPECT_EQ(place(FrameKind::kAudio, 1024), 1024);
    EXPECT_EQ(place(FrameKind::kVideo, 0), kStart) << "a wrap";
    EXPECT_EQ(place(FrameKind::kVideo, 9000), kStart + 9000) << "a step is kept";
    EXPECT_EQ(place(FrameKind::kVideo, kHour), kStart + 18000) << "an hour, closed up";
    EXPECT_EQ(place(FrameKind::kAudio, 2048), 2048) << "not yet there";
    EXPECT_EQ(place(FrameKind::kAudio, 2048 + 48000 * 3600), 2048 + 9600) << "moved as the picture";
    EXPECT_EQ(place(FrameKind::kVideo, kHour + 90000 * 60, 60000), kStart + 18000 + 90000 * 60)
        << "a gap in which time passed";
    EXPECT_EQ(place(FrameKind::kVideo, kHour),
              kStart + 2 * (18000 + 90000 * 60) - 18000 - kStart + kStart)
        << "backwards, closed up by the last step";
    EXPECT_EQ(timeline.Jumps(), 2U);
    EXPECT_EQ(timeline.Wraps(), 1U);
    timeline.Resume();
    EXPECT_EQ(place(FrameKind::kVideo, kHour + 6000), -1) << "no key frame";
}

TEST(RecorderNames, ExpandAndFindTheirPlace) {
    EXPECT_EQ(kx_mp4::ExpandName("a%i-%03i%%", 7, 0), "a7-007%");
    EXPECT_EQ(kx_mp4::ExpandName(std::string(2000, 'x'), 0, 0), "");
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_EQ(kx_mp4::ExpandName("%H%M%S", 0, 3661), "010101");
    EXPECT_EQ(kx_mp4::NextWallClock(3600 * 5, 3600), 3600 * 6);
    EXPECT_EQ(kx_mp4::NextWallClock(86399, 3600), 86400);
    EXPECT_EQ(kx_mp4::NextWallClock(80000, 50000), 86400) << "midnight is one";
    SimulatedDisk disk;
    int error = 0;
    for (const char* const name : {"/a.b/c", "/a.b/c-2.info"})
        disk.Create(name, error);
    EXPECT_EQ(kx_mp4::FreeName(disk, "/a.b/c"), "/a.b/c-3");
    EXPECT_EQ(kx_mp4::FreeName(disk, "/a.b/d.mp4"), "/a.b/d.mp4");
}

}  // namespace
