#include "examples/SampleOptions.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

namespace sample {

const char kUsage[] =
    "Usage: sample_app [OPTION]... [WORD]...\n"
    "An application for the monitor to supervise. Other words are ignored.\n"
    "  --foreground            stay in the foreground\n"
    "  --daemonize-after MS    go into the background after MS milliseconds (default 0)\n"
    "  --pidfile PATH          write the pid file PATH.PID (default: the conventional name)\n"
    "  --exact-pidfile PATH    write the pid file PATH itself\n"
    "  --no-pidfile            write none\n"
    "  --pidfile-after MS      write it MS milliseconds late\n"
    "  --version V             version in the pid file (default 1.0)\n"
    "  --ignore-term           ignore SIGTERM\n"
    "  --die-of-term           leave SIGTERM at its default action, unless it is ignored\n"
    "  --heartbeat MS|none     report a heartbeat every MS milliseconds (default none)\n"
    "  --hang-after MS         report none any more after MS milliseconds\n"
    "  --hang-for MS           report them again MS milliseconds later (default never)\n"
    "  --crash-after MS        abort after MS milliseconds\n"
    "  --come-back-after MS    start anew, as another process, MS milliseconds after a crash\n"
    "  --exit-after MS         end after MS milliseconds\n"
    "  --exit-status N         status to end with (default 0)\n"
    "  --fork-stray N          leave N copies of the process running beside it\n"
    "  --report FILE           write what the process was started with\n"
    "  --help                  print this\n";

namespace {

struct Switch {
    const char* name;
    bool Options::*field;
    bool value;
};

struct Number {
    const char* name;
    int Options::*field;
    int low;
};

struct Text {
    const char* name;
    std::string Options::*field;
};

constexpr Switch kSwitches[] = {
    {"--help", &Options::help, true},
    {"--foreground", &Options::foreground, true},
    {"--no-pidfile", &Options::writePidFile, false},
    {"--ignore-term", &Options::ignoreTerm, true},
    {"--die-of-term", &Options::dieOfTerm, true},
};

constexpr Number kNumbers[] = {
    {"--daemonize-after", &Options::daemonizeAfterMs, 0},
    {"--pidfile-after", &Options::pidFileAfterMs, 0},
    {"--heartbeat", &Options::heartbeatMs, 1},
    {"--hang-after", &Options::hangAfterMs, 0},
    {"--hang-for", &Options::hangForMs, 0},
    {"--crash-after", &Options::crashAfterMs, 0},
    {"--come-back-after", &Options::comeBackAfterMs, 0},
    {"--exit-after", &Options::exitAfterMs, 0},
    {"--exit-status", &Options::exitStatus, 0},
    {"--fork-stray", &Options::strays, 0},
};

constexpr Text kTexts[] = {
    {"--pidfile", &Options::pidFile},
    {"--exact-pidfile", &Options::exactPidFile},
    {"--version", &Options::version},
    {"--report", &Options::report},
};

template <typename Entry, std::size_t Count>
const Entry* find(const Entry (&table)[Count], std::string_view word) {
    for (const Entry& entry : table) {
        if (word == entry.name) {
            return &entry;
        }
    }
    return nullptr;
}

bool parseNumber(std::string_view text, int low, int& number) {
    int value = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || value < low) {
        return false;
    }
    number = value;
    return true;
}

bool storeNumber(const Number& number, std::string_view text, Options& options) {
    if (number.field == &Options::heartbeatMs && text == "none") {
        options.heartbeatMs = kNever;
        return true;
    }
    return parseNumber(text, number.low, options.*number.field);
}

} // namespace

bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error) {
    options.pidFile = conventionalPidFile(argv[0]);
    for (int index = 1; index < argc; ++index) {
        const std::string word = argv[index];
        if (const Switch* option = find(kSwitches, word)) {
            options.*option->field = option->value;
            continue;
        }
        const Number* number = find(kNumbers, word);
        const Text* text = find(kTexts, word);
        if (number == nullptr && text == nullptr) {
            continue;
        }
        if (++index == argc) {
            error = word + " needs a value";
            return false;
        }
        if (text != nullptr) {
            options.*text->field = argv[index];
        } else if (!storeNumber(*number, argv[index], options)) {
            error = word + ": \"" + argv[index] + "\" is not a number that it takes";
            return false;
        }
    }
    return true;
}

std::string conventionalPidFile(const char* program) {
    const char* root = std::getenv("METER_ROOT");
    return std::string("/tmp/pid") + (root != nullptr ? root : "") + program + ".pid";
}

} // namespace sample
