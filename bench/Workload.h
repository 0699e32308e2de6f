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
        uint32_t distinct;  ///< Pictures that are made: whole key intervals, repeated.
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

    /// The samples in recording order, over and over the same pictures.
    class Cursor {
    public:
        explicit Cursor(const Workload& workload) : m_workload(workload) {}
        Sample Next() {
            const Workload& from = m_workload;
            if (from.m_shape.audio && m_aacClock < m_pictureClock) {
                const Sample sample = from.At(from.m_aac[m_aac], m_aacTime, false, true);
                m_aac = m_aac + 1 == from.m_aac.size() ? 0 : m_aac + 1;
                m_aacTime += kSamplesPerAacFrame;
                m_aacClock += uint64_t{kSamplesPerAacFrame} * from.m_shape.fps;
                return sample;
            }
            const bool key = m_untilKey == 0;
            const Sample sample = from.At(from.m_pictures[m_picture], m_pictureTime, true, key);
            m_untilKey = key ? from.m_shape.keyInterval - 1 : m_untilKey - 1;
            m_picture = m_picture + 1 == from.m_pictures.size() ? 0 : m_picture + 1;
            m_pictureTime += kVideoTimescale / from.m_shape.fps;
            m_pictureClock += kAudioRate;
            return sample;
        }

    private:
        const Workload& m_workload;
        size_t m_picture = 0;
        size_t m_aac = 0;
        uint32_t m_untilKey = 0;
        uint64_t m_pictureTime = 0;
        uint64_t m_aacTime = 0;
        // Both in units of 1 / (fps * audio rate) seconds.
        uint64_t m_pictureClock = 0;
        uint64_t m_aacClock = 0;
    };

private:
    struct Span {
        size_t offset;
        uint32_t size;
    };

    Sample At(const Span& span, uint64_t time, bool video, bool key) const {
        return {m_pool.data() + span.offset, span.size, time, video, key};
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
