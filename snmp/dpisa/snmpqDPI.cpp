// The SNMP query that finds the DPI port. The library must not depend on an SNMP codec, so
// the GetRequest is put together from fixed BER pieces around the community, and the answer
// is recognised by its tail alone: the requested name followed by a short INTEGER.

#include "snmpqDPI.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "snmplDPI.h"

namespace {

constexpr std::array<uint8_t, 1> v1_hdr = {0x30};  // message SEQUENCE
// version INTEGER 0, then the tag of the community OCTET STRING
constexpr std::array<uint8_t, 4> version = {0x02, 0x01, 0x00, 0x04};
// GetRequest of 28 content octets: request-id 1, error-status 0, error-index 0, and a
// varbind list of 17 octets holding one varbind of 15.
constexpr std::array<uint8_t, 15> get_hdr = {0xA0, 0x1C, 0x02, 0x01, 0x01, 0x02, 0x01, 0x00,
                                             0x02, 0x01, 0x00, 0x30, 0x11, 0x30, 0x0F};
constexpr std::array<uint8_t, 2> nullValue = {0x05, 0x00};

// Octet of dpiPort that carries the selector: the second-last subidentifier.
constexpr size_t DPI_SELECTOR_OCTET = 11;
// Every piece but the community, whose length octet is one of them.
constexpr int DPI_QUERY_FIXED_LEN = 37;
// The message length must fit the short form of a BER length.
constexpr int DPI_BER_SHORT_MAX = 127;
constexpr size_t DPI_QUERY_BUF = 144;

constexpr int DPI_SNMP_PORT_DEFAULT = 161;
constexpr int DPI_QUERY_FIRST_WAIT = 3;  // seconds; the n-th attempt waits n times this

}  // namespace

// 1.3.6.1.4.1.2.2.1.1.1.0 as an OBJECT IDENTIFIER; the selector octet is rewritten by each
// query and the answer is matched against the last one asked.
static uint8_t dpiPort[13] = {0x06, 0x0B, 0x2B, 0x06, 0x01, 0x04, 0x01,
                              0x02, 0x02, 0x01, 0x01, 0x01, 0x00};
static unsigned char packet_buf[DPI_QUERY_BUF];
static size_t packet_len;

static_assert(sizeof dpiPort + v1_hdr.size() + 1 + version.size() + 1 + get_hdr.size() +
                      nullValue.size() ==
                  DPI_QUERY_FIXED_LEN,
              "the fixed pieces of the query");
static_assert(DPI_QUERY_FIXED_LEN - 2 + DPI_COMMUNITY_MAX == DPI_BER_SHORT_MAX,
              "the longest community still has a one-octet message length");

// Appends `len` bytes, refusing to take the message past the last octet of the buffer.
static bool append(const void* bytes, size_t len) {
    if (len > DPI_QUERY_BUF - 1 - packet_len) {
        return false;
    }
    if (len != 0) {
        memcpy(packet_buf + packet_len, bytes, len);
    }
    packet_len += len;
    return true;
}

unsigned char* mkDPIqport_packet(int kind, int selector, const char* community_p, int community_len,
                                 int* packet_len_p) {
    packet_len = 0;
    if (packet_len_p != nullptr) {
        *packet_len_p = 0;
    }
    if (kind != DPI_QUERY_KIND_GET || selector > DPI_SELECTOR_MAX || community_len < 0 ||
        community_len > DPI_BER_SHORT_MAX - (DPI_QUERY_FIXED_LEN - 2) ||
        (community_p == nullptr && community_len != 0)) {
        return nullptr;
    }
    dpiPort[DPI_SELECTOR_OCTET] = static_cast<uint8_t>(selector);
    const uint8_t message_len = static_cast<uint8_t>(DPI_QUERY_FIXED_LEN - 2 + community_len);
    const uint8_t community_octets = static_cast<uint8_t>(community_len);
    if (!append(v1_hdr.data(), v1_hdr.size()) || !append(&message_len, 1) ||
        !append(version.data(), version.size()) || !append(&community_octets, 1) ||
        !append(community_p, static_cast<size_t>(community_len)) ||
        !append(get_hdr.data(), get_hdr.size()) || !append(dpiPort, sizeof dpiPort) ||
        !append(nullValue.data(), nullValue.size())) {
        packet_len = 0;
        return nullptr;
    }
    if (packet_len_p != nullptr) {
        *packet_len_p = static_cast<int>(packet_len);
    }
    return packet_buf;
}

// True when the answer holds the requested name ending `gap` bytes before its end.
static bool name_ends_before(const unsigned char* answer_p, size_t answer_len, size_t gap) {
    if (answer_len < sizeof dpiPort + gap) {
        return false;
    }
    return memcmp(answer_p + answer_len - gap - sizeof dpiPort, dpiPort, sizeof dpiPort) == 0;
}

int extract_DPI_port(const unsigned char* answer_p, int answer_len) {
    if (answer_p == nullptr || answer_len <= 0) {
        return -1;
    }
    const size_t len = static_cast<size_t>(answer_len);
    const unsigned char* end = answer_p + len;
    // The name followed by a two-octet value, as the NULL an agent echoes with an error.
    if (name_ends_before(answer_p, len, 2)) {
        return -1;
    }
    // An INTEGER of n = 1..3 octets after the name: tag 02, length n, n octets.
    for (size_t n = 1; n <= 3; n++) {
        if (!name_ends_before(answer_p, len, 2 + n)) {
            continue;
        }
        const unsigned char* value = end - n;
        if (value[-2] != 0x02 || value[-1] != n) {
            continue;
        }
        int port = 0;
        for (size_t i = 0; i < n; i++) {
            port = port << 8 | value[i];
        }
        return port;
    }
    return -1;
}

// The agent's SNMP port: SNMP_PORT when set, else the well-known port. -1 when SNMP_PORT
// is not a decimal port number, so that a typing error fails at once rather than after
// 18 seconds of asking the wrong port.
static long snmp_port(void) {
    const char* text = getenv("SNMP_PORT");
    if (text == nullptr) {
        return DPI_SNMP_PORT_DEFAULT;
    }
    if (text[0] < '0' || text[0] > '9') {
        return -1;
    }
    char* stop = nullptr;
    errno = 0;
    long port = strtol(text, &stop, 10);
    if (errno != 0 || *stop != '\0' || port <= 0 || port > 65535) {
        return -1;
    }
    return port;
}

// Sends the query up to three times with growing waits; on success the answer is in
// dpi_buffer. The datagram slot is released whatever happens.
static int do_SNMP_query(const char* hostname_p, const char* community_p, int selector) {
    if (community_p == nullptr) {
        return -1;
    }
    size_t community_len = strlen(community_p);
    if (community_len > DPI_COMMUNITY_MAX) {
        return -1;
    }
    int query_len = 0;
    const unsigned char* query = mkDPIqport_packet(DPI_QUERY_KIND_GET, selector, community_p,
                                                   static_cast<int>(community_len), &query_len);
    if (query == nullptr) {
        return -1;
    }
    long port = snmp_port();
    if (port < 0) {
        return -1;
    }
    int handle = setup_socket(DPI_SOCKET_DATAGRAM, hostname_p, static_cast<unsigned long>(port));
    if (handle < 0) {
        return -1;
    }
    const int fd = dpi_slot_fd(handle);
    const struct sockaddr_in* peer = dpi_slot_peer(handle);
    int rc = -1;
    for (int attempt = 1; attempt <= DPI_QUERY_ATTEMPTS; attempt++) {
        // A failed send is not fatal: the wait below simply sees no answer.
        (void)sendto(fd, query, static_cast<size_t>(query_len), 0,
                     reinterpret_cast<const struct sockaddr*>(peer), sizeof *peer);
        if (fd >= FD_SETSIZE) {
            break;
        }
        fd_set readfds;
        FD_ZERO(&readfds);
        FD_SET(fd, &readfds);
        struct timeval tv = {};
        tv.tv_sec = DPI_QUERY_FIRST_WAIT * attempt;
        if (select(fd + 1, &readfds, nullptr, nullptr, &tv) <= 0) {
            continue;
        }
        ssize_t got = recvfrom(fd, dpi_buffer, sizeof dpi_buffer, 0, nullptr, nullptr);
        dpi_buflen = got > 0 ? static_cast<int32_t>(got) : 0;
        rc = got > 0 ? 0 : -1;
        break;
    }
    dpi_slot_release(handle);
    return rc;
}

int qDPIport(const char* hostname_p, const char* community_p, int selector) {
    if (do_SNMP_query(hostname_p, community_p, selector) != 0) {
        return -1;
    }
    return extract_DPI_port(dpi_buffer, dpi_buflen);
}
