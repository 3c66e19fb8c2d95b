# The port-query answer decoder of the DPI library.
varnex_fuzz_target(extract_DPI_port dpi_port.cpp dpisa)
