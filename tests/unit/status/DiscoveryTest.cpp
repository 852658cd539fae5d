#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "tests/unit/status/DiscoveryFixture.h"

namespace discovery {
namespace {

// --- taken over by pid --------------------------------------------------------------------------

TEST_F(DiscoveryTest, TakesOverWhatStillRunsWithoutASearch) {
    publishOne();
    runServer().pidFilename = "/tmp/pid/data_server.pid.777";
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_STREQ(list[0].name, "data_server");
    EXPECT_STREQ(list[0].version, "2.5");
    EXPECT_STREQ(list[0].cmd, kServer);
    EXPECT_STREQ(list[0].pidfile, "/tmp/pid/data_server.pid.777");
    EXPECT_EQ(list[0].status, 3);
    EXPECT_EQ(list[0].start_time, kStartSec);
    EXPECT_EQ(list[0].uptime, 1000);
    EXPECT_EQ(list[0].port_type, 2);
    EXPECT_EQ(list[0].port_num, 502);
    EXPECT_EQ(list[0].priority, -7);
    EXPECT_EQ(list[0].restart_type, 1);
    EXPECT_EQ(list[0].last_runtime_life_limit, 86400);
    EXPECT_EQ(list[0].check_flag, 0);
    EXPECT_EQ(list[0].keepalive, 0);
    EXPECT_EQ(list[0].heartbeat, 0);
    EXPECT_EQ(world().procScans, 0);
}

TEST_F(DiscoveryTest, TakesOverWithoutPidFileAndCommandLine) {
    publishOne();
    runServer().cmdlineAvailable = false;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].pidfile, "");
    EXPECT_STREQ(list[0].cmd, "");
}

TEST_F(DiscoveryTest, LongCommandLineFillsTheField) {
    publishOne();
    const std::string line = "/home/kelvo/root/data_server " + std::string(2000, 'x');
    world().addProcess(kPid, "data_server", line, kStartTicks);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].cmd), line.substr(0, 1023));
}

TEST_F(DiscoveryTest, PidFileNameThatDoesNotFitStaysEmpty) {
    publishOne();
    runServer().pidFilename = std::string(64, 'p');
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_STREQ(list[0].pidfile, "");
}

TEST_F(DiscoveryTest, AppendsToTheRegistry) {
    publishOne();
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list = {segments::makeApplication("first")};
    status.initUserShm(list, true);
    ASSERT_THAT(list, SizeIs(2));
    EXPECT_STREQ(list[0].name, "first");
    EXPECT_STREQ(list[1].name, "data_server");
}

TEST_F(DiscoveryTest, KeepsTheOrderOfTheRecords) {
    publishCount(3);
    for (std::size_t number = 1; number <= 3; ++number) {
        Published published;
        published.name = "app" + std::to_string(number);
        published.pid = 100 - static_cast<std::int32_t>(number);
        publish(number, published);
        world().addProcess(published.pid, published.name, "/home/kelvo/root/x", kStartTicks);
    }
    world().process(98)->alive = false;
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(2));
    EXPECT_STREQ(list[0].name, "app1");
    EXPECT_STREQ(list[1].name, "app3");
}

TEST_F(DiscoveryTest, ReadsNothingUnlessAsked) {
    publishOne();
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list;
    EXPECT_EQ(status.initUserShm(list, false), 0);
    EXPECT_THAT(list, IsEmpty());
    EXPECT_EQ(world().count("loadShm"), 2U); // those of the constructor
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
}

TEST_F(DiscoveryTest, ClearsTheSegmentAfterwards) {
    publishOne();
    runServer();
    EXPECT_THAT(discover(), SizeIs(1));
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
}

// The next monitor finds what this one could not adopt any more.
TEST_F(DiscoveryTest, EndsWhenTheMonitorIsAskedToAndKeepsTheSegment) {
    publishOne();
    runServer();
    const std::string published = bytesOf(kApplications);
    world().terminationIsPending = true;
    EXPECT_THAT(discover(), IsEmpty());
    EXPECT_EQ(bytesOf(kApplications), published);
}

TEST_F(DiscoveryTest, RefreshesMaximumAndVersionTextsOfTheImage) {
    const char* const savedVersion = g_fileVersion;
    const char* const savedDate = g_fileDate;
    g_fileVersion = "0005.0001.new";
    g_fileDate = "today";
    publishOne();
    putNumber<std::int32_t>(kApplications, 4, 5);
    putText(kApplications, 8, "0005.0001.that.of.before");
    putText(kApplications, 40, "yesterday");
    runServer();
    AppStatusUpdate status;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    status.updateAppInfo();
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 1);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 4), 127);
    EXPECT_EQ(textAt(kApplications, 8, 32), "0005.0001.new");
    EXPECT_EQ(textAt(kApplications, 40, 32), "today");
    EXPECT_EQ(textAt(kApplications, 128, 32), "data_server");
    g_fileVersion = savedVersion;
    g_fileDate = savedDate;
}

TEST_F(DiscoveryTest, FindsWhatTheLastMonitorHasPublished) {
    world().now += 3000;
    world().uptimeSec += 3000;
    runServer();
    appinfo app = segments::makeApplication("data_server");
    app.pid = kPid;
    app.start_time = static_cast<std::int32_t>(kStartSec);
    std::vector<appinfo> before = {app};
    {
        AppStatusUpdate status;
        std::vector<appinfo> none;
        status.initUserShm(none, false);
        status.updateUserShm(before);
    }
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].pid, kPid);
    EXPECT_EQ(list[0].start_time, kStartSec);
    EXPECT_EQ(list[0].port_num, 502);
    EXPECT_EQ(world().procScans, 0);
}

// --- names of statuses and ports ----------------------------------------------------------------

struct NamedCode {
    std::string name;
    std::int32_t code;
};

/// The bytes of `text` with its NULs.
template <std::size_t Size> std::string bytes(const char (&text)[Size]) {
    return {text, Size - 1};
}

class StatusNameTest : public DiscoveryTest, public testing::WithParamInterface<NamedCode> {};

TEST_P(StatusNameTest, GivesTheFirstStatusOfThatName) {
    Published published;
    published.status = GetParam().name;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].status, GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(Known, StatusNameTest,
                         testing::Values(NamedCode{"initializing", 0}, NamedCode{"starting", 1},
                                         NamedCode{"started", 3}, NamedCode{"stopped", 5},
                                         NamedCode{"dead", 6}, NamedCode{"stopping", 7},
                                         NamedCode{"start failure", 8}, NamedCode{"app late", 9},
                                         NamedCode{"monitor die", 10},
                                         NamedCode{bytes("stopped\0garbage!"), 5}));

INSTANTIATE_TEST_SUITE_P(Unknown, StatusNameTest,
                         testing::Values(NamedCode{"", 0}, NamedCode{"start", 0},
                                         NamedCode{"startedx", 0}, NamedCode{"Started", 0},
                                         NamedCode{" stopped", 0}, NamedCode{"running", 0},
                                         NamedCode{"startedxstartedx", 0},
                                         NamedCode{"start failurexxx", 0},
                                         NamedCode{std::string(16, '\xFF'), 0}));

class PortNameTest : public DiscoveryTest, public testing::WithParamInterface<NamedCode> {};

TEST_P(PortNameTest, GivesThePortTypeOfThatName) {
    Published published;
    published.portType = GetParam().name;
    publishOne(published);
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(list[0].port_type, GetParam().code);
    EXPECT_EQ(list[0].port_num, 502);
}

INSTANTIATE_TEST_SUITE_P(Names, PortNameTest,
                         testing::Values(NamedCode{"None", 0}, NamedCode{"COM", 1},
                                         NamedCode{"Eth", 2},
                                         NamedCode{bytes("COM\0zzzzzzzzzzzz"), 1}, NamedCode{"", 0},
                                         NamedCode{"eth", 0}, NamedCode{"COM1", 0},
                                         NamedCode{"EthEthEthEthEthE", 0},
                                         NamedCode{std::string(16, '\x80'), 0}));

// --- texts without an end -----------------------------------------------------------------------

TEST_F(DiscoveryTest, NameWithoutAnEndIsCutTo31) {
    Published published;
    published.name = std::string(32, 'n');
    publishOne(published);
    world().addProcess(kPid, std::string(15, 'n'), "/home/kelvo/root/n", kStartTicks);
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].name), std::string(31, 'n'));
    EXPECT_STREQ(list[0].version, "2.5");
}

TEST_F(DiscoveryTest, VersionWithoutAnEndIsCutTo31) {
    publishOne();
    putText(kApplications, 128 + 32, std::string(32, 'v'));
    runServer();
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(1));
    EXPECT_EQ(std::string(list[0].version, 32), std::string(31, 'v') + '\0');
    EXPECT_EQ(list[0].start_time, kStartSec);
}

// The image is published again by the next cycle.
TEST_F(DiscoveryTest, TextsOfTheImageEndInsideTheirFields) {
    Published published;
    published.name = std::string(32, 'n');
    published.status = std::string(16, 's');
    published.portType = std::string(16, 'p');
    publishOne(published);
    putText(kApplications, 128 + 32, std::string(32, 'v'));
    AppStatusUpdate status;
    std::vector<appinfo> list;
    status.initUserShm(list, true);
    status.updateAppInfo();
    EXPECT_EQ(textAt(kApplications, 128, 32), std::string(31, 'n'));
    EXPECT_EQ(textAt(kApplications, 128 + 32, 32), std::string(31, 'v'));
    EXPECT_EQ(textAt(kApplications, 128 + 76, 16), std::string(15, 's'));
    EXPECT_EQ(textAt(kApplications, 128 + 104, 16), std::string(15, 'p'));
}

// --- counts -------------------------------------------------------------------------------------

struct PublishedCount {
    std::int32_t count;
    std::size_t examined;
};

class PublishedCountTest : public DiscoveryTest,
                           public testing::WithParamInterface<PublishedCount> {
protected:
    PublishedCountTest() {
        for (std::size_t number = 1; number <= 127; ++number) {
            Published published;
            published.name = "app" + std::to_string(number);
            published.pid = 1000 + static_cast<std::int32_t>(number);
            publish(number, published);
            world().addProcess(published.pid, published.name, "/home/kelvo/root/x", kStartTicks);
        }
        publishCount(GetParam().count);
    }
};

TEST_P(PublishedCountTest, AdoptsSoMany) {
    const std::vector<appinfo> list = discover();
    ASSERT_THAT(list, SizeIs(GetParam().examined));
    for (std::size_t index = 0; index < list.size(); ++index) {
        EXPECT_EQ(list[index].name, "app" + std::to_string(index + 1));
        EXPECT_EQ(list[index].pid, 1001 + static_cast<std::int32_t>(index));
    }
}

TEST_P(PublishedCountTest, ExaminesSoMany) {
    world().processes.clear();
    EXPECT_EQ(occurrences(tracesAt(4), "initAppInfo: checking "), GetParam().examined);
}

INSTANTIATE_TEST_SUITE_P(
    Counts, PublishedCountTest,
    testing::Values(PublishedCount{std::numeric_limits<std::int32_t>::min(), 0},
                    PublishedCount{-5, 0}, PublishedCount{-1, 0}, PublishedCount{0, 0},
                    PublishedCount{1, 1}, PublishedCount{126, 126}, PublishedCount{127, 127},
                    PublishedCount{128, 127}, PublishedCount{200, 127},
                    PublishedCount{std::numeric_limits<std::int32_t>::max(), 127}));

// --- segments that cannot be read ---------------------------------------------------------------

TEST_F(DiscoveryTest, NewSegmentHoldsNothing) {
    world().segments.clear();
    runServer();
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, SegmentThatCannotBeOpenedHoldsNothing) {
    publishOne();
    runServer();
    world().segmentErrors = {kApplications};
    world().segments.erase(kApplications);
    EXPECT_THAT(discover(), IsEmpty());
}

TEST_F(DiscoveryTest, ShortSegmentIsFilledUpWithNothing) {
    publishCount(3);
    publish(1, {});
    bytesOf(kApplications).resize(256);
    runServer();
    EXPECT_THAT(discover(), SizeIs(1));
}

TEST_F(DiscoveryTest, SegmentThatIsShortenedMeanwhileHoldsNothing) {
    publishOne();
    runServer();
    world().onCall = [](const std::string& call) {
        if (call == "clearData /meter_usr7_data.shared") {
            bytesOf(kApplications).resize(300);
        }
    };
    EXPECT_THAT(discover(), IsEmpty());
    world().onCall = nullptr;
}

} // namespace
} // namespace discovery
