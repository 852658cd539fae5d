#include "client/ovardctl/RequestReplay.h"

#include "client/ovardctl/RequestFile.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::string_view kSparedName = "security_server";

/// A text as the monitor takes it: the last character of its field is cut off.
template <std::size_t Size> std::string_view keptText(const char (&field)[Size]) {
    return platform::fieldText(field).substr(0, Size - 1);
}

/// The pid file that the application of a start writes by exactly this name; empty when there is
/// none.
std::string_view writtenPidFile(const reqcmd& record) {
    const std::string_view name = keptText(record.pidfile);
    return isConventionalPidFile(name, programOf(keptText(record.cmd))) ? std::string_view() : name;
}

/// The name by which the monitor finds processes of a start's program; empty where it finds none.
std::string_view foundProcess(const reqcmd& record) {
    const std::string_view program = programOf(keptText(record.cmd));
    return placeOf(program) == ProgramPlace::Found ? processNameOf(program) : std::string_view();
}

/// What of a name is compared with that of a process.
std::string_view shortName(std::string_view name) {
    return name.substr(0, kProcessNameLength);
}

} // namespace

std::size_t StartedApplications::withName(std::string_view name) const {
    const auto found = applications_.find(name);
    return found == applications_.end() ? 0 : found->second.number;
}

std::size_t StartedApplications::withPidFileOf(const reqcmd& record) const {
    return firstUserOf(keptText(record.pidfile), pidFiles_);
}

std::size_t StartedApplications::withCommandOf(const reqcmd& record) const {
    return firstUserOf(keptText(record.cmd), commands_);
}

std::size_t StartedApplications::withProcessOf(std::string_view name) const {
    return firstUserOf(shortName(name), processes_);
}

std::size_t StartedApplications::withNameOfProcess(const reqcmd& record) const {
    return firstUserOf(foundProcess(record), shortNames_);
}

/// Nobody uses an empty text.
std::size_t StartedApplications::firstUserOf(std::string_view text, const TextUsers& users) {
    const auto first = users.lower_bound({text, 0});
    return text.empty() || first == users.end() || first->first != text ? 0 : first->second;
}

void StartedApplications::stopFor(const reqcmd& record) {
    switch (record.action) {
    case APPMONCTL_Start:
    case APPMONCTL_Stop:
        stop(nameOf(record));
        break;
    case APPMONCTL_Stop_All:
        *this = {};
        break;
    case APPMONCTL_Stop_All_But:
        stopAll(namesBut(kSparedName));
        break;
    case APPMONCTL_Stop_PortApps:
        stopAll(std::set<std::string_view>(onPorts_));
        break;
    default:
        break;
    }
}

void StartedApplications::start(const reqcmd& record, std::size_t number) {
    const std::string_view command = keptText(record.cmd);
    if (command.empty()) {
        return; // such a start fails
    }
    const std::string_view name = nameOf(record);
    applications_[name] = {&record, number};
    pidFiles_.emplace(writtenPidFile(record), number);
    commands_.emplace(command, number);
    processes_.emplace(foundProcess(record), number);
    shortNames_.emplace(shortName(name), number);
    if (record.porttype != PORT_TYPE_NONE) {
        onPorts_.insert(name);
    }
}

void StartedApplications::stop(std::string_view name) {
    const auto found = applications_.find(name);
    if (found == applications_.end()) {
        return;
    }
    const auto [record, number] = found->second;
    pidFiles_.erase({writtenPidFile(*record), number});
    commands_.erase({keptText(record->cmd), number});
    processes_.erase({foundProcess(*record), number});
    shortNames_.erase({shortName(name), number});
    onPorts_.erase(name);
    applications_.erase(found);
}

void StartedApplications::stopAll(const std::set<std::string_view>& names) {
    for (const std::string_view name : names) {
        stop(name);
    }
}

std::set<std::string_view> StartedApplications::namesBut(std::string_view spared) const {
    std::set<std::string_view> names;
    for (const auto& [name, application] : applications_) {
        if (name != spared) {
            names.insert(names.end(), name);
        }
    }
    return names;
}

} // namespace ovardctl
