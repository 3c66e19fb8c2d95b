#pragma once
/*
 * The objects every subagent of the forwarding-path benchmark serves: INTEGER objects
 * FWD_ROOT.1.n = n for n = 1..count, under the subtree FWD_ROOT that each one registers.
 * Shared by the C subagents and the C++ SMUX peer, so that all of them answer the same
 * requests with the same objects and differ only in the path between them and snmpd.
 */
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1.3.6.1.4.1.99999.2: the registered subtree, as text and as sub-identifiers. */
#define FWD_ROOT_TEXT "1.3.6.1.4.1.99999.2"
enum { FWD_ROOT_LEN = 8, FWD_OBJECT_LEN = FWD_ROOT_LEN + 2, FWD_COLUMN = 1 };
static const uint32_t fwd_root[FWD_ROOT_LEN] = {1, 3, 6, 1, 4, 1, 99999, 2};

/* Objects served when the command line names no count. */
enum { FWD_DEFAULT_OBJECTS = 1000 };

/* The index n of the object named exactly by `subids`, or 0 when it names none. */
static inline uint32_t fwd_get_index(const uint32_t* subids, size_t len, uint32_t count) {
    if (len != FWD_OBJECT_LEN || subids[FWD_ROOT_LEN] != FWD_COLUMN) {
        return 0;
    }
    for (size_t i = 0; i < FWD_ROOT_LEN; i++) {
        if (subids[i] != fwd_root[i]) {
            return 0;
        }
    }
    uint32_t n = subids[FWD_ROOT_LEN + 1];
    return n >= 1 && n <= count ? n : 0;
}

/* The index of the first object after `subids` in OID order, or 0 when none follows. The
 * name may lie anywhere, before the subtree too: snmpd passes a manager's OID on as it is. */
static inline uint32_t fwd_next_index(const uint32_t* subids, size_t len, uint32_t count) {
    static const size_t column_len = FWD_ROOT_LEN + 1;
    size_t common = len < column_len ? len : column_len;
    for (size_t i = 0; i < common; i++) {
        uint32_t want = i < FWD_ROOT_LEN ? fwd_root[i] : (uint32_t)FWD_COLUMN;
        if (subids[i] != want) {
            return subids[i] < want && count > 0 ? 1 : 0;
        }
    }
    /* A prefix of ROOT.1 (or ROOT.1 itself) sorts before ROOT.1.1, and so does ROOT.1.0.x;
     * ROOT.1.n and everything below it are followed by ROOT.1.(n+1). */
    uint32_t next = 1;
    if (len > column_len && subids[column_len] > 0) {
        if (subids[column_len] >= count) {
            return 0;
        }
        next = subids[column_len] + 1;
    }
    return next <= count ? next : 0;
}

#ifdef __cplusplus
}
#endif
