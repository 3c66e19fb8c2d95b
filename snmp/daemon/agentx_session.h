#pragma once
// The AgentX session with the master agent, the daemon's other way to the master
// beside SMUX: the Open, the Registers and Unregisters that make the master hold what the
// registration table wants, Pings when the master has been quiet, Notifies for traps, and
// the Close. Requests of the master are answered by the AgentX forwarding module above.
//
// Unlike SMUX, every request is matched to its answer by packet id, so registrations go out
// at once, whatever the master is doing. The master may refuse one (a subtree it or another
// subagent holds at the same priority, for instance): that is reported and the session
// goes on without it.
#include <cstdint>

struct agentx_pdu;
struct dpi_set_packet;
struct snmp_container;

// The session's default time-out sent in the Open: the master waits this long for an
// answer, longer than the daemon waits for a subagent before it drops it and answers.
inline constexpr int AGENTX_TIMEOUT_SECONDS = 10;
// After this long without a PDU from the master a Ping goes out; when its answer (or any
// other PDU) does not come within AGENTX_PING_WAIT_SECONDS, the connection is taken as
// lost. An Open unanswered for that long is given up too.
inline constexpr int AGENTX_PING_IDLE_SECONDS = 60;
inline constexpr int AGENTX_PING_WAIT_SECONDS = 10;
// Priority of every registration: AgentX's default.
inline constexpr uint8_t AGENTX_PRIORITY = 127;

// The session id the master gave; meaningful while agentx_is_open().
extern uint32_t agentx_session_id;

// Sends the Open with the identity from the peers file (the null OID when it names none)
// and the banner as description. 0, or -1 when it could not be encoded or written.
[[nodiscard]] int agentx_open(void);
// Whether the master has accepted the Open.
[[nodiscard]] int agentx_is_open(void);
// Sends a Close with `reason` (AGENTX_CLOSE_*) while a session is open (best effort).
void agentx_close(uint8_t reason);
// The connection to the master is gone.
void agentx_lost(void);

// A PDU came from the master at `now_ns`.
void agentx_activity(int64_t now_ns);
// Acts on a Response of the master to one of the daemon's PDUs. 0, or -1 when the session
// cannot go on (the Open refused).
[[nodiscard]] int agentx_response(const agentx_pdu* pdu);
// Sends the Registers and Unregisters that are due and a Ping when one is due at `now_ns`.
// 0, or -1 when the session is to be closed (a write failed, the master stopped answering).
[[nodiscard]] int agentx_flush(int64_t now_ns);
// When agentx_flush has something to do next; INT64_MAX when nothing is waiting.
[[nodiscard]] int64_t agentx_next_flush(void);

// Encodes `pdu` with the session id and a new packet id (both written into its header)
// and sends it. 0, or -1 when it could not be encoded or written.
[[nodiscard]] int agentx_send(agentx_pdu* pdu);
// Encodes `pdu` as it is and writes it; a failed encoding is returned as the codec's code
// (AGENTX_NO_ROOM when it does not fit), a failed write as -1.
[[nodiscard]] int agentx_write_pdu(const agentx_pdu* pdu);

// The daemon's uptime in hundredths of a second: the sysUpTime of its Responses and
// Notifies.
[[nodiscard]] uint32_t agentx_uptime(void);

// Stores the DPI value `type`/`len`/`bytes` (memory form, as parsed) in `*slot` as the
// SNMPv2 value AgentX carries: exceptions stay exceptions, Counter64 is carried, an OID
// written as text becomes an OID. 0, or -1 for a type with no SNMP form, a value that does
// not fit it, or no memory (`*slot` then unchanged).
[[nodiscard]] int agentx_value_from_dpi(int type, int len, const unsigned char* bytes,
                                        snmp_container** slot);

// Sends a DPI trap as a Notify: sysUpTime.0, snmpTrapOID.0 (generic 0-5 as the standard
// trap OIDs 1.3.6.1.6.3.1.1.5.1-6, generic 6 as enterprise.0.specific), the varBinds, and
// snmpTrapEnterprise.0. `enterprise` null or empty means the daemon's identity. The chain
// stays the caller's. Nothing is sent while no session is open.
void agentx_notify(int generic, int specific, const char* enterprise,
                   const dpi_set_packet* varBinds);
