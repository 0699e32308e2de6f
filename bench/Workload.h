/// @file
/// The streams that the writers are compared on: synthetic Annex-B pictures and AAC frames, made
/// once and used again and again.
#ifndef KX_MP4_BENCH_WORKLOAD_H
#define KX_MP4_BENCH_WORKLOAD_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

constexpr uint32_t kVideoTimescale = 90000;
constexpr uint32_t kAudioRate = 48000;
constexpr uint32_t kSamplesPerAacFrame = 1024;

/// Single NAL units without start code: constrained baseline, level 4, 1920 x 1080.
extern const std::vector<uint8_t> kSps;
extern const std::vector<uint8_t> kPps;

/// One frame of either track. The bytes belong to the workload.
struct Sample {
    const uint8_t* data;
    uint32_t size;
    uint64_t time;  ///< In the track's timescale; decode and presentation time.
    bool video;
    bool key;
};

/// A recording: how long, which pictures, with sound or without.
class Workload {
public:
    struct Shape {
        std::string name;
        std::string title;
        uint32_t fps;
        uint32_t pictures;  ///< Length of the recording.
        uint32_t distinct;  ///< Pictures that are made; they are repeated in order.
        uint32_t minBytes;  ///< Size of a picture: evenly distributed between these two.
        uint32_t maxBytes;
        uint32_t slices;       ///< NAL units of a picture.
        uint32_t keyInterval;  ///< Pictures from one key frame to the next.
        uint32_t keyFactor;    ///< How many times larger a key frame is.
        bool audio;
    };

    explicit Workload(const Shape& shape);

    const Shape& shape() const { return m_shape; }
    uint64_t samples() const { return m_samples; }
    uint64_t bytes() const { return m_bytes; }

    /// The samples in recording order.
    class Cursor {
    public:
        explicit Cursor(const Workload& workload) : m_workload(workload) {}
        Sample Next() {
            return m_workload.AudioIsNext(m_picture, m_aac) ? m_workload.Aac(m_aac++)
                                                            : m_workload.Picture(m_picture++);
        }

    private:
        const Workload& m_workload;
        uint64_t m_picture = 0;
        uint64_t m_aac = 0;
    };

private:
    struct Span {
        size_t offset;
        uint32_t size;
    };

    bool AudioIsNext(uint64_t picture, uint64_t aac) const {
        return m_shape.audio &&
               aac * kSamplesPerAacFrame * m_shape.fps < picture * uint64_t{kAudioRate};
    }
    Sample Picture(uint64_t index) const {
        const Span& span = m_pictures[index % m_pictures.size()];
        const uint64_t time = index * (kVideoTimescale / m_shape.fps);
        return {m_pool.data() + span.offset, span.size, time, true, IsKey(index)};
    }
    Sample Aac(uint64_t index) const {
        const Span& span = m_aac[index % m_aac.size()];
        return {m_pool.data() + span.offset, span.size, index * kSamplesPerAacFrame, false, true};
    }
    bool IsKey(uint64_t index) const {
        return index % m_pictures.size() % m_shape.keyInterval == 0;
    }
    void CountSamples();

    Shape m_shape;
    std::vector<uint8_t> m_pool;
    std::vector<Span> m_pictures;
    std::vector<Span> m_aac;
    uint64_t m_samples = 0;
    uint64_t m_bytes = 0;
};

/// The four recordings; `quick` makes them short.
std::vector<Workload::Shape> WorkloadShapes(bool quick);

#endif  // KX_MP4_BENCH_WORKLOAD_H
