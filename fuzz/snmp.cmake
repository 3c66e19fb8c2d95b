# The SNMP message and SMUX PDU decoders, each with a decode-encode-decode property.
varnex_fuzz_target(snmp_decode_message snmp_decode.cpp snmpkit)
varnex_fuzz_target(smux_decode_message smux_decode.cpp snmpkit)
