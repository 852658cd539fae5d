#include "client/ovardctl/Progress.h"

#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "records/codes.h"

namespace {

using namespace ovardctl;

reqcmd requestFor(std::int32_t action, const std::string& name = "") {
    reqcmd request{};
    request.action = action;
    platform::copyToField(request.name, name);
    return request;
}

TEST(Progress, DescribesEveryRequest) {
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Start, "meter")), "start meter");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Stop, "meter")), "stop meter");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Stop_All)), "stop --all");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Stop_All_But)), "stop --all-but-security");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Stop_PortApps)), "stop --port-apps");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Restart, "meter")), "restart meter");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Restart_All)), "restart --all");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Restart_All_But)), "restart --self-restarting");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Restart_PortApps)), "restart --port-apps");
    EXPECT_EQ(describeRequest(requestFor(-7)), "action -7");
    EXPECT_EQ(describeRequest(requestFor(APPMONCTL_Stop, "\x1b[2J")), "stop \\x1b[2J");
}

class ProgressLineTest : public testing::Test {
protected:
    /// What was written so far.
    std::string written() const {
        std::string text(static_cast<std::size_t>(std::ftell(file_.get())), '\0');
        std::rewind(file_.get());
        EXPECT_EQ(std::fread(text.data(), 1, text.size(), file_.get()), text.size());
        return text;
    }

    struct CloseFile {
        void operator()(std::FILE* file) const { (void)std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, CloseFile> file_{std::tmpfile()};
    const Screen terminal_{true, false, 24, 80};
};

TEST_F(ProgressLineTest, IsRedrawnInPlaceAndErased) {
    {
        ProgressLine line(file_.get(), terminal_, requestFor(APPMONCTL_Restart_All));
        line.show(1);
        line.show(62);
    }
    EXPECT_EQ(written(), "\r1s, waiting for \"restart --all\" (Ctrl-C ends the wait)\x1b[K"
                         "\r1m 02s, waiting for \"restart --all\" (Ctrl-C ends the wait)\x1b[K"
                         "\r\x1b[K");
}

TEST_F(ProgressLineTest, LeavesNoTraceOfAWaitThatWasShort) {
    { const ProgressLine line(file_.get(), terminal_, requestFor(APPMONCTL_Restart_All)); }
    EXPECT_EQ(written(), "");
}

TEST_F(ProgressLineTest, WritesNothingElsewhereThanOnATerminal) {
    {
        ProgressLine line(file_.get(), Screen{}, requestFor(APPMONCTL_Restart_All));
        line.show(1);
    }
    EXPECT_EQ(written(), "");
}

/// Characters between the return and the erasing of the rest.
std::size_t shownWidth(const std::string& text) {
    return text.find('\x1b') - 1;
}

TEST_F(ProgressLineTest, LeavesTheLastColumnEmpty) {
    const reqcmd request = requestFor(APPMONCTL_Start, std::string(63, 'n'));
    for (const auto& [columns, width] :
         {std::pair<std::size_t, std::size_t>{80, 79}, {0, 79}, {200, 79}, {40, 39}, {1, 1}}) {
        std::rewind(file_.get());
        ProgressLine line(file_.get(), Screen{true, false, 24, columns}, request);
        line.show(3);
        const std::string text = written();
        EXPECT_EQ(shownWidth(text), width) << columns;
        EXPECT_EQ(text[width], '~') << text;
    }
}

} // namespace
