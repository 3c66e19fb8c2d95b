#pragma once
// How values and error codes pass between DPI and SNMP: the tables both forwarding paths
// (SMUX with SNMPv1 semantics, AgentX with SNMPv2 ones) read.
#include <array>
#include <cstdint>

#include "snmp_container.h"
#include "snmp_dpi.h"

// How an SNMP value of a Set travels in DPI. A tag outside the table has no DPI form.
struct snmp_to_dpi_row {
    uint8_t tag;
    int dpi_type;  // 0: decided by the hint (OCTET STRING) or made from text (OID)
};
inline constexpr std::array<snmp_to_dpi_row, 8> snmp_to_dpi_table{{
    {.tag = SNMP_TAG_INTEGER, .dpi_type = DPI_TYPE_Integer32},
    {.tag = SNMP_TAG_OCTET_STRING, .dpi_type = 0},
    {.tag = SNMP_TAG_NULL, .dpi_type = DPI_TYPE_NULL},
    {.tag = SNMP_TAG_OID, .dpi_type = 0},
    {.tag = SNMP_TAG_IPADDRESS, .dpi_type = DPI_TYPE_IpAddress},
    {.tag = SNMP_TAG_COUNTER32, .dpi_type = DPI_TYPE_Counter32},
    {.tag = SNMP_TAG_GAUGE32, .dpi_type = DPI_TYPE_Gauge32},
    {.tag = SNMP_TAG_TIMETICKS, .dpi_type = DPI_TYPE_TimeTicks},
}};
static_assert(snmp_to_dpi_table.size() == 8);

// How a DPI value comes back as an SNMP value.
enum dpi_value_form : uint8_t {
    FORM_WORD,     // 32-bit host-order number as parsed
    FORM_BYTES,    // the received bytes
    FORM_NULL,     // no value
    FORM_NO_SUCH,  // an exception: the object is not there
    // Forms only SNMPv2 has:
    FORM_OID_TEXT,   // dotted text made into an OBJECT IDENTIFIER
    FORM_U64,        // two host-order words, high first
    FORM_EXCEPTION,  // the exception of the row's tag
};
struct dpi_to_snmp_row {
    int dpi_type;
    uint8_t tag;
    uint8_t hint;
    dpi_value_form form;
};
inline constexpr std::array<dpi_to_snmp_row, 12> dpi_to_snmp_table{{
    {.dpi_type = DPI_TYPE_Integer32, .tag = SNMP_TAG_INTEGER, .hint = 0, .form = FORM_WORD},
    {.dpi_type = DPI_TYPE_Counter32, .tag = SNMP_TAG_COUNTER32, .hint = 0, .form = FORM_WORD},
    {.dpi_type = DPI_TYPE_Gauge32, .tag = SNMP_TAG_GAUGE32, .hint = 0, .form = FORM_WORD},
    {.dpi_type = DPI_TYPE_TimeTicks, .tag = SNMP_TAG_TIMETICKS, .hint = 0, .form = FORM_WORD},
    {.dpi_type = DPI_TYPE_IpAddress, .tag = SNMP_TAG_IPADDRESS, .hint = 0, .form = FORM_BYTES},
    {.dpi_type = DPI_TYPE_DisplayString,
     .tag = SNMP_TAG_OCTET_STRING,
     .hint = 1,
     .form = FORM_BYTES},
    {.dpi_type = DPI_TYPE_OCTET_STRING,
     .tag = SNMP_TAG_OCTET_STRING,
     .hint = 0,
     .form = FORM_BYTES},
    // SNMPv1 has no way to say "this octet string is an OID in text", and the text is what
    // the subagent gave us, so it goes to the manager as it is.
    {.dpi_type = DPI_TYPE_OBJECT_IDENTIFIER,
     .tag = SNMP_TAG_OCTET_STRING,
     .hint = 0,
     .form = FORM_BYTES},
    {.dpi_type = DPI_TYPE_NULL, .tag = SNMP_TAG_NULL, .hint = 0, .form = FORM_NULL},
    {.dpi_type = DPI_TYPE_noSuchObject, .tag = 0, .hint = 0, .form = FORM_NO_SUCH},
    {.dpi_type = DPI_TYPE_noSuchInstance, .tag = 0, .hint = 0, .form = FORM_NO_SUCH},
    {.dpi_type = DPI_TYPE_endOfMibView, .tag = 0, .hint = 0, .form = FORM_NO_SUCH},
}};
static_assert(dpi_to_snmp_table.size() == 12);

// SNMPv2 error codes of a DPI RESPONSE folded into the SNMPv1 statuses the agent speaks.
// Codes above the table's end are all genErr.
inline constexpr std::array<uint8_t, 19> dpi_error_table{{
    0, 1, 2, 3, 4, 5,  // noError .. genErr keep their numbers
    2,                 // noAccess
    3, 3, 3, 3,        // wrongType, wrongLength, wrongEncoding, wrongValue
    2,                 // noCreation
    3,                 // inconsistentValue
    5, 5, 5,           // resourceUnavailable, commitFailed, undoFailed
    2, 2, 2,           // authorizationError, notWritable, inconsistentName
}};
static_assert(dpi_error_table.size() == DPI_ERROR_inconsistentName + 1);
static_assert(dpi_error_table[DPI_ERROR_notWritable] == 2);


// What SNMPv2 carries where SNMPv1 could not: rows that take the place of the table above
// for an AgentX master. Types in neither table have no SNMP form.
inline constexpr std::array<dpi_to_snmp_row, 7> dpi_to_snmpv2_table{{
    {.dpi_type = DPI_TYPE_OBJECT_IDENTIFIER, .tag = SNMP_TAG_OID, .hint = 0, .form = FORM_OID_TEXT},
    {.dpi_type = DPI_TYPE_Counter64, .tag = SNMP_TAG_COUNTER64, .hint = 0, .form = FORM_U64},
    {.dpi_type = DPI_TYPE_Opaque, .tag = SNMP_TAG_OPAQUE, .hint = 0, .form = FORM_BYTES},
    // Unsigned32 of SNMPv2 has Gauge32's tag.
    {.dpi_type = DPI_TYPE_UInteger32, .tag = SNMP_TAG_GAUGE32, .hint = 0, .form = FORM_WORD},
    {.dpi_type = DPI_TYPE_noSuchObject,
     .tag = SNMP_TAG_NO_SUCH_OBJECT,
     .hint = 0,
     .form = FORM_EXCEPTION},
    {.dpi_type = DPI_TYPE_noSuchInstance,
     .tag = SNMP_TAG_NO_SUCH_INSTANCE,
     .hint = 0,
     .form = FORM_EXCEPTION},
    {.dpi_type = DPI_TYPE_endOfMibView,
     .tag = SNMP_TAG_END_OF_MIB_VIEW,
     .hint = 0,
     .form = FORM_EXCEPTION},
}};
static_assert(dpi_to_snmpv2_table.size() == 7);

// SNMPv2 values of a Set with a DPI form beyond snmp_to_dpi_table's.
inline constexpr std::array<snmp_to_dpi_row, 2> snmpv2_to_dpi_table{{
    {.tag = SNMP_TAG_COUNTER64, .dpi_type = DPI_TYPE_Counter64},
    {.tag = SNMP_TAG_OPAQUE, .dpi_type = DPI_TYPE_Opaque},
}};
static_assert(snmpv2_to_dpi_table.size() == 2);

// The error code of a DPI RESPONSE to a SET as an SNMPv2 error status. DPI's codes are
// SNMPv2's, but a subagent written for SNMPv1 may still answer with the three SNMPv1-only
// codes, which no SNMPv2 answer may carry: noSuchName and readOnly say the object cannot
// be written, badValue that the value is wrong. Codes above the table's end are genErr.
inline constexpr std::array<uint8_t, 19> dpi_set_error_v2_table{{
    0, 1,
    DPI_ERROR_notWritable,  // noSuchName
    DPI_ERROR_wrongValue,   // badValue
    DPI_ERROR_notWritable,  // readOnly
    5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18,
}};
static_assert(dpi_set_error_v2_table.size() == DPI_ERROR_inconsistentName + 1);
static_assert(dpi_set_error_v2_table[DPI_ERROR_readOnly] == DPI_ERROR_notWritable);
