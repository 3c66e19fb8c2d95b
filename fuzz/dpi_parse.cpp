// Feeds arbitrary bytes to the DPI packet parser. Beyond not crashing, reading out of bounds
// or leaking, a packet that parses and can be written again must read back as the same tree
// (version 2), or at least reach a fixed point after one rewrite (version 1, whose identifier
// forms the writer normalises).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "snmpmDPI.h"

namespace {

bool same_text(const char* a, const char* b) {
    return (a == nullptr && b == nullptr) || (a != nullptr && b != nullptr && strcmp(a, b) == 0);
}

bool same_bytes(const void* a, const void* b, size_t len) {
    return len == 0 || (a != nullptr && b != nullptr && memcmp(a, b, len) == 0);
}

bool same_varbinds(const dpi_set_packet* a, const dpi_set_packet* b) {
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
        if (!same_text(a->object_id, b->object_id) || !same_text(a->group_id, b->group_id) ||
            !same_text(a->instance_id, b->instance_id) || a->value_type != b->value_type ||
            a->value_len != b->value_len || !same_bytes(a->value, b->value, a->value_len)) {
            return false;
        }
    }
    return a == b;
}

template <typename Rec>
bool same_requests(const Rec* a, const Rec* b) {
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
        if (!same_text(a->object_id, b->object_id) || !same_text(a->group_id, b->group_id) ||
            !same_text(a->instance_id, b->instance_id)) {
            return false;
        }
    }
    return a == b;
}

bool same_body(const dpi_hdr* x, const dpi_hdr* y) {
    switch (x->packet_type) {
        case SNMP_DPI_GET:
            return same_requests(static_cast<const dpi_get_packet*>(x->data),
                                 static_cast<const dpi_get_packet*>(y->data));
        case SNMP_DPI_GETNEXT:
            return same_requests(static_cast<const dpi_next_packet*>(x->data),
                                 static_cast<const dpi_next_packet*>(y->data));
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            return same_varbinds(static_cast<const dpi_set_packet*>(x->data),
                                 static_cast<const dpi_set_packet*>(y->data));
        case SNMP_DPI_TRAP: {
            auto* a = static_cast<const dpi_trap_packet*>(x->data);
            auto* b = static_cast<const dpi_trap_packet*>(y->data);
            return a->generic == b->generic && a->specific == b->specific &&
                   same_text(a->enterprise_id, b->enterprise_id) &&
                   same_varbinds(a->varBinds, b->varBinds);
        }
        case SNMP_DPI_RESPONSE: {
            auto* a = static_cast<const dpi_resp_packet*>(x->data);
            auto* b = static_cast<const dpi_resp_packet*>(y->data);
            return a->error_code == b->error_code && a->error_index == b->error_index &&
                   same_varbinds(a->varBinds, b->varBinds);
        }
        case SNMP_DPI_REGISTER: {
            auto* a = static_cast<const dpi_reg_packet*>(x->data);
            auto* b = static_cast<const dpi_reg_packet*>(y->data);
            for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
                if (a->timeout != b->timeout || a->priority != b->priority ||
                    a->view_selection != b->view_selection ||
                    a->bulk_selection != b->bulk_selection ||
                    !same_text(a->group_id, b->group_id)) {
                    return false;
                }
            }
            return a == b;
        }
        case SNMP_DPI_UNREGISTER: {
            auto* a = static_cast<const dpi_ureg_packet*>(x->data);
            auto* b = static_cast<const dpi_ureg_packet*>(y->data);
            for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
                if (a->reason != b->reason || !same_text(a->group_id, b->group_id)) {
                    return false;
                }
            }
            return a == b;
        }
        case SNMP_DPI_OPEN: {
            auto* a = static_cast<const dpi_open_packet*>(x->data);
            auto* b = static_cast<const dpi_open_packet*>(y->data);
            return a->timeout == b->timeout && a->max_varbinds == b->max_varbinds &&
                   a->character_set == b->character_set && same_text(a->object_id, b->object_id) &&
                   same_text(a->description, b->description) &&
                   a->password_len == b->password_len &&
                   same_bytes(a->password, b->password, a->password_len);
        }
        case SNMP_DPI_CLOSE:
            return static_cast<const dpi_close_packet*>(x->data)->reason ==
                   static_cast<const dpi_close_packet*>(y->data)->reason;
        default:
            return x->data == nullptr && y->data == nullptr;
    }
}

bool same_tree(const dpi_hdr* x, const dpi_hdr* y) {
    return x->protocol == y->protocol && x->version == y->version && x->release == y->release &&
           x->packet_id == y->packet_id && x->packet_type == y->packet_type &&
           x->extra_len == y->extra_len && same_bytes(x->extra, y->extra, x->extra_len) &&
           same_body(x, y);
}

bool has_double_dot(const char* text) {
    return text != nullptr && strstr(text, "..") != nullptr;
}

bool varbinds_have_double_dot(const dpi_set_packet* vb) {
    for (; vb != nullptr; vb = vb->next) {
        if (has_double_dot(vb->group_id) || has_double_dot(vb->object_id)) {
            return true;
        }
    }
    return false;
}

// Version 1 carries an object identifier where version 2 carries group and instance, and
// the writer rebuilds it, dropping the group's final dot when there is no instance. For
// texts with runs of dots that takes one rewrite per dot; and a GETNEXT group without its
// final dot, which the reader accepts, is joined to the instance without a separator by the
// writer; a GETNEXT group of a lone dot becomes an empty object identifier, which the reader
// refuses. Such trees need not survive a rewrite.
bool v1_may_drift(const dpi_hdr* hdr) {
    if (hdr->version != 1) {
        return false;
    }
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            for (auto* r = static_cast<const dpi_get_packet*>(hdr->data); r; r = r->next) {
                if (has_double_dot(r->group_id)) {
                    return true;
                }
            }
            return false;
        case SNMP_DPI_GETNEXT:
            for (auto* r = static_cast<const dpi_next_packet*>(hdr->data); r; r = r->next) {
                size_t len = r->group_id == nullptr ? 0 : strlen(r->group_id);
                bool lone_dot = len == 1 && r->group_id[0] == '.';
                if (has_double_dot(r->group_id) || has_double_dot(r->object_id) ||
                    (r->instance_id != nullptr && len != 0 && r->group_id[len - 1] != '.') ||
                    (r->instance_id == nullptr && lone_dot)) {
                    return true;
                }
            }
            return false;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            return varbinds_have_double_dot(static_cast<const dpi_set_packet*>(hdr->data));
        case SNMP_DPI_TRAP:
            return varbinds_have_double_dot(
                static_cast<const dpi_trap_packet*>(hdr->data)->varBinds);
        case SNMP_DPI_RESPONSE:
            return varbinds_have_double_dot(
                static_cast<const dpi_resp_packet*>(hdr->data)->varBinds);
        default:
            return false;
    }
}

// The serialiser's result lives in a shared static buffer; keep an exact-size copy so that
// the next parse is bounds-checked and the buffer can be reused.
std::vector<unsigned char> take_packet(const unsigned char* packet) {
    return std::vector<unsigned char>(packet, packet + dpi_packet_len(packet));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) {
        return 0;
    }
    // The framing hands the parser a whole packet: make the length field cover no more than
    // the input, but keep a shorter declared length as it came.
    std::vector<unsigned char> input(data, data + size);
    if (dpi_packet_len(input.data()) > size) {
        input[0] = static_cast<unsigned char>((size - 2) >> 8);
        input[1] = static_cast<unsigned char>(size - 2);
    }
    dpi_hdr* first = pDPIpacket(input.data());
    if (first == nullptr) {
        return 0;
    }
    // Answering exercises the response path on whatever was parsed.
    (void)mkDPIresp(first, 0, 0, nullptr);

    unsigned char* written = cDPIpacket(first);
    if (written == nullptr) {
        fDPIparse(first);
        return 0;
    }
    std::vector<unsigned char> once = take_packet(written);
    dpi_hdr* second = pDPIpacket(once.data());
    if (second == nullptr) {
        if (!v1_may_drift(first)) {
            __builtin_trap();  // the library wrote a packet it cannot read
        }
        fDPIparse(first);
        return 0;
    }
    if (first->version == 2 && !same_tree(first, second)) {
        __builtin_trap();
    }
    written = cDPIpacket(second);
    if (first->version == 2 && written == nullptr) {
        __builtin_trap();
    }
    if (written != nullptr && !v1_may_drift(first)) {
        std::vector<unsigned char> twice = take_packet(written);
        if (twice != once) {
            __builtin_trap();
        }
    }
    fDPIparse(second);
    fDPIparse(first);
    return 0;
}
