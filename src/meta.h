#ifndef KX_MP4_META_H
#define KX_MP4_META_H

#include "Atom.h"
#include "FileForm.h"
#include "ilst.h"
#include "keys.h"
#include "kx_mp4/kx_mp4.h"

/// Metadata Box, 'meta' - ISO/IEC 14496-12, 8.11.1 inside 'udta' (iTunes form), QuickTime File
/// Format inside 'moov' (QuickTime form) - container of 'hdlr', 'keys' and 'ilst'
///
/// | offset | bytes  | iTunes form             | QuickTime form                           |
/// | 8      | 4 / 0  | version and flags 0     | the same, in the strict form of MP4 only |
/// | 12 / 8 | 33     | 'hdlr' of "mdir"        | 'hdlr' of "mdta"                         |
/// | ...    | n      |                         | 'keys'                                   |
/// | ...    | n      | 'ilst' named by tags    | 'ilst' named by indexes                  |
class CMp4MetaAtom : public CMp4Atom {
public:
    explicit CMp4MetaAtom(IBaseIO* pWriter) : CMp4Atom(pWriter), m_ilst(pWriter), m_keys(pWriter) {}

    /// Chooses the form.
    void SetIsQtff(bool isQtff) { m_isQtff = isQtff; }
    void SetForm(kx_mp4::FileForm form) { m_form = form; }

    /// Adds an item; false when this box does not take it. The iTunes form takes well-known keys
    /// and their tags, as text; the QuickTime form takes any key.
    bool SetMetaData(const char* pKey, const char* pData, uint32_t size, mp4_meta_data_type_t type,
                     const char* key_namespace);

    /// Takes the items of another box of the same form in place of its own.
    void CopyItems(const CMp4MetaAtom& from) {
        m_hasKeys = from.m_hasKeys;
        m_ilst.CopyItems(from.m_ilst);
        m_keys.CopyItems(from.m_keys);
    }

    void Write() override;
    uint32_t GetSize() override;

private:
    template <class Out>
    void PutHead(Out& out) const;
    template <class F>
    void ForEachChild(F&& visit);

    bool m_hasKeys = false;
    bool m_isQtff = false;
    kx_mp4::FileForm m_form = kx_mp4::FileForm::kUsual;
    CMp4IlstAtom m_ilst;
    CMp4KeysAtom m_keys;
};

#endif  // KX_MP4_META_H
