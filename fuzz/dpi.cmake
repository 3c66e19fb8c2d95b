# The DPI packet parser, with a write-and-read-again property.
varnex_fuzz_target(pDPIpacket dpi_parse.cpp dpisa)
