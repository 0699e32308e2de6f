/// @file
/// A growable array whose usual content needs no memory of its own.
#ifndef KX_MP4_INLINEARRAY_H
#define KX_MP4_INLINEARRAY_H

#include <array>
#include <cstddef>
#include <type_traits>
#include <vector>

namespace kx_mp4 {

/// The first `Room` elements live inside the object and are not initialised before they are
/// there; more of them move to memory of their own, which clear keeps. Not thread safe.
template <class T, size_t Room>
class InlineArray {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_default_constructible_v<T>);

public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    // The room stays as it is: it may be large, and there may be one for each frame.
    InlineArray() = default;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    InlineArray(const InlineArray&) = delete;
    InlineArray& operator=(const InlineArray&) = delete;

    void push_back(const T& element) {
        if (m_size < Room) {
            m_inline[m_size++] = element;
            return;
        }
        if (m_size == Room) m_more.assign(m_inline.begin(), m_inline.end());
        m_more.push_back(element);
        ++m_size;
    }
    void clear() {
        m_size = 0;
        m_more.clear();
    }

    bool empty() const { return m_size == 0; }
    size_t size() const { return m_size; }
    const T* data() const { return m_size <= Room ? m_inline.data() : m_more.data(); }
    const T* begin() const { return data(); }
    const T* end() const { return data() + m_size; }
    const T& operator[](size_t index) const { return data()[index]; }
    const T& front() const { return data()[0]; }
    const T& back() const { return data()[m_size - 1]; }

private:
    size_t m_size = 0;
    std::array<T, Room> m_inline;
    std::vector<T> m_more;  // all of them, once they do not fit inside
};

}  // namespace kx_mp4

#endif  // KX_MP4_INLINEARRAY_H
