// A monitor, its end by a signal, and what must be so afterwards.

#ifndef OVARD_TESTS_SYSTEM_SHUTDOWN_SUPPORT_H
#define OVARD_TESTS_SYSTEM_SHUTDOWN_SUPPORT_H

#include <string>
#include <vector>

#include "tests/system/Harness.h"

namespace systemtest {

/// Every end that SIGTERM brings about.
inline constexpr int kLongestEndMs = 5000;

inline constexpr const char* kStarted = "Application Monitor Started.";
inline constexpr const char* kInitialized = "Application Monitor Initialized.";
inline constexpr const char* kStopped = "Application Monitor Stopped.";

class ShutdownTest : public SystemTest {
protected:
    void start(const std::vector<std::string>& arguments = {}) {
        ASSERT_TRUE(daemon_.startInForeground(arguments));
    }

    /// SIGTERM, and everything that must be so afterwards.
    void expectCleanEnd() {
        const Ending ending = daemon_.terminate();
        EXPECT_EQ(ending.text(), "status 0");
        EXPECT_LT(ending.tookMs, kLongestEndMs);
        expectCleanedUp();
    }

    void expectCleanedUp() {
        EXPECT_FALSE(fileExists(kSocketPath));
        EXPECT_FALSE(fileExists(daemon_.pidFile()));
        EXPECT_EQ(eventTexts(), (std::vector<std::string>{kStarted, kInitialized, kStopped}));
        EXPECT_EQ(countOf(daemon_.console(), "ovard ovardAtExit()\n"), 1U);
        EXPECT_EQ(daemon_.errors(), "");
    }

    /// Connects a client that says nothing, and waits until the monitor waits for it.
    void holdReceivingSide(Client& silent) {
        ASSERT_TRUE(silent.connect());
        ASSERT_TRUE(eventually([&] { return daemon_.isReceiving(); }));
    }

    /// The monitor serves a whole request.
    void expectServing() { EXPECT_TRUE(ask(makeRequest(APPMONCTL_Stop, "nobody"))); }

    Daemon daemon_;
};

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SHUTDOWN_SUPPORT_H
