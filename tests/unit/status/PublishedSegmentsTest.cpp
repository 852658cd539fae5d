// The segments themselves: opened, cleared, closed, repaired.

#include <sys/socket.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/Text.h"
#include "tests/unit/status/PublishingFixture.h"

namespace publishing {
namespace {

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
} // namespace publishing
