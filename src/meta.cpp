#include "meta.h"

using kx_mp4::CountBytes;
using kx_mp4::kBoxHeaderSize;
using kx_mp4::SizeOfChildren;

bool CMp4MetaAtom::SetMetaData(const char* pKey, const char* pData, uint32_t size,
                               mp4_meta_data_type_t type, const char* key_namespace) {
    if (!m_isQtff) return m_ilst.SetMetaData(pKey, pData, size, type);
    if (pKey == nullptr || !CMp4IlstAtom::IsValidItem(pData, size, type)) return false;
    m_hasKeys = true;
    const int index = m_keys.AddKey(pKey, key_namespace);
    return m_ilst.SetMetaData(index, pData, size, type);
}

template <class Out>
void CMp4MetaAtom::PutHead(Out& out) const {
    if (!m_isQtff || m_form == kx_mp4::FileForm::kStrictMp4) out.WriteInt32(0);  // version, flags
    kx_mp4::PutBox(out, "hdlr", [this](auto& handler) {
        handler.WriteInt32(0);
        handler.WriteInt32(0);
        handler.WriteTag(m_isQtff ? "mdta" : "mdir");
        handler.WriteTag("appl");
        handler.WriteInt32(0);
        handler.WriteInt32(0);
        handler.WriteInt8(0);  // empty name
    });
}

template <class F>
void CMp4MetaAtom::ForEachChild(F&& visit) {
    if (m_hasKeys) visit(m_keys);
    visit(m_ilst);
}

void CMp4MetaAtom::Write() {
    WriteContainer("meta", [this] {
        PutHead(*m_pWriter);
        ForEachChild([](auto& child) { child.Write(); });
    });
}

uint32_t CMp4MetaAtom::GetSize() {
    return kBoxHeaderSize + CountBytes([this](auto& out) { PutHead(out); }) +
           SizeOfChildren([this](auto&& visit) { ForEachChild(visit); });
}
