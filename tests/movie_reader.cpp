#include "movie_reader.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace movie = kx_mp4::movie;

namespace {

class FunctionSource final : public movie::BoxSource {
public:
    FunctionSource(uint64_t size, std::function<uint8_t(uint64_t)> byteAt)
        : m_size(size), m_byteAt(std::move(byteAt)) {}

    uint64_t Size() const override { return m_size; }
    bool Read(uint64_t position, uint8_t* out, size_t size) const override {
        if (size > m_size || position > m_size - size) return false;
        for (; size != 0; --size)
            *out++ = m_byteAt(position++);
        return true;
    }

private:
    uint64_t m_size;
    std::function<uint8_t(uint64_t)> m_byteAt;
};

void RequireNone(const std::vector<std::string>& faults) {
    if (!faults.empty()) throw movie::MovieError(faults[0]);
}

}  // namespace

MovieReader::MovieReader(Bytes file)
    : MovieReader(std::make_shared<movie::MemorySource>(std::move(file))) {}

MovieReader::MovieReader(uint64_t size, std::function<uint8_t(uint64_t)> byteAt)
    : MovieReader(std::make_shared<FunctionSource>(size, std::move(byteAt))) {}

MovieReader::MovieReader(std::shared_ptr<const movie::BoxSource> source)
    : m_movie(movie::ReadMovie(std::move(source))) {
    RequireNone(m_movie.boxes.faults);
    if (m_movie.boxes.isOpen) throw movie::MovieError("The media data has no size.");
    for (const movie::Track& track : m_movie.tracks)
        m_tracks.push_back({track, 0, 0, {}});
    RequireNone(movie::VisitSamples(m_movie, [this](size_t track, const Sample& sample) {
        Track& its = m_tracks[track];
        its.samples.push_back(sample);
        its.chunks = sample.chunk + 1;
        its.lastDuration = sample.duration;
    }));
}

const Track& MovieReader::TrackOf(const std::string& handler) const {
    for (const Track& track : m_tracks)
        if (track.handler == handler) return track;
    throw std::runtime_error("no track with handler '" + handler + "'");
}

Bytes MovieReader::SampleBytes(const Sample& sample) const {
    return File().Content(sample.offset, sample.size);
}

Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

Bytes BytesOf(CBufferIO& stream) {
    if (stream.GetSize() == 0) return {};
    return Bytes(stream.GetBuffer(), stream.GetBuffer() + stream.GetSize());
}

Bytes Hex(const std::string& digits) {
    Bytes bytes;
    std::string pair;
    for (const char digit : digits) {
        if (digit == ' ') continue;
        pair += digit;
        if (pair.size() < 2) continue;
        bytes.push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
        pair.clear();
    }
    if (!pair.empty()) throw std::runtime_error("odd number of digits");
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
