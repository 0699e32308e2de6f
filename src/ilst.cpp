#include "ilst.h"

#include <cstring>

#include "Log.h"

using kx_mp4::CountBytes;
using kx_mp4::FourCC;
using kx_mp4::kBoxHeaderSize;
using kx_mp4::Low32;
using kx_mp4::PutBoxHeader;

namespace {

constexpr uint32_t kItemHeaderSize = 24;

// The tags that are shown with the copyright sign begin with its single Latin-1 byte.
constexpr FourCC kTitleTag = "\xA9nam";
static_assert(static_cast<unsigned char>(kTitleTag[0]) == 0xA9);

template <class Out, class PutName>
void PutItem(Out& out, PutName&& putName, mp4_meta_data_type_t type, const std::string& value) {
    const auto size = static_cast<uint32_t>(value.size());
    out.WriteInt32(kItemHeaderSize + size);
    putName();
    out.WriteInt32(kItemHeaderSize - kBoxHeaderSize + size);
    out.WriteTag("data");
    out.WriteInt32(static_cast<uint32_t>(type));
    out.WriteInt32(0);
    out.WriteBuf(value.data(), size);
}

/// The caller's native integer as the bytes that are written.
std::string BigEndianInteger(const char* data) {
    int32_t value = 0;
    std::memcpy(&value, data, sizeof value);
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<char>(static_cast<uint32_t>(value) >> shift & 0xFF));
    return bytes;
}

}  // namespace

CMp4IlstAtom::CMp4IlstAtom(IBaseIO* pWriter)
    : CMp4Atom(pWriter),
      m_arrMetadata{
          {kTitleTag, "title", {}},
          {"\xA9"
           "ART",
           "artist",
           {}},
          {"aART", "album_artist", {}},
          {"\xA9wrt", "composer", {}},
          {"\xA9"
           "alb",
           "album",
           {}},
          {"\xA9"
           "day",
           "date",
           {}},
          {"\xA9too", "encoding_tool", {}},
          {"\xA9"
           "cmt",
           "comment",
           {}},
          {"\xA9gen", "genre", {}},
          {"\xA9"
           "cpy",
           "copyright",
           {}},
          {"\xA9grp", "grouping", {}},
          {"\xA9lyr", "lyrics", {}},
          {"desc", "description", {}},
          {"ldes", "synopsis", {}},
          {"tvsh", "show", {}},
          {"tven", "episode_id", {}},
          {"tvnn", "network", {}},
      } {}

bool CMp4IlstAtom::SetMetaData(const char* key, const char* data) {
    if (data == nullptr) return SetWellKnown(key, {});
    return SetWellKnown(key, std::string(data));
}

bool CMp4IlstAtom::SetMetaData(const char* key, const char* data, uint32_t size,
                               mp4_meta_data_type_t type) {
    if (data == nullptr || type == MP4_META_DATA_TYPE_STRING) return SetMetaData(key, data);
    return SetWellKnown(key, std::string(data, strnlen(data, size)));
}

bool CMp4IlstAtom::SetWellKnown(const char* key, const std::optional<std::string>& value) {
    if (key == nullptr) return false;
    bool found = false;
    for (META_DATA& row : m_arrMetadata) {
        const bool isTag = std::strlen(key) == sizeof row.pTag &&
                           std::memcmp(key, row.pTag.data(), sizeof row.pTag) == 0;
        if (!isTag && std::strcmp(key, row.pKey) != 0) continue;
        row.pData = value;
        found = true;
        if (value) return true;
    }
    return found;
}

bool CMp4IlstAtom::IsValidItem(const char* data, uint32_t size, mp4_meta_data_type_t type) {
    const bool fitsRecord = type >= 0 && type <= UINT8_MAX;  // the repair info file's type byte
    const bool complete = type != MP4_META_DATA_TYPE_INT || size >= sizeof(int32_t);
    return data != nullptr && fitsRecord && complete;
}

bool CMp4IlstAtom::SetMetaData(int index, const char* data, uint32_t size,
                               mp4_meta_data_type_t type) {
    if (!IsValidItem(data, size, type)) return false;
    std::string value;
    switch (type) {
        case MP4_META_DATA_TYPE_RAW:
            value.assign(data, size);
            break;
        case MP4_META_DATA_TYPE_INT:
            value = BigEndianInteger(data);
            break;
        case MP4_META_DATA_TYPE_STRING:
            value = data;
            break;
        default:
            value.assign(data, strnlen(data, size));
    }
    m_extern_data.push_back({value, type, index});
    return true;
}

template <class Out>
void CMp4IlstAtom::Put(Out& out) const {
    PutBoxHeader(out, "ilst");
    for (const META_DATA& row : m_arrMetadata) {
        if (!row.pData) continue;
        PutItem(
            out, [&] { out.WriteTag(row.pTag); }, MP4_META_DATA_TYPE_STRING, *row.pData);
    }
    for (const meta_data_t& item : m_extern_data) {
        switch (item.type) {
            case MP4_META_DATA_TYPE_RAW:
            case MP4_META_DATA_TYPE_STRING:
            case MP4_META_DATA_TYPE_INT:
                PutItem(
                    out, [&] { out.WriteInt32(Low32(item.index)); }, item.type, item.value);
                break;
            default:
                kx_mp4::LogError("unknown meta data type:%d", "src/ilst", __LINE__, "Write",
                                 item.type);
        }
    }
}

void CMp4IlstAtom::Write() {
    WriteLeaf(*this);
}

uint32_t CMp4IlstAtom::GetSize() {
    return CountBytes([this](auto& out) { Put(out); });
}
