// The publishing of the registry after a supervision pass.

#include <pthread.h>

#include <cerrno>
#include <string>

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
            pthread_mutex_unlock(&Access::appLock(manager_)); // None is left for its caller.
        }
    };
    EXPECT_EQ(manager_.updateStatus(), EPERM);
    world().onCall = nullptr;
    EXPECT_TRUE(unlocked);
}

TEST_F(UpdateStatusTest, GivesTheResultOfUnlocking) {
    addRunning();
    EXPECT_EQ(manager_.updateStatus(), 0);
    EXPECT_FALSE(registryIsHeld());
    pthread_mutex_lock(&Access::appLock(manager_)); // the lock is recursive
    EXPECT_EQ(manager_.updateStatus(), 0);
    EXPECT_TRUE(registryIsHeld());
    EXPECT_EQ(pthread_mutex_unlock(&Access::appLock(manager_)), 0);
    EXPECT_FALSE(registryIsHeld());
}

} // namespace
} // namespace supervision
