// DPI 2.0 packets: release of parse trees, the parser, record and packet constructors, the
// serialiser, and the library's debug switch and log call.
#include "snmpmDPI.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// ---- static state ----

// Every serialisation writes here from offset 0; what a constructor returns points into it.
static unsigned char packet_buf[DPI_PACKET_BUF_SIZE];
// Write position in packet_buf while a packet is being serialised.
static size_t packet_len;
// Number for the next version-2 header; wraps from 65535 to 0 by the type's width.
static uint16_t packet_id;
// Records written by the last GET/GETNEXT/SET-family/UNREGISTER body; mkDPIresp checks an
// error index against it.
static int varBind_count;
static int dpi_debug;

static const char dpi_banner[] = "DPI Version 2.0.22, 96Sep30, Compiled " __DATE__ " at " __TIME__;

// ---- text utilities ----

// A heap copy of `text`; `out_len` gets its size including the NUL even when the allocation
// fails, so a reader can still tell how far the text reached.
static char* copy(const char* text, size_t* out_len) {
    if (text == nullptr) {
        *out_len = 0;
        return nullptr;
    }
    size_t len = strlen(text) + 1;
    *out_len = len;
    char* dup = static_cast<char*>(malloc(len));
    if (dup != nullptr) {
        memcpy(dup, text, len);
    }
    return dup;
}

static char* concat(const char* first, const char* second) {
    if (first == nullptr) {
        return nullptr;
    }
    size_t first_len = strlen(first);
    size_t second_len = second == nullptr ? 0 : strlen(second);
    char* joined = static_cast<char*>(malloc(first_len + second_len + 1));
    if (joined == nullptr) {
        return nullptr;
    }
    memcpy(joined, first, first_len);
    if (second_len != 0) {
        memcpy(joined + first_len, second, second_len);
    }
    joined[first_len + second_len] = '\0';
    return joined;
}

static bool ends_with_dot(const char* text) {
    size_t len = strlen(text);
    return len != 0 && text[len - 1] == '.';
}

static void drop_final_dot(char* text) {
    if (text != nullptr && ends_with_dot(text)) {
        text[strlen(text) - 1] = '\0';
    }
}

// An empty instance text means the same as none.
static bool has_instance(const char* instance) {
    return instance != nullptr && instance[0] != '\0';
}

// ---- release ----

template <typename Record>
static void free_identifier_chain(Record* chain) {
    while (chain != nullptr) {
        Record* next = chain->next;
        free(chain->object_id);
        free(chain->group_id);
        free(chain->instance_id);
        free(chain);
        chain = next;
    }
}

static void fDPIget_packet(dpi_get_packet* chain) {
    free_identifier_chain(chain);
}

static void fDPInext_packet(dpi_next_packet* chain) {
    free_identifier_chain(chain);
}

void fDPIset_packet(dpi_set_packet* chain) {
    while (chain != nullptr) {
        dpi_set_packet* next = chain->next;
        free(chain->object_id);
        free(chain->group_id);
        free(chain->instance_id);
        free(chain->value);
        free(chain);
        chain = next;
    }
}

static void fDPIreg_packet(dpi_reg_packet* chain) {
    while (chain != nullptr) {
        dpi_reg_packet* next = chain->next;
        free(chain->group_id);
        free(chain);
        chain = next;
    }
}

static void fDPIureg_packet(dpi_ureg_packet* chain) {
    while (chain != nullptr) {
        dpi_ureg_packet* next = chain->next;
        free(chain->group_id);
        free(chain);
        chain = next;
    }
}

static void fDPItrap_packet(dpi_trap_packet* trap) {
    if (trap == nullptr) {
        return;
    }
    free(trap->enterprise_id);
    fDPIset_packet(trap->varBinds);
    free(trap);
}

static void fDPIresp_packet(dpi_resp_packet* resp) {
    if (resp == nullptr) {
        return;
    }
    fDPIset_packet(resp->varBinds);
    free(resp);
}

static void fDPIopen_packet(dpi_open_packet* open) {
    if (open == nullptr) {
        return;
    }
    free(open->object_id);
    free(open->description);
    free(open->password);
    free(open);
}

static void fDPIclose_packet(dpi_close_packet* close) {
    free(close);
}

void fDPIparse(dpi_hdr* hdr) {
    if (hdr == nullptr) {
        return;
    }
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            fDPIget_packet(static_cast<dpi_get_packet*>(hdr->data));
            break;
        case SNMP_DPI_GETNEXT:
            fDPInext_packet(static_cast<dpi_next_packet*>(hdr->data));
            break;
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            fDPIset_packet(static_cast<dpi_set_packet*>(hdr->data));
            break;
        case SNMP_DPI_TRAP:
            fDPItrap_packet(static_cast<dpi_trap_packet*>(hdr->data));
            break;
        case SNMP_DPI_RESPONSE:
            fDPIresp_packet(static_cast<dpi_resp_packet*>(hdr->data));
            break;
        case SNMP_DPI_REGISTER:
            fDPIreg_packet(static_cast<dpi_reg_packet*>(hdr->data));
            break;
        case SNMP_DPI_UNREGISTER:
            fDPIureg_packet(static_cast<dpi_ureg_packet*>(hdr->data));
            break;
        case SNMP_DPI_OPEN:
            fDPIopen_packet(static_cast<dpi_open_packet*>(hdr->data));
            break;
        case SNMP_DPI_CLOSE:
            fDPIclose_packet(static_cast<dpi_close_packet*>(hdr->data));
            break;
        default:
            // No record type is known for the rest; whatever `data` holds is not ours to free.
            break;
    }
    free(hdr->extra);
    free(hdr);
}

// ---- parsing ----

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
        size_t len = 0;
        *object_id = copy(*group_id, &len);
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
        *object_id = concat(*group_id, *instance_id);
    }
    if (*object_id == nullptr) {
        return false;
    }
    drop_final_dot(*object_id);
    return true;
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

static bool carries_extra(int packet_type) {
    return packet_type == SNMP_DPI_GET || packet_type == SNMP_DPI_GETNEXT ||
           packet_type == SNMP_DPI_SET || packet_type == SNMP_DPI_COMMIT ||
           packet_type == SNMP_DPI_UNDO;
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

// ---- identifier validation ----

// Reads the decimal run at `*text`, saturating well above any value the checks care about.
static unsigned long leading_number(const char** text) {
    unsigned long number = 0;
    while (**text >= '0' && **text <= '9') {
        if (number < 1000000) {
            number = number * 10 + static_cast<unsigned long>(**text - '0');
        }
        ++*text;
    }
    return number;
}

// Non-zero when `text` is not an acceptable dotted-decimal identifier. The root check applies
// the rules on the first two arcs: 0 and 1 allow at most 39 below them, 2 anything, above 2
// nothing. A final dot is allowed because group texts carry one.
static int oid_is_invalid(const char* text, int root_check) {
    if (text == nullptr) {
        return 1;
    }
    if (root_check != 0) {
        const char* p = text;
        unsigned long first = leading_number(&p);
        if (first > 2) {
            return 1;
        }
        if (first < 2) {
            if (*p != '.') {
                return 1;
            }
            ++p;
            if (leading_number(&p) > 39) {
                return 1;
            }
        }
    }
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '.') {
            if (p[1] == '.') {
                return 1;
            }
        } else if (*p < '0' || *p > '9') {
            return 1;
        }
    }
    return 0;
}

static int group_or_instance_invalid(const char* group, const char* instance) {
    if (group == nullptr || oid_is_invalid(group, 1) != 0) {
        return 1;
    }
    if (has_instance(instance) && (oid_is_invalid(instance, 0) != 0 || ends_with_dot(instance))) {
        return 1;
    }
    return 0;
}

// ---- record constructors ----

// The three identifier texts of a request record or varBind; false when out of memory.
static bool fill_identifiers(const char* group, const char* instance, char** group_id,
                             char** instance_id, char** object_id) {
    size_t len = 0;
    *group_id = copy(group, &len);
    if (*group_id == nullptr) {
        return false;
    }
    if (has_instance(instance)) {
        *instance_id = copy(instance, &len);
        if (*instance_id == nullptr) {
            return false;
        }
    }
    *object_id = concat(group, has_instance(instance) ? instance : nullptr);
    if (*object_id == nullptr) {
        return false;
    }
    drop_final_dot(*object_id);
    return true;
}

// GET and GETNEXT records have the same shape: identifiers made from group and instance,
// appended at the end of the caller's chain.
template <typename Record>
static Record* append_identifiers(Record* chain, const char* group, const char* instance,
                                  void (*release)(Record*)) {
    if (group_or_instance_invalid(group, instance) != 0) {
        return nullptr;
    }
    Record* rec = static_cast<Record*>(calloc(1, sizeof *rec));
    if (rec == nullptr) {
        return nullptr;
    }
    if (!fill_identifiers(group, instance, &rec->group_id, &rec->instance_id, &rec->object_id)) {
        release(rec);
        return nullptr;
    }
    if (chain == nullptr) {
        return rec;
    }
    Record* last = chain;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = rec;
    return chain;
}

dpi_get_packet* mkDPIget_packet(dpi_get_packet* chain, const char* group, const char* instance) {
    return append_identifiers(chain, group, instance, fDPIget_packet);
}

dpi_next_packet* mkDPInext_packet(dpi_next_packet* chain, const char* group, const char* instance) {
    return append_identifiers(chain, group, instance, fDPInext_packet);
}

static bool value_type_known(int value_type) {
    switch (value_type) {
        case DPI_TYPE_OCTET_STRING:
        case DPI_TYPE_OBJECT_IDENTIFIER:
        case DPI_TYPE_NULL:
        case DPI_TYPE_IpAddress:
        case DPI_TYPE_DisplayString:
        case DPI_TYPE_BIT_STRING:
        case DPI_TYPE_NsapAddress:
        case DPI_TYPE_Counter64:
        case DPI_TYPE_Opaque:
        case DPI_TYPE_noSuchObject:
        case DPI_TYPE_noSuchInstance:
        case DPI_TYPE_endOfMibView:
        case DPI_TYPE_Integer32:
        case DPI_TYPE_IpAddress_v1:
        case DPI_TYPE_Counter32:
        case DPI_TYPE_Gauge32:
        case DPI_TYPE_TimeTicks:
        case DPI_TYPE_UInteger32:
            return true;
        default:
            return false;
    }
}

dpi_set_packet* mkDPIset_packet(dpi_set_packet* chain, const char* group, const char* instance,
                                int value_type, int value_len, const void* value) {
    if (group_or_instance_invalid(group, instance) != 0 || !value_type_known(value_type) ||
        value_len < 0 || value_len > 65535 || (value_len != 0 && value == nullptr)) {
        return nullptr;
    }
    dpi_set_packet* vb = static_cast<dpi_set_packet*>(calloc(1, sizeof *vb));
    if (vb == nullptr) {
        return nullptr;
    }
    if (!fill_identifiers(group, instance, &vb->group_id, &vb->instance_id, &vb->object_id)) {
        fDPIset_packet(vb);
        return nullptr;
    }
    vb->value_type = static_cast<uint8_t>(value_type);
    vb->value_len = static_cast<uint16_t>(value_len);
    if (value_len != 0) {
        vb->value = static_cast<unsigned char*>(malloc(static_cast<size_t>(value_len)));
        if (vb->value == nullptr) {
            fDPIset_packet(vb);
            return nullptr;
        }
        memcpy(vb->value, value, static_cast<size_t>(value_len));
    }
    if (chain == nullptr) {
        return vb;
    }
    dpi_set_packet* last = chain;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = vb;
    return chain;
}

dpi_reg_packet* mkDPIreg_packet(dpi_reg_packet* chain, uint16_t timeout, int32_t priority,
                                const char* group, uint8_t bulk_selection, uint8_t view_selection) {
    if (group == nullptr) {
        return nullptr;
    }
    dpi_reg_packet* rec = static_cast<dpi_reg_packet*>(calloc(1, sizeof *rec));
    if (rec == nullptr) {
        return nullptr;
    }
    size_t len = 0;
    rec->group_id = copy(group, &len);
    if (rec->group_id == nullptr) {
        free(rec);
        return nullptr;
    }
    rec->timeout = timeout;
    rec->priority = priority;
    rec->bulk_selection = bulk_selection;
    rec->view_selection = view_selection;
    if (chain == nullptr) {
        return rec;
    }
    dpi_reg_packet* last = chain;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = rec;
    return chain;
}

dpi_ureg_packet* mkDPIureg_packet(dpi_ureg_packet* chain, uint8_t reason, const char* group) {
    if (group == nullptr) {
        return nullptr;
    }
    dpi_ureg_packet* rec = static_cast<dpi_ureg_packet*>(calloc(1, sizeof *rec));
    if (rec == nullptr) {
        return nullptr;
    }
    size_t len = 0;
    rec->group_id = copy(group, &len);
    if (rec->group_id == nullptr) {
        free(rec);
        return nullptr;
    }
    rec->reason = reason;
    if (chain == nullptr) {
        return rec;
    }
    dpi_ureg_packet* last = chain;
    while (last->next != nullptr) {
        last = last->next;
    }
    last->next = rec;
    return chain;
}

dpi_hdr* mkDPIhdr_version(int packet_type, int version, int release) {
    bool valid = (version == 1 && (release == 0 || release == 1)) || (version == 2 && release == 0);
    if (!valid) {
        return nullptr;
    }
    dpi_hdr* hdr = static_cast<dpi_hdr*>(calloc(1, sizeof *hdr));
    if (hdr == nullptr) {
        return nullptr;
    }
    hdr->protocol = SNMP_DPI_PROTOCOL;
    hdr->version = static_cast<uint8_t>(version);
    hdr->release = static_cast<uint8_t>(release);
    hdr->packet_type = static_cast<uint8_t>(packet_type);
    if (version == 2) {
        hdr->packet_id = packet_id++;
    }
    return hdr;
}

// ---- serialisation ----

// Result codes of the body writers.
enum {
    DPI_PUT_OK = 0,
    DPI_PUT_BAD_RECORD = -1,
    DPI_PUT_TOO_BIG = -2,
};

// Every write is bounds-checked so that no packet grows past 4095 bytes: the largest length
// field value a peer with a 4096-byte receive buffer can still take whole.
static int put_bytes(const void* bytes, size_t n) {
    if (n > DPI_PACKET_MAX - packet_len) {
        return DPI_PUT_TOO_BIG;
    }
    if (n != 0) {
        memcpy(packet_buf + packet_len, bytes, n);
    }
    packet_len += n;
    return DPI_PUT_OK;
}

static int put_u8(unsigned value) {
    unsigned char byte = static_cast<unsigned char>(value);
    return put_bytes(&byte, 1);
}

static int put_u16(unsigned value) {
    unsigned char bytes[2] = {static_cast<unsigned char>(value >> 8),
                              static_cast<unsigned char>(value)};
    return put_bytes(bytes, 2);
}

static int put_u32(uint32_t value) {
    unsigned char bytes[4] = {
        static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    return put_bytes(bytes, 4);
}

static int put_text(const char* text) {
    return put_bytes(text, strlen(text) + 1);
}

// Writes group and instance as one object identifier text, the version-1 form: the group's
// NUL (and its final dot when no instance follows) is overwritten.
static int put_object_v1(const char* group, const char* instance) {
    int rc = put_text(group);
    if (rc != DPI_PUT_OK) {
        return rc;
    }
    packet_len -= 1;
    if (has_instance(instance)) {
        return put_text(instance);
    }
    if (ends_with_dot(group)) {
        packet_len -= 1;
    }
    return put_u8(0);
}

// Group and instance in the form of the packet's version.
static int put_identifier(int version, const char* group, const char* instance) {
    if (version == 1) {
        return put_object_v1(group, instance);
    }
    int rc = put_text(group);
    if (rc != DPI_PUT_OK) {
        return rc;
    }
    return has_instance(instance) ? put_text(instance) : put_u8(0);
}

static bool value_len_fits_type(int value_type, unsigned len) {
    switch (value_type) {
        case DPI_TYPE_NULL:
        case DPI_TYPE_noSuchObject:
        case DPI_TYPE_noSuchInstance:
        case DPI_TYPE_endOfMibView:
            return len <= 4;
        case DPI_TYPE_IpAddress:
        case DPI_TYPE_Integer32:
        case DPI_TYPE_IpAddress_v1:
        case DPI_TYPE_Counter32:
        case DPI_TYPE_Gauge32:
        case DPI_TYPE_TimeTicks:
        case DPI_TYPE_UInteger32:
            return len == 4;
        case DPI_TYPE_NsapAddress:
            return len == 1 || (len >= 4 && len <= 21);
        case DPI_TYPE_Counter64:
            return len == 8;
        default:
            return true;
    }
}

static bool empty_value_allowed(int value_type) {
    switch (value_type) {
        case DPI_TYPE_OCTET_STRING:
        case DPI_TYPE_NULL:
        case DPI_TYPE_DisplayString:
        case DPI_TYPE_BIT_STRING:
        case DPI_TYPE_Opaque:
        case DPI_TYPE_noSuchObject:
        case DPI_TYPE_noSuchInstance:
        case DPI_TYPE_endOfMibView:
            return true;
        default:
            return false;
    }
}

static int put_value(int version, const dpi_set_packet* vb) {
    if (vb->value_len != 0 && !value_len_fits_type(vb->value_type, vb->value_len)) {
        return DPI_PUT_BAD_RECORD;
    }
    if (vb->value_len == 0 || vb->value == nullptr) {
        if (vb->value_len != 0 || !empty_value_allowed(vb->value_type)) {
            return DPI_PUT_BAD_RECORD;
        }
        unsigned char empty[3] = {vb->value_type, 0, 0};
        return put_bytes(empty, 3);
    }
    int type = vb->value_type;
    if (version == 1 && type == DPI_TYPE_IpAddress) {
        type = DPI_TYPE_IpAddress_v1;
    }
    int rc = put_u8(static_cast<unsigned>(type));
    if (rc == DPI_PUT_OK) {
        rc = put_u16(vb->value_type == DPI_TYPE_Counter64 ? 8u : vb->value_len);
    }
    if (rc != DPI_PUT_OK) {
        return rc;
    }
    switch (vb->value_type) {
        case DPI_TYPE_Integer32:
        case DPI_TYPE_Counter32:
        case DPI_TYPE_Gauge32:
        case DPI_TYPE_TimeTicks:
        case DPI_TYPE_UInteger32: {
            uint32_t number = 0;
            memcpy(&number, vb->value, 4);
            return put_u32(number);
        }
        case DPI_TYPE_Counter64: {
            uint32_t words[2] = {0, 0};
            memcpy(words, vb->value, 8);
            rc = put_u32(words[0]);
            return rc == DPI_PUT_OK ? put_u32(words[1]) : rc;
        }
        case DPI_TYPE_OCTET_STRING:
        case DPI_TYPE_OBJECT_IDENTIFIER:
        case DPI_TYPE_NULL:
        case DPI_TYPE_IpAddress:
        case DPI_TYPE_DisplayString:
        case DPI_TYPE_BIT_STRING:
        case DPI_TYPE_NsapAddress:
        case DPI_TYPE_Opaque:
        case DPI_TYPE_noSuchObject:
        case DPI_TYPE_noSuchInstance:
        case DPI_TYPE_endOfMibView:
        case DPI_TYPE_IpAddress_v1:
            return put_bytes(vb->value, vb->value_len);
        default:
            return DPI_PUT_BAD_RECORD;
    }
}

static int cDPIset(int version, const dpi_set_packet* vb) {
    varBind_count = 0;
    for (; vb != nullptr; vb = vb->next) {
        varBind_count++;
        // A varBind names its group as registered, with the final dot; without it the agent
        // could not tell where the group ends and the instance starts.
        if (vb->group_id == nullptr || !ends_with_dot(vb->group_id)) {
            return DPI_PUT_BAD_RECORD;
        }
        int rc = put_identifier(version, vb->group_id, vb->instance_id);
        if (rc == DPI_PUT_OK) {
            rc = put_value(version, vb);
        }
        if (rc != DPI_PUT_OK) {
            return rc;
        }
    }
    return DPI_PUT_OK;
}

static int cDPIget(int version, const dpi_get_packet* rec) {
    varBind_count = 0;
    for (; rec != nullptr; rec = rec->next) {
        varBind_count++;
        if (rec->group_id == nullptr) {
            return DPI_PUT_BAD_RECORD;
        }
        int rc = put_identifier(version, rec->group_id, rec->instance_id);
        if (rc != DPI_PUT_OK) {
            return rc;
        }
    }
    return DPI_PUT_OK;
}

static int cDPInext(int version, const dpi_next_packet* rec) {
    if (version != 1 && version != 2) {
        return DPI_PUT_BAD_RECORD;
    }
    varBind_count = 0;
    for (; rec != nullptr; rec = rec->next) {
        varBind_count++;
        if (rec->group_id == nullptr) {
            return DPI_PUT_BAD_RECORD;
        }
        int rc = put_identifier(version, rec->group_id, rec->instance_id);
        if (rc == DPI_PUT_OK && version == 1) {
            rc = put_text(rec->group_id);
        }
        if (rc != DPI_PUT_OK) {
            return rc;
        }
    }
    return DPI_PUT_OK;
}

static int cDPItrap(const dpi_hdr* hdr, const dpi_trap_packet* trap) {
    varBind_count = 0;
    if (trap == nullptr) {
        return DPI_PUT_BAD_RECORD;
    }
    int rc = DPI_PUT_OK;
    if (hdr->version == 1 && hdr->release == 0) {
        rc = put_u8(static_cast<uint32_t>(trap->generic) & 0xFF);
        if (rc == DPI_PUT_OK) {
            rc = put_u8(static_cast<uint32_t>(trap->specific) & 0xFF);
        }
    } else if ((hdr->version == 1 && hdr->release == 1) || hdr->version == 2) {
        rc = put_u32(static_cast<uint32_t>(trap->generic));
        if (rc == DPI_PUT_OK) {
            rc = put_u32(static_cast<uint32_t>(trap->specific));
        }
        if (rc == DPI_PUT_OK) {
            rc = trap->enterprise_id != nullptr ? put_text(trap->enterprise_id) : put_u8(0);
        }
    } else {
        return DPI_PUT_BAD_RECORD;
    }
    if (rc == DPI_PUT_OK && trap->varBinds != nullptr) {
        rc = cDPIset(hdr->version, trap->varBinds);
    }
    return rc;
}

static int cDPIresp(const dpi_hdr* hdr, const dpi_resp_packet* resp) {
    varBind_count = 0;
    if (resp == nullptr || (hdr->version != 1 && hdr->version != 2)) {
        return DPI_PUT_BAD_RECORD;
    }
    int rc = put_u8(resp->error_code);
    if (rc == DPI_PUT_OK && hdr->version == 2) {
        rc = put_u32(static_cast<uint32_t>(resp->error_index));
    }
    if (rc == DPI_PUT_OK && resp->varBinds != nullptr) {
        rc = cDPIset(hdr->version, resp->varBinds);
    }
    return rc;
}

static int cDPIreg(int version, const dpi_reg_packet* rec) {
    varBind_count = 0;
    if (version != 1 && version != 2) {
        return DPI_PUT_BAD_RECORD;
    }
    for (; rec != nullptr; rec = rec->next) {
        if (rec->group_id == nullptr || !ends_with_dot(rec->group_id)) {
            return DPI_PUT_BAD_RECORD;
        }
        int rc = DPI_PUT_OK;
        if (version == 2) {
            rc = put_u32(static_cast<uint32_t>(rec->priority));
            if (rc == DPI_PUT_OK) {
                rc = put_u16(rec->timeout);
            }
            if (rc == DPI_PUT_OK) {
                rc = put_u8(rec->view_selection);
            }
            if (rc == DPI_PUT_OK) {
                rc = put_u8(rec->bulk_selection);
            }
        }
        if (rc == DPI_PUT_OK) {
            rc = put_text(rec->group_id);
        }
        if (rc != DPI_PUT_OK) {
            return rc;
        }
    }
    return DPI_PUT_OK;
}

static int cDPIureg(const dpi_ureg_packet* rec) {
    varBind_count = 0;
    for (; rec != nullptr; rec = rec->next) {
        varBind_count++;
        if (rec->group_id == nullptr || !ends_with_dot(rec->group_id)) {
            return DPI_PUT_BAD_RECORD;
        }
        int rc = put_u8(rec->reason);
        if (rc == DPI_PUT_OK) {
            rc = put_text(rec->group_id);
        }
        if (rc != DPI_PUT_OK) {
            return rc;
        }
    }
    return DPI_PUT_OK;
}

static int cDPIopen(const dpi_open_packet* open) {
    if (open == nullptr) {
        return DPI_PUT_OK;  // nothing written: the packet is refused for its missing body
    }
    if (open->object_id == nullptr) {
        return DPI_PUT_BAD_RECORD;
    }
    int rc = put_u16(open->timeout);
    if (rc == DPI_PUT_OK) {
        rc = put_u16(open->max_varbinds);
    }
    if (rc == DPI_PUT_OK) {
        rc = put_u8(open->character_set);
    }
    if (rc == DPI_PUT_OK) {
        rc = put_text(open->object_id);
    }
    if (rc == DPI_PUT_OK) {
        rc = open->description != nullptr ? put_text(open->description) : put_u8(0);
    }
    if (rc != DPI_PUT_OK) {
        return rc;
    }
    if (open->password_len != 0 && open->password != nullptr) {
        rc = put_u16(open->password_len);
        return rc == DPI_PUT_OK ? put_bytes(open->password, open->password_len) : rc;
    }
    return put_u16(0);
}

static int cDPIclose(const dpi_close_packet* close) {
    return close == nullptr ? DPI_PUT_OK : put_u8(close->reason);
}

static int put_body(const dpi_hdr* hdr) {
    switch (hdr->packet_type) {
        case SNMP_DPI_GET:
            return cDPIget(hdr->version, static_cast<const dpi_get_packet*>(hdr->data));
        case SNMP_DPI_GETNEXT:
            return cDPInext(hdr->version, static_cast<const dpi_next_packet*>(hdr->data));
        case SNMP_DPI_SET:
        case SNMP_DPI_COMMIT:
        case SNMP_DPI_UNDO:
            return cDPIset(hdr->version, static_cast<const dpi_set_packet*>(hdr->data));
        case SNMP_DPI_TRAP:
            return cDPItrap(hdr, static_cast<const dpi_trap_packet*>(hdr->data));
        case SNMP_DPI_RESPONSE:
            return cDPIresp(hdr, static_cast<const dpi_resp_packet*>(hdr->data));
        case SNMP_DPI_REGISTER:
            return cDPIreg(hdr->version, static_cast<const dpi_reg_packet*>(hdr->data));
        case SNMP_DPI_UNREGISTER:
            return cDPIureg(static_cast<const dpi_ureg_packet*>(hdr->data));
        case SNMP_DPI_OPEN:
            return cDPIopen(static_cast<const dpi_open_packet*>(hdr->data));
        case SNMP_DPI_CLOSE:
            return cDPIclose(static_cast<const dpi_close_packet*>(hdr->data));
        case SNMP_DPI_ARE_YOU_THERE:
            return DPI_PUT_OK;
        default:
            return DPI_PUT_BAD_RECORD;  // GETBULK, TRAPV2, INFORM and unknown types
    }
}

unsigned char* cDPIpacket(const dpi_hdr* hdr) {
    if (hdr == nullptr) {
        return nullptr;
    }
    packet_buf[2] = hdr->protocol;
    packet_buf[3] = hdr->version;
    packet_buf[4] = hdr->release;
    if (hdr->version > 1) {
        packet_buf[5] = static_cast<unsigned char>(hdr->packet_id >> 8);
        packet_buf[6] = static_cast<unsigned char>(hdr->packet_id);
        packet_buf[7] = hdr->packet_type;
        packet_len = 8;
    } else {
        packet_buf[5] = hdr->packet_type;
        packet_len = 6;
    }
    if (hdr->version > 1 && carries_extra(hdr->packet_type)) {
        int rc = put_u16(hdr->extra_len);
        if (rc == DPI_PUT_OK && hdr->extra_len != 0 && hdr->extra != nullptr) {
            rc = put_bytes(hdr->extra, hdr->extra_len);
        }
        if (rc != DPI_PUT_OK) {
            return nullptr;
        }
    }
    size_t body_start = packet_len;
    if (put_body(hdr) != DPI_PUT_OK) {
        return nullptr;
    }
    // A missing record writes nothing; only ARE_YOU_THERE may be bodiless.
    if (packet_len == body_start && hdr->packet_type != SNMP_DPI_ARE_YOU_THERE) {
        return nullptr;
    }
    size_t length = packet_len - 2;
    packet_buf[0] = static_cast<unsigned char>(length >> 8);
    packet_buf[1] = static_cast<unsigned char>(length);
    return packet_buf;
}

unsigned char* mkDPIpacket(dpi_hdr* hdr) {
    unsigned char* packet = cDPIpacket(hdr);
    fDPIparse(hdr);
    return packet;
}

// ---- packet constructors ----

unsigned char* mkDPIopen(const char* object_id, const char* description, unsigned long timeout,
                         unsigned long max_varbinds, int character_set, unsigned long password_len,
                         const unsigned char* password) {
    if (object_id == nullptr || oid_is_invalid(object_id, 1) != 0 || timeout > 65535 ||
        max_varbinds > 65535 || description == nullptr ||
        strlen(description) > DPI_DESCRIPTION_MAX || password_len > 65535 ||
        (character_set != 0 && character_set != 1)) {
        return nullptr;
    }
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_OPEN, 2, 0);
    if (hdr == nullptr) {
        return nullptr;
    }
    dpi_open_packet* open = static_cast<dpi_open_packet*>(calloc(1, sizeof *open));
    if (open == nullptr) {
        fDPIparse(hdr);
        return nullptr;
    }
    // The record only borrows the caller's texts for the serialisation; they are detached
    // again before the tree is released.
    open->object_id = const_cast<char*>(object_id);
    open->description = const_cast<char*>(description);
    open->password = const_cast<unsigned char*>(password);
    open->timeout = static_cast<uint16_t>(timeout);
    open->max_varbinds = static_cast<uint16_t>(max_varbinds);
    open->character_set = static_cast<uint8_t>(character_set);
    open->password_len = static_cast<uint16_t>(password_len);
    hdr->data = open;
    unsigned char* packet = cDPIpacket(hdr);
    open->object_id = nullptr;
    open->description = nullptr;
    open->password = nullptr;
    fDPIparse(hdr);
    return packet;
}

unsigned char* mkDPIreg(uint16_t timeout, int32_t priority, const char* group, int bulk_selection,
                        int view_selection) {
    if (group == nullptr || oid_is_invalid(group, 1) != 0 ||
        (bulk_selection != 0 && bulk_selection != 1) ||
        (view_selection != 0 && view_selection != 1) || priority < -1) {
        return nullptr;
    }
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_REGISTER, 2, 0);
    if (hdr == nullptr) {
        return nullptr;
    }
    hdr->data =
        mkDPIreg_packet(nullptr, timeout, priority, group, static_cast<uint8_t>(bulk_selection),
                        static_cast<uint8_t>(view_selection));
    return mkDPIpacket(hdr);
}

unsigned char* mkDPIureg(uint8_t reason, const char* group) {
    if (group == nullptr || oid_is_invalid(group, 1) != 0) {
        return nullptr;
    }
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_UNREGISTER, 2, 0);
    if (hdr == nullptr) {
        return nullptr;
    }
    hdr->data = mkDPIureg_packet(nullptr, reason, group);
    return mkDPIpacket(hdr);
}

unsigned char* mkDPIclose(uint8_t reason) {
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_CLOSE, 2, 0);
    if (hdr == nullptr) {
        return nullptr;
    }
    dpi_close_packet* close = static_cast<dpi_close_packet*>(calloc(1, sizeof *close));
    if (close != nullptr) {
        close->reason = reason;
    }
    hdr->data = close;
    return mkDPIpacket(hdr);
}

unsigned char* mkDPIayt(void) {
    return mkDPIpacket(mkDPIhdr_version(SNMP_DPI_ARE_YOU_THERE, 2, 0));
}

unsigned char* mkDPItrape(int32_t generic, int32_t specific, dpi_set_packet* varBinds,
                          const char* enterprise_id) {
    bool valid = generic >= 0 && generic <= DPI_TRAP_enterpriseSpecific &&
                 (generic == DPI_TRAP_enterpriseSpecific || specific == 0);
    if (enterprise_id != nullptr &&
        (oid_is_invalid(enterprise_id, 1) != 0 || ends_with_dot(enterprise_id))) {
        valid = false;
    }
    dpi_hdr* hdr = valid ? mkDPIhdr_version(SNMP_DPI_TRAP, 2, 0) : nullptr;
    dpi_trap_packet* trap =
        hdr != nullptr ? static_cast<dpi_trap_packet*>(calloc(1, sizeof *trap)) : nullptr;
    if (trap == nullptr) {
        fDPIset_packet(varBinds);
        fDPIparse(hdr);
        return nullptr;
    }
    trap->generic = generic;
    trap->specific = specific;
    trap->varBinds = varBinds;
    trap->enterprise_id = const_cast<char*>(enterprise_id);  // borrowed, detached below
    hdr->data = trap;
    unsigned char* packet = cDPIpacket(hdr);
    trap->enterprise_id = nullptr;
    fDPIparse(hdr);
    return packet;
}

unsigned char* mkDPIresp(const dpi_hdr* request, int error_code, int32_t error_index,
                         dpi_set_packet* varBinds) {
    if (request == nullptr || error_code < 0 || error_code > 255 || error_index < 0) {
        fDPIset_packet(varBinds);
        return nullptr;
    }
    dpi_hdr* hdr = mkDPIhdr_version(SNMP_DPI_RESPONSE, 2, 0);
    dpi_resp_packet* resp =
        hdr != nullptr ? static_cast<dpi_resp_packet*>(calloc(1, sizeof *resp)) : nullptr;
    if (resp == nullptr) {
        fDPIset_packet(varBinds);
        fDPIparse(hdr);
        return nullptr;
    }
    // The answer speaks the requester's version and carries its packet number.
    hdr->version = request->version;
    hdr->release = request->release;
    hdr->packet_id = request->packet_id;
    resp->error_code = static_cast<uint8_t>(error_code);
    resp->error_index = error_index;
    resp->varBinds = varBinds;
    hdr->data = resp;
    unsigned char* packet = cDPIpacket(hdr);
    // Only answers to requests that carry varBinds can point into them; the administrative
    // packets are answered without varBinds whatever index is given.
    bool indexes_varbinds =
        request->packet_type < SNMP_DPI_REGISTER ||
        (request->packet_type > SNMP_DPI_CLOSE && request->packet_type != SNMP_DPI_ARE_YOU_THERE);
    if (packet != nullptr && varBinds != nullptr && varBind_count != 0 && indexes_varbinds &&
        error_index > varBind_count) {
        packet = nullptr;
    }
    fDPIparse(hdr);
    return packet;
}

// ---- debug and logging ----

static const char* source_name(void) {
    const char* slash = strrchr(__FILE__, '/');
    return slash != nullptr ? slash + 1 : __FILE__;
}

void dpilog(const char* format, ...) {
    // Fixed-size on purpose: a log call must not allocate; longer messages are cut.
    char text[800];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    printf("%s", text);
}

void DPIdebug(int level) {
    if (level == dpi_debug) {
        return;
    }
    dpilog("DPI Debug turned %s (level %d)\n", level != 0 ? "ON" : "OFF", level);
    if (level != 0) {
        dpilog("DPI Debug code not available\n");
    }
    dpilog("%s - %s\n", source_name(), dpi_banner);
    fflush(stdout);
    dpi_debug = level;
}
