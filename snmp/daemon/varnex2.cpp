// The daemon's entry point and its one loop: command line and trace levels, start-up, the
// agent connection's PDUs and the subagents' packets, and an orderly stop on a signal.
#include "varnex2.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "agentx_ed.h"
#include "agentx_forward.h"
#include "agentx_session.h"
#include "forward.h"
#include "registry.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_debug.h"
#include "snmp_ed.h"
#include "snmpmDPI.h"

int forever = 1;

namespace {

constexpr char dpi_port_subtree[] = "1.3.6.1.4.1.2.2.1.1.1";
constexpr int AGENT_RETRY_SECONDS = 5;
constexpr int DPI_OTHER_ERROR = 101;
constexpr int64_t NS_PER_S = 1000000000;

volatile sig_atomic_t stop_signal = 0;

}  // namespace

// ---- connections ---------------------------------------------------------------------------

static bool speaks_agentx(void) {
    return agentx_master.set != 0;
}

static void close_agent_connection(void) {
    if (smux_fd != -1) {
        forget_fd(smux_fd);
        smux_fd = -1;
    }
    agent_in.fd = -1;
    agent_in.len = 0;
    if (speaks_agentx()) {
        agentx_lost();
        agentx_forward_lost();
    }
    session_lost();
}

static void close_dpi_listener(void) {
    if (dpi_fd != -1) {
        forget_fd(dpi_fd);
        dpi_fd = -1;
    }
}

// ---- subagents -----------------------------------------------------------------------------

// Acts on the whole packet of `total` bytes at the start of the subagent's buffer and takes
// it out. 0, or the result of handle_DPI_request when the subagent was dropped.
static int handle_DPI_packet(int fd, vx_conn* c, uint32_t total) {
    VX_TRACE(TRACE_LVL1, "handle_DPI_request on fd %d\n", fd);
    if (tracing & TRACE_LVL3) {
        log_bfr(c->buf, static_cast<int>(total), "Incoming DPI packet");
    }
    dpi_hdr* tree = pDPIpacket(c->buf);
    conn_consume(c, total);
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
            forward_trap(trap->generic, trap->specific, trap->enterprise_id, trap->varBinds);
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

int handle_DPI_request(int fd, bool readable) {
    vx_conn* c = subagent_conn(fd);
    if (c == nullptr) {
        return -1;
    }
    if (readable) {
        int r = conn_recv(c);
        if (r == 0 || r == -1) {
            conn_trace_dpi_failure(c, r == 0 ? CONN_END : CONN_ERROR);
            unregister_fd(fd);
            return -1;
        }
    }
    for (;;) {
        uint32_t total = 0;
        int framed = conn_dpi_frame(c, &total);
        if (framed == FRAME_PARTIAL) {
            return 0;
        }
        if (framed == FRAME_TOO_LARGE) {
            conn_trace_dpi_failure(c, CONN_TOO_LARGE);
            unregister_fd(fd);
            return -1;
        }
        int rc = handle_DPI_packet(fd, c, total);
        if (rc != 0) {
            return rc;
        }
    }
}

// A subagent whose packet stops coming in the middle is dropped 8 seconds after its last
// byte, while everybody else is served meanwhile.
static int64_t subagent_deadline(int fd) {
    const vx_conn* c = subagent_conn(fd);
    if (c == nullptr || c->len == 0) {
        return INT64_MAX;
    }
    return c->last_byte_ns + DPI_WAIT_SECONDS * NS_PER_S;
}

static void drop_stalled_subagents(int64_t now_ns) {
    for (int fd : sa_fds) {
        if (fd >= 0 && subagent_deadline(fd) <= now_ns) {
            conn_trace_dpi_failure(subagent_conn(fd), CONN_END);
            unregister_fd(fd);
        }
    }
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
    if (add_sa_fd(fd) != 0) {
        VX_TRACE(TRACE_LVL1, "Max subagents exceeded\n");
        close(fd);
        return;
    }
    VX_TRACE(TRACE_LVL1, "... accepted on fd %d\n", fd);
}

// ---- the agent -----------------------------------------------------------------------------

// Answers a Get, GetNext or Set in place and sends it back as the GetResponse.
static int answer_request(smux_pdu* p) {
    snmp_pdu* req = p->snmp;
    if (req == nullptr) {
        return SNMP_CODEC_BAD_ARGUMENT;
    }
    if (session_request_eaten()) {
        // The agent has already failed this request with our RReq as its answer and waits
        // for it no more; an answer now would be taken as garbage and end the session.
        VX_TRACE(TRACE_LVL1, "Request %d left unanswered\n", req->request_id);
        return 0;
    }
    req->error_status = 0;
    req->error_index = 0;
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
    session_activity(vx_now_ns());
    return rc;
}

// Acts on one decoded PDU; non-zero ends the session.
static int handle_smux_pdu(smux_pdu* p) {
    switch (p->type) {
    case SMUX_PDU_CLOSE:
        VX_SAY("SMUX CLOSE received\n");
        return -1;
    case SMUX_PDU_RRSP:
        if (session_rrsp(p->code) != 0) {
            VX_SAY("Registration failed\n");
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
    int got = conn_recv(&agent_in);
    if (got == -2) {
        return 0;  // nothing there after all
    }
    if (got < 0) {
        perror("handle_smux::read");
        return -1;
    }
    if (got == 0) {
        VX_SAY("EOF received on SMUX fd: %d\n", smux_fd);
        if (agent_in.len > 0) {
            // The stream ended inside a PDU.
            VX_RC(SNMP_CODEC_MALFORMED, "smux_decode_message");
            return SNMP_CODEC_MALFORMED;
        }
        return -1;
    }
    if (tracing & TRACE_LVL3) {
        log_bfr(agent_in.buf + agent_in.len - got, got, "Incoming SMUX packet");
    }
    session_activity(agent_in.last_byte_ns);

    for (;;) {
        uint32_t total = 0;
        int framed = conn_smux_frame(&agent_in, &total);
        if (framed == FRAME_PARTIAL) {
            return 0;  // the rest comes with a later read
        }
        int rc = SNMP_CODEC_MALFORMED;
        smux_pdu* p = nullptr;
        if (framed == FRAME_TOO_LARGE) {
            rc = SNMP_CODEC_NO_ROOM;
        } else if (framed == FRAME_WHOLE) {
            rc = smux_decode_message(agent_in.buf, total, &p);
        }
        VX_RC(rc, "smux_decode_message");
        if (rc != 0) {
            return rc;
        }
        conn_consume(&agent_in, total);
        rc = handle_smux_pdu(p);
        if (rc != 0) {
            return rc;
        }
    }
}

// ---- start-up and the loop -----------------------------------------------------------------

void init_smux_dpi_fds(void) {
    if (smux_fd != -1) {
        return;
    }
    const bool agentx = speaks_agentx();
    smux_fd = agentx ? AgentXconnect() : SMUXconnect();
    if (smux_fd == -1) {
        VX_RC(-1, agentx ? "AgentXconnect" : "SMUXconnect");
        VX_SAY("Connect to agent failed, will retry\n");
        return;
    }
    agent_in.fd = smux_fd;
    agent_in.len = 0;
    VX_TRACE(TRACE_LVL1, agentx ? "AgentX fd: %d\n" : "SMUX fd: %d\n", smux_fd);

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

    int rc = agentx ? agentx_open() : SMUXopen(myname);
    VX_RC(rc, agentx ? "agentx_open" : "SMUXopen");
    if (rc != 0) {
        VX_TRACE(TRACE_LVL1, agentx ? "Error on the AgentX Open\n" : "Error on SMUXopen\n");
        close_agent_connection();
        close_dpi_listener();
        return;
    }

    // A new session starts with nothing registered at the agent, so the subagents' subtrees
    // are announced again (all but one the agent refused before). Over AgentX they go once
    // the master has answered the Open, which is also when the session is ready.
    if (agentx) {
        held_opened();
    } else {
        session_opened();
    }
    register_subtrees();
    char subtree[sizeof dpi_port_subtree];
    memcpy(subtree, dpi_port_subtree, sizeof subtree);
    (void)register_object(subtree, -1);

    if (!agentx) {
        VX_SAY("%s connected to agent, ready to receive requests.....\n", myname);
    }
}

static bool ready(int fd) {
    return fd >= 0 && FD_ISSET(fd, &readyfds);
}

// The earliest moment the loop has something to do without any socket becoming readable.
static int64_t next_deadline(int64_t now_ns) {
    int64_t next = speaks_agentx() ? agentx_next_flush() : session_next_flush();
    if (smux_fd == -1) {
        int64_t retry = now_ns + AGENT_RETRY_SECONDS * NS_PER_S;
        next = retry < next ? retry : next;
    }
    for (int fd : sa_fds) {
        int64_t d = subagent_deadline(fd);
        next = d < next ? d : next;
    }
    return next;
}

// The agent learns that the session ends rather than finding the connection gone, and so
// does every subagent; then the process ends.
[[noreturn]] static void stop_daemon(void) {
    VX_SAY("%s stopping on signal %d\n", myname, static_cast<int>(stop_signal));
    if (speaks_agentx()) {
        agentx_close(AGENTX_CLOSE_SHUTDOWN);
    } else {
        // A request that reached the daemon together with the signal is answered first:
        // the agent waits for that answer and would take the ClosePDU for it.
        if (smux_fd != -1 && handle_smux() != 0) {
            close_agent_connection();
        }
        // The agent drops every registration of the session at once.
        SMUXclose(SMUX_CLOSE_GOING_DOWN);
    }
    if (smux_fd != -1) {
        conn_drain(smux_fd);
        close_agent_connection();
    }
    const unsigned char* close_packet = mkDPIclose(DPI_CLOSE_goingDown);
    for (int fd : sa_fds) {
        if (fd < 0) {
            continue;
        }
        if (close_packet != nullptr) {
            conn_send_last(fd, close_packet, 2 + close_packet[0] * 256 + close_packet[1],
                           "Outgoing DPI packet");
        }
        conn_drain(fd);
        del_sa_fd(fd);
    }
    close_dpi_listener();
    if (!speaks_agentx()) {
        session_counts n = session_get_counts();
        VX_SAY("%lu RReqs sent, %lu taken by the agent as answers\n", n.rreqs_sent,
               n.rreqs_eaten);
    }
    registry_release();
    session_release();
    fflush(stdout);
    exit(0);
}

static void on_stop_signal(int sig) {
    stop_signal = sig;
}

// The stop signals are blocked except while the loop waits, so one that comes during a
// forwarded request lets that request finish, and one that comes between two waits is
// seen by the next wait at once.
static void set_up_signals(sigset_t* wait_mask) {
    signal(SIGPIPE, SIG_IGN);  // a vanished peer must fail the write, not end the daemon
    struct sigaction sa{};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigprocmask(SIG_BLOCK, &block, wait_mask);
    sigdelset(wait_mask, SIGTERM);
    sigdelset(wait_mask, SIGINT);
}

[[noreturn]] static void usage(const char* program) {
    printf("usage:  %s [-d [level]]\n", program);
    printf("\n%s\n", varnex2_banner);
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
    printf("\n%s\n", varnex2_banner);
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

// VARNEX2_DPI_ADDRESS limits who can reach the DPI port. A value that is not an address
// ends the daemon before it connects anywhere, rather than listening wider than meant.
static void read_listen_address(void) {
    const char* text = getenv("VARNEX2_DPI_ADDRESS");
    if (text == nullptr) {
        return;
    }
    in_addr addr{};
    if (inet_pton(AF_INET, text, &addr) != 1) {
        fprintf(stderr,
                "%s: VARNEX2_DPI_ADDRESS=\"%s\" is not an IPv4 address in dotted-decimal "
                "form (such as 127.0.0.1, or 0.0.0.0 for every local address)\n",
                myname, text);
        exit(1);
    }
    dpi_listen_address = addr.s_addr;
}

// VARNEX2_AGENTX makes the daemon an AgentX subagent of the master at that address instead
// of a SMUX peer. A value that cannot be used ends it before it connects anywhere.
static void read_agentx_address(void) {
    const char* text = getenv("VARNEX2_AGENTX");
    if (text == nullptr) {
        return;
    }
    char why[256];
    if (conn_set_agentx_address(text, why, sizeof why) != 0) {
        fprintf(stderr,
                "varnex2: VARNEX2_AGENTX=\"%s\" cannot be used: %s; give the path of the "
                "master's Unix socket or tcp:HOST:PORT\n",
                text, why);
        exit(1);
    }
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
    read_listen_address();
    read_agentx_address();

    VX_SAY("%s, starting...\n%s\n", myname, varnex2_banner);
    sigset_t wait_mask;
    set_up_signals(&wait_mask);

    FD_ZERO(&readyfds);
    init_smux_dpi_fds();

    while (forever) {
        if (stop_signal != 0) {
            stop_daemon();
        }
        int64_t now = vx_now_ns();
        int64_t deadline = next_deadline(now);
        timespec wait{};
        timespec* limit = nullptr;
        if (deadline != INT64_MAX) {
            int64_t left = deadline > now ? deadline - now : 0;
            wait.tv_sec = static_cast<time_t>(left / NS_PER_S);
            wait.tv_nsec = static_cast<long>(left % NS_PER_S);
            limit = &wait;
        }
        int n = conn_wait(limit, &wait_mask);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            perror("select");
            VX_SAY("Error on select");
            exit(0);
        }
        VX_TRACE(TRACE_LVL1, "select returned %d fds\n", n);

        init_smux_dpi_fds();
        if (ready(smux_fd)) {
            VX_TRACE(TRACE_LVL1, speaks_agentx() ? "AgentX request\n" : "SMUX request\n");
            if ((speaks_agentx() ? handle_agentx() : handle_smux()) != 0) {
                VX_SAY("Lost connection to agent\n");
                close_agent_connection();
            }
        }
        if (ready(dpi_fd)) {
            accept_subagent();
        }
        for (int fd : sa_fds) {
            if (fd < 0) {
                continue;
            }
            bool readable = ready(fd);
            if (readable) {
                FD_CLR(fd, &readyfds);
                VX_TRACE(TRACE_LVL1, "DPI request on fd %d\n", fd);
            }
            // Packets may wait in the buffer without the socket being readable: a forwarded
            // request read them along with its answer.
            (void)handle_DPI_request(fd, readable);
        }
        now = vx_now_ns();
        drop_stalled_subagents(now);
        if ((speaks_agentx() ? agentx_flush(now) : session_flush(now)) != 0) {
            VX_SAY("Lost connection to agent\n");
            close_agent_connection();
        }
    }
    return 0;
}
