#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "InfoWriter.h"
#include "kx_mp4/repair.h"
#include "repair_scenario.h"

using kx_mp4::Repair;
using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairReport;
using namespace repair_scenario;

namespace {

constexpr uint32_t kBothWide = MP4_FLAG_64BIT_SIZE | MP4_FLAG_64BIT_TIME;

void Append(FileBytes& bytes, const FileBytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

FileBytes BigEndian(uint64_t value, int width) {
    FileBytes bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    return bytes;
}

class RepairTest : public testing::Test {
protected:
    /// A recording without its index, and the file that Close would have made of it.
    void Record(const Scenario& scenario, uint32_t flags = 0, const char* name = "a.mp4") {
        m_path = m_folder.Path(name);
        const auto calls = CallsOf(scenario);
        m_finished = Finished(m_path, flags, calls);
        CutOff(m_path, flags, calls);
    }
    std::string Info() const { return m_path + ".info"; }
    RepairReport RunRepair(RepairOptions options = {}) { return Repair(m_path, options); }
    static uint64_t Kept(const RepairReport& report) {
        uint64_t frames = 0;
        for (const auto& track : report.tracks)
            frames += track.frames_kept;
        return frames;
    }
    static uint64_t Dropped(const RepairReport& report) {
        uint64_t frames = 0;
        for (const auto& track : report.tracks)
            frames += track.frames_dropped;
        return frames;
    }
    void Edit(const std::string& path, const std::function<void(FileBytes&)>& edit) {
        FileBytes bytes = ReadWholeFile(path);
        edit(bytes);
        WriteWholeFile(path, bytes);
    }

    Folder m_folder;
    std::string m_path;
    FileBytes m_finished;
};

// What the file kinds, widths and codecs have in common: the repaired file is the closed one.

TEST_F(RepairTest, WholeRecordingBecomesTheClosedFile) {
    for (const char* name : {"a.mp4", "a.mov"}) {
        for (uint32_t flags = 0; flags <= kBothWide; ++flags) {
            for (const auto codec : {MP4_MVC_H264, MP4_MVC_HEVC, MP4_MVC_PRORES}) {
                for (const bool deferred : {false, true}) {
                    Scenario scenario;
                    scenario.codec = codec;
                    scenario.deferred = deferred;
                    scenario.declareTwice = flags == 1;
                    scenario.captions =
                        deferred ? MP4_SUBTITLE_CODEC_CC708 : MP4_SUBTITLE_CODEC_CC608;
                    Record(scenario, flags, name);
                    const RepairReport report = RunRepair();
                    SCOPED_TRACE(std::string(name) + " flags " + std::to_string(flags) + " codec " +
                                 std::to_string(codec) + ": " + report.reason);
                    EXPECT_EQ(report.outcome, RepairOutcome::kWhole);
                    EXPECT_EQ(report.quicktime, std::string(name) == "a.mov");
                    EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
                    EXPECT_EQ(report.output_bytes, m_finished.size());
                }
            }
        }
    }
}

TEST_F(RepairTest, ReportCountsFramesAndBytes) {
    Record({});
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_kept, 8U);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairAudio].frames_kept, 16U);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairAudio].frames_unchecked, 16U);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairCaption].frames_kept, 3U);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairCaption].bytes_kept, 40U);  // one packet is malformed
    EXPECT_EQ(report.tracks[kx_mp4::kRepairTimecode].bytes_kept, 4U);
    EXPECT_EQ(report.records, 4U + 3U + 28U);
    EXPECT_EQ(report.output_path, m_folder.Path("a.repaired.mp4"));
    EXPECT_TRUE(std::filesystem::exists(Info()));
    EXPECT_FALSE(std::filesystem::exists(report.output_path + ".part"));
}

// The muxer refuses the frame, but its bytes stay where they are.
TEST_F(RepairTest, AudioWithoutATrackShiftsNothing) {
    m_path = m_folder.Path("a.mp4");
    auto calls = CallsOf({});
    calls.erase(calls.begin() + 1);
    CMp4Muxer closed;
    ASSERT_EQ(Open(closed, m_path, 0), MP4_STATUS_SUCCESS);
    for (const Call& call : calls)
        call.run(closed);
    ASSERT_EQ(closed.Close(), MP4_STATUS_SUCCESS);
    m_finished = ReadWholeFile(m_path);
    CMp4Muxer muxer;
    ASSERT_EQ(Open(muxer, m_path, 0), MP4_STATUS_SUCCESS);
    for (const Call& call : calls)
        call.run(muxer);
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
    EXPECT_EQ(report.tracks[kx_mp4::kRepairAudio].frames_without_track, 16U);
    EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
}

TEST_F(RepairTest, DeclaredTracksWithoutFramesMakeAnEmptyMovie) {
    Scenario scenario;
    scenario.pictures = 0;
    for (const uint32_t flags : {0U, uint32_t{MP4_FLAG_64BIT_SIZE}}) {
        Record(scenario, flags);
        const RepairReport report = RunRepair();
        EXPECT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
        EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
        // As if Close had been interrupted before it removed the repair info file.
        WriteWholeFile(m_path, m_finished);
        EXPECT_EQ(RunRepair().outcome, RepairOutcome::kWhole);
    }
}

TEST_F(RepairTest, CompositionOffsetsComeBackWhenAskedFor) {
    m_path = m_folder.Path("a.mp4");
    auto calls = CallsOf({});
    calls.insert(calls.begin(), {[](CMp4Muxer& muxer) { return muxer.SetCompositionOffsets(true); },
                                 CallKind::kSetUp, nullptr});
    m_finished = Finished(m_path, 0, calls);
    CutOff(m_path, 0, calls);
    RepairOptions options;
    options.composition_offsets = true;
    EXPECT_TRUE(ReadWholeFile(RunRepair(options).output_path) == m_finished);
    EXPECT_FALSE(ReadWholeFile(RunRepair().output_path) == m_finished);
}

// Options

TEST_F(RepairTest, InPlaceNeedsNoCopyAndRemovesTheInfoFile) {
    for (const bool keepInfo : {true, false}) {
        Record({});
        RepairOptions options;
        options.in_place = true;
        options.keep_info = keepInfo;
        const RepairReport report = RunRepair(options);
        EXPECT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
        EXPECT_EQ(report.output_path, m_path);
        EXPECT_TRUE(ReadWholeFile(m_path) == m_finished);
        EXPECT_EQ(std::filesystem::exists(Info()), keepInfo);
    }
}

TEST_F(RepairTest, DryRunTouchesNothing) {
    Record({});
    const FileBytes before = ReadWholeFile(m_path);
    RepairOptions options;
    options.dry_run = true;
    for (const bool inPlace : {false, true}) {
        options.in_place = inPlace;
        const RepairReport report = RunRepair(options);
        EXPECT_EQ(report.outcome, RepairOutcome::kWhole);
        EXPECT_EQ(report.output_bytes, m_finished.size());
        EXPECT_TRUE(report.output_path.empty());
    }
    EXPECT_TRUE(ReadWholeFile(m_path) == before);
    EXPECT_TRUE(std::filesystem::exists(Info()));
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("a.repaired.mp4")));
}

TEST_F(RepairTest, OutputNeverReplacesAnInput) {
    Record({});
    const FileBytes before = ReadWholeFile(m_path);
    RepairOptions options;
    for (const std::string& output : {m_path, Info()}) {
        options.output_path = output;
        EXPECT_EQ(RunRepair(options).outcome, RepairOutcome::kFailed);
    }
    EXPECT_TRUE(ReadWholeFile(m_path) == before);
}

TEST_F(RepairTest, ProgressIsToldAndCanCancel) {
    Record({});
    RepairOptions options;
    uint64_t copied = 0;
    options.progress = [&](const kx_mp4::RepairProgress& progress) {
        if (progress.step == kx_mp4::RepairStep::kCopy) copied = progress.done;
        return true;
    };
    const RepairReport report = RunRepair(options);
    EXPECT_EQ(copied, report.media_bytes_kept + 44);  // and the boxes before the first sample
    std::filesystem::remove(report.output_path);
    options.progress = [&](const kx_mp4::RepairProgress& progress) {
        return progress.step != kx_mp4::RepairStep::kCopy;
    };
    EXPECT_EQ(RunRepair(options).outcome, RepairOutcome::kFailed);
    EXPECT_FALSE(std::filesystem::exists(report.output_path));
    EXPECT_FALSE(std::filesystem::exists(report.output_path + ".part"));
}

TEST(RepairOutputName, StandsBeforeTheExtension) {
    EXPECT_EQ(kx_mp4::DefaultRepairOutput("clip.mp4"), "clip.repaired.mp4");
    EXPECT_EQ(kx_mp4::DefaultRepairOutput("a.b/clip"), "a.b/clip.repaired");
    EXPECT_EQ(kx_mp4::DefaultRepairOutput("a/.hidden"), "a/.hidden.repaired");
    EXPECT_EQ(kx_mp4::DefaultRepairOutput("a/b.c.mov"), "a/b.c.repaired.mov");
}

// Records that do not hold

class RepairHostileTest : public RepairTest {
protected:
    /// Repairs a recording whose repair info file has these bytes appended, and expects that all
    /// of it but them is kept, and why.
    void ExpectRefused(const FileBytes& record, const std::string& reason,
                       const Scenario& scenario = {}) {
        SCOPED_TRACE(reason);
        Record(scenario);
        Edit(Info(), [&](FileBytes& info) { Append(info, record); });
        const RepairReport report = RunRepair();
        EXPECT_EQ(report.outcome, RepairOutcome::kLoss);
        EXPECT_NE(report.reason.find(reason), std::string::npos) << report.reason;
        EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
    }
    static FileBytes VideoFrame(uint32_t size, uint8_t sync = 0) {
        FileBytes record = {MIFPT_VIDEO_FRAME};
        Append(record, BigEndian(90000, 8));
        Append(record, BigEndian(90000, 8));
        record.push_back(sync);
        Append(record, BigEndian(size, 4));
        return record;
    }
    static FileBytes TimedFrame(uint8_t type, uint32_t size) {
        FileBytes record = {type};
        Append(record, BigEndian(90000, 8));
        Append(record, BigEndian(size, 4));
        return record;
    }
};

TEST_F(RepairHostileTest, RecordsThatCannotBe) {
    ExpectRefused({99}, "there is no record type 99");
    ExpectRefused({MIFPT_UNKNOWN}, "there is no record type 0");
    ExpectRefused({MIFPT_AUDIO_FRAME, 0, 0}, "it is cut off");
    ExpectRefused(VideoFrame(0), "its size is 0");
    ExpectRefused(VideoFrame(0x80000000), "its size does not fit 31 bits");
    ExpectRefused(VideoFrame(1, 7), "its sync mark is neither 0 nor 1");
    ExpectRefused(VideoFrame(1), "it points past the end of the media data");
    ExpectRefused(TimedFrame(MIFPT_AUDIO_FRAME, INT32_MAX), "it points past the end");
    ExpectRefused({MIFPT_TMCD_FRAME, 1, 2, 3, 4}, "it points past the end");
}

TEST_F(RepairHostileTest, FormatsThatCannotBe) {
    FileBytes video = {MIFPT_VIDEO_FORMAT};
    Append(video, BigEndian(90000, 4));
    Append(video, BigEndian(3000, 8));
    FileBytes tooLong = video;
    Append(tooLong, {MP4_MVC_H264, 0, 64, 0, 64, 0xFF, 0xFF, 0xFF, 0xFF});
    ExpectRefused(tooLong, "a parameter set of impossible length");
    FileBytes pastTheEnd = video;
    Append(pastTheEnd, {MP4_MVC_H264, 0, 64, 0, 64, 0, 0, 0x7F, 0xFF, 1, 2});
    ExpectRefused(pastTheEnd, "it is cut off");
    FileBytes unknownCodec = video;
    Append(unknownCodec, {9, 0, 64, 0, 64});
    ExpectRefused(unknownCodec, "there is no video codec 9");
    FileBytes noWidth = video;
    Append(noWidth, {MP4_MVC_PRORES, 0, 0, 0, 64, 3});
    ExpectRefused(noWidth, "width or height is 0");
    FileBytes audio = {MIFPT_AUDIO_FORMAT};
    Append(audio, FileBytes(18, 1));
    audio[13] = 77;
    ExpectRefused(audio, "there is no audio codec 77");
}

TEST_F(RepairHostileTest, MetadataThatCannotBe) {
    ExpectRefused({MIFPT_METADATA, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0}, "its key is missing");
    ExpectRefused({MIFPT_METADATA, 1, 0xFF, 0xFF, 0xFF, 0xFF}, "it is cut off");
    ExpectRefused({MIFPT_METADATA, 1, 0, 0, 0, 2, 'a', 'b'}, "a string without its end");
    ExpectRefused({MIFPT_METADATA, 1, 0, 0, 0, 2, 'a', 0, 0, 0, 0, 1, 'x', 0, 0, 0, 0},
                  "its value is not a string");
}

// Media data that contradicts its record

class RepairMediaTest : public RepairTest {
protected:
    /// Changes the recording and expects the repair to end at the first picture after `kept`.
    void ExpectEndsAt(uint64_t kept, const std::string& reason,
                      const std::function<void(FileBytes&)>& edit) {
        SCOPED_TRACE(reason);
        Edit(m_path, edit);
        const RepairReport report = RunRepair();
        EXPECT_EQ(report.outcome, RepairOutcome::kLoss);
        EXPECT_NE(report.reason.find(reason), std::string::npos) << report.reason;
        EXPECT_EQ(Kept(report), kept);
        EXPECT_EQ(Kept(report) + Dropped(report), 28U);
    }
    static constexpr size_t kFirstSample = 44;
};

TEST_F(RepairMediaTest, NalUnitsMustLeadToTheEndOfTheirSample) {
    Record({});
    ExpectEndsAt(0, "a NAL unit is longer than the sample",
                 [](FileBytes& file) { file[kFirstSample + 2] += 1; });
    Record({});
    ExpectEndsAt(0, "a NAL unit header is impossible",
                 [](FileBytes& file) { file[kFirstSample + 4] |= 0x80; });
    Record({});
    ExpectEndsAt(0, "its media data was never written",
                 [](FileBytes& file) { std::fill_n(file.begin() + kFirstSample, 8, uint8_t{0}); });
    Record({});
    ExpectEndsAt(0, "its sync mark contradicts its NAL units", [](FileBytes& file) {
        // The two slices of the key picture follow its parameter sets.
        for (size_t at = kFirstSample, i = 0; i < 4; ++i) {
            if (file[at + 4] == 0x65) file[at + 4] = 0x41;
            at += 4 + file[at + 3] + (size_t{file[at + 2]} << 8);
        }
    });
}

TEST_F(RepairMediaTest, OtherSamplesMustCarryTheirMarks) {
    Scenario prores;
    prores.codec = MP4_MVC_PRORES;
    Record(prores);
    ExpectEndsAt(0, "it has no ProRes frame header",
                 [](FileBytes& file) { file[kFirstSample + 4] = 'x'; });
    Record(prores);
    ExpectEndsAt(0, "its size contradicts its ProRes frame header",
                 [](FileBytes& file) { file[kFirstSample + 1] = 1; });
    const auto find = [](FileBytes& file, const std::string& tag) {
        return std::search(file.begin(), file.end(), tag.begin(), tag.end());
    };
    Record({});
    ExpectEndsAt(4, "a caption atom is impossible",
                 [&](FileBytes& file) { *find(file, "cdat") = 'x'; });
    Record({});
    ExpectEndsAt(3, "its counter is not the one in the media data",
                 [&](FileBytes& file) { find(file, "cdat")[-5] ^= 1; });
}

// Two start codes in a row leave an empty unit, which the muxer stores.
TEST_F(RepairMediaTest, AnEmptyNalUnitIsNoFault) {
    m_path = m_folder.Path("a.mp4");
    auto calls = CallsOf({});
    calls.push_back({[](CMp4Muxer& muxer) {
                         const FileBytes frame = {0, 0, 1, 0, 0, 1, 0x41, 0x9A, 0x02};
                         return muxer.WriteVideoFrame(
                             frame.data(), static_cast<uint32_t>(frame.size()), 90000, 90000);
                     },
                     CallKind::kVideo, nullptr});
    m_finished = Finished(m_path, 0, calls);
    CutOff(m_path, 0, calls);
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
    EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
}

TEST_F(RepairMediaTest, MediaWithoutRecordIsLeftOutAndCounted) {
    Record({});
    Edit(m_path, [](FileBytes& file) { Append(file, {0, 0, 0, 9, 0x41, 0x9A}); });
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.outcome, RepairOutcome::kLoss);
    EXPECT_EQ(report.media_bytes_dropped, 6U);
    EXPECT_TRUE(ReadWholeFile(report.output_path) == m_finished);
}

TEST_F(RepairMediaTest, NeverWrittenPagesAreDoubted) {
    Scenario scenario;
    scenario.smallestPicture = 9000;
    scenario.largestPicture = 12000;
    Record(scenario);
    Edit(m_path, [](FileBytes& file) {
        std::fill_n(file.begin() + 2 * 4096, 4096, uint8_t{0});  // inside the first key picture
    });
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.outcome, RepairOutcome::kLoss);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_kept +
                  report.tracks[kx_mp4::kRepairVideo].frames_dropped,
              8U);
    EXPECT_NE(report.tracks[kx_mp4::kRepairVideo].frames_doubtful +
                  report.tracks[kx_mp4::kRepairVideo].frames_dropped,
              0U);
}

// Files that are not what they should be

TEST_F(RepairTest, ForeignFilesAreRefused) {
    Record({});
    const FileBytes recording = ReadWholeFile(m_path);
    const FileBytes info = ReadWholeFile(Info());
    const auto expectFailed = [&](const FileBytes& main, const FileBytes& side, const char* what) {
        WriteWholeFile(m_path, main);
        WriteWholeFile(Info(), side);
        for (const bool inPlace : {false, true}) {
            RepairOptions options;
            options.in_place = inPlace;
            const RepairReport report = RunRepair(options);
            EXPECT_EQ(report.outcome, RepairOutcome::kFailed) << what;
            EXPECT_FALSE(report.reason.empty()) << what;
        }
        EXPECT_TRUE(ReadWholeFile(m_path) == main) << what;
        EXPECT_TRUE(std::filesystem::exists(Info())) << what;
    };
    expectFailed({}, info, "empty recording");
    expectFailed(recording, {}, "empty info");
    expectFailed(recording, {info[0], 0, 0}, "info without its head");
    expectFailed(FileBytes(5000, 'x'), info, "text");
    expectFailed(FileBytes(recording.begin(), recording.begin() + 40), info, "cut header");
    expectFailed(recording, recording, "recording as info");
    FileBytes otherForm = info;
    otherForm[0] |= MP4_FLAG_64BIT_SIZE;
    expectFailed(recording, otherForm, "other header form");
    FileBytes otherBrand = recording;
    otherBrand[8] = 'x';
    expectFailed(otherBrand, info, "other brand");
    std::filesystem::remove(Info());
    EXPECT_EQ(RunRepair().outcome, RepairOutcome::kFailed);
}

TEST_F(RepairTest, FinishedFileStaysAsItIs) {
    Record({});
    const FileBytes info = ReadWholeFile(Info());
    WriteWholeFile(m_path, m_finished);
    RepairOptions options;
    options.in_place = true;
    // With its own info file, as Close leaves it when it is stopped before the removal.
    EXPECT_EQ(RunRepair(options).outcome, RepairOutcome::kWhole);
    EXPECT_TRUE(ReadWholeFile(m_path) == m_finished);
    EXPECT_FALSE(std::filesystem::exists(Info()));
    // With the info file of a shorter recording.
    WriteWholeFile(Info(), FileBytes(info.begin(), info.end() - 40));
    EXPECT_EQ(RunRepair(options).outcome, RepairOutcome::kFailed);
    EXPECT_EQ(RunRepair().outcome, RepairOutcome::kLoss);
    EXPECT_TRUE(ReadWholeFile(m_path) == m_finished);
}

TEST_F(RepairTest, UnusableParameterSetsFailBeforeAnythingIsWritten) {
    Record({});
    // The length of the SPS, then its bytes: cut to three.
    Edit(Info(), [](FileBytes& info) {
        const size_t length = 5 + 1 + 17;
        info.erase(info.begin() + length + 4, info.begin() + length + 4 + 6);
        info[length + 3] = 3;
    });
    const FileBytes before = ReadWholeFile(m_path);
    RepairOptions options;
    options.in_place = true;
    EXPECT_EQ(RunRepair(options).outcome, RepairOutcome::kFailed);
    EXPECT_TRUE(ReadWholeFile(m_path) == before);
    EXPECT_EQ(RunRepair().outcome, RepairOutcome::kFailed);
    EXPECT_FALSE(std::filesystem::exists(m_folder.Path("a.repaired.mp4")));
}

// A page of the repair info file that never reached the disk must not complete a record: the
// audio frame below would seem to be 256 bytes long instead of 257.
TEST_F(RepairTest, RecordIsNotCompletedByAnUnwrittenPage) {
    m_path = m_folder.Path("a.mp4");
    std::vector<Call> calls = CallsOf({});
    const FileBytes frame(257, 0x55);
    const auto audio = [&](CMp4Muxer& muxer) {
        return muxer.WriteAudioFrame(frame.data(), 257, 5);
    };
    const auto info = m_path + ".info";
    {
        CMp4Muxer muxer;
        ASSERT_EQ(Open(muxer, m_path, 0), MP4_STATUS_SUCCESS);
        for (const Call& call : calls)
            ASSERT_EQ(call.run(muxer), MP4_STATUS_SUCCESS);
        const auto at = [&] { return std::filesystem::file_size(info); };
        // Metadata fills the page up to where ten audio records leave one byte of the eleventh.
        const uint64_t wanted = (at() / 4096 + 1) * 4096 - 10 * 13 - 12;
        const std::string value(wanted - at() - 17, 'v');
        ASSERT_EQ(muxer.SetMetadata("k", value.c_str(), 0, MP4_META_DATA_TYPE_STRING, nullptr),
                  MP4_STATUS_SUCCESS);
        ASSERT_EQ(at(), wanted);
        for (int i = 0; i < 11; ++i)
            ASSERT_EQ(audio(muxer), MP4_STATUS_SUCCESS);
        ASSERT_EQ(at() % 4096, 1U);
    }
    Edit(info, [](FileBytes& bytes) { bytes.back() = 0; });
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.tracks[kx_mp4::kRepairAudio].frames_kept, 26U);
    EXPECT_NE(report.reason.find("never written"), std::string::npos) << report.reason;
}

// The recording is sparse: what matters are positions past 4 GiB.
TEST_F(RepairTest, PastFourGibibytesTheHeaderGrowsAndOffsetsWiden) {
    m_path = m_folder.Path("a.mp4");
    Scenario scenario;
    scenario.pictures = 2;
    CutOff(m_path, 0, CallsOf(scenario));
    // ProRes frames of nearly 2 GiB, of which only the head is there.
    FileBytes info = ReadWholeFile(Info());
    FileBytes format = {MIFPT_VIDEO_FORMAT};
    Append(format, BigEndian(90000, 4));
    Append(format, BigEndian(3000, 8));
    Append(format, {MP4_MVC_PRORES, 0, 64, 0, 64, 3});
    Append(info, format);
    constexpr uint32_t kHuge = 0x7FFFF000;
    uint64_t end = std::filesystem::file_size(m_path);
    std::fstream file(m_path, std::ios::binary | std::ios::in | std::ios::out);
    for (int i = 0; i < 4; ++i) {
        FileBytes head = BigEndian(kHuge, 4);
        Append(head, {'i', 'c', 'p', 'f'});
        file.seekp(static_cast<std::streamoff>(end));
        file.write(reinterpret_cast<const char*>(head.data()), 8);
        end += kHuge;
        FileBytes record = {MIFPT_VIDEO_FRAME};
        Append(record, BigEndian(static_cast<uint64_t>(i + 2) * 3000, 8));
        Append(record, BigEndian(static_cast<uint64_t>(i + 2) * 3000, 8));
        record.push_back(1);
        Append(record, BigEndian(kHuge, 4));
        Append(info, record);
    }
    file.close();
    std::filesystem::resize_file(m_path, end);
    WriteWholeFile(Info(), info);
    RepairOptions options;
    options.in_place = true;
    options.keep_info = true;
    FileBytes head(44);
    FileBytes first;
    for (int run = 0; run < 2; ++run) {  // the second one finds the grown header
        const RepairReport report = RunRepair(options);
        EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_kept, 6U) << report.reason;
        EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_doubtful, 4U);
        EXPECT_EQ(std::filesystem::file_size(m_path), report.output_bytes);
        std::ifstream repaired(m_path, std::ios::binary);
        repaired.read(reinterpret_cast<char*>(head.data()), 44);
        FileBytes expected = {0, 0, 0, 1, 'm', 'd', 'a', 't'};
        Append(expected, BigEndian(end - 28, 8));
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), head.begin() + 28));
        repaired.seekg(static_cast<std::streamoff>(end));
        const FileBytes index{std::istreambuf_iterator<char>(repaired), {}};
        const std::string co64 = "co64";
        EXPECT_NE(std::search(index.begin(), index.end(), co64.begin(), co64.end()), index.end());
        if (run == 0) first = index;
        EXPECT_TRUE(index == first);
    }
}

}  // namespace
