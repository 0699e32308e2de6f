/// @file
/// A reader of the repair info file, written from its format and not from the library's writer.
#ifndef KX_MP4_TESTS_REPAIR_INFO_READER_H
#define KX_MP4_TESTS_REPAIR_INFO_READER_H

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "movie_reader.h"
#include "streams.h"

struct InfoRecord {
    int type = 0;
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
        switch (record.type) {
            case 1:
                Skip(1);
                for (int i = 0; i < 3; ++i)
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
        return record;
    }

    Bytes m_file;
    size_t m_at = 0;
};

struct InfoWalk {
    size_t frames = 0;
    uint64_t end = 0;  ///< Where the next frame would be in the output.
};

/// Walks the records: every frame lies in the output where the one before it ended, and is what
/// was written.
inline InfoWalk ExpectWalks(const RepairInfo& info, const Bytes& output, uint32_t mdatHeader,
                            const std::vector<streams::Expected>& expected) {
    static const std::map<int, std::string> kHandlers{
        {4, "vide"}, {5, "soun"}, {7, "clcp"}, {9, "tmcd"}};
    InfoWalk walk{0, uint64_t{info.mdatOffset} + mdatHeader};
    for (const InfoRecord& record : info.records) {
        const auto handler = kHandlers.find(record.type);
        if (handler == kHandlers.end()) continue;
        if (walk.frames == expected.size() || walk.end + record.size > output.size()) {
            ADD_FAILURE() << "a frame too many, or past the end";
            return walk;
        }
        const auto begin = output.begin() + static_cast<int64_t>(walk.end);
        const streams::Expected& frame = expected[walk.frames++];
        EXPECT_EQ(handler->second, frame.handler);
        EXPECT_EQ(Bytes(begin, begin + record.size), frame.bytes) << walk.frames;
        if (record.type != 9) {
            EXPECT_EQ(record.dts, frame.time);
        }
        EXPECT_EQ(record.sync, frame.sync);
        walk.end += record.size;
    }
    return walk;
}

#endif  // KX_MP4_TESTS_REPAIR_INFO_READER_H
