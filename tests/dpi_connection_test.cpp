// The subagent connection library against real loopback peers: a UDP responder standing in
// for the master agent's SNMP port, and a TCP listener standing in for the DPI agent.

#include "snmp_dpi.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

bytes hex(const std::string& text)
{
    bytes out;
    std::string digits;
    for (char c : text) {
        if (c != ' ') {
            digits += c;
        }
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

bytes cat(bytes a, const bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const bytes kPortName = hex("06 0B 2B 06 01 04 01 02 02 01 01 01 00");

// A GetResponse for community "public" whose single varbind is kPortName (or `name`) with
// the given encoded value. Only short-form lengths are needed here.
bytes get_response(const bytes& value, uint8_t error_status = 0, const bytes& name = kPortName)
{
    bytes varbind = cat(cat({0x30, static_cast<uint8_t>(name.size() + value.size())}, name), value);
    bytes list = cat({0x30, static_cast<uint8_t>(varbind.size())}, varbind);
    bytes pdu_body = cat(hex("02 01 01 02 01"), cat({error_status}, cat(hex("02 01 00"), list)));
    bytes pdu = cat({0xA2, static_cast<uint8_t>(pdu_body.size())}, pdu_body);
    bytes body = cat(hex("02 01 00 04 06 70 75 62 6C 69 63"), pdu);
    return cat({0x30, static_cast<uint8_t>(body.size())}, body);
}

int open_fds()
{
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr) {
        n++;
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return n;
}

int bound_socket(int type, uint16_t* port)
{
    int fd = socket(AF_INET, type, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        ADD_FAILURE() << "cannot bind a loopback socket";
    }
    *port = ntohs(sa.sin_port);
    return fd;
}

// Stands in for the master agent's SNMP port: answers the n-th query with answers[n], or
// ignores it when that answer is the single byte "ignore" (an empty answer is sent empty).
struct udp_responder {
    int fd = -1;
    uint16_t port = 0;
    std::vector<bytes> answers;
    std::mutex lock;
    std::vector<bytes> queries;  // under `lock`
    std::atomic<bool> stop{false};
    std::thread worker;

    explicit udp_responder(std::vector<bytes> script) : answers(std::move(script))
    {
        fd = bound_socket(SOCK_DGRAM, &port);
        setenv("SNMP_PORT", std::to_string(port).c_str(), 1);
        worker = std::thread([this] { serve(); });
    }
    ~udp_responder()
    {
        stop = true;
        worker.join();
        close(fd);
    }
    std::vector<bytes> received()
    {
        std::lock_guard<std::mutex> hold(lock);
        return queries;
    }
    void serve()
    {
        while (!stop) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) {
                continue;
            }
            uint8_t buf[512];
            sockaddr_in from{};
            socklen_t len = sizeof from;
            ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
            if (n < 0) {
                continue;
            }
            size_t i;
            {
                std::lock_guard<std::mutex> hold(lock);
                i = queries.size();
                queries.emplace_back(buf, buf + n);
            }
            if (i < answers.size() && answers[i] != bytes{'i'}) {
                sendto(fd, answers[i].data(), answers[i].size(), 0,
                       reinterpret_cast<sockaddr*>(&from), len);
            }
        }
    }
};

const bytes kIgnore = {'i'};

bytes port_answer(uint16_t port)
{
    return get_response({0x02, 0x02, static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)});
}

class DpiConnection : public ::testing::Test {
protected:
    int listener = -1;
    uint16_t listen_port = 0;

    void SetUp() override
    {
        int n = 0;
        ASSERT_NE(mkDPIqport_packet(DPI_QUERY_KIND_GET, 1, "", 0, &n), nullptr);
        listener = bound_socket(SOCK_STREAM, &listen_port);
        ASSERT_EQ(listen(listener, 8), 0);
    }
    void TearDown() override
    {
        for (int h = 0; h < DPI_MAX_CONNECTIONS; h++) {
            DPIdisconnect_from_agent(h);
        }
        close(listener);
        unsetenv("SNMP_PORT");
    }
    // Connects through the port query; returns the handle and the agent's end in *peer.
    int connect_agent(int* peer)
    {
        udp_responder agent({port_answer(listen_port)});
        int handle = DPIconnect_to_agent_TCP("127.0.0.1", "public");
        *peer = handle >= 0 ? accept(listener, nullptr, nullptr) : -1;
        return handle;
    }
};

TEST(DpiQueryMessage, AssembledFromFixedPieces)
{
    const std::string tail_1 = "A0 1C 02 01 01 02 01 00 02 01 00 30 11 30 0F 06 0B 2B 06 01 04 01 "
                               "02 02 01 01 01 00 05 00";
    struct row {
        const char* name;
        int kind;
        int selector;
        std::string community;
        std::string expect;  // empty: must fail
    } rows[] = {
        {"public, DPI port", 1, 1, "public", "30 29 02 01 00 04 06 70 75 62 6C 69 63 " + tail_1},
        {"empty community", 1, 1, "", "30 23 02 01 00 04 00 " + tail_1},
        {"selector 3", 1, 3, "", "30 23 02 01 00 04 00 A0 1C 02 01 01 02 01 00 02 01 00 30 11 30 "
                                 "0F 06 0B 2B 06 01 04 01 02 02 01 01 03 00 05 00"},
        {"selector 4", 1, 4, "public", ""},
        {"kind 2", 2, 1, "public", ""},
        {"community of 93", 1, 1, std::string(93, 'c'), ""},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        int len = -1;
        unsigned char* msg = mkDPIqport_packet(r.kind, r.selector, r.community.data(),
                                               static_cast<int>(r.community.size()), &len);
        if (r.expect.empty()) {
            EXPECT_EQ(msg, nullptr);
            EXPECT_EQ(len, 0);
            continue;
        }
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(bytes(msg, msg + len), hex(r.expect));
    }
    // The longest community still fits a one-octet message length.
    std::string c92(92, 'c');
    int len = 0;
    unsigned char* msg = mkDPIqport_packet(1, 1, c92.data(), 92, &len);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(len, 129);
    EXPECT_EQ(msg[1], 0x7F);
    EXPECT_EQ(bytes(msg + 99, msg + 129), hex(tail_1));
}

TEST(DpiQueryAnswer, PortFromTheTailOfTheAnswer)
{
    int n = 0;
    ASSERT_NE(mkDPIqport_packet(1, 1, "", 0, &n), nullptr);
    struct row {
        const char* name;
        bytes answer;
        int port;
    } rows[] = {
        {"two octets", get_response(hex("02 02 04 00")), 1024},
        {"one octet", get_response(hex("02 01 50")), 80},
        {"one octet read unsigned", get_response(hex("02 01 80")), 128},
        {"three octets", get_response(hex("02 03 01 00 00")), 65536},
        {"port 0", get_response(hex("02 01 00")), 0},
        {"largest two-octet", get_response(hex("02 02 FF FF")), 65535},
        {"error status not examined", get_response(hex("02 02 04 00"), 5), 1024},
        {"the tail alone is enough", cat(kPortName, hex("02 01 50")), 80},
        {"NULL echoed with noSuchName", get_response(hex("05 00"), 2), -1},
        {"OCTET STRING", get_response(hex("04 01 50")), -1},
        {"Counter", get_response(hex("41 02 04 00")), -1},
        {"length octet disagrees", get_response(hex("02 02 50")), -1},
        {"four-octet INTEGER", get_response(hex("02 04 00 00 04 00")), -1},
        {"trailing octet", cat(get_response(hex("02 02 04 00")), {0x00}), -1},
        {"other object", get_response(hex("02 02 04 00"), 0, hex("06 0B 2B 06 01 04 01 02 02 01 01 02 00")), -1},
        {"name alone", kPortName, -1},
        {"empty", {}, -1},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(extract_DPI_port(r.answer.data(), static_cast<int>(r.answer.size())), r.port);
        if (r.port < 0) {
            continue;
        }
        // No prefix of a good answer may yield a port, and none may be read past.
        for (size_t cut = 0; cut < r.answer.size(); cut++) {
            bytes prefix(r.answer.begin(), r.answer.begin() + static_cast<long>(cut));
            EXPECT_EQ(extract_DPI_port(prefix.data(), static_cast<int>(cut)), -1) << cut;
        }
    }
    EXPECT_EQ(extract_DPI_port(nullptr, 20), -1);

    // The answer is matched against the object last asked for.
    ASSERT_NE(mkDPIqport_packet(1, 2, "", 0, &n), nullptr);
    bytes name2 = hex("06 0B 2B 06 01 04 01 02 02 01 01 02 00");
    bytes a2 = get_response(hex("02 01 07"), 0, name2);
    bytes a1 = get_response(hex("02 01 07"));
    EXPECT_EQ(extract_DPI_port(a2.data(), static_cast<int>(a2.size())), 7);
    EXPECT_EQ(extract_DPI_port(a1.data(), static_cast<int>(a1.size())), -1);
}

TEST(DpiLookupHost, DottedAddressesAndNames)
{
    struct row {
        const char* name;
        const char* host;
        uint32_t addr;  // host order; 0 for none
    } rows[] = {
        {"loopback", "127.0.0.1", 0x7F000001},
        {"dotted, no name service", "10.1.2.3", 0x0A010203},
        {"name from the hosts file", "localhost", 0x7F000001},
        {"digits then a letter", "10.1.2.3x", 0},
        {"too many parts", "1.2.3.4.5", 0},
        {"empty", "", 0},
        {"null", nullptr, 0},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(ntohl(lookup_host(r.host)), r.addr);
    }
}

TEST_F(DpiConnection, PortQueryOverUdp)
{
    struct row {
        const char* name;
        bytes answer;
        int port;
    } rows[] = {
        {"two-octet port", port_answer(1024), 1024},
        {"one-octet port", get_response(hex("02 01 50")), 80},
        {"NULL answer", get_response(hex("05 00"), 2), -1},
        {"empty datagram", {}, -1},
    };
    const int fds = open_fds();
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        udp_responder agent({r.answer});
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), r.port);
        EXPECT_EQ(open_fds() - fds, 1);  // the responder's socket, not ours
        ASSERT_EQ(agent.received().size(), 1u);
        EXPECT_EQ(agent.received()[0], hex("30 29 02 01 00 04 06 70 75 62 6C 69 63 A0 1C 02 01 01 02 "
                                        "01 00 02 01 00 30 11 30 0F 06 0B 2B 06 01 04 01 02 02 01 "
                                        "01 01 00 05 00"));
    }
}

TEST_F(DpiConnection, PortQueryRefusedBeforeSending)
{
    udp_responder agent({port_answer(1024)});
    EXPECT_EQ(qDPIport("127.0.0.1", std::string(93, 'c').c_str(), 1), -1);
    EXPECT_EQ(qDPIport("127.0.0.1", nullptr, 1), -1);
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 4), -1);
    EXPECT_EQ(qDPIport("no-such-host.invalid", "public", 1), -1);
    for (const char* bad : {"abc", "70000", "0", "", "161x"}) {
        SCOPED_TRACE(bad);
        setenv("SNMP_PORT", bad, 1);
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    }
    EXPECT_TRUE(agent.received().empty());
}

TEST_F(DpiConnection, ConnectOutcomes)
{
    int peer = -1;
    int handle = connect_agent(&peer);
    EXPECT_EQ(handle, 0);
    EXPECT_GE(peer, 0);
    EXPECT_GE(DPIget_fd_for_handle(handle), 0);
    close(peer);
    DPIdisconnect_from_agent(handle);
    EXPECT_EQ(DPIget_fd_for_handle(handle), -1);

    uint16_t dead_port = 0;
    close(bound_socket(SOCK_STREAM, &dead_port));
    struct row {
        const char* name;
        bytes answer;
        int rc;
    } rows[] = {
        {"agent reports port 0", get_response(hex("02 01 00")), DPI_RC_NOT_SUPPORTED},
        {"nobody listens", port_answer(dead_port), DPI_RC_IO_ERROR},
        {"port beyond 65535", get_response(hex("02 03 01 00 00")), DPI_RC_IO_ERROR},
        {"unusable answer", get_response(hex("05 00")), DPI_RC_NO_PORT},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        udp_responder agent({r.answer});
        EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), r.rc);
    }
    EXPECT_EQ(DPIconnect_to_agent_UDP("127.0.0.1", "public"), DPI_RC_NOT_SUPPORTED);
}

TEST_F(DpiConnection, ThreeSlotsAndLowestFreeFirst)
{
    int peers[3];
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(connect_agent(&peers[i]), i);
    }
    // The query itself needs a slot: none is left, so no port can be learned.
    const int fds = open_fds();
    {
        udp_responder agent({port_answer(listen_port)});
        EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), DPI_RC_NO_PORT);
        EXPECT_TRUE(agent.received().empty());
    }
    EXPECT_EQ(open_fds(), fds);
    DPIdisconnect_from_agent(1);
    int again = -1;
    EXPECT_EQ(connect_agent(&again), 1);
    for (int fd : {peers[0], peers[1], peers[2], again}) {
        close(fd);
    }
}

TEST_F(DpiConnection, FramedPacketsFromTheAgent)
{
    int peer = -1;
    int handle = connect_agent(&peer);
    ASSERT_GE(handle, 0);
    struct row {
        const char* name;
        bytes sent;
        int rc;
        unsigned long len;  // length field of the packet handed out
    } rows[] = {
        {"ARE_YOU_THERE", hex("00 06 02 02 00 00 00 0F"), DPI_RC_OK, 6},
        {"largest kept", cat(hex("0F FE"), bytes(4094, 0xA5)), DPI_RC_OK, 4094},
        {"one too long", cat(hex("0F FF"), bytes(4095, 0x5A)), DPI_RC_PACKET_TOO_LARGE, 0},
        {"longest length field", cat(hex("FF FF"), bytes(65535, 0x11)), DPI_RC_PACKET_TOO_LARGE, 0},
        {"empty packet", hex("00 00"), DPI_RC_OK, 0},
        {"after the dropped ones", hex("00 07 02 02 00 00 01 09 02"), DPI_RC_OK, 7},
    };
    // The agent writes everything at once, and in small pieces, from another thread: the
    // big packets do not fit the socket buffers.
    for (bool trickle : {false, true}) {
        SCOPED_TRACE(trickle ? "in pieces" : "at once");
        std::thread writer([&] {
            for (const row& r : rows) {
                for (size_t off = 0; off < r.sent.size();) {
                    size_t piece = trickle ? std::min<size_t>(r.sent.size() - off, 1500) : r.sent.size();
                    ASSERT_EQ(write(peer, r.sent.data() + off, piece), static_cast<ssize_t>(piece));
                    off += piece;
                }
            }
        });
        for (const row& r : rows) {
            SCOPED_TRACE(r.name);
            unsigned char* msg = reinterpret_cast<unsigned char*>(1);
            unsigned long len = 99;
            ASSERT_EQ(DPIawait_packet_from_agent(handle, 5, &msg, &len), r.rc);
            EXPECT_EQ(len, r.len);
            if (r.len == 0) {
                EXPECT_EQ(msg, nullptr);
                continue;
            }
            ASSERT_NE(msg, nullptr);
            EXPECT_EQ(bytes(msg, msg + len + 2), r.sent);
        }
        writer.join();
    }
    close(peer);
}

TEST_F(DpiConnection, AgentClosesMidPacket)
{
    struct row {
        const char* name;
        bytes sent;
        int rc;
    } rows[] = {
        {"before anything", {}, DPI_RC_IO_ERROR},
        {"inside the length field", hex("00"), DPI_RC_IO_ERROR},
        {"inside the body", hex("00 06 02 02 00"), DPI_RC_EOF},
        {"inside a dropped packet", cat(hex("10 00"), bytes(100, 0)), DPI_RC_EOF},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        int peer = -1;
        int handle = connect_agent(&peer);
        ASSERT_EQ(handle, 0);
        ASSERT_EQ(write(peer, r.sent.data(), r.sent.size()), static_cast<ssize_t>(r.sent.size()));
        close(peer);
        unsigned char* msg = nullptr;
        unsigned long len = 0;
        EXPECT_EQ(DPIawait_packet_from_agent(handle, 5, &msg, &len), r.rc);
        // The handle is dead: its slot is free and its descriptor gone.
        EXPECT_EQ(DPIget_fd_for_handle(handle), -1);
        EXPECT_EQ(DPIawait_packet_from_agent(handle, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
        EXPECT_EQ(DPIsend_packet_to_agent(handle, hex("00 00").data(), 2), DPI_RC_INVALID_HANDLE);
    }
}

TEST_F(DpiConnection, SendTimeoutAndInvalidHandles)
{
    int peer = -1;
    int handle = connect_agent(&peer);
    ASSERT_EQ(handle, 0);
    unsigned char* msg = nullptr;
    unsigned long len = 0;

    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(DPIawait_packet_from_agent(handle, 0, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
    EXPECT_EQ(DPIawait_packet_from_agent(handle, 1, &msg, &len), DPI_RC_TIMEOUT);

    const bytes open = hex("00 07 02 02 00 00 00 09 00");
    ASSERT_EQ(DPIsend_packet_to_agent(handle, open.data(), open.size()), DPI_RC_OK);
    bytes got(open.size());
    ASSERT_EQ(recv(peer, got.data(), got.size(), MSG_WAITALL), static_cast<ssize_t>(got.size()));
    EXPECT_EQ(got, open);

    struct row {
        const char* name;
        int handle;
        const unsigned char* packet;
        unsigned long len;
        int rc;
    } rows[] = {
        {"negative handle", -1, open.data(), open.size(), DPI_RC_INVALID_HANDLE},
        {"handle 3", 3, open.data(), 0, DPI_RC_INVALID_HANDLE},
        {"free slot", 2, open.data(), open.size(), DPI_RC_INVALID_HANDLE},
        {"no packet", handle, nullptr, 9, DPI_RC_INVALID_ARGUMENT},
        {"length 0", handle, open.data(), 0, DPI_RC_INVALID_ARGUMENT},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(DPIsend_packet_to_agent(r.handle, r.packet, r.len), r.rc);
        if (r.handle != handle) {
            EXPECT_EQ(DPIawait_packet_from_agent(r.handle, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
        }
    }
    EXPECT_EQ(DPIget_fd_for_handle(3), DPI_RC_INVALID_HANDLE);
    EXPECT_EQ(DPIget_fd_for_handle(-1), DPI_RC_INVALID_HANDLE);

    // A vanished agent is an error result, not a broken-pipe signal.
    close(peer);
    int rc = DPI_RC_OK;
    for (int i = 0; i < 50 && rc == DPI_RC_OK; i++) {
        rc = DPIsend_packet_to_agent(handle, open.data(), open.size());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(rc, DPI_RC_IO_ERROR);
}

// Slow cases: they wait out the library's fixed time-outs.

TEST_F(DpiConnection, SlowUnansweredQueryGivesUpAfterThreeAttempts)
{
    udp_responder agent({kIgnore, kIgnore, kIgnore});
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    auto waited = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(17));
    EXPECT_LT(waited, std::chrono::seconds(25));
    EXPECT_EQ(agent.received().size(), 3u);
}

TEST_F(DpiConnection, SlowSecondAttemptAnswered)
{
    udp_responder agent({kIgnore, port_answer(4242)});
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), 4242);
    ASSERT_EQ(agent.received().size(), 2u);
    EXPECT_EQ(agent.received()[0], agent.received()[1]);
}

TEST_F(DpiConnection, SlowStalledBodyTimesOutAndKeepsTheConnection)
{
    int peer = -1;
    int handle = connect_agent(&peer);
    ASSERT_EQ(handle, 0);
    const bytes part = hex("00 06 02 02 00");
    ASSERT_EQ(write(peer, part.data(), part.size()), static_cast<ssize_t>(part.size()));
    unsigned char* msg = nullptr;
    unsigned long len = 0;
    EXPECT_EQ(DPIawait_packet_from_agent(handle, 1, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_EQ(msg, nullptr);
    EXPECT_GE(DPIget_fd_for_handle(handle), 0);
    EXPECT_EQ(DPIsend_packet_to_agent(handle, part.data(), part.size()), DPI_RC_OK);
    close(peer);
}

}  // namespace
