// Mutexes that the system neither locks nor unlocks.
//
// The linker hands every such call to RefusedLocks.cpp.

#ifndef OVARD_TESTS_PLATFORM_REFUSED_LOCKS_H
#define OVARD_TESTS_PLATFORM_REFUSED_LOCKS_H

namespace testsupport {

/// While it lives, the calling thread locks and unlocks nothing, but gets `error`. Meanwhile
/// nothing is to be called but what is tested: the test library has mutexes, too.
class RefusedLocks {
public:
    explicit RefusedLocks(int error);
    ~RefusedLocks();
    RefusedLocks(const RefusedLocks&) = delete;
    RefusedLocks& operator=(const RefusedLocks&) = delete;
};

} // namespace testsupport

#endif // OVARD_TESTS_PLATFORM_REFUSED_LOCKS_H
