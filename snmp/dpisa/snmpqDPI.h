#pragma once
// Finding the agent's DPI port: an SNMPv1 GetRequest for the DPI port object
// 1.3.6.1.4.1.2.2.1.1.1.0, sent over UDP to the master agent's SNMP port (161, or the
// decimal value of the environment variable SNMP_PORT), and the decoding of its answer.
//
// The query message is assembled in a static buffer and the answer lands in the connection
// module's receive buffer; both stay valid only until the next query. The query holds one
// of the three connection slots while it runs. Single-threaded. This header compiles as
// C11 and as C++.

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__cplusplus) && __cplusplus >= 201703L
#define DPIQ_NODISCARD [[nodiscard]]
#else
#define DPIQ_NODISCARD
#endif

enum dpi_query_constants {
    DPI_QUERY_KIND_GET = 1,     // the only kind of query message there is
    DPI_SELECTOR_DPI_PORT = 1,  // selector of the DPI port object
    DPI_SELECTOR_MAX = 3,
    DPI_COMMUNITY_MAX = 92,  // keeps the message length in one BER length octet
    DPI_QUERY_ATTEMPTS = 3,  // waits of 3, 6 and 9 seconds: 18 s in all
};

// ---- query ----

// Asks the agent on `hostname_p` (name or dotted IPv4 address) with community `community_p`
// for the object whose second-last subidentifier is `selector` (at most 3; 1 asks for the
// DPI port). Three attempts, waiting 3, 6 and 9 seconds for an answer. Returns the number
// in the answer (0 or more) or -1: no free slot, unknown host, community over 92 octets, a
// SNMP_PORT that is not a port number, no or empty answer, or an answer that does not end
// in the requested name and an INTEGER of 1 to 3 octets.
DPIQ_NODISCARD int qDPIport(const char* hostname_p, const char* community_p, int selector);

// ---- encode and decode ----

// Assembles the GetRequest (request-id 1) for `selector` with the first `community_len`
// bytes of `community_p` into the static query buffer. `kind` must be DPI_QUERY_KIND_GET,
// `selector` at most 3, `community_len` 0..92 (`community_p` may be null only when it is 0).
// Returns the message and stores its length (37 + community_len) in *packet_len_p; on
// failure returns null and stores 0. The selector is remembered for extract_DPI_port.
DPIQ_NODISCARD unsigned char* mkDPIqport_packet(int kind, int selector, const char* community_p,
                                                int community_len, int* packet_len_p);

// The port in an answer to the last query: the answer must end with the requested name
// (with the selector last given to mkDPIqport_packet, 1 before any) followed by an INTEGER
// of 1, 2 or 3 octets, which are read as unsigned. Nothing else of the answer is examined.
// Returns the port (0..16777215) or -1; never reads outside answer[0..answer_len).
DPIQ_NODISCARD int extract_DPI_port(const unsigned char* answer_p, int answer_len);

#ifdef __cplusplus
}
#endif
