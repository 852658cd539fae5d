// The publishing of the registry after a supervision pass.

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/SupervisionFixture.h"

namespace supervision {
namespace {

using UpdateStatusTest = SupervisionFixture;

TEST_F(UpdateStatusTest, RegistryIsHeldWhileItIsPublished) {
    addRunning();
    Texts unheld;
    world().onCall = [this, &unheld](const std::string& call) {
        if (!registryIsHeld()) {
            unheld.push_back(call);
        }
    };
    manager_.updateStatus();
    world().onCall = nullptr;
    EXPECT_GT(world().count("writeShm"), 0U);
    EXPECT_THAT(unheld, IsEmpty());
    EXPECT_FALSE(registryIsHeld());
}

TEST_F(UpdateStatusTest, GivesTheErrorOfUnlocking) {
    bool unlocked = false;
    world().onCall = [this, &unlocked](const std::string& call) {
        if (call.rfind("writeShm", 0) == 0 && !unlocked) {
            unlocked = true;
            (void)Access::appLock(manager_).unlock(); // None is left for its caller.
        }
    };
    EXPECT_EQ(manager_.updateStatus(), EPERM);
    world().onCall = nullptr;
    EXPECT_TRUE(unlocked);
}

/// The segments are open; from the next cycle on one of them cannot be written.
class SegmentFaultTest : public SupervisionFixture {
protected:
    void SetUp() override {
        SupervisionFixture::SetUp();
        std::vector<appinfo> none;
        (void)Access::statusUpdate(manager_).initUserShm(none, false);
        publish(1);
        EXPECT_THAT(logLines(), IsEmpty());
    }

    void publish(int cycles) {
        for (int cycle = 0; cycle < cycles; ++cycle) {
            EXPECT_EQ(manager_.updateStatus(), 0);
        }
    }

    static void lose(const char* segment, int error) {
        world().segments.erase(segment);
        world().segmentErrors = {segment};
        world().segmentErrno = error;
    }
};

constexpr const char* kSystem = "/meter_usr7_data.shared";
constexpr const char* kApplications = "/meter_usr16_data.shared";

TEST_F(SegmentFaultTest, IsToldOnceAndSoIsItsEnd) {
    lose(kSystem, EROFS);
    publish(20);
    const Line begun(levels::kLevelError,
                     std::string(kSystem) + " cannot be written: Read-only file system");
    EXPECT_THAT(logLines(), ElementsAre(begun));
    world().segmentErrors.clear();
    publish(20);
    EXPECT_THAT(logLines(),
                ElementsAre(begun, Line(kLevelInfo, std::string(kSystem) + " is written again")));
}

TEST_F(SegmentFaultTest, IsToldOfEachSegment) {
    lose(kApplications, ENOSPC);
    publish(3);
    EXPECT_THAT(logLines(), ElementsAre(Line(levels::kLevelError,
                                             std::string(kApplications) +
                                                 " cannot be written: No space left on device")));
}

TEST_F(SegmentFaultTest, ThatLeavesNoErrorNumberIsToldAsAnErrorOfTheDevice) {
    lose(kSystem, 0);
    publish(3);
    EXPECT_THAT(logLines(),
                ElementsAre(Line(levels::kLevelError, std::string(kSystem) +
                                                          " cannot be written: Input/output "
                                                          "error")));
}

/// Nothing is tried, so nothing is known.
TEST_F(SegmentFaultTest, LastsWhileTooManyApplicationsAreRegistered) {
    lose(kApplications, ENOSPC);
    publish(1);
    world().segmentErrors.clear();
    applist.resize(128);
    publish(2);
    EXPECT_EQ(logLines().size(), 1U);
    applist.clear();
    publish(2);
    EXPECT_EQ(logLines().back(),
              Line(kLevelInfo, std::string(kApplications) + " is written again"));
    EXPECT_EQ(logLines().size(), 2U);
}

TEST_F(UpdateStatusTest, GivesTheResultOfUnlocking) {
    addRunning();
    EXPECT_EQ(manager_.updateStatus(), 0);
    EXPECT_FALSE(registryIsHeld());
    EXPECT_EQ(Access::appLock(manager_).lock(), 0); // the lock is recursive
    EXPECT_EQ(manager_.updateStatus(), 0);
    EXPECT_TRUE(registryIsHeld());
    EXPECT_EQ(Access::appLock(manager_).unlock(), 0);
    EXPECT_FALSE(registryIsHeld());
}

} // namespace
} // namespace supervision
