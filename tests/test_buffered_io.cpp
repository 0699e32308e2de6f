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
#include <random>
#include <string>
#include <vector>

#include "scratch_folder.h"
#include "streams.h"

namespace {

using Bytes = std::vector<uint8_t>;

/// An open output of a callback record.
class Output {
public:
    Output(mp4_file_io_func_t* io, const std::string& path) : m_io(io) {
        m_open = io->init(&m_handle, std::filesystem::path(path).wstring().c_str(), 0, 0);
    }
    ~Output() {
        if (m_open) Close();
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool Write(const Bytes& bytes) {
        return m_io->write(m_handle, bytes.data(), static_cast<uint32_t>(bytes.size())) == 1;
    }
    void Seek(int64_t offset, int whence) { m_io->seek(m_handle, offset, whence); }
    uint64_t Tell() { return m_io->tell(m_handle); }
    void Flush() { m_io->flush(m_handle); }
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
    std::string Path(const char* name) const { return m_folder.Path(name); }

    const ScratchFolder m_folder;
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

/// The same operation on a plain file and on a buffered one; `end` is the size so far.
void Step(std::mt19937& random, FILE* plain, Output& buffered, int64_t& end) {
    const auto below = [&](int64_t limit) {
        return std::uniform_int_distribution<int64_t>(0, limit - 1)(random);
    };
    const auto seek = [&](int64_t offset, int whence) {
        ASSERT_EQ(std::fseek(plain, offset, whence), 0);
        buffered.Seek(offset, whence);
    };
    const auto write = [&](int64_t size) {
        Bytes bytes(static_cast<size_t>(size));
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random());
        ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), plain), bytes.size());
        ASSERT_TRUE(buffered.Write(bytes));
    };
    constexpr int64_t kSize = KX_MP4_BUFFERED_IO_MIN_SIZE;
    const int64_t kind = below(10);
    if (kind == 0) write(1 + below(3 * kSize));
    if (kind == 1) write(kSize - end % kSize);
    if (kind == 2) seek(below(end + 1), SEEK_SET);
    if (kind == 3) seek(-below(end + 1), SEEK_END);
    if (kind == 4) seek(below(100), SEEK_END);
    if (kind == 5) seek(-below(std::ftell(plain) + 1), SEEK_CUR);
    if (kind == 6) buffered.Flush();
    if (kind > 6) write(1 + below(600));
    const bool wrote = kind < 2 || kind > 6;
    if (wrote) end = std::max<int64_t>(end, std::ftell(plain));
    ASSERT_EQ(std::ftell(plain), static_cast<int64_t>(buffered.Tell()));
}

TEST_F(BufferedIo, WritesTheSameBytesAsAPlainFile) {
    for (unsigned seed = 0; seed < 15; ++seed) {
        std::mt19937 random(seed);
        FILE* const plain = std::fopen(Path("plain").c_str(), "wb");
        ASSERT_NE(plain, nullptr);
        Output buffered(m_small, Path("buffered"));
        int64_t end = 0;
        for (int step = 0; step < 300; ++step)
            Step(random, plain, buffered, end);
        std::fclose(plain);
        EXPECT_TRUE(buffered.Close());
        ASSERT_EQ(ReadFile(Path("plain")), ReadFile(Path("buffered"))) << "seed " << seed;
    }
}

TEST_F(BufferedIo, KeepsNewBytesUntilTheBufferIsFullAFlushOrAPatch) {
    const auto path = Path("out");
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
    Output first(m_small, Path("first"));
    Output second(m_small, Path("second"));
    Output full(m_small, "/dev/full");
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(first.Write(Bytes(7, 1)));
        ASSERT_TRUE(second.Write(Bytes(11, 2)));
        full.Write(Bytes(13, 3));
    }
    EXPECT_FALSE(full.Close());
    EXPECT_TRUE(first.Close());
    EXPECT_TRUE(second.Close());
    EXPECT_EQ(ReadFile(Path("first")), Bytes(7000, 1));
    EXPECT_EQ(ReadFile(Path("second")), Bytes(11000, 2));
}

TEST_F(BufferedIo, EveryWriteThatMeetsAFailureReportsIt) {
    const auto expectRefused = [](Output& output, size_t size) {
        errno = 0;
        EXPECT_FALSE(output.Write(Bytes(size)));
        EXPECT_EQ(errno, ENOSPC);
    };
    Output flushed(m_small, "/dev/full");
    ASSERT_TRUE(flushed.Write(Bytes(10)));
    flushed.Flush();
    expectRefused(flushed, 1);
    expectRefused(flushed, 1);
    EXPECT_FALSE(flushed.Close());
    Output whole(m_small, "/dev/full");
    expectRefused(whole, KX_MP4_BUFFERED_IO_MIN_SIZE);
    Output patched(m_small, "/dev/full");
    ASSERT_TRUE(patched.Write(Bytes(10)));
    patched.Seek(0, SEEK_SET);
    expectRefused(patched, 4);
}

TEST_F(BufferedIo, ImpossibleSeeksMakeTheNextWriteFail) {
    struct {
        int64_t offset;
        int whence;
    } const seeks[] = {
        {-1, SEEK_SET}, {-11, SEEK_CUR}, {-11, SEEK_END}, {INT64_MAX, SEEK_CUR}, {0, 77}};
    for (const auto& seek : seeks) {
        Output output(m_small, Path("out"));
        ASSERT_TRUE(output.Write(Bytes(10)));
        output.Seek(seek.offset, seek.whence);
        EXPECT_EQ(output.Tell(), 10U);
        errno = 0;
        EXPECT_FALSE(output.Write(Bytes(1)));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(BufferedIo, KeepsWhatAFailureLeftAndWritesItWhenClosed) {
    const auto path = Path("out");
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

TEST_F(BufferedIo, RoundsTheBufferSize) {
    EXPECT_EQ(kx_mp4_buffered_io(0), m_small);
    EXPECT_EQ(kx_mp4_buffered_io(5000), kx_mp4_buffered_io(8192));
    EXPECT_EQ(kx_mp4_buffered_io(), kx_mp4_buffered_io(1000 * 1000));
    EXPECT_EQ(kx_mp4_buffered_io(UINT32_MAX), kx_mp4_buffered_io(KX_MP4_BUFFERED_IO_MAX_SIZE));
}

TEST_F(BufferedIo, RefusesPathsThatCannotBeOpened) {
    const auto errorOf = [&](const std::wstring& path) {
        kx_mp4_handle handle = nullptr;
        errno = 0;
        EXPECT_FALSE(m_small->init(&handle, path.c_str(), 0, 0));
        EXPECT_EQ(handle, nullptr);
        return errno;
    };
    EXPECT_EQ(errorOf(m_folder.Wide("none/out")), ENOENT);
    EXPECT_EQ(errorOf(std::wstring(1023, L'x')), ENAMETOOLONG);
    EXPECT_EQ(errorOf(L"\x7fffffff"), EILSEQ);
}

/// Whether a recording fails exactly when its file cannot grow to its full size.
bool EveryMissingByteIsReported(const ScratchFolder& folder) {
    // Everything fits the buffer: nothing would be noticed if only `uninit` wrote it.
    const auto succeeds = [&] {
        return streams::RecordEverything(folder.Wide("out"),
                                         streams::CallbackConfig(0, kx_mp4_buffered_io()),
                                         3) == MP4_STATUS_SUCCESS;
    };
    if (std::freopen("/dev/null", "w", stdout) == nullptr || !succeeds()) return false;
    const auto size = std::filesystem::file_size(folder.Path("out"));
    for (rlim_t missing = 0; missing <= size; missing += missing < 20 ? 1 : 7) {
        const FileSizeLimit guard(size - missing);
        if (succeeds() != (missing == 0)) return false;
    }
    return true;
}

TEST_F(BufferedIo, MuxerReportsEveryByteThatIsMissingInTheFile) {
    const auto check = [this] { std::exit(EveryMissingByteIsReported(m_folder) ? 0 : 1); };
    EXPECT_EXIT(check(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
