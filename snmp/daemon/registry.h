#pragma once
// The table of registered subtrees. What the agent is told of it is the session's business:
// the table declares each subtree it holds, and withdraws one when its last holder leaves.

struct snmp_container;

struct registration_entry {
    snmp_container* subtree;  // owned; no trailing dot
    int fd;                   // subagent socket; -1 for the daemon's own DPI port object
    registration_entry* next;
};

// Sorted by OID, a subtree before the longer OIDs inside it; among equal subtrees the newest
// registration comes first. Entries and their containers belong to the list.
extern registration_entry* mop_list;

// Adds `subtree_text` (dotted OID; one trailing dot is cut off in place) for socket `fd`
// (-1: the daemon's own DPI port object) and asks the session to have the agent hold it.
// 0 on success; -4 for no memory or text that is not an OID (nothing added); -1 when there
// is no agent connection to announce it on (the entry stays, for the next session).
[[nodiscard]] int register_object(char* subtree_text, int fd);
// Removes every entry of subagent socket `fd`, withdraws the subtrees nobody else holds,
// closes the socket and frees its slot. Does nothing for a negative `fd`.
void unregister_fd(int fd);
// Declares every subtree of the table to a newly opened session, in list order.
void register_subtrees(void);
// Counts removals from the table, so a caller walking it across a call that may drop a
// subagent can tell whether the entry it stands on may be gone.
extern unsigned removal_count;

// Releases every entry without telling the agent anything: for the end of the process.
void registry_release(void);
