/* A C11 program using the SNMP library through its public headers: the records, the
 * flexible varBind array above all, must have the same layout in C as in the library. */
#include <stdio.h>
#include <string.h>

#include "snmp_container.h"
#include "snmp_ed.h"

int main(void) {
    /* A GetRequest message into storage of our own and back into a record of our own; the
     * second varBind shows the array's stride. */
    uint8_t storage[128];
    char community[16] = "public", community2[16];
    snmp_pdu* pdu = snmp_create_pdu(4);
    snmp_pdu* back = snmp_create_pdu(4);
    if (pdu == NULL || back == NULL) {
        return 1;
    }
    pdu->request_id = 7;
    pdu->varBind_count = 2;
    pdu->varBinds[0].name = snmp_create_oid_container("1.3.6.1.2.1.1.1.0");
    pdu->varBinds[0].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);
    pdu->varBinds[1].name = snmp_create_oid_container("1.3.6.1.2.1.1.5.0");
    pdu->varBinds[1].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);
    snmp_message msg = {0,    sizeof community, 6, community, snmp_pdu_size(4), 0, pdu,
                        NULL, SNMP_PDU_GET};
    snmp_buffer buf = {storage, sizeof storage, NULL, 0};
    snmp_message in = {0, sizeof community2, 0, community2, snmp_pdu_size(4), 0, back, NULL, 0};
    int ok = snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK && buf.len == 54 &&
             snmp_decode_message(&in, &buf) == SNMP_CODEC_OK && in.pdu_type == SNMP_PDU_GET &&
             back->request_id == 7 && back->varBind_count == 2 &&
             strcmp(community2, "public") == 0 &&
             snmp_compare_oid_subids(back->varBinds[1].name, pdu->varBinds[1].name, 0) == 0;
    snmp_free_pdu(back, 4);
    snmp_free_pdu(pdu, 4);
    if (!ok) {
        printf("FAILED: a GetRequest did not survive the trip through the library from C\n");
    }
    return !ok;
}
