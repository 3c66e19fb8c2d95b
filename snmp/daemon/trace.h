#pragma once
// Trace output of the daemon: the trace mask, the three line forms and the packet dump. Every
// other module of the daemon reports through these, so this one depends on none of them.
#include <cstdio>

// Trace levels: a level-k line is printed when bit k or any higher level bit is set.
inline constexpr int TRACE_DPI_LVL1 = 8;
inline constexpr int TRACE_DPI_LVL2 = 16;
inline constexpr int TRACE_LVL1 = 32 | 64 | 128;
inline constexpr int TRACE_LVL2 = 64 | 128;
inline constexpr int TRACE_LVL3 = 128;

extern int tracing;

// "%s(%d): " prefix then the message, when any bit of `level` is set in `tracing`. The mask
// is tested first, so a line that is not printed costs one comparison.
#define VX_TRACE(level, ...)                             \
    do {                                                 \
        if (tracing & (level)) {                         \
            printf("%s(%d): ", __FILE_NAME__, __LINE__); \
            printf(__VA_ARGS__);                         \
        }                                                \
    } while (0)

// "%s(%d) " prefix then the message, whatever `tracing` is.
#define VX_SAY(...)                                 \
    do {                                            \
        printf("%s(%d) ", __FILE_NAME__, __LINE__); \
        printf(__VA_ARGS__);                        \
    } while (0)

// Result trace after a call whose result matters.
#define VX_RC(rc, name)                                                                    \
    do {                                                                                   \
        if (((rc) != 0 && tracing != 0) || (tracing & TRACE_LVL3)) {                       \
            printf("%s(%d): rc=%d from %s()\n", __FILE_NAME__, __LINE__, (int)(rc), name); \
        }                                                                                  \
    } while (0)

// One numbered hexadecimal dump; callers dump only with Internal-lvl3 set.
void log_bfr(const unsigned char* buf, int len, const char* label);
