// What a power cut leaves of a recording by the recorder: every state that the pushes allow is
// repaired. KX_MP4_RECORDER_STATES says how many are tried.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "RecorderState.h"
#include "kx_mp4/repair.h"
#include "log_capture.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "streams.h"

namespace {

constexpr size_t kPage = 4096;

/// A call that the recorder made, in order. A push is there twice: what is written in between may
/// or may not be part of it.
struct Call {
    enum Kind { kWrite, kBeginPush, kEndPush, kBeginInfoPush, kEndInfoPush, kFolder, kTrim } kind;
    uint64_t position = 0;  // of the bytes; size of the repair info file
    Bytes bytes = {};
};

/// One file that remembers all calls; the repair info file beside it is a real one.
class Journal final : public kx_mp4::IStorage {
public:
    std::unique_ptr<kx_mp4::IStorageFile> Create(const std::string&, int& error) override {
        error = 0;
        return std::make_unique<File>(*this);
    }
    bool Exists(const std::string&) override { return false; }
    int Push(const std::string& path) override {
        std::error_code missing;
        const auto size = std::filesystem::file_size(path, missing);
        if (missing) return ENOENT;
        Note({Call::kBeginInfoPush, size});
        Note({Call::kEndInfoPush, size});
        return 0;
    }
    int PushFolder(const std::string&) override { return Note({Call::kFolder}); }
    int Remove(const std::string&) override { return 0; }

    std::vector<Call> Calls() {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_calls;
    }

private:
    class File final : public kx_mp4::IStorageFile {
    public:
        explicit File(Journal& journal) : m_journal(journal) {}
        int WriteAt(uint64_t position, const uint8_t* bytes, size_t size) override {
            return m_journal.Note({Call::kWrite, position, Bytes(bytes, bytes + size)});
        }
        int Reserve(uint64_t, uint64_t) override { return 0; }
        int Trim(uint64_t) override { return m_journal.Note({Call::kTrim}); }
        int Push() override {
            m_journal.Note({Call::kBeginPush});
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            return m_journal.Note({Call::kEndPush});
        }

    private:
        Journal& m_journal;
    };

    int Note(Call call) {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_calls.push_back(std::move(call));
        return 0;
    }

    std::mutex m_lock;
    std::vector<Call> m_calls;
};

/// What the device has for certain, and what it may have, while the calls go on.
class Device {
public:
    void Take(const Call& call) {
        switch (call.kind) {
            case Call::kWrite:
                m_now.resize(std::max(m_now.size(), call.position + call.bytes.size()));
                std::copy(call.bytes.begin(), call.bytes.end(),
                          m_now.begin() + static_cast<std::ptrdiff_t>(call.position));
                break;
            case Call::kBeginPush:
                m_pushing = m_now;
                break;
            case Call::kEndPush:
                m_certain = m_pushing;
                break;
            case Call::kBeginInfoPush:
                m_described = m_certain.size();
                break;
            case Call::kEndInfoPush:
                m_infoCertain = call.position;
                m_promised = m_described;
                break;
            case Call::kFolder:
                m_named = true;
                break;
            case Call::kTrim:
                m_finished = true;
                break;
        }
    }
    /// Pages that are not certain are old, new or, behind what is certain, garbage; the file ends
    /// anywhere from there on.
    Bytes Media(std::mt19937& random) const { return Torn(m_certain, m_now, random); }
    Bytes Info(const Bytes& whole, std::mt19937& random) const {
        const auto certain = static_cast<std::ptrdiff_t>(m_infoCertain);
        return Torn(Bytes(whole.begin(), whole.begin() + certain), whole, random);
    }
    /// Bytes of media whose frames no power cut may take.
    uint64_t Promised() const { return m_promised; }
    bool IsNamed() const { return m_named; }
    /// Whether the repair info file may be gone.
    bool IsFinished() const { return m_finished; }

private:
    static Bytes Torn(const Bytes& certain, const Bytes& now, std::mt19937& random) {
        Bytes torn = certain;
        torn.resize(certain.size() + random() % (now.size() - certain.size() + 1));
        for (size_t page = 0; page < torn.size(); page += kPage) {
            const size_t end = std::min(page + kPage, torn.size());
            const size_t fate = random() % 3;
            for (size_t i = page; i < end; ++i) {
                if (fate == 1) torn[i] = now[i];
                if (fate == 2 && page >= certain.size()) torn[i] = static_cast<uint8_t>(random());
            }
        }
        return torn;
    }

    Bytes m_now, m_pushing, m_certain;
    uint64_t m_infoCertain = 0;
    uint64_t m_described = 0;
    uint64_t m_promised = 0;
    bool m_named = false;
    bool m_finished = false;
};

void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

class RecorderPowerCut : public ::testing::Test {
protected:
    /// Records pictures and sound of many sizes, pushed as often as can be.
    void Record() {
        kx_mp4::RecorderState recorder(m_journal);
        kx_mp4::RecorderOptions options;
        options.pattern = m_path;
        options.push_ms = 1;
        ASSERT_EQ(recorder.Start(options), MP4_STATUS_SUCCESS);
        const auto video = streams::H264Track();
        const auto audio = streams::AacTrack();
        ASSERT_EQ(recorder.SetVideoTrack(&video), MP4_STATUS_SUCCESS);
        ASSERT_EQ(recorder.SetAudioTrack(&audio), MP4_STATUS_SUCCESS);
        std::mt19937 random(5);
        for (uint64_t number = 0; number < 150; ++number) {
            Bytes slice(50 + random() % 900, 0xFF);
            slice[0] = number % 10 == 0 ? 0x65 : 0x41;
            const Bytes frame = streams::AccessUnit({slice});
            ASSERT_EQ(recorder.WriteVideoFrame(frame.data(), static_cast<uint32_t>(frame.size()),
                                               number * 3000, number * 3000),
                      MP4_STATUS_SUCCESS);
            ASSERT_EQ(recorder.WriteAudioFrame(slice.data() + 1, 40, number * 1024),
                      MP4_STATUS_SUCCESS);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        while (recorder.Statistics().frames_written != 300 ||
               recorder.Statistics().unpushed_us != 0)
            std::this_thread::yield();
        m_info = ReadFile(m_path + ".info");
        ASSERT_EQ(recorder.Stop(0).status, MP4_STATUS_SUCCESS);
    }
    /// Where each frame ends in the file, in order.
    std::vector<uint64_t> Ends() {
        Bytes whole;
        for (const Call& call : m_journal.Calls()) {
            if (call.kind != Call::kWrite) continue;
            whole.resize(std::max(whole.size(), call.position + call.bytes.size()));
            std::copy(call.bytes.begin(), call.bytes.end(),
                      whole.begin() + static_cast<std::ptrdiff_t>(call.position));
        }
        const MovieReader movie(whole);
        std::vector<uint64_t> ends;
        for (const Track& track : movie.Tracks())
            for (const Sample& sample : track.samples)
                ends.push_back(sample.offset + sample.size);
        std::sort(ends.begin(), ends.end());
        return ends;
    }
    /// Frames that can be had from what is left.
    uint64_t Rescued(const Bytes& media, const Bytes* info) {
        try {
            uint64_t samples = 0;
            const MovieReader movie(media);
            for (const Track& track : movie.Tracks())
                samples += track.samples.size();
            if (samples != 0) return samples;  // finished
        } catch (const std::exception&) {
            // It has to be repaired.
        }
        if (info == nullptr) return 0;
        WriteFile(m_path, media);
        WriteFile(m_path + ".info", *info);
        kx_mp4::RepairOptions options;
        options.dry_run = true;
        const kx_mp4::RepairReport report = kx_mp4::Repair(m_path, options);
        uint64_t kept = 0;
        for (const auto& track : report.tracks)
            kept += track.frames_kept;
        return kept;
    }

    LogCapture m_log;
    ScratchFolder m_folder{"/dev/shm"};
    std::string m_path = m_folder.Path("a.mp4");
    Journal m_journal;
    Bytes m_info;
};

TEST_F(RecorderPowerCut, TakesNoFrameThatWasPushed) {
    Record();
    const std::vector<uint64_t> ends = Ends();
    ASSERT_EQ(ends.size(), 300U);
    const std::vector<Call> calls = m_journal.Calls();
    const char* const wanted = std::getenv("KX_MP4_RECORDER_STATES");
    const size_t states = wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 3000;
    std::mt19937 random(7);
    Device device;
    uint64_t tried = 0;
    uint64_t promisedAtMost = 0;
    for (const Call& call : calls) {
        device.Take(call);
        const auto promised = static_cast<uint64_t>(
            std::upper_bound(ends.begin(), ends.end(), device.Promised()) - ends.begin());
        promisedAtMost = std::max(promisedAtMost, promised);
        ASSERT_TRUE(promised == 0 || device.IsNamed()) << "the file may have no name";
        for (size_t i = 0; i < states / calls.size() + 1; ++i, ++tried) {
            const Bytes media = device.Media(random);
            const Bytes info = device.Info(m_info, random);
            const bool infoIsGone = device.IsFinished() && random() % 2 == 0;
            ASSERT_GE(Rescued(media, infoIsGone ? nullptr : &info), promised)
                << "state " << tried << " of " << media.size() << " bytes";
        }
    }
    EXPECT_EQ(promisedAtMost, 300U);
    EXPECT_GE(tried, states);
    RecordProperty("states", std::to_string(tried));
}

}  // namespace
