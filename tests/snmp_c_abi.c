/* A C11 program using the SNMP library through its public headers: the records, the
 * flexible varBind array above all, must have the same layout in C as in the library. */
#include <string.h>

#include "snmp_container.h"
#include "snmp_ed.h"

int main(void) {
    uint8_t storage[128];
    char community[16] = "public", community2[16];
    snmp_pdu *pdu = snmp_create_pdu(4), *back = snmp_create_pdu(4);
    pdu->request_id = 7;
    pdu->varBind_count = 2; /* the second varBind shows the array's stride */
    for (int i = 0; i < 2; i++) {
        pdu->varBinds[i].name = snmp_create_oid_container(i ? "1.3.6.1.2.1.1.5.0" : "1.3.6.1");
        pdu->varBinds[i].value = snmp_create_value_container(NULL, 0, SNMP_TAG_NULL, 0);
    }
    snmp_message msg = {0, 16, 6, community, snmp_pdu_size(4), 0, pdu, NULL, SNMP_PDU_GET};
    snmp_message in = {0, 16, 0, community2, snmp_pdu_size(4), 0, back, NULL, 0};
    snmp_buffer buf = {storage, sizeof storage, NULL, 0};
    int ok = snmp_encode_message(&buf, &msg) == SNMP_CODEC_OK && buf.len == 49 &&
             snmp_decode_message(&in, &buf) == SNMP_CODEC_OK && in.pdu_type == SNMP_PDU_GET &&
             back->request_id == 7 && back->varBind_count == 2 && !strcmp(community2, "public") &&
             snmp_compare_oid_subids(back->varBinds[1].name, pdu->varBinds[1].name, 0) == 0;
    snmp_free_pdu(back, 4);
    snmp_free_pdu(pdu, 4);
    return !ok;
}
