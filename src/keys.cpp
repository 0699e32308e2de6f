#include "keys.h"

#include <cstring>

std::string_view CMp4KeysAtom::NamespaceOf(const char* key_namespace) {
    if (key_namespace == nullptr) return {};
    return {key_namespace, strnlen(key_namespace, kNamespaceSize)};
}

int CMp4KeysAtom::AddKey(const char* name, const char* key_namespace) {
    std::string space(key_namespace != nullptr ? NamespaceOf(key_namespace) : "mdta");
    space.resize(kNamespaceSize);
    m_keys.push_back({name, space});
    return static_cast<int>(m_index++);
}
