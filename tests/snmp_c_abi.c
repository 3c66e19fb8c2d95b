/* A C11 program using the SNMP library through its public headers: they must compile as C,
 * and the records (flexible varBind arrays included) must be usable from C as declared. */
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

static void check(int ok, const char* what) {
    if (!ok) {
        printf("FAILED: %s\n", what);
        failures++;
    }
}

int main(void) {
    static const uint8_t rreq[] = {0x62, 0x0E, 0x06, 0x06, 0x2B, 0x06, 0x01, 0x02,
                                   0x01, 0x01, 0x02, 0x01, 0xFF, 0x02, 0x01, 0x02};
    smux_pdu record;
    memset(&record, 0, sizeof record);
    record.type = SMUX_PDU_RREQ;
    record.priority = -1;
    record.operation = 2;
    record.oid = snmp_create_oid_container("1.3.6.1.2.1.1");
    uint8_t* start = NULL;
    uint32_t length = 0;
    check(smux_encode_message(&start, &length, &record) == SNMP_CODEC_OK, "RReq encodes");
    check(length == sizeof rreq && memcmp(start, rreq, length) == 0, "RReq bytes");
    smux_pdu* got = NULL;
    check(smux_decode_message(rreq, sizeof rreq, &got) == SNMP_CODEC_OK, "RReq decodes");
    check(
        got != NULL && got->priority == -1 && snmp_compare_oid_subids(got->oid, record.oid, 0) == 0,
        "RReq fields");
    snmp_free_container(record.oid);

    /* A GetRequest message into storage of our own and back into a record of our own. */
    uint8_t storage[128];
    char community[16] = "public";
    snmp_pdu* pdu = snmp_create_pdu(4);
    snmp_pdu* back = snmp_create_pdu(4);
    if (pdu == NULL || back == NULL) {
        return 1;
    }
    pdu->request_id = 7;
    pdu->varBind_count = 1;
    pdu->varBinds[0].name = snmp_create_oid_container("1.3.6.1.2.1.1.1.0");
    pdu->varBinds[0].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);
    snmp_message msg = {0,    sizeof community, 6, community, snmp_pdu_size(4), 0, pdu,
                        NULL, SNMP_PDU_GET};
    snmp_buffer buf = {storage, sizeof storage, NULL, 0};
    check(snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK && buf.len == 40, "message encodes");
    char community2[16];
    snmp_message in = {0, sizeof community2, 0, community2, snmp_pdu_size(4), 0, back, NULL, 0};
    check(snmp_decode_message(&in, &buf) == SNMP_CODEC_OK, "message decodes");
    check(back->request_id == 7 && back->varBind_count == 1 && strcmp(community2, "public") == 0,
          "message fields");
    snmp_free_pdu(back, 4);
    snmp_free_pdu(pdu, 4);
    if (failures == 0) {
        printf("C ABI checks passed\n");
    }
    return failures != 0;
}
