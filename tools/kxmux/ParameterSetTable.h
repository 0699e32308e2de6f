/// @file
/// The parameter sets of one type that a stream has sent so far.
#ifndef KXMUX_PARAMETERSETTABLE_H
#define KXMUX_PARAMETERSETTABLE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kxmux {

/// Sets by their `id`, which is below `Ids`. A set takes memory when it comes: few ids are used.
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

}  // namespace kxmux

#endif  // KXMUX_PARAMETERSETTABLE_H
