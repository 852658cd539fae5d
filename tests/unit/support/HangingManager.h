// A manager whose command thread hangs.

#ifndef OVARD_TESTS_UNIT_SUPPORT_HANGING_MANAGER_H
#define OVARD_TESTS_UNIT_SUPPORT_HANGING_MANAGER_H

#include <atomic>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "tests/fakes/FakePlatform.h"

/// The execution of a request hangs, at no place where a thread can be cancelled, until it is let
/// go (five seconds at most); then the request is executed.
class HangingManager : public AppManager {
public:
    HangingManager() = default;
    explicit HangingManager(std::atomic<bool>& destroyed)
        : destroyed_(&destroyed) {}

    ~HangingManager() noexcept override {
        letGo();
        (void)fakes::waitUntil([this] { return commandThreadHasLeft(); });
        processTermination(this);
        if (destroyed_ != nullptr) {
            *destroyed_ = true;
        }
    }

    int processCmd(const reqcmd& request) override {
        hangs_ = true;
        EXPECT_TRUE(fakes::waitUntil([this] { return letGo_.load(); }));
        return AppManager::processCmd(request);
    }

    bool hangs() const { return hangs_; }
    void letGo() { letGo_ = true; }

private:
    std::atomic<bool>* destroyed_ = nullptr;
    std::atomic<bool> hangs_{false};
    std::atomic<bool> letGo_{false};
};

#endif // OVARD_TESTS_UNIT_SUPPORT_HANGING_MANAGER_H
