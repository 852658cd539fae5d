// Restarts or halts the machine it runs on, provided that this is a sandbox.
//
//   ovard_restart_machine [--halt]

#include <sys/reboot.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kRefused = 2;

/// The first pid namespace of every Linux machine has this fixed number.
constexpr const char* kMachineItself = "pid:[4026531836]";

bool inSandbox() {
    const char* mark = std::getenv("OVARD_SANDBOX");
    if (mark == nullptr || std::strcmp(mark, "1") != 0) {
        return false;
    }
    std::array<char, 64> name{};
    const ssize_t length = readlink("/proc/self/ns/pid", name.data(), name.size() - 1);
    return length > 0 && std::strncmp(name.data(), "pid:[", 5) == 0 &&
           std::strcmp(name.data(), kMachineItself) != 0;
}

} // namespace

int main(int argc, char** argv) {
    if (!inSandbox()) {
        (void)std::fputs("restart_machine: this is not a sandbox\n", stderr);
        return kRefused;
    }
    const bool halt = argc == 2 && std::strcmp(argv[1], "--halt") == 0;
    (void)reboot(halt ? static_cast<int>(RB_HALT_SYSTEM) : RB_AUTOBOOT);
    std::perror("reboot");
    return EXIT_FAILURE;
}
