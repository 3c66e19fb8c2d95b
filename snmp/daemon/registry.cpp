// The table of registered subtrees.
#include "registry.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "conn.h"
#include "session.h"
#include "snmp_container.h"
#include "trace.h"

registration_entry* mop_list = nullptr;
unsigned removal_count = 0;

static bool same_subtree(const registration_entry* a, const registration_entry* b) {
    return a != nullptr && b != nullptr && snmp_compare_oid_subids(a->subtree, b->subtree, 0) == 0;
}

static void free_entry(registration_entry* entry) {
    snmp_free_container(entry->subtree);
    free(entry);
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

    if (smux_fd < 0) {
        return -1;  // announced when the next session opens
    }
    session_want(entry->subtree, 1);
    return 0;
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
        // Equal subtrees are neighbours in the sorted list.
        if (!same_subtree(prev, e) && !same_subtree(next, e)) {
            session_want(e->subtree, 0);
        }
        free_entry(e);
        e = next;
    }
    // del_sa_fd closes a socket that holds a slot; closing it here as well would close the
    // descriptor twice.
    if (subagent_conn(fd) == nullptr) {
        close(fd);
    }
    del_sa_fd(fd);
}

void register_subtrees(void) {
    for (registration_entry* e = mop_list; e != nullptr; e = e->next) {
        session_want(e->subtree, 1);
    }
}

void registry_release(void) {
    while (mop_list != nullptr) {
        registration_entry* e = mop_list;
        mop_list = e->next;
        free_entry(e);
    }
}
