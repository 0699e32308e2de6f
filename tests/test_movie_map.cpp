#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "MapDrawing.h"
#include "Movie.h"
#include "MovieFacts.h"
#include "MovieMap.h"
#include "golden_text.h"
#include "program_runner.h"

namespace kxmap {
namespace {

namespace movie = kx_mp4::movie;

constexpr char kSeed[] = KX_MP4_FUZZ_SEEDS "/movie_reader/everything_hevc";

/// A file of the test's own, removed at its end.
class MovieMapTest : public testing::Test {
protected:
    void TearDown() override { std::remove(m_path.c_str()); }

    void Replace(const std::string& bytes) const {
        std::ofstream(m_path, std::ios::binary | std::ios::trunc) << bytes;
    }

    /// Whatever the file holds, the boxes cover it and the picture is an SVG document.
    MovieMap ReadAndDraw() const {
        MovieMap map = ReadMovieMap(m_path);
        uint64_t position = 0;
        for (const Box& box : map.boxes) {
            EXPECT_EQ(box.offset, position);
            position += box.size;
        }
        EXPECT_EQ(position, map.fileSize);
        const std::string svg = DrawMovieMap(map);
        EXPECT_EQ(svg.rfind("<svg ", 0), 0u);
        EXPECT_EQ(svg.find("</svg>"), svg.size() - 7);
        return map;
    }

    const std::string m_path = testing::TempDir() +
                               "layout_" +  // not "mov": that would give a QuickTime movie
                               std::to_string(getpid()) + ".mp4";
};

TEST_F(MovieMapTest, ReadsWhatIsLeftOfACutFile) {
    EXPECT_THROW(ReadMovieMap(m_path + ".missing"), MovieError);
    EXPECT_THROW(ReadMovieMap("/dev/zero"), MovieError);
    const std::string whole = program_runner::ReadFile(kSeed);
    for (size_t size = 0; size < whole.size(); size += 7) {
        Replace(whole.substr(0, size));
        EXPECT_TRUE(ReadAndDraw().tracks.empty()) << size;
    }
}

TEST_F(MovieMapTest, BelievesNoCountPastItsBox) {
    const std::string whole = program_runner::ReadFile(kSeed);
    const size_t index = whole.find("moov");
    const std::string hostile[] = {std::string(4, '\xFF'), std::string(4, '\0'),
                                   std::string("\x7F\xFF\xFF\xFF")};
    for (size_t at = index; at + 4 <= whole.size(); at += 4) {
        for (const std::string& value : hostile) {
            std::string bytes = whole;
            bytes.replace(at, 4, value);
            Replace(bytes);
            for (const Track& track : ReadAndDraw().tracks)
                EXPECT_LE(track.extents.size(), 25u) << at;
        }
    }
}

// Seeds of every form of table and fragment, whole, torn and contradictory.
TEST_F(MovieMapTest, ReadsTheSeedsAsIsKept) {
    ExpectReplayKept("movie_reader", [this](std::ostream& out, const movie::Bytes& seed) {
        Replace({seed.begin(), seed.end()});
        MovieMap map = ReadAndDraw();
        map.name.clear();
        for (std::string& remark : map.remarks)
            remark.resize(std::min(remark.find("layout_"), remark.size()));
        out << FactsAsText(map);
        const auto source = std::make_shared<movie::MemorySource>(seed);
        VisitSamples(movie::ReadMovie(source), [&](size_t track, const movie::Sample& sample) {
            out << "  " << track << "/" << sample.chunk << " at " << sample.offset << ", "
                << sample.size << " bytes, dts " << sample.dts << " cts " << sample.cts << " + "
                << sample.duration << (sample.sync ? " sync" : "") << " as " << sample.description
                << "\n";
        });
    });
}

/// Samples that lie in the file, of all tracks.
std::vector<std::vector<movie::Sample>> SamplesIn(const movie::Movie& movie, size_t* faults) {
    std::vector<std::vector<movie::Sample>> samples(movie.tracks.size());
    *faults = movie.boxes.faults.size() +
              movie::VisitSamples(movie, [&](size_t track, const movie::Sample& sample) {
                  if (sample.offset + sample.size <= movie.boxes.file.size)
                      samples[track].push_back(sample);
              }).size();
    return samples;
}

// Another muxer's fragments in every form of addressing, and what is left when they are cut off.
TEST_F(MovieMapTest, FragmentsHoldTheSamplesOfTheTables) {
    const std::string reordered = m_path + ".reordered.mp4";
    ASSERT_EQ(program_runner::Execute("'" KXMUX_PATH "' --fps 25 --overwrite --video " +
                                      program_runner::Sample("reordered.h264") + " --audio " +
                                      program_runner::Sample("audio.aac") + " -o " + reordered)
                  .code,
              0);
    const auto readMuxed = [&](const std::string& flags) {
        EXPECT_EQ(program_runner::Execute("ffmpeg -v error -y -i " + reordered +
                                          " -c copy -use_editlist 0 " + flags + " " + m_path)
                      .code,
                  0);
        const std::string bytes = program_runner::ReadFile(m_path);
        return movie::Bytes(bytes.begin(), bytes.end());
    };
    const auto read = [](movie::Bytes bytes) {
        return movie::ReadMovie(std::make_shared<movie::MemorySource>(std::move(bytes)));
    };
    size_t faults = 0;
    const movie::Movie whole = read(readMuxed(""));
    const auto expected = SamplesIn(whole, &faults);
    EXPECT_EQ(faults, 0U);
    ASSERT_EQ(expected.size(), 2U);
    const std::string fragments = "-movflags empty_moov+";
    for (const char* const form : {"frag_keyframe", "frag_keyframe+omit_tfhd_offset",
                                   "frag_keyframe+default_base_moof -frag_duration 300000"}) {
        SCOPED_TRACE(form);
        movie::Bytes bytes = readMuxed(fragments + form);
        const movie::Movie movie = read(bytes);
        const auto samples = SamplesIn(movie, &faults);
        EXPECT_EQ(faults, 0U);
        EXPECT_GT(movie.fragments.size(), 2U);
        ASSERT_EQ(samples.size(), expected.size());
        for (size_t track = 0; track < expected.size(); ++track) {
            ASSERT_EQ(samples[track].size(), expected[track].size());
            for (size_t i = 0; i < expected[track].size(); ++i) {
                const movie::Sample& a = samples[track][i];
                const movie::Sample& b = expected[track][i];
                EXPECT_EQ(a.dts, b.dts);
                EXPECT_EQ(a.cts, b.cts);
                EXPECT_EQ(a.sync, b.sync) << i;
                EXPECT_EQ(a.description, 1U);
                EXPECT_EQ(movie.boxes.file.Content(a.offset, a.size),
                          whole.boxes.file.Content(b.offset, b.size));
            }
        }
        // Cut off in a fragment's data and in its box.
        const movie::Box& last = *movie.fragments.back();
        for (const uint64_t end : {last.offset - 9, last.offset + 30}) {
            bytes.resize(end);
            const movie::Movie cut = read(bytes);
            const auto rest = SamplesIn(cut, &faults);
            EXPECT_GT(faults, 0U);
            EXPECT_EQ(cut.fragments.size(), movie.fragments.size() - 1);
            EXPECT_GT(rest[0].size(), expected[0].size() / 2);
            EXPECT_LT(rest[0].size() + rest[1].size(), expected[0].size() + expected[1].size());
            bytes.insert(bytes.end(), 30, 0);  // not what was there
        }
    }
    std::remove(reordered.c_str());
}

}  // namespace
}  // namespace kxmap
