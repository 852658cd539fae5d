#include "tests/unit/signalsafety/Stepping.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#if defined(__x86_64__)
#include <sys/user.h>
#elif defined(__powerpc__) && !defined(__powerpc64__)
#include <asm/ptrace.h>
#else
#error "Nobody has told how a process is followed on this processor."
#endif

#include <csignal>
#include <cstddef>
#include <map>
#include <set>

namespace signalsafety {
namespace {

/// Lets a stopped process go on until it stops again; false unless that is because of the request.
template <typename Request> bool resume(pid_t process, Request request) {
    int status = 0;
    return ::ptrace(request, process, nullptr, nullptr) == 0 &&
           ::waitpid(process, &status, 0) == process && WIFSTOPPED(status) &&
           WSTOPSIG(status) == SIGTRAP;
}

#if defined(__x86_64__)

constexpr std::size_t kInstructionPointer = offsetof(user, regs.rip);

bool stepFrom(pid_t process, Address /*at*/) {
    return resume(process, PTRACE_SINGLESTEP);
}

#else

using Instruction = std::uint32_t;

constexpr std::size_t kInstructionPointer = PT_NIP * sizeof(long);

constexpr Instruction kTrap = 0x7fe00008;

/// More than any sequence takes.
constexpr Address kLongestSequence = 16 * sizeof(Instruction);

/// lwarx, which reserves an address for the store that ends its sequence.
bool reserves(Instruction instruction) {
    return (instruction & 0xfc0007fe) == 0x7c000028;
}

/// stwcx., which stores where nothing has come between.
bool storesReserved(Instruction instruction) {
    return (instruction & 0xfc0007ff) == 0x7c00012d;
}

bool isConditionalBranch(Instruction instruction) {
    return instruction >> 26 == 16;
}

/// Where a conditional branch at an address leads to.
Address targetOf(Instruction branch, Address at) {
    return at + static_cast<Address>(static_cast<std::int16_t>(branch & 0xfffc));
}

Instruction readCode(pid_t process, Address at) {
    return static_cast<Instruction>(::ptrace(PTRACE_PEEKTEXT, process, at, nullptr));
}

/// Traps in a stopped process, as long as this lives.
class Traps {
public:
    Traps(pid_t process, const std::set<Address>& places)
        : process_(process) {
        for (const Address place : places) {
            replaced_[place] = readCode(process, place);
            write(place, kTrap);
        }
    }
    ~Traps() {
        for (const auto& [place, instruction] : replaced_) {
            write(place, instruction);
        }
    }
    Traps(const Traps&) = delete;
    Traps& operator=(const Traps&) = delete;

private:
    /// Fails when the process has ended, which its next step tells.
    void write(Address place, Instruction instruction) const {
        (void)::ptrace(PTRACE_POKETEXT, process_, place, instruction);
    }

    pid_t process_;
    std::map<Address, Instruction> replaced_;
};

/// Where a process comes out of a sequence that reserves an address at its beginning: behind the
/// store, or where a branch leads out. Nothing when there is no store.
std::set<Address> exitsOf(pid_t process, Address begin) {
    std::set<Address> exits;
    Address at = begin;
    for (Instruction instruction = 0; !storesReserved(instruction); at += sizeof instruction) {
        if (at - begin > kLongestSequence) {
            return {};
        }
        instruction = readCode(process, at);
        if (isConditionalBranch(instruction)) {
            exits.insert(targetOf(instruction, at));
        }
    }
    exits.erase(exits.lower_bound(begin), exits.lower_bound(at)); // These stay within.
    exits.insert(at);
    return exits;
}

/// Every stop of a process takes its reservation away.
bool stepFrom(pid_t process, Address at) {
    if (!reserves(readCode(process, at))) {
        return resume(process, PTRACE_SINGLESTEP);
    }
    const Traps traps(process, exitsOf(process, at));
    return resume(process, PTRACE_CONT);
}

#endif

} // namespace

Address instructionPointer(pid_t process) {
    return static_cast<Address>(::ptrace(PTRACE_PEEKUSER, process, kInstructionPointer, nullptr));
}

bool step(pid_t process) {
    return stepFrom(process, instructionPointer(process));
}

} // namespace signalsafety
