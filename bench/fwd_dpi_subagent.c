/*
 * fwd_dpi_subagent: the forwarding-path benchmark's minimal DPI subagent, written against
 * the DPI library as any subagent would be. It learns the DPI port from the agent, opens a
 * session, registers the benchmark subtree and answers GET and GETNEXT from the table in
 * fwd_objects.h; nothing else.
 *
 * Usage: fwd_dpi_subagent [-n objects] [-r registrations] [-h host] [-c community]
 * With -r R > 1 it also registers R - 1 subtrees that hold nothing, all before the benchmark
 * subtree in OID order (1.3.6.1.4.1.99998.k), so that the daemon's registration table has R
 * entries of ours and a request for the benchmark subtree sorts after all of them. (Empty
 * subtrees after it would each be asked in turn at the end of every walk.)
 * SIGTERM or SIGINT closes the session and ends it.
 */
#define _POSIX_C_SOURCE 200809L

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fwd_objects.h"
#include "snmp_dpi.h"

#define FWD_GROUP FWD_ROOT_TEXT "."

/* Longer names than this are never ours; they are parsed only as far as this. */
enum { MAX_SUBIDS = 128 };

static volatile sig_atomic_t stop;

static void on_signal(int sig) {
    (void)sig;
    stop = 1;
}

/* Sub-identifiers of a dotted OID text, at most MAX_SUBIDS of them. */
static size_t parse_oid(const char* text, uint32_t* subids) {
    size_t n = 0;
    while (text != NULL && *text != '\0' && n < MAX_SUBIDS) {
        char* end;
        unsigned long v = strtoul(text, &end, 10);
        if (end == text) {
            break;
        }
        subids[n++] = (uint32_t)v;
        text = *end == '.' ? end + 1 : end;
    }
    return n;
}

static dpi_set_packet* add_object(dpi_set_packet* chain, uint32_t n) {
    char instance[24];
    snprintf(instance, sizeof instance, "%d.%u", FWD_COLUMN, (unsigned)n);
    int32_t value = (int32_t)n;
    return mkDPIset_packet(chain, FWD_GROUP, instance, DPI_TYPE_Integer32, 4, &value);
}

/* GETNEXT records are laid out as GET records, so one walk over the chain serves both. */
static dpi_set_packet* answer(const dpi_get_packet* get, int next, uint32_t count) {
    dpi_set_packet* chain = NULL;
    uint32_t subids[MAX_SUBIDS];
    for (; get != NULL; get = get->next) {
        size_t len = parse_oid(get->object_id, subids);
        uint32_t n = next ? fwd_next_index(subids, len, count) : fwd_get_index(subids, len, count);
        dpi_set_packet* grown;
        if (n != 0) {
            grown = add_object(chain, n);
        } else {
            /* endOfMibView sends the agent on to the next subtree. */
            grown =
                mkDPIset_packet(chain, get->group_id, get->instance_id,
                                next ? DPI_TYPE_endOfMibView : DPI_TYPE_noSuchInstance, 0, NULL);
        }
        if (grown == NULL) {
            fDPIset_packet(chain);
            return NULL;
        }
        chain = grown;
    }
    return chain;
}

static int send_packet(int handle, const unsigned char* packet) {
    return packet == NULL ? -1 : DPIsend_packet_to_agent(handle, packet, DPI_PACKET_LEN(packet));
}

static int expect_ok(int handle, const char* what) {
    unsigned char* packet = NULL;
    unsigned long length = 0;
    int rc = DPIawait_packet_from_agent(handle, 10, &packet, &length);
    dpi_hdr* reply = rc == DPI_RC_OK && packet != NULL ? pDPIpacket(packet) : NULL;
    int code = -1;
    if (reply != NULL && reply->packet_type == SNMP_DPI_RESPONSE) {
        code = ((dpi_resp_packet*)reply->data)->error_code;
    }
    fDPIparse(reply);
    if (code != DPI_ERROR_noError) {
        fprintf(stderr, "fwd_dpi_subagent: %s failed (rc=%d, error code %d)\n", what, rc, code);
        return -1;
    }
    return 0;
}

int main(int argc, char** argv) {
    const char* host = "127.0.0.1";
    const char* community = "public";
    uint32_t count = FWD_DEFAULT_OBJECTS;
    unsigned long registrations = 1;
    int opt;
    while ((opt = getopt(argc, argv, "n:r:h:c:")) != -1) {
        if (opt == 'n') {
            count = (uint32_t)strtoul(optarg, NULL, 10);
        } else if (opt == 'r') {
            registrations = strtoul(optarg, NULL, 10);
        } else if (opt == 'h') {
            host = optarg;
        } else if (opt == 'c') {
            community = optarg;
        } else {
            fprintf(stderr, "usage: %s [-n objects] [-r registrations] [-h host] [-c community]\n",
                    argv[0]);
            return 2;
        }
    }

    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);

    int handle = DPIconnect_to_agent_TCP(host, community);
    if (handle < 0) {
        fprintf(stderr, "fwd_dpi_subagent: cannot reach the DPI agent via %s (rc=%d)\n", host,
                handle);
        return 1;
    }
    static const char descr[] = "varnex2 forwarding benchmark DPI subagent";
    if (send_packet(handle, mkDPIopen(FWD_ROOT_TEXT, descr, 10, 1, 0, 0, NULL)) != 0 ||
        expect_ok(handle, "OPEN") != 0) {
        DPIdisconnect_from_agent(handle);
        return 1;
    }
    /* The benchmark subtree comes last: once it answers, the others are in place. */
    for (unsigned long k = 1; k < registrations; k++) {
        char group[48];
        snprintf(group, sizeof group, "1.3.6.1.4.1.99998.%lu.", k);
        if (send_packet(handle, mkDPIreg(10, -1, group, 0, 0)) != 0 ||
            expect_ok(handle, "REGISTER") != 0) {
            DPIdisconnect_from_agent(handle);
            return 1;
        }
    }
    if (send_packet(handle, mkDPIreg(10, -1, FWD_GROUP, 0, 0)) != 0 ||
        expect_ok(handle, "REGISTER") != 0) {
        DPIdisconnect_from_agent(handle);
        return 1;
    }
    printf("fwd_dpi_subagent: serving %u objects under %s\n", (unsigned)count, FWD_ROOT_TEXT);
    fflush(stdout);

    int status = 0;
    while (!stop) {
        unsigned char* packet = NULL;
        unsigned long length = 0;
        /* A bounded wait, so that a signal landing just before it is seen within a second. */
        int rc = DPIawait_packet_from_agent(handle, 1, &packet, &length);
        if (rc == DPI_RC_TIMEOUT || (rc != DPI_RC_OK && stop)) {
            continue;
        }
        if (rc != DPI_RC_OK) {
            fprintf(stderr, "fwd_dpi_subagent: connection to the agent lost (rc=%d)\n", rc);
            status = 1;
            break;
        }
        dpi_hdr* request = packet != NULL ? pDPIpacket(packet) : NULL;
        if (request == NULL) {
            continue;
        }
        int type = request->packet_type;
        if (type == SNMP_DPI_GET || type == SNMP_DPI_GETNEXT) {
            dpi_set_packet* varBinds = answer(request->data, type == SNMP_DPI_GETNEXT, count);
            int error = varBinds != NULL ? DPI_ERROR_noError : DPI_ERROR_genErr;
            if (send_packet(handle, mkDPIresp(request, error, 0, varBinds)) != 0) {
                fprintf(stderr, "fwd_dpi_subagent: cannot answer the agent\n");
                status = 1;
            }
        }
        fDPIparse(request);
        if (status != 0) {
            break;
        }
    }
    if (stop) {
        if (send_packet(handle, mkDPIclose(2)) == 0) {
            unsigned char* packet = NULL;
            unsigned long length = 0;
            (void)DPIawait_packet_from_agent(handle, 2, &packet, &length);
        }
    }
    DPIdisconnect_from_agent(handle);
    return status;
}
