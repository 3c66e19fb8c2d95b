// Packet dumps, numbered across the whole process.
#include "trace.h"

#include "snmp_version.h"

int tracing = 0;

static int count = 1;  // running number of the next packet dump

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
