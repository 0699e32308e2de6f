#include "kx_mp4/buffered_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "Mp4Muxer.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// An open output of a callback record.
class Output {
public:
    Output(mp4_file_io_func_t* io, const std::filesystem::path& path) : m_io(io) {
        m_open = io->init(&m_handle, path.wstring().c_str(), 0, 0);
    }
    ~Output() {
        if (m_open) Close();
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool IsOpen() const { return m_open; }
    bool Write(const Bytes& bytes) {
        return m_io->write(m_handle, bytes.data(), static_cast<uint32_t>(bytes.size())) == 1;
    }
    void Seek(int64_t offset, int whence) { m_io->seek(m_handle, offset, whence); }
    uint64_t Tell() { return m_io->tell(m_handle); }
    void Flush() { m_io->flush(m_handle); }
    int Read(void* place, uint32_t size) { return m_io->read(m_handle, place, size); }
    bool Close() {
        m_open = false;
        return m_io->uninit(m_handle);
    }

private:
    mp4_file_io_func_t* m_io;
    kx_mp4_handle m_handle = nullptr;
    bool m_open;
};

class BufferedIo : public ::testing::Test {
protected:
    BufferedIo() {
        std::string name = (std::filesystem::temp_directory_path() / "kx_mp4_XXXXXX").string();
        m_directory = mkdtemp(name.data());
    }
    ~BufferedIo() override { std::filesystem::remove_all(m_directory); }

    std::filesystem::path m_directory;
    mp4_file_io_func_t* const m_small = kx_mp4_buffered_io(KX_MP4_BUFFERED_IO_MIN_SIZE);
};

/// Files of this process end at `bytes` while the object lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit limit = {bytes, m_before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_handler);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before = {};
    void (*m_handler)(int);
};

/// The same operations on a plain file and on a buffered one.
class Pair {
public:
    Pair(mp4_file_io_func_t* io, const std::filesystem::path& plain,
         const std::filesystem::path& buffered)
        : m_plain(std::fopen(plain.c_str(), "wb")), m_buffered(io, buffered) {}
    ~Pair() { std::fclose(m_plain); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void Step(std::mt19937& random) {
        const auto below = [&](int64_t end) {
            return std::uniform_int_distribution<int64_t>(0, end - 1)(random);
        };
        const int64_t end = End();
        switch (below(10)) {
            case 0:
                Write(1 + below(3 * KX_MP4_BUFFERED_IO_MIN_SIZE), random);
                break;
            case 1:
                Write(KX_MP4_BUFFERED_IO_MIN_SIZE - end % KX_MP4_BUFFERED_IO_MIN_SIZE, random);
                break;
            case 2:
                Seek(below(end + 1), SEEK_SET);
                break;
            case 3:
                Seek(-below(end + 1), SEEK_END);
                break;
            case 4:
                Seek(below(100), SEEK_END);
                break;
            case 5:
                Seek(-below(static_cast<int64_t>(m_buffered.Tell()) + 1), SEEK_CUR);
                break;
            case 6:
                m_buffered.Flush();
                break;
            default:
                Write(1 + below(600), random);
        }
        ASSERT_EQ(std::ftell(m_plain), static_cast<int64_t>(m_buffered.Tell()));
    }

private:
    int64_t End() {
        const auto position = static_cast<int64_t>(m_buffered.Tell());
        m_buffered.Seek(0, SEEK_END);
        const auto end = static_cast<int64_t>(m_buffered.Tell());
        m_buffered.Seek(position, SEEK_SET);
        return end;
    }
    void Seek(int64_t offset, int whence) {
        ASSERT_EQ(std::fseek(m_plain, offset, whence), 0);
        m_buffered.Seek(offset, whence);
    }
    void Write(int64_t size, std::mt19937& random) {
        Bytes bytes(static_cast<size_t>(size));
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random());
        ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), m_plain), bytes.size());
        ASSERT_TRUE(m_buffered.Write(bytes));
    }

    FILE* m_plain;
    Output m_buffered;
};

TEST_F(BufferedIo, WritesTheSameBytesAsAPlainFile) {
    for (unsigned seed = 0; seed < 15; ++seed) {
        std::mt19937 random(seed);
        {
            Pair pair(m_small, m_directory / "plain", m_directory / "buffered");
            for (int step = 0; step < 300; ++step)
                pair.Step(random);
        }
        ASSERT_EQ(ReadFile(m_directory / "plain"), ReadFile(m_directory / "buffered"))
            << "seed " << seed;
    }
}

TEST_F(BufferedIo, KeepsNewBytesUntilTheBufferIsFullAFlushOrAPatch) {
    const auto path = m_directory / "out";
    Output output(m_small, path);
    const auto size = [&] { return std::filesystem::file_size(path); };
    ASSERT_TRUE(output.Write(Bytes(100, 1)));
    EXPECT_EQ(size(), 0U);
    output.Flush();
    EXPECT_EQ(size(), 100U);
    ASSERT_TRUE(output.Write(Bytes(KX_MP4_BUFFERED_IO_MIN_SIZE, 2)));
    EXPECT_EQ(size(), 100U + KX_MP4_BUFFERED_IO_MIN_SIZE) << "a large write goes straight through";
    ASSERT_TRUE(output.Write(Bytes(KX_MP4_BUFFERED_IO_MIN_SIZE - 50, 3)));
    EXPECT_EQ(size(), 2U * KX_MP4_BUFFERED_IO_MIN_SIZE) << "pushes end on multiples of the size";
    output.Seek(-4, SEEK_CUR);
    ASSERT_TRUE(output.Write(Bytes(4, 4)));
    EXPECT_EQ(size(), 2U * KX_MP4_BUFFERED_IO_MIN_SIZE + 50) << "a patch pushes everything";
}

TEST_F(BufferedIo, SeveralOutputsOfOneRecordAreIndependent) {
    Output first(m_small, m_directory / "first");
    Output second(m_small, m_directory / "second");
    Output full(m_small, "/dev/full");
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(first.Write(Bytes(7, 1)));
        ASSERT_TRUE(second.Write(Bytes(11, 2)));
        full.Write(Bytes(13, 3));
    }
    EXPECT_FALSE(full.Close());
    EXPECT_TRUE(first.Close());
    EXPECT_TRUE(second.Close());
    EXPECT_EQ(ReadFile(m_directory / "first"), Bytes(7000, 1));
    EXPECT_EQ(ReadFile(m_directory / "second"), Bytes(11000, 2));
}

TEST_F(BufferedIo, EveryWriteAfterAFailedFlushFailsWithItsErrorNumber) {
    Output output(m_small, "/dev/full");
    ASSERT_TRUE(output.Write(Bytes(10)));
    output.Flush();
    for (int i = 0; i < 2; ++i) {
        errno = 0;
        EXPECT_FALSE(output.Write(Bytes(1)));
        EXPECT_EQ(errno, ENOSPC);
    }
    EXPECT_FALSE(output.Close());
}

TEST_F(BufferedIo, AWriteThatEmptiesTheBufferReportsTheFailure) {
    Output whole(m_small, "/dev/full");
    errno = 0;
    EXPECT_FALSE(whole.Write(Bytes(KX_MP4_BUFFERED_IO_MIN_SIZE)));
    EXPECT_EQ(errno, ENOSPC);
    Output patched(m_small, "/dev/full");
    ASSERT_TRUE(patched.Write(Bytes(10)));
    patched.Seek(0, SEEK_SET);
    errno = 0;
    EXPECT_FALSE(patched.Write(Bytes(4)));
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(BufferedIo, ImpossibleSeeksMakeTheNextWriteFail) {
    struct {
        int64_t offset;
        int whence;
    } const seeks[] = {
        {-1, SEEK_SET}, {-11, SEEK_CUR}, {-11, SEEK_END}, {INT64_MAX, SEEK_CUR}, {0, 77}};
    for (const auto& seek : seeks) {
        Output output(m_small, m_directory / "out");
        ASSERT_TRUE(output.Write(Bytes(10)));
        output.Seek(seek.offset, seek.whence);
        EXPECT_EQ(output.Tell(), 10U);
        errno = 0;
        EXPECT_FALSE(output.Write(Bytes(1)));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(BufferedIo, KeepsWhatAFailureLeftAndWritesItWhenClosed) {
    const auto path = m_directory / "out";
    Output output(m_small, path);
    {
        const FileSizeLimit limit(1000);
        ASSERT_TRUE(output.Write(Bytes(3000, 5)));
        output.Flush();
        EXPECT_EQ(std::filesystem::file_size(path), 1000U);
        errno = 0;
        EXPECT_FALSE(output.Write(Bytes(1)));
        EXPECT_EQ(errno, EFBIG);
    }
    EXPECT_FALSE(output.Close()) << "the failure is not forgotten";
    EXPECT_EQ(ReadFile(path), Bytes(3000, 5));
}

TEST_F(BufferedIo, RefusesPathsThatCannotBeOpened) {
    const auto errorOf = [&](const std::wstring& path) {
        kx_mp4_handle handle = nullptr;
        errno = 0;
        EXPECT_FALSE(m_small->init(&handle, path.c_str(), 0, 0));
        EXPECT_EQ(handle, nullptr);
        return errno;
    };
    EXPECT_EQ(errorOf((m_directory / "none" / "out").wstring()), ENOENT);
    EXPECT_EQ(errorOf(std::wstring(1023, L'x')), ENAMETOOLONG);
    EXPECT_EQ(errorOf(L"\x7fffffff"), EILSEQ);
}

TEST_F(BufferedIo, CannotRead) {
    Output output(m_small, m_directory / "out");
    uint8_t byte = 0;
    errno = 0;
    EXPECT_NE(output.Read(&byte, 1), 1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(BufferedIo, RoundsTheBufferSize) {
    EXPECT_EQ(kx_mp4_buffered_io(0), m_small);
    EXPECT_EQ(kx_mp4_buffered_io(5000), kx_mp4_buffered_io(8192));
    EXPECT_EQ(kx_mp4_buffered_io(), kx_mp4_buffered_io(1000 * 1000));
    EXPECT_EQ(kx_mp4_buffered_io(UINT32_MAX), kx_mp4_buffered_io(KX_MP4_BUFFERED_IO_MAX_SIZE));
    const auto path = m_directory / "out";
    Output output(kx_mp4_buffered_io(5000), path);
    ASSERT_TRUE(output.Write(Bytes(8191)));
    EXPECT_EQ(std::filesystem::file_size(path), 0U);
    ASSERT_TRUE(output.Write(Bytes(1)));
    EXPECT_EQ(std::filesystem::file_size(path), 8192U);
}

/// Records pictures, some larger than the buffer; the first failure of any call, Close included.
mp4_status_t Record(const std::filesystem::path& path, mp4_file_io_func_t* io, int pictures) {
    const uint8_t sps[] = {0x67, 0x42, 0xC0, 0x28, 0xDA, 0x01, 0xE0, 0x08, 0x9F, 0x95};
    const uint8_t pps[] = {0x68, 0xCE, 0x3C, 0x80};
    mp4_config_t config = {};
    config.io_mode = io == nullptr ? MP4_IO_FILE : MP4_IO_EXTERNAL;
    config.func = io;
    CMp4Muxer muxer;
    const mp4_status_t created = muxer.Create(path.wstring().c_str(), &config);
    if (created != MP4_STATUS_SUCCESS) return created;
    mp4_video_track_info_t video = {};
    video.timescale = 1000;
    video.codec = MP4_MVC_H264;
    video.width = 1920;
    video.height = 1080;
    video.h264 = {sps, sizeof sps, pps, sizeof pps};
    mp4_status_t status = muxer.SetVideoTrack(&video);
    for (int i = 0; i < pictures && status == MP4_STATUS_SUCCESS; ++i) {
        Bytes picture(static_cast<size_t>(20 + i * i * 10), 0x55);
        const uint8_t start[] = {0, 0, 0, 1, 0x65};
        std::copy(std::begin(start), std::end(start), picture.begin());
        const auto time = static_cast<uint64_t>(i) * 40;
        status = muxer.WriteVideoFrame(picture.data(), static_cast<uint32_t>(picture.size()), time,
                                       time);
    }
    const mp4_status_t closed = muxer.Close();
    return status == MP4_STATUS_SUCCESS ? closed : status;
}

TEST_F(BufferedIo, MuxerWritesTheSameFileAsWithItsOwnOutput) {
    ASSERT_EQ(Record(m_directory / "plain", nullptr, 40), MP4_STATUS_SUCCESS);
    ASSERT_EQ(Record(m_directory / "buffered", m_small, 40), MP4_STATUS_SUCCESS);
    const Bytes plain = ReadFile(m_directory / "plain");
    EXPECT_GT(plain.size(), 100000U);
    EXPECT_EQ(plain, ReadFile(m_directory / "buffered"));
}

TEST_F(BufferedIo, MuxerReportsAFullDevice) {
    EXPECT_EQ(Record("/dev/full", m_small, 1), MP4_STATUS_NO_SPACE_LEFT);
}

/// Whether a recording fails exactly when its file cannot grow to its full size.
bool EveryMissingByteIsReported(const std::filesystem::path& path, mp4_file_io_func_t* io) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return false;
    if (Record(path, io, 3) != MP4_STATUS_SUCCESS) return false;
    const auto size = std::filesystem::file_size(path);
    for (rlim_t missing = 0; missing <= size; missing += missing < 20 ? 1 : 7) {
        const FileSizeLimit guard(size - missing);
        const bool succeeded = Record(path, io, 3) == MP4_STATUS_SUCCESS;
        if (succeeded != (missing == 0)) return false;
    }
    return true;
}

TEST_F(BufferedIo, MuxerReportsEveryByteThatIsMissingInTheFile) {
    // Everything fits the buffer: nothing would be noticed if only `uninit` wrote it.
    const auto check = [this] {
        std::exit(EveryMissingByteIsReported(m_directory / "out", kx_mp4_buffered_io()) ? 0 : 1);
    };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
