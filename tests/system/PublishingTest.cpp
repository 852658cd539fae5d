// What the monitor publishes, and what becomes of it when other programs damage the segments.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/system/Publication.h"

namespace systemtest {
namespace {

constexpr const char* kSegmentPaths[] = {kSystemSegmentPath, kApplicationSegmentPath};
constexpr long kTmpfsMagic = 0x01021994;

std::size_t sizeOfSegment(const std::string& path) {
    return path == kSystemSegmentPath ? kSystemSegmentSize : kApplicationSegmentSize;
}

/// Hours since boot in the system segment, the figure that differs from cycle to cycle.
float publishedHours() {
    return numberAt<float>(systemSegment(), 256 + 16);
}

float hoursNow() {
    return std::strtof(readFile("/proc/uptime").c_str(), nullptr) / 3600;
}

/// The figure in kB behind a key such as "MemTotal:".
std::int32_t memoryFigure(const std::string& key) {
    for (const std::string& line : linesOf(readFile("/proc/meminfo"))) {
        if (line.compare(0, key.size(), key) == 0) {
            return static_cast<std::int32_t>(std::strtol(line.c_str() + key.size(), nullptr, 10));
        }
    }
    return -1;
}

bool writeInto(const std::string& path, std::size_t offset, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool done =
        fd >= 0 && ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
                       static_cast<ssize_t>(bytes.size());
    (void)::close(fd); // nothing is buffered
    return done;
}

class Publishing : public PublicationTest {
protected:
    /// A monitor with one running application.
    void startWithOneApplication() {
        ASSERT_TRUE(startPublisher());
        request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
        pid_ = launchUntilRunning(request_);
        ASSERT_TRUE(publishes("data_server", pid_, "started"));
        monitorPid_ = monitor_.pid();
    }

    /// Both segments are whole, everybody's and up to date, and it is still the same monitor.
    void expectPublished(const std::string& what) {
        for (const char* path : kSegmentPaths) {
            EXPECT_GE(readFile(path).size(), sizeOfSegment(path)) << what << " " << path;
            EXPECT_EQ(permissions(path), 0666) << what << " " << path;
        }
        const std::string system = readFile(kSystemSegmentPath);
        EXPECT_EQ(textAt(system, 64, 32), "192.0.2.1") << what;
        EXPECT_NEAR(numberAt<float>(system, 256 + 16), hoursNow(), 5.0 / 3600) << what;
        EXPECT_EQ(textAt(system, 1504, 36), "Disabled") << what;
        const std::string applications = readFile(kApplicationSegmentPath);
        EXPECT_EQ(numberAt<std::int32_t>(applications, 0), 1) << what;
        EXPECT_EQ(numberAt<std::int32_t>(applications, 4), 127) << what;
        EXPECT_EQ(recordIn(applications, 1).name, "data_server") << what;
        EXPECT_EQ(recordIn(applications, 1).pid, pid_) << what;
        EXPECT_EQ(recordIn(applications, 1).status, "started") << what;
        expectUnharmed(what);
    }

    /// It is still the same monitor, and the same application.
    void expectUnharmed(const std::string& what) {
        EXPECT_TRUE(monitor_.alive()) << what << " " << monitor_.waitForEnd(0).text();
        EXPECT_EQ(processesNamed("ovard"), std::vector<pid_t>{monitorPid_}) << what;
        EXPECT_TRUE(isRunning(pid_)) << what;
    }

    static void expectServing() {
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody")),
                  replyOf(-20, "nobody is not found\n"));
    }

    /// A cycle has just come to its end. The next one is at least the pause of a turn of the main
    /// loop away, a tenth of a second.
    static bool reachesTheEndOfACycle() {
        const float before = publishedHours();
        return duringPasses([&] { return publishedHours() != before; });
    }

    /// Does something while the monitor stands still.
    void whileTheMonitorStands(const std::function<void()>& action) const {
        ASSERT_TRUE(monitor_.signal(SIGSTOP));
        ASSERT_TRUE(eventually([this] { return processFacts(monitor_.pid()).state == 'T'; }));
        action();
        ASSERT_TRUE(monitor_.signal(SIGCONT));
    }

    reqcmd request_ = {};
    pid_t pid_ = 0;
    pid_t monitorPid_ = 0;
};

using PublishingDamage = Publishing;
using PublishingBoot = Publishing;

// --- content -------------------------------------------------------------------------------------

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
    // What eth0 sends arrives at eth1, to which it is connected.
    ASSERT_TRUE(runShell("ip neigh replace 192.0.2.77 lladdr 02:00:00:00:00:77 dev eth0 && "
                         "/bin/bash -c 'head -c 1000 /dev/zero >/dev/udp/192.0.2.77/9'"));
    EXPECT_TRUE(duringPasses([&] { return received(208) >= before + 1000; }));
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

// --- damage --------------------------------------------------------------------------------------

struct Damage {
    const char* what;
    const char* command; ///< for the shell, with the path in "$S"
};

constexpr Damage kDamages[] = {
    {"removed", "rm $S"},
    {"emptied", "truncate -s 0 $S"},
    {"shortened", "truncate -s 100 $S"},
    {"lengthened", "truncate -s 100000 $S"},
    {"created anew", "rm $S; umask 077; : >$S"},
    {"replaced by a short file", "umask 077; echo short >/dev/shm/new; mv /dev/shm/new $S"},
    {"replaced by a long file",
     "umask 077; head -c 20000 /dev/urandom >/dev/shm/new; mv /dev/shm/new $S"},
    {"overwritten", "head -c 100 /dev/urandom >$S"},
    {"shut off", "chmod 0 $S"},
};

TEST_F(PublishingDamage, NextCycleRepairsASegment) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const char* path : kSegmentPaths) {
        for (const Damage& damage : kDamages) {
            const std::string what = std::string(path) + " " + damage.what;
            ASSERT_TRUE(runShell(std::string("S=") + path + "; " + damage.command)) << what;
            ASSERT_TRUE(letACycleGoBy()) << what;
            expectPublished(what);
        }
    }
    expectServing();
}

TEST_F(PublishingDamage, MonitorGoesOnWhileSomethingElseHasTheName) {
    constexpr Damage kObstacles[] = {
        {"directory", "rm $S; mkdir $S"},
        {"full directory", "rm $S; mkdir $S; : >$S/file"},
        {"symbolic link", "rm $S; echo precious >/tmp/target; ln -s /tmp/target $S"},
        {"symbolic link to nothing", "rm $S; rm -f /tmp/target; ln -s /tmp/target $S"},
        {"pipe", "rm $S; mkfifo $S"},
    };
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const char* path : kSegmentPaths) {
        for (const Damage& obstacle : kObstacles) {
            const std::string what = std::string(path) + " " + obstacle.what;
            whileTheMonitorStands(
                [&] { EXPECT_TRUE(runShell(std::string("S=") + path + "; " + obstacle.command)); });
            const std::string target = readFile("/tmp/target");
            ASSERT_TRUE(letACycleGoBy()) << what;
            expectUnharmed(what);
            EXPECT_EQ(readFile("/tmp/target"), target) << what;
            if (std::string(path) == kApplicationSegmentPath) {
                EXPECT_NEAR(publishedHours(), hoursNow(), 5.0 / 3600) << what;
            } else {
                EXPECT_EQ(publishedApp("data_server").pid, pid_) << what;
            }
            ASSERT_TRUE(runShell(std::string("rm -r ") + path)) << what;
            ASSERT_TRUE(letACycleGoBy()) << what;
            expectPublished(what);
        }
    }
    expectServing();
}

TEST_F(PublishingDamage, SegmentsThatAreShortenedAllTheTime) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    std::atomic<bool> enough{false};
    std::atomic<int> count{0};
    std::thread other([&] {
        while (!enough) {
            for (const char* path : kSegmentPaths) {
                count += ::truncate(path, count % 2 == 0 ? 0 : 100) == 0 ? 1 : 0;
            }
        }
    });
    for (int cycle = 0; cycle < 10; ++cycle) {
        EXPECT_TRUE(letACycleGoBy());
    }
    enough = true;
    other.join();
    EXPECT_GT(count, 1000);
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("afterwards");
}

TEST_F(PublishingDamage, HealthWordOfAnotherProgramSurvives) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    const std::string neighbours = "\x5A\x5A";
    for (const std::uint32_t value : {0x89ABCDEFU, 0xFFFFFFFFU, 1U, 0U}) {
        const std::string word(reinterpret_cast<const char*>(&value), sizeof value);
        const auto survives = [&] {
            EXPECT_TRUE(reachesTheEndOfACycle());
            EXPECT_TRUE(writeInto(kApplicationSegmentPath, kIecHealthAt, word + neighbours));
            EXPECT_TRUE(letACycleGoBy());
            return numberAt<std::uint32_t>(applicationSegment(), kIecHealthAt) == value;
        };
        // A value that comes between the reading and the writing of a cycle is lost, should this
        // test be that late.
        EXPECT_TRUE(survives() || survives() || survives()) << value;
        for (int cycle = 0; cycle < 3; ++cycle) {
            ASSERT_TRUE(letACycleGoBy());
            ASSERT_EQ(numberAt<std::uint32_t>(applicationSegment(), kIecHealthAt), value);
            EXPECT_EQ(numberAt<std::uint16_t>(applicationSegment(), 116), 0) << "the monitor's own";
        }
    }
}

// --- no memory left ------------------------------------------------------------------------------

/// While it lives, /dev/shm has room for little; `fill` takes that too.
class SmallMemory {
public:
    SmallMemory() { EXPECT_TRUE(runShell("mount -o remount,size=256k /dev/shm")); }
    ~SmallMemory() {
        release();
        EXPECT_TRUE(runShell("mount -o remount,size=50% /dev/shm"));
    }
    SmallMemory(const SmallMemory&) = delete;
    SmallMemory& operator=(const SmallMemory&) = delete;

    static bool possible() {
        struct statfs facts = {};
        return ::statfs("/dev/shm", &facts) == 0 && facts.f_type == kTmpfsMagic;
    }

    static void fill() {
        std::ofstream file(kFiller, std::ios::binary | std::ios::app);
        const std::string block(1024, 'x');
        while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
        struct statfs facts = {};
        EXPECT_TRUE(::statfs("/dev/shm", &facts) == 0 && facts.f_bavail == 0);
    }

    static void release() { (void)std::remove(kFiller); } // it may be gone

private:
    static constexpr const char* kFiller = "/dev/shm/filler";
};

TEST_F(PublishingDamage, NoMemoryForTheSegmentsAnyMore) {
    if (!SmallMemory::possible()) {
        GTEST_SKIP() << "/dev/shm is no memory of its own here";
    }
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    SmallMemory memory;
    memory.fill();
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("while there is no more");
    whileTheMonitorStands([&] {
        for (const char* path : kSegmentPaths) {
            EXPECT_EQ(::truncate(path, 0), 0); // the monitor has it open
            EXPECT_EQ(::unlink(path), 0);
        }
        memory.fill();
    });
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(letACycleGoBy());
        expectUnharmed("without memory");
    }
    expectServing();
    EXPECT_EQ(textAt(systemSegment(), 64, 32), "") << "there was memory";
    memory.release();
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("with memory again");
}

TEST_F(PublishingDamage, NoMemoryForTheSegmentsAtTheStart) {
    if (!SmallMemory::possible()) {
        GTEST_SKIP() << "/dev/shm is no memory of its own here";
    }
    SmallMemory memory;
    memory.fill();
    ASSERT_TRUE(startPublisher()) << monitor_.waitForEnd(0).text();
    monitorPid_ = monitor_.pid();
    request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
    pid_ = launchUntilRunning(request_);
    expectUnharmed("without memory");
    EXPECT_EQ(textAt(systemSegment(), 64, 32), "") << "there was memory";
    memory.release();
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("with memory");
}

TEST_F(PublishingDamage, NoMemoryForTheHeartbeatsAnyMore) {
    if (!SmallMemory::possible()) {
        GTEST_SKIP() << "/dev/shm is no memory of its own here";
    }
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    SmallMemory memory;
    whileTheMonitorStands([&] {
        EXPECT_EQ(::unlink("/dev/shm/meter_heartbeat.shared"), 0);
        memory.fill();
    });
    ASSERT_TRUE(letACycleGoBy()) << monitor_.waitForEnd(0).text();
    expectPublished("without heartbeats");
    memory.release();
    EXPECT_TRUE(duringPasses([] { return !readFile("/dev/shm/meter_heartbeat.shared").empty(); }));
    expectServing();
}

TEST_F(PublishingDamage, SomethingElseHasTheNamesAtTheStart) {
    for (const char* path : kSegmentPaths) {
        ASSERT_TRUE(makeDirectories(path));
    }
    ASSERT_TRUE(startPublisher());
    monitorPid_ = monitor_.pid();
    request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
    pid_ = launchUntilRunning(request_);
    for (const char* path : kSegmentPaths) {
        ASSERT_EQ(::rmdir(path), 0);
    }
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("afterwards");
}

} // namespace
} // namespace systemtest
