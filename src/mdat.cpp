#include "mdat.h"

#include <cstdio>

#include "Log.h"
#include "free.h"

using kx_mp4::FourCC;
using kx_mp4::kBoxHeaderSize;
using kx_mp4::Low32;
using kx_mp4::PutBoxHeader;

namespace {
constexpr FourCC kType = "mdat";
/// In the 32-bit size field: a 64-bit size follows the type.
constexpr uint32_t kLargeSizeFollows = 1;
}  // namespace

void CMp4MdatAtom::Write() {
    m_nStartPos = WriterPos();
    if (!m_bUse64bitSize) {
        PutBoxHeader(*m_pWriter, kType);
        return;
    }
    m_pWriter->WriteInt32(kLargeSizeFollows);
    m_pWriter->WriteTag(kType);
    m_pWriter->WriteInt64(1);  // placeholder
}

bool CMp4MdatAtom::CanEndAt(int64_t end) const {
    return m_bUse64bitSize || m_freeBoxBefore || end - m_nStartPos <= int64_t{UINT32_MAX};
}

void CMp4MdatAtom::Update() {
    const int64_t end = WriterPos();
    const int64_t size = end - m_nStartPos;
    if (m_bUse64bitSize) {
        m_pWriter->Seek(m_nStartPos + kBoxHeaderSize, SEEK_SET);
        m_pWriter->WriteInt64(static_cast<uint64_t>(size));
    } else {
        m_pWriter->Seek(m_nStartPos, SEEK_SET);
        m_pWriter->WriteInt32(Low32(size));
    }
    kx_mp4::LogInfo("update mdat size to %lld", "src/mdat", __LINE__, "Update",
                    static_cast<long long>(size));
    m_pWriter->Seek(end, SEEK_SET);
}

void CMp4MdatAtom::Finish(const wchar_t*) {
    const int64_t end = WriterPos();
    const int64_t size = end - m_nStartPos;
    if (m_bUse64bitSize) {
        m_pWriter->Seek(m_nStartPos + kBoxHeaderSize, SEEK_SET);
        m_pWriter->WriteInt64(static_cast<uint64_t>(size));
        m_pWriter->Seek(end, SEEK_SET);
    } else if (size > int64_t{UINT32_MAX} && m_freeBoxBefore) {
        // | ftyp | free 8 | mdat 8 | samples ... |   becomes   | ftyp | mdat 16 | samples ... |
        WriteLargeHeader(m_nStartPos - kBoxHeaderSize, size + kBoxHeaderSize);
        m_pWriter->Seek(end, SEEK_SET);
    } else {
        UpdateSize(m_nStartPos, false);
    }
}

void CMp4MdatAtom::WriteLargeHeader(int64_t start, int64_t size) {
    // All 16 bytes in one write, so that no moment shows half of a header.
    FillBuffer([&] {
        m_buffer.WriteInt32(kLargeSizeFollows);
        m_buffer.WriteTag(kType);
        m_buffer.WriteInt64(static_cast<uint64_t>(size));
        m_pWriter->Seek(start, SEEK_SET);
    });
}
