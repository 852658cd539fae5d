#include "client/ovardctl/RequestReplay.h"

#include "client/ovardctl/RequestFile.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

constexpr std::string_view kSparedName = "security_server";

/// A text as the monitor takes it: the last character of its field is cut off.
template <std::size_t Size> std::string_view keptText(const char (&field)[Size]) {
    return platform::fieldText(field).substr(0, Size - 1);
}

} // namespace

std::size_t StartedApplications::withName(std::string_view name) const {
    const auto found = applications_.find(name);
    return found == applications_.end() ? 0 : found->second.number;
}

std::size_t StartedApplications::withPidFileOf(const reqcmd& record) const {
    const std::string_view pidFile = keptText(record.pidfile);
    return pidFile.empty() ? 0 : firstUserOf(pidFile, pidFiles_);
}

std::size_t StartedApplications::withCommandOf(const reqcmd& record) const {
    return firstUserOf(keptText(record.cmd), commands_);
}

std::size_t StartedApplications::firstUserOf(std::string_view text, const TextUsers& users) {
    const auto first = users.lower_bound({text, 0});
    return first == users.end() || first->first != text ? 0 : first->second;
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
    pidFiles_.emplace(keptText(record.pidfile), number);
    commands_.emplace(command, number);
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
    pidFiles_.erase({keptText(record->pidfile), number});
    commands_.erase({keptText(record->cmd), number});
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
