#pragma once
// Everything a DPI 2.0 subagent needs: packet building, parsing and release, the
// connection calls, and the port query. Compiles as C11 and as C++.

#include "snmplDPI.h"
#include "snmpmDPI.h"
#include "snmpqDPI.h"

// The traditional spelling of the packet-size helper.
#ifndef DPI_PACKET_LEN
#define DPI_PACKET_LEN(packet) dpi_packet_len(packet)
#endif
