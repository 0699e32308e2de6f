// Recordings that are kept as texts: a line is a call of the muxer, the indented lines below it are
// what came of it: a status that is not success, log lines, the side file, the movie. With
// KX_MP4_UPDATE_GOLDEN in the environment the results are written anew.
//
// clang-format off
//   create NAME FLAGS               over callbacks; the side file lies beside NAME
//   video CODEC [FIELD=VALUE...]    h264, hevc, prores or a number; "deferred" leaves out the sets
//   record CODEC RECORD             frames are "raw" then, with lengths
//   audio CODEC [FIELD=VALUE...]    aac, adts or a number
//   captions CODEC TIMESCALE        the codec as a number
//   timecode TIMESCALE DURATION FRAMES FLAGS
//   meta KEY TYPE VALUE [SPACE]     the value is text, 0x and digits, or "null"
//   v TIMES UNIT...                 units as digits or by name; "raw" before digits: no start codes
//   a TIMES BYTES, c TIMES BYTES    times: START[+STEPxCOUNT]; of v: DTS, DTS:PTS
//   t COUNTER, set UNIT
//   offsets, timeline, strict, all_sets 0|1, live MS, priming SAMPLES
//   shape, colour [FIELD=VALUE...]
//   ask, size, calls, statuses, side, flush, close
// clang-format on
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "InfoReader.h"
#include "kx_mp4/Mp4Muxer.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"
#include "test_pattern.h"

namespace {

std::string Digits(const Bytes& bytes, size_t most = SIZE_MAX) {
    std::ostringstream text;
    for (size_t i = 0; i < std::min(most, bytes.size()); ++i)
        text << std::hex << std::setw(2) << std::setfill('0') << int{bytes[i]};
    if (bytes.size() > most) text << "... " << std::dec << bytes.size();
    return text.str();
}

/// The times of START[+STEPxCOUNT]; steps may be negative, and times wrap.
std::vector<uint64_t> Times(const std::string& text) {
    size_t used = 0;
    uint64_t time = std::stoull(text, &used, 0);
    if (used == text.size()) return {time};
    const size_t cross = text.find('x', used);
    const auto step = static_cast<uint64_t>(std::stoll(text.substr(used + 1, cross - used - 1)));
    std::vector<uint64_t> times;
    for (auto left = std::stoul(text.substr(cross + 1)); left > 0; --left, time += step)
        times.push_back(time);
    return times;
}

class Replay {
public:
    /// Runs a step and returns what came of it, as indented lines.
    std::string Run(const std::string& line) {
        std::istringstream in(line);
        m_words.assign(std::istream_iterator<std::string>(in), {});
        m_out.str({});
        m_log.Clear();
        const std::string& call = m_words.at(0);
        const auto question = kQuestions.find(call);
        if (question != kQuestions.end())
            (this->*question->second)();
        else
            Tell(kCalls.at(call)(*this));
        for (const std::string& complaint : m_log.Complaints())
            m_out << "  " << complaint << "\n";
        if (call == "close" && m_output->Size() != 0) TellMovie();
        return m_out.str();
    }

private:
    using Call = mp4_status_t (*)(Replay&);
    using Question = void (Replay::*)();
    static const std::map<std::string, Call> kCalls;
    static const std::map<std::string, Question> kQuestions;

    void Tell(mp4_status_t status) {
        if (status != MP4_STATUS_SUCCESS) m_out << "  " << mp4_status_string(status) << "\n";
    }
    const std::string& Word(size_t i) const { return m_words.at(i); }
    int Number(size_t i) const { return std::stoi(Word(i), nullptr, 0); }
    /// The value of FIELD=VALUE among the words.
    bool Field(const std::string& name, std::string& value) const {
        for (const std::string& word : m_words)
            if (word.compare(0, name.size() + 1, name + "=") == 0) {
                value = word.substr(name.size() + 1);
                return true;
            }
        return false;
    }
    template <class Integer>
    void Set(const std::string& name, Integer& field) const {
        std::string value;
        if (Field(name, value)) field = static_cast<Integer>(std::stoll(value, nullptr, 0));
    }
    void SetBytes(const std::string& name, const uint8_t*& data, int16_t& size) {
        std::string value;
        if (Field(name, value)) {
            m_sets.push_back(Unit(value));
            data = m_sets.back().data();
            size = static_cast<int16_t>(m_sets.back().size());
        }
        Set(name + "_size", size);
    }

    /// A NAL unit by its name or its digits.
    static Bytes Unit(const std::string& text) {
        static const std::map<std::string, Bytes> kNames{
            {"sps", test_pattern::kSps},    {"pps", test_pattern::kPps},
            {"VPS", streams::kHevcVps},     {"SPS", streams::kHevcSps},
            {"PPS", streams::kHevcPps},     {"sps1", streams::kFurtherSps},
            {"pps1", streams::kFurtherPps}, {"PPS1", streams::kFurtherHevcPps},
            {"idr", Hex("658884")},         {"slice", Hex("419a02")},
            {"IDR", Hex("260180")},         {"SLICE", Hex("0201d0")},
            {"large", Bytes(40000, 0x67)},  {"none", {}}};
        const auto named = kNames.find(text);
        return named != kNames.end() ? named->second : Hex(text);
    }

    mp4_status_t Create() {
        auto output = std::make_unique<MemoryOutput>();
        auto config =
            streams::CallbackConfig(static_cast<uint32_t>(Number(2)), output->Functions());
        const mp4_status_t status = m_muxer.Create(m_folder.Wide(Word(1)).c_str(), &config);
        if (status != MP4_STATUS_SUCCESS) return status;
        m_output = std::move(output);
        m_path = m_folder.Path(Word(1));
        return status;
    }
    mp4_status_t SetVideo() {
        const std::string& codec = Word(1);
        auto track = codec == "hevc"     ? streams::HevcTrack()
                     : codec == "prores" ? streams::ProResTrack(MP4_PRORES_422)
                                         : streams::H264Track();
        if (codec.find_first_of("-0123456789") == 0)
            track.codec = streams::Forged<mp4_video_codec>(Number(1));
        if (std::count(m_words.begin(), m_words.end(), "deferred") != 0)
            track = streams::Deferred(track);
        Set("timescale", track.timescale);
        Set("duration", track.frame_duration);
        Set("width", track.width);
        Set("height", track.height);
        if (codec == "hevc") {
            SetBytes("vps", track.hevc.vps, track.hevc.vps_size);
            SetBytes("sps", track.hevc.sps, track.hevc.sps_size);
            SetBytes("pps", track.hevc.pps, track.hevc.pps_size);
        } else if (codec == "prores") {
            int format = MP4_PRORES_422;
            Set("format", format);
            track.prores.format = streams::Forged<mp4_prores_format>(format);
        } else {
            SetBytes("sps", track.h264.sps, track.h264.sps_size);
            SetBytes("pps", track.h264.pps, track.h264.pps_size);
        }
        return m_muxer.SetVideoTrack(&track);
    }
    mp4_status_t AddSet() {
        const auto set = std::make_unique<const Bytes>(Unit(Word(1)));
        return m_muxer.AddParameterSet(set->data(), static_cast<uint32_t>(set->size()));
    }
    mp4_status_t SetVideoByRecord() {
        const auto track = Word(1) == "hevc" ? streams::HevcTrack() : streams::H264Track();
        const auto record = std::make_unique<const Bytes>(Unit(Word(2)));
        return m_muxer.SetVideoTrack(&track, record->data(), static_cast<uint32_t>(record->size()));
    }
    mp4_status_t SetAudio() {
        auto track = Word(1) == "adts" ? streams::AdtsTrack() : streams::AacTrack();
        if (Word(1).find_first_of("-0123456789") == 0)
            track.codec = streams::Forged<mp4_audio_codec>(Number(1));
        Set("timescale", track.timescale);
        Set("duration", track.frame_duration);
        Set("rate", track.sample_rate);
        Set("channels", track.channels);
        Set("profile", track.profile);
        return m_muxer.SetAudioTrack(&track);
    }
    mp4_status_t SetCaptions() {
        const mp4_subtitle_track_info_t track{streams::Forged<mp4_subtitle_codec>(Number(1)),
                                              static_cast<uint32_t>(Number(2))};
        return m_muxer.SetSubtitleTrack(&track);
    }
    mp4_status_t SetTimecode() {
        mp4_time_code_track_info_t track = streams::TimecodeTrack();
        track.timescale = static_cast<uint32_t>(Number(1));
        track.frame_duration = static_cast<uint64_t>(Number(2));
        track.frame_rate = static_cast<uint8_t>(Number(3));
        track.flags = Number(4);
        return m_muxer.SetTCMDTrack(&track);
    }
    mp4_status_t SetMetadata() {
        const std::string& value = Word(3);
        const bool digits = value.compare(0, 2, "0x") == 0;
        const Bytes bytes = digits ? Hex(value.substr(2)) : Bytes(value.begin(), value.end());
        // In memory of its own, so that a byte read past it is noticed; text ends with a zero.
        const auto copy = std::make_unique<Bytes>(bytes);
        const auto type = streams::Forged<mp4_meta_data_type_t>(Number(2));
        if (type == MP4_META_DATA_TYPE_STRING) copy->push_back(0);
        const auto* data = reinterpret_cast<const char*>(copy->data());
        return m_muxer.SetMetadata(Word(1) == "null" ? nullptr : Word(1).c_str(),
                                   value == "null" ? nullptr : data,
                                   static_cast<uint32_t>(bytes.size()), type,
                                   m_words.size() > 4 ? Word(4).c_str() : nullptr);
    }

    mp4_status_t SetShape() {
        mp4_video_shape_t shape{};
        shape.struct_size = sizeof shape;
        Set("size", shape.struct_size);
        Set("width", shape.pixel_width);
        Set("height", shape.pixel_height);
        Set("x", shape.clean_x);
        Set("y", shape.clean_y);
        Set("columns", shape.clean_width);
        Set("lines", shape.clean_height);
        Set("turn", shape.rotation);
        Set("fields", shape.field_order);
        Set("stream", shape.from_stream);
        return m_muxer.SetVideoShape(shape);
    }
    mp4_status_t SetColour() {
        mp4_video_colour_t colour{};
        colour.struct_size = sizeof colour;
        Set("size", colour.struct_size);
        Set("primaries", colour.primaries);
        Set("transfer", colour.transfer);
        Set("matrix", colour.matrix);
        Set("full", colour.full_range);
        Set("display", colour.has_mastering_display);
        colour.display_primaries[0][0] = 13250;
        colour.white_point[1] = 16450;
        colour.max_luminance = 10000000;
        Set("light", colour.has_content_light);
        colour.max_content_light_level = 1000;
        Set("stream", colour.from_stream);
        return m_muxer.SetVideoColour(colour);
    }

    mp4_status_t Video() {
        const bool raw = Word(2) == "raw";
        std::vector<Bytes> units;
        for (size_t i = raw ? 3 : 2; i < m_words.size(); ++i)
            units.push_back(Unit(Word(i)));
        const size_t colon = Word(1).find(':');
        const std::string pts = colon == std::string::npos ? "" : Word(1).substr(colon + 1);
        return Frames(Word(1).substr(0, colon), raw ? units.at(0) : streams::AccessUnit(units),
                      [&](const Bytes& frame, uint64_t time) {
                          return m_muxer.WriteVideoFrame(frame.data(),
                                                         static_cast<uint32_t>(frame.size()),
                                                         pts.empty() ? time : Times(pts)[0], time);
                      });
    }
    /// Writes a frame at each time, every one in memory of its own, which is gone after the call.
    template <class Write>
    mp4_status_t Frames(const std::string& times, const Bytes& frame, Write&& write) {
        mp4_status_t status = MP4_STATUS_SUCCESS;
        for (const uint64_t time : Times(times))
            if (status == MP4_STATUS_SUCCESS)
                status = write(*std::make_unique<const Bytes>(frame), time);
        return status;
    }
    template <class Write>
    mp4_status_t Packets(Write&& write) {
        return Frames(Word(1), Unit(Word(2)), [&](const Bytes& frame, uint64_t time) {
            return (m_muxer.*write)(frame.data(), static_cast<uint32_t>(frame.size()), time);
        });
    }

    void Ask() {
        m_out << "  " << m_muxer.GetDurationMS() << " ms, moov " << m_muxer.GetMoovSize()
              << ", file " << m_muxer.GetCurFileSize() << ", KiB/s " << m_muxer.GetVideoBitrate()
              << " and " << m_muxer.GetAudioBitrate() << ", side file "
              << (m_muxer.IsRepairInfoActive() ? "active" : "not active") << "\n";
    }

    /// Settles nothing, as the question for the duration does.
    void TellSize() { m_out << "  moov " << m_muxer.GetMoovSize() << "\n"; }
    void TellStatuses() {
        for (int i = -1; i < 64; ++i) {
            const std::string name = mp4_status_string(streams::Forged<mp4_status_t>(i));
            if (i < 0 || name != "MP4_STATUS_(unknown)") m_out << "  " << i << " " << name << "\n";
        }
    }
    void TellCalls() {
        for (const std::string& call : m_output->calls)
            if (call != "tell")
                m_out << (call.compare(0, 4, "init") == 0 ? "  init" : "  " + call) << "\n";
        m_output->calls.clear();
    }
    void TellSideFile() {
        const Bytes file = ReadFile(m_path + ".info");
        kx_mp4::InfoReader reader(m_path + ".info");
        reader.Begin();
        uint8_t flags = 0;
        uint32_t mdat = 0;
        if (!reader.ReadHead(flags, mdat)) {
            m_out << "  " << Digits(file) << "\n";
            return;
        }
        m_out << "  flags " << int{flags} << ", media at " << mdat << "\n";
        static constexpr const char* kNames[] = {"frame",    "video",    "audio",
                                                 "captions", "timecode", "metadata"};
        std::vector<std::pair<std::string, uint64_t>> records;
        for (kx_mp4::InfoRecord record; reader.Next(record);) {
            std::ostringstream text;
            text << kNames[record.index()];
            if (const auto* frame = std::get_if<kx_mp4::FrameRecord>(&record))
                text << " of track " << frame->track << " at " << frame->dts << ":" << frame->pts
                     << (frame->sync ? " sync, " : ", ") << frame->size;
            records.emplace_back(text.str(), reader.RecordPosition());
        }
        EXPECT_EQ(reader.Problem(), "");
        for (size_t i = 0; i < records.size(); ++i) {
            const auto begin = file.begin() + static_cast<ptrdiff_t>(records[i].second);
            const auto end = i + 1 < records.size()
                                 ? file.begin() + static_cast<ptrdiff_t>(records[i + 1].second)
                                 : file.end();
            m_out << "  " << records[i].first << ": " << Digits(Bytes(begin, end)) << "\n";
        }
    }

    void TellMovie() {
        const MovieReader movie = m_output->Movie();
        m_out << "  " << movie.File().ChildTypes() << "\n";
        for (const Track& track : movie.Tracks()) {
            m_out << "  " << track.handler << " " << track.id << " " << track.entryType << ", "
                  << track.chunks << " chunks\n";
            for (const Sample& sample : track.samples) {
                m_out << "    " << sample.offset << " " << sample.dts << ":" << sample.cts << " +"
                      << sample.duration << (sample.sync ? " sync " : " ")
                      << Digits(movie.SampleBytes(sample), 24) << "\n";
                if (&sample - track.samples.data() < 11) continue;
                m_out << "    ... " << track.samples.size() << "\n";
                break;
            }
        }
        TellBox(movie.At("moov"), 1);
        EXPECT_FALSE(std::filesystem::exists(m_path + ".info"));
    }
    /// A box that came before is not told again.
    void TellBox(const Box& box, int depth) {
        const bool isNew = m_told.insert(box.Dump()).second;
        if (isNew && (box.children.empty() || box.type == "stsd" || box.type == "ilst")) {
            m_out << box.Dump(depth);
            return;
        }
        m_out << std::string(static_cast<size_t>(2 * depth), ' ') << box.Name() << " " << box.size
              << (isNew ? "" : " as before") << "\n";
        if (!isNew) return;
        for (const Box& child : box.children)
            TellBox(child, depth + 1);
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    std::string m_path;
    std::unique_ptr<MemoryOutput> m_output;  // of the recording that runs, or the last one
    std::vector<Bytes> m_sets;
    std::set<std::string> m_told;
    std::vector<std::string> m_words;
    std::ostringstream m_out;
    CMp4Muxer m_muxer;
};

const std::map<std::string, Replay::Call> Replay::kCalls{
    {"create", [](Replay& r) { return r.Create(); }},
    {"video", [](Replay& r) { return r.SetVideo(); }},
    {"audio", [](Replay& r) { return r.SetAudio(); }},
    {"captions", [](Replay& r) { return r.SetCaptions(); }},
    {"timecode", [](Replay& r) { return r.SetTimecode(); }},
    {"meta", [](Replay& r) { return r.SetMetadata(); }},
    {"v", [](Replay& r) { return r.Video(); }},
    {"a", [](Replay& r) { return r.Packets(&CMp4Muxer::WriteAudioFrame); }},
    {"c", [](Replay& r) { return r.Packets(&CMp4Muxer::WriteSubtitleFrame); }},
    {"t", [](Replay& r) { return r.m_muxer.WriteTimeCode(r.Number(1)); }},
    {"offsets", [](Replay& r) { return r.m_muxer.SetCompositionOffsets(r.Number(1) != 0); }},
    {"all_sets", [](Replay& r) { return r.m_muxer.SetAllParameterSets(r.Number(1) != 0); }},
    {"set", [](Replay& r) { return r.AddSet(); }},
    {"record", [](Replay& r) { return r.SetVideoByRecord(); }},
    {"strict", [](Replay& r) { return r.m_muxer.SetStrictForm(r.Number(1) != 0); }},
    {"timeline", [](Replay& r) { return r.m_muxer.SetTimeline(r.Number(1) != 0); }},
    {"priming",
     [](Replay& r) { return r.m_muxer.SetAudioPriming(static_cast<uint32_t>(r.Number(1))); }},
    {"shape", [](Replay& r) { return r.SetShape(); }},
    {"colour", [](Replay& r) { return r.SetColour(); }},
    {"live", [](Replay& r) { return r.m_muxer.SetLiveIndex(static_cast<uint32_t>(r.Number(1))); }},
    {"flush", [](Replay& r) { return r.m_muxer.Flush(); }},
    {"close", [](Replay& r) { return r.m_muxer.Close(); }}};

const std::map<std::string, Replay::Question> Replay::kQuestions{
    {"ask", &Replay::Ask},
    {"size", &Replay::TellSize},
    {"calls", &Replay::TellCalls},
    {"statuses", &Replay::TellStatuses},
    {"side", &Replay::TellSideFile}};

class Recordings : public ::testing::TestWithParam<const char*> {};

TEST_P(Recordings, ComeOutAsKept) {
    const std::string path = std::string(KX_MP4_RECORDINGS_FOLDER) + "/" + GetParam() + ".txt";
    std::ifstream file(path);
    std::string kept;
    std::string text;
    Replay replay;
    for (std::string line; std::getline(file, line);) {
        kept += line + "\n";
        if (line.compare(0, 2, "  ") == 0) continue;
        text += line + "\n";
        if (!line.empty() && line[0] != '#') text += replay.Run(line);
    }
    ASSERT_FALSE(text.empty());
    if (std::getenv("KX_MP4_UPDATE_GOLDEN") != nullptr) std::ofstream(path) << text;
    EXPECT_EQ(text, kept) << path;
}

INSTANTIATE_TEST_SUITE_P(All, Recordings,
                         ::testing::Values("captions", "metadata", "presentation", "side_file",
                                           "sound", "times", "video", "refusals"),
                         [](const auto& kept) { return std::string(kept.param); });

}  // namespace
