#include <algorithm>
#include <new>
#include <stdexcept>
#include <string>

#include "Writers.h"

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

namespace {

void Check(int result, const char* operation) {
    if (result < 0)
        throw std::runtime_error(std::string(operation) + " returned " + std::to_string(result));
}

void SetExtradata(AVCodecParameters& parameters, const std::vector<uint8_t>& bytes) {
    const size_t room = bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE;
    parameters.extradata = static_cast<uint8_t*>(av_mallocz(room));
    if (parameters.extradata == nullptr) throw std::bad_alloc();
    std::copy(bytes.begin(), bytes.end(), parameters.extradata);
    parameters.extradata_size = static_cast<int>(bytes.size());
}

/// libavformat's MP4 muxer as an application meets it: default options, no interleaving queue.
class LibavformatWriter : public Writer {
public:
    ~LibavformatWriter() override {
        av_packet_free(&m_packet);
        if (m_context != nullptr) avio_closep(&m_context->pb);
        avformat_free_context(m_context);
    }
    void Open(const std::string& path, const Workload::Shape& shape) override {
        Check(avformat_alloc_output_context2(&m_context, nullptr, "mp4", path.c_str()), "alloc");
        AddVideo();
        if (shape.audio) AddAudio();
        Check(avio_open(&m_context->pb, path.c_str(), AVIO_FLAG_WRITE), "avio_open");
        Check(avformat_write_header(m_context, nullptr), "avformat_write_header");
        for (unsigned i = 0; i < m_context->nb_streams; ++i)
            if (m_context->streams[i]->time_base.den != m_timescales[i])
                throw std::runtime_error("libavformat changed a timescale");
        m_packet = av_packet_alloc();
    }
    void Write(const Sample& sample) override {
        m_packet->data = const_cast<uint8_t*>(sample.data);
        m_packet->size = static_cast<int>(sample.size);
        m_packet->stream_index = sample.video ? 0 : 1;
        m_packet->pts = m_packet->dts = static_cast<int64_t>(sample.time);
        m_packet->duration = 0;
        m_packet->flags = sample.key ? AV_PKT_FLAG_KEY : 0;
        Check(av_write_frame(m_context, m_packet), "av_write_frame");
    }
    void Close() override {
        Check(av_write_trailer(m_context), "av_write_trailer");
        Check(avio_closep(&m_context->pb), "avio_closep");
    }

private:
    AVCodecParameters& AddStream(AVMediaType type, AVCodecID codec, int timescale) {
        AVStream* const stream = avformat_new_stream(m_context, nullptr);
        if (stream == nullptr) throw std::bad_alloc();
        stream->time_base = {1, timescale};
        m_timescales.push_back(timescale);
        stream->codecpar->codec_type = type;
        stream->codecpar->codec_id = codec;
        return *stream->codecpar;
    }
    void AddVideo() {
        AVCodecParameters& parameters =
            AddStream(AVMEDIA_TYPE_VIDEO, AV_CODEC_ID_H264, kVideoTimescale);
        parameters.width = 1920;
        parameters.height = 1080;
        std::vector<uint8_t> sets = {0, 0, 0, 1};
        sets.insert(sets.end(), kSps.begin(), kSps.end());
        sets.insert(sets.end(), {0, 0, 0, 1});
        sets.insert(sets.end(), kPps.begin(), kPps.end());
        SetExtradata(parameters, sets);
    }
    void AddAudio() {
        AVCodecParameters& parameters = AddStream(AVMEDIA_TYPE_AUDIO, AV_CODEC_ID_AAC, kAudioRate);
        parameters.sample_rate = kAudioRate;
        parameters.frame_size = kSamplesPerAacFrame;
        av_channel_layout_default(&parameters.ch_layout, 2);
        SetExtradata(parameters, {0x11, 0x90});  // AAC LC, 48 kHz, stereo
    }

    AVFormatContext* m_context = nullptr;
    AVPacket* m_packet = nullptr;
    std::vector<int> m_timescales;
};

}  // namespace

std::unique_ptr<Writer> MakeLibavformatWriter() {
    return std::make_unique<LibavformatWriter>();
}
