// A healthy application: writes the conventional pid file, beats once and sleeps until it is ended,
// or until the program that started it ends. Arguments: none but its name.

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "platform/Heartbeat.h"
#include "platform/Process.h"
#include "tests/bench/HealthyApplications.h"

int main(int /*argc*/, char** argv) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string program = argv[0];
    // The name that a program of its own would have.
    ::prctl(PR_SET_NAME, program.substr(program.rfind('/') + 1).c_str());
    int pid = ::getpid();
    const std::string pidFile = "/tmp/pid" + program + ".pid";
    if (set_pid_file_version(&pid, pidFile.c_str(), O_WRONLY | O_CREAT,
                             bench::kApplicationVersion) != 0) {
        return EXIT_FAILURE;
    }
    heartbeat_notify(); // Also tells the one who waits that the pid file stands.
    for (;;) {
        ::pause();
    }
}
