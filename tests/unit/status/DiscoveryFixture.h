// The applications that an earlier monitor has published, and their adoption.

#ifndef OVARD_TESTS_UNIT_STATUS_DISCOVERY_FIXTURE_H
#define OVARD_TESTS_UNIT_STATUS_DISCOVERY_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Settings.h"
#include "status/AppStatusUpdate.h"
#include "tests/fakes/FakePlatform.h"
#include "tests/unit/status/SegmentSupport.h"

namespace discovery {

// What nearly all of these tests name.
using fakes::world;
using segments::bigEndian;
using segments::bytesOf;
using segments::kApplications;
using segments::kApplicationsSize;
using segments::numberAt;
using segments::putNumber;
using segments::putText;
using segments::recordOffset;
using segments::textAt;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

inline constexpr pid_t kOwnPid = 4321;
inline constexpr pid_t kPid = 777;
inline constexpr pid_t kOtherPid = 888;
inline constexpr const char* kServer = "/home/kelvo/root/data_server -p 5";

/// The machine was booted then; a second has 100 clock ticks.
inline constexpr std::int64_t kBootSec = 1699990000;

/// Start of the process `kPid`, in clock ticks since boot and in seconds since the epoch.
inline constexpr std::uint64_t kStartTicks = 123456;
inline constexpr std::int64_t kStartSec = kBootSec + 1234;

/// One record of the segment; those of the fixture's application by default.
struct Published {
    std::string name = "data_server";
    std::int64_t startMs = kStartSec * 1000;
    std::int32_t pid = kPid;
    std::string status = "started";
    std::string portType = "Eth";
};

inline void publish(std::size_t number, const Published& published) {
    const std::size_t offset = recordOffset(number);
    putText(kApplications, offset, published.name);
    putText(kApplications, offset + 32, "2.5");
    putText(kApplications, offset + 64, bigEndian(published.startMs));
    putNumber(kApplications, offset + 72, published.pid);
    putText(kApplications, offset + 76, published.status);
    putNumber<std::int32_t>(kApplications, offset + 92, -7);
    putNumber<std::int32_t>(kApplications, offset + 96, 1);
    putNumber<std::int32_t>(kApplications, offset + 100, 86400);
    putText(kApplications, offset + 104, published.portType);
    putNumber<std::int32_t>(kApplications, offset + 120, 502);
    putNumber<std::uint32_t>(kApplications, offset + 124, 1000);
}

inline void publishCount(std::int32_t count) {
    putNumber(kApplications, 0, count);
}

inline std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// An earlier monitor has left a segment, empty as yet.
class DiscoveryTest : public testing::Test {
protected:
    DiscoveryTest() { forgetPublished(); }

    static void forgetPublished() { bytesOf(kApplications).assign(kApplicationsSize, '\0'); }

    /// One application is published.
    static void publishOne(const Published& published = {}) {
        publishCount(1);
        publish(1, published);
    }

    static fakes::Process& runServer(pid_t pid = kPid, std::uint64_t ticks = kStartTicks) {
        return world().addProcess(pid, "data_server", kServer, ticks);
    }

    /// What a new monitor adopts.
    static std::vector<appinfo> discover() {
        AppStatusUpdate status;
        std::vector<appinfo> list;
        EXPECT_EQ(status.initUserShm(list, true), 0);
        return list;
    }

    /// What the discovery prints at `verbosity`; the segment is left as it was.
    static std::string tracesAt(int verbosity) {
        const std::string before = bytesOf(kApplications);
        AppStatusUpdate status;
        std::vector<appinfo> list;
        verbose = verbosity;
        world().console.clear();
        EXPECT_EQ(status.initUserShm(list, true), 0);
        bytesOf(kApplications) = before;
        return world().consoleText();
    }

    /// `text` is printed from `threshold` on, and not below it.
    static void expectTracedFrom(int threshold, const std::string& text) {
        EXPECT_THAT(tracesAt(threshold), HasSubstr(text));
        EXPECT_THAT(tracesAt(threshold - 1), Not(HasSubstr(text)));
    }
};

} // namespace discovery

#endif // OVARD_TESTS_UNIT_STATUS_DISCOVERY_FIXTURE_H
