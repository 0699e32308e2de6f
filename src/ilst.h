#ifndef KX_MP4_ILST_H
#define KX_MP4_ILST_H

#include <optional>
#include <string>
#include <vector>

#include "Atom.h"
#include "kx_mp4/kx_mp4.h"

/// Metadata Item List, 'ilst' - QuickTime File Format - inside 'meta' - leaf
///
/// | offset | bytes | field of an item                                          |
/// | 0      | 4     | item size                                                 |
/// | 4      | 4     | four-byte tag, or index of the key from 1                 |
/// | 8      | 8     | 'data' header                                             |
/// | 16     | 4     | type: 0 raw, 1 UTF-8, 21 big-endian signed integer        |
/// | 20     | 4     | locale: 0                                                 |
/// | 24     | n     | value, a string without terminator, an integer in 4 bytes |
///
/// The well-known items come first, in the order of their table, then the keyed ones as they came.
class CMp4IlstAtom : public CMp4Atom {
public:
    explicit CMp4IlstAtom(IBaseIO* pWriter);

    /// Sets a well-known item by key name or tag, as text; replaces its value, and clears it for
    /// null data. False when no well-known item has that key.
    bool SetMetaData(const char* key, const char* data);
    /// The same for a value that may be raw bytes: those are read for at most `size`.
    bool SetMetaData(const char* key, const char* data, uint32_t size, mp4_meta_data_type_t type);
    /// Appends a keyed item; false when it is not valid.
    bool SetMetaData(int index, const char* data, uint32_t size, mp4_meta_data_type_t type);

    /// Takes the items of another list in place of its own.
    void CopyItems(const CMp4IlstAtom& from) {
        m_extern_data = from.m_extern_data;
        m_arrMetadata = from.m_arrMetadata;
    }

    /// Whether the data can be kept as this type: not null, an integer at least 4 bytes, a type of
    /// one byte.
    static bool IsValidItem(const char* data, uint32_t size, mp4_meta_data_type_t type);

    void Write() override;
    uint32_t GetSize() override;

    template <class Out>
    void Put(Out& out) const;

private:
    typedef struct _meta_data_t {
        std::string value;
        mp4_meta_data_type_t type;
        int index;
    } meta_data_t;

    typedef struct _META_DATA {
        kx_mp4::FourCC pTag;
        const char* pKey = nullptr;
        std::optional<std::string> pData;
    } META_DATA;
    typedef std::vector<META_DATA> ARR_META_DATA;

    bool SetWellKnown(const char* key, const std::optional<std::string>& value);

    std::vector<meta_data_t> m_extern_data;
    ARR_META_DATA m_arrMetadata;
};

#endif  // KX_MP4_ILST_H
