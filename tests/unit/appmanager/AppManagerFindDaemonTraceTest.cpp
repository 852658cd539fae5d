#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/DataServer.h"
#include "tests/unit/appmanager/IdentificationFixture.h"

namespace launches {
namespace {

class FindDaemonTraceTest : public SearchTest {
protected:
    /// `text` is printed from `threshold` on, and not below it.
    void expectTracedFrom(int threshold, const std::string& text, bool argv0Only = false) {
        EXPECT_THAT(tracesAt(threshold, argv0Only), HasSubstr(text));
        EXPECT_THAT(tracesAt(threshold - 1, argv0Only), Not(HasSubstr(text)));
    }
};

TEST_F(FindDaemonTraceTest, TracesTheSearch) {
    expectTracedFrom(7, "findDaemon: finding daemon for pid=601, name=data_server\n");
}

TEST_F(FindDaemonTraceTest, TracesTheEntry) {
    addDaemon();
    expectTracedFrom(8, "findDaemon: d_type=0x4 pid=602\n");
}

TEST_F(FindDaemonTraceTest, TracesMissingFacts) {
    addDaemon().factsAvailable = false;
    expectTracedFrom(8, "findDaemon: pid=602 process info not found\n");
}

TEST_F(FindDaemonTraceTest, TracesAnInvalidCommandLine) {
    addDaemon("sh -c x", 42);
    expectTracedFrom(8,
                     "findDaemon: pid=602, starttime=42, missing or invalid cmdline=\"sh -c x\"\n");
}

TEST_F(FindDaemonTraceTest, TracesAMissingCommandLine) {
    addDaemon(kServer, 42).cmdlineAvailable = false;
    expectTracedFrom(8, "findDaemon: pid=602, starttime=42, missing or invalid cmdline=\"\"\n");
}

TEST_F(FindDaemonTraceTest, TracesAnotherNumberOfWords) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x");
    expectTracedFrom(8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argc=3 mismatch "
                        "for pid=602, cmdline=\"/home/kelvo/root/x\" argc=1\n");
}

class FindDaemonUnsplitTest : public SearchTest, public testing::WithParamInterface<int> {
protected:
    static constexpr const char* kText =
        "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argc=3 mismatch for pid=602, "
        "cmdline=\"/home/kelvo/root/data_server -p 5\" argc=0\n";

    void SetUp() override {
        addDaemon();
        world().mallocs.failCalls = {2, 3, 4};
    }
};

TEST_P(FindDaemonUnsplitTest, IsTracedFromVerbosityThreeOn) {
    const std::string traces = tracesAt(GetParam());
    if (GetParam() >= 3) {
        EXPECT_THAT(traces, HasSubstr(kText));
    } else {
        EXPECT_EQ(traces, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Verbosities, FindDaemonUnsplitTest, testing::Values(2, 3, 7, 8));

TEST_F(FindDaemonTraceTest, TracesTheFirstWordThatDiffers) {
    addDaemon("/home/kelvo/root/data_server -q 6");
    expectTracedFrom(
        8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 argv[1]=-p mismatch for "
           "pid=602, cmdline=\"/home/kelvo/root/data_server -q 6\" argv[1]=\"-q\"\n");
    EXPECT_THAT(tracesAt(8), Not(HasSubstr("argv[2]")));
}

TEST_F(FindDaemonTraceTest, TracesThatTheProgramDiffers) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x -p 5");
    expectTracedFrom(8, "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 "
                        "argv[0]=/home/kelvo/root/data_server mismatch for pid=602, "
                        "cmdline=\"/home/kelvo/root/x -p 5\" argv[0]=\"/home/kelvo/root/x\"\n");
}

TEST_F(FindDaemonTraceTest, TracesThatTheProgramAloneDiffers) {
    world().addProcess(kDaemon, "x", "/home/kelvo/root/x -p 5");
    expectTracedFrom(8,
                     "findDaemon: app cmdline=/home/kelvo/root/data_server -p 5 "
                     "argv[0]=/home/kelvo/root/data_server argv[0] mismatch for pid=602, "
                     "cmdline=\"/home/kelvo/root/x -p 5\" argv[0]=\"/home/kelvo/root/x\"\n",
                     true);
}

TEST_F(FindDaemonTraceTest, TracesWhatIsNotIncluded) {
    useCommand("/bin/x");
    world().addProcess(kDaemon, "x", "/bin/x", 42);
    expectTracedFrom(8, "findDaemon: not included pid=602, starttime=42, cmdline=\"/bin/x\"\n");
}

TEST_F(FindDaemonTraceTest, TracesWhatIsExcluded) {
    useCommand("/home/kelvo/root/actl");
    world().addProcess(kDaemon, "actl", "/home/kelvo/root/actl", 42);
    expectTracedFrom(
        8, "findDaemon: excluded pid=602, starttime=42, cmdline=\"/home/kelvo/root/actl\"\n");
}

TEST_F(FindDaemonTraceTest, TracesTheDaemonFoundWithItsStartTime) {
    addDaemon(kServer, 1000000);
    // 10000 s after the boot, that is at second 1700000000.
    expectTracedFrom(7, "findDaemon: found daemon pid=602, starttime=1000000(2023-11-14 22:13:20) "
                        "cmdline=\"/home/kelvo/root/data_server -p 5\"\n");
}

TEST_F(FindDaemonTraceTest, TracesThatNothingWasFound) {
    expectTracedFrom(7, "findDaemon: daemon not found for pid=601, name=data_server !\n"
                        "findDaemon: check daemonInclusionList and daemonExclusionList!\n");
}

TEST_F(FindDaemonTraceTest, TracesInOrder) {
    world().addProcess(5, "kthreadd", "");
    addDaemon(kServer, 0);
    EXPECT_EQ(tracesAt(8), "findDaemon: finding daemon for pid=601, name=data_server\n"
                           "findDaemon: d_type=0x4 pid=5\n"
                           "findDaemon: pid=5, starttime=0, missing or invalid cmdline=\"\"\n"
                           "findDaemon: d_type=0x4 pid=602\n"
                           "findDaemon: found daemon pid=602, starttime=0(2023-11-14 19:26:40) "
                           "cmdline=\"/home/kelvo/root/data_server -p 5\"\n");
}

TEST_F(FindDaemonTraceTest, SaysNothingMoreWhenProcCannotBeOpened) {
    world().procCanBeOpened = false;
    EXPECT_EQ(tracesAt(8), "findDaemon: finding daemon for pid=601, name=data_server\n");
}

TEST_F(FindDaemonTraceTest, IsSilentAtVerbositySix) {
    world().addProcess(5, "data_server", "/home/kelvo/root/data_server -p 6");
    EXPECT_EQ(tracesAt(6), "");
    addDaemon();
    EXPECT_EQ(tracesAt(6), "");
}

} // namespace
} // namespace launches
