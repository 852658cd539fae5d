// The text form, written.

#include "client/ovardctl/RequestText.h"

#include "client/ovardctl/EscapedText.h"
#include "client/ovardctl/RequestKeys.h"
#include "client/ovardctl/StartChecks.h"
#include "platform/Text.h"
#include "records/codes.h"

namespace ovardctl {
namespace {

std::string lineOf(const Key& key, const std::string& value) {
    return std::string(key.name) + " =" + (value.empty() ? "" : " " + escaped(value)) + '\n';
}

/// The program and the pid file of a start are always written: a text without them is refused, or
/// filled up.
bool isExpected(const Key& key, const reqcmd& record) {
    const bool isOfStart =
        key.offset == offsetof(reqcmd, cmd) || key.offset == offsetof(reqcmd, pidfile);
    return record.action == APPMONCTL_Start && isOfStart;
}

/// An empty name or command that is missed where only the raw key can give it.
bool isMissed(const Key& key, const reqcmd& record) {
    if (key.offset == offsetof(reqcmd, name)) {
        return needsName(record.action) && nameOf(record).empty();
    }
    return key.offset == offsetof(reqcmd, cmd) && record.action == APPMONCTL_Start &&
           programOf(platform::fieldText(record.cmd)).empty();
}

/// Lets `key` express the bytes of `record` in `built`, which stays as it was when it cannot.
bool express(const Key& key, const reqcmd& record, reqcmd& built) {
    reqcmd trial = built;
    const bool isTaken = key.read(key.write(record), trial).empty();
    if (!isTaken || !areSame(key, trial, record)) {
        return false;
    }
    built = trial;
    return true;
}

std::string sectionOf(const reqcmd& record) {
    reqcmd built{};
    const std::string_view name = nameOf(record);
    platform::copyToField(built.name, name);
    std::string text = "\n[" + escaped(name) + "]\n";
    const auto add = [&record, &built, &text](const Key& key, bool isWanted) {
        const bool isDue = isWanted || !areSame(key, built, record);
        if (isDue && express(key, record, built)) {
            text += lineOf(key, key.write(record));
        }
    };
    for (const Key& key : plainKeys()) {
        add(key, isExpected(key, record));
    }
    for (const Key& key : rawKeys()) {
        add(key, isMissed(key, record));
    }
    return text;
}

} // namespace

std::string formatRequests(const std::vector<reqcmd>& records, ByteOrder order) {
    std::string text = "# Requests for the application monitor, see ovard-requests(5).\n";
    if (order != nativeByteOrder()) {
        text += "# The byte order is that of another machine.\n";
    }
    text += std::string("byte-order = ") + byteOrderWord(order) + '\n';
    for (const reqcmd& record : records) {
        text += sectionOf(record);
    }
    return text;
}

} // namespace ovardctl
