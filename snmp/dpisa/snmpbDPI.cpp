// DPI 2.0 packets: the record constructors, which validate their texts, and the constructors
// of whole version-2 packets, which build a tree, serialise it and release it again.
#include <cstdlib>
#include <cstring>

#include "dpi_internal.h"
#include "snmpmDPI.h"

using namespace dpim;

// Number for the next version-2 header; wraps from 65535 to 0 by the type's width.
static uint16_t packet_id;

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

// The root check applies the rules on the first two arcs: 0 and 1 allow at most 39 below
// them, 2 anything, above 2 nothing. A final dot is allowed because group texts carry one.
int dpim::oid_is_invalid(const char* text, int root_check) {
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
    *object_id = object_id_of(group, instance);
    return *object_id != nullptr;
}

// Appends `rec` at the end of `chain` (null starts one) and returns the chain's head.
template <typename Record>
static Record* append_record(Record* chain, Record* rec) {
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
    return append_record(chain, rec);
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
    return append_record(chain, vb);
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
    return append_record(chain, rec);
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
    return append_record(chain, rec);
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
    int written = varbinds_written();
    if (packet != nullptr && varBinds != nullptr && written != 0 && indexes_varbinds &&
        error_index > written) {
        packet = nullptr;
    }
    fDPIparse(hdr);
    return packet;
}
