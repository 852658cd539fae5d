#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"

namespace {

using namespace testsupport;

enum class Lock : int { Held, Free, Broken };

/// What launcher, daemon and test tell each other.
struct Story {
    std::atomic<Lock> lock{Lock::Held};
    std::atomic<int> daemonPid{0};
    std::atomic<bool> launcherEnded{false};
    int session = 0;
    int parent = 0;
    bool nullFiles = false;
    bool otherDescriptors = false;
    bool childActionKept = false;
    char directory[PATH_MAX] = "";
};

class StoryLock final : public InterprocessWaitable {
public:
    explicit StoryLock(Story& story)
        : story_(story) {}
    int tryAcquire() override {
        Lock expected = Lock::Free;
        if (story_.lock.compare_exchange_strong(expected, Lock::Held)) {
            return 1;
        }
        return expected == Lock::Broken ? -1 : 0;
    }

private:
    Story& story_;
};

/// Daemons of the launchers below are orphaned to this process, so that it can await them.
class AdoptOrphans : public testing::Test {
protected:
    AdoptOrphans() { ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0); }
    ~AdoptOrphans() override {
        if (story_->daemonPid > 0) {
            ::kill(story_->daemonPid, SIGKILL);
            (void)awaitChild(story_->daemonPid);
        }
        ::prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0);
    }

    /// Starts a launcher whose daemon runs `daemon`; `prepare` runs in the launcher before.
    template <typename Daemon, typename Prepare>
    pid_t startLauncher(Daemon daemon, Prepare prepare) {
        return startChild([this, daemon, prepare] {
            prepare();
            const pid_t launcher = ::getpid();
            StoryLock lock(*story_);
            daemonize_withSTDFILE_waitforInterprocessNamedMutex(&lock);
            if (::getpid() == launcher) {
                return 99; // the launcher itself may not go on
            }
            story_->daemonPid = ::getpid();
            return daemon(*story_);
        });
    }
    template <typename Daemon> pid_t startLauncher(Daemon daemon) {
        return startLauncher(daemon, [] {});
    }

    Shared<Story> story_;
};

using Daemonize = AdoptOrphans;

bool isNullDevice(int fd) {
    struct stat facts = {};
    struct stat null = {};
    return ::fstat(fd, &facts) == 0 && ::stat("/dev/null", &null) == 0 && S_ISCHR(facts.st_mode) &&
           facts.st_rdev == null.st_rdev && (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR &&
           ::fcntl(fd, F_GETFD) == 0;
}

/// Notes the daemon's surroundings, releases the lock, then waits to be killed.
int tellAndWait(Story& story) {
    story.session = ::getsid(0);
    story.parent = ::getppid();
    story.nullFiles = isNullDevice(0) && isNullDevice(1) && isNullDevice(2);
    (void)!::getcwd(story.directory, sizeof story.directory);
    story.lock = Lock::Free;
    for (;;) {
        ::pause();
    }
}

TEST_F(Daemonize, LauncherEndsWithZeroWhenTheLockIsReleased) {
    const pid_t launcher = startLauncher(tellAndWait);
    EXPECT_EQ(awaitChild(launcher), 0);
    ASSERT_GT(story_->daemonPid, 0);
    EXPECT_EQ(::kill(story_->daemonPid, 0), 0) << "the daemon lives on";
    EXPECT_EQ(story_->session, story_->daemonPid) << "the daemon leads a session";
    EXPECT_EQ(story_->parent, launcher);
    EXPECT_TRUE(story_->nullFiles);
    EXPECT_STREQ(story_->directory, "/");
    EXPECT_EQ(story_->lock, Lock::Held) << "the launcher has taken it";
}

TEST_F(Daemonize, StandardFilesThatWereClosedBecomeNullFilesToo) {
    const pid_t launcher = startLauncher(tellAndWait, [] {
        ::close(0);
        ::close(1);
        ::close(2);
    });
    EXPECT_EQ(awaitChild(launcher), 0);
    EXPECT_TRUE(story_->nullFiles);
}

TEST_F(Daemonize, NoDescriptorIsLeftOver) {
    const pid_t launcher = startLauncher(
        [](Story& story) {
            const int next = ::dup(0);
            story.otherDescriptors = next != story.parent; // the parent field holds the free number
            return tellAndWait(story);
        },
        [this] {
            const int next = ::dup(0);
            ::close(next);
            story_->parent = next;
        });
    EXPECT_EQ(awaitChild(launcher), 0);
    EXPECT_FALSE(story_->otherDescriptors);
}

TEST_F(Daemonize, LauncherWaitsWhileTheLockIsHeld) {
    const ChildGuard launcher(startLauncher([](Story&) {
        for (;;) {
            ::pause();
        }
        return 0;
    }));
    ASSERT_TRUE(eventually([this] { return story_->daemonPid > 0; }));
    ::usleep(30000);
    EXPECT_EQ(::waitpid(launcher.pid(), nullptr, WNOHANG), 0);
}

TEST_F(Daemonize, LauncherEndsWithTheStatusOfADaemonThatExits) {
    EXPECT_EQ(awaitChild(startLauncher([](Story& story) {
                  story.daemonPid = 0; // the launcher reaps it
                  return 3;
              })),
              3);
}

TEST_F(Daemonize, LauncherEndsWithZeroForADaemonThatEndsWellBeforeItIsReady) {
    EXPECT_EQ(awaitChild(startLauncher([](Story& story) {
                  story.daemonPid = 0;
                  return 0;
              })),
              0);
}

TEST_F(Daemonize, LauncherTellsTheSignalOfADaemonThatWasKilled) {
    for (const int signal : {SIGKILL, SIGTERM}) {
        EXPECT_EQ(awaitChild(startLauncher([signal](Story& story) {
                      story.daemonPid = 0;
                      ::signal(signal, SIG_DFL);
                      ::raise(signal);
                      return 0;
                  })),
                  128 + signal);
    }
}

TEST_F(Daemonize, LauncherTellsTheStatusOfADaemonThatFailsAndReleasesTheLockAsItEnds) {
    EXPECT_EQ(awaitChild(startLauncher([](Story& story) {
                  story.daemonPid = 0;
                  story.lock = Lock::Free;
                  return 3;
              })),
              3);
}

TEST_F(Daemonize, LauncherDoesNotWaitForALockThatCanNeverBeHad) {
    story_->lock = Lock::Broken;
    const pid_t launcher = startLauncher([](Story&) {
        for (;;) {
            ::pause();
        }
        return 0;
    });
    EXPECT_EQ(awaitChild(launcher), 0);
    ASSERT_TRUE(eventually([this] { return story_->daemonPid > 0; })) << "the daemon lives on";
}

TEST_F(Daemonize, LauncherLearnsTheStatusBesideALockThatCanNeverBeHad) {
    story_->lock = Lock::Broken;
    EXPECT_EQ(awaitChild(startLauncher([](Story& story) {
                  story.daemonPid = 0;
                  return 3;
              })),
              3);
}

TEST_F(Daemonize, LauncherLearnsTheStatusEvenWhereChildrenAreIgnored) {
    EXPECT_EQ(awaitChild(startLauncher(
                  [](Story& story) {
                      story.daemonPid = 0;
                      struct sigaction action = {};
                      ::sigaction(SIGCHLD, nullptr, &action);
                      story.childActionKept = action.sa_handler == SIG_IGN;
                      return 3;
                  },
                  [] { ::signal(SIGCHLD, SIG_IGN); })),
              3);
    EXPECT_TRUE(story_->childActionKept) << "the daemon goes on as it was started";
}

TEST_F(Daemonize, CallReturnsWhenThereIsNoProcessToBeHad) {
    EXPECT_EQ(runInChild([this] {
                  const rlimit none = {0, 0};
                  ::setrlimit(RLIMIT_NPROC, &none);
                  if (::getuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) {
                      return 1;
                  }
                  const pid_t self = ::getpid();
                  const pid_t session = ::getsid(0);
                  StoryLock lock(*story_);
                  daemonize_withSTDFILE_waitforInterprocessNamedMutex(&lock);
                  return ::getpid() == self && ::getsid(0) == session ? 0 : 2;
              }),
              0);
}

} // namespace
