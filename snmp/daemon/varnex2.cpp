// The daemon's main module: command line and trace levels, the select loop, the DPI listener
// and the framing of DPI packets on subagent connections, and the SMUX session with the
// master agent.
#include "varnex2.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "forward.h"
#include "registry.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_debug.h"
#include "snmp_ed.h"
#include "snmp_version.h"
#include "snmpmDPI.h"

int tracing = 0;
int forever = 1;
const char* myname = "varnex2";
int smux_fd = -1;
int dpi_fd = -1;
int dpi_port = 0;
fd_set selectfds;
int nfds = 0;
int sa_fds[MAX_SUBAGENTS] = {-1, -1, -1, -1, -1};
char* myoid = nullptr;
char* mypw = nullptr;

static const char banner[] = "varnex2 version 1.0.00, Mar 16 1998, Compiled " __DATE__ " at " __TIME__;
static const char peers_path[] = "/etc/snmpd.peers";
static const char dpi_port_subtree[] = "1.3.6.1.4.1.2.2.1.1.1";

enum {
    SMUX_PORT = 199,
    DPI_BUF_SIZE = 4096,
    DPI_WAIT_SECONDS = 8,
    AGENT_RETRY_SECONDS = 5,
    PEERS_LINE_SIZE = 8192,
    PEERS_MAX_FIELDS = 16,
    DPI_OTHER_ERROR = 101,
};

// Descriptors reported ready by the present pass of the loop. A descriptor closed during the
// pass is taken out, so a new connection that the system gives the same number later in the
// pass is not mistaken for the one that was ready.
static fd_set readyfds;

// The agent connection is a byte stream: a read may bring several PDUs or part of one. What
// is not yet a whole PDU waits here for the next read.
static uint8_t smux_stream[SMUX_BUF_SIZE];
static uint32_t smux_stream_len = 0;

// Set when the agent ended the last session by refusing a registration. The next session
// then announces only the daemon's own object: replaying the table would offer the refused
// subtree again and reconnect forever.
static int agent_refused_registration = 0;

static smux_pdu pdu;               // the OpenPDU
static smux_pdu* pdu_p = nullptr;  // the codec's record of the last decoded PDU
static int count = 1;              // running number of the next packet dump

// ---- descriptor bookkeeping ----------------------------------------------------------------

static void watch_fd(int fd) {
    FD_SET(fd, &selectfds);
    if (fd > nfds) {
        nfds = fd;
    }
}

static void forget_fd(int fd) {
    FD_CLR(fd, &selectfds);
    FD_CLR(fd, &readyfds);
    close(fd);
}

static void close_agent_connection(void) {
    if (smux_fd != -1) {
        forget_fd(smux_fd);
        smux_fd = -1;
    }
    smux_stream_len = 0;
    // The agent drops every registration of a closed session.
    registry_clear_announced();
}

static void close_dpi_listener(void) {
    if (dpi_fd != -1) {
        forget_fd(dpi_fd);
        dpi_fd = -1;
    }
}

void del_sa_fd(int fd) {
    for (int& slot : sa_fds) {
        if (slot == fd) {
            slot = -1;
            forget_fd(fd);
            return;
        }
    }
    VX_TRACE(TRACE_LVL2, "Subagent fd not found\n");
}

// ---- packet dumps --------------------------------------------------------------------------

void log_bfr(const unsigned char* buf, int len, const char* label) {
    if (count == 1) {
        printf("# ");
        snmp_print_version();
    }
    printf("# Dump of %d byte %s packet, count %d\n", len, label, count);
    count++;
    for (int i = 0; i < len; i++) {
        printf("%2.2x%s", buf[i], (i % 16 == 15) ? "\n" : " ");
    }
    printf("\n");
    fflush(stdout);
}

// ---- DPI listener and framing --------------------------------------------------------------

// The address the DPI listener binds to: every local address unless VARNEX2_DPI_ADDRESS
// names one. Subagents are not authenticated, so whoever reaches the listener can serve
// subtrees of the agent's MIB.
static in_addr dpi_address = {htonl(INADDR_ANY)};

// Takes VARNEX2_DPI_ADDRESS when it is set: 0, or -1 after telling why on standard error.
// A value that is set but not a dotted IPv4 address (an empty one included) is refused
// rather than read as "every address", which would widen exactly what it meant to narrow.
static int read_dpi_address(void) {
    const char* text = getenv("VARNEX2_DPI_ADDRESS");
    if (text == nullptr) {
        return 0;
    }
    if (inet_pton(AF_INET, text, &dpi_address) != 1) {
        fprintf(stderr,
                "%s: VARNEX2_DPI_ADDRESS=\"%s\" is not an IPv4 address in dotted-decimal form "
                "(such as 127.0.0.1, or 0.0.0.0 for every local address)\n",
                myname, text);
        return -1;
    }
    return 0;
}

int DPI_port(void) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror("DPI_port::socket");
        return -1;
    }
    if (fd >= FD_SETSIZE) {
        fprintf(stderr, "DPI_port: descriptor %d beyond the select set\n", fd);
        close(fd);
        return -1;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr = dpi_address;
    addr.sin_port = 0;  // the system picks a free port; subagents learn it from the agent
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        perror("DPI_port::bind");
        close(fd);
        return -1;
    }
    (void)listen(fd, 5);
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) {
        perror("DPI_port:getsockname");
        close(fd);
        return -1;
    }
    dpi_port = ntohs(addr.sin_port);
    return fd;
}

static long long monotonic_ms(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until `fd` is readable (or at its end) for at most 8 seconds: 1 when it is, 0 on
// time-out, -1 on failure. A signal that interrupts the wait only shortens it by the time
// already spent, so a subagent that answers within its 8 seconds is never dropped for it.
static int wait_readable(int fd) {
    const long long end = monotonic_ms() + DPI_WAIT_SECONDS * 1000LL;
    for (;;) {
        long long left = end - monotonic_ms();
        pollfd p{};
        p.fd = fd;
        p.events = POLLIN;
        int ready = poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready >= 0 || errno != EINTR) {
            return ready;
        }
    }
}

// Reads exactly `n` bytes, waiting at most 8 seconds for each piece. Returns `n`, or the
// last non-positive outcome: 0 for a time-out or the end of the stream, negative for an
// error.
static int timed_read(int fd, unsigned char* to, int n) {
    int got = 0;
    while (got < n) {
        int ready = wait_readable(fd);
        if (ready <= 0) {
            return ready;
        }
        ssize_t r = read(fd, to + got, static_cast<size_t>(n - got));
        if (r <= 0) {
            return static_cast<int>(r);
        }
        got += static_cast<int>(r);
    }
    return got;
}

static int drop_subagent(int fd) {
    unregister_fd(fd);
    return -1;
}

int read_DPI_packet(int fd, unsigned char* buf, unsigned size) {
    if (fd < 0 || fd >= FD_SETSIZE || buf == nullptr || size < 2) {
        return -1;
    }
    int rc = timed_read(fd, buf, 2);
    if (rc == 0) {
        VX_TRACE(TRACE_LVL1, "EOF received (fd=%d)", fd);
        return drop_subagent(fd);
    }
    if (rc < 0) {
        VX_TRACE(TRACE_LVL1, "could not read DPI request length (fd=%d)", fd);
        return drop_subagent(fd);
    }
    unsigned body = static_cast<unsigned>(buf[0]) * 256u + buf[1];
    if (body > size - 2) {
        // Too large for the caller's buffer: swallow it so that nothing of it is taken for
        // the start of a packet, then let the subagent go.
        VX_TRACE(TRACE_LVL1, "DPI packet too large, skipping");
        unsigned left = body;
        while (left > 0) {
            int piece = static_cast<int>(left < size ? left : size);
            if (timed_read(fd, buf, piece) != piece) {
                VX_TRACE(TRACE_LVL1, "could not read DPI request body");
                return drop_subagent(fd);
            }
            left -= static_cast<unsigned>(piece);
        }
        return drop_subagent(fd);
    }
    if (body > 0 && timed_read(fd, buf + 2, static_cast<int>(body)) != static_cast<int>(body)) {
        VX_TRACE(TRACE_LVL1, "could not read DPI request body");
        return drop_subagent(fd);
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(buf, static_cast<int>(body + 2), "Incoming DPI packet");
    }
    return 0;
}

int DPIsend(int fd, const unsigned char* packet) {
    static const unsigned char nothing[1] = {0};
    int len = 0;
    if (packet != nullptr) {
        len = 2 + packet[0] * 256 + packet[1];
    } else {
        packet = nothing;
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(packet, len, "Outgoing DPI packet");
    }
    ssize_t written = write(fd, packet, static_cast<size_t>(len));
    if (written < 0) {
        perror("DPIwrite::write");
        return static_cast<int>(written);
    }
    if (written < len) {
        VX_SAY("Only %d of %d written on fd %d\n", static_cast<int>(written), len, fd);
        return -1;
    }
    return 0;
}

int handle_DPI_request(int fd) {
    unsigned char buffer[DPI_BUF_SIZE];

    VX_TRACE(TRACE_LVL1, "handle_DPI_request on fd %d\n", fd);
    int rc = read_DPI_packet(fd, buffer, sizeof buffer);
    if (rc != 0) {
        return rc;
    }
    dpi_hdr* tree = pDPIpacket(buffer);
    if (tree == nullptr) {
        VX_TRACE(TRACE_LVL1, "could not parse DPI request packet");
        unregister_fd(fd);
        return -1;
    }

    int error_code = 0;
    switch (tree->packet_type) {
    case SNMP_DPI_TRAP: {
        auto* trap = static_cast<dpi_trap_packet*>(tree->data);
        if (trap != nullptr) {
            process_dpi_trapv1(trap->generic, trap->specific, trap->enterprise_id,
                               trap->varBinds);
        }
        fDPIparse(tree);
        return 0;
    }
    case SNMP_DPI_REGISTER: {
        // Only the first subtree of the packet counts; priority, time-out and the selection
        // flags are not kept.
        auto* reg = static_cast<dpi_reg_packet*>(tree->data);
        if (reg == nullptr || reg->group_id == nullptr ||
            register_object(reg->group_id, fd) != 0) {
            error_code = DPI_OTHER_ERROR;
        }
        break;
    }
    case SNMP_DPI_OPEN:
    case SNMP_DPI_CLOSE:
    case SNMP_DPI_ARE_YOU_THERE:
        // Every subagent is accepted, and a CLOSE leaves the connection and its
        // registrations in place until the connection itself ends.
        break;
    default:
        fDPIparse(tree);
        return 0;
    }

    unsigned char* answer = mkDPIresp(tree, error_code, 0, nullptr);
    if (answer == nullptr) {
        VX_TRACE(TRACE_LVL1, "could not create DPI response packet");
        unregister_fd(fd);
        fDPIparse(tree);
        return -1;
    }
    if (DPIsend(fd, answer) != 0) {
        unregister_fd(fd);
        fDPIparse(tree);
        return 5;
    }
    fDPIparse(tree);
    return 0;
}

// ---- SMUX session --------------------------------------------------------------------------

int SMUXconnect(void) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        perror("SMUXconnect::socket");
        return -1;
    }
    if (fd >= FD_SETSIZE) {
        fprintf(stderr, "SMUXconnect: descriptor %d beyond the select set\n", fd);
        close(fd);
        return -1;
    }
    // The agent always runs on this host at the SMUX port; neither is configurable.
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(SMUX_PORT);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        perror("SMUXconnect::connect");
        close(fd);
        return -1;
    }
    return fd;
}

static void replace_text(char** slot, const char* text) {
    char* copy = strdup(text);
    if (copy == nullptr) {
        return;  // keep the value known so far
    }
    if (*slot != nullptr) {
        explicit_bzero(*slot, strlen(*slot));
    }
    free(*slot);
    *slot = copy;
}

// Looks `name` up in the peers file; returns the number of lines read.
static int read_peers_file(const char* name) {
    static char line[PEERS_LINE_SIZE];
    static const char separators[] = "\"\n\t\v\f ";

    FILE* f = fopen(peers_path, "r");
    if (f == nullptr) {
        VX_SAY("Cannot open file: %s\n", peers_path);
        return 0;
    }
    VX_TRACE(TRACE_LVL1, "Using config file: %s\n", peers_path);

    int lines = 0;
    while (fgets(line, sizeof line, f) != nullptr) {
        lines++;
        if (line[0] == '#') {
            continue;
        }
        char* hash = strchr(line, '#');
        if (hash != nullptr) {
            *hash = '\0';
        }
        char* fields[PEERS_MAX_FIELDS];
        int n = 0;
        char* save = nullptr;
        for (char* tok = strtok_r(line, separators, &save); tok != nullptr && n < PEERS_MAX_FIELDS;
             tok = strtok_r(nullptr, separators, &save)) {
            fields[n++] = tok;
        }
        if (n == 0 || strcmp(fields[0], name) != 0) {
            continue;
        }
        if (n > 1) {
            replace_text(&myoid, fields[1]);
        }
        if (n > 2) {
            replace_text(&mypw, fields[2]);
        }
        break;
    }
    explicit_bzero(line, sizeof line);  // it may have held the password
    fclose(f);
    return lines;
}

static void wipe_password(void) {
    if (mypw != nullptr) {
        explicit_bzero(mypw, strlen(mypw));
    }
}

int SMUXopen(const char* name) {
    int lines = read_peers_file(name);
    VX_TRACE(TRACE_LVL3, "Using line %d: %s %s\n", lines, name, myoid != nullptr ? myoid : "(null)");

    memset(&pdu, 0, sizeof pdu);
    pdu.version = 0;
    pdu.type = SMUX_PDU_OPEN;
    pdu.oid = myoid != nullptr ? snmp_create_oid_container(myoid) : nullptr;
    if (pdu.oid == nullptr) {
        VX_SAY("Cannot create identity\n");
        return -1;
    }
    size_t pw_len = mypw != nullptr ? strlen(mypw) : 0;
    if (pw_len >= sizeof pdu.password) {
        // Cutting it would only make the agent refuse the session with a password the
        // administrator never wrote.
        VX_SAY("Password for %s in %s is too long: %zu characters, at most %zu\n", name,
               peers_path, pw_len, sizeof pdu.password - 1);
        snmp_free_container(pdu.oid);
        pdu.oid = nullptr;
        wipe_password();
        return -1;
    }
    static_assert(sizeof banner <= sizeof pdu.description, "banner must fit the OpenPDU");
    memcpy(pdu.description, banner, sizeof banner - 1);
    pdu.description_len = sizeof banner - 1;
    if (pw_len > 0) {
        memcpy(pdu.password, mypw, pw_len);
    }
    pdu.password_len = static_cast<uint32_t>(pw_len);

    uint8_t* buf = nullptr;
    uint32_t len = 0;
    int rc = smux_encode_message(&buf, &len, &pdu);
    VX_RC(rc, "smux_encode_message");

    snmp_free_container(pdu.oid);
    pdu.oid = nullptr;
    // The password stays only in the record; a later open sends it again only if the file
    // still holds it.
    wipe_password();

    if (rc != 0) {
        return rc;
    }
    return SMUXsend(buf, static_cast<int>(len));
}

int SMUXsend(const unsigned char* buf, int len) {
    if (tracing & TRACE_LVL3) {
        log_bfr(buf, len, "SMUXsend");
    }
    ssize_t written = write(smux_fd, buf, static_cast<size_t>(len));
    if (written < 0) {
        perror("write");
        return -1;
    }
    if (written < len) {
        VX_SAY("Only %d of %d written on SMUX fd %d\n", static_cast<int>(written), len, smux_fd);
        return -1;
    }
    return 0;
}

int SMUXregister(smux_pdu* record) {
    record->type = SMUX_PDU_RREQ;
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    int rc = smux_encode_message(&buf, &len, record);
    VX_RC(rc, "smux_encode_message");
    if (rc != 0) {
        return rc;
    }
    return SMUXsend(buf, static_cast<int>(len));
}

// Size of the BER element at the start of `data`: 1 and `*total` set when its header is
// complete, 0 when more bytes are needed to tell, -1 when the header cannot be a SMUX PDU
// (multi-octet tag, indefinite or over-long length).
static int smux_frame_length(const uint8_t* data, uint32_t have, uint32_t* total) {
    if (have < 2) {
        return 0;
    }
    if ((data[0] & 0x1f) == 0x1f) {
        return -1;
    }
    uint8_t first = data[1];
    if (first < 0x80) {
        *total = 2u + first;
        return 1;
    }
    uint32_t octets = first & 0x7fu;
    if (octets == 0 || octets > 4) {
        return -1;
    }
    if (have < 2 + octets) {
        return 0;
    }
    uint64_t len = 0;
    for (uint32_t i = 0; i < octets; i++) {
        len = (len << 8) | data[2 + i];
    }
    uint64_t size = 2u + octets + len;
    if (size > UINT32_MAX) {
        return -1;
    }
    *total = static_cast<uint32_t>(size);
    return 1;
}

// Answers a Get, GetNext or Set in place and sends it back as the GetResponse.
static int answer_request(smux_pdu* p) {
    snmp_pdu* req = p->snmp;
    if (req == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    req->error_status = 0;
    req->error_index = 0;

    // The agent takes any PDU but a Trap that arrives while it waits as the answer, so a
    // subagent dropped during the request has its withdrawals held back until the answer is
    // out.
    smux_request_active = 1;
    for (uint32_t i = 0; i < req->varBind_count; i++) {
        int status = process_req(req->type, &req->varBinds[i]);
        if (status != 0) {
            req->error_index = static_cast<int32_t>(i + 1);
            req->error_status = status;
            break;
        }
    }
    req->type = SNMP_PDU_RESPONSE;
    p->type = SNMP_PDU_RESPONSE;

    uint8_t* buf = nullptr;
    uint32_t len = 0;
    int rc = smux_encode_message(&buf, &len, p);
    VX_RC(rc, "smux_encode_message");
    if (rc == 0) {
        rc = SMUXsend(buf, static_cast<int>(len));
    }
    smux_request_active = 0;
    if (rc != 0) {
        return rc;
    }
    rc = registry_send_held_deletes();
    VX_RC(rc, "registry_send_held_deletes");
    return rc;
}

// Acts on one decoded PDU; non-zero ends the session.
static int handle_smux_pdu(smux_pdu* p) {
    switch (p->type) {
    case SMUX_PDU_CLOSE:
        VX_SAY("SMUX CLOSE received\n");
        return -1;
    case SMUX_PDU_RRSP:
        if (p->code < 0) {
            VX_SAY("Registration failed\n");
            agent_refused_registration = 1;
            return -1;
        }
        process_dpi_trapv1(0, 0, myoid, nullptr);
        return 0;
    case SMUX_PDU_SOUT:
        VX_TRACE(TRACE_LVL1, "SMUX SOUT received\n");
        return 0;
    case SMUX_PDU_OPEN:
    case SMUX_PDU_RREQ:
    case SNMP_PDU_RESPONSE:
    case SNMP_PDU_TRAP:
        VX_TRACE(TRACE_LVL1, "Unexpected SMUX request\n");
        return 0;
    case SNMP_PDU_GET:
    case SNMP_PDU_GETNEXT:
    case SNMP_PDU_SET:
        return answer_request(p);
    default:
        VX_TRACE(TRACE_LVL1, "Unknown SMUX request\n");
        return 0;
    }
}

int handle_smux(void) {
    if (smux_fd < 0 || smux_fd >= FD_SETSIZE) {
        return -1;
    }
    fd_set one;
    FD_ZERO(&one);
    FD_SET(smux_fd, &one);
    timeval tv{0, 0};
    if (select(smux_fd + 1, &one, nullptr, nullptr, &tv) != 1) {
        perror("handle_smux::select");
        return -1;
    }

    uint8_t* room = smux_stream + smux_stream_len;
    ssize_t got = read(smux_fd, room, sizeof smux_stream - smux_stream_len);
    if (got < 0) {
        perror("handle_smux::read");
        return -1;
    }
    if (got == 0) {
        VX_SAY("EOF received on SMUX fd: %d\n", smux_fd);
        if (smux_stream_len > 0) {
            // The stream ended inside a PDU.
            VX_RC(SNMP_CODEC_MALFORMED, "smux_decode_message");
            return SNMP_CODEC_MALFORMED;
        }
        return -1;
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(room, static_cast<int>(got), "Incoming SMUX packet");
    }
    smux_stream_len += static_cast<uint32_t>(got);

    uint32_t used = 0;
    int rc = 0;
    while (used < smux_stream_len) {
        uint32_t have = smux_stream_len - used;
        uint32_t total = 0;
        int framed = smux_frame_length(smux_stream + used, have, &total);
        if (framed == 0 || (framed == 1 && total <= sizeof smux_stream && total > have)) {
            break;  // the rest comes with a later read
        }
        if (framed < 0) {
            rc = SNMP_CODEC_MALFORMED;
        } else if (total > sizeof smux_stream) {
            rc = SNMP_CODEC_NO_ROOM;
        } else {
            rc = smux_decode_message(smux_stream + used, total, &pdu_p);
        }
        VX_RC(rc, "smux_decode_message");
        if (rc != 0) {
            return rc;
        }
        used += total;
        rc = handle_smux_pdu(pdu_p);
        if (rc != 0) {
            return rc;
        }
    }
    smux_stream_len -= used;
    if (used > 0 && smux_stream_len > 0) {
        memmove(smux_stream, smux_stream + used, smux_stream_len);
    }
    return 0;
}

// ---- start-up and the loop -----------------------------------------------------------------

void init_smux_dpi_fds(void) {
    if (smux_fd != -1) {
        return;
    }
    smux_fd = SMUXconnect();
    if (smux_fd == -1) {
        VX_RC(-1, "SMUXconnect");
        VX_SAY("Connect to agent failed, will retry\n");
        return;
    }
    smux_stream_len = 0;
    VX_TRACE(TRACE_LVL1, "SMUX fd: %d\n", smux_fd);

    if (dpi_fd == -1) {
        dpi_fd = DPI_port();
        if (dpi_fd == -1) {
            VX_RC(-1, "DPI_port");
            VX_SAY("Create DPI port failed, will retry\n");
        } else {
            VX_TRACE(TRACE_LVL1, "DPI  fd: %d port: %d\n", dpi_fd, dpi_port);
        }
    }
    if (dpi_fd == -1) {
        // An agent connection without a listener would announce a port nobody can reach.
        close_agent_connection();
        return;
    }
    watch_fd(smux_fd);
    watch_fd(dpi_fd);

    int rc = SMUXopen(myname);
    VX_RC(rc, "SMUXopen");
    if (rc != 0) {
        VX_TRACE(TRACE_LVL1, "Error on SMUXopen\n");
        close_agent_connection();
        close_dpi_listener();
        return;
    }

    // A new session starts with nothing registered at the agent, so the subagents' subtrees
    // are announced again, unless the agent ended the last session by refusing one of them.
    if (!agent_refused_registration) {
        rc = register_subtrees();
        VX_RC(rc, "register_subtrees");
        if (rc != 0) {
            VX_TRACE(TRACE_LVL1, "Error on register_subtrees\n");
            close_agent_connection();
            return;
        }
    }
    agent_refused_registration = 0;

    char subtree[sizeof dpi_port_subtree];
    memcpy(subtree, dpi_port_subtree, sizeof subtree);
    (void)register_object(subtree, -1);

    VX_SAY("%s connected to agent, ready to receive requests.....\n", myname);
}

static void accept_subagent(void) {
    VX_TRACE(TRACE_LVL1, "New DPI subagent...\n");
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(dpi_fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (fd < 0) {
        perror("accept");
        return;
    }
    if (fd >= FD_SETSIZE) {
        fprintf(stderr, "accept: descriptor %d beyond the select set\n", fd);
        close(fd);
        return;
    }
    for (int& slot : sa_fds) {
        if (slot == -1) {
            slot = fd;
            watch_fd(fd);
            VX_TRACE(TRACE_LVL1, "... accepted on fd %d\n", fd);
            return;
        }
    }
    VX_TRACE(TRACE_LVL1, "Max subagents exceeded\n");
    close(fd);
}

static int ready(int fd) {
    return fd >= 0 && FD_ISSET(fd, &readyfds);
}

// A request forwarded earlier in the same pass may already have read what made a subagent's
// socket ready (a TRAP sent while its RESPONSE was awaited). Serving the socket on the old
// readiness would block in the 8-second wait and then drop a healthy subagent.
static int still_readable(int fd) {
    pollfd p{};
    p.fd = fd;
    p.events = POLLIN;
    return poll(&p, 1, 0) > 0;
}

// ---- orderly end -------------------------------------------------------------------------

// The number of the SIGTERM or SIGINT that asked the daemon to end; 0 while none has.
static volatile sig_atomic_t stop_signal = 0;

static void note_stop_signal(int sig) {
    stop_signal = sig;
}

// Both signals stay blocked except inside the loop's wait, which gets `wait_mask`: a signal
// then never cuts a forwarded exchange short, and one that comes between the loop's check
// and its wait still ends that wait.
static void catch_stop_signals(sigset_t* wait_mask) {
    sigset_t stop_set;
    sigemptyset(&stop_set);
    sigaddset(&stop_set, SIGTERM);
    sigaddset(&stop_set, SIGINT);
    sigprocmask(SIG_BLOCK, &stop_set, wait_mask);
    sigdelset(wait_mask, SIGTERM);
    sigdelset(wait_mask, SIGINT);
    struct sigaction sa{};
    sa.sa_handler = note_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the wait must return
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

// One last packet, without waiting: a peer that does not read must not hold up the end.
static void send_last(int fd, const unsigned char* bytes, int len, const char* label) {
    if (tracing & TRACE_LVL3) {
        log_bfr(bytes, len, label);
    }
    if (send(fd, bytes, static_cast<size_t>(len), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        perror("daemon_shutdown::send");
    }
}

// Input left unread would turn the close into a reset, which may destroy the last packet
// before the peer has read it.
static void drain_input(int fd) {
    shutdown(fd, SHUT_WR);
    unsigned char sink[512];
    while (recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
    }
}

void daemon_shutdown(int sig) {
    VX_SAY("%s stopping on signal %d\n", myname, sig);
    // A request that reached the daemon together with the signal is answered first: the
    // agent waits for that answer and would take the ClosePDU for it.
    if (smux_fd != -1 && still_readable(smux_fd) && handle_smux() != 0) {
        close_agent_connection();
    }
    if (smux_fd != -1) {
        // The agent drops every registration of the session at once.
        smux_pdu close_pdu{};
        close_pdu.type = SMUX_PDU_CLOSE;
        close_pdu.code = SMUX_CLOSE_GOING_DOWN;
        uint8_t* buf = nullptr;
        uint32_t len = 0;
        int rc = smux_encode_message(&buf, &len, &close_pdu);
        VX_RC(rc, "smux_encode_message");
        if (rc == 0) {
            send_last(smux_fd, buf, static_cast<int>(len), "SMUXsend");
        }
        drain_input(smux_fd);
        close_agent_connection();
    }
    const unsigned char* close_packet = mkDPIclose(DPI_CLOSE_goingDown);
    for (int& slot : sa_fds) {
        if (slot == -1) {
            continue;
        }
        if (close_packet != nullptr) {
            send_last(slot, close_packet, static_cast<int>(dpi_packet_len(close_packet)),
                      "Outgoing DPI packet");
        }
        drain_input(slot);
        forget_fd(slot);
        slot = -1;
    }
    close_dpi_listener();
    registry_release();
    free(myoid);
    myoid = nullptr;
    free(mypw);
    mypw = nullptr;
    fflush(stdout);
}

[[noreturn]] static void usage(const char* program) {
    printf("usage:  %s [-d [level]]\n", program);
    printf("\n%s\n", banner);
    exit(1);
}

// Leading decimal integer with an optional sign; text that is not a number gives 0.
static int leading_int(const char* text) {
    const char* p = text;
    int sign = 1;
    if (*p == '+' || *p == '-') {
        sign = *p == '-' ? -1 : 1;
        p++;
    }
    long long value = 0;
    for (; *p >= '0' && *p <= '9'; p++) {
        value = value * 10 + (*p - '0');
        if (value > static_cast<long long>(INT_MAX) + 1) {
            value = static_cast<long long>(INT_MAX) + 1;
        }
    }
    value *= sign;
    if (value > INT_MAX) {
        value = INT_MAX;
    }
    return static_cast<int>(value);
}

static void set_tracing(int level) {
    static const struct {
        int bit;
        const char* name;
    } bits[] = {
        {8, "DPI-lvl1"},       {16, "DPI-lvl2"},       {32, "Internal-lvl1"},
        {64, "Internal-lvl2"}, {128, "Internal-lvl3"},
    };
    tracing = level;
    printf("Tracing set to %d\n", tracing);
    for (const auto& b : bits) {
        if (tracing & b.bit) {
            printf(" %3d %s\n", b.bit, b.name);
        }
    }
    if (tracing & TRACE_DPI_LVL1) {
        DPIdebug(1);
    } else if (tracing & TRACE_DPI_LVL2) {
        DPIdebug(2);
    }
    if (tracing & (1 | 2 | 4)) {
        snmp_debug_init();
    }
    printf("\n%s\n", banner);
}

// The identity name is the program's file name, less a leading "smux." when something
// follows it, so one binary serves several peers through links named smux.<peer>.
static const char* identity_name(const char* program) {
    const char* name = program;
    const char* slash = strrchr(program, '/');
    if (slash != nullptr && slash[1] != '\0') {
        name = slash + 1;
    }
    static const char prefix[] = "smux.";
    if (strncmp(name, prefix, sizeof prefix - 1) == 0 && name[sizeof prefix - 1] != '\0') {
        name += sizeof prefix - 1;
    }
    return name;
}

int main(int argc, char** argv) {
    // The daemon only ends by a signal, so fully buffered output to a file would be lost.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "varnex2";
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "-d") != 0) {
            usage(program);
        }
        if (i + 1 < argc) {
            set_tracing(leading_int(argv[++i]));
        } else {
            set_tracing(31);
        }
    }
    myname = identity_name(program);
    if (read_dpi_address() != 0) {
        exit(1);
    }

    VX_SAY("%s, starting...\n%s\n", myname, banner);
    signal(SIGPIPE, SIG_IGN);  // a vanished peer must fail the write, not end the daemon
    sigset_t wait_mask;
    catch_stop_signals(&wait_mask);

    FD_ZERO(&selectfds);
    FD_ZERO(&readyfds);
    nfds = 0;
    init_smux_dpi_fds();
    for (int& slot : sa_fds) {
        slot = -1;
    }

    while (forever && stop_signal == 0) {
        readyfds = selectfds;
        timespec retry{AGENT_RETRY_SECONDS, 0};
        int n = pselect(nfds + 1, &readyfds, nullptr, nullptr, smux_fd == -1 ? &retry : nullptr,
                        &wait_mask);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            perror("select");
            VX_SAY("Error on select");
            exit(0);
        }
        VX_TRACE(TRACE_LVL1, "select returned %d fds\n", n);

        init_smux_dpi_fds();
        if (n == 0) {
            continue;
        }
        if (ready(smux_fd)) {
            VX_TRACE(TRACE_LVL1, "SMUX request\n");
            if (handle_smux() != 0) {
                VX_SAY("Lost connection to agent\n");
                close_agent_connection();
            }
        }
        if (ready(dpi_fd)) {
            accept_subagent();
        }
        for (int i = 0; i < MAX_SUBAGENTS; i++) {
            int fd = sa_fds[i];
            if (ready(fd) && still_readable(fd)) {
                FD_CLR(fd, &readyfds);
                VX_TRACE(TRACE_LVL1, "DPI request on fd %d\n", fd);
                (void)handle_DPI_request(fd);
            }
        }
    }
    daemon_shutdown(stop_signal);
    return 0;
}
