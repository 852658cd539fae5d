#include "platform/linux/PidFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"

namespace {

using namespace testsupport;
using platform::confirmsPidAndVersion;
using platform::writtenPidFileName;

// --- contents ---

TEST(PidFile, ConfirmsPidAndVersionByTheirLines) {
    EXPECT_TRUE(confirmsPidAndVersion("123\n1.2\n", 123, "1.2"));
    EXPECT_TRUE(confirmsPidAndVersion("123\n1.2", 123, "1.2"));
    EXPECT_TRUE(confirmsPidAndVersion("123\n1.2\nmore\n", 123, "1.2"));
    EXPECT_TRUE(confirmsPidAndVersion("2147483647\nv\n", INT_MAX, "v"));
}

TEST(PidFile, AcceptsAnyVersionWhereNoneIsExpected) {
    for (const char* text : {"123\n1.2\n", "123\n\n", "123\n", "123"}) {
        EXPECT_TRUE(confirmsPidAndVersion(text, 123, "")) << text;
    }
}

TEST(PidFile, RefusesAnotherPid) {
    for (const char* text : {"", "\n", "12\n1.2\n", "1234\n1.2\n", "0123\n1.2\n", " 123\n1.2\n",
                             "123 \n1.2\n", "+123\n1.2\n", "-123\n1.2\n", "123\r\n1.2\n",
                             "x\n1.2\n", "\n123\n1.2\n", "4294967419\n1.2\n"}) {
        EXPECT_FALSE(confirmsPidAndVersion(text, 123, "1.2")) << text;
        EXPECT_FALSE(confirmsPidAndVersion(text, 123, "")) << text;
    }
    EXPECT_FALSE(confirmsPidAndVersion(std::string_view("123\0\n1.2\n", 9), 123, ""));
}

TEST(PidFile, RefusesAnotherVersion) {
    for (const char* text : {"123\n", "123", "123\n\n", "123\n1.\n", "123\n1.20\n", "123\n1.2 \n",
                             "123\n 1.2\n", "123\n\n1.2\n", "123 1.2\n"}) {
        EXPECT_FALSE(confirmsPidAndVersion(text, 123, "1.2")) << text;
    }
}

TEST(PidFile, ConfirmsNoPidThatIsNone) {
    EXPECT_FALSE(confirmsPidAndVersion("0\n1.2\n", 0, ""));
    EXPECT_FALSE(confirmsPidAndVersion("-1\n1.2\n", -1, ""));
}

// --- reading ---

int readVersion(int pid, const std::string& path, const char* version) {
    appinfo record = {};
    record.pid = pid;
    return read_pid_file_version(record, path.c_str(), version);
}

TEST(PidFile, ReadsWhatWasWritten) {
    const TemporaryDirectory directory;
    writeText(directory.file("a"), "77\n4.0.1\n");
    EXPECT_EQ(readVersion(77, directory.file("a"), "4.0.1"), 0);
    EXPECT_EQ(readVersion(77, directory.file("a"), ""), 0);
    EXPECT_EQ(readVersion(77, directory.file("a"), nullptr), 0);
    EXPECT_LT(readVersion(77, directory.file("a"), "4.0.2"), 0);
    EXPECT_LT(readVersion(78, directory.file("a"), "4.0.1"), 0);
    EXPECT_LT(readVersion(0, directory.file("a"), ""), 0);
    EXPECT_EQ(readText(directory.file("a")), "77\n4.0.1\n") << "reading changes nothing";
}

TEST(PidFile, ReadsThroughALink) {
    const TemporaryDirectory directory;
    writeText(directory.file("a"), "77\n4.0.1\n");
    ASSERT_EQ(::symlink("a", directory.file("link").c_str()), 0);
    EXPECT_EQ(readVersion(77, directory.file("link"), "4.0.1"), 0);
}

TEST(PidFile, RefusesHostileFilesWithoutWaiting) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo(directory.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("loop", directory.file("loop").c_str()), 0);
    writeText(directory.file("empty"), "");
    for (const std::string& path :
         {directory.file("fifo"), directory.path(), directory.file("loop"), directory.file("empty"),
          directory.file("missing"), std::string("/dev/zero"), std::string()}) {
        EXPECT_LT(readVersion(77, path, ""), 0) << path;
    }
    EXPECT_LT(read_pid_file_version(appinfo{}, nullptr, ""), 0);
}

TEST(PidFile, LooksOnlyAtTheBeginningOfAHugeFile) {
    const TemporaryDirectory directory;
    writeText(directory.file("huge"), "77\n4.0.1\n" + std::string(1 << 20, 'x'));
    EXPECT_EQ(readVersion(77, directory.file("huge"), "4.0.1"), 0);
    writeText(directory.file("digits"), std::string(1 << 20, '7'));
    EXPECT_LT(readVersion(77, directory.file("digits"), ""), 0);
}

// --- writing ---

int writeVersion(int pid, const std::string& path, const char* version) {
    int written = pid;
    const int result = set_pid_file_version(&written, path.c_str(), kCreateForWriting, version);
    EXPECT_EQ(written, pid);
    return result;
}

TEST(PidFile, WritesPidAndVersion) {
    const TemporaryDirectory directory;
    EXPECT_EQ(writeVersion(4321, directory.file("app.pid"), "5.1.0"), 0);
    EXPECT_EQ(readText(directory.file("app.pid.4321")), "4321\n5.1.0\n");
    EXPECT_EQ(readVersion(4321, directory.file("app.pid.4321"), "5.1.0"), 0);
    EXPECT_EQ(writeVersion(4322, directory.file("app.pid"), ""), 0);
    EXPECT_EQ(readText(directory.file("app.pid.4322")), "4322\n\n");
    EXPECT_EQ(writeVersion(4323, directory.file("app.pid"), nullptr), 0);
    EXPECT_EQ(readText(directory.file("app.pid.4323")), "4323\n\n");
}

TEST(PidFile, CreatesFileAndDirectoriesWithTheirModesUnderAnyMask) {
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        const TemporaryDirectory directory;
        const UmaskGuard guard(mask);
        ASSERT_EQ(writeVersion(1, directory.file("pid/home/kelvo/app.pid"), "v"), 0);
        EXPECT_EQ(modeOf(directory.file("pid")), 0755U) << mask;
        EXPECT_EQ(modeOf(directory.file("pid/home")), 0755U) << mask;
        EXPECT_EQ(modeOf(directory.file("pid/home/kelvo")), 0755U) << mask;
        EXPECT_EQ(modeOf(directory.file("pid/home/kelvo/app.pid.1")), 0644U) << mask;
    }
}

TEST(PidFile, LeavesTheModeOfExistingDirectoriesAlone) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkdir(directory.file("kept").c_str(), 0700), 0);
    ASSERT_EQ(writeVersion(1, directory.file("kept/app.pid"), "v"), 0);
    EXPECT_EQ(modeOf(directory.file("kept")), 0700U);
}

TEST(PidFile, TruncatesAnExistingFileAndSettlesItsMode) {
    const TemporaryDirectory directory;
    writeText(directory.file("app.pid.5"), std::string(100, '9'));
    ASSERT_EQ(::chmod(directory.file("app.pid.5").c_str(), 0666), 0);
    EXPECT_EQ(writeVersion(5, directory.file("app.pid"), "1"), 0);
    EXPECT_EQ(readText(directory.file("app.pid.5")), "5\n1\n");
    EXPECT_EQ(modeOf(directory.file("app.pid.5")), 0644U);
}

TEST(PidFile, NeverWritesThroughALink) {
    const TemporaryDirectory directory;
    writeText(directory.file("victim"), "precious");
    ASSERT_EQ(::symlink("victim", directory.file("app.pid.6").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", directory.file("app.pid.7").c_str()), 0);
    EXPECT_EQ(writeVersion(6, directory.file("app.pid"), "1"), -1);
    EXPECT_EQ(writeVersion(7, directory.file("app.pid"), "1"), -1);
    EXPECT_EQ(readText(directory.file("victim")), "precious");
    EXPECT_FALSE(exists(directory.file("nowhere")));
}

TEST(PidFile, FollowsALinkAboveTheLastComponent) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkdir(directory.file("real").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("real", directory.file("link").c_str()), 0);
    EXPECT_EQ(writeVersion(8, directory.file("link/app.pid"), "1"), 0);
    EXPECT_EQ(readText(directory.file("real/app.pid.8")), "8\n1\n");
}

TEST(PidFile, DoesNotWriteIntoWhatIsNoPlainFile) {
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo(directory.file("app.pid.1").c_str(), 0600), 0);
    ASSERT_EQ(::mkdir(directory.file("app.pid.2").c_str(), 0755), 0);
    writeText(directory.file("plain"), "x");
    EXPECT_EQ(writeVersion(1, directory.file("app.pid"), "1"), -1);
    EXPECT_EQ(writeVersion(2, directory.file("app.pid"), "1"), -1);
    EXPECT_EQ(writeVersion(3, directory.file("plain/app.pid"), "1"), -1);
    EXPECT_EQ(readText(directory.file("plain")), "x");
}

TEST(PidFile, RefusesWhatDoesNotFit) {
    const TemporaryDirectory directory;
    writeText(directory.file("app.pid.9"), "9\n1\n");
    EXPECT_EQ(writeVersion(9, directory.file("app.pid"), std::string(2000, 'v').c_str()), -1);
    EXPECT_EQ(readText(directory.file("app.pid.9")), "9\n1\n") << "nothing is written by halves";
    EXPECT_EQ(writeVersion(9, directory.file(std::string(PATH_MAX, 'p')), "1"), -1);
    EXPECT_EQ(set_pid_file_version(nullptr, directory.file("x").c_str(), kCreateForWriting, ""),
              -1);
    int pid = 9;
    EXPECT_EQ(set_pid_file_version(&pid, nullptr, kCreateForWriting, ""), -1);
}

TEST(PidFile, UsesTheFlagsOfTheCaller) {
    const TemporaryDirectory directory;
    int pid = 3;
    EXPECT_EQ(set_pid_file_version(&pid, directory.file("app.pid").c_str(), O_WRONLY, "1"), -1);
    EXPECT_FALSE(exists(directory.file("app.pid.3"))) << "O_CREAT was not asked for";
}

// --- finding ---

/// A process with the argv[0] `program`.
class Application {
public:
    explicit Application(const std::string& program)
        : child_(startSleeper(program, "30")) {}

    int pid() const { return child_.pid(); }

    std::string pidFileBelow(const std::string& path) const {
        return path + ".pid." + std::to_string(pid());
    }

private:
    ChildGuard child_;
};

/// The name found below `base`, or the empty text; checks that a failure leaves the buffer alone.
std::string foundName(const std::string& base, const char* root, int pid, int size = 200) {
    char buffer[201];
    std::memset(buffer, '#', sizeof buffer);
    int length = size;
    const int result = writtenPidFileName(base, root, pid, buffer, &length);
    if (result != 0) {
        EXPECT_LT(result, 0);
        EXPECT_EQ(length, size);
        EXPECT_EQ(std::string(buffer, sizeof buffer), std::string(sizeof buffer, '#'));
        return {};
    }
    EXPECT_EQ(length, static_cast<int>(std::strlen(buffer)));
    EXPECT_EQ(buffer[size], '#') << "nothing is written behind the buffer";
    return buffer;
}

TEST(PidFile, FindsTheFileOfAProcessByItsProgram) {
    const TemporaryDirectory directory;
    const Application application("/home/kelvo/root/app");
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid()), "") << "not yet written";
    ASSERT_EQ(writeVersion(application.pid(), directory.file("home/kelvo/root/app.pid"), "1"), 0);
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid()),
              application.pidFileBelow(directory.file("home/kelvo/root/app")));
}

TEST(PidFile, LooksBelowTheRootOfTheMeterFirst) {
    const TemporaryDirectory directory;
    const Application application("/home/app");
    ASSERT_EQ(writeVersion(application.pid(), directory.file("home/app.pid"), "1"), 0);
    const std::string plain = application.pidFileBelow(directory.file("home/app"));
    EXPECT_EQ(foundName(directory.path(), "/opt/x", application.pid()), plain);
    ASSERT_EQ(writeVersion(application.pid(), directory.file("opt/x/home/app.pid"), "1"), 0);
    EXPECT_EQ(foundName(directory.path(), "/opt/x", application.pid()),
              application.pidFileBelow(directory.file("opt/x/home/app")));
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid()), plain);
    EXPECT_EQ(foundName(directory.path(), "", application.pid()), plain);
}

TEST(PidFile, NamesNoFileThatExistsOnlyBelowAnotherRoot) {
    const TemporaryDirectory directory;
    const Application application("/home/app");
    ASSERT_EQ(writeVersion(application.pid(), directory.file("opt/x/home/app.pid"), "1"), 0);
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid()), "");
    EXPECT_EQ(foundName(directory.path(), "/opt/y", application.pid()), "");
}

TEST(PidFile, NeedsRoomForTheWholeName) {
    const TemporaryDirectory directory;
    const Application application("/home/app");
    ASSERT_EQ(writeVersion(application.pid(), directory.file("home/app.pid"), "1"), 0);
    const std::string name = application.pidFileBelow(directory.file("home/app"));
    const int size = static_cast<int>(name.size());
    for (const int tooSmall : {size, size - 1, 1, 0, -1}) {
        char buffer[8] = "keep me";
        int length = tooSmall;
        EXPECT_LT(writtenPidFileName(directory.path(), nullptr, application.pid(), buffer, &length),
                  0);
        EXPECT_STREQ(buffer, "keep me");
        EXPECT_EQ(length, tooSmall);
    }
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid(), size + 1), name);
}

TEST(PidFile, TakesOnlyPlainFiles) {
    const TemporaryDirectory directory;
    const Application application("/app");
    ASSERT_EQ(::mkdir(application.pidFileBelow(directory.file("app")).c_str(), 0755), 0);
    EXPECT_EQ(foundName(directory.path(), nullptr, application.pid()), "");
}

TEST(PidFile, FindsNothingForAProcessWithoutArguments) {
    const TemporaryDirectory directory;
    const pid_t zombie = startChild([] { return 0; });
    siginfo_t ended = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(zombie), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(foundName(directory.path(), nullptr, zombie), "");
    ASSERT_EQ(awaitChild(zombie), 0);
    EXPECT_EQ(foundName(directory.path(), nullptr, zombie), "") << "gone";
}

TEST(PidFile, RefusesArgumentsThatAreNone) {
    char buffer[8] = "keep me";
    int length = sizeof buffer;
    for (const int pid : {0, -1, INT_MIN, INT_MAX}) {
        EXPECT_LT(get_pid_filename(&pid, buffer, &length), 0) << pid;
    }
    const int self = ::getpid();
    EXPECT_LT(get_pid_filename(nullptr, buffer, &length), 0);
    EXPECT_LT(get_pid_filename(&self, nullptr, &length), 0);
    EXPECT_LT(get_pid_filename(&self, buffer, nullptr), 0);
    EXPECT_STREQ(buffer, "keep me");
    EXPECT_EQ(length, 8);
}

TEST(PidFile, LooksInTheFolderOfTheMeter) {
    const TemporaryDirectory directory; // its name alone makes the one below /tmp/pid private
    const Application application("/app");
    const std::string root = "/tmp/pid" + directory.path();
    ASSERT_EQ(writeVersion(application.pid(), root + "/app.pid", "1"), 0);
    char buffer[128] = "";
    int length = sizeof buffer;
    const int pid = application.pid();
    {
        const EnvironmentGuard environment("METER_ROOT", directory.path().c_str());
        EXPECT_EQ(get_pid_filename(&pid, buffer, &length), 0);
        EXPECT_EQ(buffer, application.pidFileBelow(root + "/app"));
    }
    const EnvironmentGuard environment("METER_ROOT", nullptr);
    length = sizeof buffer;
    EXPECT_LT(get_pid_filename(&pid, buffer, &length), 0);
    removeTree(root);
}

} // namespace
