#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "tests/unit/status/PublishingFixture.h"

namespace publishing {
namespace {

using segments::recordOffset;
using testing::AllOf;
using testing::Each;
using testing::IsEmpty;

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

} // namespace
} // namespace publishing
