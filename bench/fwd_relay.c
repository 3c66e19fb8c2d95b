/*
 * fwd_relay: a process in the middle that does nothing but copy bytes, for forward_path.sh to
 * put where varnex2 would be (snmpd --SMUX--> fwd_relay --> bare SMUX peer). What it costs is
 * the least any process between the master agent and a subagent can cost: the same waits,
 * receives and writes per request as the daemon, and no protocol work at all.
 *
 * It listens on 127.0.0.1:PORT (default 1199) for one SMUX peer, then connects to the master
 * agent on 127.0.0.1:199 and copies in both directions until either end closes. A Get or
 * GetNext from the master is answered as the daemon answers a forwarded request: the relay
 * waits on the peer's connection alone until the answer comes back, then returns to its wait
 * on both.
 *
 * Usage: fwd_relay [-p port]
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static int tcp_socket(void) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    if (fd >= 0) {
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    }
    return fd;
}

static struct sockaddr_in loopback(unsigned port) {
    struct sockaddr_in addr = {0};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons((uint16_t)port);
    return addr;
}

/* Copies what one receive brings; 0 when either end has closed or failed. */
static int pass_on(int from, int to) {
    static char buffer[65536];
    ssize_t n = recv(from, buffer, sizeof buffer, 0);
    if (n <= 0 || write(to, buffer, (size_t)n) != n) {
        return 0;
    }
    return 1 + (unsigned char)buffer[0];
}

int main(int argc, char** argv) {
    unsigned port = 1199;
    int opt;
    while ((opt = getopt(argc, argv, "p:")) != -1) {
        if (opt != 'p') {
            fprintf(stderr, "usage: %s [-p port]\n", argv[0]);
            return 2;
        }
        port = (unsigned)strtoul(optarg, NULL, 10);
    }
    int listener = tcp_socket();
    struct sockaddr_in addr = loopback(port);
    if (listener < 0 || bind(listener, (struct sockaddr*)&addr, sizeof addr) != 0 ||
        listen(listener, 1) != 0) {
        perror("fwd_relay: listen");
        return 1;
    }
    int peer = accept(listener, NULL, NULL);
    int agent = tcp_socket();
    addr = loopback(199);
    if (peer < 0 || agent < 0 || connect(agent, (struct sockaddr*)&addr, sizeof addr) != 0) {
        perror("fwd_relay: connect");
        return 1;
    }
    int one = 1;
    setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(agent, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    int ep = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event ev = {.events = EPOLLIN};
    ev.data.fd = agent;
    epoll_ctl(ep, EPOLL_CTL_ADD, agent, &ev);
    ev.data.fd = peer;
    epoll_ctl(ep, EPOLL_CTL_ADD, peer, &ev);
    for (;;) {
        struct epoll_event ready[2];
        int n = epoll_wait(ep, ready, 2, -1);
        for (int i = 0; i < n; i++) {
            int from = ready[i].data.fd;
            int tag = pass_on(from, from == agent ? peer : agent) - 1;
            if (tag < 0) {
                return 0;
            }
            /* SMUX Get (0xa0) and GetNext (0xa1): the peer's answer is awaited right here. */
            if (from == agent && (tag == 0xa0 || tag == 0xa1) && !pass_on(peer, agent)) {
                return 0;
            }
        }
    }
}
