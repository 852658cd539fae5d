#include "client/ovardctl/Publication.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/client/Views.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using ovard_client::MonitorState;
using ovard_client::SegmentResult;

TEST(Publication, IsFineWhileAMonitorRuns) {
    const Finding finding = judge(runningPublication(), true);
    EXPECT_EQ(finding.exitStatus, 0);
    EXPECT_EQ(finding.error, "");
    EXPECT_TRUE(finding.hasData);
    EXPECT_FALSE(finding.isStale);
    EXPECT_STREQ(finding.dataWord, "ok");
}

TEST(Publication, IsStaleWithoutAMonitor) {
    const Finding finding = judge(stalePublication(), true);
    EXPECT_EQ(finding.exitStatus, 3);
    EXPECT_EQ(finding.error,
              "ovardctl: no monitor listens on /tmp/sock; what is shown was published last, start "
              "ovard for current data, or name its socket with --socket\n");
    EXPECT_TRUE(finding.hasData);
    EXPECT_TRUE(finding.isStale);
}

TEST(Publication, SaysThatItCannotTellWhetherAMonitorRuns) {
    Publication publication = runningPublication();
    publication.monitor = MonitorState::Unknown;
    const Finding finding = judge(publication, true);
    EXPECT_EQ(finding.exitStatus, 5);
    EXPECT_NE(finding.error.find("/proc/net/unix"), std::string::npos);
    EXPECT_TRUE(finding.hasData);
    EXPECT_FALSE(finding.isStale);
}

struct LackCase {
    SegmentResult result;
    const char* word;
    const char* reason;
};

class PublicationLack : public testing::TestWithParam<LackCase> {};

TEST_P(PublicationLack, EndsWith4WhileAMonitorRunsAndWith3Else) {
    const LackCase& lack = GetParam();
    for (const MonitorState monitor : {MonitorState::Running, MonitorState::Unknown}) {
        const Finding finding = judge(lackingPublication(monitor, lack.result), false);
        EXPECT_EQ(finding.exitStatus, 4);
        EXPECT_EQ(finding.error, std::string("ovardctl: segment /segment ") + lack.reason +
                                     "; the monitor publishes every few seconds, try again\n");
        EXPECT_FALSE(finding.hasData);
        EXPECT_FALSE(finding.isStale);
        EXPECT_STREQ(finding.dataWord, lack.word);
    }
    const Finding finding = judge(lackingPublication(MonitorState::NotRunning, lack.result), false);
    EXPECT_EQ(finding.exitStatus, 3);
    EXPECT_EQ(finding.error,
              std::string("ovardctl: no monitor listens on /tmp/sock, and segment /segment ") +
                  lack.reason + "; start ovard, or name its socket with --socket\n");
    EXPECT_FALSE(finding.hasData);
    EXPECT_FALSE(finding.isStale);
    EXPECT_STREQ(finding.dataWord, lack.word);
}

INSTANTIATE_TEST_SUITE_P(
    Lacks, PublicationLack,
    testing::Values(LackCase{SegmentResult::Ok, "none yet", "holds no published data yet"},
                    LackCase{SegmentResult::NoSegment, "no segment", "does not exist"},
                    LackCase{SegmentResult::TooShort, "too short", "is too short"},
                    LackCase{SegmentResult::KeptChanging, "kept changing",
                             "kept changing while it was read"}));

TEST(Publication, EndsWith5WhereTheSystemRefuses) {
    for (const MonitorState monitor :
         {MonitorState::Running, MonitorState::NotRunning, MonitorState::Unknown}) {
        const Finding finding =
            judge(lackingPublication(monitor, SegmentResult::SystemError, EACCES), true);
        EXPECT_EQ(finding.exitStatus, 5);
        EXPECT_EQ(finding.error, std::string("ovardctl: segment /segment cannot be read: ") +
                                     std::strerror(EACCES) +
                                     "; check your rights on it in /dev/shm\n");
        EXPECT_FALSE(finding.hasData);
        EXPECT_STREQ(finding.dataWord, "unreadable");
    }
}

std::string ageAfter(std::int64_t milliseconds) {
    Publication publication = runningPublication();
    publication.nowMs = publication.segment.modifiedMs + milliseconds;
    return ageText(publication, judge(publication, true), false);
}

TEST(Publication, ShowsItsAge) {
    EXPECT_EQ(ageAfter(0), "0.0s old");
    EXPECT_EQ(ageAfter(1999), "1.9s old");
    EXPECT_EQ(ageAfter(9999), "9.9s old");
    EXPECT_EQ(ageAfter(10000), "10s old");
    EXPECT_EQ(ageAfter(3600000), "1h 00m old");
    // The kernel's time of writing may lag behind the clock, but not by a second.
    EXPECT_EQ(ageAfter(-999), "0.0s old");
    EXPECT_EQ(ageAfter(-1000), "of unknown age");
    const Publication stale = stalePublication();
    EXPECT_EQ(ageText(stale, judge(stale, true), false), "stale, 5m 06s old");
    EXPECT_EQ(ageText(stale, judge(stale, true), true), "\x1b[31mstale\x1b[0m, 5m 06s old");
}

TEST(Publication, SaysWhetherTheMonitorRuns) {
    Publication publication = runningPublication();
    EXPECT_EQ(monitorLine(publication, false), "Monitor:  running\n");
    EXPECT_EQ(monitorLine(publication, true), "Monitor:  \x1b[32mrunning\x1b[0m\n");
    publication.monitor = MonitorState::NotRunning;
    EXPECT_EQ(monitorLine(publication, false), "Monitor:  not running\n");
    EXPECT_EQ(monitorLine(publication, true), "Monitor:  \x1b[31mnot running\x1b[0m\n");
    publication.monitor = MonitorState::Unknown;
    EXPECT_EQ(monitorLine(publication, false), "Monitor:  unknown\n");
}

} // namespace
