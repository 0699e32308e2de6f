/// @file
/// A reader of the repair info file, written from its format and not from the library's writer.
#ifndef KX_MP4_TESTS_REPAIR_INFO_READER_H
#define KX_MP4_TESTS_REPAIR_INFO_READER_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "movie_reader.h"

struct InfoRecord {
    int type = 0;
    Bytes body;
    // Of frames:
    int64_t pts = 0;
    int64_t dts = 0;
    bool sync = true;
    uint32_t size = 0;  ///< Bytes in the media data.
};

struct RepairInfo {
    uint8_t flags = 0;
    uint32_t mdatOffset = 0;
    std::vector<InfoRecord> records;
    size_t cutOff = 0;  ///< Bytes of a last record that is not whole.

    explicit RepairInfo(const Bytes& file) : m_file(file) {
        if (file.empty()) throw std::runtime_error("no flag byte");
        flags = file[m_at++];
        if (file.size() < 5) return;
        mdatOffset = static_cast<uint32_t>(Int(4));
        while (m_at < file.size()) {
            const size_t start = m_at;
            try {
                records.push_back(Record());
            } catch (const std::out_of_range&) {
                cutOff = file.size() - start;
                return;
            }
        }
    }

private:
    uint64_t Int(int width) {
        uint64_t value = 0;
        for (int i = 0; i < width; ++i)
            value = value << 8 | m_file.at(m_at++);
        return value;
    }
    void Skip(uint64_t size) {
        if (size > m_file.size() - m_at) throw std::out_of_range("record");
        m_at += size;
    }
    void SkipCounted() { Skip(Int(4)); }

    InfoRecord Record() {
        InfoRecord record;
        record.type = static_cast<int>(Int(1));
        const size_t start = m_at;
        switch (record.type) {
            case 1:
                Skip(1);
                SkipCounted();
                SkipCounted();
                SkipCounted();
                break;
            case 2: {
                Skip(12);
                const uint64_t codec = Int(1);
                Skip(4);
                if (codec == 2) Skip(1);
                for (uint64_t i = 0; codec < 2 && i < 2 + codec; ++i)
                    SkipCounted();
                break;
            }
            case 3:
                Skip(18);
                break;
            case 4:
                record.pts = static_cast<int64_t>(Int(8));
                record.dts = static_cast<int64_t>(Int(8));
                record.sync = Int(1) != 0;
                record.size = static_cast<uint32_t>(Int(4));
                break;
            case 5:
            case 7:
                record.pts = record.dts = static_cast<int64_t>(Int(8));
                record.size = static_cast<uint32_t>(Int(4));
                break;
            case 6:
                Skip(5);
                break;
            case 8:
                Skip(17);
                break;
            case 9:
                Skip(4);
                record.size = 4;
                break;
            default:
                throw std::runtime_error("type " + std::to_string(record.type));
        }
        record.body.assign(m_file.begin() + static_cast<int64_t>(start),
                           m_file.begin() + static_cast<int64_t>(m_at));
        return record;
    }

    Bytes m_file;
    size_t m_at = 0;
};

#endif  // KX_MP4_TESTS_REPAIR_INFO_READER_H
