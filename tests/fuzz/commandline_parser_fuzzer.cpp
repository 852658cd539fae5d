// The splitting of command texts, compared with a splitter that is as plain as can be. The first
// byte, in bits, makes the first one or all attempts at a kind of memory fail; the rest is the
// text.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "appmanager/AppManager.h"
#include "tests/fuzz/Input.h"
#include "tests/fuzz/MonitorScene.h"
#include "tests/fuzz/Require.h"

using fakes::world;
using fuzz::require;

namespace {

constexpr std::size_t kMostWords = 40;

/// Attempts at memory that a parser makes before it gives up.
constexpr int kAttempts = 3;

std::vector<std::string> splitPlainly(std::string_view text) {
    constexpr const char* kDelimiters = " \t\v\f";
    std::vector<std::string> words;
    std::size_t begin = text.find_first_not_of(kDelimiters);
    while (begin != std::string_view::npos && words.size() < kMostWords) {
        const std::size_t end = std::min(text.find_first_of(kDelimiters, begin), text.size());
        words.emplace_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(kDelimiters, end);
    }
    return words;
}

/// True when the script of failures leaves no memory for `text`.
bool scriptFailures(unsigned bits, std::size_t words) {
    constexpr std::size_t kFirstWords = 20;
    world().mallocs.failNext = (bits & 1) != 0 ? kAttempts : 0;
    world().strdups.failNext = (bits & 2) != 0 ? kAttempts : 0;
    world().reallocs.failNext = (bits & 4) != 0 ? kAttempts : kAttempts - 1;
    return (bits & 3) != 0 || ((bits & 4) != 0 && words >= kFirstWords);
}

void compare(const std::vector<std::string>& expected, int count, char** words) {
    require(count == static_cast<int>(expected.size()), "the number of words");
    for (std::size_t index = 0; index < expected.size(); ++index) {
        require(expected[index] == words[index], "every word");
    }
    // Without a word, entry 0 still owns the copy of the text.
    require(words[std::max(count, 1)] == nullptr, "the array ends with a null pointer");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::MonitorScene scene;
    const unsigned failures = input.bits();
    const std::string text = fuzz::untilNul(std::string(input.rest()));
    const std::vector<std::string> expected = splitPlainly(text);
    const bool lacksMemory = scriptFailures(failures, expected.size());

    char** words = nullptr;
    const int count = scene.manager().commandline_parser(text.c_str(), words);
    if (lacksMemory) {
        require(count == 0 && words == nullptr, "without memory there is nothing");
    } else {
        compare(expected, count, words);
    }
    scene.manager().commandline_parser_cleanup(count, words);
    require(words == nullptr, "the array is gone");
    scene.examine();
    return 0;
}
