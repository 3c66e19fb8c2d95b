/* A C subagent's first two packets, built against the installed DPI library: an OPEN that
 * introduces the subagent and a REGISTER for its subtree, each printed in hexadecimal as it
 * would go on the wire. Build: cc dpi_c_api.c $(pkg-config --cflags --libs dpisa) */

#include <snmp_dpi.h>
#include <stdio.h>

/* Each packet lives in the library's one serialisation buffer, so it is printed before the
 * next one is built. */
static int print_packet(const char* label, const unsigned char* packet) {
    unsigned i;
    unsigned len;

    if (packet == NULL) {
        fprintf(stderr, "%s: the packet could not be built\n", label);
        return 1;
    }
    len = DPI_PACKET_LEN(packet);
    printf("%s (%u bytes):", label, len);
    for (i = 0; i < len; i++) {
        printf(" %02X", packet[i]);
    }
    printf("\n");
    return 0;
}

int main(void) {
    int failed = 0;

    failed |=
        print_packet("OPEN", mkDPIopen("1.3.6.1.4.1.2.3.1", "example subagent", 10, 1, 0, 0, NULL));
    /* timeout 5 s, priority -1 (the best the agent has), no bulk or view selection */
    failed |= print_packet("REGISTER", mkDPIreg(5, -1, "1.3.6.1.4.1.2.3.1.", 0, 0));
    /* Nothing is connected yet, so the first handle is not valid. */
    printf("handle 0 before connecting: %d\n", DPIget_fd_for_handle(0));
    return failed;
}
