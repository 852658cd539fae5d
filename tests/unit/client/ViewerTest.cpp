#include "client/ovardctl/Viewer.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "platform/Text.h"
#include "tests/unit/client/TestSegment.h"
#include "tests/unit/client/TestServer.h"

namespace {

using namespace client_test;
using namespace ovardctl;
using platform::UniqueFd;

/// A published application segment with one application.
application_segment cycleOf(const char* name) {
    application_segment segment = {};
    segment.header.maximum = 127;
    segment.header.count = 1;
    platform::copyToField(segment.header.file_version, "5.1.0");
    platform::copyToField(segment.applications[0].name, name);
    return segment;
}

/// Segments and a table of sockets of the test's own.
class Viewer : public testing::Test {
protected:
    Viewer() {
        setRunning(true);
        commandLine_.verdict = Verdict::ShowStatus;
        commandLine_.socketPath = "/tmp/sock";
        commandLine_.view.json = true;
        commandLine_.view.watchSec = 1; // JSON in one line
    }

    void setRunning(bool isRunning) const {
        std::ofstream(tablePath_) << (isRunning ? "0: 2 0 00010000 0001 01 5 /tmp/sock\n" : "");
    }

    Sources sources() const {
        Sources result;
        result.applicationName = applicationName_.c_str();
        result.systemName = systemName_.c_str();
        result.socketTable = tablePath_.c_str();
        return result;
    }

    Report view() const { return makeView(commandLine_, sources(), false); }

    const TemporaryFolder folder_;
    const std::string tablePath_ = folder_.file("unix");
    const std::string applicationName_ = uniqueSegmentName();
    const std::string systemName_ = uniqueSegmentName();
    CommandLine commandLine_;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Viewer, ShowsTheApplicationSegment) {
    const TestSegment segment(sizeof(application_segment), applicationName_);
    const application_segment cycle = cycleOf("meter");
    segment.write(&cycle, sizeof cycle);
    const Report report = view();
    EXPECT_EQ(report.exitStatus, 0) << report.error;
    EXPECT_TRUE(contains(report.output, "\"name\":\"meter\"")) << report.output;
    const std::size_t at = report.output.find("\"age_ms\":");
    ASSERT_NE(at, std::string::npos);
    EXPECT_LT(std::stol(report.output.substr(at + 9)), 60000);
    commandLine_.view.name = "other";
    EXPECT_EQ(view().exitStatus, 1);
    setRunning(false);
    EXPECT_EQ(view().exitStatus, 3);
}

TEST_F(Viewer, ShowsTheSystemSegment) {
    const TestSegment segment(sizeof(system_segment), systemName_);
    system_segment cycle = {};
    platform::copyToField(cycle.meter.kernel_release, "2.6.32");
    segment.write(&cycle, sizeof cycle);
    commandLine_.verdict = Verdict::ShowSystem;
    const Report report = view();
    EXPECT_EQ(report.exitStatus, 0) << report.error;
    EXPECT_TRUE(contains(report.output, "\"kernel_release\":\"2.6.32\""));
    commandLine_.view = {};
    EXPECT_TRUE(contains(view().output, "\nKernel:   2.6.32\n"));
}

TEST_F(Viewer, NamesTheSegmentThatIsMissing) {
    const Report status = view();
    EXPECT_EQ(status.exitStatus, 4);
    EXPECT_TRUE(contains(status.error, "segment " + applicationName_ + " does not exist"));
    commandLine_.verdict = Verdict::ShowSystem;
    const Report system = view();
    EXPECT_EQ(system.exitStatus, 4);
    EXPECT_TRUE(contains(system.error, "segment " + systemName_ + " does not exist"));
}

struct CloseFile {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

std::string contentOf(std::FILE* file) {
    std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
    std::rewind(file);
    EXPECT_EQ(std::fread(text.data(), 1, text.size(), file), text.size());
    return text;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

TEST_F(Viewer, WatchesAMonitorEndAndComeBack) {
    auto segment = std::make_unique<TestSegment>(sizeof(application_segment), applicationName_);
    application_segment cycle = cycleOf("before");
    segment->write(&cycle, sizeof cycle);
    const File output(std::tmpfile());
    const File errors(std::tmpfile());
    int pauses = 0;
    const int status =
        watch([this] { return view(); }, [] { return Screen(); }, true, output.get(), errors.get(),
              [&] {
                  switch (++pauses) {
                  case 1: // it ends
                      setRunning(false);
                      return true;
                  case 2: // nothing new
                      return true;
                  case 3: // somebody tidies up
                      segment.reset();
                      return true;
                  case 4: // it starts
                      segment = std::make_unique<TestSegment>(sizeof cycle, applicationName_);
                      setRunning(true);
                      return true;
                  case 5: // and publishes
                      cycle = cycleOf("after");
                      segment->write(&cycle, sizeof cycle);
                      return true;
                  default:
                      return false;
                  }
              });
    EXPECT_EQ(status, 0);
    const std::vector<std::string> lines = linesOf(contentOf(output.get()));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_TRUE(contains(lines[0], "\"running\",\"data\":\"ok\",\"stale\":false"));
    EXPECT_TRUE(contains(lines[1], "\"not running\",\"data\":\"ok\",\"stale\":true"));
    EXPECT_TRUE(contains(lines[1], "\"before\""));
    EXPECT_TRUE(contains(lines[2], "\"not running\",\"data\":\"ok\",\"stale\":true"));
    EXPECT_TRUE(contains(lines[3], "\"not running\",\"data\":\"no segment\",\"stale\":true"));
    EXPECT_TRUE(contains(lines[4], "\"running\",\"data\":\"none yet\",\"stale\":true"));
    EXPECT_TRUE(contains(lines[5], "\"running\",\"data\":\"ok\",\"stale\":false"));
    EXPECT_TRUE(contains(lines[5], "\"after\""));
    // Each is told once, while it lasts.
    const std::vector<std::string> told = linesOf(contentOf(errors.get()));
    ASSERT_EQ(told.size(), 3u);
    EXPECT_TRUE(contains(told[0], "what is shown was published last"));
    EXPECT_TRUE(contains(told[1], "does not exist"));
    EXPECT_TRUE(contains(told[2], "holds no published data yet"));
}

TEST(Watch, EndsWhenNothingCanBeWritten) {
    const File output(std::fopen("/dev/full", "we"));
    int pauses = 0;
    const int status = watch(
        [] {
            return Report{0, "text\n", ""};
        },
        [] { return Screen(); }, false, output.get(), output.get(), [&] { return ++pauses < 3; });
    EXPECT_EQ(status, 5);
    EXPECT_EQ(pauses, 0);
}

TEST(Watch, PutsErrorsOntoAScreenThatRedraws) {
    const File output(std::tmpfile());
    const File errors(std::tmpfile());
    const Screen screen{true, false, 0};
    const int status = watch(
        [] {
            return Report{3, "text\n", "error\n"};
        },
        [&] { return screen; }, false, output.get(), errors.get(), [] { return false; });
    EXPECT_EQ(status, 3);
    EXPECT_EQ(contentOf(output.get()), "\x1b[H\x1b[2J\x1b[?7ltext\x1b[K\n\x1b[K\nerror\x1b[K\n"
                                       "\x1b[J\x1b[?7h");
    EXPECT_EQ(std::ftell(errors.get()), 0);
}

const Report kThreeLines{0, "one\ntwo\nthree\n", ""};

TEST(Frame, RedrawsInPlace) {
    const Screen screen{true, true, 24};
    EXPECT_EQ(frameText(kThreeLines, screen, false, true),
              "\x1b[H\x1b[2J\x1b[?7lone\x1b[K\ntwo\x1b[K\nthree\x1b[K\n\x1b[J\x1b[?7h");
    EXPECT_EQ(frameText(kThreeLines, screen, false, false),
              "\x1b[H\x1b[?7lone\x1b[K\ntwo\x1b[K\nthree\x1b[K\n\x1b[J\x1b[?7h");
}

TEST(Frame, IsCutToTheRowsOfTheScreen) {
    EXPECT_EQ(frameText(kThreeLines, {true, false, 3}, false, false),
              "\x1b[H\x1b[?7lone\x1b[K\ntwo\x1b[K\nthree\x1b[K\x1b[J\x1b[?7h");
    EXPECT_EQ(frameText(kThreeLines, {true, false, 2}, false, false),
              "\x1b[H\x1b[?7lone\x1b[K\n(more lines than the screen has)\x1b[K\x1b[J\x1b[?7h");
}

TEST(Frame, WrapsErrors) {
    const std::string word(39, 'w');
    const Report report{3, "text\n", word + ' ' + word + "x " + word + "\nshort\n"};
    EXPECT_EQ(frameText(report, {true, false, 0}, false, false),
              "\x1b[H\x1b[?7ltext\x1b[K\n\x1b[K\n" + word + ' ' + word + "x\x1b[K\n" + word +
                  "\x1b[K\nshort\x1b[K\n\x1b[J\x1b[?7h");
}

TEST(Frame, IsSetOffByAnEmptyLineInAFile) {
    EXPECT_EQ(frameText(kThreeLines, {}, false, true), "one\ntwo\nthree\n");
    EXPECT_EQ(frameText(kThreeLines, {}, false, false), "\none\ntwo\nthree\n");
}

TEST(Frame, IsTheBareLineInJson) {
    const Report report{0, "{}\n", "error\n"};
    for (const Screen& screen : {Screen{}, Screen{true, true, 24}}) {
        EXPECT_EQ(frameText(report, screen, true, true), "{}\n");
        EXPECT_EQ(frameText(report, screen, true, false), "{}\n");
    }
}

/// A pseudo terminal of 7 rows; the descriptor is the side of the program.
struct Terminal {
    Terminal()
        : master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        EXPECT_EQ(::grantpt(master.get()), 0);
        EXPECT_EQ(::unlockpt(master.get()), 0);
        slave.reset(::open(::ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
        const winsize size{7, 80, 0, 0};
        EXPECT_EQ(::ioctl(slave.get(), TIOCSWINSZ, &size), 0);
    }

    UniqueFd master;
    UniqueFd slave;
};

TEST(ExamineScreen, AllowsColoursOnATerminalOnly) {
    const Terminal terminal;
    const Screen screen = examineScreen(terminal.slave.get(), "xterm", nullptr);
    EXPECT_TRUE(screen.redraws);
    EXPECT_TRUE(screen.colour);
    EXPECT_EQ(screen.rows, 7u);

    const UniqueFd file(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const Screen other = examineScreen(file.get(), "xterm", nullptr);
    EXPECT_FALSE(other.redraws);
    EXPECT_FALSE(other.colour);
    EXPECT_EQ(other.rows, 0u);
}

TEST(ExamineScreen, HonoursTheEnvironment) {
    const Terminal terminal;
    const int fd = terminal.slave.get();
    for (const char* noColour : {"1", "0", "x"}) {
        EXPECT_FALSE(examineScreen(fd, "xterm", noColour).colour);
        EXPECT_TRUE(examineScreen(fd, "xterm", noColour).redraws);
    }
    EXPECT_TRUE(examineScreen(fd, "xterm", "").colour);
    for (const char* term : {static_cast<const char*>(nullptr), "", "dumb"}) {
        EXPECT_FALSE(examineScreen(fd, term, nullptr).redraws);
        EXPECT_FALSE(examineScreen(fd, term, nullptr).colour);
    }
}

} // namespace
