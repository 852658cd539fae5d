#include "platform/linux/OomScore.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"

namespace {

using namespace testsupport;
using platform::oomScoreFromAdjustment;
using platform::writeOomAdjustment;

TEST(OomScore, ConvertsAsTheKernelDoes) {
    EXPECT_EQ(oomScoreFromAdjustment(-17), -1000);
    EXPECT_EQ(oomScoreFromAdjustment(-16), -941);
    EXPECT_EQ(oomScoreFromAdjustment(-1), -58);
    EXPECT_EQ(oomScoreFromAdjustment(0), 0);
    EXPECT_EQ(oomScoreFromAdjustment(1), 58);
    EXPECT_EQ(oomScoreFromAdjustment(14), 823);
    EXPECT_EQ(oomScoreFromAdjustment(15), 1000);
}

TEST(OomScore, WritesTheScoreAndLeavesTheOldFileAlone) {
    const TemporaryDirectory directory;
    writeText(directory.file("oom_score_adj"), "");
    writeText(directory.file("oom_adj"), "");
    EXPECT_EQ(writeOomAdjustment((directory.path() + "/").c_str(), -1), 0);
    EXPECT_EQ(readText(directory.file("oom_score_adj")), "-58");
    EXPECT_EQ(readText(directory.file("oom_adj")), "");
}

TEST(OomScore, FallsBackToTheOldFileOnItsOwnScale) {
    const TemporaryDirectory directory;
    writeText(directory.file("oom_adj"), "");
    EXPECT_EQ(writeOomAdjustment((directory.path() + "/").c_str(), -1), 0);
    EXPECT_EQ(readText(directory.file("oom_adj")), "-1");
    EXPECT_FALSE(exists(directory.file("oom_score_adj")));
}

TEST(OomScore, FallsBackWhenTheScoreCannotBeWritten) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkdir(directory.file("oom_score_adj").c_str(), 0755), 0);
    writeText(directory.file("oom_adj"), "");
    EXPECT_EQ(writeOomAdjustment((directory.path() + "/").c_str(), 15), 0);
    EXPECT_EQ(readText(directory.file("oom_adj")), "15");
}

TEST(OomScore, FailsWithoutEitherFile) {
    const TemporaryDirectory directory;
    EXPECT_EQ(writeOomAdjustment((directory.path() + "/").c_str(), -1), -1);
}

TEST(OomScore, RefusesWhatIsNotOnTheScale) {
    const TemporaryDirectory directory;
    writeText(directory.file("oom_score_adj"), "");
    for (const int adjustment : {-18, 16}) {
        errno = 0;
        EXPECT_EQ(writeOomAdjustment((directory.path() + "/").c_str(), adjustment), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(readText(directory.file("oom_score_adj")), "");
}

TEST(OomScore, ChangesTheScoreOfThisProcess) {
    // Raising it needs no privilege; in a child, so that the tests keep theirs.
    EXPECT_EQ(runInChild([] {
                  return OOM_Killer_set_oom_adj(15) == 0 &&
                                 readText("/proc/self/oom_score_adj") == "1000\n"
                             ? 0
                             : 1;
              }),
              0);
}

} // namespace
