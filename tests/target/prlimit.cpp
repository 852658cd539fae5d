// Changes limits of a running process: what the system tests need of the tool of that name, which
// the test machine's busybox does not have.
//
//   prlimit --nproc=SOFT: --pid PID

#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    unsigned long soft = 0;
    int pid = 0;
    if (argc != 4 || std::sscanf(argv[1], "--nproc=%lu:", &soft) != 1 || // NOLINT(cert-err34-c)
        std::strcmp(argv[2], "--pid") != 0 ||
        std::sscanf(argv[3], "%d", &pid) != 1) { // NOLINT(cert-err34-c)
        (void)std::fputs("prlimit: only --nproc=SOFT: --pid PID is understood\n", stderr);
        return EXIT_FAILURE;
    }
    rlimit limit{};
    if (::prlimit(pid, RLIMIT_NPROC, nullptr, &limit) == -1) {
        std::perror("prlimit");
        return EXIT_FAILURE;
    }
    limit.rlim_cur = static_cast<rlim_t>(soft);
    if (::prlimit(pid, RLIMIT_NPROC, &limit, nullptr) == -1) {
        std::perror("prlimit");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
