/// @file
/// Records that know their size, as they come from and go to a program in C.
#ifndef KX_MP4_C_RECORD_H
#define KX_MP4_C_RECORD_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "kx_mp4/kx_mp4_c.h"

namespace kx_mp4 {

/// Bytes; a larger `struct_size` is one that was never set.
constexpr size_t kLargestRecord = 65536;

inline bool IsRecordSize(size_t size) {
    return size >= sizeof(size_t) && size <= kLargestRecord;
}

/// Fills in the caller's record, as much of it as both sides know.
template <class Record>
void Give(const Record& full, Record* record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    const size_t size = record->struct_size;
    std::memcpy(record, &full, std::min(size, sizeof full));
    record->struct_size = size;
}

template <class Record>
void InitRecord(const Record& defaults, Record* record, size_t size) {
    if (record == nullptr || !IsRecordSize(size)) return;
    std::memset(record, 0, size);
    record->struct_size = size;
    Give(defaults, record);
}

/// Takes the caller's record over `record`, which holds what an application expects. False for one
/// that says something beyond what this library knows, and for one that ends within a pointer.
template <class Record>
bool Take(const Record* given, Record& record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    if (given == nullptr || !IsRecordSize(given->struct_size) ||
        given->struct_size % alignof(void*) != 0)
        return false;
    const size_t size = given->struct_size;
    const auto* const bytes = reinterpret_cast<const char*>(given);
    std::memcpy(&record, bytes, std::min(size, sizeof record));
    return size <= sizeof record ||
           std::all_of(bytes + sizeof record, bytes + size, [](char byte) { return byte == 0; });
}

}  // namespace kx_mp4

#endif  // KX_MP4_C_RECORD_H
