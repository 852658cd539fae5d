// The published segments while other programs damage them, or take the memory away.

#include <fcntl.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/PublishingSupport.h"

namespace systemtest {
namespace {

using PublishingDamage = PublishingTest;

constexpr long kTmpfsMagic = 0x01021994;

bool writeInto(const std::string& path, std::size_t offset, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool done =
        fd >= 0 && ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
                       static_cast<ssize_t>(bytes.size());
    (void)::close(fd); // nothing is buffered
    return done;
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
