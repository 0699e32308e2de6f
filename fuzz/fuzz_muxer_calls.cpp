// Any sequence of public calls with any arguments: nothing crashes, and what Close calls a success
// is a finished file. The output lies in memory behind callbacks, which may fail.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "file_walk.h"
#include "kx_mp4/Mp4Muxer.h"

// The muxer's log lines would only slow the search down.
extern "C" {
void zv_log_error(const char*, const char*, int, const char*, ...) {}
void zv_log_warn(const char*, const char*, int, const char*, ...) {}
void zv_log_info(const char*, const char*, int, const char*, ...) {}
}

namespace {

struct MemoryOutput {
    std::vector<uint8_t> bytes;
    size_t position = 0;
    int writesLeft = -1;  // then they fail; never when negative
};

MemoryOutput* g_output = nullptr;

MemoryOutput& Of(kx_mp4_handle handle) {
    return *static_cast<MemoryOutput*>(handle);
}

bool Init(kx_mp4_handle* handle, const wchar_t*, uint32_t, uint32_t) {
    *handle = g_output;
    return true;
}

void Seek(kx_mp4_handle handle, int64_t offset, int whence) {
    MemoryOutput& output = Of(handle);
    const size_t base = whence == SEEK_SET   ? 0
                        : whence == SEEK_CUR ? output.position
                                             : output.bytes.size();
    output.position = base + static_cast<size_t>(offset);
    Require(output.position <= output.bytes.size());
}

int Write(kx_mp4_handle handle, const void* bytes, uint32_t size) {
    MemoryOutput& output = Of(handle);
    if (output.writesLeft == 0) return 0;
    --output.writesLeft;
    output.bytes.resize(std::max(output.bytes.size(), output.position + size));
    if (size != 0) std::memcpy(output.bytes.data() + output.position, bytes, size);
    output.position += size;
    return 1;
}

mp4_file_io_func_t Callbacks() {
    mp4_file_io_func_t functions{};
    functions.init = Init;
    functions.uninit = [](kx_mp4_handle) { return true; };
    functions.tell = [](kx_mp4_handle handle) { return uint64_t{Of(handle).position}; };
    functions.seek = Seek;
    functions.flush = [](kx_mp4_handle) {};
    functions.read = [](kx_mp4_handle, void*, uint32_t) { return 0; };
    functions.write = Write;
    return functions;
}

/// One muxer and the calls that the input spells.
class Caller {
public:
    explicit Caller(FuzzedDataProvider& input) : m_input(input), m_functions(Callbacks()) {
        g_output = &m_output;
    }

    void Run() {
        while (m_input.remaining_bytes() != 0)
            CallOnce();
        Close();
    }

private:
    using Bytes = std::vector<uint8_t>;

    void CallOnce();
    void Create();
    void Close();
    void SetVideoTrack();
    void SetAudioTrack();
    void SetMetadata();
    void Query();

    template <class Integer>
    Integer Any() {
        return m_input.ConsumeIntegral<Integer>();
    }
    /// Null for no bytes, now and then.
    const uint8_t* Pointer(const Bytes& bytes) {
        return bytes.empty() && m_input.ConsumeBool() ? nullptr : bytes.data();
    }
    Bytes SomeBytes(size_t most) {
        return m_input.ConsumeBytes<uint8_t>(m_input.ConsumeIntegralInRange<size_t>(0, most));
    }
    /// A frame; often with what its kind begins with, which chance alone hardly finds.
    Bytes Frame(const std::vector<Bytes>& beginnings) {
        const size_t choice = m_input.ConsumeIntegralInRange<size_t>(0, beginnings.size());
        Bytes frame = choice < beginnings.size() ? beginnings[choice] : Bytes{};
        const Bytes rest = SomeBytes(64);
        frame.insert(frame.end(), rest.begin(), rest.end());
        return frame;
    }
    uint64_t Time() {
        m_time += m_input.ConsumeIntegralInRange<uint64_t>(0, 5000);
        return m_input.ConsumeIntegralInRange(0, 9) == 0 ? Any<uint64_t>() : m_time;
    }

    FuzzedDataProvider& m_input;
    mp4_file_io_func_t m_functions;
    MemoryOutput m_output;
    CMp4Muxer m_muxer;
    uint64_t m_time = 0;
};

void Caller::Create() {
    static constexpr std::array<const wchar_t*, 3> kPaths = {L"a.mp4", L"a.mov", nullptr};
    mp4_config_t config{};
    // Without the repair info file, which would be a file on disk.
    config.flags = Any<uint32_t>() & ~uint32_t{MP4_FLAG_REPAIR_INFO};
    config.io_mode = m_input.ConsumeIntegralInRange(0, 9) == 0 ? MP4_IO_DIRECT : MP4_IO_EXTERNAL;
    config.func = m_input.ConsumeIntegralInRange(0, 9) == 0 ? nullptr : &m_functions;
    const bool wasOpen = m_muxer.IsOpen();
    const auto* const path = m_input.PickValueInArray(kPaths);
    const bool open =
        m_muxer.Create(path, m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : &config) ==
        MP4_STATUS_SUCCESS;
    Require(!wasOpen || !open);
    if (!open) return;
    m_output = {};
    if (m_input.ConsumeIntegralInRange(0, 4) == 0)
        m_output.writesLeft = m_input.ConsumeIntegralInRange(0, 300);
}

void Caller::Close() {
    const bool wasOpen = m_muxer.IsOpen();
    const mp4_status_t status = m_muxer.Close();
    Require(!m_muxer.IsOpen());
    if (wasOpen && status == MP4_STATUS_SUCCESS && !m_output.bytes.empty())
        FileWalk(m_output.bytes).CheckFinished();
}

void Caller::SetVideoTrack() {
    mp4_video_track_info_t track{};
    track.timescale = Any<uint32_t>();
    track.frame_duration = Any<uint64_t>();
    track.codec = static_cast<mp4_video_codec>(m_input.ConsumeIntegralInRange(-1, 3));
    track.width = Any<uint16_t>();
    track.height = Any<uint16_t>();
    const std::array<Bytes, 3> sets = {SomeBytes(40), SomeBytes(40), SomeBytes(40)};
    const auto size = [](const Bytes& set) { return static_cast<int16_t>(set.size()); };
    if (track.codec == MP4_MVC_PRORES)
        track.prores.format = static_cast<mp4_prores_format>(m_input.ConsumeIntegralInRange(0, 7));
    else if (track.codec == MP4_MVC_HEVC)
        track.hevc = {Pointer(sets[0]), size(sets[0]),    Pointer(sets[1]),
                      size(sets[1]),    Pointer(sets[2]), size(sets[2])};
    else
        track.h264 = {Pointer(sets[0]), size(sets[0]), Pointer(sets[1]), size(sets[1])};
    if (m_input.ConsumeIntegralInRange(0, 9) == 0 && track.codec != MP4_MVC_PRORES)
        track.h264.sps_size = static_cast<int16_t>(-Any<uint8_t>());
    const auto* const given = m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : &track;
    const Bytes record = Frame({{1, 0, 0, 0, 0xFF, 0xE1, 0, 4, 0x67, 0x64, 0, 10, 1, 0, 1, 0x68}});
    if (m_input.ConsumeBool())
        m_muxer.SetVideoTrack(given);
    else
        m_muxer.SetVideoTrack(given, Pointer(record), static_cast<uint32_t>(record.size()));
}

void Caller::SetAudioTrack() {
    mp4_audio_track_info_t track{};
    track.timescale = Any<uint32_t>();
    track.frame_duration = Any<uint64_t>();
    track.codec = static_cast<mp4_audio_codec>(m_input.ConsumeIntegralInRange(0, 3));
    track.sample_rate = Any<uint16_t>();
    track.channels = Any<uint16_t>();
    track.profile = Any<uint8_t>();
    m_muxer.SetAudioTrack(m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : &track);
}

void Caller::SetMetadata() {
    static constexpr std::array<const char*, 4> kKeys = {"title", "desc", "org.example.key",
                                                         "\xA9nam"};
    const std::string key = m_input.ConsumeBool() ? m_input.PickValueInArray(kKeys)
                                                  : m_input.ConsumeRandomLengthString(20);
    const std::string value = m_input.ConsumeRandomLengthString(40);
    const std::string space = m_input.ConsumeRandomLengthString(6);
    static constexpr std::array<int, 5> kTypes = {0, 1, 21, 7, 31};
    const auto type = static_cast<mp4_meta_data_type_t>(m_input.PickValueInArray(kTypes));
    // The string's terminator may be counted or not; neither call reads past it.
    const auto size =
        m_input.ConsumeIntegralInRange<uint32_t>(0, static_cast<uint32_t>(value.size() + 1));
    m_muxer.SetMetadata(m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : key.c_str(),
                        m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : value.c_str(), size,
                        type, m_input.ConsumeBool() ? nullptr : space.c_str());
}

void Caller::Query() {
    m_muxer.GetCurFileSize();
    m_muxer.GetDurationMS();
    m_muxer.GetMoovSize();
    m_muxer.GetVideoBitrate();
    m_muxer.GetAudioBitrate();
    mp4_statistics_t statistics{};
    statistics.struct_size = m_input.ConsumeIntegralInRange<size_t>(0, sizeof statistics);
    m_muxer.GetStatistics(&statistics);
    m_muxer.Flush();
}

void Caller::CallOnce() {
    switch (m_input.ConsumeIntegralInRange(0, 15)) {
        case 0:
        case 1:
            return Create();
        case 2:
            return m_input.ConsumeBool() ? Close() : Query();
        case 3:
            return SetVideoTrack();
        case 4:
            return SetAudioTrack();
        case 5: {
            const mp4_subtitle_track_info_t track = {
                static_cast<mp4_subtitle_codec>(m_input.ConsumeIntegralInRange(0, 3)),
                Any<uint32_t>()};
            m_muxer.SetSubtitleTrack(&track);
            return;
        }
        case 6: {
            const mp4_time_code_track_info_t track = {Any<uint32_t>(), Any<uint64_t>(),
                                                      Any<uint8_t>(), Any<int32_t>()};
            m_muxer.SetTCMDTrack(m_input.ConsumeIntegralInRange(0, 19) == 0 ? nullptr : &track);
            return;
        }
        case 7:
            return SetMetadata();
        case 8:
            m_muxer.SetCompositionOffsets(m_input.ConsumeBool());
            return;
        case 9:
            m_muxer.WriteTimeCode(Any<int>());
            return;
        case 10: {
            const Bytes packet = Frame({{0x61, 2, 2, 0xFC, 0x94, 0x2C}, {0x61, 1, 3}});
            m_muxer.WriteSubtitleFrame(Pointer(packet), static_cast<uint32_t>(packet.size()),
                                       Time());
            return;
        }
        case 11:
        case 12: {
            const Bytes frame = Frame({{0xFF, 0xF1, 0x50, 0x80, 0x02, 0x1F, 0xFC}});
            m_muxer.WriteAudioFrame(Pointer(frame), static_cast<uint32_t>(frame.size()), Time());
            return;
        }
        case 13:
            m_muxer.SetLiveIndex(Any<uint8_t>());
            return;
        default: {
            const Bytes frame = Frame({{0, 0, 0, 1, 0x65},
                                       {0, 0, 0, 2, 0x65, 0x88, 0, 0, 0, 1, 0x41},
                                       {0, 0, 1, 0x41},
                                       {0, 0, 1, 0x67, 0x64, 0, 10, 0, 0, 1, 0x68, 0xEB, 0, 0, 1},
                                       {0, 0, 1, 0x40, 1, 0, 0, 1, 0x42, 1, 0, 0, 1, 0x44, 1}});
            const uint64_t dts = Time();
            m_muxer.WriteVideoFrame(Pointer(frame), static_cast<uint32_t>(frame.size()),
                                    dts + Any<uint16_t>(), dts);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Caller(input).Run();
    return 0;
}
