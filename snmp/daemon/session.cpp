// The SMUX session: peers file, OpenPDU, writes to the agent, and the RReqs that make the
// agent hold what the registration table wants.
#include "session.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "conn.h"
#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"
#include "trace.h"

const char* myname = "varnex2";
char* myoid = nullptr;
char* mypw = nullptr;
const char varnex2_banner[] =
    "varnex2 version 1.0.00, Mar 16 1998, Compiled " __DATE__ " at " __TIME__;

namespace {

constexpr char peers_path[] = "/etc/snmpd.peers";
constexpr int PEERS_LINE_SIZE = 8192;
constexpr int PEERS_MAX_FIELDS = 16;

constexpr int32_t RREQ_DELETE = 0;
constexpr int32_t RREQ_READ_WRITE = 2;

// When RReqs go out. The agent eats an RReq that reaches it while one of its requests to us
// is on the way; one waiting in its socket when it turns back to its managers is read
// before their next request. So RReqs wait for a pause in the agent's traffic: a GetBulk is
// served as a chain of GetNexts that follow each answer within tens of microseconds (a few
// milliseconds at worst on a loaded host), and a pause of QUIET_NS means the agent has gone
// back to its managers. Under constant load such pauses are rare; after SOFT_HOLD_NS a
// shorter one will do, and after HARD_HOLD_NS the RReq goes at the next chance, so that no
// registration waits for long.
//
// One RReq at a time: when one is eaten, the agent retries the request on the next
// subtree, usually ours too, and would eat the next RReq queued behind it. Only while the
// agent holds nothing of ours can it send us no request, so a session's first RReqs go
// together. After an RReq was eaten, the agent's retry of that request is still to come,
// sent when something wakes its loop; an RReq sent before it would wake the agent and be
// eaten by that retry. So the next RReq waits for a request of the agent to be answered,
// or for AFTER_EATEN_NS.
constexpr int64_t QUIET_NS = 10'000'000;
constexpr int64_t SHORT_QUIET_NS = 5'000'000;
constexpr int64_t SOFT_HOLD_NS = 1'000'000'000;
constexpr int64_t HARD_HOLD_NS = 4'000'000'000;
constexpr int64_t AFTER_EATEN_NS = 1'000'000'000;

uint64_t next_seq = 1;
int64_t last_activity_ns = 0;
int64_t eaten_hold_until_ns = 0;  // no RReq before this unless a request was answered
session_counts counts = {0, 0};

smux_pdu open_pdu;  // the OpenPDU
smux_pdu rreq_pdu;  // RReqs; the subtree container stays its entry's

void trace_subtree(const char* what, const held_subtree* s) {
    if (tracing & TRACE_LVL1) {
        char* text = held_text(s);
        VX_TRACE(TRACE_LVL1, "%s %s\n", what, text != nullptr ? text : "?");
        free(text);
    }
}

}  // namespace

// ---- peers file and open ----

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

int read_peers_file(const char* name) {
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

void wipe_password(void) {
    if (mypw != nullptr) {
        explicit_bzero(mypw, strlen(mypw));
    }
}

int SMUXopen(const char* name) {
    int lines = read_peers_file(name);
    VX_TRACE(TRACE_LVL3, "Using line %d: %s %s\n", lines, name,
             myoid != nullptr ? myoid : "(null)");

    memset(&open_pdu, 0, sizeof open_pdu);
    open_pdu.version = 0;
    open_pdu.type = SMUX_PDU_OPEN;
    open_pdu.oid = myoid != nullptr ? snmp_create_oid_container(myoid) : nullptr;
    if (open_pdu.oid == nullptr) {
        VX_SAY("Cannot create identity\n");
        return -1;
    }
    size_t pw_len = mypw != nullptr ? strlen(mypw) : 0;
    if (pw_len >= sizeof open_pdu.password) {
        // Cutting it would only make the agent refuse the session with a password the
        // administrator never wrote.
        VX_SAY("Password for %s in %s is too long: %zu characters, at most %zu\n", name, peers_path,
               pw_len, sizeof open_pdu.password - 1);
        snmp_free_container(open_pdu.oid);
        open_pdu.oid = nullptr;
        wipe_password();
        return -1;
    }
    static_assert(sizeof varnex2_banner <= sizeof open_pdu.description,
                  "banner must fit the OpenPDU");
    memcpy(open_pdu.description, varnex2_banner, sizeof varnex2_banner - 1);
    open_pdu.description_len = sizeof varnex2_banner - 1;
    if (pw_len > 0) {
        memcpy(open_pdu.password, mypw, pw_len);
    }
    open_pdu.password_len = static_cast<uint32_t>(pw_len);

    uint8_t* buf = nullptr;
    uint32_t len = 0;
    int rc = smux_encode_message(&buf, &len, &open_pdu);
    VX_RC(rc, "smux_encode_message");

    snmp_free_container(open_pdu.oid);
    open_pdu.oid = nullptr;
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

void SMUXclose(int32_t reason) {
    if (smux_fd < 0) {
        return;
    }
    smux_pdu close_pdu;
    memset(&close_pdu, 0, sizeof close_pdu);
    close_pdu.type = SMUX_PDU_CLOSE;
    close_pdu.code = reason;
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    int rc = smux_encode_message(&buf, &len, &close_pdu);
    VX_RC(rc, "smux_encode_message");
    if (rc == 0) {
        conn_send_last(smux_fd, buf, static_cast<int>(len), "SMUXsend");
    }
}

// ---- registrations at the agent ----

void session_opened(void) {
    held_opened();
    last_activity_ns = vx_now_ns();
    eaten_hold_until_ns = 0;
}

void session_lost(void) {
    held_lost();
}

void session_activity(int64_t now_ns) {
    last_activity_ns = now_ns;
}

int64_t session_next_flush(void) {
    if (!held_session_open() || smux_fd < 0) {
        return INT64_MAX;
    }
    int64_t oldest = INT64_MAX;
    for (const held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (s->in_flight) {
            return INT64_MAX;
        }
        if (held_needs_request(s) && s->pending_since < oldest) {
            oldest = s->pending_since;
        }
    }
    if (oldest == INT64_MAX) {
        return INT64_MAX;
    }
    int64_t quiet = last_activity_ns + QUIET_NS;
    int64_t short_quiet = oldest + SOFT_HOLD_NS > last_activity_ns + SHORT_QUIET_NS
                              ? oldest + SOFT_HOLD_NS
                              : last_activity_ns + SHORT_QUIET_NS;
    int64_t hard = oldest + HARD_HOLD_NS;
    int64_t next = quiet < short_quiet ? quiet : short_quiet;
    next = next < hard ? next : hard;
    return next > eaten_hold_until_ns ? next : eaten_hold_until_ns;
}

// Nothing of ours is at the agent, so it cannot send us a request that would eat an RReq.
static bool agent_holds_nothing(void) {
    for (const held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (s->at_agent) {
            return false;
        }
    }
    return true;
}

int session_flush(int64_t now_ns) {
    if (now_ns < session_next_flush()) {
        return 0;
    }
    // Every RReq of a batch in one write: each is a whole PDU, and the agent reads one PDU
    // per receive, leaving the rest queued.
    const bool one_only = !agent_holds_nothing();
    uint8_t batch[SMUX_BUF_SIZE];
    uint32_t used = 0;
    for (held_subtree* s = held_subtrees; s != nullptr; s = s->next) {
        if (!held_needs_request(s)) {
            continue;
        }
        memset(&rreq_pdu, 0, sizeof rreq_pdu);
        rreq_pdu.type = SMUX_PDU_RREQ;
        rreq_pdu.priority = -1;
        rreq_pdu.operation = s->wanted ? RREQ_READ_WRITE : RREQ_DELETE;
        rreq_pdu.oid = s->oid;
        uint8_t* buf = nullptr;
        uint32_t len = 0;
        int rc = smux_encode_message(&buf, &len, &rreq_pdu);
        rreq_pdu.oid = nullptr;
        VX_RC(rc, "smux_encode_message");
        if (rc != 0) {
            s->refused = 1;  // not a subtree the agent could take; never offered
            continue;
        }
        if (used + len > sizeof batch) {
            break;  // the rest goes with the next batch
        }
        memcpy(batch + used, buf, len);
        used += len;
        held_sent(s, next_seq++);
        counts.rreqs_sent++;
        trace_subtree(s->wanted ? "RReq add" : "RReq delete", s);
        if (one_only) {
            break;
        }
    }
    if (used == 0) {
        return 0;
    }
    last_activity_ns = now_ns;
    return SMUXsend(batch, static_cast<int>(used));
}

int session_rrsp(int32_t code) {
    held_subtree* s = held_oldest_in_flight();
    if (s == nullptr) {
        return code < 0 ? -1 : 0;
    }
    held_answered(s, code >= 0);
    return code < 0 ? -1 : 0;
}

int session_request_eaten(void) {
    held_subtree* s = held_oldest_in_flight();
    if (s == nullptr) {
        eaten_hold_until_ns = 0;  // this request will be answered
        return 0;
    }
    counts.rreqs_eaten++;
    eaten_hold_until_ns = vx_now_ns() + AFTER_EATEN_NS;
    if (tracing & TRACE_LVL1) {
        trace_subtree("RReq taken by the agent as an answer, to be sent again:", s);
    }
    held_unanswered(s);
    return 1;
}

session_counts session_get_counts(void) {
    return counts;
}

void session_release(void) {
    free(myoid);
    myoid = nullptr;
    free(mypw);
    mypw = nullptr;
    held_release();
}
