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

extern registration_entry* mop_list;

[[nodiscard]] int register_object(char* subtree_text, int fd);
void unregister_fd(int fd);
[[nodiscard]] int register_subtrees(void);
[[nodiscard]] int process_req(uint8_t type, snmp_varBind* vb);

// The agent connection is gone: nothing is announced on the next session yet.
void registry_clear_announced(void);

// While the agent waits for the answer to a request it takes any PDU other than a Trap as
// that answer, so delete RReqs made meanwhile are held back until the GetResponse is out.
extern int smux_request_active;
[[nodiscard]] int registry_send_held_deletes(void);
