#include "tests/system/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/system/Support.h"

namespace systemtest {
namespace {

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

TerminalProgram::~TerminalProgram() {
    if (pid_ > 0 && !ending_.ended) {
        (void)sendSignal(pid_, SIGKILL); // it may have ended meanwhile
        (void)waitForEnd();              // nothing more can be done
    }
    if (terminal_ >= 0) {
        (void)::close(terminal_);
    }
}

bool TerminalProgram::start(const std::string& path, const std::vector<std::string>& arguments,
                            const std::vector<std::string>& environment) {
    std::vector<std::string> words = {path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    // Of two values of a name the first one counts.
    std::vector<std::string> variables = environment;
    variables.emplace_back("TERM=xterm");
    const std::vector<char*> argv = pointersTo(words);
    const std::vector<char*> envp = pointersTo(variables);
    winsize size = {};
    size.ws_row = 24;
    size.ws_col = 80;
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    if (pid_ == 0) {
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    return pid_ > 0 && ::fcntl(terminal_, F_SETFD, FD_CLOEXEC) == 0 &&
           ::fcntl(terminal_, F_SETFL, O_NONBLOCK) == 0;
}

const std::string& TerminalProgram::output() {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(terminal_, buffer, sizeof buffer)) > 0) {
        output_.append(buffer, static_cast<std::size_t>(count));
    }
    return output_;
}

bool TerminalProgram::shows(const std::string& text, int timeoutMs) {
    return eventually([&] { return output().find(text, forgotten_) != std::string::npos; },
                      timeoutMs);
}

void TerminalProgram::forget() {
    forgotten_ = output().size();
}

bool TerminalProgram::type(const std::string& keys) const {
    return ::write(terminal_, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
}

Ending TerminalProgram::waitForEnd(int timeoutMs) {
    const std::int64_t begin = monotonicMs();
    int status = 0;
    const bool ended = eventually(
        [&] {
            (void)output(); // a program that cannot write does not end
            return ::waitpid(pid_, &status, WNOHANG) == pid_;
        },
        timeoutMs);
    (void)output();
    ending_ = {};
    ending_.tookMs = monotonicMs() - begin;
    ending_.ended = ended;
    ending_.statusKnown = ended;
    ending_.exited = ended && WIFEXITED(status);
    ending_.status = ending_.exited ? WEXITSTATUS(status) : 0;
    ending_.signal = ended && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return ending_;
}

} // namespace systemtest
