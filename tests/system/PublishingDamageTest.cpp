// The published segments while other programs damage them, or take the memory away.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/system/FaultSupport.h"
#include "tests/system/SanitizerReports.h"

namespace systemtest {
namespace {

using PublishingDamage = ToldOnce<PublishingTest>;

constexpr const char* kNoMemoryDisk = "/dev/shm is no memory disk here";
constexpr const char* kHeartbeats = "/dev/shm/meter_heartbeat.shared";

/// The name of a segment, by which the log calls it.
std::string nameOf(const std::string& path) {
    return path.substr(std::string("/dev/shm").size());
}

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

/// What cannot be a segment.
struct Obstacle {
    const char* what;
    const char* command; ///< for the shell, with the path, which is free, in "$S"
    int error;           ///< why a segment of that name cannot be opened
};

constexpr Obstacle kObstacles[] = {
    {"directory", "mkdir $S", EINVAL},
    {"full directory", "mkdir $S; : >$S/file", EINVAL},
    {"symbolic link", "echo precious >/tmp/target; ln -s /tmp/target $S", ELOOP},
    {"symbolic link to nothing", "rm -f /tmp/target; ln -s /tmp/target $S", ELOOP},
    {"pipe", "mkfifo $S", EINVAL},
};

bool plant(const Obstacle& obstacle, const std::string& path) {
    return runShell("S=" + path + "; rm -rf $S; " + obstacle.command);
}

/// One obstacle after the other has had the name since then: the log has told of that once a minute
/// at most, and of the end each time that it has.
void expectToldOnceAMinute(const std::string& path, std::int64_t beginMs) {
    const std::string name = nameOf(path);
    const std::size_t told =
        countLog(3, faultLine(name, EINVAL)) + countLog(3, faultLine(name, ELOOP));
    EXPECT_GE(told, 1U) << path;
    EXPECT_LE(static_cast<std::int64_t>(told), 1 + (monotonicMs() - beginMs) / 60000) << path;
    EXPECT_EQ(countLog(6, recoveryLine(name)), told) << path;
}

TEST_F(PublishingDamage, MonitorGoesOnWhileSomethingElseHasTheName) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    for (const char* path : kSegmentPaths) {
        const std::int64_t beginMs = monotonicMs();
        for (const Obstacle& obstacle : kObstacles) {
            const std::string what = std::string(path) + " " + obstacle.what;
            whileTheMonitorStands([&] { EXPECT_TRUE(plant(obstacle, path)); });
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
        expectToldOnceAMinute(path, beginMs);
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

/// Without a slot, the monitor claims one in each turn of its loop, and a moment later the memory
/// that it touches is gone.
TEST_F(PublishingDamage, HeartbeatsThatAreClearedAndShortenedAllTheTime) {
    if (kThreadsAreSanitized) {
        GTEST_SKIP() << "the sanitizer holds a lock of its own while it touches the memory";
    }
    constexpr std::size_t kHeader = 16;
    constexpr int kMs = 8000;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    std::string empty = readFile(kHeartbeats);
    ASSERT_GT(empty.size(), kHeader);
    std::fill(empty.begin() + kHeader, empty.end(), '\0');
    std::atomic<bool> enough{false};
    std::thread other([&] {
        const int registry = ::open(kHeartbeats, O_RDWR | O_CLOEXEC);
        while (!enough) {
            (void)!::ftruncate(registry, 0);
            (void)!::pwrite(registry, empty.data(), empty.size(), 0);
        }
        (void)::close(registry);
    });
    letPassesGoBy(kMs);
    enough = true;
    other.join();
    expectUnharmed("meanwhile");
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("afterwards");
    EXPECT_NE(readFile(kHeartbeats), empty) << "it does not beat any more";
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

TEST_F(PublishingDamage, NoMemoryForTheSegmentsAnyMore) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    FullFolder memory("/dev/shm");
    if (!memory.isFull()) {
        GTEST_SKIP() << kNoMemoryDisk;
    }
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("while there is no more");
    const LogMark mark;
    whileTheMonitorStands([&] {
        for (const char* path : kSegmentPaths) {
            EXPECT_EQ(::truncate(path, 0), 0); // the monitor has it open
            EXPECT_EQ(::unlink(path), 0);
        }
        memory.fill();
        EXPECT_TRUE(memory.isFull());
    });
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(letACycleGoBy());
        expectUnharmed("without memory");
    }
    expectServing();
    EXPECT_EQ(textAt(systemSegment(), 64, 32), "") << "there was memory";
    expectTold(mark, kSegmentNames, ENOSPC, 0);
    memory.release();
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("with memory again");
    expectTold(mark, kSegmentNames, ENOSPC, 1);
}

TEST_F(PublishingDamage, NoMemoryForTheSegmentsAtTheStart) {
    FullFolder memory("/dev/shm");
    if (!memory.isFull()) {
        GTEST_SKIP() << kNoMemoryDisk;
    }
    const LogMark mark;
    ASSERT_TRUE(startPublisher()) << monitor_.waitForEnd(0).text();
    monitorPid_ = monitor_.pid();
    request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
    pid_ = launchUntilRunning(request_);
    expectUnharmed("without memory");
    EXPECT_EQ(textAt(systemSegment(), 64, 32), "") << "there was memory";
    expectTold(mark, kSharedNames, ENOSPC, 0);
    memory.release();
    ASSERT_TRUE(letACycleGoBy());
    expectPublished("with memory");
    expectTold(mark, kSharedNames, ENOSPC, 1);
}

TEST_F(PublishingDamage, NoMemoryForTheHeartbeatsAnyMore) {
    const LogMark mark;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    FullFolder memory("/dev/shm");
    if (!memory.isFull()) {
        GTEST_SKIP() << kNoMemoryDisk;
    }
    whileTheMonitorStands([&] {
        EXPECT_EQ(::unlink(kHeartbeats), 0);
        memory.fill();
        EXPECT_TRUE(memory.isFull());
    });
    ASSERT_TRUE(letACycleGoBy()) << monitor_.waitForEnd(0).text();
    expectPublished("without heartbeats");
    expectTold(mark, {nameOf(kHeartbeats)}, ENOSPC, 0);
    memory.release();
    expectTold(mark, {nameOf(kHeartbeats)}, ENOSPC, 1);
    expectServing();
}

TEST_F(PublishingDamage, SomethingElseHasTheNamesAtTheStart) {
    for (const Obstacle& obstacle : kObstacles) {
        SCOPED_TRACE(obstacle.what);
        const LogMark mark;
        for (const char* path : kSegmentPaths) {
            ASSERT_TRUE(plant(obstacle, path));
        }
        const std::string target = readFile("/tmp/target");
        ASSERT_TRUE(startPublisher());
        monitorPid_ = monitor_.pid();
        request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
        pid_ = launchUntilRunning(request_);
        EXPECT_EQ(readFile("/tmp/target"), target);
        expectTold(mark, kSegmentNames, obstacle.error, 0);
        for (const char* path : kSegmentPaths) {
            ASSERT_TRUE(runShell(std::string("rm -r ") + path));
        }
        ASSERT_TRUE(letACycleGoBy());
        expectPublished(obstacle.what);
        expectTold(mark, kSegmentNames, obstacle.error, 1);
        EXPECT_EQ(monitor_.terminate().text(), "status 0");
        ASSERT_TRUE(killAndWait(pid_));
    }
}

} // namespace
} // namespace systemtest
