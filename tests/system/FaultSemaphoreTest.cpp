// The file of the initialization mutex while something else has its name, or somebody damages it.

#include <cerrno>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

using FaultSemaphore = FaultTest;

struct Damage {
    const char* what;
    const char* command; ///< for the shell, with the path in "$S"
};

/// What a start removes and replaces.
constexpr Damage kLeftOvers[] = {
    {"empty file", ": >$S"},
    {"short file", "echo x >$S"},
    {"random bytes", "head -c 4096 /dev/urandom >$S"},
    {"link", "echo precious >/tmp/target; ln -s /tmp/target $S"},
    {"link to nothing", "ln -s /tmp/nothing $S"},
    {"link to itself", "ln -s $S $S"},
    {"pipe", "mkfifo $S"},
    {"shut off", ": >$S; chmod 0 $S"},
};

/// What cannot be removed.
constexpr Damage kDirectories[] = {
    {"directory", "mkdir $S"},
    {"full directory", "mkdir $S; : >$S/file"},
};

/// What may happen to the file of a running monitor.
constexpr Damage kDamages[] = {
    {"removed", "rm $S"},
    {"emptied", ": >$S"},
    {"emptied and removed", ": >$S; rm $S"},
    {"shortened", "truncate -s 8 $S"},
    {"replaced by a directory", "rm $S; mkdir $S"},
    {"replaced by a link", "rm $S; echo precious >/tmp/target; ln -s /tmp/target $S"},
    {"replaced by a short file", "rm $S; echo x >$S"},
};

bool apply(const Damage& damage) {
    return runShell(std::string("S=") + kSemaphorePath + "; " + damage.command);
}

bool tidyUp() {
    return runShell(std::string("rm -rf ") + kSemaphorePath);
}

void expectOrderlyEnd(Daemon& daemon, const std::string& what) {
    EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody"))) << what;
    EXPECT_EQ(daemon.terminate().text(), "status 0") << what;
    EXPECT_EQ(eventTexts().back(), "Application Monitor Stopped.") << what;
}

TEST_F(FaultSemaphore, WhatIsLeftOverIsReplaced) {
    for (const Damage& leftOver : kLeftOvers) {
        ASSERT_TRUE(apply(leftOver)) << leftOver.what;
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground()) << leftOver.what;
        EXPECT_EQ(countOf(daemon.console(), "named mutex"), 0U) << daemon.console();
        EXPECT_EQ(permissions(kSemaphorePath), 0644) << leftOver.what;
        expectOrderlyEnd(daemon, leftOver.what);
        ASSERT_TRUE(tidyUp());
    }
    EXPECT_EQ(readFile("/tmp/target"), "precious\n");
}

TEST_F(FaultSemaphore, DirectoryInItsPlaceIsReportedOnce) {
    for (const Damage& directory : kDirectories) {
        ASSERT_TRUE(apply(directory)) << directory.what;
        Daemon daemon;
        ASSERT_TRUE(daemon.startInForeground()) << directory.what;
        expectMissingMutex(daemon, EISDIR);
        expectOrderlyEnd(daemon, directory.what);
        ASSERT_TRUE(tidyUp());
    }
}

TEST_F(FaultSemaphore, LauncherReturnsBesideADirectory) {
    ASSERT_TRUE(apply(kDirectories[0]));
    Daemon daemon;
    ASSERT_TRUE(daemon.startInBackground());
    EXPECT_TRUE(daemon.terminate().ended);
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
}

TEST_F(FaultSemaphore, DamageUnderARunningMonitorDisturbsNothing) {
    for (const Damage& damage : kDamages) {
        ASSERT_NO_FATAL_FAILURE(startWithOneApplication()) << damage.what;
        ASSERT_TRUE(apply(damage)) << damage.what;
        expectAllIsWell(damage.what);
        expectLeftAlone(damage.what);
        expectOrderlyEnd(monitor_, damage.what);
        ASSERT_TRUE(killAndWait(pid_));
        ASSERT_TRUE(tidyUp());
    }
    EXPECT_EQ(readFile("/tmp/target"), "precious\n");
}

TEST_F(FaultSemaphore, DamageUnderAMonitorInTheBackgroundDoesNotDisturbItsEnd) {
    for (const Damage& damage : kDamages) {
        Daemon daemon;
        ASSERT_TRUE(daemon.startInBackground({"-i", "0"})) << damage.what; // often supervising
        ASSERT_TRUE(apply(damage)) << damage.what;
        letPassesGoBy(kPassesMs);
        EXPECT_TRUE(daemon.alive()) << damage.what;
        EXPECT_TRUE(daemon.terminate().ended) << damage.what;
        EXPECT_EQ(eventTexts().back(), "Application Monitor Stopped.") << damage.what;
        ASSERT_TRUE(tidyUp());
    }
}

} // namespace
} // namespace systemtest
