#include "repair_scenario.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>

namespace repair_scenario {

namespace {

constexpr uint32_t kPictureTicks = 3000;
constexpr uint32_t kAacTicks = 1024;
constexpr uint32_t kGroup = 4;  // pictures from one key frame to the next
const FileBytes kStartCode = {0, 0, 0, 1};

const FileBytes kH264Sps = {0x67, 0x64, 0x00, 0x0A, 0xAC, 0xD9, 0x44, 0x26, 0x84};
const FileBytes kH264Pps = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};
// x265, 64 x 64 pixels, Main profile.
const FileBytes kHevcVps = {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                            0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1E, 0x92, 0x80, 0x90};
const FileBytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                            0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1E, 0xA0, 0x20, 0x81, 0x05,
                            0x96, 0x4A, 0x92, 0x4C, 0xAF, 0x01, 0x68, 0x08, 0x00, 0x00, 0x03,
                            0x00, 0x08, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x40};
const FileBytes kHevcPps = {0x44, 0x01, 0xC1, 0x72, 0xB4, 0x22, 0x40};

/// Makes frames whose content is random, free of zeros and repeatable.
class Maker {
public:
    explicit Maker(const Scenario& scenario) : m_scenario(scenario), m_random(scenario.seed) {}

    std::vector<Call> Calls();

private:
    uint32_t Between(uint32_t low, uint32_t high) {
        return low + static_cast<uint32_t>(m_random()) % (high - low + 1);
    }
    void AppendNoise(FileBytes& bytes, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            bytes.push_back(static_cast<uint8_t>(Between(1, 255)));
    }
    void AppendUnit(FileBytes& frame, const FileBytes& unit) {
        frame.insert(frame.end(), kStartCode.begin(), kStartCode.end());
        frame.insert(frame.end(), unit.begin(), unit.end());
    }

    mp4_video_track_info_t VideoTrack(bool withSets) const;
    FileBytes Picture(uint32_t number);
    FileBytes ProResPicture();

    void AddSetUp();
    void AddMetadata();
    void AddVideo(uint32_t number);
    void AddAudio(uint32_t number);
    void AddCaption(uint32_t number);
    template <class Run>
    void Add(Run run, CallKind kind = CallKind::kSetUp) {
        m_calls.push_back({run, kind, nullptr});
    }

    const Scenario m_scenario;
    std::mt19937 m_random;
    std::vector<Call> m_calls;
};

int16_t SizeOf(const FileBytes& set) {
    return static_cast<int16_t>(set.size());
}

mp4_video_track_info_t Maker::VideoTrack(bool withSets) const {
    mp4_video_track_info_t track{};
    track.timescale = 90000;
    track.frame_duration = kPictureTicks;
    track.codec = m_scenario.codec;
    track.width = 64;
    track.height = 48;
    if (track.codec == MP4_MVC_PRORES)
        track.prores.format = MP4_PRORES_422_HQ;
    else if (withSets && track.codec == MP4_MVC_H264)
        track.h264 = {kH264Sps.data(), SizeOf(kH264Sps), kH264Pps.data(), SizeOf(kH264Pps)};
    else if (withSets)
        track.hevc = {kHevcSps.data(),  SizeOf(kHevcSps), kHevcPps.data(),
                      SizeOf(kHevcPps), kHevcVps.data(),  SizeOf(kHevcVps)};
    return track;
}

FileBytes Maker::ProResPicture() {
    const uint32_t size = Between(m_scenario.smallestPicture, m_scenario.largestPicture);
    FileBytes frame;
    for (int shift = 24; shift >= 0; shift -= 8)
        frame.push_back(static_cast<uint8_t>(size >> shift));
    for (const char c : {'i', 'c', 'p', 'f'})
        frame.push_back(static_cast<uint8_t>(c));
    AppendNoise(frame, size - 8);
    return frame;
}

FileBytes Maker::Picture(uint32_t number) {
    if (m_scenario.codec == MP4_MVC_PRORES) return ProResPicture();
    const bool hevc = m_scenario.codec == MP4_MVC_HEVC;
    const bool key = number % kGroup == 0;
    FileBytes frame;
    if (key) {
        if (hevc) AppendUnit(frame, kHevcVps);
        AppendUnit(frame, hevc ? kHevcSps : kH264Sps);
        AppendUnit(frame, hevc ? kHevcPps : kH264Pps);
    }
    const FileBytes head = hevc ? FileBytes{static_cast<uint8_t>(key ? 19 << 1 : 1 << 1), 1}
                                : FileBytes{static_cast<uint8_t>(key ? 0x65 : 0x41)};
    for (uint32_t slice = 0; slice < 2; ++slice) {
        AppendUnit(frame, head);
        AppendNoise(frame, Between(m_scenario.smallestPicture, m_scenario.largestPicture) / 2);
    }
    return frame;
}

void Maker::AddSetUp() {
    const auto declare = [this] {
        Add([track = VideoTrack(!m_scenario.deferred)](CMp4Muxer& muxer) {
            return muxer.SetVideoTrack(&track);
        });
        Add([deferred = m_scenario.deferred](CMp4Muxer& muxer) {
            const mp4_audio_track_info_t aac = {48000, kAacTicks, MP4_MAC_AAC, 48000, 2, 2};
            const mp4_audio_track_info_t adts = {48000, kAacTicks, MP4_MAC_ADTS, 0, 0, 0};
            return muxer.SetAudioTrack(deferred ? &adts : &aac);
        });
        Add([codec = m_scenario.captions](CMp4Muxer& muxer) {
            const mp4_subtitle_track_info_t track = {codec, 1000};
            return muxer.SetSubtitleTrack(&track);
        });
        Add([](CMp4Muxer& muxer) {
            const mp4_time_code_track_info_t track = {30000, 1001, 30, 1};
            return muxer.SetTCMDTrack(&track);
        });
    };
    declare();
    if (m_scenario.declareTwice) declare();
}

void Maker::AddMetadata() {
    Add([](CMp4Muxer& muxer) {
        return muxer.SetMetadata("title", "Test", 0, MP4_META_DATA_TYPE_STRING, nullptr);
    });
    Add([](CMp4Muxer& muxer) {
        const int32_t stars = 5;
        return muxer.SetMetadata("org.example.stars", reinterpret_cast<const char*>(&stars),
                                 sizeof stars, MP4_META_DATA_TYPE_INT, "mdta");
    });
    Add([](CMp4Muxer& muxer) {
        return muxer.SetMetadata("org.example.raw", "\0\1\2", 3, MP4_META_DATA_TYPE_RAW, nullptr);
    });
}

void Maker::AddVideo(uint32_t number) {
    const auto frame = std::make_shared<FileBytes>(Picture(number));
    const uint64_t time = uint64_t{number} * kPictureTicks + Between(0, 9);
    Call call;
    call.kind = CallKind::kVideo;
    call.run = [frame, time](CMp4Muxer& muxer) {
        return muxer.WriteVideoFrame(frame->data(), static_cast<uint32_t>(frame->size()), time + 5,
                                     time);
    };
    if (number == 0 && m_scenario.deferred && m_scenario.codec != MP4_MVC_PRORES)
        call.configuration = [track = VideoTrack(true)](CMp4Muxer& muxer) {
            return muxer.SetVideoTrack(&track);
        };
    m_calls.push_back(call);
}

void Maker::AddAudio(uint32_t number) {
    FileBytes bytes;
    if (m_scenario.deferred) bytes = {0xFF, 0xF1, 0x50, 0x80, 0x02, 0x1F, 0xFC};  // 44100 Hz, 2
    bytes.push_back(0x21);
    AppendNoise(bytes, Between(20, 60));
    const auto frame = std::make_shared<FileBytes>(bytes);
    Call call;
    call.kind = CallKind::kAudio;
    call.run = [frame, number](CMp4Muxer& muxer) {
        return muxer.WriteAudioFrame(frame->data(), static_cast<uint32_t>(frame->size()),
                                     uint64_t{number} * kAacTicks);
    };
    if (number == 0 && m_scenario.deferred)
        call.configuration = [](CMp4Muxer& muxer) {
            const mp4_audio_track_info_t track = {48000, kAacTicks, MP4_MAC_ADTS, 44100, 2, 2};
            return muxer.SetAudioTrack(&track);
        };
    m_calls.push_back(call);
}

void Maker::AddCaption(uint32_t number) {
    static const FileBytes kLine21 = {0x61, 0x02, 2, 0xFC, 0x94, 0x2C, 0xFD, 0x80, 0x80};
    static const FileBytes kPacket = {0x61, 0x01, 3, 0x96, 0x69, 0x55};
    static const FileBytes kMalformed = {0x61, 0x07, 3};
    const FileBytes& good = m_scenario.captions == MP4_SUBTITLE_CODEC_CC608 ? kLine21 : kPacket;
    const FileBytes& packet = number == 3 ? kMalformed : good;
    Add(
        [&packet, number](CMp4Muxer& muxer) {
            return muxer.WriteSubtitleFrame(packet.data(), static_cast<uint32_t>(packet.size()),
                                            number * 33);
        },
        CallKind::kCaption);
}

std::vector<Call> Maker::Calls() {
    AddSetUp();
    AddMetadata();
    for (uint32_t i = 0; i < m_scenario.pictures; ++i) {
        AddVideo(i);
        AddAudio(2 * i);
        AddAudio(2 * i + 1);
        if (i == 0)
            Add([](CMp4Muxer& muxer) { return muxer.WriteTimeCode(107892); }, CallKind::kTimecode);
        if (i % 3 == 0) AddCaption(i);
        if (m_scenario.flushEvery != 0 && i % m_scenario.flushEvery == m_scenario.flushEvery - 1)
            Add([](CMp4Muxer& muxer) { return muxer.Flush(); }, CallKind::kFlush);
    }
    return m_calls;
}

void Require(mp4_status_t status) {
    if (status != MP4_STATUS_SUCCESS)
        throw std::runtime_error("the muxer says " + std::to_string(status));
}

/// Output of the callback mode.
struct MemoryFile {
    FileBytes bytes;
    size_t position = 0;

    static MemoryFile* next;  // opened by `init`

    static MemoryFile& Of(kx_mp4_handle handle) { return *static_cast<MemoryFile*>(handle); }
    static mp4_file_io_func_t Functions() {
        mp4_file_io_func_t functions{};
        functions.init = [](kx_mp4_handle* handle, const wchar_t*, uint32_t, uint32_t) {
            *handle = next;
            return true;
        };
        functions.uninit = [](kx_mp4_handle) { return true; };
        functions.tell = [](kx_mp4_handle handle) { return uint64_t{Of(handle).position}; };
        functions.seek = [](kx_mp4_handle handle, int64_t offset, int whence) {
            const size_t base = whence == SEEK_SET   ? 0
                                : whence == SEEK_CUR ? Of(handle).position
                                                     : Of(handle).bytes.size();
            Of(handle).position = base + static_cast<size_t>(offset);
        };
        functions.flush = [](kx_mp4_handle) {};
        functions.read = [](kx_mp4_handle, void*, uint32_t) { return 0; };
        functions.write = [](kx_mp4_handle handle, const void* data, uint32_t size) {
            MemoryFile& file = Of(handle);
            file.bytes.resize(std::max(file.bytes.size(), file.position + size));
            if (size != 0) std::memcpy(file.bytes.data() + file.position, data, size);
            file.position += size;
            return 1;
        };
        return functions;
    }
};

MemoryFile* MemoryFile::next = nullptr;

/// A picture that waits for its parameter sets is dropped, but makes the muxer write the header.
void WriteHeaderOnly(CMp4Muxer& muxer) {
    const FileBytes picture = {0, 0, 1, 0x41, 0x9A};
    mp4_video_track_info_t track{};
    track.timescale = 1000;
    track.codec = MP4_MVC_H264;
    track.width = track.height = 16;
    Require(muxer.SetVideoTrack(&track));
    Require(muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), 0, 0));
}

}  // namespace

std::vector<Call> CallsOf(const Scenario& scenario) {
    return Maker(scenario).Calls();
}

mp4_status_t Open(CMp4Muxer& muxer, const std::string& path, uint32_t flags) {
    mp4_config_t config{};
    config.flags = flags | MP4_FLAG_REPAIR_INFO;
    config.io_mode = MP4_IO_FILE;
    return muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config);
}

FileBytes Finished(const std::string& path, uint32_t flags, const std::vector<Call>& calls) {
    CMp4Muxer muxer;
    Require(Open(muxer, path, flags));
    for (const Call& call : calls)
        Require(call.run(muxer));
    Require(muxer.Close());
    FileBytes file = ReadWholeFile(path);
    std::filesystem::remove(path);
    return file;
}

FileBytes FinishedInMemory(const std::string& path, uint32_t flags, const std::vector<Call>& calls,
                           size_t count, bool stopHalfway) {
    MemoryFile file;
    mp4_file_io_func_t functions = MemoryFile::Functions();
    MemoryFile::next = &file;
    mp4_config_t config{};
    config.flags = flags;
    config.io_mode = MP4_IO_EXTERNAL;
    config.func = &functions;
    CMp4Muxer muxer;
    Require(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
    WriteHeaderOnly(muxer);
    for (size_t i = 0; i < count; ++i) {
        const bool half = stopHalfway && i + 1 == count;
        Require(half ? calls[i].configuration(muxer) : calls[i].run(muxer));
    }
    Require(muxer.Close());
    return file.bytes;
}

void CutOff(const std::string& path, uint32_t flags, const std::vector<Call>& calls) {
    CMp4Muxer muxer;
    Require(Open(muxer, path, flags));
    for (const Call& call : calls)
        Require(call.run(muxer));
}

Folder::Folder() {
    const std::string parent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    do {
        std::string pattern = parent + "/kx_mp4_repair_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no folder");
        if (!m_path.empty()) std::filesystem::remove(m_path);
        m_path = pattern;
    } while (m_path.find("mov") != std::string::npos);
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace repair_scenario
