#include "stbl.h"

#include "Log.h"

namespace {
constexpr const char* kSource = "src/stbl";
}  // namespace

// CMp4StblAtom

CMp4StblAtom::CMp4StblAtom(IBaseIO* pWriter)
    : ContainerAtom(pWriter),
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

void CMp4StblAtom::Update() {
    if (!m_fixedHeaderMode) {
        kx_mp4::LogError("logic error", kSource, __LINE__, "Update");
        return;
    }
    m_stsz.Update();
    m_offsets.Update();
    m_stts.Update();
}

// CMp4VideoStblAtom

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
    : ContainerAtom(pWriter),
      m_stsd(pWriter),
      m_stsz(pWriter),
      m_stsc(pWriter),
      m_stts(pWriter),
      m_offsets(pWriter) {}

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
        kx_mp4::LogError("logic error", kSource, __LINE__, "Update");
        return;
    }
    m_stsz.Update();
    m_offsets.Update();
    m_stts.SetFrameDuration(nDuration);
    m_stts.Update();
}
