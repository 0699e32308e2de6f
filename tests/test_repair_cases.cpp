// Damaged recordings and their repairs, case by case: golden/repairs.txt says how to read them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "golden_text.h"
#include "kx_mp4/repair.h"
#include "repair_scenario.h"
#include "system_calls.h"

using kx_mp4::RepairOptions;
using kx_mp4::RepairOutcome;
using kx_mp4::RepairReport;
using namespace repair_scenario;

namespace {

constexpr std::ptrdiff_t kFirstSample = 44;

/// A position in a file: a number, from the end when it is negative, or behind a tag's last place.
std::ptrdiff_t PositionOf(const std::string& text, const Bytes& file) {
    const auto size = static_cast<std::ptrdiff_t>(file.size());
    const size_t sign = text.find_first_of("+-", 1);
    if (sign == std::string::npos) {
        const std::ptrdiff_t number = std::stol(text);
        return number < 0 ? size + number : number;
    }
    const auto tag = std::find_end(file.begin(), file.end(), text.begin(),
                                   text.begin() + static_cast<std::ptrdiff_t>(sign));
    return tag - file.begin() + std::stol(text.substr(sign));
}

/// "+ HEX", "cut N", "@N = HEX" or "@N zeros N".
void Edit(Bytes& file, std::istringstream words) {
    std::string verb;
    std::string position;
    words >> verb;
    if (verb[0] == '@') {
        position = verb.substr(1);
        words >> verb;
    }
    std::string rest;
    std::getline(words, rest);
    if (verb == "+") file = file + Hex(rest);
    if (verb == "cut") file.resize(static_cast<size_t>(PositionOf(rest, file)));
    if (position.empty()) return;
    const Bytes with = verb == "zeros" ? Bytes(std::stoul(rest)) : Hex(rest);
    const std::ptrdiff_t at = PositionOf(position, file);
    ASSERT_LE(at + static_cast<std::ptrdiff_t>(with.size()),
              static_cast<std::ptrdiff_t>(file.size()));
    std::copy(with.begin(), with.end(), file.begin() + at);
}

/// One line of the text: what is recorded, how it is repaired and what happens to it before.
class RepairCase {
public:
    explicit RepairCase(const std::string& line) {
        const size_t colon = std::min(line.find(':'), line.size());
        std::istringstream words(line.substr(0, colon));
        for (std::string word; words >> word;)
            m_words.insert(word);
        Scenario scenario;
        scenario.codec = Says("hevc")     ? MP4_MVC_HEVC
                         : Says("prores") ? MP4_MVC_PRORES
                                          : MP4_MVC_H264;
        scenario.captions = Says("708") ? MP4_SUBTITLE_CODEC_CC708 : MP4_SUBTITLE_CODEC_CC608;
        scenario.deferred = Says("deferred");
        scenario.declareTwice = Says("twice");
        scenario.offsets = Says("offsets");
        scenario.soundOnly = Says("sound");
        scenario.presented = Says("presented");
        scenario.pictures = Says("empty") ? 0 : Says("long") ? 40 : 8;
        std::vector<std::string> edits;
        std::istringstream rest(line.substr(std::min(colon + 1, line.size())));
        for (std::string edit; std::getline(rest, edit, ';');)
            edits.push_back(edit);
        Record(scenario, edits);
        for (const std::string& edit : edits)
            Damage(scenario, edit);
    }

    /// What the repairs report, into a copy and in place.
    std::string Run() const {
        const std::string copy = RunOne(false);
        const std::string inPlace = RunOne(true);
        return copy == inPlace ? copy : copy + "  in place\n" + inPlace;
    }

private:
    bool Says(const char* word) const { return m_words.count(word) != 0; }
    uint32_t Flags() const {
        return Says("64") ? uint32_t{MP4_FLAG_64BIT_SIZE} | MP4_FLAG_64BIT_TIME : 0U;
    }

    void Record(const Scenario& scenario, const std::vector<std::string>& edits) {
        std::vector<Call> calls = CallsOf(scenario);
        for (const std::string& edit : edits) {
            std::istringstream words(edit);
            std::string verb;
            uint64_t time = 0;
            std::string hex;
            words >> verb >> time;
            std::getline(words, hex);
            if (verb != "audio") continue;
            const auto write = [frame = Hex(hex), time](CMp4Muxer& muxer) {
                return muxer.WriteAudioFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                             time);
            };
            calls.push_back({write, CallKind::kAudio});
        }
        m_path = m_folder.Path(Says("mov") ? "a.mov" : "a.mp4");
        m_finished = Finished(m_path, Flags(), calls);
        CutOff(m_path, Flags(), calls);
        m_media = ReadFile(m_path);
        m_info = ReadFile(m_path + ".info");
    }

    void Damage(Scenario scenario, const std::string& edit) {
        std::istringstream words(edit);
        std::string file;
        std::string verb;
        const auto place = words.tellg();
        words >> file >> verb;
        words.seekg(place);
        words >> file;
        if (verb == "finished") {
            m_media = m_finished;
        } else if (verb == "of") {
            words >> verb >> scenario.seed;
            CutOff(m_path, Flags(), CallsOf(scenario));
            m_info = ReadFile(m_path + ".info");
        } else if (verb == "none") {
            (file == "info" ? m_hasInfo : m_hasMedia) = false;
            (file == "info" ? m_info : m_media).clear();
        } else if (file != "audio") {
            std::string rest;
            std::getline(words, rest);
            Edit(file == "info" ? m_info : m_media, std::istringstream(rest));
        }
    }

    void Put() const {
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path("")))
            std::filesystem::remove(entry.path());
        if (m_hasMedia) WriteWholeFile(m_path, m_media);
        if (m_hasInfo) WriteWholeFile(m_path + ".info", m_info);
    }

    std::string RunOne(bool inPlace) const {
        Put();
        RepairOptions options;
        options.in_place = inPlace;
        options.dry_run = Says("dry");
        options.force = Says("force");
        options.keep_info = Says("keep");
        if (Says("with-offsets")) options.composition_offsets = true;
        if (Says("no-offsets")) options.composition_offsets = false;
        const RepairReport report = kx_mp4::Repair(m_path, options);
        const bool failed = report.outcome == RepairOutcome::kFailed;
        if (failed || !inPlace || options.dry_run) {
            EXPECT_TRUE(ReadFile(m_path) == m_media) << "changed";
            EXPECT_EQ(std::filesystem::exists(m_path + ".info"), m_hasInfo);
        }
        EXPECT_EQ(report.output_path.empty(), failed || options.dry_run);
        const std::string text = Text(report);
        if (inPlace && report.outcome == RepairOutcome::kLoss) {
            const Bytes once = ReadFile(m_path);
            EXPECT_EQ(Text(kx_mp4::Repair(m_path, options)), text) << "again";
            EXPECT_TRUE(ReadFile(m_path) == once);
        }
        return text;
    }

    std::string Text(const RepairReport& report) const {
        static constexpr const char* kOutcomes[] = {"whole", "loss", "failed"};
        static constexpr const char* kTracks[] = {"video", "audio", "caption", "timecode"};
        std::ostringstream out;
        std::string reason = report.reason;
        for (size_t at = 0; (at = reason.find(m_folder.Path(""))) != std::string::npos;)
            reason.erase(at, m_folder.Path("").size());
        out << "  " << kOutcomes[static_cast<int>(report.outcome)]
            << (report.quicktime ? " quicktime" : "")
            << (report.composition_offsets ? " offsets" : "") << ", " << report.records
            << " records, " << report.media_bytes_kept << " bytes, "
            << report.media_bytes_unexplained << " unexplained, output " << report.output_bytes
            << "\n";
        if (!reason.empty()) out << "  at " << report.reason_time_ms << " ms: " << reason << "\n";
        for (size_t i = 0; i < report.tracks.size(); ++i) {
            const auto& track = report.tracks[i];
            if (track.frames_kept + track.frames_dropped + track.frames_without_track == 0)
                continue;
            out << "  " << kTracks[i] << " " << track.frames_kept << " kept, " << track.bytes_kept
                << " bytes, " << track.frames_dropped << " dropped, " << track.frames_without_track
                << " without track, " << track.frames_doubtful << " doubtful\n";
        }
        if (!report.output_path.empty()) DescribeOutput(out, report);
        return out.str();
    }

    /// How the repaired file compares with the closed one; no byte of the media data is lost.
    void DescribeOutput(std::ostream& out, const RepairReport& report) const {
        const Bytes made = ReadFile(report.output_path);
        EXPECT_EQ(made.size(), report.output_bytes);
        const Bytes rest = UnexplainedIn(made, m_finished);
        out << "  the output is "
            << (made == m_finished ? "the closed file"
                : !rest.empty() && made == WithUnexplained(m_finished, rest)
                    ? "the closed file and what is unexplained"
                    : "another file");
        const auto media =
            static_cast<std::ptrdiff_t>(report.media_bytes_kept + report.media_bytes_unexplained);
        const std::ptrdiff_t first = Says("mov") ? kFirstSample - 16 : kFirstSample;
        const std::ptrdiff_t begin = Says("64") ? first + 8 : first;
        EXPECT_TRUE(std::equal(m_media.begin() + begin, m_media.begin() + begin + media,
                               made.begin() + begin));
        const MovieReader movie(made);
        for (const Track& track : movie.Tracks())
            out << ", " << track.handler << " " << track.samples.size() << " in " << track.duration;
        out << (std::filesystem::exists(m_path + ".info") ? ", the side file is kept\n" : "\n");
    }

    Folder m_folder;
    std::set<std::string> m_words;
    std::string m_path;
    Bytes m_finished;
    Bytes m_media;
    Bytes m_info;
    bool m_hasMedia = true;
    bool m_hasInfo = true;
};

TEST(RepairCases, EndAsIsKept) {
    ExpectLinesKept("repairs", [](const std::string& line) {
        return line[0] == '$' ? RepairCase(line.substr(1)).Run() : std::string();
    });
}

}  // namespace
