// The subagent connection library against real loopback peers: a UDP responder in the master
// agent's place (found through SNMP_PORT) and a TCP listener in the DPI agent's.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "snmp_dpi.h"
#include "vx_peers.h"

namespace {

using bytes = vx_bytes;
using std::chrono::steady_clock;

bytes cat(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const bytes kPortName = vx_hex("06 0B 2B 06 01 04 01 02 02 01 01 01 00");
const bytes kQuery = vx_hex(
    "30 29 02 01 00 04 06 70 75 62 6C 69 63 A0 1C 02 01 01 02 01 00 02 01 00 30 11 30 0F 06 0B"
    "2B 06 01 04 01 02 02 01 01 01 00 05 00");  // community "public", selector 1
const bytes kSilent = {'s'};

// A GetResponse for community "public" with one varbind: `name` and an encoded value.
bytes get_response(const char* value, uint8_t status = 0, const bytes& name = kPortName) {
    bytes vbs = vx_ber_tlv(0x30, vx_ber_tlv(0x30, cat(name, vx_hex(value))));
    bytes pdu = cat(cat(vx_hex("02 01 01 02 01"), {status}), cat(vx_hex("02 01 00"), vbs));
    return vx_ber_tlv(0x30, cat(vx_hex("02 01 00 04 06 70 75 62 6C 69 63"), vx_ber_tlv(0xA2, pdu)));
}

bytes port_answer(int port) {
    return get_response(("02 02" + vx_to_hex({uint8_t(port >> 8), uint8_t(port)})).c_str());
}

long open_fds() {
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(fds, std::filesystem::directory_iterator());
}

// The master agent's SNMP port: answers the n-th query with answers[n] (not at all when that
// is kSilent), none after the last, and keeps the queries.
struct udp_agent {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<bytes> answers, queries;
    std::thread worker;

    explicit udp_agent(std::vector<bytes> script) : answers(std::move(script)) {
        sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        setenv("SNMP_PORT", std::to_string(vx_local_port(fd)).c_str(), 1);
        worker = std::thread([this, sa]() mutable {
            auto* from = reinterpret_cast<sockaddr*>(&sa);
            uint8_t buf[512];
            for (socklen_t n = sizeof sa; queries.size() < answers.size(); n = sizeof sa) {
                ssize_t got = recvfrom(fd, buf, sizeof buf, 0, from, &n);
                if (got <= 0) {
                    return;  // shut down
                }
                queries.emplace_back(buf, buf + got);
                if (const bytes& a = answers[queries.size() - 1]; a != kSilent) {
                    sendto(fd, a.data(), a.size(), 0, from, n);
                }
            }
        });
    }
    std::vector<bytes> received() {
        shutdown(fd, SHUT_RDWR);
        if (worker.joinable()) {
            worker.join();
        }
        return queries;
    }
    ~udp_agent() {
        received();
        close(fd);
    }
};

class DpiConnection : public ::testing::Test {
   protected:
    int listener = vx_tcp_listen(0), peer = -1;
    unsigned char* msg = nullptr;
    unsigned long len = 0;

    void TearDown() override {
        for (int h = 0; h < DPI_MAX_CONNECTIONS; h++) {
            DPIdisconnect_from_agent(h);
        }
        close(listener), close(peer);
    }
    // Connects through the port query; the agent's end of the connection becomes `peer`.
    int connect_agent() {
        udp_agent agent({port_answer(vx_local_port(listener))});
        int handle = DPIconnect_to_agent_TCP("127.0.0.1", "public");
        peer = handle >= 0 ? vx_tcp_accept(listener, 5000) : -1;
        return handle;
    }
};

TEST(DpiQuery, MessageAroundTheCommunityAndPortFromTheAnswer) {
    auto query = [](int kind, int selector, const std::string& community) {
        int n = -1;
        unsigned char* m = mkDPIqport_packet(kind, selector, community.data(),
                                             static_cast<int>(community.size()), &n);
        EXPECT_EQ(n, m ? n : 0);
        return m ? vx_to_hex(bytes(m, m + n)) : "";
    };
    const std::string tail =
        " a0 1c 02 01 01 02 01 00 02 01 00 30 11 30 0f 06 0b 2b 06 01 04 01 02 02 01 01 0";
    const std::string c92(92, 'c');
    EXPECT_EQ(query(1, 3, ""), "30 23 02 01 00 04 00" + tail + "3 00 05 00");
    EXPECT_EQ(query(1, 2, c92),
              "30 7f 02 01 00 04 5c " + vx_to_hex(bytes(92, 'c')) + tail + "2 00 05 00");
    EXPECT_EQ(query(1, 1, c92 + "c") + query(1, 4, "public") + query(2, 1, "public"), "");
    EXPECT_EQ(query(1, 1, "public"), vx_to_hex(kQuery));  // the one the answers must name
    const struct {
        bytes answer;
        int port;
    } answers[] = {
        // clang-format off
        {get_response("02 02 04 00"), 1024}, {get_response("02 01 50"), 80},
        {get_response("02 01 80"), 128}, {get_response("02 03 01 00 00"), 65536},
        {get_response("02 01 00"), 0}, {get_response("02 02 FF FF", 5), 65535},
        {cat(kPortName, vx_hex("02 01 50")), 80},  // only the tail counts
        {get_response("05 00", 2), -1}, {get_response("04 01 50"), -1}, {get_response("02 02 50"), -1},
        {get_response("02 04 00 00 04 00"), -1}, {cat(get_response("02 02 04 00"), {0}), -1}, {{}, -1},
        {get_response("02 02 04 00", 0, vx_hex("06 0B 2B 06 01 04 01 02 02 01 01 02 00")), -1},
        // clang-format on
    };
    for (const auto& r : answers) {
        SCOPED_TRACE(vx_to_hex(r.answer));
        EXPECT_EQ(extract_DPI_port(r.answer.data(), static_cast<int>(r.answer.size())), r.port);
        // No prefix of a good answer yields a port; each is copied so that ASan sees its end.
        for (size_t cut = 0; r.port >= 0 && cut < r.answer.size(); cut++) {
            bytes prefix(r.answer.begin(), r.answer.begin() + static_cast<long>(cut));
            EXPECT_EQ(extract_DPI_port(prefix.data(), static_cast<int>(cut)), -1) << cut;
        }
    }
    EXPECT_EQ(extract_DPI_port(nullptr, 20), -1);
    // Dotted quads are taken as they are; anything else goes to the name service.
    EXPECT_EQ(ntohl(lookup_host("10.1.2.3")), 0x0A010203u);
    EXPECT_EQ(lookup_host("10.1.2.3x") + lookup_host("1.2.3.4.5"), 0u);
}

TEST_F(DpiConnection, PortQueryAndConnectOutcomes) {
    int dead = vx_tcp_listen(0), dead_port = vx_local_port(dead);
    close(dead);
    const struct {
        bytes answer;
        int port, rc;  // of qDPIport and of DPIconnect_to_agent_TCP
    } rows[] = {
        {port_answer(dead_port), dead_port, DPI_RC_IO_ERROR},
        {get_response("02 01 00"), 0, DPI_RC_NOT_SUPPORTED},
        {get_response("05 00", 2), -1, DPI_RC_NO_PORT},
        {{}, -1, DPI_RC_NO_PORT},  // an empty datagram
    };
    const long fds = open_fds();
    for (const auto& r : rows) {
        SCOPED_TRACE(vx_to_hex(r.answer));
        udp_agent agent({r.answer, r.answer});
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), r.port);
        EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), r.rc);
        EXPECT_EQ(open_fds(), fds + 1);  // the responder's socket; the query's is closed
        EXPECT_EQ(agent.received(), std::vector<bytes>(2, kQuery));
    }
    // Refused before anything is sent.
    udp_agent agent({port_answer(1024)});
    EXPECT_EQ(qDPIport("127.0.0.1", std::string(93, 'c').c_str(), 1), -1);
    EXPECT_EQ(qDPIport("no-such-host.invalid", "public", 1), -1);
    setenv("SNMP_PORT", "70000", 1);
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    EXPECT_TRUE(agent.received().empty());
    for (auto* other : {DPIconnect_to_agent_UDP, DPIconnect_to_agent_UNIXstream,
                        DPIconnect_to_agent_NMQ, DPIconnect_to_agent_SHM}) {
        EXPECT_EQ(other("127.0.0.1", "public"), DPI_RC_NOT_SUPPORTED);
    }
}

TEST_F(DpiConnection, FramedPacketsFromTheAgent) {
    ASSERT_EQ(connect_agent(), 0);
    const struct {
        bytes sent;
        int rc;
        unsigned long len;  // length field of the packet handed out
    } rows[] = {
        {vx_hex("00 06 02 02 00 00 00 0F"), DPI_RC_OK, 6},
        {cat(vx_hex("0F FE"), bytes(4094, 0xA5)), DPI_RC_OK, 4094},  // the largest kept
        {cat(vx_hex("0F FF"), bytes(4095, 0x5A)), DPI_RC_PACKET_TOO_LARGE, 0},
        {cat(vx_hex("FF FF"), bytes(65535, 1)), DPI_RC_PACKET_TOO_LARGE, 0},
        {vx_hex("00 00"), DPI_RC_OK, 0},
        {vx_hex("00 07 02 02 00 00 01 09 02"), DPI_RC_OK, 7},  // read from its start
    };
    // All queued at once: a send buffer large enough for them all spares a writer thread.
    int big = 1 << 20;
    setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    for (const auto& r : rows) {
        ASSERT_TRUE(vx_send_all(peer, r.sent));
    }
    for (const auto& r : rows) {
        SCOPED_TRACE(r.sent.size());
        msg = reinterpret_cast<unsigned char*>(&len), len = 99;
        EXPECT_EQ(DPIawait_packet_from_agent(0, 5, &msg, &len), r.rc);
        EXPECT_EQ(len, r.len);
        EXPECT_EQ(msg ? bytes(msg, msg + len + 2) : bytes{}, r.len ? r.sent : bytes{});
    }
}

TEST_F(DpiConnection, AgentClosesMidPacket) {
    const struct {
        bytes sent;
        int rc;
    } rows[] = {
        {{}, DPI_RC_IO_ERROR},
        {vx_hex("00"), DPI_RC_IO_ERROR},  // inside the length field
        {vx_hex("00 06 02 02 00"), DPI_RC_EOF},
        {cat(vx_hex("10 00"), bytes(100, 0)), DPI_RC_EOF},  // inside a packet being dropped
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.sent.size());
        ASSERT_EQ(connect_agent(), 0);
        ASSERT_TRUE(vx_send_all(peer, r.sent));
        close(peer);
        EXPECT_EQ(DPIawait_packet_from_agent(0, 5, &msg, &len), r.rc);
        // The handle is dead: descriptor gone, slot free.
        EXPECT_EQ(DPIget_fd_for_handle(0), -1);
        EXPECT_EQ(DPIawait_packet_from_agent(0, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
        EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_INVALID_HANDLE);
    }
    peer = -1;
}

TEST_F(DpiConnection, HandlesSlotsSendAndTimeOut) {
    ASSERT_EQ(connect_agent(), 0);
    auto t0 = steady_clock::now();
    EXPECT_EQ(DPIawait_packet_from_agent(0, 0, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_LT(steady_clock::now() - t0, std::chrono::milliseconds(500));
    EXPECT_EQ(DPIawait_packet_from_agent(0, 1, &msg, &len), DPI_RC_TIMEOUT);
    // What a subagent sends reaches the agent as it was built.
    unsigned char* built = mkDPIreg(0, -1, "1.3.6.1.4.1.2.3.1.", 0, 0);
    const bytes reg(built, built + DPI_PACKET_LEN(built));
    ASSERT_EQ(DPIsend_packet_to_agent(0, reg.data(), reg.size()), DPI_RC_OK);
    bytes got(reg.size());
    ASSERT_EQ(recv(peer, got.data(), got.size(), MSG_WAITALL), static_cast<ssize_t>(got.size()));
    EXPECT_EQ(got, reg);
    // The handle is checked before the arguments.
    for (int handle : {-1, 2, 3}) {
        EXPECT_EQ(DPIsend_packet_to_agent(handle, reg.data(), 0), DPI_RC_INVALID_HANDLE) << handle;
        EXPECT_EQ(DPIawait_packet_from_agent(handle, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
    }
    EXPECT_EQ(DPIget_fd_for_handle(-1) + DPIget_fd_for_handle(3), 2 * DPI_RC_INVALID_HANDLE);
    EXPECT_EQ(DPIsend_packet_to_agent(0, nullptr, 9), DPI_RC_INVALID_ARGUMENT);
    EXPECT_EQ(DPIsend_packet_to_agent(0, reg.data(), 0), DPI_RC_INVALID_ARGUMENT);
    // Three slots, the query's included: with none left, no port can be learned.
    ASSERT_EQ(connect_agent(), 1);
    ASSERT_EQ(connect_agent(), 2);
    const long fds = open_fds();
    udp_agent agent({port_answer(1024)});
    EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), DPI_RC_NO_PORT);
    EXPECT_TRUE(agent.received().empty());
    EXPECT_EQ(open_fds(), fds + 1);
    DPIdisconnect_from_agent(1);
    EXPECT_EQ(DPIget_fd_for_handle(1), -1);
    EXPECT_EQ(connect_agent(), 1);
}

// Slow: waits out the library's fixed time-outs.
TEST_F(DpiConnection, SlowTimeOuts) {
    auto t0 = steady_clock::now();
    udp_agent silent({kSilent, kSilent, kSilent});
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    EXPECT_EQ(silent.received(), std::vector<bytes>(3, kQuery));
    auto waited = steady_clock::now() - t0;
    EXPECT_TRUE(waited >= std::chrono::seconds(17) && waited < std::chrono::seconds(25));
    udp_agent late({kSilent, port_answer(4242)});
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), 4242);
    // A body that stalls times out, and the connection stays.
    ASSERT_EQ(connect_agent(), 0);
    ASSERT_TRUE(vx_send_all(peer, vx_hex("00 06 02 02 00")));
    EXPECT_EQ(DPIawait_packet_from_agent(0, 1, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_OK);
}

}  // namespace
