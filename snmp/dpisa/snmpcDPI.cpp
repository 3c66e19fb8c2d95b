// DPI 2.0 packets: the serialiser, from a parse tree to the wire form in the static buffer.
#include <cstring>

#include "dpi_internal.h"
#include "snmpmDPI.h"

using namespace dpim;

// Every serialisation writes here from offset 0; what a constructor returns points into it.
static unsigned char packet_buf[DPI_PACKET_BUF_SIZE];
// Write position in packet_buf while a packet is being serialised.
static size_t packet_len;
// Records written by the last GET/GETNEXT/SET-family/UNREGISTER body; mkDPIresp checks an
// error index against it.
static int varBind_count;

int dpim::varbinds_written(void) {
    return varBind_count;
}

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
