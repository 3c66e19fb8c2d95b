/* A C11 program using the SNMP library through its public headers: the records (flexible
 * varBind arrays included) must have the same layout in C as in the library's C++. */
#include <stdio.h>
#include <string.h>

#include "smux_ed.h"
#include "snmp_container.h"
#include "snmp_ed.h"

static int failures;
#define CHECK(ok)                                      \
    if (!(ok)) {                                       \
        printf("FAILED line %d: %s\n", __LINE__, #ok); \
        failures++;                                    \
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
    CHECK(smux_encode_message(&start, &length, &record) == SNMP_CODEC_OK);
    CHECK(length == sizeof rreq && memcmp(start, rreq, length) == 0);
    smux_pdu* got = NULL;
    CHECK(smux_decode_message(rreq, sizeof rreq, &got) == SNMP_CODEC_OK);
    CHECK(got != NULL && got->priority == -1 && got->operation == 2 &&
          snmp_compare_oid_subids(got->oid, record.oid, 0) == 0);
    snmp_free_container(record.oid);

    /* A GetRequest message into storage of our own and back into a record of our own. */
    uint8_t storage[128];
    char community[16] = "public", community2[16];
    snmp_pdu* pdu = snmp_create_pdu(4);
    snmp_pdu* back = snmp_create_pdu(4);
    if (pdu == NULL || back == NULL) {
        return 1;
    }
    pdu->request_id = 7;
    pdu->varBind_count = 2;
    pdu->varBinds[1].name = snmp_create_oid_container("1.3.6.1.2.1.1.1.0");
    pdu->varBinds[1].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);
    pdu->varBinds[0] = pdu->varBinds[1];
    snmp_message msg = {0,    sizeof community, 6, community, snmp_pdu_size(4), 0, pdu,
                        NULL, SNMP_PDU_GET};
    snmp_buffer buf = {storage, sizeof storage, NULL, 0};
    CHECK(snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK && buf.len == 54);
    snmp_message in = {0, sizeof community2, 0, community2, snmp_pdu_size(4), 0, back, NULL, 0};
    CHECK(snmp_decode_message(&in, &buf) == SNMP_CODEC_OK);
    CHECK(back->request_id == 7 && back->varBind_count == 2 && strcmp(community2, "public") == 0 &&
          snmp_compare_oid_subids(back->varBinds[1].name, pdu->varBinds[1].name, 0) == 0);
    pdu->varBinds[0].name = pdu->varBinds[0].value = NULL;
    snmp_free_pdu(back, 4);
    snmp_free_pdu(pdu, 4);
    return failures != 0;
}
