#include "core/ports/netstat_parser.h"

#include <gtest/gtest.h>

namespace wharfy {
namespace {

const char* kNetstat =
    "Active Internet connections (including servers)\n"
    "Proto Recv-Q Send-Q  Local Address          Foreign Address        (state)      rhiwat  "
    "shiwat    pid   epid state  options           gencnt    flags   flags1 usscnt rtncnt fltrs\n"
    "tcp4       0      0  127.0.0.1.5432         *.*                    LISTEN             0   "
    "         0  131072  131072  postgres:812  00000 00000006 0000000000012a5d 00000000 00000800 "
    "     1      0 000001\n"
    "tcp46      0      0  *.3000                 *.*                    LISTEN             0   "
    "         0  131072  131072  Code Helper (Plugin):4021  00000 00000006 000000000001b2c3 "
    "00000000 00000800      1      0 000001\n"
    "tcp6       0      0  ::1.631                *.*                    LISTEN             0   "
    "         0  131072  131072  cupsd:301  00100 00000006 0000000000000a3f 00000000 00000800   "
    "   1      0 000001\n"
    "tcp4       0      0  192.168.1.4.52000      17.57.146.20.443       ESTABLISHED   131072  "
    "131072   4021      0 00102 00000008 0000000000012a77 00000001 00000900      1      0 000001\n"
    "\n";

TEST(NetstatParser, ListeningLinesWithNamesThatHoldBlanks) {
    auto listeners = NetstatParser::listeners(kNetstat);
    ASSERT_EQ(listeners.size(), 3u);
    EXPECT_EQ(listeners[0], (NetstatListener{812, "postgres", "127.0.0.1", 5432}));
    EXPECT_EQ(listeners[1], (NetstatListener{4021, "Code Helper (Plugin)", "*", 3000}));
    EXPECT_EQ(listeners[2], (NetstatListener{301, "cupsd", "::1", 631}));
}

TEST(NetstatParser, MalformedLinesYieldNothing) {
    const char* bad[] = {
        // no process column after LISTEN
        "tcp4  0  0  127.0.0.1.80  *.*  LISTEN  0  0  1  1",
        // pid not a number
        "tcp4  0  0  127.0.0.1.80  *.*  LISTEN  0  0  1  1  nginx:abc  00000 00000006",
        // no port in the local address
        "tcp4  0  0  *.*  *.*  LISTEN  0  0  1  1  nginx:12  00000 00000006",
        // empty process name
        "tcp4  0  0  127.0.0.1.80  *.*  LISTEN  0  0  1  1  :12  00000 00000006",
        // not followed by the five-hex-digit column
        "tcp4  0  0  127.0.0.1.80  *.*  LISTEN  0  0  1  1  nginx:12",
        // UDP and non-listening TCP
        "udp4  0  0  *.5353  *.*  LISTEN  0  0  1  1  mDNS:12  00000 00000006",
        "tcp4  0  0  127.0.0.1.80  *.*  CLOSE_WAIT  0  0  1  1  nginx:12  00000 00000006",
    };
    for (const char* line : bad)
        EXPECT_FALSE(NetstatParser::parse(line)) << line;
}

TEST(NetstatParser, SplitAddressAtTheLastDot) {
    using P = std::pair<std::string, uint16_t>;
    EXPECT_EQ(NetstatParser::splitAddress("127.0.0.1.5432"), (P{"127.0.0.1", 5432}));
    EXPECT_EQ(NetstatParser::splitAddress("*.8080"), (P{"*", 8080}));
    EXPECT_EQ(NetstatParser::splitAddress("fe80::1%lo0.631"), (P{"fe80::1%lo0", 631}));
    EXPECT_FALSE(NetstatParser::splitAddress("*.*"));
    EXPECT_FALSE(NetstatParser::splitAddress("127.0.0.1.70000"));
    EXPECT_FALSE(NetstatParser::splitAddress("nodot"));
}

TEST(AddressClassText, ReachabilityOfPrintedAddresses) {
    struct Case {
        const char* address;
        AddressClass expected;
    };
    const Case cases[] = {
        {"*", AddressClass::allNetworks},
        {"0.0.0.0", AddressClass::allNetworks},
        {"::", AddressClass::allNetworks},
        {"::1", AddressClass::thisMacOnly},
        {"127.0.0.1", AddressClass::thisMacOnly},
        {"127.1.2.3", AddressClass::thisMacOnly},
        {"192.168.1.4", AddressClass::oneNetwork},
        {"fe80::1%lo0", AddressClass::oneNetwork},
        // Only the per-process reading recognises mapped loopback.
        {"::ffff:127.0.0.1", AddressClass::oneNetwork},
    };
    for (const auto& c : cases)
        EXPECT_EQ(addressClass(c.address), c.expected) << c.address;
    EXPECT_LT(AddressClass::thisMacOnly, AddressClass::oneNetwork);
    EXPECT_LT(AddressClass::oneNetwork, AddressClass::allNetworks);
}

}  // namespace
}  // namespace wharfy
