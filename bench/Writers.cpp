#include "Writers.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "kx_mp4/Mp4Muxer.h"
#include "kx_mp4/buffered_io.h"

namespace {

void Check(mp4_status_t status, const char* operation) {
    if (status != MP4_STATUS_SUCCESS)
        throw std::runtime_error(std::string(operation) + " returned " + std::to_string(status));
}

class KxWriter : public Writer {
public:
    KxWriter(uint32_t flags, mp4_file_io_func_t* output, uint32_t liveIndexMs = 0)
        : m_flags(flags), m_output(output), m_liveIndexMs(liveIndexMs) {}

    void Open(const std::string& path, const Workload::Shape& shape) override {
        mp4_config_t config = {};
        config.flags = m_flags;
        config.io_mode = m_output == nullptr ? MP4_IO_FILE : MP4_IO_EXTERNAL;
        config.func = m_output;
        Check(m_muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config), "Create");
        Check(m_muxer.SetLiveIndex(m_liveIndexMs), "SetLiveIndex");
        mp4_video_track_info_t video = {};
        video.timescale = kVideoTimescale;
        video.codec = MP4_MVC_H264;
        video.width = 1920;
        video.height = 1080;
        video.h264 = {kSps.data(), static_cast<int16_t>(kSps.size()), kPps.data(),
                      static_cast<int16_t>(kPps.size())};
        Check(m_muxer.SetVideoTrack(&video), "SetVideoTrack");
        if (shape.audio) AddAudio();
    }
    void Write(const Sample& sample) override {
        if (sample.video)
            Check(m_muxer.WriteVideoFrame(sample.data, sample.size, sample.time, sample.time),
                  "WriteVideoFrame");
        else
            Check(m_muxer.WriteAudioFrame(sample.data, sample.size, sample.time),
                  "WriteAudioFrame");
    }
    void Close() override { Check(m_muxer.Close(), "Close"); }
    bool QueryIndexSize() override { return m_muxer.GetMoovSize() != 0; }

private:
    void AddAudio() {
        mp4_audio_track_info_t audio = {};
        audio.timescale = kAudioRate;
        audio.codec = MP4_MAC_AAC;
        audio.sample_rate = kAudioRate;
        audio.channels = 2;
        audio.profile = 2;
        Check(m_muxer.SetAudioTrack(&audio), "SetAudioTrack");
    }

    CMp4Muxer m_muxer;
    uint32_t m_flags;
    mp4_file_io_func_t* m_output;
    uint32_t m_liveIndexMs;
};

/// A file that is written without any index.
class PlainFile : public Writer {
public:
    ~PlainFile() override {
        if (m_file != -1) close(m_file);
    }
    void Open(const std::string& path, const Workload::Shape&) override {
        m_file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (m_file == -1) throw std::system_error(errno, std::generic_category(), path);
    }
    void Close() override {
        close(m_file);
        m_file = -1;
    }

protected:
    void Put(const uint8_t* data, size_t size) {
        while (size != 0) {
            const ssize_t count = write(m_file, data, size);
            if (count <= 0) throw std::system_error(errno, std::generic_category(), "write");
            data += count;
            size -= static_cast<size_t>(count);
        }
    }

private:
    int m_file = -1;
};

/// The floor of the promise that a frame is with the system when its call returns.
class OneWriteFloor : public PlainFile {
public:
    void Write(const Sample& sample) override { Put(sample.data, sample.size); }
};

/// The floor of a buffered output.
class CopyFloor : public PlainFile {
public:
    void Write(const Sample& sample) override {
        const uint8_t* data = sample.data;
        for (size_t left = sample.size; left != 0;) {
            const size_t part = std::min(left, m_buffer.size() - m_filled);
            std::memcpy(m_buffer.data() + m_filled, data, part);
            m_filled += part;
            data += part;
            left -= part;
            if (m_filled == m_buffer.size()) Empty();
        }
    }
    void Close() override {
        Empty();
        PlainFile::Close();
    }

private:
    void Empty() {
        Put(m_buffer.data(), m_filled);
        m_filled = 0;
    }

    std::vector<uint8_t> m_buffer = std::vector<uint8_t>(KX_MP4_BUFFERED_IO_SIZE);
    size_t m_filled = 0;
};

}  // namespace

std::vector<WriterKind> WriterKinds() {
    return {
        {"kx_mp4", [] { return std::make_unique<KxWriter>(0, nullptr); }},
        {"kx_mp4, repair file",
         [] { return std::make_unique<KxWriter>(MP4_FLAG_REPAIR_INFO, nullptr); }},
        {"kx_mp4, live index",
         [] {
             constexpr uint32_t kIntervalMs = 1000;
             return std::make_unique<KxWriter>(0, nullptr, kIntervalMs);
         }},
        {"kx_mp4, buffered", [] { return std::make_unique<KxWriter>(0, kx_mp4_buffered_io()); }},
#ifdef KX_MP4_BENCH_LIBAVFORMAT
        {kLibavformat, MakeLibavformatWriter},
#endif
        {kOneWrite, [] { return std::make_unique<OneWriteFloor>(); }},
        {"copy into 1 MiB", [] { return std::make_unique<CopyFloor>(); }},
    };
}
