// Lines of the event log: "YYYY-MM-DD HH:MM:SS.mmm TAG: TEXT".

#ifndef OVARD_CLIENT_OVARDCTL_EVENT_LINE_H
#define OVARD_CLIENT_OVARDCTL_EVENT_LINE_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace ovardctl {

/// Most bytes of a line that are looked at; the monitor writes fewer.
inline constexpr std::size_t kLongestEventLine = 4096;

/// Puts lines together from pieces of a file.
class LineCutter {
public:
    /// Takes a line without its line feed. Of one that is longer than kLongestEventLine it gets the
    /// beginning, with '~' for the rest.
    using Taker = std::function<void(std::string_view line)>;

    explicit LineCutter(Taker take)
        : take_(std::move(take)) {}

    /// Hands out every line that `bytes` complete, and keeps the rest.
    void add(std::string_view bytes);

    /// Hands out what was kept, a line that was never completed.
    void finish();

private:
    void append(std::string_view bytes);
    void handOut();

    Taker take_;
    std::string line_;
    bool wasCut_ = false;
};

/// An event line as it is shown, with a line feed at the end. Plain: as it stands, every byte that
/// is not printable ASCII as \xNN. JSON: an object with the time in the form of ISO 8601, the tag
/// and the text; of a line without the form of an event all of it is the text, the others are null.
std::string eventText(std::string_view line, bool json);

} // namespace ovardctl

#endif // OVARD_CLIENT_OVARDCTL_EVENT_LINE_H
