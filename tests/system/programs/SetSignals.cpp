// Becomes another program that ignores some signals and blocks others, which not every env can do:
//
//   ovard_set_signals IGNORED BLOCKED PROGRAM [ARGUMENT]...
//
// IGNORED and BLOCKED are numbers of signals, separated by commas; either may be empty.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kFailed = 125;

/// What is no number becomes 0, which is no signal.
std::vector<int> parseSignals(const char* text) {
    std::vector<int> signals;
    std::istringstream stream(text);
    for (std::string one; std::getline(stream, one, ',');) {
        signals.push_back(static_cast<int>(std::strtol(one.c_str(), nullptr, 10)));
    }
    return signals;
}

bool ignore(const std::vector<int>& signals) {
    for (const int signal : signals) {
        if (std::signal(signal, SIG_IGN) == SIG_ERR) {
            return false;
        }
    }
    return true;
}

bool block(const std::vector<int>& signals) {
    sigset_t set;
    (void)::sigemptyset(&set);
    for (const int signal : signals) {
        if (::sigaddset(&set, signal) == -1) {
            return false;
        }
    }
    return ::sigprocmask(SIG_BLOCK, &set, nullptr) == 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        (void)std::fputs("Usage: ovard_set_signals IGNORED BLOCKED PROGRAM [ARGUMENT]...\n",
                         stderr);
        return kFailed;
    }
    if (ignore(parseSignals(argv[1])) && block(parseSignals(argv[2]))) {
        (void)::execv(argv[3], argv + 3);
    }
    std::perror("ovard_set_signals");
    return kFailed;
}
