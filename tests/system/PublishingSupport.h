// A monitor that publishes one application, and what must be in the segments.

#ifndef OVARD_TESTS_SYSTEM_PUBLISHING_SUPPORT_H
#define OVARD_TESTS_SYSTEM_PUBLISHING_SUPPORT_H

#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/system/Publication.h"

namespace systemtest {

inline constexpr const char* kSegmentPaths[] = {kSystemSegmentPath, kApplicationSegmentPath};

inline std::size_t sizeOfSegment(const std::string& path) {
    return path == kSystemSegmentPath ? kSystemSegmentSize : kApplicationSegmentSize;
}

/// Hours since boot in the system segment, the figure that differs from cycle to cycle.
inline float publishedHours() {
    return numberAt<float>(systemSegment(), 256 + 16);
}

inline float hoursNow() {
    return std::strtof(readFile("/proc/uptime").c_str(), nullptr) / 3600;
}

class PublishingTest : public PublicationTest {
protected:
    /// A monitor with one running application.
    void startWithOneApplication(const std::vector<std::string>& options = {}) {
        ASSERT_TRUE(startPublisher(options));
        request_ = makeSupervised("data_server", RESTART_TYPE_SELF);
        pid_ = launchUntilRunning(request_);
        ASSERT_TRUE(publishes("data_server", pid_, "started"));
        monitorPid_ = monitor_.pid();
    }

    /// Both segments are whole, everybody's and up to date, and it is still the same monitor.
    void expectPublished(const std::string& what) {
        for (const char* path : kSegmentPaths) {
            EXPECT_GE(readFile(path).size(), sizeOfSegment(path)) << what << " " << path;
            EXPECT_EQ(permissions(path), 0666) << what << " " << path;
        }
        const std::string system = readFile(kSystemSegmentPath);
        EXPECT_EQ(textAt(system, 64, 32), "192.0.2.1") << what;
        EXPECT_NEAR(numberAt<float>(system, 256 + 16), hoursNow(), 5.0 / 3600) << what;
        EXPECT_EQ(textAt(system, 1504, 36), "Disabled") << what;
        const std::string applications = readFile(kApplicationSegmentPath);
        EXPECT_EQ(numberAt<std::int32_t>(applications, 0), 1) << what;
        EXPECT_EQ(numberAt<std::int32_t>(applications, 4), 127) << what;
        EXPECT_EQ(recordIn(applications, 1).name, "data_server") << what;
        EXPECT_EQ(recordIn(applications, 1).pid, pid_) << what;
        EXPECT_EQ(recordIn(applications, 1).status, "started") << what;
        expectUnharmed(what);
    }

    /// It is still the same monitor, and the same application.
    void expectUnharmed(const std::string& what) {
        EXPECT_TRUE(monitor_.alive()) << what << " " << monitor_.waitForEnd(0).text();
        EXPECT_EQ(processesNamed("ovard"), std::vector<pid_t>{monitorPid_}) << what;
        EXPECT_TRUE(isRunning(pid_)) << what;
    }

    static void expectServing() {
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "nobody")),
                  replyOf(-20, "nobody is not found\n"));
    }

    /// A cycle has just come to its end. The next one is at least the pause of a turn of the main
    /// loop away, a tenth of a second.
    static bool reachesTheEndOfACycle() {
        const float before = publishedHours();
        return duringPasses([&] { return publishedHours() != before; });
    }

    reqcmd request_ = {};
    pid_t pid_ = 0;
    pid_t monitorPid_ = 0;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_PUBLISHING_SUPPORT_H
