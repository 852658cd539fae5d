// A manager that notes its requests, and what the tests of request intake and of the command thread
// share.

#ifndef OVARD_TESTS_UNIT_APPMANAGER_INTAKE_SUPPORT_H
#define OVARD_TESTS_UNIT_APPMANAGER_INTAKE_SUPPORT_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "appmanager/AppManager.h"
#include "platform/Text.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/appmanager/RequestSupport.h"

namespace intake {

/// How often a test looks, one millisecond apart, for something that must not happen.
inline constexpr int kPatience = 30;

/// Wakes the command thread of `manager` until `done` holds: it may not have come to its wait yet.
inline bool wakeUntil(AppManager& manager, const std::function<bool()>& done) {
    return fakes::waitUntil([&] {
        (void)manager.notify();
        return done();
    });
}

/// Watches for a while that `condition` goes on.
inline bool keeps(const std::function<bool()>& condition) {
    int looks = 0;
    return fakes::waitUntil([&] { return !condition() || ++looks == kPatience; }) &&
           looks == kPatience;
}

/// A manager that notes its requests in place of executing them.
class RecordingManager : public AppManager {
public:
    ~RecordingManager() noexcept override { processTermination(this); }

    int processCmd(const reqcmd& request) override {
        std::function<void(const reqcmd&)> hook;
        int result = 0;
        {
            const fakes::Lock lock;
            begun_.push_back(request);
            hook = onExecute;
            result = result_;
        }
        if (hook) {
            hook(request);
        }
        const fakes::Lock lock;
        finished_.emplace_back(platform::fieldText(request.name));
        return result;
    }

    void setResult(int result) { result_ = result; }

    std::vector<reqcmd> begun() const {
        const fakes::Lock lock;
        return begun_;
    }

    std::vector<std::string> finished() const {
        const fakes::Lock lock;
        return finished_;
    }

    std::function<void(const reqcmd&)> onExecute;

private:
    std::vector<reqcmd> begun_;
    std::vector<std::string> finished_;
    int result_ = 0;
};

/// A recording manager whose log is open, without a command thread.
class AppManagerIntakeTest : public testing::Test {
protected:
    void SetUp() override {
        manager_.initCommunication(); // opens the log
        fakes::world().forgetRecords();
    }

    void queue(std::string_view name, std::string_view cmd = {}) {
        EXPECT_EQ(manager_.processRequest(requests::makeRequest(APPMONCTL_Stop, name, cmd)), 0);
    }

    bool wakeUntil(const std::function<bool()>& done) { return intake::wakeUntil(manager_, done); }

    bool wakeUntilFinished(std::size_t count) {
        return wakeUntil([this, count] { return manager_.finished().size() >= count; });
    }

    RecordingManager manager_;
};

} // namespace intake

#endif // OVARD_TESTS_UNIT_APPMANAGER_INTAKE_SUPPORT_H
