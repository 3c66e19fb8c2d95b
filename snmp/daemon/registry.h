#pragma once
// The table of registered subtrees and the dispatch of the agent's requests to them.
#include <cstdint>

struct snmp_container;
struct snmp_varBind;

struct registration_entry {
    snmp_container* subtree;  // owned; no trailing dot
    int fd;                   // subagent socket; -1 for the daemon's own DPI port object
    int announced;            // RReq sent for this subtree on the present SMUX session
    registration_entry* next;
};

// Sorted by OID, a subtree before the longer OIDs inside it; among equal subtrees the newest
// registration comes first. Entries and their containers belong to the list.
extern registration_entry* mop_list;

// Adds `subtree_text` (dotted OID; one trailing dot is cut off in place) for socket `fd`
// (-1: the daemon's own DPI port object) and announces it to the agent unless an equal
// subtree is announced already. 0 on success; -4 for no memory or text that is not an OID
// (nothing added); otherwise the failure of SMUXregister (the entry stays, unannounced).
[[nodiscard]] int register_object(char* subtree_text, int fd);
// Removes every entry of subagent socket `fd`, withdraws the subtrees nobody else holds,
// closes the socket and frees its slot. Does nothing for a negative `fd`.
void unregister_fd(int fd);
// Announces every subtree not yet announced on this session, once per group of equal
// subtrees, in list order. 0, or the first failure of SMUXregister (the rest unannounced).
[[nodiscard]] int register_subtrees(void);
// Answers one varBind of a Get (0xA0), GetNext (0xA1) or Set (0xA3) in place, by the daemon's
// own object or the owning subagent. Returns an SNMPv1 error status: 0, 2 noSuchName when no
// registration answers, or whatever forwarding reported.
[[nodiscard]] int process_req(uint8_t type, snmp_varBind* vb);

// Releases every entry, the held deletes and the port object's OID, without telling the
// agent anything: for the end of the process.
void registry_release(void);

// The agent connection is gone: nothing is announced on the next session yet.
void registry_clear_announced(void);

// While the agent waits for the answer to a request it takes any PDU other than a Trap as
// that answer, so delete RReqs made meanwhile are held back until the GetResponse is out.
// Set while a request of the agent is being answered; unregister_fd then queues its deletes.
extern int smux_request_active;
// Sends the queued deletes in the order they were made. 0, or the first failure of
// SMUXregister (the remaining ones are dropped: the session is ending anyway). The queue is
// also emptied by registry_clear_announced().
[[nodiscard]] int registry_send_held_deletes(void);
