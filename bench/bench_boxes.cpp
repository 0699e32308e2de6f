/// What boxes, sample tables and the muxer itself cost when the output costs nothing.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "BaseIO.h"
#include "Workload.h"
#include "co64.h"
#include "kx_mp4/Mp4Muxer.h"
#include "mvhd.h"
#include "stsc.h"
#include "stsz.h"
#include "stts.h"

namespace {

/// An output that forgets what it is given and knows only its position.
struct Nowhere {
    uint64_t position = 0;
    uint64_t end = 0;

    void Seek(int64_t offset, int whence) {
        if (whence == SEEK_SET) position = 0;
        if (whence == SEEK_END) position = end;
        position += static_cast<uint64_t>(offset);
    }
    void Advance(uint32_t size) {
        position += size;
        if (position > end) end = position;
    }
};

Nowhere& At(kx_mp4_handle handle) {
    return *static_cast<Nowhere*>(handle);
}

mp4_file_io_func_t NowhereRecord() {
    mp4_file_io_func_t io = {};
    io.init = [](kx_mp4_handle* handle, const wchar_t*, uint32_t, uint32_t) {
        *handle = new Nowhere;
        return true;
    };
    io.uninit = [](kx_mp4_handle handle) {
        delete &At(handle);
        return true;
    };
    io.tell = [](kx_mp4_handle handle) { return At(handle).position; };
    io.seek = [](kx_mp4_handle handle, int64_t offset, int whence) {
        At(handle).Seek(offset, whence);
    };
    io.flush = [](kx_mp4_handle) {};
    io.read = [](kx_mp4_handle, void*, uint32_t) { return 0; };
    io.write = [](kx_mp4_handle handle, const void*, uint32_t size) {
        At(handle).Advance(size);
        return 1;
    };
    return io;
}

/// A muxer with a video and an audio track over Nowhere.
class Recording {
public:
    Recording() {
        mp4_config_t config = {};
        config.io_mode = MP4_IO_EXTERNAL;
        config.func = &m_io;
        m_muxer.Create(L"nowhere.mp4", &config);
        mp4_video_track_info_t video = {};
        video.timescale = kVideoTimescale;
        video.codec = MP4_MVC_H264;
        video.width = 1920;
        video.height = 1080;
        video.h264 = {kSps.data(), static_cast<int16_t>(kSps.size()), kPps.data(),
                      static_cast<int16_t>(kPps.size())};
        m_muxer.SetVideoTrack(&video);
        mp4_audio_track_info_t audio = {};
        audio.timescale = kAudioRate;
        audio.codec = MP4_MAC_AAC;
        audio.sample_rate = kAudioRate;
        audio.channels = 2;
        m_muxer.SetAudioTrack(&audio);
    }
    ~Recording() { m_muxer.Close(); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    mp4_status_t Write(const Sample& sample) {
        return sample.video
                   ? m_muxer.WriteVideoFrame(sample.data, sample.size, sample.time, sample.time)
                   : m_muxer.WriteAudioFrame(sample.data, sample.size, sample.time);
    }
    CMp4Muxer& muxer() { return m_muxer; }

private:
    mp4_file_io_func_t m_io = NowhereRecord();
    CMp4Muxer m_muxer;
};

const Workload& SharedWorkload(size_t index) {
    static const std::vector<Workload::Shape> shapes = WorkloadShapes(true);
    static std::vector<std::unique_ptr<Workload>> made(shapes.size());
    if (!made[index]) made[index] = std::make_unique<Workload>(shapes[index]);
    return *made[index];
}

void WriteSamples(benchmark::State& state) {
    const Workload& workload = SharedWorkload(static_cast<size_t>(state.range(0)));
    state.SetLabel(workload.shape().title);
    Recording recording;
    Workload::Cursor cursor(workload);
    for (auto _ : state)
        if (recording.Write(cursor.Next()) != MP4_STATUS_SUCCESS) state.SkipWithError("write");
}
BENCHMARK(WriteSamples)->DenseRange(0, 3);

void FillWithSmallSamples(Recording& recording, int64_t count) {
    Workload::Cursor cursor(SharedWorkload(2));
    for (int64_t i = 0; i < count; ++i)
        recording.Write(cursor.Next());
}

void QueryIndexSize(benchmark::State& state) {
    Recording recording;
    FillWithSmallSamples(recording, state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(recording.muxer().GetMoovSize());
}
BENCHMARK(QueryIndexSize)->Arg(100)->Arg(1000000);

void CloseRecording(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        {
            Recording recording;
            FillWithSmallSamples(recording, state.range(0));
            state.ResumeTiming();
            recording.muxer().Close();
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}
BENCHMARK(CloseRecording)->Arg(1000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void AddSize(CMp4StszAtom& table, int64_t i) {
    table.AddEntry(static_cast<int32_t>(1000 + i % 9));
}
void AddSteadyTime(CMp4SttsAtom& table, int64_t i) {
    table.AddEntry(i * 3000);
}
void AddVaryingTime(CMp4SttsAtom& table, int64_t i) {
    table.AddEntry(i * 3000 + i % 2);
}
void AddInterleaved(CMp4StscAtom& table, int64_t i) {
    table.AddEntry(i % 5 != 4);
}
void AddOffset(CMp4Co64Atom& table, int64_t i) {
    table.AddChunk(i * 5000);
}

/// One entry more in a table that starts anew now and then.
template <class Table, void (*Add)(Table&, int64_t)>
void AddEntry(benchmark::State& state) {
    constexpr int64_t kEntries = 1000000;
    CBufferIO sink;
    sink.Init(nullptr);
    std::unique_ptr<Table> table;
    int64_t i = kEntries;
    for (auto _ : state) {
        if (i == kEntries) {
            table = std::make_unique<Table>(&sink);
            i = 0;
        }
        Add(*table, i++);
    }
}
BENCHMARK_TEMPLATE(AddEntry, CMp4StszAtom, AddSize);
BENCHMARK_TEMPLATE(AddEntry, CMp4SttsAtom, AddSteadyTime);
BENCHMARK_TEMPLATE(AddEntry, CMp4SttsAtom, AddVaryingTime);
BENCHMARK_TEMPLATE(AddEntry, CMp4StscAtom, AddInterleaved);
BENCHMARK_TEMPLATE(AddEntry, CMp4Co64Atom, AddOffset);

void WriteLeafBox(benchmark::State& state) {
    CBufferIO sink;
    sink.Init(nullptr);
    CMp4MvhdAtom box(&sink);
    for (auto _ : state) {
        box.Write();
        sink.Clear();
    }
}
BENCHMARK(WriteLeafBox);

}  // namespace
