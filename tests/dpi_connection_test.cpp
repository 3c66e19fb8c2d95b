// The subagent connection library against real loopback peers: a UDP responder standing in
// for the master agent's SNMP port, and a TCP listener standing in for the DPI agent.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "snmp_dpi.h"
#include "vx_peers.h"

namespace {

using bytes = vx_bytes;
using std::chrono::steady_clock;

bytes hex(const std::string& text) {
    return vx_hex(text.c_str());
}

template <class... More>
bytes cat(bytes first, const More&... more) {
    (first.insert(first.end(), more.begin(), more.end()), ...);
    return first;
}

const bytes kPortName = hex("06 0B 2B 06 01 04 01 02 02 01 01 01 00");
const bytes kQueryPublic =
    hex("30 29 02 01 00 04 06 70 75 62 6C 69 63 A0 1C 02 01 01 02 01 00 "
        "02 01 00 30 11 30 0F 06 0B 2B 06 01 04 01 02 02 01 01 01 00 05 00");

// A GetResponse for community "public" with one varbind: `name` and an encoded value.
bytes get_response(const bytes& value, uint8_t status = 0, const bytes& name = kPortName) {
    bytes pdu = cat(hex("02 01 01 02 01"), bytes{status}, hex("02 01 00"),
                    vx_ber_tlv(0x30, vx_ber_tlv(0x30, cat(name, value))));
    return vx_ber_tlv(0x30, cat(hex("02 01 00 04 06 70 75 62 6C 69 63"), vx_ber_tlv(0xA2, pdu)));
}

bytes port_answer(uint16_t port) {
    return get_response({0x02, 0x02, static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)});
}

long open_fds() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
}

const bytes kIgnore = {'i'};

// The master agent's SNMP port, found through SNMP_PORT: answers the n-th query with
// script[n] (an empty datagram when that is empty) or stays silent on kIgnore.
struct udp_responder {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<bytes> script, queries;
    std::atomic<bool> stop{false};
    std::thread worker;

    explicit udp_responder(std::vector<bytes> answers) : script(std::move(answers)) {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        timeval tick{0, 20000};  // how often the worker looks at `stop`
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
        setenv("SNMP_PORT", std::to_string(vx_local_port(fd)).c_str(), 1);
        worker = std::thread([this, sa]() mutable {
            uint8_t buf[512];
            for (socklen_t len = sizeof sa; !stop; len = sizeof sa) {
                ssize_t n =
                    recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&sa), &len);
                if (n < 0) {
                    continue;
                }
                queries.emplace_back(buf, buf + n);
                const bytes& answer =
                    queries.size() <= script.size() ? script[queries.size() - 1] : kIgnore;
                if (answer != kIgnore) {
                    sendto(fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&sa),
                           len);
                }
            }
        });
    }
    // The queries that came; the responder stops answering.
    std::vector<bytes> received() {
        stop = true;
        if (worker.joinable()) {
            worker.join();
        }
        return queries;
    }
    ~udp_responder() {
        received();
        close(fd);
    }
};

class DpiConnection : public ::testing::Test {
   protected:
    int listener = vx_tcp_listen(0);
    unsigned char* msg = nullptr;
    unsigned long len = 0;

    void SetUp() override {
        int n = 0;
        // The port query remembers its selector; start from the usual one.
        ASSERT_NE(mkDPIqport_packet(DPI_QUERY_KIND_GET, 1, "", 0, &n), nullptr);
        ASSERT_GE(listener, 0);
    }
    void TearDown() override {
        for (int h = 0; h < DPI_MAX_CONNECTIONS; h++) {
            DPIdisconnect_from_agent(h);
        }
        close(listener);
        unsetenv("SNMP_PORT");
    }
    // Connects through the port query; the agent's end of the connection goes to *peer.
    int connect_agent(int* peer) {
        udp_responder agent({port_answer(static_cast<uint16_t>(vx_local_port(listener)))});
        int handle = DPIconnect_to_agent_TCP("127.0.0.1", "public");
        *peer = handle >= 0 ? vx_tcp_accept(listener, 5000) : -1;
        return handle;
    }
};

TEST(DpiQuery, MessageAssembledAroundTheCommunity) {
    const std::string tail =
        "A0 1C 02 01 01 02 01 00 02 01 00 30 11 30 0F 06 0B 2B 06 01 04 01 02"
        "02 01 01 0";
    const std::string c92(92, 'c');
    const struct {
        const char* name;
        int kind, selector;
        std::string community;
        bytes expect;  // empty: must fail
    } rows[] = {
        {"public", 1, 1, "public", kQueryPublic},
        {"empty community, selector 3", 1, 3, "",
         hex("30 23 02 01 00 04 00" + tail + "3 00 05 00")},
        {"longest community", 1, 1, c92,
         cat(hex("30 7F 02 01 00 04 5C"), bytes(c92.begin(), c92.end()), hex(tail + "1 00 05 00"))},
        {"community of 93", 1, 1, c92 + "c", {}},
        {"selector 4", 1, 4, "public", {}},
        {"kind 2", 2, 1, "public", {}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        int out_len = -1;
        unsigned char* q = mkDPIqport_packet(r.kind, r.selector, r.community.data(),
                                             static_cast<int>(r.community.size()), &out_len);
        EXPECT_EQ(q ? bytes(q, q + out_len) : bytes{}, r.expect);
        EXPECT_EQ(out_len, static_cast<int>(r.expect.size()));
    }
}

TEST(DpiQuery, PortFromTheTailOfTheAnswer) {
    int n = 0;
    ASSERT_NE(mkDPIqport_packet(1, 1, "", 0, &n), nullptr);
    const bytes other = hex("06 0B 2B 06 01 04 01 02 02 01 01 02 00");
    const struct {
        const char* name;
        bytes answer;
        int port;
    } rows[] = {
        {"two octets", get_response(hex("02 02 04 00")), 1024},
        {"one octet", get_response(hex("02 01 50")), 80},
        {"one octet, unsigned", get_response(hex("02 01 80")), 128},
        {"three octets", get_response(hex("02 03 01 00 00")), 65536},
        {"port 0", get_response(hex("02 01 00")), 0},
        {"error status is not examined", get_response(hex("02 02 FF FF"), 5), 65535},
        {"the tail alone", cat(kPortName, hex("02 01 50")), 80},
        {"NULL with noSuchName", get_response(hex("05 00"), 2), -1},
        {"OCTET STRING", get_response(hex("04 01 50")), -1},
        {"length octet disagrees", get_response(hex("02 02 50")), -1},
        {"four-octet INTEGER", get_response(hex("02 04 00 00 04 00")), -1},
        {"trailing octet", cat(get_response(hex("02 02 04 00")), bytes{0}), -1},
        {"other object", get_response(hex("02 02 04 00"), 0, other), -1},
        {"empty", {}, -1},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(extract_DPI_port(r.answer.data(), static_cast<int>(r.answer.size())), r.port);
        // No prefix of a good answer yields a port; each is copied so that ASan sees its end.
        for (size_t cut = 0; r.port >= 0 && cut < r.answer.size(); cut++) {
            bytes prefix(r.answer.begin(), r.answer.begin() + static_cast<long>(cut));
            EXPECT_EQ(extract_DPI_port(prefix.data(), static_cast<int>(cut)), -1) << cut;
        }
    }
    EXPECT_EQ(extract_DPI_port(nullptr, 20), -1);
    // The answer must name the object of the last query.
    ASSERT_NE(mkDPIqport_packet(1, 2, "", 0, &n), nullptr);
    bytes a = get_response(hex("02 01 07"), 0, other);
    EXPECT_EQ(extract_DPI_port(a.data(), static_cast<int>(a.size())), 7);
}

TEST(DpiQuery, LookupHost) {
    // Dotted quads are taken as they are; anything else goes to the name service.
    const std::pair<const char*, uint32_t> rows[] = {
        {"127.0.0.1", 0x7F000001}, {"10.1.2.3", 0x0A010203}, {"localhost", 0x7F000001},
        {"10.1.2.3x", 0},          {"1.2.3.4.5", 0},         {"", 0},
    };
    for (auto [host, addr] : rows) {
        EXPECT_EQ(ntohl(lookup_host(host)), addr) << host;
    }
    EXPECT_EQ(lookup_host(nullptr), 0u);
}

TEST_F(DpiConnection, PortQueryAndConnectOutcomes) {
    int dead = vx_tcp_listen(0);
    const int dead_port = vx_local_port(dead);
    close(dead);
    const struct {
        const char* name;
        bytes answer;
        int port, rc;  // of qDPIport and of DPIconnect_to_agent_TCP
    } rows[] = {
        {"nobody listens", port_answer(static_cast<uint16_t>(dead_port)), dead_port,
         DPI_RC_IO_ERROR},
        {"agent reports port 0", get_response(hex("02 01 00")), 0, DPI_RC_NOT_SUPPORTED},
        {"port beyond 65535", get_response(hex("02 03 01 00 00")), 65536, DPI_RC_IO_ERROR},
        {"NULL answer", get_response(hex("05 00"), 2), -1, DPI_RC_NO_PORT},
        {"empty datagram", {}, -1, DPI_RC_NO_PORT},
    };
    const long fds = open_fds();
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        udp_responder agent({r.answer, r.answer});
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), r.port);
        EXPECT_EQ(open_fds(), fds + 1);  // the responder's socket; the query's is closed
        EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), r.rc);
        EXPECT_EQ(open_fds(), fds + 1);
        EXPECT_EQ(agent.received(), std::vector<bytes>(2, kQueryPublic));
    }
    // Refused before anything is sent.
    udp_responder agent({port_answer(1024)});
    EXPECT_EQ(qDPIport("127.0.0.1", std::string(93, 'c').c_str(), 1), -1);
    EXPECT_EQ(qDPIport("127.0.0.1", nullptr, 1), -1);
    EXPECT_EQ(qDPIport("no-such-host.invalid", "public", 1), -1);
    for (const char* bad : {"abc", "70000", "0", "", "161x"}) {
        setenv("SNMP_PORT", bad, 1);
        EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1) << bad;
    }
    EXPECT_TRUE(agent.received().empty());
}

TEST_F(DpiConnection, ThreeSlotsTheQueryIncluded) {
    int peers[4];
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(connect_agent(&peers[i]), i);
        EXPECT_GE(DPIget_fd_for_handle(i), 0);
    }
    // The query needs a slot of its own: with none left, no port can be learned.
    const long fds = open_fds();
    {
        udp_responder agent({port_answer(1024)});
        EXPECT_EQ(DPIconnect_to_agent_TCP("127.0.0.1", "public"), DPI_RC_NO_PORT);
        EXPECT_TRUE(agent.received().empty());
    }
    EXPECT_EQ(open_fds(), fds);
    DPIdisconnect_from_agent(1);
    EXPECT_EQ(DPIget_fd_for_handle(1), -1);
    EXPECT_EQ(connect_agent(&peers[3]), 1);
    for (int fd : peers) {
        close(fd);
    }
}

TEST_F(DpiConnection, FramedPacketsFromTheAgent) {
    int peer = -1;
    ASSERT_EQ(connect_agent(&peer), 0);
    const struct {
        const char* name;
        bytes sent;
        int rc;
        unsigned long len;  // length field of the packet handed out
    } rows[] = {
        {"ARE_YOU_THERE", hex("00 06 02 02 00 00 00 0F"), DPI_RC_OK, 6},
        {"largest kept", cat(hex("0F FE"), bytes(4094, 0xA5)), DPI_RC_OK, 4094},
        {"one too long", cat(hex("0F FF"), bytes(4095, 0x5A)), DPI_RC_PACKET_TOO_LARGE, 0},
        {"longest length field", cat(hex("FF FF"), bytes(65535, 1)), DPI_RC_PACKET_TOO_LARGE, 0},
        {"empty packet", hex("00 00"), DPI_RC_OK, 0},
        {"after the dropped ones", hex("00 07 02 02 00 00 01 09 02"), DPI_RC_OK, 7},
    };
    // Written from another thread (the big packets overflow the socket buffers), all at
    // once and then in pieces that split length fields and bodies.
    for (size_t piece : {size_t{1} << 20, size_t{1499}}) {
        SCOPED_TRACE(piece);
        std::thread writer([&] {
            for (const auto& r : rows) {
                for (size_t off = 0; off < r.sent.size(); off += piece) {
                    size_t n = std::min(piece, r.sent.size() - off);
                    if (write(peer, r.sent.data() + off, n) != static_cast<ssize_t>(n)) {
                        return;
                    }
                }
            }
        });
        for (const auto& r : rows) {
            SCOPED_TRACE(r.name);
            msg = reinterpret_cast<unsigned char*>(&len);
            len = 99;
            int rc = DPIawait_packet_from_agent(0, 5, &msg, &len);
            EXPECT_EQ(rc, r.rc);
            EXPECT_EQ(len, r.len);
            if (rc != r.rc) {
                shutdown(peer, SHUT_RDWR);  // lets the writer fail out
                break;
            }
            EXPECT_EQ(msg ? bytes(msg, msg + len + 2) : bytes{}, r.len ? r.sent : bytes{});
        }
        writer.join();
    }
    close(peer);
}

TEST_F(DpiConnection, AgentClosesMidPacket) {
    const struct {
        const char* name;
        bytes sent;
        int rc;
    } rows[] = {
        {"before anything", {}, DPI_RC_IO_ERROR},
        {"inside the length field", hex("00"), DPI_RC_IO_ERROR},
        {"inside the body", hex("00 06 02 02 00"), DPI_RC_EOF},
        {"inside a dropped packet", cat(hex("10 00"), bytes(100, 0)), DPI_RC_EOF},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        int peer = -1;
        ASSERT_EQ(connect_agent(&peer), 0);
        ASSERT_TRUE(vx_send_all(peer, r.sent));
        close(peer);
        EXPECT_EQ(DPIawait_packet_from_agent(0, 5, &msg, &len), r.rc);
        // The handle is dead: descriptor gone, slot free.
        EXPECT_EQ(DPIget_fd_for_handle(0), -1);
        EXPECT_EQ(DPIawait_packet_from_agent(0, 0, &msg, &len), DPI_RC_INVALID_HANDLE);
        EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_INVALID_HANDLE);
    }
}

TEST_F(DpiConnection, SendTimeoutAndInvalidHandles) {
    int peer = -1;
    ASSERT_EQ(connect_agent(&peer), 0);
    auto t0 = steady_clock::now();
    EXPECT_EQ(DPIawait_packet_from_agent(0, 0, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_LT(steady_clock::now() - t0, std::chrono::milliseconds(500));
    EXPECT_EQ(DPIawait_packet_from_agent(0, 1, &msg, &len), DPI_RC_TIMEOUT);

    // What a subagent sends reaches the agent as it was built.
    unsigned char* built = mkDPIreg(0, -1, "1.3.6.1.4.1.2.3.1.", 0, 0);
    ASSERT_NE(built, nullptr);
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
    EXPECT_EQ(DPIsend_packet_to_agent(0, nullptr, 9), DPI_RC_INVALID_ARGUMENT);
    EXPECT_EQ(DPIsend_packet_to_agent(0, reg.data(), 0), DPI_RC_INVALID_ARGUMENT);
    EXPECT_EQ(DPIget_fd_for_handle(-1), DPI_RC_INVALID_HANDLE);
    EXPECT_EQ(DPIget_fd_for_handle(3), DPI_RC_INVALID_HANDLE);
    // A vanished agent is an error result, not a broken-pipe signal.
    close(peer);
    int rc = DPI_RC_OK;
    for (int i = 0; i < 50 && rc == DPI_RC_OK; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        rc = DPIsend_packet_to_agent(0, reg.data(), reg.size());
    }
    EXPECT_EQ(rc, DPI_RC_IO_ERROR);
}

// Slow: these wait out the library's fixed time-outs.

TEST_F(DpiConnection, SlowUnansweredQueryGivesUpAfterThreeAttempts) {
    udp_responder agent({kIgnore, kIgnore, kIgnore});
    auto t0 = steady_clock::now();
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), -1);
    auto waited = steady_clock::now() - t0;
    EXPECT_GE(waited, std::chrono::seconds(17));
    EXPECT_LT(waited, std::chrono::seconds(25));
    EXPECT_EQ(agent.received(), std::vector<bytes>(3, kQueryPublic));
}

TEST_F(DpiConnection, SlowSecondAttemptAnswered) {
    udp_responder agent({kIgnore, port_answer(4242)});
    EXPECT_EQ(qDPIport("127.0.0.1", "public", 1), 4242);
    EXPECT_EQ(agent.received(), std::vector<bytes>(2, kQueryPublic));
}

TEST_F(DpiConnection, SlowStalledBodyTimesOutAndKeepsTheConnection) {
    int peer = -1;
    ASSERT_EQ(connect_agent(&peer), 0);
    ASSERT_TRUE(vx_send_all(peer, hex("00 06 02 02 00")));
    EXPECT_EQ(DPIawait_packet_from_agent(0, 1, &msg, &len), DPI_RC_TIMEOUT);
    EXPECT_EQ(msg, nullptr);
    EXPECT_GE(DPIget_fd_for_handle(0), 0);
    EXPECT_EQ(DPIsend_packet_to_agent(0, kPortName.data(), 2), DPI_RC_OK);
    close(peer);
}

}  // namespace
