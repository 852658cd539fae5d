// /tmp, where the control socket and the pid file lie, while it is full, read-only or missing.

#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/system/FaultSupport.h"

namespace systemtest {
namespace {

const std::string kRecord = "/tmp/recorded";
const std::vector<std::string> kRecording = {"-f", kRecord};
const std::string kConsole = "/mnt/console";

/// Line of a script: the monitor's console is where it can be written whatever becomes of /tmp.
const std::string kConsoleElsewhere = "exec >" + kConsole + "\n";

/// What the console says of a request that cannot be recorded begins with this.
std::string recordingError(int error, const std::string& doing) {
    return "Error " + std::to_string(error) + " " + doing + " REQUEST_CMD={action=";
}

class FaultTmp : public FaultTest {
protected:
    /// Requests that cannot be recorded are executed, and the console tells of each.
    void expectServedUnrecorded(const std::string& error) {
        const std::string recorded = readFile(kRecord);
        late_ = makeSupervised("late", kNoPolicy, "--no-pidfile");
        const pid_t pid = launch(late_);
        EXPECT_TRUE(isRunning(pid));
        EXPECT_EQ(askFor(makeRequest(APPMONCTL_Stop, "late")).code, 0);
        EXPECT_TRUE(isGone(pid));
        for (const int action : {APPMONCTL_Start, APPMONCTL_Stop}) {
            const std::string line = error + std::to_string(action) + ",late}\n";
            EXPECT_EQ(countOf(readFile(kConsole), line), 1U) << line << readFile(kConsole);
        }
        EXPECT_TRUE(readFile(kRecord) == recorded);
    }

    /// The next request is recorded, right behind the whole records that were there before.
    void expectRecordedAgain() {
        expectServing(); // behind who has come so far
        const std::string recorded = readFile(kRecord);
        EXPECT_EQ(countOf(recorded, bytesOf(late_)), 0U) << "it could not be recorded";
        EXPECT_EQ(recorded.size() % sizeof(reqcmd), 0U);
        expectServing();
        EXPECT_TRUE(readFile(kRecord) == recorded + bytesOf(makeRequest(APPMONCTL_Stop, "nobody")));
    }

private:
    reqcmd late_ = {};
};

const std::string kLost = "/tmp/appmon_sock is not the control socket any more";
const std::string kBack = "/tmp/appmon_sock is the control socket again";

/// The monitor has said once that its socket is lost, and that it is there again.
bool hasRecovered() {
    return eventually([] { return countLog(6, kBack) == 1; }) && countLog(3, kLost) == 1;
}

/// The monitor answers, by a socket that it may have to make first.
bool answersAgain() {
    return eventually([] { return ask(makeRequest(APPMONCTL_Stop, "nobody")).has_value(); });
}

/// What a start shows and logs when the socket cannot be made. The last line of each is from the
/// clean-up at its end.
struct FailedStart {
    std::string errors;
    std::vector<std::string> log;
};

void expectFailedStart(const FailedStart& expected) {
    const ProgramResult result = runProgram(daemonProgram(), {"-d"});
    EXPECT_EQ(result.ending.text(), "status 1");
    EXPECT_EQ(result.errors, expected.errors);
    EXPECT_TRUE(waitForLog(3, expected.log.back()));
    EXPECT_EQ(daemonLogTexts(), expected.log);
    EXPECT_EQ(eventTexts(), (std::vector<std::string>{"Application Monitor Started.",
                                                      "Application Monitor Stopped."}));
}

/// Lines for OwnMounts: a root folder of its own with all that the real one has, /tmp only until
/// the test takes it away.
const std::string kRootOfItsOwn = "mount -t tmpfs tmpfs /mnt\n"
                                  "for entry in /*; do\n"
                                  "  if [ $entry = /mnt ]; then continue; fi\n"
                                  "  if [ -L $entry ]; then cp -P $entry /mnt/\n"
                                  "  elif [ -d $entry ]; then\n"
                                  "    mkdir /mnt$entry; mount --rbind $entry /mnt$entry\n"
                                  "  fi\n"
                                  "done\n";

/// Lines for OwnMounts, to be followed by the way into that root folder.
const std::string kWithoutTmp = "umount -l /mnt/tmp; rmdir /mnt/tmp\n";
const std::string kWithTmpAgain = "mkdir /mnt/tmp; mount --rbind /tmp /mnt/tmp\n";

// --- at the start --------------------------------------------------------------------------------

TEST_F(FaultTmp, FullDiskAtTheStart) {
    FullFolder full("/tmp");
    if (!full.isFull()) {
        GTEST_SKIP() << "/tmp is no memory disk here";
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.spawn({"-d", "-i", "0"}));
    ASSERT_TRUE(waitForEvent("Application Monitor Initialized."));
    ASSERT_TRUE(eventually([&] { return daemon.workersWait(); }));
    expectServing();
    letPassesGoBy(kPassesMs);
    EXPECT_EQ(readFile(daemon.pidFile()), "") << "there was room";
    EXPECT_TRUE(waitForLog(3, faultLine(daemon.pidFile(), ENOSPC)));
    full.release();
    const pid_t pid = launch("data_server");
    const std::string pidFile =
        "/tmp/pid" + programPath("data_server") + ".pid." + std::to_string(pid);
    EXPECT_TRUE(eventually([&] { return !readFile(pidFile).empty(); })) << "with room again";
    EXPECT_TRUE(waitForLog(6, recoveryLine(daemon.pidFile())));
    EXPECT_EQ(readFile(daemon.pidFile()).find(std::to_string(daemon.pid()) + "\n"), 0U);
    letPassesGoBy(kPassesMs);
    EXPECT_EQ(countLog(3, faultLine(daemon.pidFile(), ENOSPC)), 1U);
    EXPECT_EQ(countLog(6, recoveryLine(daemon.pidFile())), 1U);
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    EXPECT_FALSE(fileExists(daemon.pidFile()));
    EXPECT_FALSE(fileExists(kSocketPath));
}

TEST_F(FaultTmp, NoMoreFilesAtTheStart) {
    const OwnMounts mounts("cp \"$0\" /home/ovard; mount -t tmpfs -o nr_inodes=1 tmpfs /tmp\n"
                           "exec /home/ovard \"$@\"");
    expectFailedStart(
        {"bind error: No space left on device\n", {"App monitor started", "bind error, exit"}});
}

TEST_F(FaultTmp, ReadOnlyAtTheStart) {
    // Nothing can be removed there, not even what is missing.
    const OwnMounts mounts(readOnlyFolder("/tmp"));
    expectFailedStart(
        {"remove socket path error: Read-only file system\n"
         "bind error: Read-only file system\n"
         "closeCommunication: remove socket path error: Read-only file system\n",
         {"App monitor started", "bind error, exit", "remove socket path error error"}});
}

TEST_F(FaultTmp, StaleSocketThatCannotBeRemovedAtTheStart) {
    ASSERT_TRUE(writeFile(kSocketPath, "no socket at all"));
    const OwnMounts mounts(readOnlyFolder("/tmp"));
    expectFailedStart(
        {"remove socket path error: Read-only file system\n"
         "bind error: Address already in use\n"
         "closeCommunication: remove socket path error: Read-only file system\n",
         {"App monitor started", "bind error, exit", "remove socket path error error"}});
}

TEST_F(FaultTmp, MissingAtTheStart) {
    // The monitor itself may lie below /tmp.
    const OwnMounts mounts(kRootOfItsOwn + "mkdir /mnt/ovard; cp \"$0\" /mnt/ovard/ovard\n" +
                           kWithoutTmp + "exec chroot /mnt /ovard/ovard \"$@\"");
    expectFailedStart(
        {"bind error: No such file or directory\n", {"App monitor started", "bind error, exit"}});
}

// --- while the monitor runs ----------------------------------------------------------------------

TEST_F(FaultTmp, DiskThatFillsUp) {
    const MonitorThroughScript script(kConsoleElsewhere + "exec \"$OVARD\" \"$@\"\n");
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication(kRecording));
    ASSERT_TRUE(runShell("rm " + kRecord)); // the next record needs room of its own
    FullFolder full("/tmp");
    if (!full.isFull()) {
        GTEST_SKIP() << "/tmp is no memory disk here";
    }
    const std::size_t lines = daemonLogTexts(3).size();
    expectServedUnrecorded(recordingError(ENOSPC, "writing to " + kRecord + ","));
    expectAllIsWell("without room");
    expectLeftAlone("without room");
    EXPECT_EQ(daemonLogTexts(3).size(), lines);
    EXPECT_EQ(readFile(kRecord), "") << "there was room";
    full.release();
    expectRecordedAgain();
    expectAllIsWell("with room again");
}

TEST_F(FaultTmp, DiskThatBecomesReadOnly) {
    const OwnMounts mounts(kConsoleElsewhere);
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication(kRecording));
    ASSERT_TRUE(OwnMounts::change(monitorPid_, readOnlyFolder("/tmp")));
    expectServedUnrecorded(recordingError(EROFS, "opening " + kRecord + " for appending"));
    expectAllIsWell("read-only");
    expectLeftAlone("read-only");
    ASSERT_TRUE(OwnMounts::change(monitorPid_, uncovered("/tmp")));
    expectRecordedAgain();
    expectAllIsWell("writable again");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_FALSE(fileExists(kSocketPath));
    EXPECT_FALSE(fileExists(monitor_.pidFile()));
}

TEST_F(FaultTmp, EndOnAReadOnlyDisk) {
    const OwnMounts mounts;
    Daemon daemon;
    ASSERT_TRUE(daemon.startInForeground());
    ASSERT_TRUE(OwnMounts::change(daemon.pid(), readOnlyFolder("/tmp")));
    EXPECT_EQ(daemon.terminate().text(), "status 0");
    EXPECT_EQ(daemon.errors(),
              "closeCommunication: remove socket path error: Read-only file system\n");
    EXPECT_TRUE(waitForLog(3, "remove socket path error error"));
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{"remove socket path error error"});
    EXPECT_EQ(countEvent("Application Monitor Stopped."), 1U);
    Daemon next;
    EXPECT_TRUE(next.startInForeground()) << "what was left behind is in the way";
}

TEST_F(FaultTmp, FolderThatVanishes) {
    const OwnMounts mounts(kConsoleElsewhere + kRootOfItsOwn + "exec chroot /mnt \"$0\" \"$@\"");
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication(kRecording));
    ASSERT_TRUE(OwnMounts::change(monitorPid_, kWithoutTmp));
    ASSERT_TRUE(waitForLog(3, kLost));
    expectServedUnrecorded(recordingError(ENOENT, "opening " + kRecord + " for appending"));
    ASSERT_TRUE(letACycleGoBy());
    expectUnharmed("without /tmp");
    expectLeftAlone("without /tmp");
    ASSERT_TRUE(OwnMounts::change(monitorPid_, kWithTmpAgain));
    ASSERT_TRUE(hasRecovered());
    expectRecordedAgain();
    expectAllIsWell("with /tmp again");
    EXPECT_EQ(countLog(6, kBack), 1U);
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_FALSE(fileExists(kSocketPath));
}

// --- applications --------------------------------------------------------------------------------

class FaultTmpReplacement : public FaultTest {
protected:
    /// The application dies where no pid file can be written, so that its first replacement fails
    /// as well; once `recover` has been called, it runs again.
    void expectReplaced(const std::function<bool()>& recover) {
        const auto stops = [] {
            const std::vector<std::string> texts = daemonLogTexts(6);
            return std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
                return text.find("data_server[pid=") == 0 &&
                       text.find("] is stopped") != std::string::npos;
            });
        };
        ASSERT_TRUE(killAndWait(pid_));
        ASSERT_TRUE(eventually([&stops] { return stops() >= 2; }, 12 * kPatienceMs));
        ASSERT_TRUE(recover());
        ASSERT_TRUE(publishesAReplacement(12 * kPatienceMs));
        expectAllIsWell("afterwards");
        EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{});
    }
};

TEST_F(FaultTmpReplacement, ComesOnceThereIsRoom) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    FullFolder full("/tmp");
    if (!full.isFull()) {
        GTEST_SKIP() << "/tmp is no memory disk here";
    }
    ASSERT_TRUE(runShell(std::string("rm ") + request_.pidfile));
    full.fill();
    expectReplaced([&full] {
        full.release();
        return true;
    });
}

TEST_F(FaultTmpReplacement, ComesOnceTheDiskCanBeWritten) {
    const OwnMounts mounts;
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(OwnMounts::change(monitorPid_, readOnlyFolder("/tmp")));
    expectReplaced([this] { return OwnMounts::change(monitorPid_, uncovered("/tmp")); });
}

// --- the socket file -----------------------------------------------------------------------------

/// While it lives, there is an empty /tmp for everybody.
class EmptyTmp {
public:
    EmptyTmp()
        : stands_(::mount("tmpfs", "/tmp", "tmpfs", 0, nullptr) == 0) {}
    ~EmptyTmp() {
        if (stands_) {
            EXPECT_EQ(::umount2("/tmp", MNT_DETACH), 0); // the monitor's socket is there
        }
    }
    EmptyTmp(const EmptyTmp&) = delete;
    EmptyTmp& operator=(const EmptyTmp&) = delete;

    bool stands() const { return stands_; }

private:
    bool stands_;
};

TEST_F(FaultTmp, FolderThatIsReplacedByAnEmptyOne) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    {
        const EmptyTmp empty;
        ASSERT_TRUE(empty.stands());
        ASSERT_TRUE(hasRecovered());
        EXPECT_EQ(permissions(kSocketPath), 0777);
        expectAllIsWell("in the empty folder");
        expectLeftAlone("in the empty folder");
    }
    ASSERT_TRUE(answersAgain()) << "nobody listens on the old socket any more";
    expectAllIsWell("in the old folder");
    expectLeftAlone("in the old folder");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_FALSE(fileExists(kSocketPath));
}

TEST_F(FaultTmp, SocketFileThatIsRemovedOrReplaced) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    expectServing(); // behind who has come so far
    const std::size_t descriptors = descriptorsOf(monitorPid_).size();
    for (const char* command : {"rm $S", "rm $S; echo file >$S", "rm $S; mkfifo $S",
                                "rm $S; echo precious >/tmp/target; ln -s /tmp/target $S",
                                "rm $S; rm /tmp/target; ln -s /tmp/target $S"}) {
        ASSERT_TRUE(runShell(std::string("S=") + kSocketPath + "; " + command));
        const std::string target = readFile("/tmp/target");
        ASSERT_TRUE(answersAgain()) << command;
        EXPECT_EQ(readFile("/tmp/target"), target) << command;
    }
    const std::size_t told = countLog(3, kLost);
    EXPECT_GE(told, 1U);
    EXPECT_LE(told, 3U) << "once a minute, however often it is lost";
    EXPECT_EQ(countLog(6, kBack), told);
    EXPECT_TRUE(eventually([&] { return descriptorsOf(monitorPid_).size() <= descriptors; }));
    expectAllIsWell("afterwards");
    expectLeftAlone("afterwards");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
    EXPECT_FALSE(fileExists(kSocketPath));
}

TEST_F(FaultTmp, DirectoryInPlaceOfTheSocketFile) {
    ASSERT_NO_FATAL_FAILURE(startWithOneApplication());
    ASSERT_TRUE(runShell(std::string("S=") + kSocketPath + "; rm $S; mkdir $S"));
    ASSERT_TRUE(waitForLog(3, kLost));
    sleepMs(5000);
    expectUnharmed("with a directory");
    EXPECT_EQ(daemonLogTexts(3), std::vector<std::string>{kLost}) << "once";
    EXPECT_EQ(countLog(6, kBack), 0U);
    ASSERT_EQ(::rmdir(kSocketPath), 0);
    ASSERT_TRUE(hasRecovered());
    expectAllIsWell("afterwards");
    expectLeftAlone("afterwards");
    EXPECT_EQ(monitor_.terminate().text(), "status 0");
}

} // namespace
} // namespace systemtest
