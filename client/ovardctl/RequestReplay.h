// Which applications the requests of a file have started by the time that one of them is replayed.

#ifndef OVARD_CLIENT_OVARDCTL_REQUEST_REPLAY_H
#define OVARD_CLIENT_OVARDCTL_REQUEST_REPLAY_H

#include <cstddef>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "records/reqcmd.h"

namespace ovardctl {

/// The applications that the records of a file start, less those that later ones stop. Views the
/// records, which have to outlive it. Every call costs no more than the applications that it stops.
class StartedApplications {
public:
    /// Number of the record that started the application of this name; 0 when there is none.
    std::size_t withName(std::string_view name) const;

    /// Number of the first record that started an application which writes the pid file that the
    /// record names; 0 when there is none. One whose pid file has the conventional name does not
    /// write it: each of its processes adds its id.
    std::size_t withPidFileOf(const reqcmd& record) const;

    /// Number of the first record that started the same command, byte for byte; 0 when there is
    /// none.
    std::size_t withCommandOf(const reqcmd& record) const;

    /// Number of the first record that started a program whose processes the monitor takes for
    /// those of the application `name`: it ends them with that one. 0 when there is none.
    std::size_t withProcessOf(std::string_view name) const;

    /// Number of the first record that started an application with whose processes the monitor ends
    /// those of the record's program; 0 when there is none.
    std::size_t withNameOfProcess(const reqcmd& record) const;

    /// Forgets what the record stops; a start stops the application of its name.
    void stopFor(const reqcmd& record);

    /// Takes the application of a start request. Call after `stopFor`. `number` is the record's,
    /// from 1.
    void start(const reqcmd& record, std::size_t number);

private:
    struct Application {
        const reqcmd* record;
        std::size_t number;
    };

    /// Texts, each with the numbers of the records that have it.
    using TextUsers = std::set<std::pair<std::string_view, std::size_t>>;

    static std::size_t firstUserOf(std::string_view text, const TextUsers& users);
    void stop(std::string_view name);
    void stopAll(const std::set<std::string_view>& names);
    std::set<std::string_view> namesBut(std::string_view spared) const;

    std::map<std::string_view, Application> applications_; ///< by name
    TextUsers pidFiles_;
    TextUsers commands_;
    TextUsers processes_;                ///< what the monitor finds their processes by
    TextUsers shortNames_;               ///< as far as they are compared with a process
    std::set<std::string_view> onPorts_; ///< names of those that serve a port
};

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_REQUEST_REPLAY_H
