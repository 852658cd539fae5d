#include "tests/unit/signalsafety/CallTrace.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <vector>

#include "tests/unit/signalsafety/Stepping.h"

namespace signalsafety {
namespace {

/// More than any traced code takes: a loop that never ends must not hold the test.
constexpr long kMostSteps = 2000000;

constexpr int kCodeReturned = 42;

/// The traced child stops here before the code and after it.
[[gnu::noinline]] void stopForTracer() {
    (void)std::raise(SIGSTOP);
}

[[gnu::noinline]] void beginOfCode() {
    asm volatile("" ::: "memory"); // Neither removed nor merged with its twin.
}

[[gnu::noinline]] void endOfCode() {
    asm volatile("nop" ::: "memory");
}

[[noreturn]] void runTraced(void (*prepare)(), void (*code)()) {
    prepare();
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
        ::_exit(errno);
    }
    stopForTracer();
    beginOfCode();
    code();
    endOfCode();
    ::_exit(kCodeReturned);
}

/// Where this program's own code lies.
class OwnCode {
public:
    OwnCode() { ::dl_iterate_phdr(addSegments, this); }

    bool contains(Address address) const {
        for (const Range& range : ranges_) {
            if (address >= range.begin && address < range.end) {
                return true;
            }
        }
        return false;
    }

private:
    struct Range {
        Address begin;
        Address end;
    };

    /// The program itself is the first object of the list.
    static int addSegments(dl_phdr_info* object, std::size_t /*size*/, void* self) {
        for (int index = 0; index < object->dlpi_phnum; ++index) {
            const auto& header = object->dlpi_phdr[index];
            if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
                const Address begin = object->dlpi_addr + header.p_vaddr;
                static_cast<OwnCode*>(self)->ranges_.push_back({begin, begin + header.p_memsz});
            }
        }
        return 1;
    }

    std::vector<Range> ranges_;
};

/// The function that begins at an address. The form that the library has chosen of one that has
/// several goes by none of the names in its tables, but is found by the name of the function.
std::string nameOf(Address address, const std::set<std::string>& knownNames) {
    for (const std::string& name : knownNames) {
        if (reinterpret_cast<Address>(::dlsym(RTLD_DEFAULT, name.c_str())) == address) {
            return name;
        }
    }
    Dl_info info = {};
    if (::dladdr(reinterpret_cast<void*>(address), &info) == 0) {
        return "unknown code";
    }
    const bool isItsBegin = reinterpret_cast<Address>(info.dli_saddr) == address;
    return info.dli_sname != nullptr && isItsBegin ? info.dli_sname
                                                   : std::string("some code of ") + info.dli_fname;
}

template <typename Function> Address addressOf(Function* function) {
    return reinterpret_cast<Address>(function);
}

/// Follows the stopped child to the end of its code.
void follow(pid_t child, const std::set<std::string>& knownNames, CallTrace& trace) {
    const OwnCode own;
    bool withinCode = false;
    bool wasOwn = true;
    for (long steps = 0; steps < kMostSteps && step(child); ++steps) {
        const Address at = instructionPointer(child);
        if (at == addressOf(endOfCode)) {
            return;
        }
        withinCode = withinCode || at == addressOf(beginOfCode);
        const bool isOwn = own.contains(at);
        if (withinCode) {
            trace.instructions += isOwn ? 1 : 0;
            if (wasOwn && !isOwn) {
                trace.calls.insert(nameOf(at, knownNames));
            }
        }
        wasOwn = isOwn;
    }
    trace.failure = "the code did not come to its end";
}

} // namespace

CallTrace traceCalls(void (*prepare)(), void (*code)(), const std::set<std::string>& knownNames) {
    CallTrace trace;
    const pid_t child = ::fork();
    if (child == 0) {
        runTraced(prepare, code);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, WUNTRACED) != child || !WIFSTOPPED(status)) {
        trace.failure = "the process cannot be traced";
        return trace;
    }
    (void)::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL); // killed below anyway
    follow(child, knownNames, trace);
    (void)::kill(child, SIGKILL); // it may have ended by itself
    (void)::waitpid(child, &status, 0);
    return trace;
}

} // namespace signalsafety
