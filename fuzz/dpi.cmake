# The DPI packet parser, with a write-and-read-again property, and the port-query answer decoder.
varnex_fuzz_target(pDPIpacket dpi_parse.cpp dpisa)
varnex_fuzz_target(extract_DPI_port dpi_port.cpp dpisa)
