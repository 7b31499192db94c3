#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "fake_process_source.h"
#include "process/identity.h"
#include "process/listening_sockets.h"
#include "process/process_reader.h"
#include "process/process_sampler.h"
#include "process/tick_clock.h"

namespace nemarro::process {
namespace {

using wharfy::testing::FakeProcessSource;

TEST(Identity, TextForms) {
    EXPECT_EQ((ProcessIdentity{812, 1700000000000000}).text(), "812@1700000000000000");
    EXPECT_EQ((FileIdentity{16777220, 42}).text(), "16777220:42");
    EXPECT_NE((ProcessIdentity{812, 1}), (ProcessIdentity{812, 2}));
}

TEST(TickClock, ConvertsExactlyWithoutIntermediateOverflow) {
    const TickClock arm{125, 3};
    EXPECT_EQ(arm.nanoseconds(3), 125u);
    EXPECT_EQ(arm.nanoseconds(1), 41u);
    EXPECT_EQ(arm.nanoseconds(0), 0u);
    // t * numer would overflow; the split form does not. The exact value is
    // floor(t * 125 / 3) for t = 3 * 2^57 + 2.
    const uint64_t t = 3 * (uint64_t{1} << 57) + 2;
    EXPECT_EQ(arm.nanoseconds(t), 125 * (uint64_t{1} << 57) + 83);
    const TickClock linux100{10'000'000, 1};
    EXPECT_EQ(linux100.nanoseconds(250), 2'500'000'000u);
}

TEST(TickClockDeathTest, OverflowAndZeroDenominatorAreFatal) {
    EXPECT_DEATH((TickClock{10'000'000, 1}).nanoseconds(UINT64_MAX / 2), "overflow");
    EXPECT_DEATH((TickClock{1, 0}).nanoseconds(1), "zero denominator");
}

std::vector<std::byte> procArgs(int32_t argc, std::string_view rest) {
    std::vector<std::byte> b(4 + rest.size());
    std::memcpy(b.data(), &argc, 4);
    std::memcpy(b.data() + 4, rest.data(), rest.size());
    return b;
}

TEST(ParseProcArgs, CraftedBuffers) {
    using V = std::vector<std::string>;
    using namespace std::string_view_literals;
    struct Case {
        const char* what;
        std::vector<std::byte> buffer;
        std::optional<V> expected;
    };
    const Case cases[] = {
        {"too short", std::vector<std::byte>(3), std::nullopt},
        {"argc 0", procArgs(0, "/bin/x\0\0x\0"sv), V{}},
        {"negative argc", procArgs(-1, "/bin/x\0\0x\0"sv), V{}},
        {"no NUL after path", procArgs(1, "/bin/x"sv), V{}},
        {"ends in padding", procArgs(1, "/bin/x\0\0\0"sv), V{}},
        {"argv then environment", procArgs(2, "/bin/node\0\0\0node\0app.js\0HOME=/h\0"sv),
         V{"node", "app.js"}},
        {"argc larger than strings", procArgs(5, "/bin/x\0x\0y"sv), V{"x", "y"}},
        {"argv[0] differs from path", procArgs(1, "/usr/bin/python3\0\0-zsh\0"sv), V{"-zsh"}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parseProcArgs(c.buffer), c.expected) << c.what;
}

TEST(AddressClass, EveryCaseOfBothFamilies) {
    using C = ListeningSocket::AddressClass;
    struct Case {
        int family;
        const char* address;
        C expected;
    };
    const Case cases[] = {
        {AF_INET, "0.0.0.0", C::any},
        {AF_INET, "127.0.0.1", C::loopback},
        {AF_INET, "127.0.0.2", C::loopback},
        {AF_INET, "192.168.1.5", C::specific},
        {AF_INET6, "::", C::any},
        {AF_INET6, "::1", C::loopback},
        {AF_INET6, "::2", C::specific},
        {AF_INET6, "fe80::1", C::specific},
        {AF_INET6, "::ffff:127.0.0.1", C::loopback},
        {AF_INET6, "::ffff:127.9.9.9", C::loopback},
        {AF_INET6, "::ffff:0.0.0.0", C::any},
        {AF_INET6, "::ffff:192.168.1.5", C::specific},
        {AF_INET6, "::fffe:127.0.0.1", C::specific},
        {AF_INET6, "1::ffff:127.0.0.1", C::specific},
    };
    for (const auto& c : cases) {
        uint8_t bytes[16] = {};
        ASSERT_EQ(inet_pton(c.family, c.address, bytes), 1) << c.address;
        EXPECT_EQ(classifyAddress(c.family, bytes), c.expected) << c.address;
        // inet_ntop prints the dotted tail only for real v4-mapped addresses.
        if (c.expected != C::specific || c.family == AF_INET) {
            EXPECT_EQ(addressText(c.family, bytes), c.address);
        }
    }
}

class SamplerTest : public ::testing::Test {
  protected:
    std::map<int32_t, FakeProcessSource::Entry> table;
    uint64_t now = 1'000'000'000;
    // 100 ticks per second: one tick is 10 ms.
    ProcessSampler sampler{std::make_unique<FakeProcessSource>(&table), TickClock{10'000'000, 1},
                           [this] { return now; }};

    void set(int32_t pid, uint64_t ticks, std::optional<uint64_t> read = 0,
             std::optional<uint64_t> written = 0, uint64_t start = 1) {
        auto& e = table[pid];
        e.start = start;
        e.raw.name = "p" + std::to_string(pid);
        e.raw.usage = Usage{4096, ticks, read, written};
    }
    const ProcessUsage* find(const ProcessSampler::Result& r, int32_t pid) {
        for (const auto& p : r.processes)
            if (p.identity.pid == pid) return &p;
        return nullptr;
    }
};

TEST_F(SamplerTest, FirstSampleHasFootprintsButNoRates) {
    set(10, 100);
    auto r = sampler.sample();
    ASSERT_EQ(r.processes.size(), 1u);
    EXPECT_EQ(r.processes[0].footprint, 4096u);
    EXPECT_FALSE(r.processes[0].cpuPercent);
    EXPECT_FALSE(r.processes[0].diskReadPerSecond);
}

TEST_F(SamplerTest, RatesOverTheElapsedTime) {
    set(10, 100, 0, 0);
    sampler.sample();
    now += 2'000'000'000;      // 2 s later
    set(10, 200, 4000, 1000);  // 1 s of CPU, 4000 bytes read, 1000 written
    auto r = sampler.sample();
    const auto* p = find(r, 10);
    ASSERT_TRUE(p && p->cpuPercent);
    EXPECT_DOUBLE_EQ(*p->cpuPercent, 50.0);
    EXPECT_DOUBLE_EQ(*p->diskReadPerSecond, 2000.0);
    EXPECT_DOUBLE_EQ(*p->diskWritePerSecond, 500.0);
}

TEST_F(SamplerTest, NoRatesForNewcomersReusedPidsZeroElapsedOrFallingCounters) {
    set(10, 100);
    set(11, 100);
    set(12, 100, 500);
    sampler.sample();
    now += 1'000'000'000;
    set(11, 150, 0, 0, /*start=*/2);  // pid 11 reused by a new process
    set(12, 150, 100);                // disk counter went down
    set(13, 10);                      // started between samples
    auto r = sampler.sample();
    EXPECT_TRUE(find(r, 10)->cpuPercent);
    EXPECT_FALSE(find(r, 11)->cpuPercent);
    EXPECT_FALSE(find(r, 12)->cpuPercent);
    EXPECT_FALSE(find(r, 12)->diskReadPerSecond);
    EXPECT_FALSE(find(r, 13)->cpuPercent);
    auto same = sampler.sample();  // elapsed 0
    EXPECT_FALSE(find(same, 10)->cpuPercent);
}

TEST_F(SamplerTest, HiddenDiskCountersGiveAbsentDiskRatesButCpuStill) {
    set(10, 100, std::nullopt, std::nullopt);
    sampler.sample();
    now += 1'000'000'000;
    set(10, 150, std::nullopt, std::nullopt);
    const auto second = sampler.sample();
    const auto* p = find(second, 10);
    ASSERT_TRUE(p);
    EXPECT_DOUBLE_EQ(p->cpuPercent.value_or(-1), 50.0);
    EXPECT_FALSE(p->diskReadPerSecond);
    EXPECT_FALSE(p->diskWritePerSecond);
}

TEST_F(SamplerTest, UnreadableProcessesAreCountedHiddenAndVanishedOnesForgotten) {
    set(10, 100);
    set(20, 100);
    table[20].hidden = true;
    auto r = sampler.sample();
    EXPECT_EQ(r.hidden, 1);
    EXPECT_EQ(r.processes.size(), 1u);
    table.erase(10);
    now += 1'000'000'000;
    EXPECT_TRUE(sampler.sample().processes.empty());
    set(10, 300);  // same identity comes back: no stale counters survive
    now += 1'000'000'000;
    EXPECT_FALSE(find(sampler.sample(), 10)->cpuPercent);
}

}  // namespace
}  // namespace nemarro::process
