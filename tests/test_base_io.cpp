// Byte I/O: the stream contract, the file writer, the memory stream and the callback writer.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "BaseIO.h"
#include "log_capture.h"
#include "memory_output.h"
#include "movie_reader.h"
#include "scratch_folder.h"
#include "system_calls.h"

namespace {

using ::testing::ElementsAre;

/// The status of the exception that the call throws; success when it throws none.
template <class Call>
mp4_status_t StatusOf(Call&& call) {
    try {
        call();
    } catch (const kx_mp4_exception& failure) {
        return failure.error();
    }
    return MP4_STATUS_SUCCESS;
}

TEST(BaseIo, ErrorNumbersBecomeStatuses) {
    const std::pair<int, mp4_status_t> kTable[] = {
        {1, MP4_STATUS_OPERATOR_NOT_PERMITTED}, {2, MP4_STATUS_NO_SUCH_FILE_OR_DIR},
        {13, MP4_STATUS_PERMISSION_DENIED},     {16, MP4_STATUS_DEVICE_OR_RESOURCE_BUSY},
        {24, MP4_STATUS_TOO_MANY_OPEN_FILES},   {28, MP4_STATUS_NO_SPACE_LEFT},
        {30, MP4_STATUS_READONLY_FILE_SYSTEM},  {1000, MP4_STATUS_SUCCESS},
        {0, MP4_STATUS_UNEXPECTED_ERROR},       {-1, MP4_STATUS_UNEXPECTED_ERROR}};
    for (const auto& [code, status] : kTable)
        EXPECT_EQ(kx_mp4_exception::convert_error(code), status) << code;
}

TEST(BaseIo, IntegersAreBigEndianAndReadBack) {
    CBufferIO stream;
    stream.Init(nullptr);
    stream.WriteInt8(0xFE);
    stream.WriteInt16(258);
    stream.WriteInt24(0xAABBCCDD);
    stream.WriteInt32(0x01020304);
    stream.WriteInt64(1);
    EXPECT_EQ(BytesOf(stream), Hex("fe 0102 bbccdd 01020304 0000000000000001"));
    stream.Seek(0, SEEK_SET);
    EXPECT_EQ(stream.ReadUint8(), 0xFE);
    EXPECT_EQ(stream.ReadUint16(), 258);
    EXPECT_EQ(stream.ReadUint24(), 0xBBCCDDU);
    EXPECT_EQ(stream.ReadUint32(), 0x01020304U);
    EXPECT_EQ(stream.ReadUint64(), 1U);
}

class FileWriter : public ::testing::Test {
protected:
    mp4_status_t Open(const std::string& path) {
        return m_writer.Init(std::wstring(path.begin(), path.end()).c_str(), 0, 0);
    }

    ScratchFolder m_folder;
    LogCapture m_log;
    CFileWriter m_writer;
};

TEST_F(FileWriter, OpensTruncatesAndPatches) {
    const std::string path = m_folder.Path("out");
    ASSERT_EQ(Open(path), MP4_STATUS_SUCCESS);
    m_writer.WriteBuf("previous content", 16);
    EXPECT_TRUE(m_writer.Uninit());
    EXPECT_TRUE(m_writer.Uninit());
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U & ~022U);

    ASSERT_EQ(Open(path), MP4_STATUS_SUCCESS);
    EXPECT_TRUE(ReadFile(path).empty());
    m_writer.WriteInt32(8);
    m_writer.WriteInt32(1);
    EXPECT_EQ(m_writer.Ftell(), 8U);
    m_writer.Seek(0, SEEK_SET);
    m_writer.WriteInt32(0x10);
    m_writer.Seek(-1, SEEK_END);
    m_writer.WriteInt8(7);
    m_writer.WriteBuf("", 0);
    m_writer.Flush();
    EXPECT_EQ(ReadFile(path), Hex("00000010 00000007"));
}

TEST_F(FileWriter, RefusesPathsItCannotOpen) {
    EXPECT_EQ(Open(m_folder.Path("missing/out")), MP4_STATUS_NO_SUCH_FILE_OR_DIR);
    EXPECT_EQ(Open(m_folder.Path("")), MP4_STATUS_UNEXPECTED_ERROR);  // EISDIR
    EXPECT_EQ(m_writer.Init(L"\x20AC", 0, 0), MP4_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(m_log.Count("error", "wcstombs failed", "Init"), 1);

    // 1022 bytes reach the system, which then refuses the component; 1023 do not.
    EXPECT_EQ(Open(std::string(1022, 'a')), MP4_STATUS_UNEXPECTED_ERROR);  // ENAMETOOLONG
    EXPECT_EQ(Open(std::string(1023, 'a')), MP4_STATUS_FILE_NAME_TOO_LONG);
    EXPECT_EQ(m_log.Count("error", "file path reach the max path size 1024", "Init"), 1);
}

TEST_F(FileWriter, ReportsFailuresOnceAndStaysInError) {
    ASSERT_EQ(Open("/dev/full"), MP4_STATUS_SUCCESS);
    EXPECT_EQ(StatusOf([&] { m_writer.WriteInt32(1); }), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_NO_THROW(m_writer.WriteInt32(2));
    ASSERT_EQ(m_log.Lines().size(), 1U);
    EXPECT_THAT(m_log.Lines()[0].text,
                ::testing::MatchesRegex("BaseIO : Error - .line [0-9]+. Write error No space left "
                                        "on device !\n\n"));
    EXPECT_EQ(m_writer.get_error_code(), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_FALSE(m_writer.IsValid());

    ASSERT_EQ(Open(m_folder.Path("out")), MP4_STATUS_SUCCESS);
    EXPECT_THROW(m_writer.Seek(-5, SEEK_SET), kx_mp4_exception);
    m_writer.WriteInt32(3);
    EXPECT_TRUE(ReadFile(m_folder.Path("out")).empty());
}

TEST_F(FileWriter, GathersPiecesOfAllSizesInOrder) {
    const std::string path = m_folder.Path("out");
    ASSERT_EQ(Open(path), MP4_STATUS_SUCCESS);
    // More pieces than one call takes, large and small, and a short write in the middle of one.
    Bytes expected;
    const Bytes large(5000, 0x5A);
    m_writer.PrepareGather();
    m_writer.BeginGather();
    for (int i = 0; i < 400; ++i) {
        const auto size = static_cast<uint32_t>(i % 3 == 0 ? 5000 : 600);
        m_writer.WriteBuf(large.data(), size);
        // The memory of a small piece is the caller's again at once.
        const Bytes small(size == 600 ? 512 : 2, static_cast<uint8_t>(i));
        m_writer.WriteBuf(small.data(), static_cast<uint32_t>(small.size()));
        expected = expected + Bytes(size, 0x5A) + small;
    }
    {
        const FaultInjection fault(1, FaultInjection::kShortWrite);
        m_writer.EndGather();
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_EQ(ReadFile(path), expected);

    m_writer.BeginGather();
    m_writer.WriteInt32(1);
    m_writer.CancelGather();
    m_writer.WriteInt8(9);
    EXPECT_EQ(ReadFile(path), expected + Bytes{9});
    m_writer.BeginGather();
    m_writer.WriteInt32(1);
    EXPECT_EQ(m_writer.Ftell(), expected.size() + 5) << "a position counts what was gathered";
    m_writer.WriteInt32(2);
    const FaultInjection fault(1, ENOSPC);
    EXPECT_EQ(StatusOf([&] { m_writer.EndGather(); }), MP4_STATUS_NO_SPACE_LEFT);
    EXPECT_EQ(m_writer.get_error_code(), MP4_STATUS_NO_SPACE_LEFT);
}

TEST(BufferIo, GrowsByDoublingAndRoundsUpToKibibytes) {
    CBufferIO buffer;
    buffer.WriteInt32(1);  // not initialised: dropped
    EXPECT_EQ(buffer.GetSize(), 0U);
    const Bytes bytes(600, 1);
    const std::pair<uint32_t, uint64_t> kTable[] = {
        {4, 1024}, {508, 1024}, {600, 2048}, {513, 2048}, {0, 0}};
    for (const auto& [size, capacity] : kTable) {
        buffer.Init(nullptr);
        buffer.WriteBuf(bytes.data(), size);
        EXPECT_EQ(buffer.GetCapabilitySize(), capacity) << size;
        EXPECT_EQ(buffer.GetSize(), size);
    }
    buffer.Init(nullptr);
    buffer.EnsureSize(600, true);
    EXPECT_EQ(buffer.GetCapabilitySize(), 1024U);
    buffer.WriteBuf(bytes.data(), 600);
    buffer.EnsureSize(1000, false);  // (600 + 1000) * 2, in whole KiB
    EXPECT_EQ(buffer.GetCapabilitySize(), 4096U);
    EXPECT_EQ(BytesOf(buffer), bytes);
}

TEST(BufferIo, SeeksWithinItsBytesOnly) {
    const struct {
        int64_t offset;
        int origin;
        int position;  // -1: refused
    } kTable[] = {{0, 0, 0},          {16, 0, 16},        {17, 0, -1},        {-1, 0, -1},
                  {8, 1, 16},         {9, 1, -1},         {-8, 1, 0},         {-9, 1, -1},
                  {0, 2, 16},         {-16, 2, 0},        {-17, 2, -1},       {1, 2, -1},
                  {INT64_MAX, 1, -1}, {INT64_MIN, 2, -1}, {INT64_MIN, 0, -1}, {99, 3, 8}};
    for (const auto& row : kTable) {
        CBufferIO buffer;
        buffer.Init(nullptr);
        buffer.WriteBuf("0123456789abcdef", 16);
        buffer.Seek(8, SEEK_SET);
        bool refused = false;
        try {
            buffer.Seek(row.offset, row.origin);
        } catch (const kx_mp4_exception&) {
            refused = true;
        }
        EXPECT_EQ(refused, row.position < 0) << row.offset << " from " << row.origin;
        EXPECT_EQ(buffer.Ftell(), static_cast<uint64_t>(refused ? 8 : row.position));
        EXPECT_EQ(buffer.IsValid(), !refused);
    }
}

TEST(BufferIo, OverwritesReadsAndHandsOver) {
    CBufferIO sink;
    sink.Init(nullptr);
    CBufferIO buffer;
    buffer.Init(&sink);
    buffer.WriteBuf("0123456789ab", 12);
    buffer.Seek(0, SEEK_SET);
    buffer.WriteInt32(0x41414141);
    EXPECT_EQ(buffer.ReadUint8(), '4');
    buffer.FlushEx();
    EXPECT_EQ(buffer.GetSize(), 12U);
    EXPECT_EQ(buffer.Ftell(), 5U);
    buffer.Flush();
    EXPECT_EQ(buffer.GetSize(), 0U);
    EXPECT_EQ(buffer.Ftell(), 0U);
    EXPECT_EQ(BytesOf(sink), Hex("41414141 343536373839 6162 41414141 343536373839 6162"));
    EXPECT_THROW(buffer.ReadUint8(), kx_mp4_exception);
    EXPECT_TRUE(sink.IsValid());
    EXPECT_TRUE(sink.Uninit());
    EXPECT_FALSE(sink.IsValid());
}

TEST(BufferIo, ReportsMemoryThatIsNotThere) {
    CBufferIO buffer;
    buffer.Init(nullptr);
    buffer.WriteInt32(1);
    EXPECT_THROW(buffer.EnsureSize(UINT32_MAX, false), kx_mp4_exception);
    EXPECT_FALSE(buffer.IsValid());
    EXPECT_EQ(buffer.GetCapabilitySize(), 0U);
    EXPECT_EQ(buffer.GetBuffer(), nullptr);
    EXPECT_NO_THROW(buffer.WriteInt32(2));
}

TEST(ExternalWriter, AdaptsTheCallbacks) {
    MemoryOutput output;
    ExternalWriter writer(output.Functions());
    output.onCall = [](std::string_view callback) { return callback != "init"; };
    EXPECT_EQ(writer.Init(L"a", 0, 0), MP4_STATUS_EXTERNAL_FUNC_FAILED);
    output.onCall = nullptr;
    ASSERT_EQ(writer.Init(L"b", 3, 4), MP4_STATUS_SUCCESS);
    writer.WriteInt32(5);
    EXPECT_EQ(writer.Ftell(), 4U);
    writer.Seek(-2, SEEK_END);
    writer.WriteInt16(6);
    writer.Flush();
    EXPECT_TRUE(writer.Uninit());
    EXPECT_FALSE(writer.Uninit());
    EXPECT_EQ(writer.Ftell(), 0U);
    EXPECT_NO_THROW(writer.Flush());
    EXPECT_THAT(output.calls, ElementsAre("init a 0 0", "init b 3 4", "write 4", "tell",
                                          "seek -2 2", "write 2", "flush", "uninit"));
    EXPECT_EQ(output.Content(), Hex("00000006"));
    ExternalWriter none(nullptr);
    EXPECT_EQ(none.Init(L"a", 0, 0), MP4_STATUS_INVALID_PARAMETER);
}

TEST(ExternalWriter, TakesOnlyOneForSuccess) {
    for (const int result : {0, -1, 4}) {
        MemoryOutput output;
        output.failingWrite = 1;
        output.failureResult = result;
        output.failureErrno = EACCES;
        ExternalWriter writer(output.Functions());
        ASSERT_EQ(writer.Init(L"out", 0, 0), MP4_STATUS_SUCCESS);
        EXPECT_EQ(StatusOf([&] { writer.WriteInt32(1); }), MP4_STATUS_PERMISSION_DENIED);
        writer.WriteInt32(2);
        EXPECT_EQ(output.writes, 1);
    }
}

}  // namespace
