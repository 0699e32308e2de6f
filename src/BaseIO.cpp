#include "BaseIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "FileLock.h"
#include "GatherList.h"
#include "Log.h"
#include "Retry.h"

using kx_mp4::ConvertPath;
using kx_mp4::FileLock;
using kx_mp4::GatherList;
using kx_mp4::NarrowPath;
using kx_mp4::Retry;

namespace {

constexpr const char* kSource = "src/BaseIO";

}  // namespace

// IBaseIO

void IBaseIO::ReadBuf(void* pbBuf, uint32_t cbBuf) {
    if (IsValid()) {
        Read(pbBuf, cbBuf);
    } else if (cbBuf != 0) {
        std::memset(pbBuf, 0, cbBuf);
    }
}

int IBaseIO::EnterError() {
    m_status = IO_IN_ERROR;
    m_err_code = errno;  // before anything is printed: printing may change it
    // A callback may leave anything there; a failure never reads as success.
    if (kx_mp4_exception::convert_error(m_err_code) == MP4_STATUS_SUCCESS) m_err_code = EIO;
    return m_err_code;
}

void IBaseIO::FailSeek(int line) {
    const int code = EnterError();
    kx_mp4::Print(MP4_LOG_ERROR, "BaseIO : Error - [line %d] Seek error %s !\n\n", kSource, line,
                  "Seek", line, std::strerror(code));
    throw kx_mp4_exception(code);
}

void IBaseIO::FailWrite(int line) {
    const int code = EnterError();
    kx_mp4::Print(MP4_LOG_ERROR, "BaseIO : Error - [line %d] Write error %s !\n\n", kSource, line,
                  "Write", line, std::strerror(code));
    throw kx_mp4_exception(code);
}

void IBaseIO::FailRead(int line) {
    const int code = EnterError();
    kx_mp4::Print(MP4_LOG_ERROR, "[line %d] Read EOF !\n", kSource, line, "Read", line);
    throw kx_mp4_exception(code);
}

// IFileIOBase

IFileIOBase::IFileIOBase() = default;

IFileIOBase::~IFileIOBase() {
    IFileIOBase::Uninit();
}

bool IFileIOBase::Uninit() {
    m_status = IO_UNINIT;
    CancelGather();
    if (m_hFile == -1) return true;
    // A descriptor is gone also when closing it was interrupted.
    m_closedWell = close(m_hFile) == 0 || errno == EINTR;
    if (!m_closedWell) {
        m_err_code = errno;
        kx_mp4::LogError("closing the file failed, error:%d", kSource, __LINE__, "Uninit",
                         m_err_code);
    }
    m_hFile = -1;
    return true;
}

uint64_t IFileIOBase::Ftell() {
    WriteGathered();
    return static_cast<uint64_t>(lseek(m_hFile, 0, SEEK_CUR));
}

void IFileIOBase::Seek(int64_t offset, int origin) {
    WriteGathered();
    if (lseek(m_hFile, offset, origin) < 0) FailSeek(__LINE__);
}

void IFileIOBase::Flush() {
    WriteGathered();
    if (Retry([this] { return fsync(m_hFile); }) != 0) FailWrite(__LINE__);
}

void IFileIOBase::Write(const void* pbBuf, uint32_t cbBuf) {
    if (m_gathering)
        Gather(pbBuf, cbBuf);
    else
        WriteAll(pbBuf, cbBuf);
}

void IFileIOBase::WriteAll(const void* pbBuf, uint32_t cbBuf) {
    const auto* next = static_cast<const uint8_t*>(pbBuf);
    uint32_t left = cbBuf;
    do {
        const ssize_t written = Retry([&] { return write(m_hFile, next, left); });
        if (written < 0 || (written == 0 && left != 0)) FailWrite(__LINE__);
        next += written;
        left -= static_cast<uint32_t>(written);
    } while (left != 0);
}

void IFileIOBase::PrepareGather() {
    if (m_gathered == nullptr) m_gathered = std::make_unique<GatherList>();
}

void IFileIOBase::Gather(const void* pbBuf, uint32_t cbBuf) {
    if (cbBuf == 0 || m_gathered->Add(pbBuf, cbBuf)) return;
    WriteGathered();
    m_gathered->Add(pbBuf, cbBuf);
}

void IFileIOBase::WriteGathered() {
    if (m_gathered == nullptr) return;
    iovec* piece = m_gathered->begin();
    iovec* const end = m_gathered->end();
    m_gathered->Clear();  // what fails below is not tried again
    while (piece != end) {
        const ssize_t count = Retry([&] {
            return piece + 1 == end ? write(m_hFile, piece->iov_base, piece->iov_len)
                                    : writev(m_hFile, piece, static_cast<int>(end - piece));
        });
        if (count <= 0) FailWrite(__LINE__);
        auto written = static_cast<size_t>(count);
        while (piece != end && written >= piece->iov_len)
            written -= (piece++)->iov_len;
        if (piece != end) {
            piece->iov_base = static_cast<uint8_t*>(piece->iov_base) + written;
            piece->iov_len -= written;
        }
    }
}

void IFileIOBase::EndGather() {
    m_gathering = false;
    WriteGathered();
}

void IFileIOBase::CancelGather() {
    m_gathering = false;
    if (m_gathered != nullptr) m_gathered->Clear();
}

void IFileIOBase::Read(void* pbBuf, uint32_t cbBuf) {
    auto* next = static_cast<uint8_t*>(pbBuf);
    uint32_t left = cbBuf;
    while (left != 0) {
        const ssize_t count = Retry([&] { return read(m_hFile, next, left); });
        if (count <= 0) FailRead(__LINE__);
        next += count;
        left -= static_cast<uint32_t>(count);
    }
}

// CFileWriter

mp4_status_t kx_mp4::ConvertPath(const wchar_t* pFilePath, NarrowPath& path) {
    const size_t length = std::wcstombs(nullptr, pFilePath, 0);
    if (length == static_cast<size_t>(-1)) {
        kx_mp4::LogError("wcstombs failed", kSource, __LINE__, "Init");
        errno = EILSEQ;
        return MP4_STATUS_INVALID_PARAMETER;
    }
    if (length >= path.size() - 1) {
        kx_mp4::LogError("file path reach the max path size 1024", kSource, __LINE__, "Init");
        errno = ENAMETOOLONG;
        return MP4_STATUS_FILE_NAME_TOO_LONG;
    }
    std::wcstombs(path.data(), pFilePath, path.size());
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CFileWriter::Init(const wchar_t* pFilePath, uint32_t, uint32_t) {
    NarrowPath path;
    const mp4_status_t status = ConvertPath(pFilePath, path);
    if (status != MP4_STATUS_SUCCESS) return status;
    return Init(path.data());
}

mp4_status_t CFileWriter::Init(const char* path) {
    return Open(path, O_TRUNC);
}

mp4_status_t CFileWriter::Open(const char* path, int flags) {
    m_hFile = Retry(
        [&] { return open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | flags, 0644); });
    if (m_hFile < 0) {
        const int code = errno;
        kx_mp4::LogError("open file '%s' failed, error:%d", kSource, __LINE__, "Init", path, code);
        return kx_mp4_exception::convert_error(code);
    }
    m_status = IO_VALID;
    return MP4_STATUS_SUCCESS;
}

mp4_status_t CFileWriter::InitLocked(const char* path, FileLock& lock) {
    for (;;) {
        const mp4_status_t status = Open(path, 0);
        if (status != MP4_STATUS_SUCCESS) return status;
        const int code = lock.Take(m_hFile);
        if (code == EWOULDBLOCK) {
            kx_mp4::LogError("file '%s' is in use by another recording or a repair", kSource,
                             __LINE__, "Init", path);
            Uninit();
            return MP4_STATUS_DEVICE_OR_RESOURCE_BUSY;
        }
        if (code != 0) {
            kx_mp4::LogWarn(
                "file '%s' cannot be locked (error:%d), a repair would not see that it is "
                "in use",
                kSource, __LINE__, "Init", path, code);
        }
        if (IsNamed(path)) break;
        Uninit();  // who held the lock has removed the file meanwhile
    }
    return Empty(path);
}

bool CFileWriter::IsNamed(const char* path) const {
    struct stat opened {};
    struct stat named {};
    return fstat(m_hFile, &opened) != 0 ||
           (stat(path, &named) == 0 && opened.st_ino == named.st_ino &&
            opened.st_dev == named.st_dev);
}

mp4_status_t CFileWriter::Empty(const char* path) {
    struct stat opened {};
    if (fstat(m_hFile, &opened) != 0 || !S_ISREG(opened.st_mode)) return MP4_STATUS_SUCCESS;
    if (Retry([this] { return ftruncate(m_hFile, 0); }) == 0) return MP4_STATUS_SUCCESS;
    const int code = errno;
    kx_mp4::LogError("file '%s' cannot be emptied, error:%d", kSource, __LINE__, "Init", path,
                     code);
    Uninit();
    return kx_mp4_exception::convert_error(code);
}

// CBufferIO

CBufferIO::~CBufferIO() {
    Release();
}

void CBufferIO::Release() {
    std::free(m_pbBuffer);
    m_pbBuffer = nullptr;
    m_cbBuffer = m_nEnd = m_nOffset = 0;
}

void CBufferIO::Init(IBaseIO* pSinkWriter) {
    Release();
    m_pSinkWriter = pSinkWriter;
    m_status = IO_VALID;
}

void CBufferIO::Init(IBaseIO* pSinkWriter, uint32_t size) {
    Init(pSinkWriter);
    m_pbBuffer = static_cast<uint8_t*>(std::malloc(size));
    if (m_pbBuffer == nullptr && size != 0) FailWrite(__LINE__);
    m_cbBuffer = size;
}

bool CBufferIO::Uninit() {
    m_status = IO_UNINIT;
    Release();
    return true;
}

void CBufferIO::Seek(int64_t offset, int origin) {
    const auto end = static_cast<int64_t>(m_nEnd);
    int64_t base = 0;
    switch (origin) {
        case SEEK_SET:
            break;
        case SEEK_CUR:
            base = static_cast<int64_t>(m_nOffset);
            break;
        case SEEK_END:
            base = end;
            break;
        default:
            return;
    }
    // Both sides stay within 0 .. end, so neither can overflow whatever the offset is.
    if (offset < -base || offset > end - base) FailSeek(__LINE__);
    m_nOffset = static_cast<uint64_t>(base + offset);
}

void CBufferIO::Flush() {
    if (m_pSinkWriter == nullptr) return;
    m_pSinkWriter->WriteBuf(m_pbBuffer, static_cast<uint32_t>(m_nEnd));
    Clear();
}

void CBufferIO::FlushEx() {
    if (m_pSinkWriter == nullptr || m_nEnd == 0) return;
    m_pSinkWriter->WriteBuf(m_pbBuffer, static_cast<uint32_t>(m_nEnd));
}

void CBufferIO::Read(void* pbBuf, uint32_t cbBuf) {
    if (m_nOffset + cbBuf > m_nEnd) FailRead(__LINE__);
    if (cbBuf == 0) return;
    std::memcpy(pbBuf, m_pbBuffer + m_nOffset, cbBuf);
    m_nOffset += cbBuf;
}

void CBufferIO::EnsureSize(uint32_t cbBuf, bool precise) {
    constexpr uint64_t kGranule = 1024;
    const uint64_t need = m_nOffset + cbBuf;
    if (m_cbBuffer >= need) return;
    const uint64_t wanted = precise ? need : need * 2;
    const uint64_t capacity = (wanted + kGranule - 1) & ~(kGranule - 1);
    void* block = nullptr;
    if (capacity <= UINT32_MAX) {
        block = std::realloc(m_pbBuffer, static_cast<size_t>(capacity));
    } else {
        errno = ENOMEM;  // sizes in this format are 32-bit: a larger buffer could not be written
    }
    if (block == nullptr) {
        Release();
        FailWrite(__LINE__);
    }
    m_pbBuffer = static_cast<uint8_t*>(block);
    m_cbBuffer = capacity;
}

// ExternalWriter

mp4_status_t ExternalWriter::Init(const wchar_t* pFilePath, uint32_t nBlockSize,
                                  uint32_t nBufferBlocks) {
    if (m_pFunc == nullptr || m_pFunc->init == nullptr) return MP4_STATUS_INVALID_PARAMETER;
    if (!m_pFunc->init(&m_handle, pFilePath, nBlockSize, nBufferBlocks))
        return MP4_STATUS_EXTERNAL_FUNC_FAILED;
    m_status = IO_VALID;
    return MP4_STATUS_SUCCESS;
}

bool ExternalWriter::Uninit() {
    m_status = IO_UNINIT;
    if (m_pFunc == nullptr) return false;
    // Forgotten before the call, so that it is the only one even when it throws.
    const mp4_file_io_func_t& func = *std::exchange(m_pFunc, nullptr);
    func.uninit(std::exchange(m_handle, nullptr));
    return true;
}

uint64_t ExternalWriter::Ftell() {
    return m_pFunc == nullptr ? 0 : m_pFunc->tell(m_handle);
}

void ExternalWriter::Seek(int64_t offset, int origin) {
    if (m_pFunc != nullptr) m_pFunc->seek(m_handle, offset, origin);
}

void ExternalWriter::Flush() {
    if (m_pFunc != nullptr) m_pFunc->flush(m_handle);
}

void ExternalWriter::Read(void* pbBuf, uint32_t cbBuf) {
    if (m_pFunc != nullptr && m_pFunc->read(m_handle, pbBuf, cbBuf) != 1) FailRead(__LINE__);
}

void ExternalWriter::Write(const void* pbBuf, uint32_t cbBuf) {
    if (m_pFunc != nullptr && cbBuf != 0 && m_pFunc->write(m_handle, pbBuf, cbBuf) != 1)
        FailWrite(__LINE__);
}
