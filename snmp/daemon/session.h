#pragma once
// The SMUX session with the master agent: the open, writing PDUs, and the registrations the
// agent holds for the daemon.
//
// The agent, while it waits for the answer to one of its requests, takes the first PDU it
// reads other than a Trap as that answer. An RReq read that way fails the request and is
// never processed, and the real answer arriving later ends the session. So RReqs are never
// sent while a request is being answered, only when the agent connection has been quiet for
// a while, and every RReq sent stays on record until its RRsp (they come back in order). A
// request that arrives while an RReq is unanswered proves that the agent took that RReq as
// the answer to the request: the request is left unanswered and the RReq is sent again.
//
// What the agent holds, per distinct subtree, is the neutral record of holdings.h.
#include <cstdint>

#include "holdings.h"

struct smux_pdu;
struct snmp_container;

extern const char* myname;
extern char* myoid;  // identity OID as dotted text from the peers file, null until read
extern char* mypw;   // SMUX password from the peers file; wiped after every open
extern const char varnex2_banner[];

// Looks `name` up in the peers file, taking the identity OID and password of its line into
// `myoid` and `mypw` (kept as they were when no line names it); the number of lines read.
// The AgentX session takes its identity from here too.
[[nodiscard]] int read_peers_file(const char* name);
// Overwrites the password in memory.
void wipe_password(void);
// Reads the peers file and sends the OpenPDU. 0, -1 when no identity can be made or the
// password is too long, the encoder's failure, or SMUXsend's.
[[nodiscard]] int SMUXopen(const char* name);
// One write of a whole encoded PDU to the agent. 0 or -1.
[[nodiscard]] int SMUXsend(const unsigned char* buf, int len);
// Encodes `record` as an RReqPDU and sends it at once. 0, the encoder's failure or -1.
[[nodiscard]] int SMUXregister(smux_pdu* record);
// Sends a ClosePDU with `reason` as the last PDU of the session (best effort).
void SMUXclose(int32_t reason);

// ---- registrations at the agent ----

// A session has just been opened: nothing is held at the agent yet.
void session_opened(void);
// The agent connection is gone, and with it everything the agent held for the daemon.
void session_lost(void);
// Something was read from or written to the agent: the connection is not quiet.
void session_activity(int64_t now_ns);
// Sends the RReqs that are due at `now_ns`. 0, or the failure of the write (the session is
// then to be closed).
[[nodiscard]] int session_flush(int64_t now_ns);
// When session_flush has something to do next; INT64_MAX when nothing is waiting.
[[nodiscard]] int64_t session_next_flush(void);
// An RRspPDU with `code` came. 0 when it accepts the oldest unanswered RReq (or answers
// none); -1 when it refuses a registration: the session must end, and that subtree is not
// offered again while it stays in the table.
[[nodiscard]] int session_rrsp(int32_t code);
// A request of the agent has arrived. Non-zero when an RReq was unanswered: the agent took
// it as the answer to this request, which must then go unanswered; the RReq will be sent
// again.
[[nodiscard]] int session_request_eaten(void);

// Counts since the start, for traces and tests.
struct session_counts {
    unsigned long rreqs_sent;
    unsigned long rreqs_eaten;
};
[[nodiscard]] session_counts session_get_counts(void);

// Releases the record of what the agent holds, the identity and the password: for the end
// of the process.
void session_release(void);
