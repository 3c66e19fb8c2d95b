#pragma once
// The daemon's main module: command line, start-up, the loop that serves the agent, the DPI
// listener and the subagents, and what is done with each PDU and packet that arrives.
#include "conn.h"
#include "session.h"
#include "trace.h"

extern int forever;

// Brings up whatever of agent connection, DPI listener and session (SMUX, or AgentX when
// VARNEX2_AGENTX names the master) is missing.
void init_smux_dpi_fds(void);
// Reads what the agent sent and acts on every whole PDU. 0, or non-zero when the session
// must end.
[[nodiscard]] int handle_smux(void);
// Reads what subagent `fd` sent when `readable`, then acts on every whole packet in its
// buffer. 0; -1 when the subagent was dropped for a read, framing, parse or build failure;
// 5 when an answer could not be written (dropped too).
int handle_DPI_request(int fd, bool readable);
