#include "tests/target/MachineTest.h"

#include <fcntl.h>

#include <algorithm>

#include "platform/UniqueFd.h"
#include "tests/system/Segments.h"

namespace target {

void sayMark(const std::string& name) {
    const platform::UniqueFd line = platform::openFile(kControlLine, O_WRONLY);
    const std::string text = "MARK " + name + "\n";
    ASSERT_NE(platform::writeFully(line.get(), text.data(), text.size()), -1);
}

void awaitReset(int seconds) {
    systemtest::sleepMs(seconds * 1000);
    FAIL() << "the machine goes on";
}

reqcmd MachineTest::makeBeating(const std::string& name, int policy) {
    reqcmd request = makeSupervised(name, policy, "--heartbeat 1000");
    request.heartbeat = 1;
    return request;
}

std::vector<reqcmd> MachineTest::makeManyRequests(int count) {
    std::vector<reqcmd> requests;
    for (int number = 1; number <= count; ++number) {
        requests.push_back(makeBeating("app_" + std::to_string(number), RESTART_TYPE_SELF));
    }
    return requests;
}

bool MachineTest::writeRequests(const std::string& path, const std::vector<reqcmd>& requests) {
    std::string content;
    for (const reqcmd& request : requests) {
        content += systemtest::bytesOf(request);
    }
    return systemtest::writeFile(path, content);
}

bool MachineTest::areStarted(std::size_t count, int timeoutMs) {
    constexpr int kPauseMs = 200; // a look at many applications is work on this machine
    const std::int64_t deadline = systemtest::monotonicMs() + timeoutMs;
    for (;;) {
        const std::vector<systemtest::PublishedApp> apps = systemtest::publishedApps();
        const bool all =
            std::all_of(apps.begin(), apps.end(), [](const systemtest::PublishedApp& app) {
                return app.status == "started";
            });
        if (apps.size() == count && all) {
            return true;
        }
        if (systemtest::monotonicMs() >= deadline) {
            return false;
        }
        systemtest::sleepMs(kPauseMs);
    }
}

} // namespace target
