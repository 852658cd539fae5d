#include "client/ovardctl/EventLine.h"

#include <algorithm>
#include <cctype>

#include "client/ovardctl/JsonText.h"
#include "client/ovardctl/PrintableText.h"

namespace ovardctl {
namespace {

constexpr std::string_view kTimeForm = "0000-00-00 00:00:00.000 ";
constexpr std::size_t kDateLength = 10;
constexpr std::string_view kTagEnd = ": ";

/// A line with digits where the form has zeros, and what else the form has.
bool beginsWithTime(std::string_view line) {
    return line.size() >= kTimeForm.size() &&
           std::equal(kTimeForm.begin(), kTimeForm.end(), line.begin(), [](char form, char found) {
               const bool isDigit = found >= '0' && found <= '9';
               return form == '0' ? isDigit : found == form;
           });
}

/// "YYYY-MM-DDTHH:MM:SS.mmmZ" of a line that begins with a time.
std::string isoTime(std::string_view line) {
    std::string time(line.substr(0, kTimeForm.size()));
    time[kDateLength] = 'T';
    time.back() = 'Z';
    return time;
}

Json eventJson(std::string_view line) {
    Json object;
    const bool hasTime = beginsWithTime(line);
    const std::string_view rest = hasTime ? line.substr(kTimeForm.size()) : line;
    const std::size_t tagEnd = rest.find(kTagEnd);
    if (!hasTime || tagEnd == std::string_view::npos) {
        object["time"] = nullptr;
        object["tag"] = nullptr;
        object["text"] = std::string(line);
        return object;
    }
    object["time"] = isoTime(line);
    object["tag"] = std::string(rest.substr(0, tagEnd));
    object["text"] = std::string(rest.substr(tagEnd + kTagEnd.size()));
    return object;
}

} // namespace

void LineCutter::add(std::string_view bytes) {
    for (std::size_t end = bytes.find('\n'); end != std::string_view::npos;
         end = bytes.find('\n')) {
        append(bytes.substr(0, end));
        handOut();
        bytes.remove_prefix(end + 1);
    }
    append(bytes);
}

void LineCutter::finish() {
    if (!line_.empty()) {
        handOut();
    }
}

void LineCutter::append(std::string_view bytes) {
    const std::size_t room = kLongestEventLine - line_.size();
    line_ += bytes.substr(0, room);
    wasCut_ = wasCut_ || bytes.size() > room;
}

void LineCutter::handOut() {
    if (wasCut_) {
        line_ += '~';
    }
    take_(line_);
    line_.clear();
    wasCut_ = false;
}

std::string eventText(std::string_view line, bool json) {
    if (!json) {
        return printable(line) + '\n';
    }
    ViewStyle style;
    style.json = true;
    style.inLine = true;
    return jsonText(eventJson(line), style);
}

} // namespace ovardctl
