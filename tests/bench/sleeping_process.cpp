// A process to be found: sleeps until it is ended, or until the program that started it ends.

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

int main() {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        ::pause();
    }
}
