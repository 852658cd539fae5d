// The monitor's command line, each line of the input a word, compared with a reader that is as
// plain as can be.

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/Settings.h"
#include "runtime/Globals.h"
#include "runtime/Options.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/Require.h"
#include "tests/unit/InitialSettings.h"

using fuzz::require;
using Purpose = Options::Purpose;

// In place of runtime/Globals.cpp, which would bring the monitor's semaphore.
bool initWatchDog;
std::int32_t watchdog_timer_inteval;
std::int32_t watchdogDeferTime;
bool block_signal;

namespace {

constexpr std::size_t kLongestWord = 4096;

void beginAnew() {
    resetOptionSettings();
    ::opterr = 0; // no complaints
    ::optind = 0; // from the beginning
}

/// What a command line gives, up to the option that ends it.
struct CommandLine {
    Purpose purpose = Purpose::Monitor;
    std::map<char, std::string> given; ///< the last argument of each option

    bool has(char option) const { return given.count(option) != 0; }
};

/// Takes the options of a word, and the word behind it where the last one needs that. False when
/// one of them ends the command line.
bool takeWord(CommandLine& line, const std::vector<std::string>& words, std::size_t& index) {
    const std::string& word = words[index];
    for (std::size_t position = 1; position < word.size(); ++position) {
        const char option = word[position];
        if (option == 't') {
            line.purpose = Purpose::DiagnosePort22;
            return false;
        }
        if (std::string("dba").find(option) != std::string::npos) {
            line.given[option] = "";
            continue;
        }
        const bool isLast = position + 1 == word.size();
        if (std::string("wvsphiIfx").find(option) == std::string::npos ||
            (isLast && index + 1 == words.size())) {
            line.purpose = Purpose::ShowVersion;
            return false;
        }
        line.given[option] = isLast ? words[++index] : word.substr(position + 1);
        return true;
    }
    return true;
}

CommandLine readPlainly(const std::vector<std::string>& words) {
    CommandLine line;
    for (std::size_t index = 0; index < words.size() && words[index] != "--"; ++index) {
        const bool hasOptions = words[index].size() > 1 && words[index].front() == '-';
        if (hasOptions && !takeWord(line, words, index)) {
            break;
        }
    }
    return line;
}

/// The number at the beginning of a text, 0 without one, the nearest of 32 bits.
std::int32_t numberOf(const std::string& text) {
    std::size_t position = 0;
    while (position < text.size() &&
           std::isspace(static_cast<unsigned char>(text[position])) != 0) {
        ++position;
    }
    const bool isNegative = text[position] == '-'; // a text ends with a NUL
    if (isNegative || text[position] == '+') {
        ++position;
    }
    std::int64_t value = 0;
    for (; text[position] >= '0' && text[position] <= '9'; ++position) {
        value = std::min<std::int64_t>(value * 10 + (text[position] - '0'), INT64_C(1) << 32);
    }
    value = isNegative ? -value : value;
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, INT32_MIN, INT32_MAX));
}

/// The number that an option gives, within bounds; `otherwise` without that option.
std::int32_t expected(const CommandLine& line, char option, std::int32_t otherwise,
                      std::int32_t least = INT32_MIN, std::int32_t most = INT32_MAX) {
    const auto found = line.given.find(option);
    return found == line.given.end() ? otherwise : std::clamp(numberOf(found->second), least, most);
}

bool isExpected(const char* name, const CommandLine& line, char option) {
    const auto found = line.given.find(option);
    return found == line.given.end() ? name == nullptr : name != nullptr && found->second == name;
}

void compareNumbers(const CommandLine& line, const Options& options) {
    require(options.statusIntervalSec == expected(line, 'i', 5), "-i");
    require(g_verbose == expected(line, 'v', 3), "-v");
    require(watchdog_timer_inteval == expected(line, 'I', 5), "-I");
    require(watchdogDeferTime == expected(line, 'w', 120, INT32_MIN, 300), "-w");
    require(app_heartbeat_minimum_start_time == expected(line, 's', 30, 1, 3600), "-s");
    require(app_pidfile_minimum_start_time == expected(line, 'p', 7, 1, 60), "-p");
    require(app_heartbeat_expire_interval == expected(line, 'h', 30, 1, 86400), "-h");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    std::vector<std::string> words;
    while (!input.atEnd()) {
        words.push_back(fuzz::untilNul(input.line(kLongestWord)));
    }
    const CommandLine line = readPlainly(words);

    std::string program = "ovard";
    std::vector<std::string> own = words; // getopt only sorts the pointers
    std::vector<char*> arguments = {program.data()};
    for (std::string& word : own) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    beginAnew();
    const Options options = parseOptions(static_cast<int>(own.size()) + 1, arguments.data());

    require(options.purpose == line.purpose, "what the command line is for");
    require(options.daemonize == !line.has('d'), "-d");
    require(block_signal == line.has('b'), "-b");
    require(initWatchDog == line.has('w'), "the watchdog is served with -w");
    require(options.discover == !(line.has('a') || line.has('f') || line.has('x')), "-a");
    require(isExpected(pszAppendToAppConfigurationFile, line, 'f'), "-f");
    require(isExpected(pszExecuteAppConfigurationFile, line, 'x'), "-x");
    compareNumbers(line, options);
    return 0;
}
