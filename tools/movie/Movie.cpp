#include "Movie.h"

#include <algorithm>
#include <utility>

#include "Fragments.h"
#include "SampleTables.h"

namespace kx_mp4::movie {
namespace {

constexpr size_t kMaxTracks = 64;
/// Of all tables together; an index of this size describes weeks of recording.
constexpr uint64_t kMaxTableBytes = uint64_t{256} << 20;

std::string TypeAt(const Box& box, uint64_t position) {
    const Bytes type = box.Peek(position, 4);
    return {type.begin(), type.end()};
}

/// Throws MovieError when a header or table that every track has is not there.
Track ReadTrack(const Box& trak) {
    Track track;
    track.box = &trak;
    const Box& tkhd = trak.At("tkhd");
    track.id = tkhd.U32(tkhd.Version() == 1 ? 28 : 20);
    const Box& mdhd = trak.At("mdia/mdhd");
    const bool wide = mdhd.Version() == 1;
    track.timescale = mdhd.U32(wide ? 28 : 20);
    track.duration = wide ? mdhd.U64(32) : mdhd.U32(24);
    track.handler = TypeAt(trak.At("mdia/hdlr"), 16);
    const Box* const entry = trak.Find("mdia/minf/stbl/stsd");
    if (entry == nullptr || entry->children.empty()) throw MovieError("no sample entry");
    track.entryType = entry->children[0].type;
    return track;
}

void ReadTracks(Movie& movie) {
    std::vector<std::string>& faults = movie.boxes.faults;
    for (const Box& trak : movie.moov->children) {
        if (trak.type != "trak" || movie.tracks.size() == kMaxTracks) continue;
        const std::string where = "The track at byte " + std::to_string(trak.offset);
        try {
            Track track = ReadTrack(trak);
            if (track.timescale == 0) faults.push_back(where + " has no timescale.");
            movie.tracks.push_back(std::move(track));
        } catch (const MovieError& error) {
            faults.push_back(where + " cannot be read: " + error.what() + '.');
        }
    }
}

}  // namespace

Movie ReadMovie(std::shared_ptr<const BoxSource> source) {
    Movie movie;
    movie.boxes = ReadBoxes(std::move(source));
    for (const Box& box : movie.boxes.file.children) {
        if (box.type == "moov" && !box.isCut) movie.moov = &box;
    }
    if (movie.moov == nullptr) return movie;
    ReadTracks(movie);
    if (movie.moov->Find("mvex") == nullptr) return movie;
    for (const Box& box : movie.boxes.file.children) {
        if (box.type == "moof" && !box.isCut) movie.fragments.push_back(&box);
    }
    return movie;
}

std::vector<std::string> VisitSamples(const Movie& movie, const SampleVisitor& visit) {
    std::vector<std::string> faults;
    std::vector<Sample> next(movie.tracks.size());
    std::vector<uint64_t> outside(movie.tracks.size());
    const uint64_t fileSize = movie.boxes.file.size;
    const auto forward = [&](size_t track, const Sample& sample) {
        if (sample.size > fileSize || sample.offset > fileSize - sample.size) ++outside[track];
        visit(track, sample);
    };
    TableReader tables(kMaxTableBytes);
    for (size_t i = 0; i < movie.tracks.size(); ++i) {
        const auto forwardTrack = [&, i](const Sample& sample) {
            next[i].dts = sample.dts + sample.duration;
            next[i].chunk = sample.chunk + 1;
            forward(i, sample);
        };
        tables.Visit(movie.tracks[i], forwardTrack, faults);
    }
    FragmentReader fragments(movie, std::move(next));
    for (const Box* const moof : movie.fragments) {
        if (!fragments.Visit(*moof, forward))
            faults.push_back("The fragment at byte " + std::to_string(moof->offset) +
                             " does not hold.");
    }
    for (size_t i = 0; i < outside.size(); ++i) {
        if (outside[i] != 0)
            faults.push_back("Track " + std::to_string(movie.tracks[i].id) + ": " +
                             std::to_string(outside[i]) + " samples lie outside the file.");
    }
    return faults;
}

}  // namespace kx_mp4::movie
