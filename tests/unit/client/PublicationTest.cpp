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

    publication.nowMs = publication.segment.modifiedMs + 60001;
    EXPECT_EQ(judge(publication, true).exitStatus, 5);
    EXPECT_TRUE(judge(publication, true).isStale);
}

TEST(Publication, IsStaleWhenARunningMonitorHasNotPublishedForAMinute) {
    Publication publication = runningPublication();
    publication.nowMs = publication.segment.modifiedMs + 60000;
    EXPECT_EQ(judge(publication, true).exitStatus, 0);
    EXPECT_FALSE(judge(publication, true).isStale);

    publication.nowMs += 1;
    const Finding finding = judge(publication, true);
    EXPECT_EQ(finding.exitStatus, 4);
    EXPECT_EQ(finding.error,
              "ovardctl: the monitor runs, but has not written segment /segment for more than 60 "
              "seconds; it may be held up, see its lines in the system log (Ovard)\n");
    EXPECT_TRUE(finding.hasData);
    EXPECT_TRUE(finding.isStale);
    EXPECT_STREQ(finding.dataWord, "ok");
    EXPECT_EQ(ageText(publication, finding, true), "\x1b[31mstale\x1b[0m, 1m 00s old");

    // A watch tells an error once only.
    publication.nowMs += 1000;
    EXPECT_EQ(judge(publication, true).error, finding.error);

    // An unknown age tells nothing.
    publication.nowMs = publication.segment.modifiedMs - 100000;
    EXPECT_EQ(judge(publication, true).exitStatus, 0);
    EXPECT_FALSE(judge(publication, true).isStale);
}

struct LackCase {
    SegmentResult result;
    const char* word;
    const char* reason;
};

class PublicationLack : public testing::TestWithParam<LackCase> {};

/// Judges the lack under this state of the monitor; expects what does not depend on that.
Finding judgeLack(MonitorState monitor, const LackCase& lack) {
    Finding finding = judge(lackingPublication(monitor, lack.result), false);
    EXPECT_FALSE(finding.hasData);
    EXPECT_TRUE(finding.isStale) << "nothing current is shown";
    EXPECT_STREQ(finding.dataWord, lack.word);
    return finding;
}

TEST_P(PublicationLack, EndsWith4WhileAMonitorRuns) {
    const Finding finding = judgeLack(MonitorState::Running, GetParam());
    EXPECT_EQ(finding.exitStatus, 4);
    EXPECT_EQ(finding.error, std::string("ovardctl: segment /segment ") + GetParam().reason +
                                 "; the monitor publishes every few seconds, try again\n");
}

TEST_P(PublicationLack, EndsWith3WithoutAMonitor) {
    const Finding finding = judgeLack(MonitorState::NotRunning, GetParam());
    EXPECT_EQ(finding.exitStatus, 3);
    EXPECT_EQ(finding.error,
              std::string("ovardctl: no monitor listens on /tmp/sock, and segment /segment ") +
                  GetParam().reason + "; start ovard, or name its socket with --socket\n");
}

TEST_P(PublicationLack, EndsWith5WhereNobodyKnowsWhetherAMonitorRuns) {
    const Finding finding = judgeLack(MonitorState::Unknown, GetParam());
    EXPECT_EQ(finding.exitStatus, 5);
    EXPECT_EQ(finding.error,
              std::string("ovardctl: cannot tell whether a monitor runs, and segment /segment ") +
                  GetParam().reason +
                  "; check that /proc is mounted and that /proc/net/unix can be read\n");
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
        EXPECT_TRUE(finding.isStale);
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
    EXPECT_EQ(ageAfter(60000), "1m 00s old");
    EXPECT_EQ(ageAfter(3600000), "stale, 1h 00m old");
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
