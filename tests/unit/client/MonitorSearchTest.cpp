#include "client/MonitorSearch.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "client/OvardClient.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovard_client;

/// Searches a table with these lines behind its heading.
MonitorState searchIn(const std::string& lines) {
    const TemporaryFolder folder;
    const std::string path = folder.file("unix");
    std::ofstream(path) << "Num       RefCount Protocol Flags    Type St Inode Path\n" << lines;
    return findListener("/tmp/appmon_sock", path.c_str());
}

TEST(MonitorSearch, FindsAListenerInTheTablesOfOldAndNewKernels) {
    EXPECT_EQ(searchIn("f6e0bc00: 00000002 00000000 00010000 0001 01  4063 /tmp/appmon_sock\n"),
              MonitorState::Running);
    EXPECT_EQ(searchIn("0000000000000000: 00000003 00000000 00000000 0001 03 17\n"
                       "0000000000000000: 00000002 00000000 00000000 0002 01 18 /dev/log\n"
                       "00000000424541bc: 00000002 00000000 00010000 0001 01 9404071 "
                       "/tmp/appmon_sock\n"),
              MonitorState::Running);
    EXPECT_EQ(searchIn("f6e0bc00: 00000002 00000000 00010000 0001 01  4063 /tmp/appmon_sock"),
              MonitorState::Running);
}

TEST(MonitorSearch, TakesNoOtherSocketForAMonitor) {
    for (const char* line : {
             "",
             // A connection that a client still has open has the name of the listener.
             "f6e0bc00: 00000003 00000000 00000000 0001 03  4063 /tmp/appmon_sock\n",
             "f6e0bc00: 00000002 00000000 00000000 0001 01  4063 /tmp/appmon_sock\n",
             "f6e0bc00: 00000002 00000000 00010000 0001 01  4063 /tmp/appmon_sock2\n",
             "f6e0bc00: 00000002 00000000 00010000 0001 01  4063 /x/tmp/appmon_sock\n",
             "f6e0bc00: 00000002 00000000 00010000 0001 01  4063 @/tmp/appmon_sock\n",
             "f6e0bc00: 00000002 00000000 00010000 0001 01  4063\n",
             "f6e0bc00: 00000002 00000000 00010000\n",
             "/tmp/appmon_sock\n",
             "\n",
         }) {
        EXPECT_EQ(searchIn(line), MonitorState::NotRunning) << line;
    }
}

TEST(MonitorSearch, SaysThatItDoesNotKnow) {
    EXPECT_EQ(findListener("/tmp/appmon_sock", "/nonexistent/unix"), MonitorState::Unknown);
    EXPECT_EQ(findListener("/tmp/appmon_sock", "/proc"), MonitorState::Unknown);
    EXPECT_EQ(findListener(nullptr, "/dev/null"), MonitorState::Unknown);
    EXPECT_EQ(findMonitor(nullptr), MonitorState::Unknown);
}

TEST(MonitorSearch, FollowsARealSocketWithoutAConnection) {
    const TemporaryFolder folder;
    const std::string path = folder.file("sock");
    EXPECT_EQ(findMonitor(path.c_str()), MonitorState::NotRunning);
    platform::UniqueFd listener = bindSocket(path, SOCK_STREAM, 1);
    EXPECT_EQ(findMonitor(path.c_str()), MonitorState::Running);
    pollfd pending{listener.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&pending, 1, 0), 0);
    listener.reset(); // the path is left behind
    EXPECT_EQ(findMonitor(path.c_str()), MonitorState::NotRunning);
    ::unlink(path.c_str());
    const platform::UniqueFd bound = bindSocket(path, SOCK_STREAM, -1);
    EXPECT_EQ(findMonitor(path.c_str()), MonitorState::NotRunning);
}

} // namespace
