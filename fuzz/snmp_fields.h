#pragma once
// Flattening of decoded SNMP records into bytes, for the codec fuzz targets' round-trip
// checks: two records flatten alike exactly when every field their type uses is equal.
#include <cstdint>
#include <string>

#include "snmp_container.h"
#include "snmp_ed.h"

namespace snmp_fields {

template <typename T>
inline void put(std::string* out, const T& v) {
    out->append(reinterpret_cast<const char*>(&v), sizeof v);
}

inline void put_bytes(std::string* out, const void* p, uint32_t n) {
    put(out, n);
    out->append(static_cast<const char*>(p), n);
}

inline void put_container(std::string* out, const snmp_container* c) {
    if (c == nullptr) {
        out->push_back('-');
        return;
    }
    put(out, c->tag);
    put(out, c->native);
    switch (c->native) {
        case SNMP_NATIVE_OID:
            put_bytes(out, snmp_container_const_subids(c), c->length * 4);
            break;
        case SNMP_NATIVE_OCTETS:
            put_bytes(out, snmp_container_const_octets(c), c->length);
            break;
        case SNMP_NATIVE_U64:
            put(out, c->value.words);
            break;
        default:
            put(out, c->value.u32);
            break;
    }
}

inline void put_varbinds(std::string* out, const snmp_varBind* vbs, uint32_t n) {
    put(out, n);
    for (uint32_t i = 0; i < n; i++) {
        put_container(out, vbs[i].name);
        put_container(out, vbs[i].value);
    }
}

}  // namespace snmp_fields
