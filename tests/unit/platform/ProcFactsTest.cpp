#include "platform/linux/ProcFacts.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/Process.h"

namespace {

using namespace testsupport;
using platform::isOtherLiveProcess;
using platform::joinArguments;
using platform::parseProcStat;
using platform::ProcStat;

/// A stat line of a current kernel.
std::string statLine(const std::string& pid, const std::string& comm,
                     const std::string& state = "S", const std::string& starttime = "4711") {
    return pid + " (" + comm + ") " + state +
           " 1 1204 1204 0 -1 4194560 1216 0 3 0 2 1 0 0 20 0 1 0 " + starttime +
           " 6451200 512 18446744073709551615 1 1 0 0 0 0 0 4096 0 0 0 0 17 1 0 0 0 0 0\n";
}

TEST(ProcFacts, ParsesAStatLine) {
    const std::string text = statLine("1204", "meter_app", "R", "123456");
    ProcStat stat = {};
    ASSERT_TRUE(parseProcStat(text, stat));
    EXPECT_EQ(stat.pid, 1204);
    EXPECT_EQ(stat.comm, "meter_app");
    EXPECT_EQ(stat.state, 'R');
    EXPECT_EQ(stat.starttime, 123456U);
}

TEST(ProcFacts, ParsesNamesWithBlanksAndParentheses) {
    for (const char* comm : {"(a b ) ( c d)", "a) S 1 2 (b", ") R 1", "", " ", "(", ")", "))", "((",
                             "a\nb", ") ", "(a) (b) "}) {
        const std::string text = statLine("7", comm);
        ProcStat stat = {};
        ASSERT_TRUE(parseProcStat(text, stat)) << comm;
        EXPECT_EQ(stat.comm, comm);
        EXPECT_EQ(stat.state, 'S');
        EXPECT_EQ(stat.starttime, 4711U);
    }
}

TEST(ProcFacts, ParsesStartTimesOfSixtyFourBits) {
    const std::string text = statLine("7", "a", "S", "18446744073709551615");
    ProcStat stat = {};
    ASSERT_TRUE(parseProcStat(text, stat));
    EXPECT_EQ(stat.starttime, 18446744073709551615ULL);
}

TEST(ProcFacts, RefusesEveryTextThatEndsBeforeTheStartTimeDoes) {
    const std::string whole = statLine("1204", "meter_app");
    const std::size_t needed = whole.find(" 4711 ") + std::strlen(" 4711 ");
    ProcStat stat = {};
    for (std::size_t length = 0; length < needed; ++length) {
        EXPECT_FALSE(parseProcStat(whole.substr(0, length), stat)) << length;
    }
    EXPECT_TRUE(parseProcStat(whole.substr(0, needed), stat));
}

TEST(ProcFacts, ParsesAStartTimeThatEndsTheLine) {
    const std::string whole = statLine("1204", "meter_app");
    const std::string text = whole.substr(0, whole.find(" 6451200 ")) + "\n";
    ProcStat stat = {};
    ASSERT_TRUE(parseProcStat(text, stat));
    EXPECT_EQ(stat.starttime, 4711U);
}

TEST(ProcFacts, RefusesWhatIsNoStatLine) {
    ProcStat stat = {};
    for (const std::string& text :
         {std::string("\n"), std::string("1204 meter_app S 1 2"), statLine("x", "a"),
          statLine("", "a"), statLine("99999999999", "a"), statLine("7", "a", "SS"),
          statLine("7", "a", ""), statLine("7", "a", "S", "x"), statLine("7", "a", "S", "-1"),
          statLine("7", "a", "S", "4711x"), statLine("7", "a", "S", "18446744073709551616"),
          std::string("7) ( S ")}) {
        EXPECT_FALSE(parseProcStat(text, stat)) << text;
    }
}

TEST(ProcFacts, TellsOtherLiveProcessesOfAName) {
    const ProcStat stat = {7, "ovard", 'S', 1};
    EXPECT_TRUE(isOtherLiveProcess(stat, "ovard", 8));
    EXPECT_FALSE(isOtherLiveProcess(stat, "ovard", 7)) << "itself";
    EXPECT_FALSE(isOtherLiveProcess(stat, "ovar", 8));
    EXPECT_FALSE(isOtherLiveProcess(stat, "ovardctl", 8));
    for (const char state : {'R', 'S', 'D', 'T', 't', 'I'}) {
        EXPECT_TRUE(isOtherLiveProcess({7, "ovard", state, 1}, "ovard", 8)) << state;
    }
    for (const char state : {'Z', 'X', 'x'}) {
        EXPECT_FALSE(isOtherLiveProcess({7, "ovard", state, 1}, "ovard", 8)) << state;
    }
}

std::string joined(std::string text) {
    text.resize(joinArguments(text.data(), text.size()));
    return text;
}

TEST(ProcFacts, JoinsArgumentsByOneBlank) {
    using namespace std::string_literals;
    EXPECT_EQ(joined("/bin/app\0-a\0x y\0"s), "/bin/app -a x y");
    EXPECT_EQ(joined("/bin/app\0-a"s), "/bin/app -a") << "cut in an argument";
    EXPECT_EQ(joined("/bin/app\0"s), "/bin/app");
    EXPECT_EQ(joined("a\0\0b\0"s), "a  b") << "an empty argument";
    EXPECT_EQ(joined("title\0\0\0\0"s), "title") << "a title that the process wrote itself";
    EXPECT_EQ(joined("\0\0"s), "");
    EXPECT_EQ(joined(""s), "");
}

/// A child that calls itself `comm` and then waits to be killed.
pid_t startNamedChild(const std::string& comm) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = startChild([&] {
        ::prctl(PR_SET_NAME, comm.c_str());
        ::close(ends[0]);
        ::close(ends[1]);
        ::pause();
        return 0;
    });
    ::close(ends[1]);
    char byte = 0;
    (void)platform::readFully(ends[0], &byte, 1); // the end of the file comes after the naming
    ::close(ends[0]);
    return child;
}

TEST(ProcFacts, FillsInTheFactsOfThisProcess) {
    statstruct_proc info;
    std::memset(&info, 0x55, sizeof info);
    ASSERT_EQ(get_proc_info_by_pid(::getpid(), &info), 0);
    EXPECT_EQ(info.pid, ::getpid());
    EXPECT_STREQ(info.exeName, "ovard_platform_");
    const std::string stat = readText("/proc/self/stat");
    EXPECT_NE(stat.find(" " + std::to_string(info.starttime) + " "), std::string::npos);
    EXPECT_GT(info.starttime, 0U);
}

TEST(ProcFacts, FillsInTheFactsOfAnOddlyNamedProcess) {
    const ChildGuard child(startNamedChild("(a b ) ( c d)"));
    statstruct_proc info = {};
    ASSERT_EQ(get_proc_info_by_pid(child.pid(), &info), 0);
    EXPECT_EQ(info.pid, child.pid());
    EXPECT_STREQ(info.exeName, "(a b ) ( c d)");
    EXPECT_GT(info.starttime, 0U);
}

TEST(ProcFacts, CountsAZombieAsAProcessUntilItIsReaped) {
    const pid_t child = startChild([] { return 0; });
    siginfo_t ended = {};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
    statstruct_proc info = {};
    EXPECT_EQ(get_proc_info_by_pid(child, &info), 0);
    char text[16] = "untouched";
    int length = sizeof text;
    EXPECT_EQ(get_proc_cmdline(child, text, &length), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(length, 0);
    ASSERT_EQ(awaitChild(child), 0);
    EXPECT_EQ(get_proc_info_by_pid(child, &info), -1);
    length = sizeof text;
    EXPECT_EQ(get_proc_cmdline(child, text, &length), -1);
    EXPECT_STREQ(text, "");
}

TEST(ProcFacts, FailsForWhatIsNoProcess) {
    statstruct_proc info = {};
    for (const pid_t pid : {0, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(get_proc_info_by_pid(pid, &info), -1) << pid;
        char text[16] = "untouched";
        int length = sizeof text;
        EXPECT_EQ(get_proc_cmdline(pid, text, &length), -1) << pid;
        EXPECT_STREQ(text, "") << pid;
        EXPECT_EQ(length, 0) << pid;
    }
    EXPECT_EQ(get_proc_info_by_pid(::getpid(), nullptr), -1);
}

TEST(ProcFacts, ReadsACommandLine) {
    const ChildGuard child(startSleeper("/home/kelvo/root/app", "30"));
    char text[1024];
    int length = sizeof text;
    ASSERT_EQ(get_proc_cmdline(child.pid(), text, &length), 0);
    EXPECT_STREQ(text, "/home/kelvo/root/app 30");
    EXPECT_EQ(length, 23);
}

TEST(ProcFacts, CutsACommandLineToItsBuffer) {
    const ChildGuard child(startSleeper("/home/kelvo/root/app", "30"));
    char text[12] = "###########";
    int length = 8;
    ASSERT_EQ(get_proc_cmdline(child.pid(), text, &length), 0);
    EXPECT_STREQ(text, "/home/k");
    EXPECT_EQ(length, 7);
    EXPECT_STREQ(text + 8, "###") << "nothing is written behind the buffer";
    length = 1;
    EXPECT_EQ(get_proc_cmdline(child.pid(), text, &length), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(length, 0);
}

TEST(ProcFacts, RefusesABufferWithoutRoom) {
    char text[4] = "abc";
    for (int length : {0, -1, INT_MIN}) {
        EXPECT_EQ(get_proc_cmdline(::getpid(), text, &length), -1);
    }
    int length = sizeof text;
    EXPECT_EQ(get_proc_cmdline(::getpid(), nullptr, &length), -1);
    EXPECT_EQ(get_proc_cmdline(::getpid(), text, nullptr), -1);
    EXPECT_STREQ(text, "abc");
}

/// Runs `body` in a child with a name that no other test has.
template <typename Body> int runUnderPrivateName(const char* start, Body body) {
    return runInChild([&] {
        const std::string comm = start + std::to_string(::getpid() % 10000000);
        ::prctl(PR_SET_NAME, comm.c_str());
        return body(comm);
    });
}

TEST(ProcFacts, FindsNoOtherProcessOfAnUnusedName) {
    EXPECT_EQ(runUnderPrivateName(
                  "(x ) ", [](const std::string&) { return process_comm_pid(0) == 0 ? 0 : 1; }),
              0);
}

TEST(ProcFacts, FindsAnotherLiveProcessOfTheSameName) {
    EXPECT_EQ(runUnderPrivateName("(y ) ",
                                  [](const std::string& comm) {
                                      const ChildGuard twin(startNamedChild(comm));
                                      return process_comm_pid(0) == twin.pid() ? 0 : 1;
                                  }),
              0);
}

TEST(ProcFacts, DoesNotTakeAZombieForARunningProcess) {
    EXPECT_EQ(runUnderPrivateName("(z ) ",
                                  [](const std::string&) {
                                      const pid_t twin = startChild([] { return 0; });
                                      siginfo_t ended = {};
                                      ::waitid(P_PID, static_cast<id_t>(twin), &ended,
                                               WEXITED | WNOWAIT);
                                      return process_comm_pid(0) == 0 ? 0 : 1;
                                  }),
              0);
}

} // namespace
