/*
 * fwd_agentx_subagent: the forwarding-path benchmark's AgentX subagent, on net-snmp's agent
 * library as a subagent written for that protocol would be: one handler registered for the
 * benchmark subtree answers GET and GETNEXT from the table in fwd_objects.h.
 *
 * Usage: fwd_agentx_subagent [-n objects] [-x agentx-socket]
 * SIGTERM or SIGINT ends it.
 */
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fwd_objects.h"

#define FWD_APP "fwd_agentx_subagent"

/* Longer names than this are never ours; they are looked at only this far. */
enum { MAX_SUBIDS = 128 };

static uint32_t count = FWD_DEFAULT_OBJECTS;
static volatile sig_atomic_t stop;

static void on_signal(int sig) {
    (void)sig;
    stop = 1;
}

static size_t to_subids(const oid* name, size_t len, uint32_t* subids) {
    size_t n = len < MAX_SUBIDS ? len : MAX_SUBIDS;
    for (size_t i = 0; i < n; i++) {
        subids[i] = name[i] > UINT32_MAX ? UINT32_MAX : (uint32_t)name[i];
    }
    return n;
}

static int handle_objects(netsnmp_mib_handler* handler, netsnmp_handler_registration* reg,
                          netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
    (void)handler;
    (void)reg;
    uint32_t subids[MAX_SUBIDS];
    for (netsnmp_request_info* r = requests; r != NULL; r = r->next) {
        if (r->processed) {
            continue;
        }
        netsnmp_variable_list* vb = r->requestvb;
        size_t len = to_subids(vb->name, vb->name_length, subids);
        if (info->mode == MODE_GET) {
            uint32_t n = fwd_get_index(subids, len, count);
            if (n == 0) {
                netsnmp_set_request_error(info, r, SNMP_NOSUCHINSTANCE);
                continue;
            }
            long value = (long)n;
            snmp_set_var_typed_value(vb, ASN_INTEGER, &value, sizeof value);
        } else if (info->mode == MODE_GETNEXT) {
            uint32_t n = fwd_next_index(subids, len, count);
            /* Left without a value, the library goes on in the next subtree. */
            if (n == 0) {
                continue;
            }
            oid name[FWD_OBJECT_LEN];
            for (size_t i = 0; i < FWD_ROOT_LEN; i++) {
                name[i] = fwd_root[i];
            }
            name[FWD_ROOT_LEN] = FWD_COLUMN;
            name[FWD_ROOT_LEN + 1] = n;
            snmp_set_var_objid(vb, name, FWD_OBJECT_LEN);
            long value = (long)n;
            snmp_set_var_typed_value(vb, ASN_INTEGER, &value, sizeof value);
        } else {
            netsnmp_set_request_error(info, r, SNMP_ERR_NOTWRITABLE);
        }
    }
    return SNMP_ERR_NOERROR;
}

int main(int argc, char** argv) {
    const char* socket_path = NULL;
    int opt;
    while ((opt = getopt(argc, argv, "n:x:")) != -1) {
        if (opt == 'n') {
            count = (uint32_t)strtoul(optarg, NULL, 10);
        } else if (opt == 'x') {
            socket_path = optarg;
        } else {
            fprintf(stderr, "usage: %s [-n objects] [-x agentx-socket]\n", argv[0]);
            return 2;
        }
    }

    /* No SA_RESTART: the signal has to cut the library's select short. */
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);

    snmp_enable_stderrlog();
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    if (socket_path != NULL) {
        netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, socket_path);
    }
    if (init_agent(FWD_APP) != 0) {
        fprintf(stderr, FWD_APP ": init_agent failed\n");
        return 1;
    }

    oid root[FWD_ROOT_LEN];
    for (size_t i = 0; i < FWD_ROOT_LEN; i++) {
        root[i] = fwd_root[i];
    }
    netsnmp_handler_registration* reg = netsnmp_create_handler_registration(
        "fwdObjects", handle_objects, root, FWD_ROOT_LEN, HANDLER_CAN_RONLY);
    if (reg == NULL || netsnmp_register_handler(reg) != MIB_REGISTERED_OK) {
        fprintf(stderr, FWD_APP ": cannot register %s\n", FWD_ROOT_TEXT);
        return 1;
    }
    init_snmp(FWD_APP);
    printf(FWD_APP ": serving %u objects under %s\n", (unsigned)count, FWD_ROOT_TEXT);
    fflush(stdout);

    while (!stop) {
        agent_check_and_process(1);
    }
    snmp_shutdown(FWD_APP);
    return 0;
}
