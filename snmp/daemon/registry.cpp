// The table of registered subtrees, its announcement to the agent, and the dispatch of the
// agent's requests to the registration that answers them.
//
// The agent never holds the same subtree twice, even when the table does: its SMUX code
// crashes when one of two equal registrations is deleted. So every group of equal subtrees
// (they are neighbours in the sorted list) is announced once per session and withdrawn only
// when the last entry of the group leaves. All entries of a group share one `announced`
// value.
#include "registry.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "forward.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"
#include "varnex2.h"

namespace {

constexpr const char* DPI_PORT_INSTANCE = "1.3.6.1.4.1.2.2.1.1.1.0";

constexpr int32_t RREQ_DELETE = 0;
constexpr int32_t RREQ_READ_WRITE = 2;

constexpr int SNMP_NO_SUCH_NAME = 2;
constexpr int SNMP_GEN_ERR = 5;

// A delete RReq made while the agent waits for an answer, kept for after the GetResponse.
struct held_delete {
    snmp_container* subtree;  // owned
    held_delete* next;
};

// Used only to build RReqs; the subtree container in `oid` stays owned by its entry.
smux_pdu pdu;

snmp_container* dpi_port_oid_p = nullptr;

held_delete* held_head = nullptr;
held_delete* held_tail = nullptr;

// Counts removals from the table, so a dispatch walk can tell whether the entry it stands
// on may have been released by a call into the forwarding module.
unsigned removal_count = 0;

}  // namespace

registration_entry* mop_list = nullptr;
int smux_request_active = 0;

static void clear_pdu(int32_t operation) {
    memset(&pdu, 0, sizeof pdu);
    pdu.priority = -1;
    pdu.operation = operation;
}

static bool same_subtree(const registration_entry* a, const registration_entry* b) {
    return a != nullptr && b != nullptr &&
           snmp_compare_oid_subids(a->subtree, b->subtree, 0) == 0;
}

// Equal subtrees are contiguous, so the group of `entry` starts at the first entry of the
// list that equals it.
static registration_entry* group_first(registration_entry* entry) {
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        if (same_subtree(e, entry)) {
            return e;
        }
    }
    return entry;
}

static void mark_group(registration_entry* entry, int announced) {
    for (registration_entry* e = group_first(entry); same_subtree(e, entry); e = e->next) {
        e->announced = announced;
    }
}

static void free_entry(registration_entry* entry) {
    snmp_free_container(entry->subtree);
    free(entry);
}

static void free_held_deletes(void) {
    while (held_head != nullptr) {
        held_delete* h = held_head;
        held_head = h->next;
        snmp_free_container(h->subtree);
        free(h);
    }
    held_tail = nullptr;
}

// Withdraws a subtree whose last entry has left the table; takes the container. While the
// agent waits for a GetResponse it would take the RReq as that answer, so the delete waits.
static void withdraw_subtree(snmp_container* subtree) {
    if (smux_request_active) {
        auto* h = static_cast<held_delete*>(calloc(1, sizeof(held_delete)));
        if (h != nullptr) {
            h->subtree = subtree;
            if (held_tail == nullptr) {
                held_head = h;
            } else {
                held_tail->next = h;
            }
            held_tail = h;
            return;
        }
        // Without memory to hold it, sending now is still better than leaving the subtree
        // with the agent: at worst this one request fails.
    }
    // A failed delete is of no consequence here: the entry goes regardless, and a broken
    // agent connection is noticed by the loop.
    clear_pdu(RREQ_DELETE);
    pdu.oid = subtree;
    (void)SMUXregister(&pdu);
    pdu.oid = nullptr;
    snmp_free_container(subtree);
}

int register_object(char* subtree_text, int fd) {
    VX_TRACE(TRACE_LVL1, "Register object: %s\n", subtree_text);

    size_t len = strlen(subtree_text);
    if (len > 0 && subtree_text[len - 1] == '.') {
        subtree_text[len - 1] = '\0';
    }

    auto* entry = static_cast<registration_entry*>(calloc(1, sizeof(registration_entry)));
    if (entry == nullptr) {
        VX_SAY("Out of memory");
        return -4;
    }
    entry->subtree = snmp_create_oid_container(subtree_text);
    if (entry->subtree == nullptr) {
        VX_SAY("Out of memory");
        free(entry);
        return -4;
    }
    entry->fd = fd;

    registration_entry* prev = nullptr;
    registration_entry* at = mop_list;
    while (at != nullptr && snmp_compare_oid_subids(entry->subtree, at->subtree, 0) > 0) {
        prev = at;
        at = at->next;
    }
    entry->next = at;
    if (prev == nullptr) {
        mop_list = entry;
    } else {
        prev->next = entry;
    }

    // The new entry sits in front of its equals, if any.
    if (same_subtree(entry, at) && at->announced) {
        entry->announced = 1;
        return 0;
    }

    clear_pdu(RREQ_READ_WRITE);
    pdu.oid = entry->subtree;
    int rc = SMUXregister(&pdu);
    VX_RC(rc, "SMUXregister");
    pdu.oid = nullptr;
    if (rc == 0) {
        mark_group(entry, 1);
    }
    return rc;
}

void unregister_fd(int fd) {
    // Only subagents are ever dropped; -1 would take the daemon's own object with it.
    if (fd < 0) {
        return;
    }
    registration_entry* prev = nullptr;
    registration_entry* e = mop_list;
    while (e != nullptr) {
        registration_entry* next = e->next;
        if (e->fd != fd) {
            prev = e;
            e = next;
            continue;
        }
        if (prev == nullptr) {
            mop_list = next;
        } else {
            prev->next = next;
        }
        ++removal_count;
        bool last_holder = !same_subtree(prev, e) && !same_subtree(next, e);
        if (last_holder && e->announced) {
            withdraw_subtree(e->subtree);
            e->subtree = nullptr;
        }
        free_entry(e);
        e = next;
    }
    // del_sa_fd closes a socket that holds a slot; closing it here as well would close the
    // descriptor twice.
    bool in_slot = false;
    for (int slot : sa_fds) {
        in_slot = in_slot || slot == fd;
    }
    if (!in_slot) {
        close(fd);
    }
    del_sa_fd(fd);
}

int register_subtrees(void) {
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        // One RReq per group: the first entry of each group carries it for all.
        if (e->announced) {
            continue;
        }
        clear_pdu(RREQ_READ_WRITE);
        pdu.oid = e->subtree;
        int rc = SMUXregister(&pdu);
        VX_RC(rc, "SMUXregister");
        pdu.oid = nullptr;
        if (rc != 0) {
            return rc;
        }
        mark_group(e, 1);
    }
    return 0;
}

void registry_clear_announced(void) {
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        e->announced = 0;
    }
    // The agent dropped every registration of the old session along with it; a delete sent
    // on the next session would be refused, and a refusal ends that session too.
    free_held_deletes();
}

int registry_send_held_deletes(void) {
    int result = 0;
    while (held_head != nullptr) {
        held_delete* h = held_head;
        held_head = h->next;
        if (result == 0) {
            clear_pdu(RREQ_DELETE);
            pdu.oid = h->subtree;
            result = SMUXregister(&pdu);
            pdu.oid = nullptr;
        }
        snmp_free_container(h->subtree);
        free(h);
    }
    held_tail = nullptr;
    return result;
}

void registry_release(void) {
    while (mop_list != nullptr) {
        registration_entry* e = mop_list;
        mop_list = e->next;
        free_entry(e);
    }
    free_held_deletes();
    snmp_free_container(dpi_port_oid_p);
    dpi_port_oid_p = nullptr;
}

static int do_mib_request(uint8_t type, snmp_varBind* vb) {
    if (dpi_port_oid_p == nullptr) {
        dpi_port_oid_p = snmp_create_oid_container(DPI_PORT_INSTANCE);
        if (dpi_port_oid_p == nullptr) {
            VX_TRACE(TRACE_LVL1, "genErr\n");
            return SNMP_GEN_ERR;
        }
    }
    int32_t c = snmp_compare_oid_subids(vb->name, dpi_port_oid_p, 0);
    bool answer = false;
    if (type == SNMP_PDU_GETNEXT) {
        answer = c < 0 && c != SNMP_ERR_NOT_OID;
    } else if (type == SNMP_PDU_GET) {
        answer = c == 0;
    }
    if (!answer) {
        VX_TRACE(TRACE_LVL2, "noSuchName\n");
        return SNMP_NO_SUCH_NAME;
    }

    snmp_container* name = snmp_copy_container_value(vb->name, dpi_port_oid_p);
    if (name == nullptr) {
        VX_TRACE(TRACE_LVL2, "genErr\n");
        return SNMP_GEN_ERR;
    }
    vb->name = name;
    int32_t port = dpi_port;
    snmp_container* value =
        vb->value != nullptr
            ? snmp_replace_container_value(vb->value, &port, 4, SNMP_TAG_INTEGER, SNMP_HINT_NONE)
            : snmp_create_value_container(&port, 4, SNMP_TAG_INTEGER, SNMP_HINT_NONE);
    if (value == nullptr) {
        VX_TRACE(TRACE_LVL2, "genErr\n");
        return SNMP_GEN_ERR;
    }
    vb->value = value;
    return 0;
}

int process_req(uint8_t type, snmp_varBind* vb) {
    registration_entry* e = mop_list;
    for (; e != nullptr; e = e->next) {
        uint32_t n = e->subtree->length;
        int32_t c = snmp_compare_oid_subids(vb->name, e->subtree, n);
        if (c == 0 || (c == -1 && type == SNMP_PDU_GETNEXT)) {
            break;
        }
    }
    if (e == nullptr) {
        return SNMP_NO_SUCH_NAME;
    }

    int first = 1;
    int rc;
    do {
        if (e->fd == -1) {
            rc = do_mib_request(type, vb);
        } else {
            unsigned removals = removal_count;
            rc = remote_mib_req(type, vb, e, first);
            // A subagent dropped during the exchange takes its entries with it, perhaps
            // this one; the walk cannot go on from a released entry.
            if (removals != removal_count) {
                return rc;
            }
        }
        first = 0;
        e = e->next;
    } while (rc == SNMP_NO_SUCH_NAME && type == SNMP_PDU_GETNEXT && e != nullptr);
    return rc;
}
