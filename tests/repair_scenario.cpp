#include "repair_scenario.h"

#include <filesystem>
#include <random>
#include <stdexcept>

#include "memory_output.h"
#include "streams.h"
#include "test_pattern.h"

namespace repair_scenario {

namespace {

constexpr uint32_t kPictureTicks = 3000;
constexpr uint32_t kAacTicks = 1024;
constexpr uint32_t kGroup = 4;  // pictures from one key frame to the next

uint32_t SizeOf(const Bytes& bytes) {
    return static_cast<uint32_t>(bytes.size());
}

/// Makes frames whose content is random, free of zeros and repeatable.
class Maker {
public:
    explicit Maker(const Scenario& scenario) : m_scenario(scenario), m_random(scenario.seed) {}

    std::vector<Call> Calls();

private:
    uint32_t Between(uint32_t low, uint32_t high) {
        return low + static_cast<uint32_t>(m_random()) % (high - low + 1);
    }
    Bytes Noise(uint32_t count) {
        Bytes bytes(count);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(Between(1, 255));
        return bytes;
    }
    uint32_t PictureSize() {
        return Between(m_scenario.smallestPicture, m_scenario.largestPicture);
    }

    mp4_video_track_info_t VideoTrack() const;
    Bytes Picture(uint32_t number);

    void AddSetUp();
    void AddVideo(uint32_t number);
    void AddAudio(uint32_t number);
    void AddCaption(uint32_t number);
    template <class Run>
    void Add(Run run, CallKind kind) {
        m_calls.push_back({run, kind, nullptr});
    }

    const Scenario m_scenario;
    std::mt19937 m_random;
    std::vector<Call> m_calls;
};

mp4_video_track_info_t Maker::VideoTrack() const {
    if (m_scenario.codec == MP4_MVC_PRORES) return streams::ProResTrack(MP4_PRORES_422_HQ);
    return m_scenario.codec == MP4_MVC_HEVC ? streams::HevcTrack() : streams::H264Track();
}

Bytes Maker::Picture(uint32_t number) {
    if (m_scenario.codec == MP4_MVC_PRORES) {
        const uint32_t size = PictureSize();
        Bytes frame;
        for (int shift = 24; shift >= 0; shift -= 8)
            frame.push_back(static_cast<uint8_t>(size >> shift));
        return frame + Bytes{'i', 'c', 'p', 'f'} + Noise(size - 8);
    }
    const bool hevc = m_scenario.codec == MP4_MVC_HEVC;
    const bool key = number % kGroup == 0;
    std::vector<Bytes> units;
    if (key && hevc) units = {streams::kHevcVps, streams::kHevcSps, streams::kHevcPps};
    if (key && !hevc) units = {test_pattern::kSps, test_pattern::kPps};
    if (key && m_scenario.presented) {
        if (hevc) units.push_back(streams::kFurtherHevcPps);
        if (!hevc) units.insert(units.end(), {streams::kFurtherSps, streams::kFurtherPps});
    }
    const Bytes head = hevc ? Hex(key ? "2601" : "0201") : Hex(key ? "65" : "41");
    for (int slice = 0; slice < 2; ++slice)
        units.push_back(head + Noise(PictureSize() / 2));
    return streams::AccessUnit(units);
}

void Maker::AddSetUp() {
    if (m_scenario.liveMs != 0)
        Add([ms = m_scenario.liveMs](CMp4Muxer& muxer) { return muxer.SetLiveIndex(ms); },
            CallKind::kLive);
    if (m_scenario.offsets)
        Add([](CMp4Muxer& muxer) { return muxer.SetCompositionOffsets(true); }, CallKind::kSetUp);
    if (m_scenario.presented) {
        Add([](CMp4Muxer& muxer) { return muxer.SetTimeline(true); }, CallKind::kSetUp);
        Add([](CMp4Muxer& muxer) { return muxer.SetStrictForm(true); }, CallKind::kSetUp);
        Add([](CMp4Muxer& muxer) { return muxer.SetAllParameterSets(true); }, CallKind::kSetUp);
        Add([](CMp4Muxer& muxer) { return muxer.SetAudioPriming(1024); }, CallKind::kSetUp);
        Add(
            [](CMp4Muxer& muxer) {
                return muxer.SetVideoShape(
                    {sizeof(mp4_video_shape_t), 64, 45, 2, 2, 60, 40, 90, 0, 1});
            },
            CallKind::kSetUp);
        Add(
            [](CMp4Muxer& muxer) {
                mp4_video_colour_t colour{};
                colour.struct_size = sizeof colour;
                colour.primaries = colour.transfer = colour.matrix = 9;
                colour.has_content_light = 1;
                return muxer.SetVideoColour(colour);
            },
            CallKind::kSetUp);
    }
    const bool waits = m_scenario.deferred && m_scenario.codec != MP4_MVC_PRORES;
    const auto steps = streams::SetUpEverything(
        waits ? streams::Deferred(VideoTrack()) : VideoTrack(),
        m_scenario.deferred ? streams::AdtsTrack() : streams::AacTrack(), m_scenario.captions);
    for (size_t i = 0; m_scenario.declareTwice && i < 4; ++i)
        Add(steps[i].run, CallKind::kSetUp);
    for (const streams::Step& step : steps)
        Add(step.run, CallKind::kSetUp);
}

void Maker::AddVideo(uint32_t number) {
    const uint64_t time = uint64_t{number} * kPictureTicks + Between(0, 9);
    const uint64_t shown = m_scenario.offsets ? time + 5 : time;
    Add(
        [frame = Picture(number), shown, time](CMp4Muxer& muxer) {
            return muxer.WriteVideoFrame(frame.data(), SizeOf(frame), shown, time);
        },
        CallKind::kVideo);
    if (number == 0 && m_scenario.deferred && m_scenario.codec != MP4_MVC_PRORES)
        m_calls.back().configuration = [track = VideoTrack()](CMp4Muxer& muxer) {
            return muxer.SetVideoTrack(&track);
        };
}

void Maker::AddAudio(uint32_t number) {
    // ADTS: 44100 Hz, stereo.
    const Bytes head = m_scenario.deferred ? Hex("fff15080021ffc 21") : Hex("21");
    Bytes block = Noise(Between(20, 60));
    block.back() = static_cast<uint8_t>(block.back() | 7);  // ID_END
    Add(
        [frame = head + block, number](CMp4Muxer& muxer) {
            return muxer.WriteAudioFrame(frame.data(), SizeOf(frame), uint64_t{number} * kAacTicks);
        },
        CallKind::kAudio);
    if (number == 0 && m_scenario.deferred)
        m_calls.back().configuration = [](CMp4Muxer& muxer) {
            const mp4_audio_track_info_t track = {48000, kAacTicks, MP4_MAC_ADTS, 44100, 2, 2};
            return muxer.SetAudioTrack(&track);
        };
}

void Maker::AddCaption(uint32_t number) {
    const bool line21 = m_scenario.captions == MP4_SUBTITLE_CODEC_CC608;
    const Bytes good = Hex(line21 ? "6102 02 fc942c fd8080" : "6101 03 966955");
    const Bytes malformed = Hex("6107 03");
    Add(
        [packet = number == 3 ? malformed : good, number](CMp4Muxer& muxer) {
            return muxer.WriteSubtitleFrame(packet.data(), SizeOf(packet), number * 33);
        },
        CallKind::kCaption);
}

std::vector<Call> Maker::Calls() {
    AddSetUp();
    for (uint32_t i = 0; i < m_scenario.pictures; ++i) {
        if (!m_scenario.soundOnly) AddVideo(i);
        AddAudio(2 * i);
        AddAudio(2 * i + 1);
        if (m_scenario.soundOnly) continue;
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

/// A picture that waits for its parameter sets is dropped, but makes the muxer write the header.
void WriteHeaderOnly(CMp4Muxer& muxer) {
    const Bytes picture = {0, 0, 1, 0x41, 0x9A};
    const auto track = streams::Deferred(streams::H264Track());
    Require(muxer.SetVideoTrack(&track));
    Require(muxer.WriteVideoFrame(picture.data(), SizeOf(picture), 0, 0));
}

}  // namespace

std::vector<Call> CallsOf(const Scenario& scenario) {
    return Maker(scenario).Calls();
}

mp4_status_t Open(CMp4Muxer& muxer, const std::string& path, uint32_t flags) {
    mp4_config_t config = streams::FileConfig(flags | MP4_FLAG_REPAIR_INFO);
    return muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config);
}

Bytes Finished(const std::string& path, uint32_t flags, const std::vector<Call>& calls) {
    CMp4Muxer muxer;
    Require(Open(muxer, path, flags));
    for (const Call& call : calls)
        Require(call.run(muxer));
    Require(muxer.Close());
    Bytes file = ReadFile(path);
    std::filesystem::remove(path);
    return file;
}

namespace {

/// Position and width of the size field of the media data box that is in use, and where it ends.
struct MediaBox {
    explicit MediaBox(const Bytes& file) {
        const MovieReader movie(file);
        const Box& mdat = movie.File().At("mdat");
        const bool large = mdat.U32(0) == 1;
        sizeAt = mdat.offset + (large ? 8 : 0);
        width = large ? 8 : 4;
        size = mdat.size;
        end = static_cast<std::ptrdiff_t>(mdat.offset + mdat.size);
    }
    size_t sizeAt = 0;
    size_t width = 0;
    uint64_t size = 0;
    std::ptrdiff_t end = 0;
};

}  // namespace

Bytes WithUnexplained(const Bytes& finished, const Bytes& more) {
    const MediaBox mdat(finished);
    Bytes file = finished;
    file.insert(file.begin() + mdat.end, more.begin(), more.end());
    for (size_t i = 0; i < mdat.width; ++i)
        file[mdat.sizeAt + i] =
            static_cast<uint8_t>((mdat.size + more.size()) >> 8 * (mdat.width - 1 - i));
    return file;
}

Bytes UnexplainedIn(const Bytes& file, const Bytes& finished) {
    if (file.size() <= finished.size()) return {};
    const auto begin = file.begin() + MediaBox(finished).end;
    return {begin, begin + static_cast<std::ptrdiff_t>(file.size() - finished.size())};
}

Bytes FinishedInMemory(const std::string& path, uint32_t flags, const std::vector<Call>& calls,
                       size_t count, bool stopHalfway) {
    MemoryOutput output;
    mp4_config_t config = streams::CallbackConfig(flags, output.Functions());
    CMp4Muxer muxer;
    Require(muxer.Create(std::wstring(path.begin(), path.end()).c_str(), &config));
    const size_t first = !calls.empty() && calls[0].kind == CallKind::kLive ? 1 : 0;
    if (first == 1) Require(calls[0].run(muxer));
    WriteHeaderOnly(muxer);
    for (size_t i = first; i < count; ++i) {
        const bool half = stopHalfway && i + 1 == count;
        Require(half ? calls[i].configuration(muxer) : calls[i].run(muxer));
    }
    Require(muxer.Close());
    return output.Content();
}

void CutOff(const std::string& path, uint32_t flags, const std::vector<Call>& calls) {
    CMp4Muxer muxer;
    Require(Open(muxer, path, flags));
    for (const Call& call : calls)
        Require(call.run(muxer));
}

}  // namespace repair_scenario
