#include "SampleTables.h"

#include <algorithm>
#include <utility>

namespace kx_mp4::movie {
namespace {

/// The 32-bit words behind a table's count. A count is never believed past the table's end.
class Table {
public:
    Table() = default;
    Table(Bytes bytes, size_t wordsPerEntry, uint64_t count)
        : m_bytes(std::move(bytes)), m_words(wordsPerEntry), m_count(count) {}

    uint64_t Count() const { return m_count; }
    uint32_t Word(uint64_t entry, size_t word) const {
        return Int32(m_bytes.data() + 4 * (entry * m_words + word));
    }
    uint64_t Long(uint64_t entry) const { return Int64(m_bytes.data() + 8 * entry); }

private:
    Bytes m_bytes;
    size_t m_words = 1;
    uint64_t m_count = 0;
};

/// Goes through runs of equal values, of 'stts' and 'ctts'.
class RunCursor {
public:
    explicit RunCursor(const Table& runs) : m_runs(runs) {}

    /// The value of the next sample; the last one again, once there is none.
    int64_t Next() {
        while (m_left == 0 && m_next < m_runs.Count()) {
            m_left = m_runs.Word(m_next, 0);
            m_value = static_cast<int32_t>(m_runs.Word(m_next, 1));
            ++m_next;
        }
        if (m_left == 0)
            ++m_missing;
        else
            --m_left;
        return m_value;
    }
    /// Whether there was one value for each sample.
    bool IsExact() const {
        if (m_missing != 0 || m_left != 0) return false;
        for (uint64_t i = m_next; i < m_runs.Count(); ++i)
            if (m_runs.Word(i, 0) != 0) return false;
        return true;
    }

private:
    const Table& m_runs;
    uint64_t m_next = 0;
    uint64_t m_left = 0;
    uint64_t m_missing = 0;
    int64_t m_value = 0;
};

/// Goes through 'stss'; numbers count from 1 and only grow.
class SyncCursor {
public:
    SyncCursor(const Table& numbers, bool isThere) : m_numbers(numbers), m_isThere(isThere) {}

    bool IsSync(uint64_t number) {
        if (!m_isThere) return true;
        if (m_next == m_numbers.Count() || m_numbers.Word(m_next, 0) != number) return false;
        ++m_next;
        return true;
    }
    bool IsExact() const { return m_next == m_numbers.Count(); }

private:
    const Table& m_numbers;
    bool m_isThere;
    uint64_t m_next = 0;
};

/// The tables of one track.
class TrackTables {
public:
    TrackTables(const Track& track, uint64_t& room, std::vector<std::string>& faults)
        : m_name("Track " + std::to_string(track.id) + ": "),
          m_stbl(track.box->At("mdia/minf/stbl")),
          m_room(room),
          m_faults(faults) {}

    void Visit(const std::function<void(const Sample&)>& visit);

private:
    Table ReadTable(const char* type, uint64_t countAt, size_t wordsPerEntry);
    void ReadSizes();
    void Fault(const std::string& text) { m_faults.push_back(m_name + text); }

    const std::string m_name;
    const Box& m_stbl;
    uint64_t& m_room;
    std::vector<std::string>& m_faults;
    Table m_sizes;
    uint64_t m_samples = 0;
    bool m_isTable = false;
    uint32_t m_commonSize = 0;
};

/// An empty table when there is none.
Table TrackTables::ReadTable(const char* type, uint64_t countAt, size_t wordsPerEntry) {
    const Box* const box = m_stbl.Find(type);
    if (box == nullptr) return {};
    const Bytes head = box->Peek(countAt, 4);
    if (head.size() < 4) {
        Fault("'" + std::string(type) + "' has no count.");
        return {};
    }
    const uint64_t width = 4 * wordsPerEntry;
    uint64_t count = Int32(head.data());
    if (const uint64_t most = (box->size - countAt - 4) / width; count > most) {
        Fault("'" + std::string(type) + "' counts more entries than it has.");
        count = most;
    }
    if (count * width > m_room) {
        Fault("The sample tables are too large to be read.");
        return {};
    }
    m_room -= count * width;
    Bytes bytes = box->Peek(countAt + 4, count * width);
    count = std::min<uint64_t>(count, bytes.size() / width);
    return Table(std::move(bytes), wordsPerEntry, count);
}

void TrackTables::ReadSizes() {
    const Box* const stsz = m_stbl.Find("stsz");
    const Bytes head = stsz == nullptr ? Bytes() : stsz->Peek(12, 8);
    if (stsz == nullptr || head.size() < 8) {
        Fault("There are no sample sizes.");
        return;
    }
    m_commonSize = Int32(head.data());
    constexpr uint64_t kWithoutTable = 20;
    m_isTable = m_commonSize == 0 && stsz->size != kWithoutTable;
    if (m_isTable) {
        m_sizes = ReadTable("stsz", 16, 1);
        m_samples = m_sizes.Count();
        return;
    }
    // All of one size, which may be 0.
    m_samples = Int32(head.data() + 4);
    const uint64_t most = stsz->source->Size() / std::max(m_commonSize, 1U);
    if (m_samples <= most) return;
    Fault("There are more samples than the file has room for.");
    m_samples = most;
}

void TrackTables::Visit(const std::function<void(const Sample&)>& visit) {
    const bool large = m_stbl.Find("co64") != nullptr;
    const bool hasOffsets = m_stbl.Find("ctts") != nullptr;
    const Table chunks = ReadTable(large ? "co64" : "stco", 12, large ? 2 : 1);
    const Table chunkRuns = ReadTable("stsc", 12, 3);
    const Table durations = ReadTable("stts", 12, 2);
    const Table offsets = ReadTable("ctts", 12, 2);
    const Table syncs = ReadTable("stss", 12, 1);
    ReadSizes();
    RunCursor duration(durations);
    RunCursor offset(offsets);
    SyncCursor sync(syncs, m_stbl.Find("stss") != nullptr);

    Sample sample;
    uint64_t next = 0;
    uint64_t run = 0;
    uint64_t announced = 0;  // samples of all chunks
    for (; sample.chunk < chunks.Count(); ++sample.chunk) {
        while (run < chunkRuns.Count() && chunkRuns.Word(run, 0) <= sample.chunk + 1)
            ++run;
        const uint32_t inChunk = run == 0 ? 0 : chunkRuns.Word(run - 1, 1);
        announced += inChunk;
        sample.description = run == 0 ? 1 : chunkRuns.Word(run - 1, 2);
        sample.offset = large ? chunks.Long(sample.chunk) : chunks.Word(sample.chunk, 0);
        for (uint32_t i = 0; i < inChunk && next < m_samples; ++i) {
            sample.size = m_isTable ? m_sizes.Word(next, 0) : m_commonSize;
            sample.duration = duration.Next();
            sample.cts = sample.dts + (hasOffsets ? offset.Next() : 0);
            sample.sync = sync.IsSync(++next);
            visit(sample);
            sample.offset += sample.size;
            sample.dts += sample.duration;
        }
    }
    if (next < m_samples) Fault(std::to_string(m_samples - next) + " samples have no chunk.");
    if (announced > next) Fault("The chunks hold more samples than there are.");
    if (next == 0) return;
    if (!duration.IsExact()) Fault("There is not one duration for each sample.");
    if (hasOffsets && !offset.IsExact())
        Fault("There is not one composition offset for each sample.");
    if (!sync.IsExact()) Fault("The list of sync samples is not in order.");
}

}  // namespace

void TableReader::Visit(const Track& track, const std::function<void(const Sample&)>& visit,
                        std::vector<std::string>& faults) {
    TrackTables(track, m_room, faults).Visit(visit);
}

}  // namespace kx_mp4::movie
