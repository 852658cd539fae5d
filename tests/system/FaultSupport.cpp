#include "tests/system/FaultSupport.h"

#include <sys/statfs.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <utility>

namespace systemtest {
namespace {

constexpr long kTmpfsMagic = 0x01021994;
constexpr unsigned long kRoomForTheTest = 262144; // bytes

/// The command between the new mounts and the monitor: "$0" is the monitor, "$@" its arguments.
std::string monitorAmongMounts(const std::string& lines) {
    return "exec unshare --mount --propagation private -- /bin/bash -c 'set -e\n"
           "PATH=$PATH:/usr/sbin:/sbin\n" +
           lines + "\nexec \"$0\" \"$@\"' \"$OVARD\" \"$@\"\n";
}

constexpr std::int64_t kMinuteMs = 60000;

/// The text with every number in it replaced that is no part of a name.
std::string withoutNumbers(const std::string& text) {
    static const std::regex number(R"(\b\d+\b)");
    return std::regex_replace(text, number, "N");
}

struct statfs factsOf(const std::string& folder) {
    struct statfs facts = {};
    (void)::statfs(folder.c_str(), &facts); // all zero where it fails
    return facts;
}

} // namespace

OwnMounts::OwnMounts(const std::string& lines)
    : script_(monitorAmongMounts(lines)) {}

bool OwnMounts::change(pid_t monitor, const std::string& lines) {
    return runShell("nsenter --mount --target " + std::to_string(monitor) +
                    " -- /bin/bash -c 'set -e\n" + lines + "'");
}

std::string OwnMounts::seenBy(pid_t monitor, const std::string& path) {
    return "/proc/" + std::to_string(monitor) + "/root" + path;
}

std::string readOnlyFolder(const std::string& folder) {
    return "mount --rbind " + folder + " " + folder + "; mount -o remount,bind,ro " + folder + "\n";
}

std::string uncovered(const std::string& folder) {
    return "umount -l " + folder + "\n";
}

std::string devicesWithoutShm() {
    return "mount -t tmpfs tmpfs /mnt\n"
           "for device in null zero full random urandom tty log watchdog; do\n"
           "  : >/mnt/$device; mount --bind /dev/$device /mnt/$device\n"
           "done\n"
           "mount --rbind /mnt /dev\n";
}

FullFolder::FullFolder(const std::string& folder)
    : folder_(folder)
    , filler_(folder + "/filler") {
    fill();
}

FullFolder::~FullFolder() {
    release();
}

bool FullFolder::isFull() const {
    const struct statfs facts = factsOf(folder_);
    return facts.f_type == kTmpfsMagic && facts.f_bavail == 0;
}

void FullFolder::fill() const {
    const struct statfs facts = factsOf(folder_);
    if (facts.f_type != kTmpfsMagic) {
        return;
    }
    const std::uint64_t used =
        (facts.f_blocks - facts.f_bfree) * static_cast<std::uint64_t>(facts.f_bsize);
    limitTo(std::to_string(used + kRoomForTheTest));
    std::ofstream file(filler_, std::ios::binary | std::ios::app);
    const std::string block(1024, 'x');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
}

void FullFolder::release() const {
    (void)std::remove(filler_.c_str()); // it may be gone
    // The thread sanitizer takes half a megabyte in /tmp for each program that it runs.
    if (factsOf(folder_).f_type == kTmpfsMagic) {
        limitTo("50%");
    }
}

void FullFolder::limitTo(const std::string& size) const {
    EXPECT_TRUE(runShell("mount -o remount,size=" + size + " " + folder_));
}

void expectMissingMutex(const Daemon& daemon, int error) {
    const std::string console = daemon.console();
    const std::string created =
        "Error " + std::to_string(error) + " creating named mutex: /ovard.initialization\n";
    EXPECT_EQ(countOf(console, created), 1U) << console;
    EXPECT_EQ(countOf(console, "\nError 22 locking named mutex: /ovard.initialization\n"), 1U)
        << console;
    EXPECT_EQ(countOf(console, "named mutex"), 2U) << console;
}

std::ptrdiff_t faultsTold(const std::string& path) {
    const std::vector<std::string> texts = daemonLogTexts(3);
    return std::count_if(texts.begin(), texts.end(), [&](const std::string& text) {
        return text.rfind(path + " cannot be written: ", 0) == 0;
    });
}

const std::vector<std::string> kSegmentNames = {"/meter_usr7_data.shared",
                                                "/meter_usr16_data.shared"};
const std::vector<std::string> kSharedNames = {kSegmentNames[0], kSegmentNames[1],
                                               "/meter_heartbeat.shared"};

void expectTold(const LogMark& mark, const std::vector<std::string>& names, int error,
                std::size_t recoveries) {
    const auto count = [&](const LogText& line) {
        const std::vector<LogText> lines = mark.lines(0);
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
    };
    for (const std::string& name : names) {
        const LogText fault = {3, faultLine(name, error)};
        const LogText recovery = {6, recoveryLine(name)};
        // A beat is told of at the end of its turn.
        (void)eventually([&] { return count(fault) >= 1 && count(recovery) >= recoveries; });
        EXPECT_EQ(count(fault), 1U) << fault;
        EXPECT_EQ(count(recovery), recoveries) << recovery;
    }
    const std::vector<LogText> lines = mark.lines(0);
    const auto faults = std::count_if(lines.begin(), lines.end(),
                                      [](const LogText& line) { return line.level == 3; });
    EXPECT_EQ(static_cast<std::size_t>(faults), names.size());
}

void RepeatedErrors::expectNone() const {
    std::map<std::pair<int, std::string>, std::int64_t> counts; // by the monitor's pid
    for (const LogLine& line : daemonLog()) {
        if (line.level == 3 && !isAllowed(line.text)) {
            ++counts[{line.pid, withoutNumbers(withoutDates(line.text))}];
        }
    }
    const std::int64_t most = 1 + (monotonicMs() - beginMs_) / kMinuteMs;
    for (const auto& [line, count] : counts) {
        EXPECT_LE(count, most) << "times told: " << line.second;
    }
}

bool RepeatedErrors::isAllowed(const std::string& text) const {
    return std::any_of(allowed_.begin(), allowed_.end(),
                       [&](const std::string& beginning) { return text.rfind(beginning, 0) == 0; });
}

bool setLimit(pid_t pid, __rlimit_resource resource, rlim_t limit) {
    rlimit present = {};
    if (::prlimit(pid, resource, nullptr, &present) != 0) {
        return false;
    }
    const rlimit wanted = {limit, present.rlim_max};
    return ::prlimit(pid, resource, &wanted, nullptr) == 0;
}

bool liftLimit(pid_t pid, __rlimit_resource resource) {
    rlimit present = {};
    return ::prlimit(pid, resource, nullptr, &present) == 0 &&
           setLimit(pid, resource, present.rlim_max);
}

rlim_t addressSpaceOf(pid_t pid) {
    return std::strtoul(statusValue(pid, "VmSize").c_str(), nullptr, 10) * 1024;
}

AnotherUser::AnotherUser(const std::string& capabilities)
    : capabilities_(capabilities) {
    // The kernel counts a user's processes over all sandboxes that run at the same time.
    std::random_device random;
    id_ = std::to_string(std::uniform_int_distribution<int>(1000000, 2000000000)(random));
}

bool AnotherUser::possible() {
    const AnotherUser user;
    return runProgram("/bin/sh", {"-c", user.prefix() + "true"}).ending.text() == "status 0";
}

std::string AnotherUser::prefix() const {
    const std::string rights = capabilities_.empty() ? ""
                                                     : "--inh-caps=" + capabilities_ +
                                                           " --ambient-caps=" + capabilities_ + " ";
    return "setpriv --reuid=" + id_ + " --regid=" + id_ + " --clear-groups " + rights;
}

bool AnotherUser::limitProcesses(pid_t pid, std::size_t count) const {
    return runShell(limitCommand(std::to_string(pid), std::to_string(count)));
}

std::string AnotherUser::limitCommand(const std::string& pid, const std::string& count) const {
    return prefix() + "prlimit --nproc=" + count + ": --pid " + pid;
}

} // namespace systemtest
