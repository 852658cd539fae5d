// /proc/PID/stat and /proc/PID/cmdline: the input as the text of either, and as the name of a
// process within a well-formed stat file.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/ProcFacts.h"
#include "tests/fuzz/Require.h"

using fuzz::require;
using platform::parseProcStat;
using platform::ProcStat;

namespace {

/// What is understood of any text stands in the text.
void parseAnyStat(std::string_view text) {
    ProcStat stat = {};
    if (!parseProcStat(text, stat)) {
        return;
    }
    const std::string whole(text);
    require(std::atoll(whole.c_str()) == stat.pid, "the pid comes first");
    require(whole.find(" (" + std::string(stat.comm) + ") " + stat.state) != std::string::npos,
            "name and state");
    const char* const endOfName = stat.comm.data() + stat.comm.size();
    require(endOfName == text.data() + text.rfind(')'), "a name ends at the last parenthesis");
    require(whole.find(std::to_string(stat.starttime), whole.rfind(')')) != std::string::npos,
            "the start time");
}

/// The kernel puts no line feed into names that would make the file ambiguous, but a process may
/// have any other byte in its name.
void parseNamedStat(std::string_view comm) {
    const std::string text = "1204 (" + std::string(comm) +
                             ") S 1 1204 1204 0 -1 4194560 1216 0 3 0 2 1 0 0 20 0 1 0 "
                             "18446744073709551615 6451200 512 18446744073709551615 1 1 0 0\n";
    ProcStat stat = {};
    require(parseProcStat(text, stat), "any name is taken");
    require(stat.pid == 1204 && stat.comm == comm && stat.state == 'S' &&
                stat.starttime == UINT64_MAX,
            "a name changes nothing else");
    require(platform::isOtherLiveProcess(stat, comm, 1), "it is a process of that name");
}

void joinAnyArguments(std::string_view text) {
    std::string expected(text);
    expected.resize(expected.find_last_not_of('\0') + 1); // npos + 1 is 0
    std::replace(expected.begin(), expected.end(), '\0', ' ');
    std::string joined(text);
    joined.resize(platform::joinArguments(joined.data(), joined.size()));
    require(joined == expected, "arguments are joined by blanks");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    parseAnyStat(text);
    parseNamedStat(text);
    joinAnyArguments(text);
    return 0;
}
