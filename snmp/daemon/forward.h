#pragma once
// Dispatch and forwarding of the agent's requests to DPI subagents, and of subagents' traps
// to the agent.
#include <cstdint>

struct snmp_varBind;
struct registration_entry;
struct dpi_set_packet;
struct dpi_hdr;

// Answers one varBind of a Get (0xA0), GetNext (0xA1) or Set (0xA3) in place, by the daemon's
// own object or the owning subagent. Returns an SNMPv1 error status: 0, 2 noSuchName when no
// registration answers, or whatever forwarding reported.
[[nodiscard]] int process_req(uint8_t type, snmp_varBind* vb);

// Answers one varBind of a Get (0xA0) or GetNext (0xA1) by the daemon's own object, the DPI
// port: 0 with the varBind filled, 2 noSuchName when the object does not answer it, 5 genErr.
[[nodiscard]] int do_mib_request(uint8_t type, snmp_varBind* vb);

// Answers one varBind of a Get (0xA0), GetNext (0xA1) or Set (0xA3) for a subtree owned by a
// subagent, through a DPI exchange on the entry's socket. Returns an SNMPv1 error status
// (0 noError ... 5 genErr); on success the varBind holds the answer. `first` is non-zero for
// the entry the request OID falls in, zero for the later entries of a GetNext walk.
[[nodiscard]] int remote_mib_req(uint8_t type, snmp_varBind* vb, registration_entry* entry,
                                 int first);

// Sends `packet` (serialised; null sends nothing) to subagent `fd` and waits for its
// RESPONSE, forwarding the traps met on the way, for at most 8 seconds. 0 with the parsed
// RESPONSE in `*out` for the caller to release with fDPIparse; -1 when there was no packet;
// -2 when the subagent has been dropped (a failed write, a read failure or time-out,
// garbage, a packet that is neither TRAP nor RESPONSE).
[[nodiscard]] int forward_exchange(int fd, const unsigned char* packet, dpi_hdr** out);

// Sends a DPI TRAP to the agent in the protocol the daemon speaks: as an SNMPv1 Trap-PDU
// over SMUX, as a Notify over AgentX. The varBind chain stays the caller's.
void forward_trap(int generic, int specific, const char* enterprise, dpi_set_packet* varBinds);

// Sends a DPI TRAP to the agent as an SNMPv1 Trap-PDU. `enterprise` may be null or empty
// (the daemon's own identity OID is used then). The DPI varBind chain stays the caller's.
void process_dpi_trapv1(int generic, int specific, const char* enterprise,
                        dpi_set_packet* varBinds);
