// Any sequence of calls of the C interface with any arguments and records of any size: nothing
// crashes or throws, and a file whose close was a success is read by a reader that knows nothing of
// the library, with as many samples as the statistics have counted. Outputs are memory behind
// callbacks that may fail, or files in a folder of this process.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "Movie.h"
#include "file_walk.h"
#include "kx_mp4/kx_mp4_c.h"
#include "kx_mp4/zv_log.h"

// The library's log lines would only slow the search down.
extern "C" {
void zv_log_error(const char*, const char*, int, const char*, ...) {}
void zv_log_warn(const char*, const char*, int, const char*, ...) {}
void zv_log_info(const char*, const char*, int, const char*, ...) {}
}

namespace {

namespace fs = std::filesystem;
namespace movie = kx_mp4::movie;
using Bytes = std::vector<uint8_t>;
using SampleCounts = std::map<std::string, uint64_t>;  // by handler

/// Where files are; empty between two inputs.
class Folder {
public:
    Folder() : m_path((fs::temp_directory_path() / "kx_mp4_fuzz.XXXXXX").string()) {
        Require(mkdtemp(m_path.data()) != nullptr);
    }
    ~Folder() { fs::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string File(const std::string& name) const { return m_path + "/" + name; }
    void Clear() const {
        for (const auto& entry : fs::directory_iterator(m_path))
            fs::remove_all(entry.path());
    }

private:
    std::string m_path;
};

const Folder& TheFolder() {
    static const Folder folder;
    return folder;
}

/// Samples of a finished file by its tracks' handlers; none of it may be missing or contradictory.
SampleCounts CountSamples(const std::shared_ptr<const movie::BoxSource>& source) {
    const movie::Movie read = movie::ReadMovie(source);
    Require(read.boxes.faults.empty() && !read.boxes.isOpen && read.moov != nullptr);
    SampleCounts counts;
    const auto faults = movie::VisitSamples(read, [&](size_t track, const movie::Sample& sample) {
        Require(sample.offset <= source->Size() && sample.size <= source->Size() - sample.offset);
        ++counts[read.tracks[track].handler];
    });
    Require(faults.empty());
    return counts;
}

SampleCounts CountSamplesOf(const std::string& path) {
    return CountSamples(std::make_shared<movie::FileSource>(path));
}

/// An output in memory; fails from one call on, if at all, by its answer or by an exception.
struct MemoryOutput {
    Bytes bytes;
    int64_t position = 0;
    int callsLeft = -1;
    bool throws = false;

    int Answer() {
        if (callsLeft < 0 || callsLeft-- > 0) return 1;
        callsLeft = 0;
        errno = ENOSPC;
        if (throws) throw std::runtime_error("the callback has failed");
        return 0;
    }
};

MemoryOutput& Of(void* user) {
    return *static_cast<MemoryOutput*>(user);
}

int Seek(void* user, int64_t offset, int whence) {
    MemoryOutput& output = Of(user);
    const auto size = static_cast<int64_t>(output.bytes.size());
    const int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? output.position : size;
    Require(base + offset >= 0 && base + offset <= size);
    output.position = base + offset;
    return output.Answer();
}

int Write(void* user, const void* buffer, uint32_t size) {
    MemoryOutput& output = Of(user);
    Require(size != 0);
    if (output.Answer() != 1) return 0;
    const auto begin = static_cast<size_t>(output.position);
    output.bytes.resize(std::max(output.bytes.size(), begin + size));
    std::memcpy(&output.bytes[begin], buffer, size);
    output.position += size;
    return 1;
}

mp4_io_callbacks_t CallbacksOf(MemoryOutput& output) {
    return {&output,
            [](void* user, const char*) { return Of(user).Answer(); },
            [](void* user) { return Of(user).Answer(); },
            [](void* user) { return Of(user).Answer() == 1 ? Of(user).position : -1; },
            Seek,
            [](void* user) { return Of(user).Answer(); },
            Write};
}

/// A record as a program of another version has it: with exactly as many bytes as it says, so that
/// whatever looks behind them is found.
template <class Record>
class Sized {
public:
    Sized(const Record& record, size_t size, uint8_t beyond) {
        const size_t held = size > kMost ? sizeof record : std::max(size, sizeof(size_t));
        m_bytes = std::make_unique<uint8_t[]>(held);
        std::memset(m_bytes.get(), beyond, held);
        std::memcpy(m_bytes.get(), &record, std::min(held, sizeof record));
        std::memcpy(m_bytes.get(), &size, sizeof size);
    }
    Record* Get() const { return reinterpret_cast<Record*>(m_bytes.get()); }

private:
    static constexpr size_t kMost = 65536;
    std::unique_ptr<uint8_t[]> m_bytes;
};

/// What the recorder's threads see.
struct Segments {
    std::atomic<uint64_t> samples{0};
    int namesLeft = -1;
};

int NameSegment(void* user, uint64_t number, int64_t, char* path, size_t size) {
    int& left = static_cast<Segments*>(user)->namesLeft;
    if (left == 0) return 0;
    left = std::max(left - 1, -1);
    const std::string name = TheFolder().File("s" + std::to_string(number) + ".mp4");
    Require(name.size() < size);
    std::memcpy(path, name.c_str(), name.size() + 1);
    return 1;
}

void OnSegment(void* user, const kx_mp4_segment* segment) {
    Require(segment->struct_size == sizeof *segment);
    static_cast<Segments*>(user)->samples +=
        segment->video_samples + segment->audio_samples + segment->caption_samples;
    if (segment->status != MP4_STATUS_SUCCESS) return;
    SampleCounts counts = CountSamplesOf(segment->path);
    Require(counts["vide"] == segment->video_samples && counts["soun"] == segment->audio_samples &&
            counts["clcp"] == segment->caption_samples);
}

/// A muxer and a recorder, and the calls that the input spells.
class Caller {
public:
    explicit Caller(FuzzedDataProvider& input)
        : m_input(input), m_muxer(kx_mp4_muxer_new()), m_recorder(kx_mp4_recorder_new()) {
        Require(m_muxer != nullptr && m_recorder != nullptr);
    }
    ~Caller() {
        kx_mp4_muxer_free(m_muxer);
        kx_mp4_recorder_free(m_recorder);
        TheFolder().Clear();
    }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    void Run() {
        while (m_input.remaining_bytes() != 0)
            CallOnce();
        Close();
        Stop();
    }

private:
    void CallOnce();
    void Create();
    void Close();
    void Start();
    void Stop();
    void SetTrack();
    void SetPresentation();
    void SetMetadata();
    void WriteFrame();
    void Repair();
    void Query();

    template <class Integer>
    Integer Any() {
        return m_input.ConsumeIntegral<Integer>();
    }
    bool OneIn(int times) { return m_input.ConsumeIntegralInRange(1, times) == 1; }
    Bytes SomeBytes(size_t most) {
        return m_input.ConsumeBytes<uint8_t>(m_input.ConsumeIntegralInRange<size_t>(0, most));
    }
    /// Mostly the record's own size; smaller, larger and impossible ones.
    template <class Record>
    size_t Size() {
        if (!OneIn(4)) return sizeof(Record);
        return OneIn(4) ? Any<size_t>()
                        : m_input.ConsumeIntegralInRange<size_t>(0, 2 * sizeof(Record));
    }
    template <class Record>
    Sized<Record> Give(const Record& record) {
        const auto size = Size<Record>();
        return {record, size, OneIn(2) ? uint8_t{1} : uint8_t{0}};
    }
    template <class Record>
    Record Usual(void (*init)(Record*, size_t)) {
        Record record;
        init(&record, sizeof record);
        Require(record.struct_size == sizeof record);
        return record;
    }
    /// Calls for the muxer or the recorder, now and then without a handle.
    template <class... Arguments>
    mp4_status_t Both(mp4_status_t (*muxer)(kx_mp4_muxer*, Arguments...),
                      mp4_status_t (*recorder)(kx_mp4_recorder*, Arguments...),
                      const Arguments&... arguments) {
        const bool none = OneIn(30);
        const mp4_status_t status = m_records ? recorder(none ? nullptr : m_recorder, arguments...)
                                              : muxer(none ? nullptr : m_muxer, arguments...);
        Require(!none || status == MP4_STATUS_INVALID_HANDLE);
        return status;
    }
    uint64_t Time() {
        m_time += m_input.ConsumeIntegralInRange<uint64_t>(0, 5000);
        return OneIn(12) ? Any<uint64_t>() : m_time;
    }
    mp4_statistics_t Statistics() const {
        mp4_statistics_t statistics{};
        statistics.struct_size = sizeof statistics;
        Require(kx_mp4_muxer_get_statistics(m_muxer, &statistics) == MP4_STATUS_SUCCESS);
        return statistics;
    }

    FuzzedDataProvider& m_input;
    kx_mp4_muxer* m_muxer;
    kx_mp4_recorder* m_recorder;
    bool m_records = false;  ///< Frames go to the recorder.
    MemoryOutput m_output;
    std::string m_path;           ///< Of the file; empty for the output in memory.
    uint64_t m_accepted[3] = {};  ///< Frames of video, sound and captions that were a success.
    bool m_hasTimecode = false;   ///< Its track was declared; without one the counters are bytes.
    Segments m_segments;
    uint64_t m_time = 0;
};

void Caller::Create() {
    auto options = Usual(kx_mp4_file_options_init);
    const bool toFile = OneIn(4);
    const mp4_io_callbacks_t callbacks = CallbacksOf(m_output);
    if (OneIn(4)) options.container = m_input.ConsumeIntegralInRange(-1, 3);
    if (OneIn(2)) options.flags = Any<uint8_t>();
    if (OneIn(4)) options.composition_offsets = Any<int8_t>();
    if (OneIn(3)) options.live_index_ms = Any<uint16_t>();
    if (OneIn(8)) options.repair_flush_interval = Any<uint8_t>();
    if (OneIn(4)) options.buffer_bytes = Any<uint16_t>();
    if (!toFile) options.output = &callbacks;
    auto given = Give(options);
    const bool wasOpen = kx_mp4_muxer_is_open(m_muxer) == 1;
    // A record that ends before the output is one without.
    const bool hasOutput = !toFile && given.Get()->struct_size >= sizeof options;
    const std::string path = TheFolder().File(OneIn(4) ? "a.mov" : "a.mp4");
    if (!wasOpen) m_output = {};
    if (!wasOpen && OneIn(4)) {
        m_output.callsLeft = m_input.ConsumeIntegralInRange(0, 300);
        m_output.throws = OneIn(2);
    }
    const mp4_status_t status =
        kx_mp4_muxer_create(m_muxer, OneIn(30) ? nullptr : path.c_str(), given.Get());
    Require(!wasOpen || status != MP4_STATUS_SUCCESS);
    if (status != MP4_STATUS_SUCCESS) return;
    Require(kx_mp4_muxer_is_open(m_muxer) == 1);
    m_path = hasOutput ? "" : path;
    std::fill(std::begin(m_accepted), std::end(m_accepted), 0);
    m_hasTimecode = false;
}

void Caller::Close() {
    const bool wasOpen = kx_mp4_muxer_is_open(m_muxer) == 1;
    const mp4_status_t status = kx_mp4_muxer_close(m_muxer);
    Require(kx_mp4_muxer_is_open(m_muxer) == 0);
    if (!wasOpen || status != MP4_STATUS_SUCCESS) return;
    const mp4_statistics_t told = Statistics();
    Require(told.video.samples + told.video.dropped >= m_accepted[0] &&
            told.audio.samples + told.audio.dropped >= m_accepted[1] &&
            told.captions.samples + told.captions.dropped >= m_accepted[2]);
    const auto size = static_cast<uint64_t>(kx_mp4_muxer_file_size(m_muxer));
    std::shared_ptr<movie::BoxSource> source;
    if (!m_path.empty()) {
        source = std::make_shared<movie::FileSource>(m_path);
    } else {
        source = std::make_shared<movie::MemorySource>(m_output.bytes);
    }
    if (source->Size() == 0) return;  // not one frame
    Require(source->Size() == size);
    SampleCounts counts = CountSamples(source);
    Require(counts["vide"] == told.video.samples && counts["soun"] == told.audio.samples &&
            counts["clcp"] == told.captions.samples &&
            counts["tmcd"] == (m_hasTimecode ? told.timecode.samples : 0));
}

void Caller::Start() {
    auto options = Usual(kx_mp4_recorder_options_init);
    const std::string pattern = TheFolder().File("p%i.mp4");
    options.pattern = pattern.c_str();
    if (OneIn(4)) options.container = m_input.ConsumeIntegralInRange(-1, 3);
    if (OneIn(2)) options.flags = Any<uint8_t>();
    if (OneIn(4)) options.live_index_ms = Any<uint16_t>();
    if (OneIn(2)) options.queue_bytes = Any<uint32_t>() >> 10;
    options.wait_ms = Any<uint8_t>() % 4;
    options.wait_when_full = OneIn(2) ? 1 : 0;
    if (OneIn(2)) options.segment_ms = Any<uint16_t>();
    if (OneIn(4)) options.segment_bytes = Any<uint32_t>() >> 12;
    if (OneIn(8)) options.segment_wall_clock_s = Any<uint8_t>();
    options.push_ms = OneIn(4) ? Any<uint8_t>() : 0;
    options.reserve_bytes = Any<uint16_t>();
    options.delete_oldest = OneIn(4) ? 1 : 0;
    if (OneIn(4)) options.jump_ms = Any<uint16_t>();
    options.user = &m_segments;
    if (OneIn(2)) options.name = NameSegment;
    options.on_segment = OnSegment;
    const bool wasRecording = m_records;
    auto given = Give(options);
    m_segments.namesLeft = wasRecording ? m_segments.namesLeft : OneIn(4) ? Any<uint8_t>() % 4 : -1;
    const mp4_status_t status = kx_mp4_recorder_start(m_recorder, given.Get());
    Require(!wasRecording || status != MP4_STATUS_SUCCESS);
    if (status == MP4_STATUS_SUCCESS) m_records = true;
}

void Caller::Stop() {
    kx_mp4_recorder_stop(m_recorder, 0);
    kx_mp4_recorder_statistics told{};
    told.struct_size = sizeof told;
    Require(kx_mp4_recorder_get_statistics(m_recorder, &told) == MP4_STATUS_SUCCESS);
    Require(told.queue_bytes == 0 && told.frames_written <= told.frames_taken &&
            told.segments_finished <= told.segments_begun);
    m_records = false;
}

void Caller::SetTrack() {
    const std::array<Bytes, 4> sets = {SomeBytes(40), SomeBytes(40), SomeBytes(40), SomeBytes(60)};
    switch (m_input.ConsumeIntegralInRange(0, 4)) {
        case 0:
        case 1: {
            auto track = Usual(kx_mp4_video_track_init);
            if (OneIn(2)) track.codec = m_input.ConsumeIntegralInRange(-1, 3);
            if (OneIn(4)) track.timescale = Any<uint32_t>();
            if (OneIn(4)) track.frame_duration = Any<uint64_t>();
            track.prores_format = Any<int8_t>();
            track.width = track.height = OneIn(8) ? Any<uint16_t>() : uint16_t{64};
            const auto put = [&](const Bytes& set, const uint8_t*& bytes, size_t& size) {
                if (OneIn(2)) return;
                bytes = set.data();
                size = set.size();
            };
            put(sets[0], track.vps, track.vps_size);
            put(sets[1], track.sps, track.sps_size);
            put(sets[2], track.pps, track.pps_size);
            if (OneIn(4)) put(sets[3], track.configuration_record, track.configuration_record_size);
            auto record = Give(track);
            Both<const kx_mp4_video_track*>(kx_mp4_muxer_set_video_track,
                                            kx_mp4_recorder_set_video_track, record.Get());
            return;
        }
        case 2: {
            auto track = Usual(kx_mp4_audio_track_init);
            if (OneIn(2)) track.codec = m_input.ConsumeIntegralInRange(0, 3);
            if (OneIn(4)) track.timescale = Any<uint32_t>();
            if (OneIn(4)) track.frame_duration = Any<uint64_t>();
            if (OneIn(4)) track.sample_rate = Any<uint32_t>();
            if (OneIn(4)) track.channels = Any<uint16_t>();
            if (OneIn(4)) track.object_type = Any<uint16_t>();
            auto record = Give(track);
            Both<const kx_mp4_audio_track*>(kx_mp4_muxer_set_audio_track,
                                            kx_mp4_recorder_set_audio_track, record.Get());
            return;
        }
        case 3: {
            auto track = Usual(kx_mp4_caption_track_init);
            if (OneIn(2)) track.codec = m_input.ConsumeIntegralInRange(0, 3);
            if (OneIn(4)) track.timescale = Any<uint32_t>();
            auto record = Give(track);
            Both<const kx_mp4_caption_track*>(kx_mp4_muxer_set_caption_track,
                                              kx_mp4_recorder_set_caption_track, record.Get());
            return;
        }
        default: {
            auto track = Usual(kx_mp4_timecode_track_init);
            if (OneIn(4)) track.timescale = Any<uint32_t>();
            track.frame_duration = Any<uint64_t>();
            track.flags = Any<int32_t>();
            track.frame_rate = Any<uint8_t>();
            auto record = Give(track);
            const mp4_status_t status = Both<const kx_mp4_timecode_track*>(
                kx_mp4_muxer_set_timecode_track, kx_mp4_recorder_set_timecode_track, record.Get());
            if (!m_records && status == MP4_STATUS_SUCCESS) m_hasTimecode = true;
        }
    }
}

void Caller::SetPresentation() {
    switch (m_input.ConsumeIntegralInRange(0, 6)) {
        case 6: {
            const Bytes set = SomeBytes(80);
            kx_mp4_muxer_add_parameter_set(m_muxer, set.data(), static_cast<uint32_t>(set.size()));
            return;
        }
        case 5:
            kx_mp4_muxer_set_all_parameter_sets(m_muxer, Any<int8_t>());
            return;
        case 4:
            kx_mp4_muxer_set_strict_form(m_muxer, Any<int8_t>());
            return;
        case 0:
            kx_mp4_muxer_set_timeline(m_muxer, Any<int8_t>());
            return;
        case 1:
            kx_mp4_muxer_set_audio_priming(m_muxer, OneIn(4) ? Any<uint32_t>() : 1024);
            return;
        case 2: {
            auto shape = Usual(kx_mp4_video_shape_init);
            shape.pixel_width = Any<uint8_t>();
            shape.pixel_height = Any<uint8_t>();
            shape.clean_x = shape.clean_y = Any<uint8_t>();
            shape.clean_width = shape.clean_height = Any<uint32_t>();
            shape.rotation = OneIn(4) ? Any<uint32_t>() : 90;
            shape.field_order = Any<uint8_t>() % 5;
            kx_mp4_muxer_set_video_shape(m_muxer, Give(shape).Get());
            return;
        }
        default: {
            auto colour = Usual(kx_mp4_video_colour_init);
            colour.primaries = colour.transfer = colour.matrix = Any<uint16_t>();
            colour.has_mastering_display = Any<uint8_t>();
            colour.has_content_light = Any<uint8_t>();
            colour.from_stream = Any<uint8_t>();
            kx_mp4_muxer_set_video_colour(m_muxer, Give(colour).Get());
        }
    }
}

void Caller::SetMetadata() {
    static constexpr std::array<const char*, 3> kKeys = {"title", "org.example.key", "\xA9nam"};
    static constexpr std::array<int, 5> kTypes = {0, 1, 21, 7, -1};
    const std::string key = m_input.ConsumeBool() ? m_input.PickValueInArray(kKeys)
                                                  : m_input.ConsumeRandomLengthString(20);
    const std::string value = m_input.ConsumeRandomLengthString(40);
    const auto size =
        m_input.ConsumeIntegralInRange<uint32_t>(0, static_cast<uint32_t>(value.size() + 1));
    const int type = m_input.PickValueInArray(kTypes);
    Both<const char*, int, const void*, uint32_t, const char*>(
        kx_mp4_muxer_set_metadata, kx_mp4_recorder_set_metadata, OneIn(20) ? nullptr : key.c_str(),
        type, OneIn(20) ? nullptr : value.c_str(), size, OneIn(2) ? nullptr : "mdta");
}

void Caller::WriteFrame() {
    // What frames of each kind begin with, which chance alone hardly finds.
    static const std::array<std::vector<Bytes>, 3> kBeginnings = {{
        {{0, 0, 0, 1,    0x67, 0x4D, 0x40, 0x0A, 0xF6, 0x21, 0x34, 0x03, 0xC5, 0x8B, 0x4E, 0,
          0, 0, 1, 0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1,    0x65, 0x88, 0x84, 0x0A},
         {0, 0, 0, 1, 0x41, 0x9A, 0x28},
         {0, 0, 0, 2, 0x65, 0x88, 0, 0, 0, 1, 0x41},
         {0, 0, 1, 0x40, 1, 0, 0, 1, 0x42, 1, 0, 0, 1, 0x44, 1, 0, 0, 1, 0x26, 1}},
        {{0, 0, 0, 7}, {0xFF, 0xF1, 0x50, 0x80, 0x02, 0x1F, 0xFC}},
        {{0x61, 2, 2, 0xFC, 0x94, 0x2C}, {0x61, 1, 3}},
    }};
    const auto kind = m_input.ConsumeIntegralInRange<size_t>(0, 2);
    Bytes frame = OneIn(6) ? Bytes{}
                           : kBeginnings[kind][m_input.ConsumeIntegralInRange<size_t>(
                                 0, kBeginnings[kind].size() - 1)];
    const Bytes rest = SomeBytes(48);
    frame.insert(frame.end(), rest.begin(), rest.end());
    const uint8_t* const bytes = frame.empty() && OneIn(2) ? nullptr : frame.data();
    const auto size = static_cast<uint32_t>(frame.size());
    const uint64_t dts = Time();
    const bool toMuxer = !m_records;
    mp4_status_t status;
    if (kind == 0) {
        const uint64_t pts = dts + (OneIn(4) ? Any<uint16_t>() : 0);
        status = Both<const uint8_t*, uint32_t, uint64_t, uint64_t>(
            kx_mp4_muxer_write_video, kx_mp4_recorder_write_video, bytes, size, pts, dts);
    } else if (kind == 1) {
        status = Both<const uint8_t*, uint32_t, uint64_t>(
            kx_mp4_muxer_write_audio, kx_mp4_recorder_write_audio, bytes, size, dts);
    } else {
        status = Both<const uint8_t*, uint32_t, uint64_t>(
            kx_mp4_muxer_write_captions, kx_mp4_recorder_write_captions, bytes, size, dts);
    }
    if (toMuxer && size != 0 && status == MP4_STATUS_SUCCESS) ++m_accepted[kind];
}

/// Repairs a copy of what the muxer is recording, as after a crash.
void Caller::Repair() {
    const std::string copy = TheFolder().File("copy.mp4");
    std::error_code none;
    for (const char* end : {"", ".info"}) {
        fs::remove(copy + end, none);
        fs::copy_file(m_path + end, copy + end, none);
    }
    auto options = Usual(kx_mp4_repair_options_init);
    const std::string output = TheFolder().File("repaired.mp4");
    options.output_path = output.c_str();
    options.in_place = OneIn(2) ? 1 : 0;
    options.overwrite = OneIn(8) ? 0 : 1;
    options.force = OneIn(2) ? 1 : 0;
    options.dry_run = OneIn(8) ? 1 : 0;
    options.keep_info = OneIn(2) ? 1 : 0;
    options.composition_offsets = OneIn(4) ? Any<int8_t>() : -1;
    int stepsLeft = OneIn(8) ? Any<uint8_t>() : 100000;
    options.user = &stepsLeft;
    options.progress = [](void* user, int, uint64_t, uint64_t) {
        return --*static_cast<int*>(user) > 0 ? 1 : 0;
    };
    auto given = Give(options);
    auto report = Give(kx_mp4_repair_report{});
    const size_t told = report.Get()->struct_size;
    const int outcome =
        kx_mp4_repair(OneIn(30) ? nullptr : copy.c_str(), given.Get(), report.Get());
    Require(outcome >= KX_MP4_REPAIR_WHOLE && outcome <= KX_MP4_REPAIR_FAILED);
    Require(report.Get()->struct_size == told);
    if (outcome == KX_MP4_REPAIR_FAILED || told < sizeof(kx_mp4_repair_report)) return;
    const std::string path = report.Get()->output_path;
    if (path.empty()) return;  // only looked at
    SampleCounts counts = CountSamplesOf(path);
    Require(counts["vide"] == report.Get()->video.frames_kept &&
            counts["soun"] == report.Get()->audio.frames_kept);
}

void Caller::Query() {
    auto statistics = Give(mp4_statistics_t{});
    kx_mp4_muxer_get_statistics(m_muxer, statistics.Get());
    auto figures = Give(kx_mp4_recorder_statistics{});
    kx_mp4_recorder_get_statistics(m_recorder, figures.Get());
    Require(kx_mp4_muxer_file_size(m_muxer) >= 0);
    kx_mp4_muxer_duration_ms(m_muxer);
    kx_mp4_muxer_flush(m_muxer);
    Bytes text(m_input.ConsumeIntegralInRange<size_t>(1, 100), 1);
    auto* const chars = reinterpret_cast<char*>(text.data());
    const size_t length = OneIn(2) ? kx_mp4_muxer_last_error(m_muxer, chars, text.size())
                                   : kx_mp4_recorder_last_error(m_recorder, chars, text.size());
    Require(std::strlen(chars) == std::min(length, text.size() - 1));
}

void Caller::CallOnce() {
    switch (m_input.ConsumeIntegralInRange(0, 19)) {
        case 0:
        case 1:
            return Create();
        case 2:
            return OneIn(3) ? Close() : Query();
        case 3:
        case 4:
        case 5:
            return SetTrack();
        case 6:
            return SetMetadata();
        case 7:
            return SetPresentation();
        case 8:
            Both(kx_mp4_muxer_write_timecode, kx_mp4_recorder_write_timecode, Any<int32_t>());
            return;
        case 9:
            return Repair();
        case 10:
            return OneIn(4) ? (m_records ? Stop() : Start()) : Query();
        case 11: {
            constexpr std::array<mp4_status_t (*)(kx_mp4_recorder*), 3> kCalls = {
                kx_mp4_recorder_cut, kx_mp4_recorder_pause, kx_mp4_recorder_resume};
            m_input.PickValueInArray(kCalls)(OneIn(8) ? nullptr : m_recorder);
            return;
        }
        default:
            return WriteFrame();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Caller(input).Run();
    return 0;
}
