#include "Atom.h"

#include <cstdio>
#include <typeinfo>

#include "Log.h"

using kx_mp4::Low32;

CMp4Atom::CMp4Atom(IBaseIO* pWriter) : m_pWriter(pWriter) {
    m_buffer.Init(pWriter);
}

void CMp4Atom::setWriter(IBaseIO* pWriter) {
    m_pWriter = pWriter;
    m_buffer.SetSink(pWriter);
}

namespace {

/// Writes the size of what lies between `start` and the position, and comes back.
int64_t PatchSize(IBaseIO& stream, int64_t start) {
    const auto end = static_cast<int64_t>(stream.Ftell());
    stream.Seek(start, SEEK_SET);
    stream.WriteInt32(Low32(end - start));
    stream.Seek(end, SEEK_SET);
    return end - start;
}

}  // namespace

void CMp4Atom::UpdateSize(int64_t nStartPos, bool check) {
    const int64_t written = PatchSize(*m_pWriter, nStartPos);
    if (check) CheckSize(written);
}

void CMp4Atom::UpdateBufferSize(int64_t nStartPos) {
    CheckSize(PatchSize(m_buffer, nStartPos));
}

void CMp4Atom::CheckSize(int64_t written) {
    const uint32_t expected = GetSize();
    if (written == int64_t{expected}) return;
    kx_mp4::LogWarn("box %s size expect %u, actual:%lld", "src/Atom", __LINE__, "UpdateSize",
                    typeid(*this).name(), expected, static_cast<long long>(written));
}
