/* A C program using the SNMP library through its public headers: they must compile as C11
 * and the records must be usable from C as declared. Exit status 0 means every check held. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "smux_ed.h"
#include "snmp_asn1.h"
#include "snmp_container.h"
#include "snmp_debug.h"
#include "snmp_ed.h"
#include "snmp_util.h"
#include "snmp_version.h"

static int failures;

static void check(int ok, const char* what)
{
    if (!ok) {
        printf("FAILED: %s\n", what);
        failures++;
    }
}

/* RReq through the SMUX codec, and back. */
static void rreq_round_trip(void)
{
    static const uint8_t expected[] = {0x62, 0x0E, 0x06, 0x06, 0x2B, 0x06, 0x01, 0x02,
                                       0x01, 0x01, 0x02, 0x01, 0xFF, 0x02, 0x01, 0x02};
    smux_pdu record;
    memset(&record, 0, sizeof record);
    record.type = SMUX_PDU_RREQ;
    record.priority = -1;
    record.operation = 2;
    record.oid = snmp_create_oid_container("1.3.6.1.2.1.1");
    check(record.oid != NULL, "OID container from text");

    uint8_t* start = NULL;
    uint32_t length = 0;
    int rc = smux_encode_message(&start, &length, &record);
    check(rc == SNMP_CODEC_OK, "RReq encodes");
    check(length == sizeof expected && memcmp(start, expected, length) == 0, "RReq bytes");

    smux_pdu* got = NULL;
    rc = smux_decode_message(expected, sizeof expected, &got);
    check(rc == SNMP_CODEC_OK && got != NULL, "RReq decodes");
    if (got != NULL) {
        check(got->type == SMUX_PDU_RREQ && got->priority == -1 && got->operation == 2,
              "RReq fields");
        check(snmp_compare_oid_subids(got->oid, record.oid, 0) == 0, "RReq subtree");
    }
    snmp_free_container(record.oid);
}

/* A GetRequest message through the wrapper layer, and back into a record of our own. */
static void message_round_trip(void)
{
    uint8_t storage[128];
    char community[16] = "public";
    snmp_pdu* pdu = snmp_create_pdu(4);
    check(pdu != NULL, "PDU record");
    if (pdu == NULL) {
        return;
    }
    pdu->request_id = 7;
    pdu->varBind_count = 1;
    pdu->varBinds[0].name = snmp_create_oid_container("1.3.6.1.2.1.1.1.0");
    pdu->varBinds[0].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);

    snmp_message msg;
    memset(&msg, 0, sizeof msg);
    msg.community = community;
    msg.community_size = sizeof community;
    msg.community_len = (uint32_t)strlen(community);
    msg.snmp = pdu;
    msg.snmp_size = snmp_pdu_size(4);
    msg.pdu_type = SNMP_PDU_GET;
    snmp_buffer buf = {storage, sizeof storage, NULL, 0};
    check(snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK && buf.len == 40, "message encodes");

    snmp_pdu* back = snmp_create_pdu(4);
    char community2[16];
    snmp_message in;
    memset(&in, 0, sizeof in);
    in.community = community2;
    in.community_size = sizeof community2;
    in.snmp = back;
    in.snmp_size = snmp_pdu_size(4);
    check(back != NULL && snmp_decode_message(&in, &buf) == SNMP_CODEC_OK, "message decodes");
    if (back != NULL) {
        check(in.pdu_type == SNMP_PDU_GET && back->request_id == 7 && back->varBind_count == 1,
              "message fields");
        check(strcmp(community2, "public") == 0, "community");
    }
    snmp_free_pdu(back, 4);
    snmp_free_pdu(pdu, 4);
}

/* A BER primitive pair. */
static void primitives(void)
{
    uint8_t out[16];
    uint32_t room = sizeof out;
    uint8_t* p = asn_encode_int_reverse(out + sizeof out, &room, SNMP_ASN_INTEGER, -129);
    check(p != NULL && p == out + sizeof out - 4 && p[2] == 0xFF && p[3] == 0x7F, "INTEGER -129");
    uint32_t remaining = 4;
    uint8_t tag = 0;
    int32_t value = 0;
    check(asn_decode_int(p, &remaining, &tag, &value) == out + sizeof out && value == -129 &&
              remaining == 0,
          "INTEGER decodes");
}

int main(void)
{
    rreq_round_trip();
    message_round_trip();
    primitives();
    if (failures != 0) {
        return 1;
    }
    printf("C ABI checks passed\n");
    return 0;
}
