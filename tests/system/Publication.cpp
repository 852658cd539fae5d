#include "tests/system/Publication.h"

#include <algorithm>

namespace systemtest {
namespace {

/// Passes that have begun. Each is followed by a cycle.
std::size_t passes() {
    return countLog(7, " checkStatus for heartbeats");
}

} // namespace

bool PublicationTest::startPublisher(const std::vector<std::string>& options) {
    std::vector<std::string> words = {"-v", "8"}; // for the log of the passes
    words.insert(words.end(), options.begin(), options.end());
    return startSupervisor(words) && letACycleGoBy();
}

bool PublicationTest::letACycleGoBy() {
    // The first of these passes begins after this moment, its cycle ends before the second one.
    const std::size_t wanted = passes() + 2;
    return duringPasses([&] { return passes() >= wanted; });
}

std::vector<std::string> PublicationTest::publishedNames() {
    std::vector<std::string> names;
    for (const PublishedApp& app : publishedApps()) {
        names.push_back(app.name);
    }
    return names;
}

bool PublicationTest::publishes(const std::vector<std::string>& names) {
    return duringPasses([&] { return publishedCount() >= 0 && publishedNames() == names; });
}

bool PublicationTest::publishes(const std::string& name, pid_t pid, const std::string& status) {
    return duringPasses([&] {
        const PublishedApp app = publishedApp(name);
        return app.pid == pid && app.status == status;
    });
}

bool runShell(const std::string& line) {
    const ProgramResult result =
        runProgram("/bin/sh", {"-c", "PATH=$PATH:/usr/sbin:/sbin; " + line});
    EXPECT_EQ(result.ending.text(), "status 0") << line << "\n" << result.output << result.errors;
    return result.ending.text() == "status 0";
}

} // namespace systemtest
