#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <tuple>

#include "LiveRecording.h"
#include "kx_mp4/repair.h"
#include "repair_scenario.h"
#include "system_calls.h"

using kx_mp4::Repair;
using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairReport;
using namespace repair_scenario;

namespace {

/// Over what the state before has left.
RepairReport RepairAgain(const std::string& path) {
    RepairOptions options;
    options.overwrite = true;
    return Repair(path, options);
}

/// What stands between the samples of a live index: positions in the file.
struct LiveInterval {
    std::ptrdiff_t header = 0;  // of its media data
    std::ptrdiff_t indexBegin = 0;
    std::ptrdiff_t indexEnd = 0;  // with the header of the next media data
    uint64_t samples = 0;         // that the index lists
};

std::vector<LiveInterval> IntervalsOf(const Bytes& recording) {
    const MovieReader reader(recording);
    std::vector<LiveInterval> intervals(1);
    for (const Box& box : reader.File().children) {
        LiveInterval& interval = intervals.back();
        const auto begin = static_cast<std::ptrdiff_t>(box.offset);
        if (box.type == "mdat") interval.header = begin;
        const bool indexes = box.type == "moov" || box.type == "moof";
        if (indexes && interval.indexBegin == 0) interval.indexBegin = begin;
        if (box.type != "moof") continue;
        for (const Box& traf : box.children) {
            for (const Box& run : traf.children)
                interval.samples += run.type == "trun" ? run.U32(12) : 0;
        }
        interval.indexEnd = begin + static_cast<std::ptrdiff_t>(box.size) + 16;
        intervals.emplace_back();
    }
    intervals.pop_back();
    return intervals;
}

/// Bytes that are something else after a power cut.
struct Damage {
    std::ptrdiff_t begin = 0;
    std::ptrdiff_t end = 0;
    uint8_t value = 0;
    bool losesIndex = true;
};

std::vector<Damage> DamagesOf(const LiveInterval& interval) {
    const auto [header, begin, end, samples] = interval;
    return {{begin, end},
            {begin, end, 0xA5},
            {begin, begin + 30},
            {begin + 40, end},
            {end - 16, end, 0, false},            // the next header
            {header + 3, header + 4, 0, false}};  // as before the index
}

uint64_t FramesKept(const RepairReport& report) {
    uint64_t frames = 0;
    for (const auto& track : report.tracks)
        frames += track.frames_kept;
    return frames;
}

/// Intervals of a live index end before the next frame, whose loss leaves them where they are.
bool HoldsSameSamples(const Bytes& made, const Bytes& file) {
    const MovieReader wanted(made);
    const MovieReader found(file);
    if (wanted.Tracks().size() != found.Tracks().size()) return false;
    for (size_t i = 0; i < wanted.Tracks().size(); ++i) {
        const Track& a = wanted.Tracks()[i];
        const Track& b = found.Tracks()[i];
        const auto same = [&](const Sample& x, const Sample& y) {
            return x.dts == y.dts && x.cts == y.cts && x.sync == y.sync &&
                   x.duration == y.duration && wanted.SampleBytes(x) == found.SampleBytes(y);
        };
        for (const char* box : {"tkhd", "edts", "mdia/mdhd", "mdia/minf/stbl/stsd"})
            if (a.box->At(box).Dump() != b.box->At(box).Dump()) return false;
        if (!std::equal(a.samples.begin(), a.samples.end(), b.samples.begin(), b.samples.end(),
                        same))
            return false;
    }
    return wanted.File().ChildTypes() == found.File().ChildTypes();
}

/// A recording of which every write is known, and what Close would have made of each beginning.
class LoggedRecording {
public:
    LoggedRecording(const Folder& folder, const Scenario& scenario, uint32_t flags,
                    const std::string& name = "a.mp4")
        : path(folder.Path(name)), calls(CallsOf(scenario)), live(scenario.liveMs != 0) {
        for (size_t count = 0; count <= calls.size(); ++count) {
            finished.push_back(FinishedInMemory(path, flags, calls, count));
            if (count != 0 && calls[count - 1].configuration)
                halfway[count] = FinishedInMemory(path, flags, calls, count, true);
        }
        WriteLog log(folder.Path(""));
        CMp4Muxer muxer;
        EXPECT_EQ(Open(muxer, path, flags), MP4_STATUS_SUCCESS);
        for (const Call& call : calls) {
            EXPECT_EQ(call.run(muxer), MP4_STATUS_SUCCESS);
            log.Mark();
        }
        EXPECT_EQ(muxer.Close(), MP4_STATUS_SUCCESS);
        operations = log.operations;
        FindExtents();
    }

    std::string Info() const { return path + ".info"; }

    /// Whether the file is what the first `count` calls make, or the next one up to its
    /// configuration, with what may lie behind the last sample still in its media data.
    bool IsFinishedAfter(size_t count, const Bytes& file) const {
        if (count < finished.size() && Is(finished[count], file)) return true;
        const auto half = halfway.find(count + 1);
        return half != halfway.end() && Is(half->second, file);
    }
    bool Is(const Bytes& made, const Bytes& file) const {
        if (live) return HoldsSameSamples(made, file);
        const Bytes rest = UnexplainedIn(file, made);
        return rest.empty() ? file == made : file == WithUnexplained(made, rest);
    }
    bool HasFrames(size_t count) const {
        return std::any_of(calls.data(), calls.data() + count,
                           [](const Call& call) { return call.IsFrame(); });
    }

    const std::string path;
    const std::vector<Call> calls;
    const bool live;
    std::vector<Bytes> finished;      // by the number of calls
    std::map<size_t, Bytes> halfway;  // the last call only up to its configuration
    std::vector<std::pair<std::ptrdiff_t, std::ptrdiff_t>> extents;  // of each call's sample
    std::vector<FileOperation> operations;  // with a mark after each call, then those of Close

private:
    void FindExtents() {
        std::pair<std::ptrdiff_t, std::ptrdiff_t> extent{};
        for (const FileOperation& operation : operations) {
            if (operation.kind == FileOperation::kMark) {
                extents.push_back(extent);
                extent = {extent.second, extent.second};
            } else if (operation.kind == FileOperation::kWrite && operation.path == path) {
                const auto begin = static_cast<std::ptrdiff_t>(operation.position);
                extent.second = begin + static_cast<std::ptrdiff_t>(operation.bytes.size());
            }
            if (extents.size() == calls.size()) break;
            if (extents.empty()) extent.first = extent.second;  // the file's header
        }
    }
};

// Every moment of a recording and of its Close, and every byte of each write: what was reported
// as written is there, exactly, and nothing that was not written.
class CrashAtEveryByte : public testing::Test {
protected:
    void Try(const LoggedRecording& recording, const FileStates& files, size_t returned) {
        ++m_states;
        WriteWholeFile(recording.path, files.Of(recording.path));
        WriteWholeFile(recording.Info(), files.Of(recording.Info()));
        const RepairReport report = RepairAgain(recording.path);
        if (report.outcome == RepairOutcome::kFailed) {
            ASSERT_FALSE(recording.HasFrames(returned)) << report.reason;
            return;
        }
        const Bytes repaired = ReadFile(report.output_path);
        ASSERT_EQ(report.outcome == RepairOutcome::kLoss, !report.reason.empty());
        ASSERT_TRUE(report.media_bytes_unexplained == 0 || report.outcome == RepairOutcome::kLoss);
        ASSERT_TRUE(recording.IsFinishedAfter(returned, repaired) ||
                    recording.IsFinishedAfter(returned + 1, repaired))
            << report.reason;
        if (returned == recording.calls.size()) {
            ASSERT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
        }
    }

    void TryAll(const Scenario& scenario, uint32_t flags, const std::string& name = "a.mp4") {
        m_states = 0;
        const LoggedRecording recording(m_folder, scenario, flags, name);
        FileStates files;
        size_t returned = 0;
        size_t position = 0;
        for (const FileOperation& operation : recording.operations) {
            SCOPED_TRACE("operation " + std::to_string(position++) + " after " +
                         std::to_string(returned) + " calls");
            if (operation.kind == FileOperation::kRemove) break;  // Close is done
            if (operation.kind == FileOperation::kMark) ++returned;
            for (size_t cut = 1; cut < operation.bytes.size(); ++cut) {
                FileStates torn = files;
                torn.Apply(operation, cut);
                ASSERT_NO_FATAL_FAILURE(Try(recording, torn, returned)) << "cut at " << cut;
            }
            files.Apply(operation);
            if (operation.kind == FileOperation::kWrite) {
                ASSERT_NO_FATAL_FAILURE(Try(recording, files, returned));
            }
        }
        EXPECT_EQ(returned, recording.calls.size());
        EXPECT_EQ(files.Of(recording.path), recording.finished.back());
        EXPECT_GT(m_states, recording.finished.back().size());
    }

    /// Does something to files that are `files`, and tells `check` every state in which it may have
    /// been killed.
    template <class Act, class Check>
    void KillAnywhere(FileStates files, const std::string& path, Act&& act, Check&& check) {
        WriteLog log(path);
        act();
        const std::vector<FileOperation> operations = std::move(log.operations);
        for (const FileOperation& operation : operations) {
            for (size_t cut = 1; cut <= operation.bytes.size(); ++cut) {
                FileStates torn = files;
                torn.Apply(operation, cut);
                ++m_states;
                ASSERT_NO_FATAL_FAILURE(check(torn));
            }
            files.Apply(operation);
        }
    }

    Folder m_folder;
    size_t m_states = 0;
};

TEST_F(CrashAtEveryByte, Mp4ThenQuickTimeWithWideFieldsAndConfigurationsInTheStream) {
    Scenario scenario;
    scenario.pictures = 5;
    scenario.largestPicture = 90;
    TryAll(scenario, 0);
    scenario.deferred = true;
    scenario.codec = MP4_MVC_HEVC;
    scenario.captions = MP4_SUBTITLE_CODEC_CC708;
    TryAll(scenario, MP4_FLAG_64BIT_SIZE | MP4_FLAG_64BIT_TIME, "a.mov");
}

TEST_F(CrashAtEveryByte, WithALiveIndex) {
    Scenario scenario;
    scenario.pictures = 7;
    scenario.largestPicture = 60;
    scenario.liveMs = 60;
    scenario.offsets = true;
    TryAll(scenario, 0);
    scenario.deferred = true;
    scenario.offsets = false;
    TryAll(scenario, MP4_FLAG_64BIT_SIZE, "a.mov");
}

// What has a record is byte for byte what Close makes, in a copy and in place, whose every write
// can be the last one.
TEST_F(CrashAtEveryByte, LiveRepairInPlace) {
    Scenario scenario;
    scenario.largestPicture = 60;
    scenario.liveMs = 60;
    const std::string path = m_folder.Path("a.mp4");
    const Bytes expected = Finished(path, 0, CallsOf(scenario));
    CutOff(path, 0, CallsOf(scenario));
    const Bytes info = ReadFile(path + ".info");
    FileStates files;
    const Bytes recording = ReadFile(path);
    files.Of(path) = recording;
    EXPECT_TRUE(ReadFile(RepairAgain(path).output_path) == expected);
    RepairOptions options;
    options.in_place = true;
    KillAnywhere(
        files, path,
        [&] {
            EXPECT_EQ(Repair(path, options).outcome, RepairOutcome::kWhole);
            EXPECT_TRUE(ReadFile(path) == expected);
        },
        [&](const FileStates& torn) {
            WriteWholeFile(path, torn.Of(path));
            WriteWholeFile(path + ".info", info);
            const RepairReport report = Repair(path, options);
            ASSERT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
            ASSERT_TRUE(ReadFile(path) == expected);
        });
    EXPECT_GT(m_states, 2000U);
    // A power cut: a header is closed, and not all of the index behind it is there.
    const std::string tag = "moof";
    const auto moof = std::find_end(recording.begin(), recording.end(), tag.begin(), tag.end()) - 4;
    const std::ptrdiff_t indexBytes = (moof[2] << 8 | moof[3]) + 16;  // with the header behind it
    std::vector<uint64_t> kept;
    for (std::ptrdiff_t bytes = 0; bytes < indexBytes; ++bytes) {
        WriteWholeFile(path, Bytes(recording.begin(), moof + bytes));
        WriteWholeFile(path + ".info", info);
        const RepairReport report = RepairAgain(path);
        ASSERT_EQ(report.outcome, RepairOutcome::kLoss) << report.reason;
        ASSERT_EQ(report.media_bytes_unexplained, 0U);
        kept.push_back(report.media_bytes_kept);
        ASSERT_EQ(MovieReader(ReadFile(report.output_path)).File().ChildTypes(),
                  "ftyp free mdat moov");
    }
    EXPECT_EQ(std::count(kept.begin(), kept.end(), kept[0]), indexBytes);
    // Half a frame behind the last record: not in place.
    CutOff(path, 0, CallsOf(scenario));
    Bytes torn = ReadFile(path);
    torn.resize(torn.size() - 10);
    WriteWholeFile(path, torn);
    EXPECT_EQ(Repair(path, options).outcome, RepairOutcome::kFailed);
    EXPECT_TRUE(ReadFile(path) == torn);
    EXPECT_EQ(RepairAgain(path).outcome, RepairOutcome::kLoss);
}

// A power cut can take any of what stands between the samples, or all from somewhere on: what is
// whole is restored, and also without a repair info file when its index is there.
TEST_F(CrashAtEveryByte, WhatStandsBetweenTheSamplesIsMissing) {
    Scenario scenario;
    scenario.largestPicture = 60;
    scenario.liveMs = 60;
    const std::string path = m_folder.Path("a.mp4");
    const Bytes expected = Finished(path, 0, CallsOf(scenario));
    CutOff(path, 0, CallsOf(scenario));
    const Bytes recording = ReadFile(path);
    const Bytes info = ReadFile(path + ".info");
    const auto restore = [&](const Bytes& file) {
        WriteWholeFile(path, file);
        WriteWholeFile(path + ".info", info);
    };
    const std::vector<LiveInterval> intervals = IntervalsOf(recording);
    ASSERT_EQ(intervals.size(), 5U);
    uint64_t listed = 0;
    for (const LiveInterval& interval : intervals)
        listed += interval.samples;
    uint64_t whole = 0;
    RepairOptions inPlace;
    inPlace.in_place = true;
    for (const LiveInterval& interval : intervals) {
        const bool first = whole == 0;
        whole += interval.samples;
        for (const Damage& damage : DamagesOf(interval)) {
            SCOPED_TRACE(std::to_string(damage.begin) + " to " + std::to_string(damage.end));
            Bytes torn = recording;
            std::fill(torn.begin() + damage.begin, torn.begin() + damage.end, damage.value);
            restore(torn);
            const RepairReport copied = RepairAgain(path);
            ASSERT_EQ(copied.outcome, RepairOutcome::kWhole) << copied.reason;
            ASSERT_TRUE(HoldsSameSamples(expected, ReadFile(copied.output_path)));
            const RepairReport finished = kxrepair::FinishLiveRecording(path, inPlace);
            if (first && damage.losesIndex) {
                ASSERT_EQ(finished.outcome, RepairOutcome::kFailed);
                ASSERT_TRUE(ReadFile(path) == torn);
            } else {
                ASSERT_EQ(finished.outcome, RepairOutcome::kLoss) << finished.reason;
                ASSERT_EQ(FramesKept(finished),
                          listed - (damage.losesIndex ? interval.samples : 0));
                ASSERT_EQ(MovieReader(ReadFile(path)).File().ChildTypes(), "ftyp free mdat moov");
            }
        }
        // Nothing but zeros from the index on: the disk never got more.
        Bytes torn(recording.begin(), recording.begin() + interval.indexBegin);
        torn.resize(recording.size());
        restore(torn);
        const RepairReport copied = RepairAgain(path);
        ASSERT_EQ(copied.outcome, RepairOutcome::kLoss);
        ASSERT_EQ(copied.media_bytes_unexplained, 0U) << copied.reason;
        ASSERT_GE(FramesKept(copied), whole);
        ASSERT_EQ(Repair(path, inPlace).outcome, RepairOutcome::kLoss);
        ASSERT_TRUE(ReadFile(path) == ReadFile(copied.output_path));
        ASSERT_EQ(MovieReader(ReadFile(path)).File().ChildTypes(), "ftyp free mdat moov");
    }
    // The repair in place of such a file is killed.
    FileStates files;
    Bytes& torn = files.Of(path) = recording;
    std::fill(torn.begin() + intervals[2].indexBegin, torn.begin() + intervals[2].indexEnd, 0);
    restore(torn);
    KillAnywhere(
        files, path, [&] { Repair(path, inPlace); },
        [&](const FileStates& state) {
            restore(state.Of(path));
            const RepairReport report = Repair(path, inPlace);
            ASSERT_EQ(report.outcome, RepairOutcome::kWhole) << report.reason;
            ASSERT_TRUE(HoldsSameSamples(expected, ReadFile(path)));
        });
    EXPECT_GT(m_states, 1000U);
}

// Without a repair info file: no write makes a sample disappear, and a second run completes the
// first.
TEST_F(CrashAtEveryByte, FinishedByItsLiveIndexAlone) {
    namespace movie = kx_mp4::movie;
    const auto samplesOf = [](const Bytes& file) {
        std::vector<std::tuple<size_t, uint64_t, uint32_t, int64_t, int64_t, bool>> samples;
        const movie::Movie found = movie::ReadMovie(std::make_shared<movie::MemorySource>(file));
        movie::VisitSamples(found, [&](size_t track, const Sample& s) {
            samples.emplace_back(track, s.offset, s.size, s.dts, s.cts, s.sync);
        });
        std::stable_sort(samples.begin(), samples.end());
        return samples;
    };
    Scenario scenario;
    scenario.largestPicture = 60;
    scenario.liveMs = 60;
    scenario.offsets = true;
    const std::string path = m_folder.Path("a.mp4");
    CutOff(path, 0, CallsOf(scenario));
    FileStates files;
    files.Of(path) = ReadFile(path);
    const auto samples = samplesOf(files.Of(path));
    EXPECT_GT(samples.size(), 15U);
    RepairOptions options;
    options.output_path = m_folder.Path("b.mp4");
    const RepairReport copied = kxrepair::FinishLiveRecording(path, options);
    EXPECT_EQ(copied.outcome, RepairOutcome::kLoss) << copied.reason;
    EXPECT_NE(copied.media_bytes_unexplained, 0U);
    EXPECT_TRUE(ReadFile(path) == files.Of(path));
    const MovieReader whole(Finished(path, 0, CallsOf(scenario)));
    const Bytes copy = ReadFile(options.output_path);
    for (const char* box : {"moov/udta", "moov/meta"})
        EXPECT_EQ(MovieReader(copy).File().At(box).Dump(), whole.File().At(box).Dump());
    WriteWholeFile(path, files.Of(path));
    options.in_place = true;
    KillAnywhere(
        files, path,
        [&] {
            EXPECT_EQ(kxrepair::FinishLiveRecording(path, options).output_bytes, copy.size());
            EXPECT_TRUE(ReadFile(path) == copy);
        },
        [&](const FileStates& torn) {
            ASSERT_EQ(samplesOf(torn.Of(path)), samples);
            WriteWholeFile(path, torn.Of(path));
            if (kxrepair::IsLiveRecording(path)) kxrepair::FinishLiveRecording(path, options);
            ASSERT_EQ(samplesOf(ReadFile(path)), samples);
            ASSERT_EQ(MovieReader(ReadFile(path)).File().ChildTypes(), "ftyp free mdat moov");
        });
    EXPECT_GT(m_states, 1000U);
    EXPECT_FALSE(kxrepair::IsLiveRecording(path));
    // Close was killed before its last byte, with an index that knows of everything.
    const Bytes closed = Finished(path, 0, CallsOf(scenario));
    Bytes closing = closed;
    closing[MovieReader(closed).File().At("free").offset + 3] = 24;
    WriteWholeFile(path, closing);
    EXPECT_EQ(kxrepair::FinishLiveRecording(path, options).outcome, RepairOutcome::kWhole);
    EXPECT_TRUE(ReadFile(path) == closed);
    // It is not believed when it contradicts the live index.
    const std::string table = "stco";
    std::find_end(closing.begin(), closing.end(), table.begin(), table.end())[15] ^= 1;
    WriteWholeFile(path, closing);
    EXPECT_GT(kxrepair::FinishLiveRecording(path, options).output_bytes, closed.size());
    EXPECT_EQ(MovieReader(ReadFile(path)).File().ChildTypes(), "ftyp free mdat moov");
    // The end of a page within a picture never reached the disk.
    Bytes torn = files.Of(path);
    std::fill(torn.begin() + 4088, torn.begin() + 4096, 0);
    WriteWholeFile(path, torn);
    const RepairReport report = kxrepair::FinishLiveRecording(path, options);
    EXPECT_EQ(report.tracks[kx_mp4::kRepairVideo].frames_doubtful, 1U) << report.reason;
}

// A repair in place that is killed at any byte leaves what a second one completes.
TEST_F(CrashAtEveryByte, InPlaceRepair) {
    Scenario scenario;
    scenario.pictures = 6;
    scenario.largestPicture = 90;
    const std::string path = m_folder.Path("a.mp4");
    for (const uint32_t flags : {0U, uint32_t{MP4_FLAG_64BIT_SIZE}}) {
        CutOff(path, flags, CallsOf(scenario));
        // The last audio frame is cut: once the index grows over its place, it would seem whole.
        Bytes recording = ReadFile(path);
        const Bytes info = ReadFile(path + ".info");
        recording.resize(recording.size() - 10);
        FileStates files;
        files.Of(path) = recording;
        files.Of(path + ".info") = info;
        WriteWholeFile(path, recording);
        const Bytes expected = ReadFile(RepairAgain(path).output_path);
        RepairOptions options;
        options.in_place = true;
        KillAnywhere(
            files, path,
            [&] {
                EXPECT_EQ(Repair(path, options).outcome, RepairOutcome::kLoss);
                EXPECT_TRUE(ReadFile(path) == expected);
            },
            [&](const FileStates& torn) {
                WriteWholeFile(path, torn.Of(path));
                WriteWholeFile(path + ".info", info);
                const RepairReport report = Repair(path, options);
                ASSERT_NE(report.outcome, RepairOutcome::kFailed) << report.reason;
                ASSERT_TRUE(ReadFile(path) == expected) << report.reason;
            });
    }
    EXPECT_GT(m_states, 2000U);
}

// A power cut: of both files everything up to the last sync is there; of what came after it, any
// page may be missing, and the files may end anywhere.
class PowerCut : public testing::Test {
protected:
    static constexpr size_t kPage = 4096;

    struct CachedFile {
        Bytes synced;
        Bytes cached;
    };

    /// The file after the cut.
    Bytes AfterCut(const CachedFile& file) {
        Bytes disk = file.synced;
        size_t end = disk.size();
        disk.resize(file.cached.size());  // zeros where nothing arrives
        for (size_t page = 0; page < disk.size(); page += kPage) {
            const size_t size = std::min(kPage, disk.size() - page);
            if (m_random() % 3 == 0) continue;
            std::copy_n(file.cached.begin() + static_cast<std::ptrdiff_t>(page), size,
                        disk.begin() + static_cast<std::ptrdiff_t>(page));
            end = std::max(end, page + size);
        }
        // The size travels on its own.
        if (m_random() % 2 == 0) disk.resize(end);
        return disk;
    }

    void TryStates(const LoggedRecording& recording, size_t states);

    void Check(const LoggedRecording& recording, size_t flushed) {
        const RepairReport report = RepairAgain(recording.path);
        if (report.outcome == RepairOutcome::kFailed) {
            ASSERT_EQ(flushed, 0U) << report.reason;
            return;
        }
        size_t calls = 0;
        for (uint64_t records = report.records; calls < recording.calls.size() && records != 0;) {
            if (recording.calls[calls++].kind != CallKind::kFlush) --records;  // it has no record
        }
        ASSERT_GE(calls, flushed) << report.reason;
        CheckBytes(recording, report, calls, flushed);
    }

    void CheckBytes(const LoggedRecording& recording, const RepairReport& report, size_t calls,
                    size_t flushed);

    std::mt19937 m_random{20240611};
    Folder m_folder;
    bool m_prores = false;
    size_t m_whole = 0;
    size_t m_loss = 0;
};

/// Cuts the power `states` times, spread over the whole recording.
void PowerCut::TryStates(const LoggedRecording& recording, size_t states) {
    std::map<std::string, CachedFile> files;
    FileStates cache;
    size_t returned = 0;
    size_t flushed = 0;
    size_t done = 0;
    for (size_t i = 0; i < recording.operations.size(); ++i) {
        const FileOperation& operation = recording.operations[i];
        if (operation.kind == FileOperation::kRemove) break;
        cache.Apply(operation);
        if (operation.kind == FileOperation::kMark) {
            if (recording.calls[returned].kind == CallKind::kFlush) flushed = returned;
            ++returned;
            continue;
        }
        CachedFile& file = files[operation.path];
        file.cached = cache.Of(operation.path);
        if (operation.kind == FileOperation::kSync) file.synced = file.cached;
        const size_t due = states * (i + 1) / recording.operations.size();
        for (; done < due; ++done) {
            SCOPED_TRACE("state " + std::to_string(done) + " after operation " + std::to_string(i));
            WriteWholeFile(recording.path, AfterCut(files[recording.path]));
            WriteWholeFile(recording.Info(), AfterCut(files[recording.Info()]));
            ASSERT_NO_FATAL_FAILURE(Check(recording, flushed));
        }
    }
}

// What differs from the recording must lie in a frame after the last Flush, and the report must
// own up to it as doubtful. A few zeros in sound or in a ProRes frame are nothing to be seen.
void PowerCut::CheckBytes(const LoggedRecording& recording, const RepairReport& report,
                          size_t calls, size_t flushed) {
    Bytes repaired = ReadFile(report.output_path);
    const Bytes& made = recording.finished[calls];
    ASSERT_GE(repaired.size(), made.size()) << report.reason;
    const Bytes rest = UnexplainedIn(repaired, made);
    ASSERT_EQ(rest.size(), report.media_bytes_unexplained);
    const Bytes expected = rest.empty() ? made : WithUnexplained(made, rest);
    std::map<CallKind, uint64_t> wrong;
    for (size_t i = 0; i < calls; ++i) {
        const auto [begin, end] = recording.extents[i];
        const auto from = expected.begin();
        if (std::equal(from + begin, from + end, repaired.begin() + begin)) continue;
        ASSERT_GE(i, flushed) << "call " << i << ": " << report.reason;
        std::ptrdiff_t different = 0;
        for (std::ptrdiff_t at = begin; at < end; ++at)
            different += from[at] != repaired[static_cast<size_t>(at)] ? 1 : 0;
        const CallKind kind = recording.calls[i].kind;
        const bool marked = kind != CallKind::kAudio && !(kind == CallKind::kVideo && m_prores);
        if (marked || different >= 64) ++wrong[kind];
        std::copy(from + begin, from + end, repaired.begin() + begin);
    }
    ASSERT_TRUE(repaired == expected) << "header or index: " << report.reason;
    const auto& tracks = report.tracks;
    ASSERT_LE(wrong[CallKind::kVideo], tracks[kx_mp4::kRepairVideo].frames_doubtful);
    ASSERT_LE(wrong[CallKind::kCaption], tracks[kx_mp4::kRepairCaption].frames_doubtful);
    ASSERT_EQ(wrong[CallKind::kTimecode], 0U);
    ASSERT_LE(wrong[CallKind::kAudio], tracks[kx_mp4::kRepairAudio].frames_doubtful);
    ++(report.outcome == RepairOutcome::kWhole ? m_whole : m_loss);
}

TEST_F(PowerCut, WhatWasFlushedIsExactAndTheRestIsNotBelieved) {
    const char* const wanted = std::getenv("KX_MP4_POWER_CUT_STATES");
    const size_t states = wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 3000;
    Scenario scenario;
    scenario.pictures = 110;  // a repair info file of several pages
    scenario.smallestPicture = 200;
    scenario.largestPicture = 3000;
    scenario.flushEvery = 20;
    const std::vector<std::pair<mp4_video_codec, std::string>> kinds = {
        {MP4_MVC_H264, "a.mp4"}, {MP4_MVC_HEVC, "a.mov"}, {MP4_MVC_PRORES, "b.mov"}};
    for (const auto& [codec, name] : kinds) {
        scenario.codec = codec;
        m_prores = codec == MP4_MVC_PRORES;
        scenario.seed += 1;
        const LoggedRecording recording(m_folder, scenario, 0, name);
        ASSERT_NO_FATAL_FAILURE(TryStates(recording, states / kinds.size())) << name;
    }
    EXPECT_GT(m_whole, 0U);
    EXPECT_GT(m_loss, 0U);
}

}  // namespace
