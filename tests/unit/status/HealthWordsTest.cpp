#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace {

using fakes::world;
using segments::bytesOf;
using segments::kApplications;
using segments::kApplicationsSize;
using segments::numberAt;
using segments::putNumber;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::size_t kIecWord = 112;
constexpr std::size_t kSystemWord = 116;

std::uint32_t iecWord() {
    return numberAt<std::uint32_t>(kApplications, kIecWord);
}

std::uint16_t systemWord() {
    return numberAt<std::uint16_t>(kApplications, kSystemWord);
}

class HealthWordsTest : public testing::Test {
protected:
    HealthWordsTest() {
        std::vector<appinfo> none;
        status_.initUserShm(none, false);
        world().forgetRecords();
    }

    void runCycle() {
        std::vector<appinfo> list = {segments::makeApplication("app")};
        status_.updateUserShm(list);
    }

    AppStatusUpdate status_;
};

// --- the first words ----------------------------------------------------------------------------

TEST(FirstHealthWordsTest, AreReadAndWrittenBeforeTheSegmentIsOpen) {
    const AppStatusUpdate status;
    EXPECT_THAT(world().calls, ElementsAre("readTextFile /proc/stat", "loadShm - 4 16384 112",
                                           "writeShm - 4 16384 112", "loadShm - 2 16384 116",
                                           "writeShm - 2 16384 116"));
    EXPECT_TRUE(world().segments.empty());
}

TEST(FirstHealthWordsTest, LeaveASegmentOfAnEarlierMonitorAlone) {
    bytesOf(kApplications).assign(kApplicationsSize, '\x5A');
    const AppStatusUpdate status;
    EXPECT_EQ(bytesOf(kApplications), std::string(kApplicationsSize, '\x5A'));
}

TEST_F(HealthWordsTest, FirstOnesReachTheSegmentWithTheFirstCycle) {
    EXPECT_EQ(iecWord(), 0U);
    EXPECT_EQ(systemWord(), 0U);
    runCycle();
    EXPECT_EQ(iecWord(), 0x11000U);
    EXPECT_EQ(systemWord(), 0x4000U);
}

TEST_F(HealthWordsTest, StayFromCycleToCycle) {
    runCycle();
    runCycle();
    EXPECT_EQ(iecWord(), 0x11000U);
    EXPECT_EQ(systemWord(), 0x4000U);
}

// --- set_sys_health -----------------------------------------------------------------------------

TEST_F(HealthWordsTest, SetSysHealthPublishesZeroWhateverItsArgument) {
    for (const short value : {short{5}, short{0}, short{-1}, short{0x4000}}) {
        AppStatusUpdate status;
        std::vector<appinfo> list;
        status.initUserShm(list, false);
        status.set_sys_health(value);
        status.updateUserShm(list);
        EXPECT_EQ(systemWord(), 0U);
        EXPECT_EQ(iecWord(), 0x11000U);
    }
}

TEST_F(HealthWordsTest, SetSysHealthChangesOnlyTheImage) {
    runCycle();
    const std::string before = bytesOf(kApplications);
    world().forgetRecords();
    status_.set_sys_health(5);
    EXPECT_THAT(world().calls, IsEmpty());
    EXPECT_EQ(bytesOf(kApplications), before);
    runCycle();
    EXPECT_EQ(systemWord(), 0U);
}

// --- update_IEC61850_health ---------------------------------------------------------------------

TEST_F(HealthWordsTest, WordOfAnotherProgramSurvivesTheCycle) {
    runCycle();
    putNumber<std::uint32_t>(kApplications, kIecWord, 0x89ABCDEFU);
    short value = 0;
    EXPECT_EQ(status_.update_IEC61850_health(&value), 0);
    runCycle();
    EXPECT_EQ(iecWord(), 0x89ABCDEFU);
    runCycle();
    EXPECT_EQ(iecWord(), 0x89ABCDEFU);
}

TEST_F(HealthWordsTest, WordOfAnotherProgramMayBeZeroAgain) {
    runCycle();
    putNumber<std::uint32_t>(kApplications, kIecWord, 0U);
    short value = 0;
    (void)status_.update_IEC61850_health(&value);
    runCycle();
    EXPECT_EQ(iecWord(), 0U);
}

TEST_F(HealthWordsTest, IecUpdateReadsFourBytesAndWritesNothing) {
    short value = 0;
    (void)status_.update_IEC61850_health(&value);
    EXPECT_THAT(world().calls, ElementsAre("loadShm /meter_usr16_data.shared 4 16384 112"));
}

TEST_F(HealthWordsTest, IecUpdateSetsTheSystemWordToZero) {
    runCycle();
    short value = 0x4000;
    (void)status_.update_IEC61850_health(&value);
    EXPECT_EQ(systemWord(), 0x4000U);
    runCycle();
    EXPECT_EQ(systemWord(), 0U);
}

TEST_F(HealthWordsTest, IecUpdateIgnoresItsArgument) {
    putNumber<std::uint32_t>(kApplications, kIecWord, 7U);
    short value = 0x1234;
    EXPECT_EQ(status_.update_IEC61850_health(&value), 0);
    EXPECT_EQ(value, 0x1234);
    EXPECT_EQ(status_.update_IEC61850_health(nullptr), 0);
    runCycle();
    EXPECT_EQ(iecWord(), 7U);
}

TEST_F(HealthWordsTest, IecUpdateOfARemovedSegmentFailsAndKeepsTheWord) {
    putNumber<std::uint32_t>(kApplications, kIecWord, 7U);
    (void)status_.update_IEC61850_health(nullptr);
    world().segments.erase(kApplications);
    EXPECT_LT(status_.update_IEC61850_health(nullptr), 0);
    runCycle();
    EXPECT_EQ(iecWord(), 7U);
}

TEST_F(HealthWordsTest, IecUpdateOfAShortSegmentFailsAndKeepsTheWord) {
    bytesOf(kApplications).resize(115);
    EXPECT_LT(status_.update_IEC61850_health(nullptr), 0);
    runCycle();
    EXPECT_EQ(iecWord(), 0x11000U);
}

TEST_F(HealthWordsTest, FailedIecUpdateSetsTheSystemWordToZeroAllTheSame) {
    world().segments.erase(kApplications);
    EXPECT_LT(status_.update_IEC61850_health(nullptr), 0);
    runCycle();
    EXPECT_EQ(systemWord(), 0U);
}

TEST(UnopenedHealthWordsTest, IecUpdateFailsWithoutHarm) {
    AppStatusUpdate status;
    EXPECT_LT(status.update_IEC61850_health(nullptr), 0);
}

} // namespace
