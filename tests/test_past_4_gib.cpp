#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "scratch_folder.h"
#include "streams.h"

namespace {

/// The output drops these frames' bytes and keeps their positions, of which no byte is 0. (Readers
/// take no larger frames.)
constexpr uint32_t kFrameSize = 0x30010203;
/// So many of them pass 4 GiB.
constexpr uint64_t kFrames = 6;
constexpr uint8_t kFrame[16] = {};  // ProRes frames are handed through, of sound the head is read

class Past4GiB : public testing::Test {
protected:
    void Open(const wchar_t* path, uint32_t flags = 0) {
        output.dropFrom = kFrameSize;
        mp4_config_t config = streams::CallbackConfig(flags, output.Functions());
        ASSERT_EQ(muxer.Create(path, &config), MP4_STATUS_SUCCESS);
        const auto video = streams::ProResTrack(MP4_PRORES_422);
        ASSERT_EQ(muxer.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
        const auto audio = streams::AacTrack();
        ASSERT_EQ(muxer.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
    }
    mp4_status_t WriteHugeFrame(uint64_t time) {
        return muxer.WriteVideoFrame(kFrame, kFrameSize, time, time);
    }

    LogCapture log;
    MemoryOutput output;
    CMp4Muxer muxer;
};

TEST_F(Past4GiB, AnMp4FileGrowsIntoIt) {
    Open(L"a.mp4");
    const std::array<uint8_t, 5> sound = {1, 2, 3, 4, 5};
    ASSERT_EQ(muxer.WriteAudioFrame(sound.data(), sound.size(), 0), MP4_STATUS_SUCCESS);
    // Sound between the pictures, so that they have chunks whose offsets are widened later.
    for (uint64_t i = 0; i < kFrames; ++i) {
        ASSERT_EQ(WriteHugeFrame(i), MP4_STATUS_SUCCESS);
        if (i == 1) {
            ASSERT_EQ(muxer.WriteAudioFrame(sound.data(), sound.size(), 1024), MP4_STATUS_SUCCESS);
        }
    }
    mp4_time_code_track_info_t timecode{25, 1, 25, 0};
    ASSERT_EQ(muxer.SetTCMDTrack(&timecode), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.WriteTimeCode(7), MP4_STATUS_SUCCESS);
    ASSERT_EQ(WriteHugeFrame(kFrames), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);

    // The 16-byte header took the place of the free box: samples stay where they are.
    const MovieReader movie = output.Movie();
    EXPECT_EQ(movie.File().ChildTypes(), "ftyp mdat moov");
    EXPECT_EQ(movie.At("mdat").offset, 28U);
    EXPECT_EQ(movie.At("mdat").headerSize, 16U);
    EXPECT_EQ(movie.At("mdat").size, 16 + 2 * 5 + 4 + (kFrames + 1) * kFrameSize);
    const Track& video = movie.TrackOf("vide");
    ASSERT_EQ(video.samples.size(), kFrames + 1);
    for (uint64_t i = 0; i < kFrames; ++i)
        EXPECT_EQ(video.samples[i].offset, 44 + (i > 1 ? 10 : 5) + i * kFrameSize);
    EXPECT_EQ(video.samples[kFrames].offset, 44 + 10 + 4 + kFrames * kFrameSize);
    EXPECT_NE(movie.TrackOf("tmcd").box->Find("mdia/minf/stbl/co64"), nullptr);
    // What lies below 4 GiB keeps its narrow table.
    EXPECT_NE(movie.TrackOf("soun").box->Find("mdia/minf/stbl/stco"), nullptr);
    EXPECT_EQ(movie.TrackOf("soun").samples.at(0).offset, 44U);
    EXPECT_EQ(log.Complaints(), std::vector<std::string>{});
}

TEST_F(Past4GiB, AQuickTimeMovieRefusesBeforeAByteIsWritten) {
    Open(L"a.mov");
    for (uint64_t i = 0; i < kFrames - 1; ++i)
        ASSERT_EQ(WriteHugeFrame(i), MP4_STATUS_SUCCESS);
    const int64_t size = muxer.GetCurFileSize();
    const int writes = output.writes;
    EXPECT_EQ(muxer.WriteAudioFrame(kFrame, kFrameSize, 0), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    EXPECT_NE(log.Complaints().at(0).find("64-bit size option"), std::string::npos);
    log.Clear();
    EXPECT_EQ(WriteHugeFrame(kFrames), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    EXPECT_EQ(output.writes, writes);
    EXPECT_EQ(muxer.GetCurFileSize(), size);
    ASSERT_EQ(log.Complaints().size(), 1U);
    EXPECT_NE(log.Complaints()[0].find("64-bit size option"), std::string::npos);
    // The last byte that a 32-bit size can count is still taken.
    const auto rest = static_cast<uint32_t>(int64_t{UINT32_MAX} - (size - 20));
    EXPECT_EQ(muxer.WriteVideoFrame(kFrame, rest + 1, 9, 9), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    output.dropFrom = 64;
    EXPECT_EQ(muxer.WriteVideoFrame(kFrame, rest, 9, 9), MP4_STATUS_SUCCESS);
    output.dropFrom = kFrameSize;
    EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(output.Movie().At("mdat").size, uint64_t{UINT32_MAX});
    EXPECT_EQ(output.Movie().TrackOf("vide").samples.size(), kFrames);
}

TEST_F(Past4GiB, TheCaptionTrackEndsThere) {
    Open(L"a.mp4", MP4_FLAG_64BIT_SIZE);
    mp4_subtitle_track_info_t captions{MP4_SUBTITLE_CODEC_CC708, 1000};
    ASSERT_EQ(muxer.SetSubtitleTrack(&captions), MP4_STATUS_SUCCESS);
    const std::array<uint8_t, 6> packet = {0x61, 0x01, 3, 0x96, 0x69, 0x55};
    ASSERT_EQ(muxer.WriteSubtitleFrame(packet.data(), packet.size(), 0), MP4_STATUS_SUCCESS);
    for (uint64_t i = 0; i < kFrames; ++i)
        ASSERT_EQ(WriteHugeFrame(i), MP4_STATUS_SUCCESS);
    EXPECT_EQ(muxer.WriteSubtitleFrame(packet.data(), packet.size(), 1),
              MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
    ASSERT_EQ(log.Complaints().size(), 1U);
    EXPECT_NE(log.Complaints()[0].find("caption track"), std::string::npos);
    ASSERT_EQ(WriteHugeFrame(kFrames), MP4_STATUS_SUCCESS);
    EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
    EXPECT_EQ(output.Movie().TrackOf("clcp").samples.size(), 1U);
    EXPECT_EQ(output.Movie().TrackOf("vide").samples.size(), kFrames + 1);
}

TEST_F(Past4GiB, IsReadByFfprobeFromASparseFile) {
    if (std::system("ffprobe -version >/dev/null 2>&1") != 0) {
        ASSERT_EQ(std::getenv("CI"), nullptr) << "ffprobe is missing";
        GTEST_SKIP() << "ffprobe is missing";
    }
    // Small pictures at the ends, so that the reader need not read the hole.
    Open(L"a.mp4");
    const std::array<uint8_t, 8> small = {0, 0, 0, 8, 'i', 'c', 'p', 'f'};
    ASSERT_EQ(muxer.WriteVideoFrame(small.data(), small.size(), 0, 0), MP4_STATUS_SUCCESS);
    for (uint64_t second = 1; second <= kFrames; ++second)
        ASSERT_EQ(WriteHugeFrame(25 * second), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.WriteVideoFrame(small.data(), small.size(), 250, 250), MP4_STATUS_SUCCESS);
    ASSERT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);

    const ScratchFolder folder;
    const std::string path = folder.Path("a.mp4");
    constexpr uint64_t kHead = 44 + 8;
    const uint64_t last = kHead + kFrames * kFrameSize;
    std::ofstream file(path, std::ios::binary);
    for (uint64_t i = 0; i < output.Size(); ++i) {
        if (i == kHead) file.seekp(static_cast<std::streamoff>(i = last));
        file.put(static_cast<char>(output.ByteAt(i)));
    }
    file.close();
    ASSERT_EQ(std::filesystem::file_size(path), output.Size());

    const std::string command =
        "ffprobe -v quiet -probesize 32 -read_intervals 10%+#1 -show_entries "
        "stream=nb_frames:packet=pos,size -of csv=p=0 " +
        path;
    FILE* const pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string seen;
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;)
        seen.push_back(static_cast<char>(c));
    EXPECT_EQ(pclose(pipe), 0);
    EXPECT_EQ(seen, "8," + std::to_string(last) + "\n8\n");
}

}  // namespace
