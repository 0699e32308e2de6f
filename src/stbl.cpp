#include "stbl.h"

#include "zv_log.h"

using kx_mp4::FourCC;
using kx_mp4::kBoxHeaderSize;
using kx_mp4::SizeOfChildren;

namespace {
constexpr const char* kSource = "src/stbl";
constexpr FourCC kType = "stbl";
}  // namespace

// CMp4StblAtom

CMp4StblAtom::CMp4StblAtom(IBaseIO* pWriter)
    : CMp4Atom(pWriter),
      m_stts(pWriter),
      m_ctts(pWriter),
      m_stsz(pWriter),
      m_stsc(pWriter),
      m_offsets(pWriter) {}

bool CMp4StblAtom::OnFrame(int64_t nOffset, int32_t nSize, int64_t nPts, int64_t nDts,
                           bool bNewChunk) {
    if (m_fixedHeaderMode) return OnFixedHeaderFrame(nOffset, nSize, nDts);
    // Without reserved room none of these can refuse.
    if (bNewChunk) m_offsets.AddChunk(nOffset);
    m_stsc.AddEntry(bNewChunk);
    m_stsz.AddEntry(nSize);
    m_stts.AddEntry(nDts);
    if (m_compositionOffsets) m_ctts.AddEntry(nPts, nDts);
    return true;
}

bool CMp4StblAtom::OnFixedHeaderFrame(int64_t nOffset, int32_t nSize, int64_t nDts) {
    return m_offsets.AddChunk(nOffset) && m_stsz.AddEntry(nSize) && m_stts.AddEntry(nDts);
}

void CMp4StblAtom::ReserveTables(uint32_t num, uint32_t runs) {
    m_stsz.SetMaxFrame(num);
    m_offsets.SetMaxFrame(num);
    m_stts.SetMaxFrame(runs);
    m_fixedHeaderMode = true;
    m_stsc.SetFixedHeader();
}

void CMp4StblAtom::SetMaxFrameNum(uint32_t num, uint32_t) {
    ReserveTables(num, num);
}

void CMp4StblAtom::Write() {
    WriteContainer(kType, [this] {
        WriteStsd();
        m_stts.Write();
        m_ctts.Write();
        m_stsz.Write();
        m_stsc.Write();
        m_offsets.Write();
        WriteStss();
    });
}

uint32_t CMp4StblAtom::GetSize() {
    return kBoxHeaderSize + m_stts.GetSize() + m_ctts.GetSize() + m_stsz.GetSize() +
           m_stsc.GetSize() + m_offsets.GetSize();
}

void CMp4StblAtom::Update() {
    if (!m_fixedHeaderMode) {
        zv_log_error("logic error", kSource, __LINE__, "Update");
        return;
    }
    m_stsz.Update();
    m_offsets.Update();
    m_stts.Update();
}

// CMp4VideoStblAtom

uint32_t CMp4VideoStblAtom::GetSize() {
    return CMp4StblAtom::GetSize() + m_stsd.GetSize() + m_stss.GetSize();
}

void CMp4VideoStblAtom::SetMaxFrameNum(uint32_t num, uint32_t syncFrameNum) {
    CMp4StblAtom::SetMaxFrameNum(num, syncFrameNum);
    m_syncFrameNum = syncFrameNum;
    m_stss.SetMaxFrameNum(syncFrameNum);
}

void CMp4VideoStblAtom::Update() {
    CMp4StblAtom::Update();
    if (m_syncFrameNum > 0) m_stss.Update();
}

// CMp4TMCDStblAtom

CMp4TMCDStblAtom::CMp4TMCDStblAtom(IBaseIO* pWriter)
    : CMp4Atom(pWriter),
      m_stsd(pWriter),
      m_stsz(pWriter),
      m_stsc(pWriter),
      m_stts(pWriter),
      m_offsets(pWriter) {}

template <class F>
void CMp4TMCDStblAtom::ForEachChild(F&& visit) {
    visit(m_stsd);
    visit(m_stts);
    visit(m_stsc);
    visit(m_stsz);
    visit(m_offsets);
}

void CMp4TMCDStblAtom::Write() {
    WriteContainer(kType, [this] { ForEachChild([](auto& child) { child.Write(); }); });
}

uint32_t CMp4TMCDStblAtom::GetSize() {
    return kBoxHeaderSize + SizeOfChildren([this](auto&& visit) { ForEachChild(visit); });
}

bool CMp4TMCDStblAtom::OnTimeCode(int64_t nOffset, bool bNewChunk) {
    constexpr int32_t kCounterSize = 4;
    // Always the same time: the duration is given when the table is written.
    constexpr int64_t kTime = 1;
    if (m_fixedHeaderMode)
        return m_offsets.AddChunk(nOffset) && m_stsz.AddEntry(kCounterSize) &&
               m_stts.AddEntry(kTime);
    if (bNewChunk) m_offsets.AddChunk(nOffset);
    m_stsc.AddEntry(bNewChunk);
    m_stsz.AddEntry(kCounterSize);
    m_stts.AddEntry(kTime);
    return true;
}

void CMp4TMCDStblAtom::SetMaxFrameNum(uint32_t num, uint32_t) {
    m_stsz.SetMaxFrame(num);
    m_stts.SetMaxFrame(num);
    m_offsets.SetMaxFrame(num);
    m_fixedHeaderMode = true;
    m_stsc.SetFixedHeader();
}

void CMp4TMCDStblAtom::Update(int32_t nDuration) {
    if (!m_fixedHeaderMode) {
        zv_log_error("logic error", kSource, __LINE__, "Update");
        return;
    }
    m_stsz.Update();
    m_offsets.Update();
    m_stts.SetFrameDuration(nDuration);
    m_stts.Update();
}
