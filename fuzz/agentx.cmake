# The AgentX framer and PDU decoder, with a decode-encode-decode property.
varnex_fuzz_target(agentx_decode agentx_decode.cpp snmpkit)
