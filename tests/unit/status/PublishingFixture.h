// Publishing cycles into segments that other programs would see.

#ifndef OVARD_TESTS_UNIT_STATUS_PUBLISHING_FIXTURE_H
#define OVARD_TESTS_UNIT_STATUS_PUBLISHING_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace publishing {

// What nearly all of these tests name.
using fakes::world;
using segments::bytesAt;
using segments::bytesOf;
using segments::kApplications;
using segments::kApplicationsSize;
using segments::kSystem;
using segments::kSystemSize;
using segments::makeApplication;
using segments::numberAt;
using segments::textAt;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

/// The calls of a cycle before the first application is published.
inline const std::string kFirstCalls[] = {
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

} // namespace publishing

#endif // OVARD_TESTS_UNIT_STATUS_PUBLISHING_FIXTURE_H
