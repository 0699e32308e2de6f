/// @file
/// The parameter sets of a stream beside those that its description begins with.
#ifndef KX_MP4_CODEC_FURTHERPARAMETERSETS_H
#define KX_MP4_CODEC_FURTHERPARAMETERSETS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "ParameterSetKeeper.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {

/// Bytes of somebody else's.
struct ByteView {
    const uint8_t* data = nullptr;
    size_t size = 0;

    bool operator==(const ByteView& other) const;
};

/// The description's set of that kind; empty when it has none.
ByteView DescribedSet(const mp4_video_track_info_t& info, ParameterSetKind kind);

/// The number that a set has among those of its kind; nothing for one that cannot be read.
std::optional<uint32_t> NumberOfParameterSet(mp4_video_codec codec, ParameterSetKind kind,
                                             ByteView set);

/// Whether the set has another number than the description's of its kind.
bool IsFurtherSet(const mp4_video_track_info_t& info, ParameterSetKind kind, ByteView set);

/// The sets of other numbers than those of the description: slices name theirs by its number, so
/// one of each can be in the configuration record.
class FurtherParameterSets {
public:
    using Set = std::vector<uint8_t>;

    /// Which of two sets with the same number counts: the first one for a file that both are in,
    /// the last one for a file that begins now.
    enum class Counts { kFirst, kLast };

    explicit FurtherParameterSets(Counts counts) : m_counts(counts) {}

    /// Keeps a copy of the NAL unit if it is such a set and has its number to itself. The copy,
    /// null for any other unit and when the record has no room for more of its kind.
    const Set* Take(const mp4_video_track_info_t& described, const uint8_t* nal, size_t size);
    /// Whether exactly this set is kept.
    bool Holds(ByteView set) const;
    void Clear() { m_sets.clear(); }

    /// In the order in which they came.
    template <class Visit>
    void ForEach(Visit&& visit) const {
        for (const Numbered& set : m_sets)
            visit(set.bytes);
    }

private:
    struct Numbered {
        ParameterSetKind kind;
        uint32_t number;
        Set bytes;
    };

    bool HasRoomFor(ParameterSetKind kind) const;

    Counts m_counts;
    std::vector<Numbered> m_sets;
};

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_FURTHERPARAMETERSETS_H
