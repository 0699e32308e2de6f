#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>

#include "InfoWriter.h"
#include "kx_mp4/repair.h"
#include "repair_scenario.h"
#include "system_calls.h"

using kx_mp4::Repair;
using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairReport;
using namespace repair_scenario;

namespace {

constexpr size_t kFirstSample = 44;
constexpr uint64_t kPast32Bits = uint64_t{5} << 32;

void Append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes BigEndian(uint64_t value, int width) {
    Bytes bytes;
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    return bytes;
}

class RepairTest : public testing::Test {
protected:
    /// A recording without its index, and the file that Close would have made of it.
    void Record(const Scenario& scenario, uint32_t flags = 0, const char* name = "a.mp4") {
        RecordCalls(CallsOf(scenario), flags, name);
    }
    void RecordCalls(const std::vector<Call>& calls, uint32_t flags = 0,
                     const char* name = "a.mp4") {
        m_path = m_folder.Path(name);
        m_finished = Finished(m_path, flags, calls);
        CutOff(m_path, flags, calls);
    }
    std::string Info() const { return m_path + ".info"; }
    /// Over what an earlier run has left.
    RepairReport RunRepair(RepairOptions options = {}) {
        options.overwrite = true;
        return Repair(m_path, options);
    }
    void ExpectRepaired(const RepairReport& report, RepairOutcome outcome) {
        EXPECT_EQ(report.outcome, outcome) << report.reason;
        EXPECT_TRUE(ReadFile(report.output_path) == m_finished) << report.reason;
    }
    static void Edit(const std::string& path, const std::function<void(Bytes&)>& edit) {
        Bytes bytes = ReadFile(path);
        edit(bytes);
        WriteWholeFile(path, bytes);
    }

    Folder m_folder;
    std::string m_path;
    Bytes m_finished;
};

// The side file is damaged: cut anywhere, one byte other, a page of zeros. Whatever that does to
// the index, every byte of the media data is there afterwards, and in place nothing changes at all
// without the asker's word when more than a sample would be without an index.
TEST_F(RepairTest, ADamagedSideFileCostsNoByteOfTheMedia) {
    Scenario scenario;
    scenario.pictures = 6;
    Record(scenario);
    const Bytes recording = ReadFile(m_path);
    const Bytes info = ReadFile(Info());
    std::vector<Bytes> damaged;
    for (size_t at = 0; at < info.size(); ++at) {
        damaged.emplace_back(info.begin(), info.begin() + static_cast<ptrdiff_t>(at));
        damaged.push_back(info);
        damaged.back()[at] ^= 0x10;
        damaged.push_back(info);
        damaged.back()[at] = 0;
    }
    for (const size_t first : {size_t{5}, info.size() / 2}) {
        damaged.push_back(info);
        std::fill(damaged.back().begin() + static_cast<ptrdiff_t>(first), damaged.back().end(),
                  uint8_t{0});
    }
    size_t refused = 0;
    size_t whole = 0;
    for (const Bytes& bytes : damaged) {
        for (const bool force : {false, true}) {
            WriteWholeFile(m_path, recording);
            WriteWholeFile(Info(), bytes);
            RepairOptions options;
            options.in_place = true;
            options.force = force;
            const RepairReport report = RunRepair(options);
            const Bytes after = ReadFile(m_path);
            if (report.outcome == RepairOutcome::kFailed) {
                ++refused;
                ASSERT_TRUE(after == recording) << report.reason;
                ASSERT_FALSE(report.reason.empty());
                continue;
            }
            // From the first sample on; the header before it has got its size.
            ASSERT_TRUE(std::equal(recording.begin() + kFirstSample, recording.end(),
                                   after.begin() + kFirstSample))
                << report.reason;
            const bool isWhole = report.outcome == RepairOutcome::kWhole;
            ASSERT_EQ(std::filesystem::exists(Info()), !isWhole) << report.reason;
            if (isWhole) ++whole;
            ASSERT_TRUE(force || report.media_bytes_unexplained < 310) << "a sample at most";
        }
    }
    EXPECT_GT(refused, 500U);
    EXPECT_GT(whole, 100U) << "such as another time, or another title";
}

// Frames that the muxer takes in an unusual way stand in the media data like any other.
TEST_F(RepairTest, UnusualCallsShiftNothing) {
    auto calls = CallsOf({});
    for (Call& call : calls)
        if (call.kind == CallKind::kAudio)
            call.run = [run = call.run](CMp4Muxer& muxer) {
                EXPECT_EQ(run(muxer), MP4_STATUS_NO_SPACE_LEFT_IN_HEADER);
                return MP4_STATUS_SUCCESS;
            };
    calls.erase(calls.begin() + 1);  // the audio track
    // Two start codes in a row leave an empty unit, which the muxer stores.
    calls.push_back({[](CMp4Muxer& muxer) {
                         const Bytes frame = Hex("000001 000001 419a02");
                         return muxer.WriteVideoFrame(frame.data(), 9, kPast32Bits, kPast32Bits);
                     },
                     CallKind::kVideo});
    RecordCalls(calls);
    EXPECT_GT(MovieReader(m_finished).TrackOf("vide").duration, uint64_t{4} << 32);
    const RepairReport report = RunRepair();
    ExpectRepaired(report, RepairOutcome::kWhole);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairAudio].frames_without_track, 16U);
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
}

TEST_F(RepairTest, TheNameOfAnUnfinishedOutputIsAFreeOne) {
    Record({});
    const std::string foreign =
        m_folder.Path("a.repaired.mp4.") + std::to_string(getpid()) + "-0.part";
    WriteWholeFile(foreign, {1});
    ExpectRepaired(RunRepair(), RepairOutcome::kWhole);
    EXPECT_EQ(ReadFile(foreign), Bytes{1}) << "somebody else's";
}

TEST_F(RepairTest, WhatIsBeingRepairedIsNotRecordedOver) {
    Record({});
    RepairOptions options;
    options.progress = [this](const kx_mp4::RepairProgress&) {
        CMp4Muxer second;
        EXPECT_EQ(Open(second, m_path, 0), MP4_STATUS_DEVICE_OR_RESOURCE_BUSY);
        return true;
    };
    ExpectRepaired(RunRepair(options), RepairOutcome::kWhole);
}

TEST_F(RepairTest, WithoutRoomNothingIsChanged) {
    Record({});
    const Bytes recording = ReadFile(m_path);
    for (const bool inPlace : {false, true}) {
        RepairOptions options;
        options.in_place = inPlace;
        const uint64_t need = m_finished.size() - (inPlace ? recording.size() : 0);
        FileSystem::room = need - 1;
        const RepairReport report = RunRepair(options);
        FileSystem::room = UINT64_MAX;
        EXPECT_EQ(report.outcome, RepairOutcome::kFailed);
        EXPECT_EQ(report.reason, "the file system has no room for the repaired file: it takes " +
                                     std::to_string(need) + " bytes, 1 more than there are");
        EXPECT_TRUE(ReadFile(m_path) == recording);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.Path("")), {}), 2);
    }
}

// Every call of the system on a file fails in turn, once and for good, is interrupted, or moves
// fewer bytes than it was asked for: the answer is a failure or none, no byte of the media is lost,
// and the next repair makes what this one should have made.
TEST_F(RepairTest, EverySystemCallFails) {
    const Bytes inFlight = {0, 0, 0, 9, 0x41, 0x9A};
    Record({});
    Edit(m_path, [&](Bytes& file) { Append(file, inFlight); });
    m_finished = WithUnexplained(m_finished, inFlight);
    const Bytes recording = ReadFile(m_path);
    const std::string copy = m_folder.Path("a.repaired.mp4");
    const auto sweep = [&](bool inPlace, int failure, bool forGood) {
        int failures = 0;
        bool hit = true;
        for (int failing = 1; hit; ++failing) {
            SCOPED_TRACE(failing);
            std::filesystem::remove(copy);
            WriteWholeFile(m_path, recording);
            RepairOptions options;
            options.in_place = inPlace;
            RepairReport report;
            {
                const FaultInjection fault(failing, failure, FaultInjection::Of::kFiles, forGood);
                report = Repair(m_path, options);
                hit = fault.Hit();
            }
            // A folder that cannot be pushed is no failure.
            EXPECT_NE(report.outcome, RepairOutcome::kWhole);
            const bool failed = report.outcome == RepairOutcome::kFailed;
            EXPECT_TRUE(hit || !failed) << report.reason;
            EXPECT_EQ(failed, !report.reason.empty() && report.output_path.empty());
            failures += failed ? 1 : 0;
            const Bytes now = ReadFile(m_path);
            EXPECT_TRUE(inPlace ? std::equal(recording.begin() + kFirstSample, recording.end(),
                                             now.begin() + kFirstSample)
                                : now == recording);
            if (failed && !inPlace) {
                EXPECT_FALSE(std::filesystem::exists(copy)) << report.reason;
            }
            ExpectRepaired(failed ? RunRepair(options) : report, RepairOutcome::kLoss);
        }
        return failures;
    };
    for (const bool inPlace : {false, true}) {
        for (FileSystem::copies = false;; FileSystem::copies = true) {
            for (const bool forGood : {false, true})
                EXPECT_GT(sweep(inPlace, ENOSPC, forGood), 10);
            for (const int harmless : {EINTR, FaultInjection::kShortWrite})
                EXPECT_EQ(sweep(inPlace, harmless, false), 0);
            if (FileSystem::copies) break;
        }
    }
}

// A side file of 3 GiB of which a few pages exist: no length in it is believed that has no bytes.
TEST_F(RepairTest, MemoryIsBoundedByWhatIsReallyThere) {
    Record({});
    // Values of 8 MiB, each in a hole of its own.
    std::fstream info(Info(), std::ios::binary | std::ios::in | std::ios::out | std::ios::ate);
    const Bytes head = Hex("01 00 00000002 6b00 00800000");
    for (int i = 0; i < 300; ++i) {
        info.write(reinterpret_cast<const char*>(head.data()), 12);
        info.seekp(0x00800000 + 4, std::ios::cur);  // the value, and no namespace
    }
    info.close();
    std::filesystem::resize_file(Info(), uint64_t{3} << 30);
    const RepairReport report = RunRepair();
    EXPECT_EQ(report.outcome, RepairOutcome::kLoss);
    EXPECT_NE(report.reason.find("a length of which the file has no bytes"), std::string::npos);
    rusage usage{};
    ASSERT_EQ(getrusage(RUSAGE_SELF, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 1 << 20) << "KiB";
}

// Memory refused at every allocation in turn, once and for good: the answer is std::bad_alloc or a
// failed report, nothing is left behind, and the next repair makes what the first should have made.
TEST_F(RepairTest, MemoryIsRefused) {
    Scenario scenario;
    scenario.deferred = true;
    for (const bool inPlace : {false, true}) {
        for (const bool forGood : {false, true}) {
            int failing = 0;
            for (bool hit = true; hit;) {
                if (failing == 0 || inPlace) Record(scenario);
                RepairOptions options;
                options.in_place = inPlace;
                RepairReport report;
                bool thrown = false;
                {
                    const FaultInjection fault(++failing, ENOMEM, FaultInjection::Of::kMemory,
                                               forGood);
                    try {
                        report = RunRepair(options);
                    } catch (const std::bad_alloc&) {
                        thrown = true;
                    }
                    hit = fault.Hit();
                }
                EXPECT_TRUE(hit || report.outcome == RepairOutcome::kWhole) << report.reason;
                if (inPlace && hit && std::filesystem::exists(Info())) report = RunRepair(options);
                EXPECT_TRUE(!thrown || hit);
                if (inPlace) {
                    EXPECT_TRUE(ReadFile(m_path) == m_finished) << failing;
                } else if (hit && report.outcome != RepairOutcome::kWhole) {
                    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder.Path("")),
                                            std::filesystem::directory_iterator()),
                              2)
                        << failing << ": the recording and its side file";
                }
            }
            EXPECT_GT(failing, 40);
            std::filesystem::remove(m_folder.Path("a.repaired.mp4"));
        }
    }
}

// A page of the repair info file that never reached the disk must not complete a record: the
// audio frame below would seem to be 256 bytes long instead of 257.
TEST_F(RepairTest, RecordIsNotCompletedByAnUnwrittenPage) {
    m_path = m_folder.Path("a.mp4");
    auto recorder = std::make_unique<CMp4Muxer>();
    CMp4Muxer& muxer = *recorder;
    ASSERT_EQ(Open(muxer, m_path, 0), MP4_STATUS_SUCCESS);
    for (const Call& call : CallsOf({}))
        ASSERT_EQ(call.run(muxer), MP4_STATUS_SUCCESS);
    const auto at = [this] { return std::filesystem::file_size(Info()); };
    // Metadata fills the page up to where ten audio records leave one byte of the eleventh.
    const uint64_t wanted = (at() / 4096 + 1) * 4096 - 10 * 13 - 12;
    const std::string value(wanted - at() - 17, 'v');
    ASSERT_EQ(muxer.SetMetadata("k", value.c_str(), 0, MP4_META_DATA_TYPE_STRING, nullptr),
              MP4_STATUS_SUCCESS);
    for (int i = 0; i < 11; ++i)
        ASSERT_EQ(muxer.WriteAudioFrame(Bytes(257, 0x55).data(), 257, 5), MP4_STATUS_SUCCESS);
    ASSERT_EQ(at() % 4096, 1U);
    recorder.reset();
    Edit(Info(), [](Bytes& bytes) { bytes.back() = 0; });
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
    const Bytes size = Hex("7ffff000");
    const Bytes frame = size + Bytes{'i', 'c', 'p', 'f'};
    Bytes info = ReadFile(Info()) + Hex("02 00015f90 0000000000000bb8 02 0040 0040 03");
    uint64_t end = std::filesystem::file_size(m_path);
    std::fstream file(m_path, std::ios::binary | std::ios::in | std::ios::out);
    for (uint64_t time = 6000; time < 18000; time += 3000) {
        file.seekp(static_cast<std::streamoff>(end));
        file.write(reinterpret_cast<const char*>(frame.data()), 8);
        end += 0x7FFFF000;
        Append(info, Hex("04") + BigEndian(time, 8) + BigEndian(time, 8) + Hex("01") + size);
    }
    file.close();
    std::filesystem::resize_file(m_path, end);
    WriteWholeFile(Info(), info);
    RepairOptions options;
    options.in_place = true;
    options.keep_info = true;
    Bytes first;
    for (int run = 0; run < 2; ++run) {  // the second one finds the grown header
        const RepairReport report = RunRepair(options);
        EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_kept, 6U) << report.reason;
        EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_doubtful, 4U);
        EXPECT_EQ(std::filesystem::file_size(m_path), report.output_bytes);
        std::ifstream repaired(m_path, std::ios::binary);
        Bytes head(kFirstSample);
        repaired.read(reinterpret_cast<char*>(head.data()), kFirstSample);
        const Bytes expected = Hex("00000001 6d646174") + BigEndian(end - 28, 8);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), head.begin() + 28));
        repaired.seekg(static_cast<std::streamoff>(end));
        const Bytes index{std::istreambuf_iterator<char>(repaired), {}};
        const std::string co64 = "co64";
        EXPECT_NE(std::search(index.begin(), index.end(), co64.begin(), co64.end()), index.end());
        if (run == 0) first = index;
        EXPECT_TRUE(index == first);
    }
}

}  // namespace
