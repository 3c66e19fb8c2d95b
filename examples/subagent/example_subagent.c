/*
 * example_subagent: a complete DPI 2.0 subagent in one file, to copy from.
 *
 * It serves six scalar objects under 1.3.6.1.4.1.99999.2 through the DPI agent that runs
 * beside the SNMP master agent:
 *
 *   .1.0  exampleDescr     DisplayString  read-only   what this program is
 *   .2.0  exampleAnswer    Integer32      read-only   42
 *   .3.0  exampleRequests  Counter32      read-only   GET/GETNEXT/SET packets served
 *   .4.0  exampleUpTime    TimeTicks      read-only   hundredths of a second since start
 *   .5.0  exampleAddress   IpAddress      read-only   127.0.0.1
 *   .6.0  exampleLevel     Integer32      read-write  0..100; a change sends a trap
 *
 * Usage: example_subagent [-h host] [-c community]   (defaults 127.0.0.1 and public)
 *
 * The DPI port is learned from the master agent itself (an SNMP Get of the DPI port object,
 * sent to its SNMP port: 161, or SNMP_PORT from the environment), so nothing but the
 * agent's host and a read community has to be configured. SIGINT or SIGTERM closes the
 * session and ends the program.
 */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "snmp_dpi.h"

/* The subtree we register. DPI writes a group with a final dot. */
#define EXAMPLE_GROUP "1.3.6.1.4.1.99999.2."
/* The same subtree as an enterprise OID for our traps, which never ends with a dot. */
#define EXAMPLE_ENTERPRISE "1.3.6.1.4.1.99999.2"
#define EXAMPLE_TRAP_LEVEL_CHANGED 1

enum example_id {
    OBJ_DESCR,
    OBJ_ANSWER,
    OBJ_REQUESTS,
    OBJ_UPTIME,
    OBJ_ADDRESS,
    OBJ_LEVEL,
    OBJ_COUNT
};

struct example_object {
    const char* instance; /* below EXAMPLE_GROUP; the table is sorted by it */
    int type;             /* DPI value type */
    int writable;
};

static const struct example_object objects[OBJ_COUNT] = {
    [OBJ_DESCR] = {"1.0", DPI_TYPE_DisplayString, 0}, /* exampleDescr */
    [OBJ_ANSWER] = {"2.0", DPI_TYPE_Integer32, 0},    /* exampleAnswer */
    [OBJ_REQUESTS] = {"3.0", DPI_TYPE_Counter32, 0},  /* exampleRequests */
    [OBJ_UPTIME] = {"4.0", DPI_TYPE_TimeTicks, 0},    /* exampleUpTime */
    [OBJ_ADDRESS] = {"5.0", DPI_TYPE_IpAddress, 0},   /* exampleAddress */
    [OBJ_LEVEL] = {"6.0", DPI_TYPE_Integer32, 1},     /* exampleLevel */
};

static const char descr[] = "varnex2 example subagent";

static int32_t level = 5;
/* A SET only checks and remembers the new value; the COMMIT that follows applies it. This
 * is what lets the agent refuse a whole request when any of its varBinds is refused. */
static int32_t pending_level;
static int have_pending;
static uint32_t requests;
static struct timespec started;

static volatile sig_atomic_t stop;

static void on_signal(int sig) {
    (void)sig;
    stop = 1;
}

/* Numeric order of two dotted OID texts, so that "10.0" sorts after "9.0". */
static int compare_oid(const char* a, const char* b) {
    for (;;) {
        if (*a == '\0' || *b == '\0') {
            return (*a != '\0') - (*b != '\0');
        }
        char* end_a;
        char* end_b;
        unsigned long x = strtoul(a, &end_a, 10);
        unsigned long y = strtoul(b, &end_b, 10);
        if (x != y) {
            return x < y ? -1 : 1;
        }
        if (end_a == a || end_b == b) {
            return strcmp(a, b);
        }
        a = *end_a == '.' ? end_a + 1 : end_a;
        b = *end_b == '.' ? end_b + 1 : end_b;
    }
}

static void full_oid(int id, char* out, size_t size) {
    snprintf(out, size, "%s%s", EXAMPLE_GROUP, objects[id].instance);
}

static int find_object(const char* object_id) {
    char oid[128];
    for (int id = 0; id < OBJ_COUNT; id++) {
        full_oid(id, oid, sizeof oid);
        if (compare_oid(object_id, oid) == 0) {
            return id;
        }
    }
    return -1;
}

/* The first object after `object_id`; the table is in OID order. */
static int find_next_object(const char* object_id) {
    char oid[128];
    for (int id = 0; id < OBJ_COUNT; id++) {
        full_oid(id, oid, sizeof oid);
        if (compare_oid(object_id, oid) < 0) {
            return id;
        }
    }
    return -1;
}

/* Appends the object's current value to a varBind chain. Integers go in host order: the
 * library turns them into network order on the wire. */
static dpi_set_packet* add_value(dpi_set_packet* chain, int id) {
    const struct example_object* o = &objects[id];
    uint32_t word = 0;
    static const unsigned char loopback[4] = {127, 0, 0, 1};
    struct timespec now;

    switch (id) {
        case OBJ_DESCR:
            return mkDPIset_packet(chain, EXAMPLE_GROUP, o->instance, o->type, (int)strlen(descr),
                                   descr);
        case OBJ_ADDRESS:
            return mkDPIset_packet(chain, EXAMPLE_GROUP, o->instance, o->type, 4, loopback);
        case OBJ_ANSWER:
            word = 42;
            break;
        case OBJ_REQUESTS:
            word = requests;
            break;
        case OBJ_UPTIME:
            clock_gettime(CLOCK_MONOTONIC, &now);
            word = (uint32_t)((now.tv_sec - started.tv_sec) * 100 +
                              (now.tv_nsec - started.tv_nsec) / 10000000);
            break;
        case OBJ_LEVEL:
            word = (uint32_t)level;
            break;
        default:
            return NULL;
    }
    return mkDPIset_packet(chain, EXAMPLE_GROUP, o->instance, o->type, 4, &word);
}

static int send_packet(int handle, const unsigned char* packet) {
    if (packet == NULL) {
        return -1;
    }
    return DPIsend_packet_to_agent(handle, packet, DPI_PACKET_LEN(packet));
}

/* Waits for one packet and parses it; null on time-out, a lost connection or garbage. */
static dpi_hdr* await_packet(int handle, int timeout, int* rc) {
    unsigned char* packet = NULL;
    unsigned long length = 0;
    *rc = DPIawait_packet_from_agent(handle, timeout, &packet, &length);
    if (*rc != DPI_RC_OK || packet == NULL) {
        return NULL;
    }
    return pDPIpacket(packet);
}

/* OPEN and REGISTER are the only packets whose answer we wait for; the agent answers each
 * before it sends us anything else. */
static int expect_ok(int handle, const char* what) {
    int rc;
    dpi_hdr* answer = await_packet(handle, 10, &rc);
    if (answer == NULL || answer->packet_type != SNMP_DPI_RESPONSE) {
        fprintf(stderr, "example_subagent: no answer to %s (rc=%d)\n", what, rc);
        fDPIparse(answer);
        return -1;
    }
    int code = ((dpi_resp_packet*)answer->data)->error_code;
    fDPIparse(answer);
    if (code != DPI_ERROR_noError) {
        fprintf(stderr, "example_subagent: %s refused, error code %d\n", what, code);
        return -1;
    }
    return 0;
}

static dpi_set_packet* answer_get(const dpi_get_packet* get) {
    dpi_set_packet* chain = NULL;
    for (; get != NULL; get = get->next) {
        int id = find_object(get->object_id);
        dpi_set_packet* grown = id >= 0 ? add_value(chain, id)
                                        : mkDPIset_packet(chain, get->group_id, get->instance_id,
                                                          DPI_TYPE_noSuchObject, 0, NULL);
        if (grown == NULL) {
            fDPIset_packet(chain);
            return NULL;
        }
        chain = grown;
    }
    return chain;
}

/* The daemon lays GETNEXT out as GET; the object is the one to start after. */
static dpi_set_packet* answer_next(const dpi_next_packet* next) {
    dpi_set_packet* chain = NULL;
    for (; next != NULL; next = next->next) {
        int id = find_next_object(next->object_id);
        /* endOfMibView tells the agent to go on in the next subtree. */
        dpi_set_packet* grown = id >= 0 ? add_value(chain, id)
                                        : mkDPIset_packet(chain, next->group_id, next->instance_id,
                                                          DPI_TYPE_endOfMibView, 0, NULL);
        if (grown == NULL) {
            fDPIset_packet(chain);
            return NULL;
        }
        chain = grown;
    }
    return chain;
}

/* Checks a SET and remembers it for the COMMIT. Returns a DPI error code and, for an error,
 * the 1-based position of the varBind at fault. */
static int check_set(const dpi_set_packet* vb, int32_t* index) {
    have_pending = 0;
    for (*index = 1; vb != NULL; vb = vb->next, (*index)++) {
        int id = find_object(vb->object_id);
        if (id < 0) {
            return DPI_ERROR_noCreation;
        }
        if (!objects[id].writable) {
            return DPI_ERROR_notWritable;
        }
        if (vb->value_type != DPI_TYPE_Integer32 || vb->value_len != 4) {
            return DPI_ERROR_wrongType;
        }
        int32_t value;
        memcpy(&value, vb->value, sizeof value);
        if (value < 0 || value > 100) {
            return DPI_ERROR_wrongValue;
        }
        pending_level = value;
        have_pending = 1;
    }
    *index = 0;
    return DPI_ERROR_noError;
}

static void send_level_trap(int handle) {
    dpi_set_packet* vb = add_value(NULL, OBJ_LEVEL);
    /* mkDPItrape takes the varBinds over, whatever happens. */
    const unsigned char* trap =
        mkDPItrape(DPI_TRAP_enterpriseSpecific, EXAMPLE_TRAP_LEVEL_CHANGED, vb, EXAMPLE_ENTERPRISE);
    if (send_packet(handle, trap) != DPI_RC_OK) {
        fprintf(stderr, "example_subagent: could not send the trap\n");
    }
}

/* Serves one request from the agent. Returns -1 when the connection is no longer usable. */
static int serve(int handle, dpi_hdr* request) {
    int32_t error_index = 0;
    int error_code = DPI_ERROR_noError;
    dpi_set_packet* varBinds = NULL;
    int level_changed = 0;

    switch (request->packet_type) {
        case SNMP_DPI_GET:
            requests++;
            varBinds = answer_get(request->data);
            error_code = varBinds != NULL ? DPI_ERROR_noError : DPI_ERROR_genErr;
            break;
        case SNMP_DPI_GETNEXT:
            requests++;
            varBinds = answer_next(request->data);
            error_code = varBinds != NULL ? DPI_ERROR_noError : DPI_ERROR_genErr;
            break;
        case SNMP_DPI_SET:
            requests++;
            error_code = check_set(request->data, &error_index);
            break;
        case SNMP_DPI_COMMIT:
            if (have_pending) {
                level_changed = pending_level != level;
                level = pending_level;
                have_pending = 0;
            }
            break;
        case SNMP_DPI_UNDO:
            have_pending = 0;
            break;
        default:
            /* Nothing else is a request to us; it gets no answer. */
            return 0;
    }

    /* The trap goes out before the RESPONSE: the agent is waiting for this answer and
     * forwards a trap that arrives meanwhile at once, so the trap cannot cross a request
     * that the agent sends after the answer. */
    if (level_changed) {
        printf("example_subagent: exampleLevel is now %d\n", (int)level);
        fflush(stdout);
        send_level_trap(handle);
    }
    if (send_packet(handle, mkDPIresp(request, error_code, error_index, varBinds)) != 0) {
        return -1;
    }
    return 0;
}

int main(int argc, char** argv) {
    const char* host = "127.0.0.1";
    const char* community = "public";
    int opt;
    while ((opt = getopt(argc, argv, "h:c:")) != -1) {
        if (opt == 'h') {
            host = optarg;
        } else if (opt == 'c') {
            community = optarg;
        } else {
            fprintf(stderr, "usage: %s [-h host] [-c community]\n", argv[0]);
            return 2;
        }
    }

    /* No SA_RESTART: a signal must be able to cut a wait short. */
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    clock_gettime(CLOCK_MONOTONIC, &started);

    /* DPIconnect_to_agent_TCP asks the agent for the port itself; asking once more here
     * only serves to show what it learned. */
    int port = qDPIport(host, community, DPI_SELECTOR_DPI_PORT);
    int handle = DPIconnect_to_agent_TCP(host, community);
    if (handle < 0) {
        fprintf(stderr, "example_subagent: cannot reach the DPI agent via %s (rc=%d)\n", host,
                handle);
        return 1;
    }
    printf("example_subagent: connected to the DPI agent on port %d\n", port);

    if (send_packet(handle, mkDPIopen(EXAMPLE_ENTERPRISE, descr, 10, 1, 0, 0, NULL)) != 0 ||
        expect_ok(handle, "OPEN") != 0) {
        DPIdisconnect_from_agent(handle);
        return 1;
    }
    /* Priority -1 leaves the choice to the agent. */
    if (send_packet(handle, mkDPIreg(10, -1, EXAMPLE_GROUP, 0, 0)) != 0 ||
        expect_ok(handle, "REGISTER") != 0) {
        DPIdisconnect_from_agent(handle);
        return 1;
    }
    printf("example_subagent: serving %s\n", EXAMPLE_ENTERPRISE);
    fflush(stdout);

    int status = 0;
    while (!stop) {
        int rc;
        /* A short wait, not an endless one: a signal that lands just before the wait
         * starts is then noticed within a second. */
        dpi_hdr* request = await_packet(handle, 1, &rc);
        if (request == NULL) {
            if (rc == DPI_RC_TIMEOUT || stop) {
                continue;
            }
            if (rc == DPI_RC_OK) {
                fprintf(stderr, "example_subagent: ignoring a packet that does not parse\n");
                continue;
            }
            fprintf(stderr, "example_subagent: connection to the agent lost (rc=%d)\n", rc);
            status = 1;
            break;
        }
        if (serve(handle, request) != 0) {
            fDPIparse(request);
            fprintf(stderr, "example_subagent: cannot answer the agent\n");
            status = 1;
            break;
        }
        fDPIparse(request);
    }

    if (stop) {
        /* The agent answers a CLOSE; we wait briefly for that, so that it has read the
         * CLOSE before the connection goes away. */
        if (send_packet(handle, mkDPIclose(DPI_CLOSE_goingDown)) == 0) {
            int rc;
            fDPIparse(await_packet(handle, 2, &rc));
        }
        printf("example_subagent: closed\n");
    }
    DPIdisconnect_from_agent(handle);
    return status;
}
