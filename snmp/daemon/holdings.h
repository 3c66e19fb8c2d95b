#pragma once
// What the master agent holds for the daemon, per distinct subtree, whichever protocol
// announces it (SMUX RReqs or AgentX Registers).
//
// The registration table says what it wants held through session_want; the session module
// of the protocol in use sends the requests that make the master hold or drop a subtree and
// reports their outcome here. Kept apart from the table, so that a subtree is announced once
// however many subagents register it (SMUX's master crashes when one of two equal
// registrations is deleted; AgentX's refuses the second as a duplicate), a withdrawal goes
// only for what the master holds, and a subtree added and withdrawn before its request went
// out costs nothing.
#include <cstdint>

struct snmp_container;

// One distinct subtree, as the master holds it or is to hold it.
struct held_subtree {
    snmp_container* oid;  // owned
    int wanted;           // some registration in the table holds it
    int at_agent;         // the master accepted an add and no withdrawal since
    int in_flight;        // a request for it is unanswered
    int flight_add;       // that request adds it (else withdraws it)
    uint64_t flight_id;   // which request: SMUX the order sent, AgentX the packet id
    int refused;          // the master refused to add it; not offered again while wanted
    int64_t pending_since;  // when it last came to need a request
    held_subtree* next;
};

// In the order subtrees were first wanted.
extern held_subtree* held_subtrees;

// The registration table wants `subtree` held by the master (non-zero) or no longer. The
// request, if one is needed, goes out when the session module flushes. The container stays
// the caller's.
void session_want(const snmp_container* subtree, int wanted);

// A session has just been opened: nothing is held at the master yet.
void held_opened(void);
// The master connection is gone, and with it everything the master held for the daemon.
// What was refused stays refused; everything else is forgotten until the table declares
// it again.
void held_lost(void);
// Whether a session is open (between held_opened and held_lost).
[[nodiscard]] int held_session_open(void);

// Whether `s` needs a request now: the master's holding differs from the wish, nothing is
// in flight for it and it was not refused.
[[nodiscard]] bool held_needs_request(const held_subtree* s);
// A request for `s` went out as request `id`; it adds `s` when `s` is wanted.
void held_sent(held_subtree* s, uint64_t id);
// The master answered the request in flight for `s`. A refused add marks `s` refused; a
// refused withdrawal leaves the master holding nothing. `s` may be released: do not use it
// afterwards.
void held_answered(held_subtree* s, bool accepted);
// The request in flight for `s` will never be answered; it is to be sent again. `s` may
// be released.
void held_unanswered(held_subtree* s);
// The subtree whose request `id` is in flight, or the oldest one in flight; null if none.
[[nodiscard]] held_subtree* held_in_flight(uint64_t id);
[[nodiscard]] held_subtree* held_oldest_in_flight(void);
// Dotted text of the subtree for a trace line; released with free(), may be null.
[[nodiscard]] char* held_text(const held_subtree* s);

// Releases the whole record: for the end of the process.
void held_release(void);
