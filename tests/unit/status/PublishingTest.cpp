#include <sys/socket.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "platform/Text.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace {

using fakes::world;
using segments::bigEndian;
using segments::bytesAt;
using segments::bytesOf;
using segments::kApplications;
using segments::kApplicationsSize;
using segments::kSystem;
using segments::kSystemSize;
using segments::makeApplication;
using segments::numberAt;
using segments::recordOffset;
using segments::textAt;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kFirstCalls[] = {
    "getIpAddress eth0 2 32 0 0",
    "getIpAddress eth1 2 32 0 0",
    "getIpAddress eth0 10 64 0 0",
    "getIpAddress eth1 10 64 0 0",
    "readTextFile /proc/uptime",
    "readTextFile /proc/loadavg",
    "readTextFile /proc/stat",
    "readTextFile /proc/meminfo",
    "readTextFile /proc/net/dev",
    "readTextFile /var/lib/dhcp/dhclient.eth0.leases",
    "readTextFile /var/lib/dhcp/dhclient.eth1.leases",
    "readTextFile /var/lib/dhcp/dhclient6.eth0.leases",
    "readTextFile /var/lib/dhcp/dhclient6.eth1.leases",
};

/// The segments are open and empty.
class PublishingTest : public testing::Test {
protected:
    PublishingTest() {
        g_fileVersion = "0005.0001.231114.221320";
        g_fileDate = "Nov 14 2023 22:13:20 (Release)";
        std::vector<appinfo> none;
        status_->initUserShm(none, false);
        world().forgetRecords();
    }

    ~PublishingTest() override {
        g_fileVersion = savedVersion_;
        g_fileDate = savedDate_;
    }

    static std::vector<appinfo> applications(std::size_t count) {
        std::vector<appinfo> list;
        for (std::size_t number = 1; number <= count; ++number) {
            list.push_back(makeApplication("app" + std::to_string(number)));
            list.back().pid = 1000 + static_cast<std::int32_t>(number);
        }
        return list;
    }

    void publish(std::vector<appinfo> list) { EXPECT_EQ(status_->updateUserShm(list), 0); }
    void publish(const appinfo& app) { publish(std::vector<appinfo>{app}); }

    /// What filling the image from `app` prints at `verbosity`.
    std::string tracesAt(int verbosity, const appinfo& app) {
        std::vector<appinfo> list = {app};
        verbose = verbosity;
        world().console.clear();
        EXPECT_EQ(status_->getAppInfo(list), 0);
        return world().consoleText();
    }

    std::unique_ptr<AppStatusUpdate> status_ = std::make_unique<AppStatusUpdate>();

private:
    const char* savedVersion_ = g_fileVersion;
    const char* savedDate_ = g_fileDate;
};

// --- the segments -------------------------------------------------------------------------------

class PublishedSegmentsTest : public testing::Test {
protected:
    std::unique_ptr<AppStatusUpdate> status_ = std::make_unique<AppStatusUpdate>();
    std::vector<appinfo> applications_;
};

TEST_F(PublishedSegmentsTest, AreOpenedAndClearedInOrder) {
    world().forgetRecords();
    EXPECT_EQ(status_->initUserShm(applications_, false), 0);
    EXPECT_THAT(world().calls, ElementsAre("openShm /meter_usr7_data.shared 66 438 4096",
                                           "openShm /meter_usr16_data.shared 66 438 16384",
                                           "clearData /meter_usr7_data.shared",
                                           "clearData /meter_usr16_data.shared"));
}

TEST_F(PublishedSegmentsTest, AreReadForTheDiscoveryBeforeTheSecondIsCleared) {
    world().forgetRecords();
    EXPECT_EQ(status_->initUserShm(applications_, true), 0);
    EXPECT_THAT(world().calls, ElementsAre("openShm /meter_usr7_data.shared 66 438 4096",
                                           "openShm /meter_usr16_data.shared 66 438 16384",
                                           "clearData /meter_usr7_data.shared",
                                           "loadShm /meter_usr16_data.shared 16384 16384 0",
                                           "clearData /meter_usr16_data.shared"));
}

TEST_F(PublishedSegmentsTest, AreAllZeroAfterTheStart) {
    for (const bool discover : {false, true}) {
        bytesOf(kSystem).assign(kSystemSize, '\x5A');
        bytesOf(kApplications).assign(kApplicationsSize, '\x5A');
        status_->initUserShm(applications_, discover);
        EXPECT_EQ(bytesOf(kSystem), std::string(kSystemSize, '\0'));
        EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
    }
}

TEST_F(PublishedSegmentsTest, ThatCannotBeOpenedDoNotStopTheStart) {
    world().segmentErrors = {kSystem, kApplications};
    EXPECT_EQ(status_->initUserShm(applications_, true), 0);
    EXPECT_EQ(status_->updateUserShm(applications_), 0);
    EXPECT_TRUE(world().segments.empty());
}

TEST_F(PublishedSegmentsTest, ThatCouldNotBeOpenedArePublishedOnceTheyCan) {
    world().segmentErrors = {kSystem, kApplications};
    world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
    status_->initUserShm(applications_, false);
    world().segmentErrors.clear();
    applications_ = {makeApplication("app")};
    status_->updateUserShm(applications_);
    EXPECT_EQ(textAt(kApplications, 128, 32), "app");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
}

TEST_F(PublishedSegmentsTest, OnlyTheOneThatCannotBeOpenedStaysAway) {
    world().segmentErrors = {kApplications};
    world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
    status_->initUserShm(applications_, false);
    status_->updateUserShm(applications_);
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
    EXPECT_EQ(world().segments.count(kApplications), 0U);
}

TEST_F(PublishedSegmentsTest, AreClosedSystemFirst) {
    status_->initUserShm(applications_, false);
    world().forgetRecords();
    status_->closeUserShm();
    EXPECT_THAT(world().calls, ElementsAre("closeShm /meter_usr7_data.shared",
                                           "closeShm /meter_usr16_data.shared"));
}

TEST_F(PublishedSegmentsTest, AreClosedByTheDestructorAndNotRemoved) {
    status_->initUserShm(applications_, false);
    world().forgetRecords();
    status_.reset();
    EXPECT_THAT(world().calls, ElementsAre("closeShm /meter_usr7_data.shared",
                                           "closeShm /meter_usr16_data.shared"));
    EXPECT_THAT(world().segments, SizeIs(2));
}

TEST_F(PublishedSegmentsTest, NeverOpenedAreClosedByTheDestructorAllTheSame) {
    world().forgetRecords();
    status_.reset();
    EXPECT_THAT(world().calls, ElementsAre("closeShm -", "closeShm -"));
}

TEST_F(PublishedSegmentsTest, ACycleAfterTheCloseWritesNothing) {
    status_->initUserShm(applications_, false);
    status_->closeUserShm();
    applications_ = {makeApplication("app")};
    EXPECT_EQ(status_->updateUserShm(applications_), 0);
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\0'));
}

// --- the cycle ----------------------------------------------------------------------------------

TEST_F(PublishingTest, WritesTheApplicationsBeforeTheMachine) {
    publish(applications(2));
    std::vector<std::string> expected(std::begin(kFirstCalls), std::end(kFirstCalls));
    for (const char* call :
         {"sleep 1", "sleep 1", "remapShm /meter_usr16_data.shared",
          "writeShm /meter_usr16_data.shared 16384 16384 0", "remapShm /meter_usr7_data.shared",
          "writeShm /meter_usr7_data.shared 4096 4096 0"}) {
        expected.emplace_back(call);
    }
    EXPECT_EQ(world().calls, expected);
}

TEST_F(PublishingTest, EveryCycleDoesTheSame) {
    publish(applications(1));
    const std::vector<std::string> first = world().calls;
    world().forgetRecords();
    publish(applications(1));
    EXPECT_EQ(world().calls, first);
}

TEST_F(PublishingTest, FilesThatCannotBeReadDoNotStopTheCycle) {
    // No file of the world can be opened.
    world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
    publish(applications(1));
    EXPECT_EQ(textAt(kApplications, 128, 32), "app1");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
}

TEST_F(PublishingTest, SleepsOneMillisecondAfterEachRecord) {
    publish(applications(3));
    EXPECT_THAT(world().callsOf("sleep"), ElementsAre("sleep 1", "sleep 1", "sleep 1"));
}

TEST_F(PublishingTest, SleepsBeforeTheNextApplication) {
    verbose = 4;
    std::vector<appinfo> list = applications(2);
    std::vector<std::string> consoles;
    world().onSleep = [&consoles](int) { consoles.push_back(world().consoleText()); };
    status_->getAppInfo(list);
    ASSERT_THAT(consoles, SizeIs(2));
    EXPECT_THAT(consoles[0], AllOf(HasSubstr("'app1'"), Not(HasSubstr("'app2'"))));
    EXPECT_THAT(consoles[1], HasSubstr("'app2'"));
}

TEST_F(PublishingTest, NothingIsSleptWithoutApplications) {
    publish(applications(0));
    EXPECT_THAT(world().callsOf("sleep"), IsEmpty());
}

// --- counts -------------------------------------------------------------------------------------

TEST_F(PublishingTest, EmptyRegistryPublishesTheHeader) {
    publish(applications(0));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 0);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 4), 127);
    EXPECT_EQ(textAt(kApplications, 8, 32), "0005.0001.231114.221320");
    EXPECT_EQ(textAt(kApplications, 40, 32), "Nov 14 2023 22:13:20 (Release)");
}

TEST_F(PublishingTest, EmptyRegistryLeavesTheRecords) {
    publish(applications(127));
    const std::string records = bytesAt(kApplications, 128, kApplicationsSize - 128);
    publish(applications(0));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 0);
    EXPECT_EQ(bytesAt(kApplications, 128, kApplicationsSize - 128), records);
}

TEST_F(PublishingTest, ShorterRegistryLeavesTheRecordsBehindItsEnd) {
    publish(applications(3));
    const std::string stale = bytesAt(kApplications, recordOffset(2), 256);
    publish(makeApplication("new"));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 1);
    EXPECT_EQ(textAt(kApplications, recordOffset(1), 32), "new");
    EXPECT_EQ(bytesAt(kApplications, recordOffset(2), 256), stale);
}

TEST_F(PublishingTest, OneApplicationFillsTheFirstRecordOnly) {
    publish(makeApplication("app"));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 1);
    EXPECT_EQ(textAt(kApplications, 128, 32), "app");
    EXPECT_EQ(bytesAt(kApplications, 256, kApplicationsSize - 256),
              std::string(kApplicationsSize - 256, '\0'));
}

TEST_F(PublishingTest, All127ApplicationsArePublishedInOrder) {
    publish(applications(127));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 127);
    for (std::size_t number = 1; number <= 127; ++number) {
        EXPECT_EQ(textAt(kApplications, 128 * number, 32), "app" + std::to_string(number));
        EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 * number + 72),
                  1000 + static_cast<std::int32_t>(number));
    }
    EXPECT_THAT(bytesOf(kApplications), SizeIs(16384));
}

TEST_F(PublishingTest, With128ApplicationsTheirSegmentStaysAsItIs) {
    publish(applications(5));
    const std::string before = bytesOf(kApplications);
    world().forgetRecords();
    world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
    publish(applications(128));
    EXPECT_EQ(bytesOf(kApplications), before);
    EXPECT_THAT(world().callsOf({"remapShm", "writeShm"}),
                ElementsAre("remapShm " + std::string(kSystem),
                            "writeShm " + std::string(kSystem) + " 4096 4096 0"));
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
}

TEST_F(PublishingTest, AfterTooManyApplicationsThePublicationGoesOn) {
    publish(applications(200));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 0);
    publish(applications(127));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 127);
    EXPECT_EQ(textAt(kApplications, recordOffset(127), 32), "app127");
}

TEST_F(PublishingTest, ImageCountsAllApplicationsButHolds127) {
    std::vector<appinfo> list = applications(300);
    EXPECT_EQ(status_->getAppInfo(list), 0);
    EXPECT_THAT(world().callsOf("sleep"), AllOf(SizeIs(127), Each("sleep 1")));
    EXPECT_EQ(status_->updateAppInfo(), 0);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 300);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 4), 127);
    EXPECT_EQ(textAt(kApplications, recordOffset(127), 32), "app127");
    EXPECT_THAT(bytesOf(kApplications), SizeIs(16384));
}

TEST_F(PublishingTest, ImageStartsWithACountOfOne) {
    EXPECT_EQ(status_->updateAppInfo(), 0);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 0), 1);
    EXPECT_EQ(bytesAt(kApplications, 4, 108), std::string(108, '\0'));
}

// --- the header ---------------------------------------------------------------------------------

TEST_F(PublishingTest, HeaderTextsAreCutTo31Characters) {
    g_fileVersion = "v234567890123456789012345678901234";
    g_fileDate = "d23456789012345678901234567890123";
    publish(applications(0));
    EXPECT_EQ(textAt(kApplications, 8, 32), "v234567890123456789012345678901");
    EXPECT_EQ(textAt(kApplications, 40, 32), "d234567890123456789012345678901");
    EXPECT_EQ(bytesAt(kApplications, 72, 40), std::string(40, '\0'));
}

TEST_F(PublishingTest, HeaderTextsOf31CharactersAreWhole) {
    g_fileVersion = "v234567890123456789012345678901";
    g_fileDate = "";
    publish(applications(0));
    EXPECT_EQ(textAt(kApplications, 8, 32), "v234567890123456789012345678901");
    EXPECT_EQ(textAt(kApplications, 40, 32), "");
}

TEST_F(PublishingTest, ReservedBytesOfTheHeaderStayZero) {
    publish(applications(127));
    EXPECT_EQ(bytesAt(kApplications, 72, 40), std::string(40, '\0'));
    EXPECT_EQ(bytesAt(kApplications, 118, 10), std::string(10, '\0'));
}

// --- a record -----------------------------------------------------------------------------------

TEST_F(PublishingTest, EveryFieldHasItsPlace) {
    publish(std::vector<appinfo>{makeApplication("first"), makeApplication("data_server")});
    EXPECT_EQ(textAt(kApplications, 256 + 0, 32), "data_server");
    EXPECT_EQ(textAt(kApplications, 256 + 32, 32), "2.5");
    EXPECT_EQ(bytesAt(kApplications, 256 + 64, 8), bigEndian(1699999000000));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 256 + 72), 612);
    EXPECT_EQ(textAt(kApplications, 256 + 76, 16), "started");
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 256 + 92), -7);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 256 + 96), 1);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 256 + 100), 86400);
    EXPECT_EQ(textAt(kApplications, 256 + 104, 16), "Eth");
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 256 + 120), 502);
    EXPECT_EQ(numberAt<std::uint32_t>(kApplications, 256 + 124), 1000U);
}

TEST_F(PublishingTest, EveryFieldFollowsItsApplication) {
    appinfo app = makeApplication("data_server");
    publish(app);
    app.pid = 7;
    app.start_time = 5;
    app.status = 2;
    app.priority = 19;
    app.restart_type = 0;
    app.last_runtime_life_limit = -1;
    app.port_type = 1;
    app.port_num = -3;
    app.uptime = 0;
    platform::copyToField(app.version, "");
    publish(app);
    EXPECT_EQ(textAt(kApplications, 128 + 32, 32), "");
    EXPECT_EQ(bytesAt(kApplications, 128 + 64, 8), bigEndian(5000));
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 + 72), 7);
    EXPECT_EQ(textAt(kApplications, 128 + 76, 16), "starting");
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 + 92), 19);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 + 96), 0);
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 + 100), -1);
    EXPECT_EQ(textAt(kApplications, 128 + 104, 16), "COM");
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 128 + 120), -3);
    EXPECT_EQ(numberAt<std::uint32_t>(kApplications, 128 + 124), 0U);
}

TEST_F(PublishingTest, StartTimeIsBigEndianOnEveryMachine) {
    appinfo app = makeApplication("app");
    app.start_time = 1;
    publish(app);
    EXPECT_EQ(bytesAt(kApplications, 192, 8), std::string("\0\0\0\0\0\0\x03\xE8", 8));
}

TEST_F(PublishingTest, StartTimesOfAllOf32BitsFit) {
    for (const std::int32_t seconds : {0, -5, std::numeric_limits<std::int32_t>::max(),
                                       std::numeric_limits<std::int32_t>::min()}) {
        appinfo app = makeApplication("app");
        app.start_time = seconds;
        publish(app);
        EXPECT_EQ(bytesAt(kApplications, 192, 8), bigEndian(std::int64_t{seconds} * 1000));
    }
}

TEST_F(PublishingTest, NameOf31CharactersIsWhole) {
    publish(makeApplication(std::string(30, 'n') + "x"));
    EXPECT_EQ(textAt(kApplications, 128, 32), std::string(30, 'n') + "x");
}

TEST_F(PublishingTest, LongerNamesAreCutTo31) {
    for (const std::size_t length : {32U, 33U, 63U}) {
        publish(makeApplication(std::string(31, 'n') + std::string(length - 31, 'x')));
        EXPECT_EQ(textAt(kApplications, 128, 32), std::string(31, 'n'));
        EXPECT_EQ(textAt(kApplications, 160, 32), "2.5");
    }
}

TEST_F(PublishingTest, TextsWithoutANulAreCutTo31) {
    appinfo app = makeApplication("app");
    std::memset(app.name, 'n', sizeof app.name);
    std::memset(app.version, 'v', sizeof app.version);
    publish(app);
    EXPECT_EQ(textAt(kApplications, 128, 32), std::string(31, 'n'));
    EXPECT_EQ(textAt(kApplications, 160, 32), std::string(31, 'v'));
    EXPECT_EQ(bytesAt(kApplications, 192, 8), bigEndian(1699999000000));
}

TEST_F(PublishingTest, ShorterTextsLeaveNothingOfLongerOnes) {
    publish(makeApplication(std::string(31, 'n')));
    publish(makeApplication("ab"));
    EXPECT_EQ(bytesAt(kApplications, 128, 32), "ab" + std::string(30, '\0'));
}

struct StatusName {
    std::int32_t status;
    const char* name;
};

class PublishedStatusTest : public PublishingTest,
                            public testing::WithParamInterface<StatusName> {};

TEST_P(PublishedStatusTest, HasItsName) {
    appinfo app = makeApplication("app");
    app.status = GetParam().status;
    publish(app);
    EXPECT_EQ(bytesAt(kApplications, 204, 16),
              GetParam().name + std::string(16 - std::strlen(GetParam().name), '\0'));
}

INSTANTIATE_TEST_SUITE_P(OneToFive, PublishedStatusTest,
                         testing::Values(StatusName{1, "starting"}, StatusName{2, "starting"},
                                         StatusName{3, "started"}, StatusName{4, "started"},
                                         StatusName{5, "stopped"}));

class UnpublishedStatusTest : public PublishingTest,
                              public testing::WithParamInterface<std::int32_t> {};

TEST_P(UnpublishedStatusTest, KeepsTheNameOfTheCycleBefore) {
    appinfo app = makeApplication("app");
    app.status = 5;
    publish(app);
    app.status = GetParam();
    app.pid = 77;
    publish(app);
    EXPECT_EQ(textAt(kApplications, 204, 16), "stopped");
    EXPECT_EQ(numberAt<std::int32_t>(kApplications, 200), 77);
}

TEST_P(UnpublishedStatusTest, IsEmptyInTheFirstCycle) {
    appinfo app = makeApplication("app");
    app.status = GetParam();
    publish(app);
    EXPECT_EQ(bytesAt(kApplications, 204, 16), std::string(16, '\0'));
    EXPECT_EQ(textAt(kApplications, 128, 32), "app");
}

INSTANTIATE_TEST_SUITE_P(Others, UnpublishedStatusTest,
                         testing::Values(0, 6, 7, 8, 9, 10, 11, -1,
                                         std::numeric_limits<std::int32_t>::max(),
                                         std::numeric_limits<std::int32_t>::min()));

// The name belongs to the record, not to the application.
TEST_F(PublishingTest, KeptStatusNameMayBeThatOfAnotherApplication) {
    std::vector<appinfo> list = {makeApplication("one"), makeApplication("two")};
    list[0].status = 5;
    publish(list);
    list.erase(list.begin());
    list[0].status = 6;
    publish(list);
    EXPECT_EQ(textAt(kApplications, 128, 32), "two");
    EXPECT_EQ(textAt(kApplications, 204, 16), "stopped");
}

struct PortName {
    std::int32_t type;
    const char* name;
};

class PublishedPortTest : public PublishingTest, public testing::WithParamInterface<PortName> {};

TEST_P(PublishedPortTest, HasItsName) {
    appinfo app = makeApplication("app");
    publish(app);
    app.port_type = GetParam().type;
    publish(app);
    EXPECT_EQ(bytesAt(kApplications, 232, 16),
              GetParam().name + std::string(16 - std::strlen(GetParam().name), '\0'));
}

INSTANTIATE_TEST_SUITE_P(
    Types, PublishedPortTest,
    testing::Values(PortName{0, "None"}, PortName{1, "COM"}, PortName{2, "Eth"},
                    PortName{3, "None"}, PortName{1000, "None"}, PortName{-1, "None"},
                    PortName{std::numeric_limits<std::int32_t>::max(), "None"},
                    PortName{std::numeric_limits<std::int32_t>::min(), "None"}));

// --- traces of the applications -----------------------------------------------------------------

constexpr const char* kLineOfServer =
    "getAppInfo: 'server' pid=612, pidfile=\"/tmp/pid/server.pid.612\", "
    "cmd=\"/home/kelvo/root/server -p 5\"\n";
constexpr const char* kFieldsOfServer = "getAppInfo: 'server'\n"
                                        "\tversion    = 2.5\n"
                                        "\tpid        = 612\n"
                                        "\tnice       = -7\n"
                                        "\tstatus     = started\n"
                                        "\tuptime     = 1000\n"
                                        "\tstart_time = 2023-11-14 21:56:40\n";

TEST_F(PublishingTest, ApplicationsAreNotTracedAtThree) {
    EXPECT_EQ(tracesAt(3, makeApplication("server")), "");
}

TEST_F(PublishingTest, ApplicationsAreTracedFromFourOn) {
    EXPECT_EQ(tracesAt(4, makeApplication("server")), kLineOfServer);
    EXPECT_EQ(tracesAt(7, makeApplication("server")), kLineOfServer);
}

TEST_F(PublishingTest, FieldsOfApplicationsAreTracedFromEightOn) {
    EXPECT_EQ(tracesAt(8, makeApplication("server")), std::string(kLineOfServer) + kFieldsOfServer);
}

TEST_F(PublishingTest, StartTimeIsTracedInLocalTime) {
    ::setenv("TZ", "XYZ-2:30", 1);
    ::tzset();
    EXPECT_THAT(tracesAt(8, makeApplication("server")),
                HasSubstr("\tstart_time = 2023-11-15 00:26:40\n"));
    ::setenv("TZ", "UTC", 1);
    ::tzset();
}

TEST_F(PublishingTest, EveryPublishedApplicationIsTraced) {
    std::vector<appinfo> list = applications(130);
    verbose = 4;
    status_->getAppInfo(list);
    EXPECT_THAT(world().consoleText(), HasSubstr("getAppInfo: 'app127' pid=1127,"));
    EXPECT_THAT(world().consoleText(), Not(HasSubstr("'app128'")));
}

// --- kernel and addresses -----------------------------------------------------------------------

class MeterInfoTest : public PublishingTest {
protected:
    MeterInfoTest() {
        platform::copyToField(world().kernel.sysname, "Linux");
        platform::copyToField(world().kernel.nodename, "meter");
        platform::copyToField(world().kernel.release, "2.6.32.8");
        platform::copyToField(world().kernel.version, "#7 Tue Nov 14 2023");
        platform::copyToField(world().kernel.machine, "ppc");
        world().ipAddresses[{"eth0", AF_INET}] = "192.0.2.1";
        world().ipAddresses[{"eth1", AF_INET}] = "198.51.100.2";
        world().ipAddresses[{"eth0", AF_INET6}] = "2001:db8::1";
        world().ipAddresses[{"eth1", AF_INET6}] = "2001:db8::2";
    }

    void fillAndWrite() {
        EXPECT_EQ(status_->getMeterInfo(), 0);
        EXPECT_EQ(status_->updateSysInfo(), 0);
    }

    std::string tracesAt(int verbosity) {
        verbose = verbosity;
        world().console.clear();
        EXPECT_EQ(status_->getMeterInfo(), 0);
        return world().consoleText();
    }
};

TEST_F(MeterInfoTest, EveryTextHasItsPlace) {
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), "2.6.32.8");
    EXPECT_EQ(textAt(kSystem, 32, 32), "#7 Tue Nov 14 2023");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
    EXPECT_EQ(textAt(kSystem, 96, 32), "198.51.100.2");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::1");
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
}

TEST_F(MeterInfoTest, AsksForEachAddressOnce) {
    (void)status_->getMeterInfo();
    EXPECT_THAT(world().calls,
                ElementsAre("getIpAddress eth0 2 32 0 0", "getIpAddress eth1 2 32 0 0",
                            "getIpAddress eth0 10 64 0 0", "getIpAddress eth1 10 64 0 0"));
}

TEST_F(MeterInfoTest, AddressThatIsGoneIsEmptyInTheNextCycle) {
    fillAndWrite();
    world().ipAddresses.erase({"eth1", AF_INET});
    world().ipAddresses[{"eth0", AF_INET6}] = "2001:db8::9";
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 96, 32), "");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::9");
}

TEST_F(MeterInfoTest, KernelTextsAreCutTo31Characters) {
    platform::copyToField(world().kernel.release, std::string(31, 'r') + std::string(33, 'R'));
    platform::copyToField(world().kernel.version, std::string(31, 'v') + "V");
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), std::string(31, 'r'));
    EXPECT_EQ(textAt(kSystem, 32, 32), std::string(31, 'v'));
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
}

TEST_F(MeterInfoTest, KernelTextsOf31CharactersAreWhole) {
    platform::copyToField(world().kernel.release, std::string(31, 'r'));
    platform::copyToField(world().kernel.version, std::string(31, 'v'));
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 0, 32), std::string(31, 'r'));
    EXPECT_EQ(textAt(kSystem, 32, 32), std::string(31, 'v'));
}

TEST_F(MeterInfoTest, AddressesAlwaysEndInsideTheirFields) {
    world().addressesLackNul = true;
    world().ipAddresses = {{{"eth0", AF_INET}, std::string(40, 'a')},
                           {{"eth1", AF_INET}, std::string(40, 'b')},
                           {{"eth0", AF_INET6}, std::string(80, 'c')},
                           {{"eth1", AF_INET6}, std::string(80, 'd')}};
    fillAndWrite();
    EXPECT_EQ(textAt(kSystem, 64, 32), std::string(31, 'a'));
    EXPECT_EQ(textAt(kSystem, 96, 32), std::string(31, 'b'));
    EXPECT_EQ(textAt(kSystem, 128, 64), std::string(63, 'c'));
    EXPECT_EQ(textAt(kSystem, 192, 64), std::string(63, 'd'));
}

TEST_F(MeterInfoTest, IsTracedFromFiveOn) {
    EXPECT_EQ(tracesAt(5), "sys.kernel.name    = 2.6.32.8\n"
                           "sys.kernel.version = #7 Tue Nov 14 2023\n"
                           "sys.ipaddr.v4.eth0 = 192.0.2.1\n"
                           "sys.ipaddr.v4.eth1 = 198.51.100.2\n"
                           "sys.ipaddr.v6.eth0 = 2001:db8::1\n"
                           "sys.ipaddr.v6.eth1 = 2001:db8::2\n");
}

TEST_F(MeterInfoTest, IsNotTracedAtFour) {
    EXPECT_EQ(tracesAt(4), "");
}

TEST_F(MeterInfoTest, MissingAddressesAreTracedEmpty) {
    world().ipAddresses.clear();
    EXPECT_THAT(tracesAt(5), HasSubstr("sys.ipaddr.v4.eth0 = \nsys.ipaddr.v4.eth1 = \n"
                                       "sys.ipaddr.v6.eth0 = \nsys.ipaddr.v6.eth1 = \n"));
}

TEST_F(MeterInfoTest, ExceptionWhilePrintingIsDropped) {
    verbose = 5;
    world().onConsole = [](const std::string&) { throw std::runtime_error("no console"); };
    int result = -1;
    EXPECT_NO_THROW(result = status_->getMeterInfo());
    EXPECT_EQ(result, 0);
    world().onConsole = nullptr;
    status_->updateSysInfo();
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
}

TEST_F(MeterInfoTest, IsWrittenInSixPieces) {
    (void)status_->getMeterInfo();
    world().forgetRecords();
    EXPECT_EQ(status_->updateMeterInfo(), 0);
    const std::string write = "writeShm /meter_usr7_data.shared ";
    EXPECT_THAT(world().calls,
                ElementsAre(write + "32 4096 0", write + "32 4096 32", write + "32 4096 64",
                            write + "32 4096 96", write + "64 4096 128", write + "64 4096 192"));
}

TEST_F(MeterInfoTest, PiecesHoldTheTextsAndNothingElseChanges) {
    bytesOf(kSystem).assign(kSystemSize, '\x5A');
    (void)status_->getMeterInfo();
    (void)status_->updateMeterInfo();
    EXPECT_EQ(textAt(kSystem, 0, 32), "2.6.32.8");
    EXPECT_EQ(textAt(kSystem, 32, 32), "#7 Tue Nov 14 2023");
    EXPECT_EQ(textAt(kSystem, 64, 32), "192.0.2.1");
    EXPECT_EQ(textAt(kSystem, 96, 32), "198.51.100.2");
    EXPECT_EQ(textAt(kSystem, 128, 64), "2001:db8::1");
    EXPECT_EQ(textAt(kSystem, 192, 64), "2001:db8::2");
    EXPECT_EQ(bytesAt(kSystem, 256, 3840), std::string(3840, '\x5A'));
}

TEST_F(MeterInfoTest, FillingTouchesNoSegment) {
    (void)status_->getMeterInfo();
    EXPECT_EQ(bytesOf(kSystem), std::string(kSystemSize, '\0'));
}

// --- statistics of the machine ------------------------------------------------------------------

class SystemSegmentTest : public PublishingTest {
protected:
    SystemSegmentTest() {
        auto& files = world().textFiles;
        files["/proc/uptime"] = "7200.00 3600.00\n";
        files["/proc/loadavg"] = "0.25 0.50 0.75 1/52 1234\n";
        files["/proc/stat"] = "cpu  1 2 3 4 5 6 7 8 9 10\nintr 77 1 2\nctxt 88\nbtime 1234567\n";
        files["/proc/meminfo"] = "MemTotal: 1000 kB\nMemFree: 400 kB\nBuffers: 30 kB\n"
                                 "Cached: 200 kB\nActive: 50 kB\nInactive: 60 kB\nShmem: 7 kB\n";
        files["/proc/net/dev"] = "  eth0: 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26\n"
                                 "  eth1: 31 32 33 34 35 36 37 38 39 40 41 42 43 44 45 46\n";
        files["/var/lib/dhcp/dhclient.eth0.leases"] = "";
        files["/var/lib/dhcp/dhclient6.eth1.leases"] = "";
    }
};

TEST_F(SystemSegmentTest, StatisticsHaveTheirPlaces) {
    publish(applications(0));
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 16), 2.0F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 20), 50.0F);
    EXPECT_EQ(bytesAt(kSystem, 256 + 24, 8), bigEndian(1234567000));
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 32), 88);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 40), 77);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 48), 0.25F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 52), 0.5F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 56), 0.75F);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 96), 1000);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 100), 600);
    EXPECT_EQ(numberAt<std::int32_t>(kSystem, 256 + 124), 7);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 128), 11);
    EXPECT_EQ(numberAt<std::int64_t>(kSystem, 256 + 208), 31);
}

TEST_F(SystemSegmentTest, LeasesHaveTheirPlaces) {
    publish(applications(0));
    EXPECT_EQ(textAt(kSystem, 1504, 36), "");
    EXPECT_EQ(textAt(kSystem, 1700, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 1896, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 2020, 36), "");
    world().textFiles.erase("/var/lib/dhcp/dhclient.eth0.leases");
    world().textFiles["/var/lib/dhcp/dhclient.eth1.leases"] = "";
    world().textFiles["/var/lib/dhcp/dhclient6.eth0.leases"] = "";
    world().textFiles.erase("/var/lib/dhcp/dhclient6.eth1.leases");
    publish(applications(0));
    EXPECT_EQ(textAt(kSystem, 1504, 36), "Disabled");
    EXPECT_EQ(textAt(kSystem, 1700, 36), "");
    EXPECT_EQ(textAt(kSystem, 1896, 36), "");
    EXPECT_EQ(textAt(kSystem, 2020, 36), "Disabled");
}

TEST_F(SystemSegmentTest, ReservedBytesStayZero) {
    publish(applications(0));
    EXPECT_EQ(bytesAt(kSystem, 256, 16), std::string(16, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 256 + 60, 4), std::string(4, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 256 + 92, 4), std::string(4, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 544, 960), std::string(960, '\0'));
    EXPECT_EQ(bytesAt(kSystem, 2144, 1952), std::string(1952, '\0'));
    EXPECT_THAT(bytesOf(kSystem), SizeIs(4096));
}

TEST_F(SystemSegmentTest, FileThatIsGoneLeavesItsFields) {
    publish(applications(0));
    world().textFiles.erase("/proc/loadavg");
    world().textFiles["/proc/uptime"] = "36000.00 0.00\n";
    publish(applications(0));
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 48), 0.25F);
    EXPECT_EQ(numberAt<float>(kSystem, 256 + 16), 10.0F);
}

TEST_F(SystemSegmentTest, EveryFileIsReadWhetherOrNotAnotherFailed) {
    world().textFiles.clear();
    EXPECT_LT(status_->getSysInfo(), 0);
    EXPECT_THAT(world().calls,
                testing::ElementsAreArray(std::begin(kFirstCalls) + 4, std::end(kFirstCalls)));
}

TEST_F(SystemSegmentTest, OneMissingFileMakesTheResultNegative) {
    for (const auto& file :
         std::vector<std::string>(std::begin(kFirstCalls) + 4, std::end(kFirstCalls))) {
        const std::string missing = file.substr(file.find(' ') + 1);
        world().textFiles["/var/lib/dhcp/dhclient.eth1.leases"] = "";
        world().textFiles["/var/lib/dhcp/dhclient6.eth0.leases"] = "";
        const auto files = world().textFiles;
        ASSERT_EQ(files.count(missing), 1U) << missing;
        EXPECT_GE(status_->getSysInfo(), 0);
        world().textFiles.erase(missing);
        EXPECT_LT(status_->getSysInfo(), 0) << missing;
        world().textFiles = files;
    }
}

// --- repair -------------------------------------------------------------------------------------

/// Published by one cycle; then something happens to a segment.
class RepairTest : public PublishingTest {
protected:
    RepairTest() {
        platform::copyToField(world().kernel.release, "2.6.32.8");
        publish(list_);
        applications_ = bytesOf(kApplications);
        system_ = bytesOf(kSystem);
    }

    void expectRepairedByTheNextCycle() {
        publish(list_);
        EXPECT_EQ(bytesOf(kApplications), applications_);
        EXPECT_EQ(bytesOf(kSystem), system_);
    }

    std::vector<appinfo> list_ = applications(3);
    std::string applications_;
    std::string system_;
};

TEST_F(RepairTest, RemovedSegments) {
    world().segments.clear();
    expectRepairedByTheNextCycle();
}

TEST_F(RepairTest, RemovedApplicationSegment) {
    world().segments.erase(kApplications);
    expectRepairedByTheNextCycle();
}

TEST_F(RepairTest, RemovedSystemSegment) {
    world().segments.erase(kSystem);
    expectRepairedByTheNextCycle();
}

TEST_F(RepairTest, ShortenedSegments) {
    for (const std::size_t size : {0U, 1U, 115U, 117U, 130U, 4095U}) {
        bytesOf(kApplications).resize(size);
        bytesOf(kSystem).resize(size);
        expectRepairedByTheNextCycle();
    }
}

TEST_F(RepairTest, ReplacedSegments) {
    bytesOf(kApplications).assign(kApplicationsSize, '\xA7');
    bytesOf(kSystem).assign(kSystemSize, '\xA7');
    expectRepairedByTheNextCycle();
}

TEST_F(RepairTest, SegmentsThatCannotBeOpenedForAWhile) {
    world().segments.clear();
    world().segmentErrors = {kApplications, kSystem};
    publish(list_);
    publish(list_);
    EXPECT_TRUE(world().segments.empty());
    world().segmentErrors.clear();
    expectRepairedByTheNextCycle();
}

// With too many applications nothing touches their segment, not even to repair it.
TEST_F(RepairTest, RemovedApplicationSegmentStaysAwayWithTooManyApplications) {
    world().segments.clear();
    publish(applications(128));
    EXPECT_EQ(world().segments.count(kApplications), 0U);
    EXPECT_EQ(world().segments.count(kSystem), 1U);
}

} // namespace
