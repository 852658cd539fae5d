// Pid files: the input is a pid, a version up to a line feed, and the content of the file.

#include <fcntl.h>

#include <cstring>
#include <sstream>
#include <string>

#include "platform/Process.h"
#include "platform/Text.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/PrivateFile.h"
#include "tests/fuzz/Require.h"

using fuzz::require;

namespace {

/// So much of a pid file is looked at.
constexpr std::size_t kPidFileRead = 1024;

/// The lines of the file as a stream takes them.
bool confirmsPlainly(const std::string& content, int pid, const std::string& version) {
    std::istringstream stream(content.substr(0, kPidFileRead));
    std::string pidLine;
    std::string versionLine;
    std::getline(stream, pidLine);
    std::getline(stream, versionLine);
    return pid > 0 && pidLine == std::to_string(pid) && (version.empty() || versionLine == version);
}

bool isConfirmed(const std::string& content, int pid, const char* version) {
    const fuzz::PrivateFile file(content);
    appinfo record = {};
    record.pid = pid;
    const int result = read_pid_file_version(record, file.path().c_str(), version);
    require(result <= 0, "the result is 0 or negative");
    require(file.content() == content, "reading changes nothing");
    return result == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int pid = input.figure();
    const std::string version = fuzz::untilNul(input.line(sizeof(appinfo::version)));
    const std::string content(input.rest());
    require(isConfirmed(content, pid, version.c_str()) == confirmsPlainly(content, pid, version),
            "a file confirms by its first two lines");
    require(isConfirmed(content, pid, nullptr) == confirmsPlainly(content, pid, ""),
            "without a version any is fine");
    const std::string whole = std::to_string(pid) + "\n" + version + "\n" + content;
    require(isConfirmed(whole, pid, version.c_str()) == (pid > 0), "a whole file confirms");
    return 0;
}
