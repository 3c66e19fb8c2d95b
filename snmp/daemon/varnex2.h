#pragma once
// Process-wide state of the daemon and the operations of its main module (start-up, the
// select loop, the DPI listener and framing, the SMUX session, packet dumps).
#include <sys/select.h>

#include <cstdint>
#include <cstdio>

struct smux_pdu;

// Trace levels: a level-k line is printed when bit k or any higher level bit is set.
inline constexpr int TRACE_DPI_LVL1 = 8;
inline constexpr int TRACE_DPI_LVL2 = 16;
inline constexpr int TRACE_LVL1 = 32 | 64 | 128;
inline constexpr int TRACE_LVL2 = 64 | 128;
inline constexpr int TRACE_LVL3 = 128;
inline constexpr int MAX_SUBAGENTS = 5;

extern int tracing;
extern int forever;
extern const char* myname;
extern int smux_fd;
extern int dpi_fd;
extern int dpi_port;
extern fd_set selectfds;
extern int nfds;
extern int sa_fds[MAX_SUBAGENTS];
extern char* myoid;  // identity OID as dotted text from the peers file, null until read
extern char* mypw;   // SMUX password from the peers file; wiped after every open

// "%s(%d): " prefix then the message, when any bit of `level` is set in `tracing`.
#define VX_TRACE(level, ...)                            \
    do {                                                \
        if (tracing & (level)) {                        \
            printf("%s(%d): ", __FILE_NAME__, __LINE__); \
            printf(__VA_ARGS__);                        \
        }                                               \
    } while (0)

// "%s(%d) " prefix then the message, whatever `tracing` is.
#define VX_SAY(...)                                    \
    do {                                               \
        printf("%s(%d) ", __FILE_NAME__, __LINE__);    \
        printf(__VA_ARGS__);                           \
    } while (0)

// Result trace after a call whose result matters.
#define VX_RC(rc, name)                                                        \
    do {                                                                       \
        if (((rc) != 0 && tracing != 0) || (tracing & TRACE_LVL3)) {           \
            printf("%s(%d): rc=%d from %s()\n", __FILE_NAME__, __LINE__, (int)(rc), name); \
        }                                                                      \
    } while (0)

void init_smux_dpi_fds(void);
void del_sa_fd(int fd);
// The orderly end on SIGTERM or SIGINT (`sig`): the agent gets a ClosePDU goingDown, every
// subagent a DPI CLOSE goingDown, then every connection is closed and the registration table
// released. The caller exits with status 0.
void daemon_shutdown(int sig);

[[nodiscard]] int DPI_port(void);
// One whole packet, length field included, into `buf`; waits at most 8 s for each piece.
// 0, or -1 after the subagent has been dropped with unregister_fd.
[[nodiscard]] int read_DPI_packet(int fd, unsigned char* buf, unsigned size);
// `packet` is a serialised DPI packet with its 2-byte length in front; null writes nothing.
// 0 when all was written, the write's negative result, or -1 for a short write.
[[nodiscard]] int DPIsend(int fd, const unsigned char* packet);
int handle_DPI_request(int fd);

[[nodiscard]] int SMUXconnect(void);
[[nodiscard]] int SMUXopen(const char* name);
[[nodiscard]] int SMUXsend(const unsigned char* buf, int len);
[[nodiscard]] int SMUXregister(smux_pdu* record);
[[nodiscard]] int handle_smux(void);

void log_bfr(const unsigned char* buf, int len, const char* label);
