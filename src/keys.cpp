#include "keys.h"

int CMp4KeysAtom::AddKey(const char* name, const char* key_namespace) {
    std::string space = key_namespace != nullptr ? key_namespace : "mdta";
    space.resize(kNamespaceSize);
    m_keys.push_back({name, space});
    return static_cast<int>(m_index++);
}
