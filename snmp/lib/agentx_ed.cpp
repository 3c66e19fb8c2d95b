// AgentX PDU codec. Every field is a fixed-size integer in the header's byte order or a
// length-prefixed item padded to four bytes, so decoding walks one cursor over the payload and
// encoding writes forward, the header's payload length being filled in last.
#include "agentx_ed.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "snmp_container.h"
#include "snmp_ed.h"

namespace {

// What follows the header (and the context, where the type has one).
enum class Body : uint8_t {
    kNone,        // CommitSet, UndoSet, CleanupSet, Ping
    kOpen,        // timeout, id, description
    kClose,       // reason
    kRegister,    // timeout, priority, range_subid, subtree, [upper_bound]
    kUnregister,  // as Register with the timeout octet reserved
    kRanges,      // Get, GetNext
    kBulk,        // non_repeaters, max_repetitions, ranges
    kVarbinds,    // TestSet, Notify, IndexAllocate, IndexDeallocate
    kAddCaps,     // id, description
    kRemoveCaps,  // id
    kResponse     // sysUpTime, error, index, varbinds
};

struct TypeInfo {
    const char* name;
    Body body;
    bool context;  // a context octet string may lead the payload
};

constexpr std::array<TypeInfo, 19> kTypes = {{
    {.name = "unknown", .body = Body::kNone, .context = false},
    {.name = "Open", .body = Body::kOpen, .context = false},
    {.name = "Close", .body = Body::kClose, .context = false},
    {.name = "Register", .body = Body::kRegister, .context = true},
    {.name = "Unregister", .body = Body::kUnregister, .context = true},
    {.name = "Get", .body = Body::kRanges, .context = true},
    {.name = "GetNext", .body = Body::kRanges, .context = true},
    {.name = "GetBulk", .body = Body::kBulk, .context = true},
    {.name = "TestSet", .body = Body::kVarbinds, .context = true},
    {.name = "CommitSet", .body = Body::kNone, .context = false},
    {.name = "UndoSet", .body = Body::kNone, .context = false},
    {.name = "CleanupSet", .body = Body::kNone, .context = false},
    {.name = "Notify", .body = Body::kVarbinds, .context = true},
    {.name = "Ping", .body = Body::kNone, .context = true},
    {.name = "IndexAllocate", .body = Body::kVarbinds, .context = true},
    {.name = "IndexDeallocate", .body = Body::kVarbinds, .context = true},
    {.name = "AddAgentCaps", .body = Body::kAddCaps, .context = true},
    {.name = "RemoveAgentCaps", .body = Body::kRemoveCaps, .context = true},
    {.name = "Response", .body = Body::kResponse, .context = false},
}};
static_assert(kTypes.size() == AGENTX_RESPONSE_PDU + 1);
static_assert(kTypes[AGENTX_GETBULK_PDU].body == Body::kBulk);
static_assert(kTypes[AGENTX_PING_PDU].context && !kTypes[AGENTX_RESPONSE_PDU].context);

// OIDs under 1.3.6.1.X (X 1..255) travel as X in the prefix octet and the rest.
constexpr uint32_t kPrefixLen = 5;
constexpr std::array<uint32_t, 4> kInternet = {1, 3, 6, 1};

// Entries a list grows by first; later it doubles.
constexpr uint32_t kFirstEntries = 8;

struct Reader {
    const uint8_t* p;
    uint32_t remaining;
    bool big;  // network byte order
};

struct Writer {
    uint8_t* p;
    uint32_t room;
};

}  // namespace

// ---- bytes in either order ----

static uint32_t ax_get_u32(const uint8_t* b, bool big) {
    if (big) {
        return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
    }
    return uint32_t{b[3]} << 24 | uint32_t{b[2]} << 16 | uint32_t{b[1]} << 8 | b[0];
}

static void ax_put_u32(uint8_t* b, uint32_t v) {
    b[0] = static_cast<uint8_t>(v >> 24);
    b[1] = static_cast<uint8_t>(v >> 16);
    b[2] = static_cast<uint8_t>(v >> 8);
    b[3] = static_cast<uint8_t>(v);
}

static bool rd_take(Reader* r, uint32_t n, const uint8_t** out) {
    if (n > r->remaining) {
        return false;
    }
    *out = r->p;
    r->p += n;
    r->remaining -= n;
    return true;
}

static bool rd_u16(Reader* r, uint16_t* out) {
    const uint8_t* b = nullptr;
    if (!rd_take(r, 2, &b)) {
        return false;
    }
    *out = static_cast<uint16_t>(r->big ? b[0] << 8 | b[1] : b[1] << 8 | b[0]);
    return true;
}

static bool rd_u32(Reader* r, uint32_t* out) {
    const uint8_t* b = nullptr;
    if (!rd_take(r, 4, &b)) {
        return false;
    }
    *out = ax_get_u32(b, r->big);
    return true;
}

static bool wr_bytes(Writer* w, const void* src, uint32_t n) {
    if (n > w->room) {
        return false;
    }
    if (n != 0) {
        std::memcpy(w->p, src, n);
    }
    w->p += n;
    w->room -= n;
    return true;
}

static bool wr_u32(Writer* w, uint32_t v) {
    uint8_t b[4];
    ax_put_u32(b, v);
    return wr_bytes(w, b, 4);
}

static bool wr_u16(Writer* w, uint16_t v) {
    const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    return wr_bytes(w, b, 2);
}

static bool wr_4(Writer* w, uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t q[4] = {a, b, c, d};
    return wr_bytes(w, q, 4);
}

// ---- arrays of the record ----

// Grows `*array` of `*capacity` entries to at least `n`, zeroing the new ones.
template <typename T>
static int ax_reserve(T** array, uint32_t* capacity, uint32_t n) {
    if (n <= *capacity) {
        return AGENTX_OK;
    }
    if (n > UINT32_MAX / sizeof(T)) {
        return AGENTX_NO_MEMORY;
    }
    auto* grown = static_cast<T*>(std::realloc(*array, size_t{n} * sizeof(T)));
    if (grown == nullptr) {
        return AGENTX_NO_MEMORY;
    }
    std::memset(grown + *capacity, 0, size_t{n - *capacity} * sizeof(T));
    *array = grown;
    *capacity = n;
    return AGENTX_OK;
}

// Room for one entry after `count`, doubling so that a long list costs few reallocations.
template <typename T>
static int ax_grow_for(T** array, uint32_t* capacity, uint32_t count) {
    if (count < *capacity) {
        return AGENTX_OK;
    }
    uint32_t want = *capacity < kFirstEntries ? kFirstEntries : *capacity;
    want = want > UINT32_MAX / 2 ? UINT32_MAX : want * 2;
    return ax_reserve(array, capacity, want);
}

agentx_pdu* agentx_create_pdu(void) {
    return static_cast<agentx_pdu*>(std::calloc(1, sizeof(agentx_pdu)));
}

void agentx_free_pdu(agentx_pdu* pdu) {
    if (pdu == nullptr) {
        return;
    }
    snmp_free_container(pdu->context);
    snmp_free_container(pdu->oid);
    snmp_free_container(pdu->description);
    for (uint32_t i = 0; i < pdu->range_capacity; i++) {
        snmp_free_container(pdu->ranges[i].start);
        snmp_free_container(pdu->ranges[i].end);
    }
    std::free(pdu->ranges);
    snmp_free_varBinds(pdu->varbinds, pdu->varbind_capacity);
    std::free(pdu->varbinds);
    std::free(pdu);
}

int agentx_reserve_ranges(agentx_pdu* pdu, uint32_t n) {
    if (pdu == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    return ax_reserve(&pdu->ranges, &pdu->range_capacity, n);
}

int agentx_reserve_varbinds(agentx_pdu* pdu, uint32_t n) {
    if (pdu == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    return ax_reserve(&pdu->varbinds, &pdu->varbind_capacity, n);
}

int agentx_add_varbind(agentx_pdu* pdu, snmp_container* name, snmp_container* value) {
    if (pdu == nullptr || name == nullptr || value == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    int rc = ax_grow_for(&pdu->varbinds, &pdu->varbind_capacity, pdu->num_varbinds);
    if (rc != AGENTX_OK) {
        return rc;
    }
    snmp_varBind* vb = &pdu->varbinds[pdu->num_varbinds++];
    snmp_free_container(vb->name);
    snmp_free_container(vb->value);
    vb->name = name;
    vb->value = value;
    return AGENTX_OK;
}

const char* agentx_pdu_name(uint8_t type) {
    return kTypes[type < kTypes.size() ? type : 0].name;
}

// ---- decoding ----

// An OID into the container in `*slot` (created when empty, re-purposed otherwise).
static int ax_read_oid(Reader* r, snmp_container** slot, uint8_t* out_include) {
    const uint8_t* head = nullptr;
    if (!rd_take(r, 4, &head)) {
        return AGENTX_MALFORMED;
    }
    uint32_t n = head[0];
    uint8_t prefix = head[1];
    if (n > AGENTX_MAX_SUBIDS || n * 4 > r->remaining) {
        return AGENTX_MALFORMED;
    }
    uint32_t total = n + (prefix != 0 ? kPrefixLen : 0);
    snmp_container* c = *slot == nullptr ? snmp_create_container(SNMP_NATIVE_OID, total)
                                         : snmp_reuse_container(*slot, SNMP_NATIVE_OID, total);
    if (c == nullptr) {
        return AGENTX_NO_MEMORY;
    }
    *slot = c;
    c->tag = SNMP_TAG_OID;
    c->hint = 0;
    uint32_t* subids = snmp_container_subids(c);
    uint32_t i = 0;
    if (prefix != 0) {
        for (uint32_t arc : kInternet) {
            subids[i++] = arc;
        }
        subids[i++] = prefix;
    }
    while (i < total) {
        (void)rd_u32(r, &subids[i++]);  // all n words were checked to be there
    }
    c->length = total;
    if (out_include != nullptr) {
        *out_include = head[2] != 0 ? 1 : 0;
    }
    return AGENTX_OK;
}

// The octets of an octet string, its padding skipped.
static int ax_read_octets(Reader* r, const uint8_t** out, uint32_t* out_len) {
    uint32_t len = 0;
    if (!rd_u32(r, &len)) {
        return AGENTX_MALFORMED;
    }
    uint32_t pad = (4 - len % 4) % 4;
    if (len > r->remaining || pad > r->remaining - len) {
        return AGENTX_MALFORMED;
    }
    *out = r->p;
    *out_len = len;
    r->p += len + pad;
    r->remaining -= len + pad;
    return AGENTX_OK;
}

// `len` bytes at `value` as a value of type `tag` into the container in `*slot`.
static int ax_store(snmp_container** slot, const void* value, uint32_t len, uint8_t tag) {
    snmp_container* c = *slot == nullptr ? snmp_create_value_container(value, len, tag, 0)
                                         : snmp_replace_container_value(*slot, value, len, tag, 0);
    if (c == nullptr) {
        return AGENTX_NO_MEMORY;
    }
    *slot = c;
    return AGENTX_OK;
}

static int ax_read_string(Reader* r, snmp_container** slot) {
    const uint8_t* octets = nullptr;
    uint32_t len = 0;
    int rc = ax_read_octets(r, &octets, &len);
    return rc != AGENTX_OK ? rc : ax_store(slot, octets, len, SNMP_TAG_OCTET_STRING);
}

static int ax_read_varbind(Reader* r, snmp_varBind* vb) {
    uint16_t type = 0;
    uint16_t reserved = 0;
    if (!rd_u16(r, &type) || !rd_u16(r, &reserved)) {
        return AGENTX_MALFORMED;
    }
    int rc = ax_read_oid(r, &vb->name, nullptr);
    if (rc != AGENTX_OK) {
        return rc;
    }
    auto tag = static_cast<uint8_t>(type);
    switch (type) {
        case SNMP_TAG_INTEGER:
        case SNMP_TAG_COUNTER32:
        case SNMP_TAG_GAUGE32:
        case SNMP_TAG_TIMETICKS: {
            uint32_t word = 0;
            return rd_u32(r, &word) ? ax_store(&vb->value, &word, 4, tag) : AGENTX_MALFORMED;
        }
        case SNMP_TAG_COUNTER64: {
            uint32_t a = 0;
            uint32_t b = 0;
            if (!rd_u32(r, &a) || !rd_u32(r, &b)) {
                return AGENTX_MALFORMED;
            }
            // The 64-bit value is in the header's byte order as a whole: little-endian input
            // carries its low word first.
            const uint32_t words[2] = {r->big ? a : b, r->big ? b : a};
            return ax_store(&vb->value, words, 8, tag);
        }
        case SNMP_TAG_OCTET_STRING:
        case SNMP_TAG_OPAQUE:
        case SNMP_TAG_IPADDRESS: {
            const uint8_t* octets = nullptr;
            uint32_t len = 0;
            rc = ax_read_octets(r, &octets, &len);
            if (rc != AGENTX_OK) {
                return rc;
            }
            if (tag == SNMP_TAG_IPADDRESS && len != 4) {
                return AGENTX_MALFORMED;
            }
            return ax_store(&vb->value, octets, len, tag);
        }
        case SNMP_TAG_OID:
            return ax_read_oid(r, &vb->value, nullptr);
        case SNMP_TAG_NULL:
        case SNMP_TAG_NO_SUCH_OBJECT:
        case SNMP_TAG_NO_SUCH_INSTANCE:
        case SNMP_TAG_END_OF_MIB_VIEW:
            return ax_store(&vb->value, nullptr, 0, tag);
        default:
            return AGENTX_MALFORMED;
    }
}

// Varbinds up to the end of the payload.
static int ax_read_varbinds(Reader* r, agentx_pdu* pdu) {
    while (r->remaining != 0) {
        int rc = ax_grow_for(&pdu->varbinds, &pdu->varbind_capacity, pdu->num_varbinds);
        if (rc == AGENTX_OK) {
            rc = ax_read_varbind(r, &pdu->varbinds[pdu->num_varbinds]);
        }
        if (rc != AGENTX_OK) {
            return rc;
        }
        pdu->num_varbinds++;
    }
    return AGENTX_OK;
}

// Search ranges up to the end of the payload. The end's include octet means nothing.
static int ax_read_ranges(Reader* r, agentx_pdu* pdu) {
    while (r->remaining != 0) {
        int rc = ax_grow_for(&pdu->ranges, &pdu->range_capacity, pdu->num_ranges);
        if (rc != AGENTX_OK) {
            return rc;
        }
        agentx_range* range = &pdu->ranges[pdu->num_ranges];
        rc = ax_read_oid(r, &range->start, &range->include);
        if (rc == AGENTX_OK) {
            rc = ax_read_oid(r, &range->end, nullptr);
        }
        if (rc != AGENTX_OK) {
            return rc;
        }
        pdu->num_ranges++;
    }
    return AGENTX_OK;
}

// Register and Unregister: four octets, the subtree, and the upper bound when ranged.
static int ax_read_registration(Reader* r, agentx_pdu* pdu, bool is_register) {
    const uint8_t* head = nullptr;
    if (!rd_take(r, 4, &head)) {
        return AGENTX_MALFORMED;
    }
    pdu->timeout = is_register ? head[0] : 0;
    pdu->priority = head[1];
    pdu->range_subid = head[2];
    int rc = ax_read_oid(r, &pdu->oid, nullptr);
    if (rc != AGENTX_OK) {
        return rc;
    }
    pdu->upper_bound = 0;
    if (pdu->range_subid != 0 && !rd_u32(r, &pdu->upper_bound)) {
        return AGENTX_MALFORMED;
    }
    return AGENTX_OK;
}

static int ax_read_body(Reader* r, Body body, agentx_pdu* pdu) {
    const uint8_t* head = nullptr;
    int rc = AGENTX_OK;
    switch (body) {
        case Body::kNone:
            return AGENTX_OK;
        case Body::kOpen:
            if (!rd_take(r, 4, &head)) {
                return AGENTX_MALFORMED;
            }
            pdu->timeout = head[0];
            rc = ax_read_oid(r, &pdu->oid, nullptr);
            return rc != AGENTX_OK ? rc : ax_read_string(r, &pdu->description);
        case Body::kClose:
            if (!rd_take(r, 4, &head)) {
                return AGENTX_MALFORMED;
            }
            pdu->reason = head[0];
            return AGENTX_OK;
        case Body::kRegister:
        case Body::kUnregister:
            return ax_read_registration(r, pdu, body == Body::kRegister);
        case Body::kBulk:
            if (!rd_u16(r, &pdu->non_repeaters) || !rd_u16(r, &pdu->max_repetitions)) {
                return AGENTX_MALFORMED;
            }
            return ax_read_ranges(r, pdu);
        case Body::kRanges:
            return ax_read_ranges(r, pdu);
        case Body::kVarbinds:
            return ax_read_varbinds(r, pdu);
        case Body::kAddCaps:
            rc = ax_read_oid(r, &pdu->oid, nullptr);
            return rc != AGENTX_OK ? rc : ax_read_string(r, &pdu->description);
        case Body::kRemoveCaps:
            return ax_read_oid(r, &pdu->oid, nullptr);
        case Body::kResponse:
            if (!rd_u32(r, &pdu->sys_uptime) || !rd_u16(r, &pdu->error) ||
                !rd_u16(r, &pdu->error_index)) {
                return AGENTX_MALFORMED;
            }
            return ax_read_varbinds(r, pdu);
    }
    return AGENTX_MALFORMED;
}

int agentx_decode_header(const uint8_t* data, uint32_t len, agentx_header* out) {
    if (data == nullptr || out == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    if (len < AGENTX_HEADER_LEN) {
        return AGENTX_NEED_MORE;
    }
    // Octet 3 is reserved and ignored.
    bool big = (data[2] & AGENTX_FLAG_NETWORK_BYTE_ORDER) != 0;
    out->version = data[0];
    out->type = data[1];
    out->flags = data[2];
    out->session_id = ax_get_u32(data + 4, big);
    out->transaction_id = ax_get_u32(data + 8, big);
    out->packet_id = ax_get_u32(data + 12, big);
    out->payload_len = ax_get_u32(data + 16, big);
    if (out->version != AGENTX_VERSION || out->payload_len % 4 != 0) {
        return AGENTX_MALFORMED;
    }
    return out->payload_len > AGENTX_MAX_PAYLOAD ? AGENTX_TOO_BIG : AGENTX_OK;
}

int agentx_frame_len(const uint8_t* data, uint32_t len, uint32_t* out_len) {
    if (out_len == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    *out_len = 0;
    agentx_header header{};
    int rc = agentx_decode_header(data, len, &header);
    if (rc == AGENTX_NEED_MORE) {
        *out_len = AGENTX_HEADER_LEN;
    }
    if (rc != AGENTX_OK) {
        return rc;
    }
    *out_len = AGENTX_HEADER_LEN + header.payload_len;
    return len < *out_len ? AGENTX_NEED_MORE : AGENTX_OK;
}

int agentx_decode_pdu(const uint8_t* data, uint32_t len, agentx_pdu* pdu) {
    if (pdu == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    int rc = agentx_decode_header(data, len, &pdu->header);
    if (rc != AGENTX_OK) {
        return rc;
    }
    pdu->num_ranges = 0;
    pdu->num_varbinds = 0;
    if (len - AGENTX_HEADER_LEN < pdu->header.payload_len) {
        return AGENTX_NEED_MORE;
    }
    uint8_t type = pdu->header.type;
    if (type == 0 || type >= kTypes.size()) {
        return AGENTX_UNKNOWN_PDU;
    }
    const TypeInfo& info = kTypes[type];
    Reader r{.p = data + AGENTX_HEADER_LEN,
             .remaining = pdu->header.payload_len,
             .big = (pdu->header.flags & AGENTX_FLAG_NETWORK_BYTE_ORDER) != 0};
    if (info.context && (pdu->header.flags & AGENTX_FLAG_NON_DEFAULT_CONTEXT) != 0) {
        rc = ax_read_string(&r, &pdu->context);
        if (rc != AGENTX_OK) {
            return rc;
        }
    }
    rc = ax_read_body(&r, info.body, pdu);
    if (rc != AGENTX_OK) {
        return rc;
    }
    // Fixed layouts must fill the payload exactly; lists run to its end anyway.
    return r.remaining == 0 ? AGENTX_OK : AGENTX_MALFORMED;
}

// ---- encoding ----

static int ax_write_oid(Writer* w, const snmp_container* c, uint8_t include) {
    if (c == nullptr || c->native != SNMP_NATIVE_OID) {
        return AGENTX_BAD_ARGUMENT;
    }
    const uint32_t* subids = snmp_container_const_subids(c);
    uint32_t skip = 0;
    uint8_t prefix = 0;
    if (c->length >= kPrefixLen && subids[0] == kInternet[0] && subids[1] == kInternet[1] &&
        subids[2] == kInternet[2] && subids[3] == kInternet[3] && subids[4] != 0 &&
        subids[4] <= 0xFF) {
        prefix = static_cast<uint8_t>(subids[4]);
        skip = kPrefixLen;
    }
    uint32_t n = c->length - skip;
    if (n > AGENTX_MAX_SUBIDS) {
        return AGENTX_BAD_ARGUMENT;
    }
    if (!wr_4(w, static_cast<uint8_t>(n), prefix, include, 0) || n * 4 > w->room) {
        return AGENTX_NO_ROOM;
    }
    for (uint32_t i = skip; i < c->length; i++) {
        (void)wr_u32(w, subids[i]);  // room checked for all of them
    }
    return AGENTX_OK;
}

static int ax_write_octets(Writer* w, const uint8_t* octets, uint32_t len) {
    static constexpr uint8_t kPad[3] = {0, 0, 0};
    if (!wr_u32(w, len) || !wr_bytes(w, octets, len) || !wr_bytes(w, kPad, (4 - len % 4) % 4)) {
        return AGENTX_NO_ROOM;
    }
    return AGENTX_OK;
}

static int ax_write_string(Writer* w, const snmp_container* c) {
    if (c == nullptr || c->native != SNMP_NATIVE_OCTETS) {
        return AGENTX_BAD_ARGUMENT;
    }
    return ax_write_octets(w, snmp_container_const_octets(c), c->length);
}

static bool ax_is_word(const snmp_container* c) {
    return c->native == SNMP_NATIVE_S32 || c->native == SNMP_NATIVE_U32;
}

static int ax_write_varbind(Writer* w, const snmp_varBind* vb) {
    const snmp_container* v = vb->value;
    if (v == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    if (!wr_u16(w, v->tag) || !wr_u16(w, 0)) {
        return AGENTX_NO_ROOM;
    }
    int rc = ax_write_oid(w, vb->name, 0);
    if (rc != AGENTX_OK) {
        return rc;
    }
    switch (v->tag) {
        case SNMP_TAG_INTEGER:
        case SNMP_TAG_COUNTER32:
        case SNMP_TAG_GAUGE32:
        case SNMP_TAG_TIMETICKS:
            if (!ax_is_word(v)) {
                return AGENTX_BAD_ARGUMENT;
            }
            return wr_u32(w, v->value.u32) ? AGENTX_OK : AGENTX_NO_ROOM;
        case SNMP_TAG_COUNTER64:
            if (v->native != SNMP_NATIVE_U64) {
                return AGENTX_BAD_ARGUMENT;
            }
            return wr_u32(w, v->value.words[0]) && wr_u32(w, v->value.words[1]) ? AGENTX_OK
                                                                                : AGENTX_NO_ROOM;
        case SNMP_TAG_IPADDRESS:
            if (!ax_is_word(v)) {
                return AGENTX_BAD_ARGUMENT;
            }
            return ax_write_octets(w, v->value.octets, 4);
        case SNMP_TAG_OCTET_STRING:
        case SNMP_TAG_OPAQUE:
            return ax_write_string(w, v);
        case SNMP_TAG_OID:
            return ax_write_oid(w, v, 0);
        case SNMP_TAG_NULL:
        case SNMP_TAG_NO_SUCH_OBJECT:
        case SNMP_TAG_NO_SUCH_INSTANCE:
        case SNMP_TAG_END_OF_MIB_VIEW:
            return AGENTX_OK;
        default:
            return AGENTX_BAD_ARGUMENT;
    }
}

static int ax_write_varbinds(Writer* w, const agentx_pdu* pdu) {
    if (pdu->num_varbinds != 0 && pdu->varbinds == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    for (uint32_t i = 0; i < pdu->num_varbinds; i++) {
        int rc = ax_write_varbind(w, &pdu->varbinds[i]);
        if (rc != AGENTX_OK) {
            return rc;
        }
    }
    return AGENTX_OK;
}

static int ax_write_ranges(Writer* w, const agentx_pdu* pdu) {
    if (pdu->num_ranges != 0 && pdu->ranges == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    for (uint32_t i = 0; i < pdu->num_ranges; i++) {
        const agentx_range* range = &pdu->ranges[i];
        int rc = ax_write_oid(w, range->start, range->include != 0 ? 1 : 0);
        if (rc == AGENTX_OK) {
            rc = ax_write_oid(w, range->end, 0);
        }
        if (rc != AGENTX_OK) {
            return rc;
        }
    }
    return AGENTX_OK;
}

static int ax_write_body(Writer* w, Body body, const agentx_pdu* pdu) {
    int rc = AGENTX_OK;
    switch (body) {
        case Body::kNone:
            return AGENTX_OK;
        case Body::kOpen:
            if (!wr_4(w, pdu->timeout, 0, 0, 0)) {
                return AGENTX_NO_ROOM;
            }
            rc = ax_write_oid(w, pdu->oid, 0);
            return rc != AGENTX_OK ? rc : ax_write_string(w, pdu->description);
        case Body::kClose:
            return wr_4(w, pdu->reason, 0, 0, 0) ? AGENTX_OK : AGENTX_NO_ROOM;
        case Body::kRegister:
        case Body::kUnregister: {
            uint8_t timeout = body == Body::kRegister ? pdu->timeout : 0;
            if (!wr_4(w, timeout, pdu->priority, pdu->range_subid, 0)) {
                return AGENTX_NO_ROOM;
            }
            rc = ax_write_oid(w, pdu->oid, 0);
            if (rc != AGENTX_OK || pdu->range_subid == 0) {
                return rc;
            }
            return wr_u32(w, pdu->upper_bound) ? AGENTX_OK : AGENTX_NO_ROOM;
        }
        case Body::kBulk:
            if (!wr_u16(w, pdu->non_repeaters) || !wr_u16(w, pdu->max_repetitions)) {
                return AGENTX_NO_ROOM;
            }
            return ax_write_ranges(w, pdu);
        case Body::kRanges:
            return ax_write_ranges(w, pdu);
        case Body::kVarbinds:
            return ax_write_varbinds(w, pdu);
        case Body::kAddCaps:
            rc = ax_write_oid(w, pdu->oid, 0);
            return rc != AGENTX_OK ? rc : ax_write_string(w, pdu->description);
        case Body::kRemoveCaps:
            return ax_write_oid(w, pdu->oid, 0);
        case Body::kResponse:
            if (!wr_u32(w, pdu->sys_uptime) || !wr_u16(w, pdu->error) ||
                !wr_u16(w, pdu->error_index)) {
                return AGENTX_NO_ROOM;
            }
            return ax_write_varbinds(w, pdu);
    }
    return AGENTX_BAD_ARGUMENT;
}

int agentx_encode_pdu(const agentx_pdu* pdu, uint8_t* buf, uint32_t capacity, uint32_t* out_len) {
    if (pdu == nullptr || buf == nullptr || out_len == nullptr) {
        return AGENTX_BAD_ARGUMENT;
    }
    const agentx_header& h = pdu->header;
    if (h.type == 0 || h.type >= kTypes.size()) {
        return AGENTX_UNKNOWN_PDU;
    }
    if (capacity < AGENTX_HEADER_LEN) {
        return AGENTX_NO_ROOM;
    }
    const TypeInfo& info = kTypes[h.type];
    Writer w{.p = buf + AGENTX_HEADER_LEN, .room = capacity - AGENTX_HEADER_LEN};
    int rc = AGENTX_OK;
    if (info.context && (h.flags & AGENTX_FLAG_NON_DEFAULT_CONTEXT) != 0) {
        rc = ax_write_string(&w, pdu->context);
    }
    if (rc == AGENTX_OK) {
        rc = ax_write_body(&w, info.body, pdu);
    }
    if (rc != AGENTX_OK) {
        return rc;
    }
    auto payload_len = static_cast<uint32_t>(w.p - buf) - AGENTX_HEADER_LEN;
    if (payload_len > AGENTX_MAX_PAYLOAD) {
        return AGENTX_BAD_ARGUMENT;
    }
    buf[0] = AGENTX_VERSION;
    buf[1] = h.type;
    buf[2] = static_cast<uint8_t>(h.flags | AGENTX_FLAG_NETWORK_BYTE_ORDER);
    buf[3] = 0;
    ax_put_u32(buf + 4, h.session_id);
    ax_put_u32(buf + 8, h.transaction_id);
    ax_put_u32(buf + 12, h.packet_id);
    ax_put_u32(buf + 16, payload_len);
    *out_len = AGENTX_HEADER_LEN + payload_len;
    return AGENTX_OK;
}
