#ifndef KX_MP4_KEYS_H
#define KX_MP4_KEYS_H

#include <list>
#include <string>
#include <string_view>

#include "Atom.h"

/// Metadata Item Keys Atom, 'keys' - QuickTime File Format - inside 'meta' - direct
///
/// | offset | bytes | field                                              |
/// | 12     | 4     | entry count                                        |
/// | 16     | ...   | entries: size 4 (8 + name), namespace 4, name      |
class CMp4KeysAtom : public kx_mp4::DirectAtom<CMp4KeysAtom> {
public:
    using DirectAtom::DirectAtom;

    /// What a caller gives as namespace: at most four bytes, fewer where a zero ends them, none for
    /// null. Nothing is read behind them.
    static std::string_view NamespaceOf(const char* key_namespace);
    /// Appends a key and returns its index, from 1. Keys are never merged. `key_namespace` is four
    /// bytes, a shorter one is padded with zeros; null means "mdta".
    int AddKey(const char* name, const char* key_namespace);

    /// Takes the keys of another list in place of its own.
    void CopyItems(const CMp4KeysAtom& from) {
        m_index = from.m_index;
        m_keys = from.m_keys;
    }

    template <class Out>
    void Put(Out& out) const {
        out.WriteInt32(kx_mp4::kBoxHeaderSize);
        out.WriteTag("keys");
        out.WriteInt32(0);
        out.WriteInt32(m_index - 1);
        for (const key_t& key : m_keys) {
            const auto length = static_cast<uint32_t>(key.m_name.size());
            out.WriteInt32(kx_mp4::kBoxHeaderSize + length);
            out.WriteBuf(key.m_namespace.data(), kNamespaceSize);
            out.WriteBuf(key.m_name.data(), length);
        }
    }

private:
    static constexpr uint32_t kNamespaceSize = 4;

    typedef struct _key_t {
        std::string m_name;
        std::string m_namespace;
    } key_t;

    uint32_t m_index = 1;  // that the next key gets
    std::list<key_t> m_keys;
};

#endif  // KX_MP4_KEYS_H
