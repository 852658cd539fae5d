#include "client/ovardctl/Events.h"

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "client/ovardctl/EventFile.h"
#include "client/ovardctl/EventLine.h"
#include "client/ovardctl/Outcome.h"

namespace ovardctl {
namespace {

constexpr std::size_t kBlockSize = 16384;

/// The log from its last lines on.
class EventView {
public:
    EventView(const EventRequest& request, std::FILE* output, std::FILE* errors)
        : request_(request)
        , output_(output)
        , errors_(errors)
        , cutter_([this](std::string_view line) { show(line); }) {}

    void showLast();

    /// Shows a last line that nobody has finished.
    void showRest() { cutter_.finish(); }

    /// Shows what has come since.
    void showNew();

    /// Brings the lines out; false when that failed.
    bool flush() { return std::fflush(output_) == 0 && std::ferror(output_) == 0; }

    /// By the error that there was last.
    int exitStatus() const;

private:
    void show(std::string_view line);
    int copy(EventFile& file);
    int look();
    void report(int error);
    std::string explanation(int error) const;

    const EventRequest& request_;
    std::FILE* output_;
    std::FILE* errors_;
    LineCutter cutter_;
    EventFile log_;
    bool isReplaced_ = false; ///< its path led to another file when it was looked at last
    int error_ = 0;
};

void EventView::show(std::string_view line) {
    (void)std::fputs(eventText(line, request_.json).c_str(), output_); // flush() tells of a failure
}

/// Shows a file from where it stands to its end. Returns the errno of a failure, else 0.
int EventView::copy(EventFile& file) {
    char block[kBlockSize];
    ssize_t count = 0;
    while (std::ferror(output_) == 0 && (count = file.read(block, sizeof block)) > 0) {
        cutter_.add({block, static_cast<std::size_t>(count)});
    }
    return count < 0 ? errno : 0;
}

void EventView::showLast() {
    log_ = EventFile(request_.path);
    EventFile older(request_.path + ".1");
    if (older.isSameAs(log_)) {
        log_ = EventFile(request_.path); // it was renamed just now
    }
    const auto wanted = static_cast<std::size_t>(request_.lines);
    const std::size_t found = log_.isOpen() ? log_.goToLastLines(wanted) : 0;
    int error = 0;
    if (found < wanted && older.isOpen()) {
        (void)older.goToLastLines(wanted - found);
        error = copy(older);
        cutter_.finish();
    }
    const bool isOnlyMoved = older.isOpen() && log_.error() == ENOENT;
    const int logError = log_.isOpen() ? copy(log_) : log_.error();
    report(error != 0 || isOnlyMoved ? error : logError);
}

void EventView::showNew() {
    report(look());
}

/// Shows what has come, and goes over to a new log. Returns what is wrong, an errno, else 0.
int EventView::look() {
    int error = 0;
    if (log_.isOpen()) {
        if (log_.goBackIfShortened()) {
            cutter_.finish();
        }
        error = copy(log_);
    }
    EventFile present(request_.path);
    if (!present.isOpen()) {
        const bool isOnlyMoved = log_.isOpen() && present.error() == ENOENT;
        return error != 0 || isOnlyMoved ? error : present.error();
    }
    // A writer that has the old file open may still append to it: it gets one more look.
    const bool wasReplaced = std::exchange(isReplaced_, !present.isSameAs(log_));
    if (!isReplaced_ || (log_.isOpen() && !wasReplaced)) {
        return error;
    }
    cutter_.finish();
    log_ = std::move(present);
    isReplaced_ = false;
    return copy(log_);
}

void EventView::report(int error) {
    if (error != error_ && error != 0) {
        (void)std::fputs(("ovardctl: " + explanation(error) + '\n').c_str(), errors_);
    }
    error_ = error;
}

std::string EventView::explanation(int error) const {
    if (error == ENOENT) {
        return "there is no event log " + request_.path +
               (request_.follow ? " yet; waiting for it"
                                : "; the monitor begins it with its first event, or name another "
                                  "one with --file");
    }
    const std::string reason =
        error == EINVAL ? "it is no plain file" : std::generic_category().message(error);
    return "cannot read the event log " + request_.path + ": " + reason +
           "; check the path and your rights on it";
}

int EventView::exitStatus() const {
    switch (error_) {
    case 0:
        return kExitOk;
    case ENOENT:
        return kExitFailed;
    default:
        return kExitSystemError;
    }
}

} // namespace

int showEvents(const EventRequest& request, std::FILE* output, std::FILE* errors,
               const std::function<bool()>& pause) {
    EventView view(request, output, errors);
    view.showLast();
    while (request.follow && view.flush() && pause()) {
        view.showNew();
    }
    view.showRest();
    return view.flush() ? view.exitStatus() : int{kExitSystemError};
}

} // namespace ovardctl
