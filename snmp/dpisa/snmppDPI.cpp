// DPI 2.0 packets: the parser, from the wire form of versions 1.0, 1.1 and 2.0 to a parse tree.
#include <cstdlib>
#include <cstring>

#include "dpi_internal.h"
#include "snmpmDPI.h"

using namespace dpim;

// The unread part of a packet body. Every read checks its size against `left` first, so no
// field, text or value can run past the length the packet declared.
struct dpi_cursor {
    const unsigned char* p;
    size_t left;
};

static uint32_t int_val(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

static int16_t s_int_val(const unsigned char* p) {
    return static_cast<int16_t>(static_cast<uint16_t>(p[0] << 8 | p[1]));
}

static bool take_u8(dpi_cursor* c, uint8_t* out) {
    if (c->left < 1) {
        return false;
    }
    *out = c->p[0];
    c->p += 1;
    c->left -= 1;
    return true;
}

static bool take_u16(dpi_cursor* c, uint16_t* out) {
    if (c->left < 2) {
        return false;
    }
    *out = static_cast<uint16_t>(s_int_val(c->p));
    c->p += 2;
    c->left -= 2;
    return true;
}

static bool take_u32(dpi_cursor* c, uint32_t* out) {
    if (c->left < 4) {
        return false;
    }
    *out = int_val(c->p);
    c->p += 4;
    c->left -= 4;
    return true;
}

// A NUL-terminated text that must end inside the body.
static bool take_text(dpi_cursor* c, char** out) {
    if (c->left == 0 || memchr(c->p, '\0', c->left) == nullptr) {
        return false;
    }
    size_t len = 0;
    *out = copy(reinterpret_cast<const char*>(c->p), &len);
    if (*out == nullptr) {
        return false;
    }
    c->p += len;
    c->left -= len;
    return true;
}

static bool next_is_nul(const dpi_cursor* c) {
    return c->left > 0 && c->p[0] == 0;
}

static void skip(dpi_cursor* c, size_t n) {
    c->p += n;
    c->left -= n;
}

// The identifier part of a GET record or a varBind. Version 1 carries the object identifier
// alone; version 2 a group that may not be empty, then an instance or a lone NUL.
static bool take_identifier(int version, dpi_cursor* c, char** group_id, char** instance_id,
                            char** object_id) {
    if (version == 1) {
        if (!take_text(c, group_id)) {
            return false;
        }
    } else {
        if (c->left == 0 || c->p[0] == 0) {
            return false;
        }
        if (!take_text(c, group_id)) {
            return false;
        }
        if (c->left > 0 && c->p[0] != 0) {
            if (!take_text(c, instance_id)) {
                return false;
            }
        } else if (next_is_nul(c)) {
            skip(c, 1);
        }
    }
    *object_id = object_id_of(*group_id, *instance_id);
    return *object_id != nullptr;
}

// Reads varBinds until the body ends, linking each record before filling it so that a
// failure part-way leaves everything reachable from `*head`.
static bool read_varbinds(int version, dpi_cursor* c, dpi_set_packet** head) {
    dpi_set_packet** tail = head;
    while (c->left > 0) {
        dpi_set_packet* vb = static_cast<dpi_set_packet*>(calloc(1, sizeof *vb));
        if (vb == nullptr) {
            return false;
        }
        *tail = vb;
        tail = &vb->next;
        if (!take_identifier(version, c, &vb->group_id, &vb->instance_id, &vb->object_id)) {
            return false;
        }
        if (c->left < 3) {
            return false;
        }
        vb->value_type = c->p[0];
        int16_t len = s_int_val(c->p + 1);
        skip(c, 3);
        if (len < 0 || static_cast<size_t>(len) > c->left) {
            return false;
        }
        vb->value_len = static_cast<uint16_t>(len);
        // Numbers have one size only; every other type is bytes of any length, also none.
        if ((vb->value_type >= 128 && len != 4) ||
            (vb->value_type == DPI_TYPE_Counter64 && len != 8)) {
            return false;
        }
        if (len == 0) {
            continue;
        }
        vb->value = static_cast<unsigned char*>(malloc(static_cast<size_t>(len)));
        if (vb->value == nullptr) {
            return false;
        }
        if (vb->value_type == DPI_TYPE_IpAddress_v1) {
            memcpy(vb->value, c->p, 4);
        } else if (vb->value_type >= 128) {
            uint32_t number = int_val(c->p);
            memcpy(vb->value, &number, 4);
        } else if (vb->value_type == DPI_TYPE_Counter64) {
            uint32_t words[2] = {int_val(c->p), int_val(c->p + 4)};
            memcpy(vb->value, words, 8);
        } else {
            memcpy(vb->value, c->p, static_cast<size_t>(len));
        }
        skip(c, static_cast<size_t>(len));
    }
    return true;
}

static dpi_set_packet* pDPIset(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_set_packet* head = nullptr;
    if (!read_varbinds(hdr->version, &c, &head)) {
        fDPIset_packet(head);
        return nullptr;
    }
    return head;
}

static bool read_gets(int version, dpi_cursor* c, dpi_get_packet** head) {
    dpi_get_packet** tail = head;
    while (c->left > 0) {
        dpi_get_packet* rec = static_cast<dpi_get_packet*>(calloc(1, sizeof *rec));
        if (rec == nullptr) {
            return false;
        }
        *tail = rec;
        tail = &rec->next;
        if (!take_identifier(version, c, &rec->group_id, &rec->instance_id, &rec->object_id)) {
            return false;
        }
    }
    return true;
}

static dpi_get_packet* pDPIget(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_get_packet* head = nullptr;
    if (!read_gets(hdr->version, &c, &head)) {
        fDPIget_packet(head);
        return nullptr;
    }
    return head;
}

// Version 1 sends the object identifier and then the group it belongs to. Writers differ in
// whether that group keeps its final dot, so the instance starts right after the group when
// the dot is there, and after the group plus one separator when it is not.
static bool read_next_v1(dpi_cursor* c, dpi_next_packet* rec) {
    if (next_is_nul(c) || !take_text(c, &rec->object_id)) {
        return false;
    }
    if (c->left > 0) {
        if (next_is_nul(c) || !take_text(c, &rec->group_id)) {
            return false;
        }
        size_t group_len = strlen(rec->group_id);
        size_t object_len = strlen(rec->object_id);
        if (group_len < object_len) {
            size_t start = ends_with_dot(rec->group_id) ? group_len : group_len + 1;
            if (start < object_len) {
                size_t len = 0;
                rec->instance_id = copy(rec->object_id + start, &len);
                if (rec->instance_id == nullptr) {
                    return false;
                }
            }
        }
    }
    drop_final_dot(rec->object_id);
    return true;
}

static bool read_nexts(int version, dpi_cursor* c, dpi_next_packet** head) {
    dpi_next_packet** tail = head;
    while (c->left > 0) {
        dpi_next_packet* rec = static_cast<dpi_next_packet*>(calloc(1, sizeof *rec));
        if (rec == nullptr) {
            return false;
        }
        *tail = rec;
        tail = &rec->next;
        bool ok = version == 1 ? read_next_v1(c, rec)
                               : take_identifier(version, c, &rec->group_id, &rec->instance_id,
                                                 &rec->object_id);
        if (!ok) {
            return false;
        }
    }
    return true;
}

static dpi_next_packet* pDPInext(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_next_packet* head = nullptr;
    if (!read_nexts(hdr->version, &c, &head)) {
        fDPInext_packet(head);
        return nullptr;
    }
    return head;
}

static bool read_trap(const dpi_hdr* hdr, dpi_cursor* c, dpi_trap_packet* trap) {
    if (hdr->version == 1 && hdr->release == 0) {
        // Version 1.0 has one-byte trap numbers and no enterprise.
        uint8_t generic = 0;
        uint8_t specific = 0;
        if (!take_u8(c, &generic) || !take_u8(c, &specific)) {
            return false;
        }
        trap->generic = generic;
        trap->specific = specific;
    } else if ((hdr->version == 1 && hdr->release == 1) || hdr->version == 2) {
        uint32_t generic = 0;
        uint32_t specific = 0;
        if (!take_u32(c, &generic) || !take_u32(c, &specific)) {
            return false;
        }
        trap->generic = static_cast<int32_t>(generic);
        trap->specific = static_cast<int32_t>(specific);
        if (next_is_nul(c)) {
            skip(c, 1);
        } else if (c->left > 0 && !take_text(c, &trap->enterprise_id)) {
            return false;
        }
    } else {
        return false;
    }
    return c->left == 0 || read_varbinds(hdr->version, c, &trap->varBinds);
}

static dpi_trap_packet* pDPItrap(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_trap_packet* trap = static_cast<dpi_trap_packet*>(calloc(1, sizeof *trap));
    if (trap == nullptr) {
        return nullptr;
    }
    if (!read_trap(hdr, &c, trap)) {
        fDPItrap_packet(trap);
        return nullptr;
    }
    return trap;
}

static dpi_resp_packet* pDPIresp(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_resp_packet* resp = static_cast<dpi_resp_packet*>(calloc(1, sizeof *resp));
    if (resp == nullptr) {
        return nullptr;
    }
    bool ok = take_u8(&c, &resp->error_code);
    if (ok && hdr->version == 2) {
        uint32_t index = 0;
        ok = take_u32(&c, &index);
        resp->error_index = static_cast<int32_t>(index);
    } else if (ok) {
        // Version 1 has no index; an error then concerns the one varBind it carried.
        resp->error_index = resp->error_code != 0 ? 1 : 0;
    }
    if (ok && c.left > 0) {
        ok = read_varbinds(hdr->version, &c, &resp->varBinds);
    }
    if (!ok) {
        fDPIresp_packet(resp);
        return nullptr;
    }
    return resp;
}

static bool read_regs(int version, dpi_cursor* c, dpi_reg_packet** head) {
    dpi_reg_packet** tail = head;
    while (c->left > 0) {
        dpi_reg_packet* rec = static_cast<dpi_reg_packet*>(calloc(1, sizeof *rec));
        if (rec == nullptr) {
            return false;
        }
        *tail = rec;
        tail = &rec->next;
        if (version == 2) {
            uint32_t priority = 0;
            if (!take_u32(c, &priority) || !take_u16(c, &rec->timeout) ||
                !take_u8(c, &rec->view_selection) || !take_u8(c, &rec->bulk_selection)) {
                return false;
            }
            rec->priority = static_cast<int32_t>(priority);
        }
        if (!take_text(c, &rec->group_id)) {
            return false;
        }
    }
    return true;
}

static dpi_reg_packet* pDPIreg(const dpi_hdr* hdr, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_reg_packet* head = nullptr;
    if (!read_regs(hdr->version, &c, &head)) {
        fDPIreg_packet(head);
        return nullptr;
    }
    return head;
}

static bool read_uregs(dpi_cursor* c, dpi_ureg_packet** head) {
    dpi_ureg_packet** tail = head;
    while (c->left > 0) {
        dpi_ureg_packet* rec = static_cast<dpi_ureg_packet*>(calloc(1, sizeof *rec));
        if (rec == nullptr) {
            return false;
        }
        *tail = rec;
        tail = &rec->next;
        if (!take_u8(c, &rec->reason) || !take_text(c, &rec->group_id)) {
            return false;
        }
    }
    return true;
}

static dpi_ureg_packet* pDPIureg(const dpi_hdr*, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_ureg_packet* head = nullptr;
    if (!read_uregs(&c, &head)) {
        fDPIureg_packet(head);
        return nullptr;
    }
    return head;
}

static bool read_open(dpi_cursor* c, dpi_open_packet* open) {
    if (!take_u16(c, &open->timeout) || !take_u16(c, &open->max_varbinds) ||
        !take_u8(c, &open->character_set)) {
        return false;
    }
    if (next_is_nul(c) || !take_text(c, &open->object_id)) {
        return false;
    }
    if (next_is_nul(c) || !take_text(c, &open->description)) {
        return false;
    }
    if (!take_u16(c, &open->password_len)) {
        return false;
    }
    if (open->password_len == 0) {
        return true;
    }
    if (open->password_len > c->left) {
        return false;
    }
    open->password = static_cast<unsigned char*>(malloc(open->password_len));
    if (open->password == nullptr) {
        return false;
    }
    memcpy(open->password, c->p, open->password_len);
    return true;
}

static dpi_open_packet* pDPIopen(const dpi_hdr*, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_open_packet* open = static_cast<dpi_open_packet*>(calloc(1, sizeof *open));
    if (open == nullptr) {
        return nullptr;
    }
    if (!read_open(&c, open)) {
        fDPIopen_packet(open);
        return nullptr;
    }
    return open;
}

static dpi_close_packet* pDPIclose(const dpi_hdr*, dpi_cursor c) {
    if (c.left == 0) {
        return nullptr;
    }
    dpi_close_packet* close = static_cast<dpi_close_packet*>(calloc(1, sizeof *close));
    if (close != nullptr) {
        close->reason = c.p[0];
    }
    return close;
}

// Fills the header fields and returns the header length, or 0 when the header is not one we
// accept or does not fit in the declared length.
static size_t read_header(const unsigned char* packet, size_t total, dpi_hdr* hdr) {
    if (total < 5) {
        return 0;
    }
    hdr->protocol = packet[2];
    hdr->version = packet[3];
    hdr->release = packet[4];
    size_t hdr_len = 0;
    if (hdr->version == 1 && hdr->release <= 1) {
        hdr_len = 6;
        if (total >= hdr_len) {
            hdr->packet_type = packet[5];
        }
    } else if (hdr->version == 2 && hdr->release == 0) {
        hdr_len = 8;
        if (total >= hdr_len) {
            hdr->packet_id = static_cast<uint16_t>(s_int_val(packet + 5));
            hdr->packet_type = packet[7];
        }
    }
    if (hdr_len == 0 || total < hdr_len || hdr->protocol != SNMP_DPI_PROTOCOL) {
        return 0;
    }
    return hdr_len;
}

dpi_hdr* pDPIpacket(const unsigned char* packet) {
    if (packet == nullptr) {
        return nullptr;
    }
    dpi_hdr* hdr = static_cast<dpi_hdr*>(calloc(1, sizeof *hdr));
    if (hdr == nullptr) {
        return nullptr;
    }
    int16_t declared = s_int_val(packet);
    size_t total = declared < 0 ? 0 : static_cast<size_t>(declared) + 2;
    size_t hdr_len = read_header(packet, total, hdr);
    if (hdr_len == 0) {
        free(hdr);
        return nullptr;
    }
    dpi_cursor body = {packet + hdr_len, total - hdr_len};

    if (hdr->version == 2 && carries_extra(hdr->packet_type)) {
        uint16_t extra_len = 0;
        if (!take_u16(&body, &extra_len) || extra_len > body.left) {
            free(hdr);
            return nullptr;
        }
        if (extra_len != 0) {
            hdr->extra = static_cast<unsigned char*>(malloc(extra_len));
            if (hdr->extra == nullptr) {
                free(hdr);
                return nullptr;
            }
            memcpy(hdr->extra, body.p, extra_len);
            hdr->extra_len = extra_len;
            skip(&body, extra_len);
        }
    }

    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            hdr->data = pDPIget(hdr, body);
            break;
        case SNMP_DPI_GETNEXT:
            hdr->data = pDPInext(hdr, body);
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            hdr->data = pDPIset(hdr, body);
            break;
        case SNMP_DPI_TRAP:
            hdr->data = pDPItrap(hdr, body);
            break;
        case SNMP_DPI_RESPONSE:
            hdr->data = pDPIresp(hdr, body);
            break;
        case SNMP_DPI_REGISTER:
            hdr->data = pDPIreg(hdr, body);
            break;
        case SNMP_DPI_UNREGISTER:
            hdr->data = pDPIureg(hdr, body);
            break;
        case SNMP_DPI_OPEN:
            hdr->data = pDPIopen(hdr, body);
            break;
        case SNMP_DPI_CLOSE:
            hdr->data = pDPIclose(hdr, body);
            break;
        case SNMP_DPI_ARE_YOU_THERE:
            return hdr;  // no body; anything after the header is ignored
        default:
            break;  // GETBULK, TRAPV2, INFORM and unknown types are refused
    }
    if (hdr->data == nullptr) {
        fDPIparse(hdr);
        return nullptr;
    }
    return hdr;
}
