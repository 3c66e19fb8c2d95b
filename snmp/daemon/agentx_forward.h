#pragma once
// The AgentX master's requests, answered through the DPI subagents with SNMPv2 semantics:
//
//   Get        one DPI GET per varbind; DPI's exceptions come back as AgentX exceptions
//   GetNext    DPI GETNEXTs along the registration table, within the search range: an
//              answer at or past the range's end is endOfMibView, and a range that includes
//              its start asks for the start itself first
//   GetBulk    the non-repeaters as GetNext once, then the repeaters row by row, each a
//              GetNext from the row before, until every one is at endOfMibView
//   TestSet    one DPI SET per subagent with all of its varbinds
//   CommitSet  DPI COMMIT to each subagent whose SET passed
//   UndoSet    DPI UNDO to each subagent that took a SET or COMMIT
//   CleanupSet ends the transaction; a SET never committed is undone first
//
// so a Set of several varbinds is all or nothing, as it cannot be over SMUX. DPI's error
// codes are SNMPv2's; Counter64 values are carried. A subagent dropped during a GetNext or
// GetBulk takes its subtrees out of the walk, which goes on past them.

// Reads what the master sent and acts on every whole PDU. 0, or non-zero when the session
// must end (the master closed it, the connection failed, the stream cannot be cut).
[[nodiscard]] int handle_agentx(void);

// The master connection is gone: a Set transaction in progress is abandoned, its SETs not
// yet committed undone.
void agentx_forward_lost(void);
