// The table of local sockets, /proc/net/unix: the input as its text, and in pieces as the fields of
// one well-formed line.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "client/MonitorSearch.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/PrivateFile.h"
#include "tests/fuzz/Require.h"

using fuzz::require;
using ovard_client::MonitorState;

namespace {

constexpr const char* kSocket = "/tmp/appmon_sock";
constexpr const char* kListens = "00010000";
constexpr const char* kIsConnected = "00000000";
constexpr std::size_t kFields = 6; ///< of a line, beside the flags and the name

bool isRunning(const std::string& table) {
    const fuzz::PrivateFile file(table);
    const MonitorState state = ovard_client::findListener(kSocket, file.path().c_str());
    require(state != MonitorState::Unknown, "a table that can be read gives an answer");
    return state == MonitorState::Running;
}

/// Whether a line ends with the name of the socket, behind a blank.
bool namesSocket(const std::string& table) {
    const std::string end = std::string(" ") + kSocket;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        line = fuzz::untilNul(line);
        if (line.size() >= end.size() &&
            line.compare(line.size() - end.size(), end.size(), end) == 0) {
            return true;
        }
    }
    return false;
}

/// The first words of the text, which stand in for the fields of a line.
std::vector<std::string> fieldsOf(std::string text) {
    constexpr std::string_view kSeparators("\n\0", 2);
    for (char& letter : text) {
        letter = kSeparators.find(letter) == std::string_view::npos ? letter : ' ';
    }
    std::vector<std::string> fields;
    std::istringstream words(text);
    for (std::string word; fields.size() < kFields && std::getline(words, word, ' ');) {
        if (!word.empty()) {
            fields.push_back(word);
        }
    }
    fields.resize(kFields, "0");
    return fields;
}

std::string lineOf(const std::vector<std::string>& fields, const char* flags,
                   const std::string& name) {
    return fields[0] + ' ' + fields[1] + ' ' + fields[2] + ' ' + flags + ' ' + fields[3] + ' ' +
           fields[4] + ' ' + fields[5] + ' ' + name + '\n';
}

/// A name as the kernel shows it, up to its end: blanks before it do not tell it from another one.
std::string shownName(const std::string& text) {
    const std::string name = fuzz::untilNul(text.substr(0, text.find('\n')));
    return name.substr(std::min(name.find_first_not_of(' '), name.size()));
}

void searchLine(const std::string& text) {
    const std::vector<std::string> fields = fieldsOf(text);
    require(isRunning(lineOf(fields, kListens, kSocket)), "a socket that listens is found");
    require(!isRunning(lineOf(fields, kIsConnected, kSocket)), "one that does not is none");
    const std::string name = shownName(text);
    require(isRunning(lineOf(fields, kListens, name)) == (name == kSocket),
            "a socket is told by its whole name");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    require(!isRunning(text) || namesSocket(text), "nothing is found that is not named");
    require(isRunning(text + '\n' + lineOf(fieldsOf(""), kListens, kSocket)),
            "no line hides those behind it");
    searchLine(text);
    return 0;
}
