// Requests over the control socket of a monitor, and what comes back.

#ifndef OVARD_TESTS_SYSTEM_SOCKET_SUPPORT_H
#define OVARD_TESTS_SYSTEM_SOCKET_SUPPORT_H

#include <string>
#include <vector>

#include "tests/system/Harness.h"

namespace systemtest {

/// How long a connection is watched on which nothing is to happen.
inline constexpr int kWatchMs = 1500;

class SocketTest : public SystemTest {
protected:
    /// Starts a monitor that shows everything.
    void start(const std::vector<std::string>& arguments = {"-v", "8"}) {
        ASSERT_TRUE(daemon_.startInForeground(arguments));
    }

    std::size_t descriptors() const { return descriptorsOf(daemon_.pid()).size(); }

    bool descriptorsBecome(std::size_t count) const {
        return eventually([&] { return descriptors() == count; });
    }

    /// The monitor serves a whole request.
    void expectServing() {
        const auto reply = ask(makeRequest(APPMONCTL_Stop, "nobody"));
        ASSERT_TRUE(reply);
        EXPECT_EQ(messageOf(*reply), "nobody is not found\n");
    }

    /// What is open while the main loop rests after a request, for a second.
    std::size_t descriptorsAtRest() {
        serveOne();
        return descriptors();
    }

    std::size_t consoleHas(const std::string& text) const {
        return countOf(daemon_.console(), text);
    }

    Daemon daemon_;
};

inline reqcmd stopRequest(const std::string& name, const std::string& cmd = "") {
    return makeRequest(APPMONCTL_Stop, name, cmd);
}

/// The connection stays open and nothing comes.
inline void expectSilence(Client& client, int milliseconds = kWatchMs) {
    const Received received = client.receive(milliseconds);
    EXPECT_EQ(received.bytes, "");
    EXPECT_FALSE(received.ended);
}

inline void expectEnd(Client& client) {
    const Received received = client.receive(kPatienceMs);
    EXPECT_EQ(received.bytes, "");
    EXPECT_TRUE(received.ended);
}

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_SOCKET_SUPPORT_H
