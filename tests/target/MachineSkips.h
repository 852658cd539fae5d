// Lists of tests that the test machine cannot do: tests/target/machine-skips and unit-skips.

#ifndef OVARD_TESTS_TARGET_MACHINE_SKIPS_H
#define OVARD_TESTS_TARGET_MACHINE_SKIPS_H

#include <string>
#include <vector>

namespace target {

/// One line of the list.
struct Skip {
    enum class Kind {
        LeftOut,     ///< is not started
        NeedsShell,  ///< is not started where the machine has no shell
        NeedsRoot,   ///< is not started where another user runs it (tests/target/user-tests)
        SkipsItself, ///< finds out by itself
        NoSuite,     ///< is a test of CTest with no suite that could be started
    };
    Kind kind;
    std::string name; ///< "Suite.Test"; but for SkipsItself also "Suite.*", all of a suite
    std::string reason;
};

/// The lines of a list but for its comments. Throws std::invalid_argument for one that means
/// nothing.
std::vector<Skip> parseSkips(const std::string& text);

/// What that comes to on the machine: what needs a shell is left out where there is none, and no
/// skip elsewhere; what needs root is no skip, since that is who runs the tests.
std::vector<Skip> applySkips(const std::vector<Skip>& skips, bool hasShell);

/// The names of one kind.
std::vector<std::string> namesOf(const std::vector<Skip>& skips, Skip::Kind kind);

/// In one line, such as "left out (needs a server): Lease.*".
std::string describe(const Skip& skip);

/// The option for a program of GoogleTest that runs these tests, a pattern, but for those that are
/// left out.
std::string filterFor(const std::string& tests, const std::vector<Skip>& skips);

/// The tests, as "Suite.Test", in what --gtest_list_tests prints.
std::vector<std::string> parseTestList(const std::string& text);

/// Throws std::invalid_argument when there are no tests, or when a line names none of them. Lines
/// about what is no suite do not count: tests/target/test_skips judges them.
void requireTests(const std::vector<Skip>& skips, const std::vector<std::string>& tests);

} // namespace target

#endif // OVARD_TESTS_TARGET_MACHINE_SKIPS_H
