#include "process/linux/proc_parse.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

#include <cstring>

namespace nemarro::process::linux {
namespace {

TEST(ParseStat, NameWithBlanksAndParenthesesIsTakenUpToTheLastParenthesis) {
    const char* line =
        "4242 (my (odd) name) S 17 4242 4242 0 -1 4194560 100 0 0 0 250 75 0 0 20 0 1 0 "
        "123456 1000000 200 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n";
    auto f = parseStat(line);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->comm, "my (odd) name");
    EXPECT_EQ(f->state, 'S');
    EXPECT_EQ(f->ppid, 17);
    EXPECT_EQ(f->utime, 250u);
    EXPECT_EQ(f->stime, 75u);
    EXPECT_EQ(f->startTicks, 123456u);
}

TEST(ParseStat, ZombieAndKernelThread) {
    auto zombie = parseStat("77 (defunct) Z 1 77 77 0 -1 4227084 0 0 0 0 3 1 0 0 20 0 1 0 999 0 0");
    ASSERT_TRUE(zombie);
    EXPECT_EQ(zombie->state, 'Z');
    auto kthread = parseStat("2 (kthreadd) S 0 0 0 0 -1 2129984 0 0 0 0 0 7 0 0 20 0 1 0 1 0 0");
    ASSERT_TRUE(kthread);
    EXPECT_EQ(kthread->ppid, 0);
    EXPECT_EQ(kthread->startTicks, 1u);
}

TEST(ParseStat, RejectsTruncatedOrMalformedLines) {
    for (const char* bad : {"", "12 (x", "12 x) S 1", "12 (x) S 1 2 3",
                            "12 (x) SS 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20",
                            "12 (x) S one 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20"}) {
        EXPECT_FALSE(parseStat(bad)) << bad;
    }
}

TEST(ParseProcFiles, StatusStatmIoAndBootTime) {
    EXPECT_EQ(parseStatusEffectiveUid("Name:\tx\nUid:\t1000\t1001\t1002\t1003\nGid:\t5\n"), 1001u);
    EXPECT_FALSE(parseStatusEffectiveUid("Name:\tx\n"));
    EXPECT_EQ(parseStatm("5000 1200 300 10 0 900 0\n"), (StatmFields{1200, 300}));
    EXPECT_FALSE(parseStatm("5000\n"));
    EXPECT_EQ(parseIo("rchar: 9\nwchar: 8\nsyscr: 1\nsyscw: 1\nread_bytes: 4096\n"
                      "write_bytes: 8192\ncancelled_write_bytes: 0\n"),
              (IoFields{4096, 8192}));
    EXPECT_FALSE(parseIo("rchar: 9\n"));
    EXPECT_EQ(parseBootTime("cpu  1 2 3\nintr 5\nbtime 1763700000\nprocesses 9\n"), 1763700000u);
    EXPECT_FALSE(parseBootTime("cpu 1\n"));
}

TEST(ParseCmdline, SplitsAtNulAndRepairsUtf8) {
    using V = std::vector<std::string>;
    EXPECT_EQ(parseCmdline(std::string_view("node\0server.js\0--port\0"
                                            "3000\0",
                                            26)),
              (V{"node", "server.js", "--port", "3000"}));
    EXPECT_EQ(parseCmdline(std::string_view("a\0\0b\0", 5)), (V{"a", "", "b"}));
    EXPECT_EQ(parseCmdline("renamed by setproctitle"), (V{"renamed by setproctitle"}));
    EXPECT_EQ(parseCmdline(""), V{});
    EXPECT_EQ(parseCmdline(std::string_view("bad\xff\0", 5)), (V{"bad\xEF\xBF\xBD"}));
}

TEST(ParseSocketLink, OnlySocketLinksGiveAnInode) {
    EXPECT_EQ(parseSocketLink("socket:[123456]"), 123456u);
    EXPECT_FALSE(parseSocketLink("pipe:[123]"));
    EXPECT_FALSE(parseSocketLink("/dev/null"));
    EXPECT_FALSE(parseSocketLink("socket:[]"));
    EXPECT_FALSE(parseSocketLink("socket:[12x]"));
}

TEST(StartTime, IsStableMicrosecondsSinceTheEpoch) {
    EXPECT_EQ(startTimeMicros(1'700'000'000, 0, 100), 1'700'000'000'000'000u);
    EXPECT_EQ(startTimeMicros(1'700'000'000, 12'345, 100), 1'700'000'123'450'000u);
    EXPECT_EQ(startTimeMicros(10, 1, 3), 10'333'333u);
}

TEST(FullName, LongNamesComeFromTheExecutableOrArgv0WhenTheKernelCutThem) {
    const std::string cut = "very-long-progr";  // 15 bytes: the kernel's limit
    EXPECT_EQ(fullName(cut, "/opt/bin/very-long-program-name", std::nullopt),
              "very-long-program-name");
    EXPECT_EQ(fullName(cut, "/usr/bin/node", "/home/u/very-long-program-x"), "very-long-program-x");
    EXPECT_EQ(fullName(cut, "/usr/bin/node", "node"), cut);
    EXPECT_EQ(fullName("short", "/bin/shorter-name", std::nullopt), "short");
}

TEST(ParseProcNetTcp, KeepsOnlyListeningRowsWithAddressPortUidAndInode) {
    // Little-endian kernel words: 0100007F is 127.0.0.1, 1F90 is 8080.
    const char* v4 =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
        "timeout inode\n"
        "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000 "
        "       0 55501 1 0000000000000000 100 0 0 10 0\n"
        "   1: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0 "
        "       0 55502 1 0000000000000000 100 0 0 10 0\n"
        "   2: 0100007F:1F90 0100007F:D431 01 00000000:00000000 00:00000000 00000000  1000 "
        "       0 55503 1 0000000000000000 20 4 30 10 -1\n";
    auto rows = parseProcNetTcp(v4, AF_INET);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0], (KernelListener{55501, 1000, AF_INET, "127.0.0.1", 8080,
                                       ListeningSocket::AddressClass::loopback}));
    EXPECT_EQ(rows[1].address, "0.0.0.0");
    EXPECT_EQ(rows[1].addressClass, ListeningSocket::AddressClass::any);

    const char* v6 =
        "  sl  local_address                         remote_address                        st "
        "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
        "   0: 00000000000000000000000001000000:0277 00000000000000000000000000000000:0000 0A "
        "00000000:00000000 00:00000000 00000000     0        0 66601 1 0000000000000000 100 0 0 "
        "10 0\n";
    auto rows6 = parseProcNetTcp(v6, AF_INET6);
    ASSERT_EQ(rows6.size(), 1u);
    EXPECT_EQ(rows6[0].address, "::1");
    EXPECT_EQ(rows6[0].port, 631);
    EXPECT_EQ(rows6[0].addressClass, ListeningSocket::AddressClass::loopback);
}

std::vector<std::byte> diagMessage(uint8_t family, uint8_t state, const char* address,
                                   uint16_t port, uint32_t uid, uint32_t inode) {
    nlmsghdr h{};
    h.nlmsg_len = NLMSG_LENGTH(sizeof(inet_diag_msg));
    h.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    inet_diag_msg m{};
    m.idiag_family = family;
    m.idiag_state = state;
    m.id.idiag_sport = htons(port);
    m.idiag_uid = uid;
    m.idiag_inode = inode;
    inet_pton(family, address, m.id.idiag_src);
    std::vector<std::byte> out(NLMSG_ALIGN(h.nlmsg_len));
    std::memcpy(out.data(), &h, sizeof h);
    std::memcpy(out.data() + NLMSG_HDRLEN, &m, sizeof m);
    return out;
}

TEST(ParseSockDiag, ReadsListenersUntilDone) {
    auto buf = diagMessage(AF_INET, 10, "127.0.0.1", 5432, 0, 9001);
    auto v6 = diagMessage(AF_INET6, 10, "::ffff:127.0.0.1", 3000, 1000, 9002);
    auto established = diagMessage(AF_INET, 1, "10.0.0.1", 22, 0, 9003);
    buf.insert(buf.end(), v6.begin(), v6.end());
    buf.insert(buf.end(), established.begin(), established.end());
    bool done = false;
    auto rows = parseSockDiag(buf, done);
    EXPECT_FALSE(done);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0], (KernelListener{9001, 0, AF_INET, "127.0.0.1", 5432,
                                       ListeningSocket::AddressClass::loopback}));
    EXPECT_EQ(rows[1].address, "::ffff:127.0.0.1");
    EXPECT_EQ(rows[1].addressClass, ListeningSocket::AddressClass::loopback);

    nlmsghdr end{};
    end.nlmsg_len = NLMSG_LENGTH(4);
    end.nlmsg_type = NLMSG_DONE;
    std::vector<std::byte> tail(NLMSG_ALIGN(end.nlmsg_len));
    std::memcpy(tail.data(), &end, sizeof end);
    EXPECT_TRUE(parseSockDiag(tail, done).empty());
    EXPECT_TRUE(done);
}

TEST(ParseSockDiag, MalformedLengthStopsInsteadOfLooping) {
    auto buf = diagMessage(AF_INET, 10, "127.0.0.1", 80, 0, 1);
    nlmsghdr h;
    std::memcpy(&h, buf.data(), sizeof h);
    h.nlmsg_len = 4096;  // longer than the buffer
    std::memcpy(buf.data(), &h, sizeof h);
    bool done = false;
    EXPECT_TRUE(parseSockDiag(buf, done).empty());
    EXPECT_TRUE(done);
}

}  // namespace
}  // namespace nemarro::process::linux
