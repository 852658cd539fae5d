// The record of an application, and what is printed about it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "platform/Text.h"
#include "tests/unit/status/PublishingFixture.h"

namespace publishing {
namespace {

using segments::bigEndian;

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

} // namespace
} // namespace publishing
