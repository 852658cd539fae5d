#include "tests/system/ModelSteps.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <sstream>

#include "tests/system/Client.h"

namespace systemtest {
namespace {

/// How many steps a monitor sees in its first phase: fewer than half a minute has room for.
constexpr int kFirstPhaseSteps = 12;

/// Seconds, hours and years, back and forward. No two differ by what makes the outcome hang on how
/// long something has lived: by less than half a minute, by an hour, or by the limit of a life.
/// None leads into the first 90 seconds since the boot, which was a day ago.
const std::vector<std::int64_t> kClockSettings = {0, 40, -40, 7200, -7200, 315360000, -315360000};

constexpr int kMostTries = 1000;
constexpr std::size_t kMostEntries = 8;

struct Application {
    const char* name;
    const char* program;
};

/// The fourth has a name that is longer than a process's, the fifth also than a published one, the
/// sixth one that fills its field without a NUL; the last runs another one's program.
const std::vector<Application> kApplications = {
    {"data_server", "/home/kelvo/root/data_server"},
    {"security_server", "/home/kelvo/root/security_server"},
    {"meter", "/home/kelvo/test/meter"},
    {"modbus_gateway_server", "/home/kelvo/modbus/modbus_gateway_server"},
    {"recorder_with_a_name_of_forty_characters", "/home/kelvo/root/recorder_with_a_name"},
    {"recorder_with_a_name_of_forty_characters_and_some_more_of_them..", "/home/kelvo/root/wide"},
    {"alias", "/home/kelvo/test/meter"},
};

constexpr const char* kExactPidFile = "--exact-pidfile";
constexpr const char* kNoPidFile = "--no-pidfile";

/// How much of an application's name is in that of its pid file: two of them share theirs.
constexpr std::size_t kPidFileName = 30;

/// What an application does about a pid file, and what its request expects.
struct PidFileChoice {
    const char* option;
    bool isExpected;
    std::string version;
};

const std::vector<PidFileChoice> kPidFileChoices = {
    {kExactPidFile, true, "1.0"},
    {kExactPidFile, true, "1.0"},
    {kExactPidFile, true, "1.0"},
    {kExactPidFile, true, "1.0"},
    {kExactPidFile, true, ""},                                        // any version
    {kExactPidFile, true, std::string(sizeof(reqcmd::version), 'v')}, // another one, and too long
    {"", true, "1.0"}, // by convention, wherever the request looks for it
    {"", false, "1.0"},
    {kNoPidFile, true, "1.0"},
    {kNoPidFile, false, "1.0"},
};

/// Names that no start request has, unless it comes of a record that ends early.
const std::vector<std::string> kOtherNames = {
    "nobody", "", "Meter", "met", "meter ", "recorder_with_a_name_of_forty_c"};

/// Where a record may end early: behind each text, and before and behind the action.
const std::vector<std::size_t> kRecordEnds = {
    offsetof(reqcmd, version),  offsetof(reqcmd, cmd),    offsetof(reqcmd, pidfile),
    offsetof(reqcmd, porttype), offsetof(reqcmd, action), offsetof(reqcmd, priority)};

/// Puts a text into a field of zeros; one that fills it has no NUL.
template <std::size_t Size> void fill(char (&field)[Size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(text.size(), Size));
}

template <std::size_t Size> std::string shown(const char (&field)[Size]) {
    const std::string text(field, ::strnlen(field, Size));
    return text.size() <= 200 ? text : text.substr(0, 200) + "...";
}

std::string textOfRequest(const Step& step) {
    reqcmd request = {};
    std::memcpy(&request, step.bytes.data(), step.bytes.size());
    std::ostringstream text;
    text << "request of " << step.bytes.size() << " bytes: action " << request.action << " name \""
         << shown(request.name) << "\" version \"" << shown(request.version) << "\" cmd \""
         << shown(request.cmd) << "\" pidfile \"" << shown(request.pidfile) << "\" port "
         << request.porttype << " " << request.portnum << " priority " << request.priority
         << " nowait " << static_cast<int>(request.nowait) << " heartbeat "
         << static_cast<int>(request.heartbeat) << " restart_type " << request.restart_type
         << " limit " << request.last_runtime_life_limit;
    return text.str() + (step.crashes ? "; the process that it registers is killed at once" : "");
}

} // namespace

const char* nameOf(StepKind kind) {
    constexpr const char* kNames[] = {"requests",       "crashes",      "lost heartbeats",
                                      "late pid files", "first phases", "clock settings",
                                      "monitors"};
    return kNames[static_cast<int>(kind)];
}

std::string textOf(const Step& step) {
    switch (step.kind) {
    case StepKind::Request:
        return textOfRequest(step);
    case StepKind::Crash:
        return pidMark(step.process) + " is killed";
    case StepKind::LostHeartbeat:
        return pidMark(step.process) + " stops, its last beat is " +
               (step.beat == Beat::Expired ? "old" : "forgotten");
    case StepKind::LatePidFile:
        return "the pid file of entry " + std::to_string(step.entry + 1) + " is written";
    case StepKind::FirstPhaseEnd:
        return "the first half minute goes by";
    case StepKind::Clock:
        return "the clock is set " + std::to_string(step.setting) +
               " seconds away from the true time";
    case StepKind::Monitor:
        break;
    }
    return "the monitor ends by signal " + std::to_string(step.signal) + ", the next one " +
           (step.options.discovers ? "looks" : "does not look") + " for applications and has a " +
           (step.options.longGrace ? "long" : "short") + " grace";
}

std::vector<std::string> programsOfSteps() {
    std::vector<std::string> paths;
    paths.reserve(kApplications.size());
    for (const Application& application : kApplications) {
        paths.emplace_back(application.program);
    }
    return paths;
}

ModelResult apply(const Step& step, ModelMonitor& model) {
    ModelResult result;
    switch (step.kind) {
    case StepKind::Request:
        result = model.receive(step.bytes);
        if (step.crashes) {
            model.crash(model.entries().back().process);
        }
        break;
    case StepKind::Crash:
        model.crash(step.process);
        break;
    case StepKind::LostHeartbeat:
        model.loseHeartbeat(step.process, step.beat);
        break;
    case StepKind::LatePidFile:
        model.writePidFile(model.entries().at(step.entry));
        break;
    case StepKind::FirstPhaseEnd:
        model.endFirstPhase();
        break;
    case StepKind::Clock:
        model.setClock(step.setting);
        break;
    case StepKind::Monitor:
        model.begin(step.options);
        break;
    }
    return result;
}

StepSource::StepSource(std::uint64_t seed, bool setsClock)
    : random_(seed)
    , setsClock_(setsClock) {}

Step StepSource::next(const ModelMonitor& model, int age) {
    for (int tries = 0; tries < kMostTries; ++tries) {
        Step step = candidate(model, age);
        ModelMonitor copy = model;
        (void)apply(step, copy); // what the registry becomes is looked at
        copy.settle();
        if (copy.isPredictable() && copy.entries().size() <= kMostEntries) {
            return step;
        }
    }
    ++lastResorts_;
    return monitorStep(); // The test fails in any case.
}

Step StepSource::candidate(const ModelMonitor& model, int age) {
    Step step;
    const std::vector<ProcessNumber> orphans = model.orphans();
    if (!orphans.empty() && !oneIn(4)) {
        step.kind = StepKind::Crash;
        step.process = pickFrom(orphans);
        return step;
    }
    if (age >= kFirstPhaseSteps && !model.times().isFirstPhaseOver()) {
        step.kind = StepKind::FirstPhaseEnd;
        return step;
    }
    const int kind = pick(1, 100);
    if (kind <= 8) {
        return monitorStep();
    }
    if (kind <= 14 && setsClock_) {
        return clockStep(model);
    }
    return kind <= 44 ? processStep(model) : requestStep(model);
}

Step StepSource::clockStep(const ModelMonitor& model) {
    Step step;
    step.kind = StepKind::Clock;
    do {
        step.setting = pickFrom(kClockSettings);
    } while (step.setting == model.times().setting());
    return step;
}

Step StepSource::monitorStep() {
    Step step;
    step.kind = StepKind::Monitor;
    step.signal = oneIn(2) ? SIGTERM : SIGKILL;
    step.options.discovers = !oneIn(6);
    step.options.longGrace = oneIn(2);
    return step;
}

/// Something that happens to an application, if there is one to which it may happen.
Step StepSource::processStep(const ModelMonitor& model) {
    if (model.entries().empty()) {
        return requestStep(model);
    }
    Step step;
    step.entry = static_cast<std::size_t>(pick(0, static_cast<int>(model.entries().size()) - 1));
    const ModelEntry& entry = model.entries()[step.entry];
    step.process = entry.process;
    const bool isAlive = model.isAlive(entry.process);
    if (isAlive && !entry.pidfile.empty() && !entry.isConfirmedOn(model.machine())) {
        step.kind = StepKind::LatePidFile;
    } else if (isAlive && model.machine().processes().at(entry.process).beat == Beat::Fresh &&
               oneIn(2)) {
        step.kind = StepKind::LostHeartbeat;
        step.beat = oneIn(2) ? Beat::Expired : Beat::Missing;
    } else if (isAlive) {
        step.kind = StepKind::Crash;
    } else {
        return requestStep(model);
    }
    return step;
}

Step StepSource::requestStep(const ModelMonitor& model) {
    Step step;
    const bool isBusy = model.entries().size() > 2;
    const reqcmd request = isBusy || oneIn(2) ? anyRequest() : startRequest();
    step.bytes = bytesOf(request);
    if (oneIn(15)) {
        step.bytes.resize(pickFrom(kRecordEnds));
    }
    if (step.bytes.size() == sizeof request && request.action == APPMONCTL_Start && oneIn(8)) {
        ModelMonitor copy = model;
        step.crashes = apply(step, copy).replied;
    }
    return step;
}

reqcmd StepSource::anyRequest() {
    const int kind = pick(1, 100);
    reqcmd request = kind <= 45 ? startRequest() : namedRequest();
    if (kind > 95) {
        request.action = pickFrom(std::vector<int>{9, 10, 11, 255, -1, INT_MIN, INT_MAX});
    } else if (kind > 70) {
        request.action = pickFrom(std::vector<int>{
            APPMONCTL_Stop_All, APPMONCTL_Stop_All_But, APPMONCTL_Stop_PortApps,
            APPMONCTL_Restart_All, APPMONCTL_Restart_All, APPMONCTL_Restart_All_But,
            APPMONCTL_Restart_All_But, APPMONCTL_Restart_PortApps, APPMONCTL_Restart_PortApps});
    } else if (kind > 45) {
        request.action = oneIn(3) ? APPMONCTL_Stop : APPMONCTL_Restart;
    }
    if (oneIn(7)) {
        request.nowait = static_cast<std::uint8_t>(pickFrom(std::vector<int>{1, 2, 255}));
    }
    return request;
}

reqcmd StepSource::namedRequest() {
    reqcmd request = {};
    fill(request.name, oneIn(6) ? pickFrom(kOtherNames) : pickFrom(kApplications).name);
    return request;
}

reqcmd StepSource::startRequest() {
    reqcmd request = {};
    const Application application = pickFrom(kApplications);
    const PidFileChoice choice = pickFrom(kPidFileChoices);
    const std::string name = application.name;
    const std::string path = "/tmp/" + name.substr(0, kPidFileName) + ".pid";
    fill(request.name, name);
    fill(request.version, choice.version);
    fill(request.cmd, oneIn(12) ? "" : command(application.program, choice.option, path));
    fill(request.pidfile, oneIn(30)           ? "/tmp/" + std::string(sizeof request.pidfile, 'p')
                          : choice.isExpected ? path
                                              : "");
    request.action = APPMONCTL_Start;
    request.porttype = pickFrom(std::vector<int>{0, 0, 1, 2, 3, -1});
    request.portnum = pick(-1, 502);
    request.priority = pick(0, 3);
    request.keepalive = oneIn(2) ? 1 : 0;
    request.heartbeat = static_cast<std::uint8_t>(pickFrom(std::vector<int>{0, 0, 1, 200}));
    request.restart_type = pickFrom(std::vector<int>{0, 0, 0, 0, 1, 2, -1});
    request.last_runtime_life_limit = oneIn(4) ? 0 : 1000000;
    return request;
}

/// A command for the sample application.
std::string StepSource::command(const std::string& program, const std::string& pidFileOption,
                                const std::string& pidFile) {
    const std::string blank = oneIn(5) ? " \t " : " ";
    std::string words = program;
    if (!pidFileOption.empty()) {
        words += blank + pidFileOption;
    }
    if (pidFileOption == kExactPidFile) {
        words += blank + pidFile;
    }
    if (oneIn(2)) {
        words += blank + "--heartbeat" + blank + "100";
    }
    if (oneIn(8)) {
        words += blank + "--ignore-term";
    }
    if (oneIn(20)) {
        words += blank + std::string(sizeof(reqcmd::cmd), 'c'); // more than there is room for
    }
    return words;
}

} // namespace systemtest
