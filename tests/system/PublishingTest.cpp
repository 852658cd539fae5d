// The published segments: what is in them.

#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "platform/UniqueFd.h"
#include "tests/system/Datagrams.h"
#include "tests/system/PublishingSupport.h"

namespace systemtest {
namespace {

using Publishing = PublishingTest;
using PublishingBoot = PublishingTest;

/// The figure in kB behind a key such as "MemTotal:".
std::int32_t memoryFigure(const std::string& key) {
    for (const std::string& line : linesOf(readFile("/proc/meminfo"))) {
        if (line.compare(0, key.size(), key) == 0) {
            return static_cast<std::int32_t>(std::strtol(line.c_str() + key.size(), nullptr, 10));
        }
    }
    return -1;
}

/// Sends so many packets of 1000 bytes to all of the network of eth0, so that nobody has to be
/// looked for.
bool sendThroughEth0(int packets) {
    const platform::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int allowed = 1;
    bool isSent =
        ::setsockopt(socket.get(), SOL_SOCKET, SO_BROADCAST, &allowed, sizeof allowed) == 0;
    const sockaddr_in everybody = internetAddress("192.0.2.255", kDiscardPort);
    for (int count = 0; isSent && count < packets; ++count) {
        isSent = sendTo(socket, std::string(1000, 'x'), everybody);
    }
    return isSent;
}

TEST_F(Publishing, EmptyRegistry) {
    ASSERT_TRUE(startPublisher());
    const std::string bytes = applicationSegment();
    ASSERT_EQ(bytes.size(), kApplicationSegmentSize);
    EXPECT_EQ(numberAt<std::int32_t>(bytes, 0), 0);
    EXPECT_EQ(numberAt<std::int32_t>(bytes, 4), 127);
    const std::string version = textAt(bytes, 8, 32);
    const std::string date = textAt(bytes, 40, 32);
    ASSERT_FALSE(version.empty() || date.empty());
    EXPECT_EQ(linesOf(monitor_.console()).front(), "version: " + version + " built on " + date);
    EXPECT_EQ(bytes.substr(72, 40), std::string(40, '\0'));
    EXPECT_EQ(numberAt<std::uint16_t>(bytes, 116), 0);
    EXPECT_EQ(bytes.substr(118), std::string(kApplicationSegmentSize - 118, '\0'));
}

TEST_F(Publishing, StateOfTheMachine) {
    utsname kernel = {};
    ASSERT_EQ(::uname(&kernel), 0);
    ASSERT_TRUE(startPublisher());
    ASSERT_TRUE(letACycleGoBy());
    const std::string bytes = systemSegment();
    ASSERT_EQ(bytes.size(), kSystemSegmentSize);
    EXPECT_EQ(textAt(bytes, 0, 32), std::string(kernel.release).substr(0, 31));
    EXPECT_EQ(textAt(bytes, 32, 32), std::string(kernel.version).substr(0, 31));
    EXPECT_EQ(textAt(bytes, 64, 32), "192.0.2.1");
    EXPECT_EQ(textAt(bytes, 96, 32), "198.51.100.1");
    const double nowMs = 1000.0 * static_cast<double>(std::time(nullptr));
    EXPECT_NEAR(static_cast<double>(timeAt(bytes, 256 + 24)), nowMs - hoursNow() * 3600e3, 5000);
    float shares = 0;
    for (std::size_t offset = 64; offset < 92; offset += 4) {
        const auto share = numberAt<float>(bytes, 256 + offset);
        EXPECT_TRUE(share >= 0 && share <= 100) << offset << " " << share;
        shares += share;
    }
    EXPECT_LE(shares, 100.5F);
    EXPECT_EQ(numberAt<std::int32_t>(bytes, 256 + 96), memoryFigure("MemTotal:"));
    EXPECT_EQ(numberAt<std::int32_t>(bytes, 256 + 100),
              numberAt<std::int32_t>(bytes, 256 + 96) - numberAt<std::int32_t>(bytes, 256 + 104));
    for (const std::size_t lease : {1504U, 1700U, 1896U, 2020U}) {
        EXPECT_EQ(textAt(bytes, lease, 36), "Disabled") << lease;
    }
    EXPECT_EQ(bytes.substr(2144), std::string(1952, '\0'));
}

TEST_F(Publishing, CountersOfTheInterfaces) {
    ASSERT_TRUE(startPublisher());
    const auto received = [](std::size_t block) {
        return numberAt<std::int64_t>(systemSegment(), 256 + block);
    };
    ASSERT_TRUE(letACycleGoBy());
    const std::int64_t before = received(208);
    // What eth0 sends arrives at eth1, to which it is connected, and is more than the kernel sends
    // by itself meanwhile.
    ASSERT_TRUE(sendThroughEth0(20));
    EXPECT_TRUE(duringPasses([&] { return received(208) >= before + 20000; }));
}

TEST_F(Publishing, GlobalAddressIsPreferredToALinkLocalOne) {
    ASSERT_TRUE(startPublisher());
    const auto address = [] { return textAt(systemSegment(), 128, 64); };
    if (!fileExists("/proc/net/if_inet6")) {
        GTEST_SKIP() << "this kernel has no IPv6";
    }
    EXPECT_TRUE(duringPasses([&] { return address().compare(0, 6, "fe80::") == 0; })) << address();
    const std::string eth1 = textAt(systemSegment(), 192, 64);
    ASSERT_TRUE(runShell("ip -6 addr add 2001:db8::5/64 dev eth0"));
    EXPECT_TRUE(duringPasses([&] { return address() == "2001:db8::5"; })) << address();
    EXPECT_EQ(textAt(systemSegment(), 192, 64), eth1);
    ASSERT_TRUE(runShell("ip -6 addr del 2001:db8::5/64 dev eth0"));
    EXPECT_TRUE(duringPasses([&] { return address().compare(0, 6, "fe80::") == 0; })) << address();
}

TEST_F(Publishing, InterfaceWithoutAnAddressHasAnEmptyText) {
    ASSERT_TRUE(startPublisher());
    ASSERT_TRUE(runShell("ip -4 addr del 198.51.100.1/24 dev eth1"));
    EXPECT_TRUE(duringPasses([&] { return textAt(systemSegment(), 96, 32).empty(); }));
    ASSERT_TRUE(runShell("ip -4 addr add 198.51.100.1/24 dev eth1"));
    EXPECT_TRUE(duringPasses([&] { return textAt(systemSegment(), 96, 32) == "198.51.100.1"; }));
}

TEST_F(Publishing, Application) {
    ASSERT_TRUE(startPublisher());
    reqcmd request = makeSupervised("gateway", RESTART_TYPE_ALL);
    request.porttype = PORT_TYPE_COM;
    request.portnum = 5;
    request.priority = 3;
    request.last_runtime_life_limit = 77;
    const std::time_t before = std::time(nullptr);
    const pid_t pid = launch(request);
    ASSERT_TRUE(publishes("gateway", pid, "starting"));
    ASSERT_TRUE(publishes("gateway", pid, "started"));
    const PublishedApp app = publishedApp("gateway");
    EXPECT_EQ(publishedCount(), 1);
    EXPECT_EQ(app.version, "1.0");
    EXPECT_EQ(app.startMs % 1000, 0);
    EXPECT_NEAR(static_cast<double>(app.startMs) / 1000, static_cast<double>(before), 3);
    EXPECT_EQ(app.nice, 3);
    EXPECT_EQ(app.restartType, 1);
    EXPECT_EQ(app.lifeLimit, 77);
    EXPECT_EQ(app.portType, "COM");
    EXPECT_EQ(app.portNumber, 5);
    EXPECT_TRUE(duringPasses([&] { return publishedApp("gateway").uptimeSec >= 3; }));
    EXPECT_LE(static_cast<std::time_t>(publishedApp("gateway").uptimeSec),
              std::time(nullptr) - before + 2);
}

TEST_F(Publishing, LongNameIsCut) {
    ASSERT_TRUE(startPublisher());
    const std::string name = "a_name_of_just_forty_characters_0123456";
    (void)launch(makeSupervised(name, RESTART_TYPE_SELF));
    EXPECT_TRUE(publishes({name.substr(0, 31)})) << testing::PrintToString(publishedNames());
}

TEST_F(Publishing, StoppedApplication) {
    ASSERT_TRUE(startPublisher());
    const pid_t pid = launchUntilRunning(makeSupervised("gateway", RESTART_TYPE_SELF));
    ASSERT_TRUE(publishes("gateway", pid, "started"));
    ASSERT_EQ(askFor(makeRequest(APPMONCTL_Stop, "gateway")).code, 0);
    EXPECT_TRUE(publishes({}));
    EXPECT_EQ(recordIn(applicationSegment(), 1).name, "gateway") << "records stay as they are";
}

TEST_F(Publishing, ReplacementOfAKilledApplication) {
    ASSERT_TRUE(startPublisher());
    const reqcmd request = makeSupervised("mortal", RESTART_TYPE_SELF);
    const pid_t other = launchUntilRunning(makeSupervised("other", RESTART_TYPE_SELF));
    const pid_t pid = launchUntilRunning(request);
    ASSERT_TRUE(publishes("mortal", pid, "started"));
    const PublishedApp before = publishedApp("mortal");
    ASSERT_TRUE(killAndWait(pid));
    ASSERT_TRUE(letACycleGoBy());
    const PublishedApp after = publishedApp("mortal");
    EXPECT_EQ(processesWithCommandLine(commandIn(request)), std::vector<pid_t>{after.pid});
    EXPECT_NE(after.pid, pid);
    EXPECT_TRUE(after.status == "starting" || after.status == "started") << after.status;
    EXPECT_GT(after.startMs, before.startMs);
    EXPECT_TRUE(publishes("mortal", after.pid, "started"));
    EXPECT_EQ(publishedApp("other").pid, other);
    EXPECT_EQ(publishedNames(), (std::vector<std::string>{"other", "mortal"}));
}

TEST_F(Publishing, ModesDoNotDependOnTheUmask) {
    for (const char* mask : {"0000", "0077", "0777"}) {
        const MonitorThroughScript script(std::string("umask ") + mask +
                                          "\nexec \"$OVARD\" \"$@\"\n");
        ASSERT_TRUE(startPublisher()) << mask;
        for (const char* path : kSegmentPaths) {
            EXPECT_EQ(permissions(path), 0666) << mask << " " << path;
        }
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
        for (const char* path : kSegmentPaths) {
            EXPECT_EQ(permissions(path), 0666) << "the monitor does not remove " << path;
            ASSERT_EQ(::unlink(path), 0);
        }
    }
}

// The bits that are there before the first pass. Supervision, which takes them away, rests until
// the machine has been up for 90 seconds. Nothing of an earlier monitor is looked at.
TEST_F(PublishingBoot, HealthWords) {
    ASSERT_TRUE(startPublisher({"-a"}));
    ASSERT_LT(hoursNow() * 3600, 80) << "this machine is too slow";
    EXPECT_EQ(numberAt<std::uint32_t>(applicationSegment(), kIecHealthAt), 0x11000U);
    EXPECT_EQ(numberAt<std::uint16_t>(applicationSegment(), 116), 0x4000);
}

} // namespace
} // namespace systemtest
