/// @file
/// Byte I/O: the stream contract of every writer and buffer, the POSIX file writer, the growable
/// memory stream and the writer over the caller's callbacks.
#ifndef KX_MP4_BASEIO_H
#define KX_MP4_BASEIO_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FourCC.h"
#include "defines.h"
#include "kx_mp4/kx_mp4.h"

namespace kx_mp4 {
class FileLock;
class GatherList;
}  // namespace kx_mp4

/// State of a stream. Note that the usable state is -1.
typedef enum _IO_STATUS : int32_t {
    IO_VALID = -1,   ///< Usable.
    IO_UNINIT = 0,   ///< Constructed or closed.
    IO_IN_ERROR = 1  ///< An operation failed; writes are dropped until the stream is closed.
} IO_STATUS;

/// A byte stream. Integers are written big-endian, each with one Write.
///
/// A failed operation puts the stream in #IO_IN_ERROR, keeps the error number, prints one line on
/// standard output and throws kx_mp4_exception. Writes to a stream that is not #IO_VALID are
/// dropped without a word: the failure has been thrown once already.
///
/// Not thread safe: a stream belongs to one muxer and is used under that muxer's lock.
class IBaseIO {
public:
    IBaseIO() = default;
    virtual ~IBaseIO() = default;
    IBaseIO(const IBaseIO&) = delete;
    IBaseIO& operator=(const IBaseIO&) = delete;

    /// Closes the stream.
    virtual bool Uninit() = 0;
    /// Current position in bytes.
    virtual uint64_t Ftell() = 0;
    /// Moves the position; `origin` is SEEK_SET (0), SEEK_CUR (1) or SEEK_END (2).
    virtual void Seek(int64_t offset, int origin) = 0;
    /// Pushes what was written to where it goes.
    virtual void Flush() = 0;
    /// Whether the position lies in memory.
    virtual bool IsInBuffer(int64_t offset, int origin) = 0;
    /// Size of the output; 0 in every writer.
    virtual uint64_t GetFileSize() { return 0; }
    /// Whether closing, the last moment at which some outputs tell of bytes that were lost, found
    /// no failure. The failure is in get_error_code.
    virtual bool ClosedWell() const { return true; }

    /// Whether the stream is open and has not failed.
    bool IsValid() const { return m_status == IO_VALID; }
    /// The error number of the last failure as a status.
    mp4_status_t get_error_code() const { return kx_mp4_exception::convert_error(m_err_code); }

    /// Writes `cbBuf` bytes; nothing when the stream is not valid.
    void WriteBuf(const void* pbBuf, uint32_t cbBuf) {
        if (IsValid()) Write(pbBuf, cbBuf);
    }
    /// Writes one byte.
    void WriteInt8(uint8_t nValue) { WriteBigEndian<1>(nValue); }
    /// Writes two bytes.
    void WriteInt16(uint16_t nValue) { WriteBigEndian<2>(nValue); }
    /// Writes the low three bytes.
    void WriteInt24(uint32_t nValue) { WriteBigEndian<3>(nValue); }
    /// Writes four bytes.
    void WriteInt32(uint32_t nValue) { WriteBigEndian<4>(nValue); }
    /// Writes eight bytes.
    void WriteInt64(uint64_t nValue) { WriteBigEndian<8>(nValue); }
    /// Writes the four bytes as they stand.
    void WriteTag(kx_mp4::FourCC tag) { WriteBuf(tag.data(), sizeof tag); }

    /// Reads exactly `cbBuf` bytes; zeros when the stream is not valid, as all below.
    void ReadBuf(void* pbBuf, uint32_t cbBuf);
    /// Reads one byte.
    uint8_t ReadUint8() { return static_cast<uint8_t>(ReadBigEndian<1>()); }
    /// Reads two bytes.
    uint16_t ReadUint16() { return static_cast<uint16_t>(ReadBigEndian<2>()); }
    /// Reads three bytes.
    uint32_t ReadUint24() { return static_cast<uint32_t>(ReadBigEndian<3>()); }
    /// Reads four bytes.
    uint32_t ReadUint32() { return static_cast<uint32_t>(ReadBigEndian<4>()); }
    /// Reads eight bytes.
    uint64_t ReadUint64() { return ReadBigEndian<8>(); }

protected:
    /// Reads exactly `cbBuf` bytes.
    virtual void Read(void* pbBuf, uint32_t cbBuf) = 0;
    /// Writes exactly `cbBuf` bytes.
    virtual void Write(const void* pbBuf, uint32_t cbBuf) = 0;

    /// The one way a stream fails: state, error number, a line on standard output, exception.
    [[noreturn]] void FailSeek(int line);
    /// The same for a write.
    [[noreturn]] void FailWrite(int line);
    /// The same for a read, whose line says "Read EOF".
    [[noreturn]] void FailRead(int line);

    /// The bytes of an integer as they are written.
    template <size_t Width>
    static std::array<uint8_t, Width> BigEndian(uint64_t nValue) {
        std::array<uint8_t, Width> bytes{};
        for (size_t i = 0; i < Width; ++i)
            bytes[i] = static_cast<uint8_t>(nValue >> (8 * (Width - 1 - i)));
        return bytes;
    }

    IO_STATUS m_status = IO_UNINIT;  ///< State.
    int m_err_code = 0;              ///< Error number of the last failure.

private:
    int EnterError();

    template <size_t Width>
    void WriteBigEndian(uint64_t nValue) {
        const std::array<uint8_t, Width> bytes = BigEndian<Width>(nValue);
        WriteBuf(bytes.data(), Width);
    }

    template <size_t Width>
    uint64_t ReadBigEndian() {
        uint8_t bytes[Width];
        ReadBuf(bytes, Width);
        uint64_t value = 0;
        for (const uint8_t byte : bytes)
            value = value << 8 | byte;
        return value;
    }
};

/// The contract on a POSIX file descriptor. Destroying an open writer closes its file.
///
/// What is written between BeginGather and EndGather reaches the file with few system calls,
/// usually one, complete and in order when EndGather returns. Pieces of at most 512 bytes are
/// copied; larger ones must stay as they are until then.
class IFileIOBase : public IBaseIO {
public:
    /// Closed, and without the memory for gathering.
    IFileIOBase();
    ~IFileIOBase() override;

    /// Opens the stream; block size and count are for outputs that use them.
    virtual mp4_status_t Init(const wchar_t* pFilePath, uint32_t nBlockSize,
                              uint32_t nBufferBlocks) = 0;

    bool Uninit() override;
    bool ClosedWell() const override { return m_closedWell; }
    uint64_t Ftell() override;
    void Seek(int64_t offset, int origin) override;
    void Flush() override;
    bool IsInBuffer(int64_t, int) override { return true; }

    /// Takes the memory that gathering needs. Without it every write goes to the file at once.
    void PrepareGather();
    /// Collects what is written from now on.
    void BeginGather() { m_gathering = m_gathered != nullptr; }
    /// Writes what was gathered; fails as a Write fails.
    void EndGather();
    /// Ends gathering and forgets what has not been written.
    void CancelGather();

protected:
    void Read(void* pbBuf, uint32_t cbBuf) override;
    void Write(const void* pbBuf, uint32_t cbBuf) override;

    int m_hFile = -1;  ///< Descriptor; -1 when closed.

private:
    void Gather(const void* pbBuf, uint32_t cbBuf);
    void WriteGathered();
    void WriteAll(const void* pbBuf, uint32_t cbBuf);

    bool m_closedWell = true;
    bool m_gathering = false;
    std::unique_ptr<kx_mp4::GatherList> m_gathered;
};

namespace kx_mp4 {

/// Room for a path in the multibyte form that the system takes, with its terminator.
using NarrowPath = std::array<char, 1024>;

/// Converts a path by the current locale. A failure is logged and leaves its error number in errno.
/// @return #MP4_STATUS_INVALID_PARAMETER when the locale cannot convert the path,
///         #MP4_STATUS_FILE_NAME_TOO_LONG past 1022 bytes.
mp4_status_t ConvertPath(const wchar_t* pFilePath, NarrowPath& path);

}  // namespace kx_mp4

/// A new or truncated file, named by a wide-character path that the current locale can convert.
class CFileWriter : public IFileIOBase {
public:
    /// Opens the file write-only, without blocking, mode 0644. Block size and count are not used.
    /// @return #MP4_STATUS_INVALID_PARAMETER when the locale cannot convert the path,
    ///         #MP4_STATUS_FILE_NAME_TOO_LONG past 1022 bytes, or the status of a failed open.
    mp4_status_t Init(const wchar_t* pFilePath, uint32_t nBlockSize,
                      uint32_t nBufferBlocks) override;

    /// The same for a path in the system's own bytes.
    mp4_status_t Init(const char* path);

    /// The same, and nobody else's file: it is emptied only
    /// when the lock could be taken. Where files cannot be locked, a warning is logged.
    /// @return #MP4_STATUS_DEVICE_OR_RESOURCE_BUSY when somebody holds the lock, or the status of
    ///         a failed open.
    mp4_status_t InitLocked(const char* path, kx_mp4::FileLock& lock);

private:
    mp4_status_t Open(const char* path, int flags);
    bool IsNamed(const char* path) const;
    mp4_status_t Empty(const char* path);
};

/// A growable memory stream. Flush empties it into its sink, FlushEx copies it there.
///
/// Invariant: position <= end <= capacity. Sizes are 32-bit: a buffer stays below 4 GiB.
class CBufferIO : public IBaseIO {
public:
    ~CBufferIO() override;

    /// Becomes usable and empty, without storage; the first write allocates. The sink is borrowed
    /// and may be null.
    void Init(IBaseIO* pSinkWriter);
    /// The same with a capacity of `size` bytes. Fails like EnsureSize.
    void Init(IBaseIO* pSinkWriter, uint32_t size);

    bool Uninit() override;
    uint64_t Ftell() override { return m_nOffset; }
    /// Moves within the valid bytes only.
    void Seek(int64_t offset, int origin) override;
    /// Hands the bytes to the sink and empties the buffer; capacity stays.
    void Flush() override;
    /// Hands the bytes to the sink and keeps them.
    void FlushEx();
    /// Forgets the bytes; capacity stays.
    void Clear() { m_nOffset = m_nEnd = 0; }
    bool IsInBuffer(int64_t, int) override { return true; }

    // Every sample adds entries to its tables: without a virtual call, and with copies of known
    // width, that costs a few instructions.
    /// As the base's.
    void WriteBuf(const void* pbBuf, uint32_t cbBuf) {
        if (IsValid()) Append(pbBuf, cbBuf);
    }
    /// As the base's.
    void WriteInt32(uint32_t nValue) { WriteBuf(BigEndian<4>(nValue).data(), 4); }
    /// As the base's.
    void WriteInt64(uint64_t nValue) { WriteBuf(BigEndian<8>(nValue).data(), 8); }

    /// Makes room for `cbBuf` bytes from the position on: to the KiB when `precise`, else doubled.
    virtual void EnsureSize(uint32_t cbBuf, bool precise);

    /// Valid bytes.
    uint64_t GetSize() const { return m_nEnd; }
    /// Bytes that fit without growing.
    uint64_t GetCapabilitySize() const { return m_cbBuffer; }
    /// The storage; null before the first write. Valid until the buffer grows.
    uint8_t* GetBuffer() { return m_pbBuffer; }
    /// Replaces the sink.
    void SetSink(IBaseIO* pSinkWriter) { m_pSinkWriter = pSinkWriter; }

protected:
    void Read(void* pbBuf, uint32_t cbBuf) override;
    void Write(const void* pbBuf, uint32_t cbBuf) override { Append(pbBuf, cbBuf); }
    /// Moves the end behind the position.
    void UpdateEnd() {
        if (m_nOffset > m_nEnd) m_nEnd = m_nOffset;
    }

private:
    void Release();

    void Append(const void* pbBuf, uint32_t cbBuf) {
        if (m_cbBuffer - m_nOffset < cbBuf) EnsureSize(cbBuf, false);
        if (cbBuf == 0) return;
        std::memcpy(m_pbBuffer + m_nOffset, pbBuf, cbBuf);
        m_nOffset += cbBuf;
        UpdateEnd();
    }

    uint8_t* m_pbBuffer = nullptr;  // malloc'ed: realloc moves large blocks without copying
    uint64_t m_cbBuffer = 0;
    uint64_t m_nEnd = 0;
    uint64_t m_nOffset = 0;
    IBaseIO* m_pSinkWriter = nullptr;
};

/// A writer that is opened by a path.
class IFileIO : public IBaseIO {
public:
    /// Opens the stream; block size and count are for outputs that use them.
    virtual mp4_status_t Init(const wchar_t* pFilePath, uint32_t nBlockSize,
                              uint32_t nBufferBlocks) = 0;
};

/// The contract over the caller's callbacks. The record is borrowed until Uninit.
class ExternalWriter : public IFileIO {
public:
    /// Borrows the callbacks until Uninit.
    explicit ExternalWriter(mp4_file_io_func_t* pFunc) : m_pFunc(pFunc) {}

    /// @return #MP4_STATUS_INVALID_PARAMETER without callbacks, #MP4_STATUS_EXTERNAL_FUNC_FAILED
    ///         when the `init` callback refuses.
    mp4_status_t Init(const wchar_t* pFilePath, uint32_t nBlockSize,
                      uint32_t nBufferBlocks) override;
    /// Calls `uninit` once; the writer cannot be used again. False when it was closed already.
    bool Uninit() override;
    uint64_t Ftell() override;
    void Seek(int64_t offset, int origin) override;
    void Flush() override;
    bool IsInBuffer(int64_t, int) override { return false; }

protected:
    void Read(void* pbBuf, uint32_t cbBuf) override;
    void Write(const void* pbBuf, uint32_t cbBuf) override;

private:
    mp4_file_io_func_t* m_pFunc;
    kx_mp4_handle m_handle = nullptr;
};

#endif  // KX_MP4_BASEIO_H
