# OID text to container and back.
varnex_fuzz_target(oid_text oid_text.cpp snmpkit)
