/// @file
/// The parameter sets that a stream has sent so far, of either codec.
#ifndef KX_MP4_CODEC_PARAMETERSETTABLE_H
#define KX_MP4_CODEC_PARAMETERSETTABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kx_mp4 {

/// Sets of one type by their `id`, which is below `Ids`. A set takes memory when it comes: few ids
/// are used.
template <class Set, size_t Ids>
class ParameterSetTable {
public:
    using Parser = bool (*)(const uint8_t* nal, size_t size, Set* set);

    /// Keeps the set that the unit holds, in place of the one with the same id; false when it
    /// cannot be read. The parser answers for the range of the id.
    bool Add(Parser parse, const uint8_t* nal, size_t size) {
        auto set = std::make_unique<Set>();
        if (!parse(nal, size, set.get())) return false;
        const size_t id = set->id;
        m_sets[id] = std::move(set);
        return true;
    }
    /// Null when the stream has not sent the set.
    const Set* Find(uint32_t id) const { return id < Ids ? m_sets[id].get() : nullptr; }

private:
    std::array<std::unique_ptr<Set>, Ids> m_sets;
};

/// The sequence and picture parameter sets that the slices of a stream refer to.
template <class Sps, size_t SpsIds, class Pps, size_t PpsIds>
class ParameterSetTables {
public:
    /// Null when the stream has not sent the set.
    const Sps* FindSps(uint32_t id) const { return m_sps.Find(id); }
    const Pps* FindPps(uint32_t id) const { return m_pps.Find(id); }

protected:
    ParameterSetTable<Sps, SpsIds> m_sps;
    ParameterSetTable<Pps, PpsIds> m_pps;
};

}  // namespace kx_mp4

#endif  // KX_MP4_CODEC_PARAMETERSETTABLE_H
