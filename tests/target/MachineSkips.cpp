#include "tests/target/MachineSkips.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/system/Support.h"

namespace target {
namespace {

constexpr const char* kAllOfASuite = ".*";

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

constexpr std::pair<const char*, Skip::Kind> kKinds[] = {{"left-out", Skip::Kind::LeftOut},
                                                         {"needs-shell", Skip::Kind::NeedsShell},
                                                         {"needs-root", Skip::Kind::NeedsRoot},
                                                         {"skips-itself", Skip::Kind::SkipsItself},
                                                         {"no-suite", Skip::Kind::NoSuite}};

Skip parseSkip(const std::string& line) {
    std::istringstream words(line);
    std::string word;
    Skip skip{};
    words >> word >> skip.name >> std::ws;
    std::getline(words, skip.reason);
    const auto* const kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                          [&](const auto& known) { return word == known.first; });
    if (kind == std::end(kKinds) || skip.reason.empty() ||
        (kind->second == Skip::Kind::SkipsItself && endsWith(skip.name, kAllOfASuite))) {
        throw std::invalid_argument("a skip that means nothing: " + line);
    }
    skip.kind = kind->second;
    return skip;
}

/// Whether a line of the list is about this test.
bool isAbout(const Skip& skip, const std::string& test) {
    if (!endsWith(skip.name, kAllOfASuite)) {
        return test == skip.name;
    }
    const std::size_t length = skip.name.size() - 1; // with the point
    return test.compare(0, length, skip.name, 0, length) == 0;
}

/// Whether the machine, where root runs all tests, has what the test needs.
bool isNoSkip(const Skip& skip, bool hasShell) {
    return skip.kind == Skip::Kind::NeedsRoot || (skip.kind == Skip::Kind::NeedsShell && hasShell);
}

} // namespace

std::vector<Skip> parseSkips(const std::string& text) {
    std::vector<Skip> skips;
    for (const std::string& line : systemtest::linesOf(text)) {
        if (line.compare(0, 1, "#") != 0) {
            skips.push_back(parseSkip(line));
        }
    }
    return skips;
}

std::vector<Skip> applySkips(const std::vector<Skip>& skips, bool hasShell) {
    std::vector<Skip> applied;
    for (Skip skip : skips) {
        if (isNoSkip(skip, hasShell)) {
            continue;
        }
        if (skip.kind == Skip::Kind::NeedsShell) {
            skip.kind = Skip::Kind::LeftOut;
            skip.reason = "there is no shell; it " + skip.reason;
        }
        applied.push_back(skip);
    }
    return applied;
}

std::vector<std::string> namesOf(const std::vector<Skip>& skips, Skip::Kind kind) {
    std::vector<std::string> names;
    for (const Skip& skip : skips) {
        if (skip.kind == kind) {
            names.push_back(skip.name);
        }
    }
    return names;
}

std::string describe(const Skip& skip) {
    if (skip.kind == Skip::Kind::SkipsItself) {
        return "expected to skip itself: " + skip.name + ": " + skip.reason;
    }
    return "left out (" + skip.reason + "): " + skip.name;
}

std::string filterFor(const std::string& tests, const std::vector<Skip>& skips) {
    std::string filter = "--gtest_filter=" + tests;
    const char* separator = "-"; // what comes behind it is left out
    for (const std::string& name : namesOf(skips, Skip::Kind::LeftOut)) {
        filter += separator + name;
        separator = ":";
    }
    return filter;
}

std::vector<std::string> parseTestList(const std::string& text) {
    std::vector<std::string> tests;
    std::string suite;
    for (const std::string& line : systemtest::linesOf(text)) {
        std::string name;
        std::istringstream(line) >> name;
        if (line.compare(0, 1, " ") == 0) {
            tests.push_back(suite + name);
        } else if (endsWith(name, ".")) {
            suite = name;
        }
    }
    return tests;
}

void requireTests(const std::vector<Skip>& skips, const std::vector<std::string>& tests) {
    if (tests.empty()) {
        throw std::invalid_argument("there are no tests");
    }
    for (const Skip& skip : skips) {
        if (skip.kind == Skip::Kind::NoSuite) {
            continue;
        }
        const bool isThere = std::any_of(tests.begin(), tests.end(), [&](const std::string& test) {
            return isAbout(skip, test);
        });
        if (!isThere) {
            throw std::invalid_argument("a skip that names no test: " + skip.name);
        }
    }
}

} // namespace target
