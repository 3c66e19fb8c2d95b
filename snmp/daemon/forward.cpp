// Placeholder until the forwarding module lands: every forwarded request fails with genErr
// and traps are not sent.
#include "forward.h"

int remote_mib_req(uint8_t, snmp_varBind*, registration_entry*, int) {
    return 5;
}

void process_dpi_trapv1(int, int, const char*, dpi_set_packet*) {}
