// The library banner. The build date in it tells which build of the library a trace came
// from.
#include "snmp_version.h"

#include <cstdio>

static const char banner[] = "AGENTKIT, 2.0.00, Mar 16 1998, Compiled " __DATE__ " " __TIME__;

void snmp_print_version(void)
{
    std::printf("%s\n", banner);
}

const char* snmp_get_ptr_to_version(void)
{
    return banner;
}
