// The least that an application does to be supervised. For C and C++.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <ovard_application.h>

enum { PATH_SIZE = 1024 };

static int writePidFile(const char* program, int pid) {
    const char* const root = getenv("METER_ROOT");
    char path[PATH_SIZE];
    snprintf(path, sizeof path, "/tmp/pid%s%s.pid", root != NULL ? root : "", program);
    return set_pid_file_version(&pid, path, O_WRONLY | O_CREAT, "1.0");
}

static void removePidFile(void) {
    char path[PATH_SIZE];
    int length = PATH_SIZE;
    const int pid = getpid();
    if (get_pid_filename(&pid, path, &length) == 0) {
        unlink(path);
    }
}

int main(int argc, char** argv) {
    const struct timespec second = {1, 0};
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigprocmask(SIG_BLOCK, &ending, NULL); // from here on only sigtimedwait takes it

    const pid_t child = argc == 1 ? fork() : -1; // this application takes no arguments
    if (child != 0) { // the launched process: when it ends, the pid file stands
        return child > 0 && writePidFile(argv[0], child) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    setsid();
    do {
        heartbeat_notify(); // and whatever the application is for
    } while (sigtimedwait(&ending, NULL, &second) != SIGTERM);

    heartbeat_cleanup(-1);
    removePidFile();
    return EXIT_SUCCESS;
}
