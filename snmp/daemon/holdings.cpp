// What the master agent holds for the daemon, per distinct subtree.
#include "holdings.h"

#include <cstdlib>

#include "conn.h"
#include "snmp_container.h"
#include "trace.h"

held_subtree* held_subtrees = nullptr;

namespace {

int session_open = 0;

// Entries nobody wants and the master does not hold are of no more use; a refusal is kept
// while the subtree is wanted.
void collect(held_subtree* s) {
    if (s->in_flight || s->wanted || s->at_agent) {
        return;
    }
    for (held_subtree** p = &held_subtrees; *p != nullptr; p = &(*p)->next) {
        if (*p == s) {
            *p = s->next;
            snmp_free_container(s->oid);
            free(s);
            return;
        }
    }
}

void note_pending(held_subtree* s) {
    if (held_needs_request(s)) {
        s->pending_since = vx_now_ns();
    }
}

}  // namespace

bool held_needs_request(const held_subtree* s) {
    return !s->in_flight && !s->refused && s->wanted != s->at_agent;
}

void session_want(const snmp_container* subtree, int wanted) {
    held_subtree* s = held_subtrees;
    held_subtree* last = nullptr;
    for (; s != nullptr; last = s, s = s->next) {
        if (snmp_compare_oid_subids(s->oid, subtree, 0) == 0) {
            break;
        }
    }
    if (s == nullptr) {
        if (!wanted) {
            return;
        }
        s = static_cast<held_subtree*>(calloc(1, sizeof(held_subtree)));
        if (s == nullptr || (s->oid = snmp_copy_container_value(nullptr, subtree)) == nullptr) {
            free(s);
            VX_SAY("Out of memory\n");
            return;
        }
        if (last == nullptr) {
            held_subtrees = s;
        } else {
            last->next = s;
        }
    }
    s->wanted = wanted != 0;
    if (!s->wanted) {
        s->refused = 0;  // offered again if somebody registers it anew
    }
    note_pending(s);
    collect(s);
}

void held_opened(void) {
    session_open = 1;
}

void held_lost(void) {
    session_open = 0;
    held_subtree* s = held_subtrees;
    while (s != nullptr) {
        held_subtree* next = s->next;
        s->in_flight = 0;
        s->at_agent = 0;
        if (!s->refused) {
            // The registration table declares again what it holds when the next session
            // opens, in its own order.
            s->wanted = 0;
        }
        collect(s);
        s = next;
    }
}

int held_session_open(void) {
    return session_open;
}

void held_sent(held_subtree* s, uint64_t id) {
    s->in_flight = 1;
    s->flight_add = s->wanted;
    s->flight_id = id;
}

void held_answered(held_subtree* s, bool accepted) {
    s->in_flight = 0;
    if (!accepted) {
        s->at_agent = 0;
        if (s->flight_add) {
            s->refused = 1;
        }
    } else {
        s->at_agent = s->flight_add;
    }
    note_pending(s);
    collect(s);
}

void held_unanswered(held_subtree* s) {
    s->in_flight = 0;
    note_pending(s);
    collect(s);
}

held_subtree* held_in_flight(uint64_t id) {
    for (held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (s->in_flight && s->flight_id == id) {
            return s;
        }
    }
    return nullptr;
}

held_subtree* held_oldest_in_flight(void) {
    held_subtree* oldest = nullptr;
    for (held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (s->in_flight && (oldest == nullptr || s->flight_id < oldest->flight_id)) {
            oldest = s;
        }
    }
    return oldest;
}

char* held_text(const held_subtree* s) {
    return snmp_oid_to_string(s->oid);
}

void held_release(void) {
    while (held_subtrees != nullptr) {
        held_subtree* s = held_subtrees;
        held_subtrees = s->next;
        snmp_free_container(s->oid);
        free(s);
    }
    session_open = 0;
}
