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
    using value_type = T;             ///< An element.
    using iterator = T*;              ///< As of a container.
    using const_iterator = const T*;  ///< As of a container.

    /// Empty. The room stays as it is: it may be large, and there may be one for each frame.
    InlineArray() = default;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    InlineArray(const InlineArray&) = delete;
    InlineArray& operator=(const InlineArray&) = delete;

    /// Appends a copy; pointers to elements are then no longer valid.
    void push_back(const T& element) {
        if (m_size < Room) {
            m_inline[m_size++] = element;
            return;
        }
        if (m_size == Room) m_more.assign(m_inline.begin(), m_inline.end());
        m_more.push_back(element);
        ++m_size;
    }
    /// Forgets the elements; memory of its own stays.
    void clear() {
        m_size = 0;
        m_more.clear();
    }

    /// Whether there is no element.
    bool empty() const { return m_size == 0; }
    /// Number of elements.
    size_t size() const { return m_size; }
    /// The elements, one behind the other.
    const T* data() const { return m_size <= Room ? m_inline.data() : m_more.data(); }
    /// The first element.
    const T* begin() const { return data(); }
    /// Behind the last element.
    const T* end() const { return data() + m_size; }
    /// The element at `index`, which must be there.
    const T& operator[](size_t index) const { return data()[index]; }
    /// The first element, which must be there.
    const T& front() const { return data()[0]; }
    /// The last element, which must be there.
    const T& back() const { return data()[m_size - 1]; }

private:
    size_t m_size = 0;
    std::array<T, Room> m_inline;
    std::vector<T> m_more;  // all of them, once they do not fit inside
};

}  // namespace kx_mp4

#endif  // KX_MP4_INLINEARRAY_H
