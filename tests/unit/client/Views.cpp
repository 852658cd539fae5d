#include "tests/unit/client/Views.h"

#include <sstream>

#include <gtest/gtest.h>

namespace client_test {

using ovard_client::MonitorState;
using ovard_client::SegmentResult;
using ovardctl::Publication;

Publication runningPublication() {
    Publication publication;
    publication.monitor = MonitorState::Running;
    publication.segment = {SegmentResult::Ok, 0, 1700000000000};
    publication.nowMs = 1700000001500;
    publication.socketPath = "/tmp/sock";
    publication.segmentName = "/segment";
    return publication;
}

Publication stalePublication() {
    Publication publication = runningPublication();
    publication.monitor = MonitorState::NotRunning;
    publication.nowMs = 1700000306000;
    return publication;
}

Publication lackingPublication(MonitorState monitor, SegmentResult result,
                               std::int32_t systemError) {
    Publication publication = runningPublication();
    publication.monitor = monitor;
    publication.segment = {result, systemError, 0};
    return publication;
}

void expectFitsATerminal(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
        for (const char character : line) {
            EXPECT_TRUE(character >= 0x20 && character < 0x7f) << line;
        }
    }
}

} // namespace client_test
