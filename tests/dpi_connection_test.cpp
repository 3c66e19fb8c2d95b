// The subagent connection library against real loopback peers: a UDP responder in the master
// agent's place (found through SNMP_PORT) and a TCP listener in the DPI agent's.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "snmp_dpi.h"
#include "vx_peers.h"

namespace {

using bytes = vx_bytes;

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

// The master agent's SNMP port: keeps the queries, answers each from the script but kSilent.
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

TEST_F(DpiConnection, PortQueryAnswersAndConnectOutcomes) {
    auto query = [](int kind, int selector, const std::string& community) {
        int n = -1;
        unsigned char* m = mkDPIqport_packet(kind, selector, community.data(),
                                             static_cast<int>(community.size()), &n);
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
    int dead = vx_tcp_listen(0), dead_port = vx_local_port(dead);
    close(dead);
    const int no = 1;  // not connected: the port is not ours to connect to
    // The answer, and what qDPIport and DPIconnect_to_agent_TCP make of it.
    const std::tuple<bytes, int, int> rows[] = {
        // clang-format off
        {get_response("02 02 04 00"), 1024, no}, {get_response("02 01 50"), 80, no},
        {get_response("02 01 80"), 128, no}, {get_response("02 03 01 00 00"), 65536, no},
        {get_response("02 02 FF FF", 5), 65535, no},
        {cat(kPortName, vx_hex("02 01 50")), 80, no},  // only the tail counts
        {port_answer(dead_port), dead_port, DPI_RC_IO_ERROR},
        {get_response("02 01 00"), 0, DPI_RC_NOT_SUPPORTED},
        {get_response("05 00", 2), -1, DPI_RC_NO_PORT}, {{}, -1, DPI_RC_NO_PORT},
        {get_response("04 01 50"), -1, no}, {get_response("02 02 50"), -1, no},
        {get_response("02 04 00 00 04 00"), -1, no}, {cat(get_response("02 01 50"), {0}), -1, no},
        {get_response("02 01 50", 0, vx_hex("06 0B 2B 06 01 04 01 02 02 01 01 02 00")), -1, no},
        // clang-format on
    };
    const long fds = open_fds();
    for (const auto& [answer, port, rc] : rows) {
        SCOPED_TRACE(vx_to_hex(answer));
        udp_agent agent({answer, answer});
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), port);
        if (rc != no) {
            EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), rc);
        }
        EXPECT_EQ(open_fds(), fds + 1);  // the responder's socket; the query's is closed
        EXPECT_EQ(agent.received(), std::vector<bytes>(rc != no ? 2 : 1, kQuery));
        // No prefix of a good answer yields a port; each is copied so that ASan sees its end.
        for (size_t cut = 0; port >= 0 && cut < answer.size(); cut++) {
            bytes prefix(answer.begin(), answer.begin() + static_cast<long>(cut));
            EXPECT_EQ(extract_DPI_port(prefix.data(), static_cast<int>(cut)), -1) << cut;
        }
    }
    EXPECT_EQ(qDPIport("no-such-host.invalid", "public", 1), -1);
    setenv("SNMP_PORT", "70000", 1);  // refused before anything is sent
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
}

TEST_F(DpiConnection, FramedPacketsFromTheAgent) {
    ASSERT_EQ(connect_agent(), 0);
    // Sent, result, and the length field of the packet handed out.
    const std::tuple<bytes, int, unsigned long> rows[] = {
        {vx_hex("00 06 02 02 00 00 00 0F"), DPI_RC_OK, 6},
        {cat(vx_hex("0F FE"), bytes(4094, 0xA5)), DPI_RC_OK, 4094},  // the largest kept
        {cat(vx_hex("0F FF"), bytes(4095, 0x5A)), DPI_RC_PACKET_TOO_LARGE, 0},
        {vx_hex("00 00"), DPI_RC_OK, 0},
        {vx_hex("00 07 02 02 00 00 01 09 02"), DPI_RC_OK, 7},  // read from its start
    };
    // All queued at once: a send buffer large enough for them all spares a writer thread.
    int big = 1 << 20;
    setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    for (const auto& [sent, rc, length] : rows) {
        ASSERT_TRUE(vx_send_all(peer, sent));
    }
    for (const auto& [sent, rc, length] : rows) {
        SCOPED_TRACE(sent.size());
        msg = reinterpret_cast<unsigned char*>(&len), len = 99;
        EXPECT_EQ(DPIawait_packet_from_agent(0, 5, &msg, &len), rc);
        EXPECT_EQ(len, length);
        EXPECT_EQ(msg ? bytes(msg, msg + len + 2) : bytes{}, length ? sent : bytes{});
    }
}

TEST_F(DpiConnection, AgentClosesMidPacket) {
    const std::pair<bytes, int> rows[] = {
        {{}, DPI_RC_IO_ERROR},
        {vx_hex("00"), DPI_RC_IO_ERROR},  // inside the length field
        {vx_hex("00 06 02 02 00"), DPI_RC_EOF},
        {cat(vx_hex("10 00"), bytes(100, 0)), DPI_RC_EOF},  // inside a packet being dropped
    };
    for (const auto& [sent, rc] : rows) {
        SCOPED_TRACE(sent.size());
        ASSERT_EQ(connect_agent(), 0);  // the dead handle's slot is free again
        ASSERT_TRUE(vx_send_all(peer, sent));
        close(peer);
        EXPECT_EQ(DPIawait_packet_from_agent(0, 5, &msg, &len), rc);
        EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_INVALID_HANDLE);
    }
    peer = -1;
}

TEST_F(DpiConnection, HandlesSlotsSendAndTimeOut) {
    ASSERT_EQ(connect_agent(), 0);
    EXPECT_EQ(DPIawait_packet_from_agent(0, 0, &msg, &len), DPI_RC_TIMEOUT);
    // The handle is checked before the arguments.
    for (int handle : {-1, 2, 3}) {
        EXPECT_EQ(DPIsend_packet_to_agent(handle, nullptr, 0), DPI_RC_INVALID_HANDLE) << handle;
        EXPECT_EQ(DPIawait_packet_from_agent(handle, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
    }
    EXPECT_EQ(DPIsend_packet_to_agent(0, nullptr, 9), DPI_RC_INVALID_ARGUMENT);
    EXPECT_EQ(DPIsend_packet_to_agent(0, kQuery.data(), 0), DPI_RC_INVALID_ARGUMENT);
    // Three slots, the query's included: with none left, no port is asked for.
    ASSERT_EQ(connect_agent(), 1);
    ASSERT_EQ(connect_agent(), 2);
    udp_agent agent({port_answer(1024)});
    EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), DPI_RC_NO_PORT);
    EXPECT_TRUE(agent.received().empty());
    DPIdisconnect_from_agent(1);
    EXPECT_EQ(connect_agent(), 1);
}

TEST_F(DpiConnection, SlowTimeOuts) {
    udp_agent silent({kSilent, kSilent, kSilent});
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    EXPECT_EQ(silent.received(), std::vector<bytes>(3, kQuery));
    // A body that stalls times out, and the connection stays.
    ASSERT_EQ(connect_agent(), 0);
    ASSERT_TRUE(vx_send_all(peer, vx_hex("00 06 02 02 00")));
    EXPECT_EQ(DPIawait_packet_from_agent(0, 1, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_OK);
}

}  // namespace
