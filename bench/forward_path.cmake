# The programs forward_path.sh runs at the far end of each path it measures: a DPI subagent
# behind the daemon, a bare SMUX peer, a byte relay to put in the daemon's place, and an AgentX subagent on net-snmp's agent library
# (built only when libsnmp-dev is installed). The DPI subagent has a file of its own,
# fwd_dpi_subagent.cmake, since the tests build it as well.
include(${CMAKE_CURRENT_LIST_DIR}/fwd_dpi_subagent.cmake)

add_executable(fwd_smux_peer ${CMAKE_CURRENT_LIST_DIR}/fwd_smux_peer.cpp)
target_link_libraries(fwd_smux_peer PRIVATE snmpkit)
add_executable(fwd_relay ${CMAKE_CURRENT_LIST_DIR}/fwd_relay.c)

find_path(NETSNMP_INCLUDE_DIR net-snmp/agent/net-snmp-agent-includes.h)
find_library(NETSNMP_AGENT_LIBRARY netsnmpagent)
find_library(NETSNMP_LIBRARY netsnmp)
if(NETSNMP_INCLUDE_DIR AND NETSNMP_AGENT_LIBRARY AND NETSNMP_LIBRARY)
  add_executable(fwd_agentx_subagent ${CMAKE_CURRENT_LIST_DIR}/fwd_agentx_subagent.c)
  # net-snmp's headers are not written for our warning set; as system headers they are exempt.
  target_include_directories(fwd_agentx_subagent SYSTEM PRIVATE ${NETSNMP_INCLUDE_DIR})
  target_link_libraries(fwd_agentx_subagent PRIVATE ${NETSNMP_AGENT_LIBRARY} ${NETSNMP_LIBRARY})
else()
  message(STATUS "net-snmp's agent library (libsnmp-dev) not found: fwd_agentx_subagent is not built")
endif()
