// Splitting of command texts into words.

#include <cstring>

#include "appmanager/AppManager.h"
#include "appmanager/CommandWords.h"
#include "platform/Memory.h"
#include "platform/Settings.h"
#include "platform/Time.h"
#include "platform/Trace.h"

namespace {

constexpr int kAttempts = 3;

/// Words that fit at first, and after the array was grown, once. A command has at most
/// kMostWords; one more slot always holds the terminating null pointer.
constexpr int kFirstWords = 20;
constexpr int kMostWords = 40;

/// Line feed and carriage return are not among them.
constexpr const char* kDelimiters = " \t\v\f";

constexpr std::size_t arraySize(int words) {
    return static_cast<std::size_t>(words + 1) * sizeof(char*);
}

/// Tries an allocation up to three times.
template <typename Allocation> auto allocatePersistently(Allocation allocate) {
    auto* block = allocate();
    for (int attempt = 1; attempt < kAttempts && block == nullptr; ++attempt) {
        platform::yieldProcessor();
        block = allocate();
    }
    return block;
}

/// Doubles the array; false when there is no memory, when `argv` is as it was.
bool growArray(char**& argv) {
    void* const grown = allocatePersistently(
        [&argv] { return platform::reallocateMemory(argv, arraySize(kMostWords)); });
    if (grown == nullptr) {
        return false;
    }
    argv = static_cast<char**>(grown);
    std::memset(argv + kFirstWords, 0, arraySize(kMostWords) - kFirstWords * sizeof(char*));
    return true;
}

} // namespace

int AppManager::commandline_parser(const char* text, char**& argv) {
    argv = static_cast<char**>(
        allocatePersistently([] { return platform::allocateMemory(arraySize(kFirstWords)); }));
    if (argv == nullptr) {
        writeLog(kLogError, "ovard(): commandline_parser malloc errpr!");
        return 0;
    }
    std::memset(argv, 0, arraySize(kFirstWords));

    // Without leading delimiters the first word begins where the copy does, so that entry 0 is both
    // the first argument and the owner of all words.
    const char* const firstWord = text + std::strspn(text, kDelimiters);
    char* const copy =
        allocatePersistently([firstWord] { return platform::duplicateText(firstWord); });
    if (copy == nullptr) {
        writeLog(kLogError, "ovard(): commandline_parser strdup errpr!");
        platform::releaseMemory(argv);
        argv = nullptr;
        return 0;
    }
    argv[0] = copy;
    return splitWords(argv);
}

/// Cuts the copy in entry 0 into words, in place. Returns their number.
int AppManager::splitWords(char**& argv) {
    char* const copy = argv[0];
    char* rest = nullptr;
    int count = 0;
    for (char* next = copy;; next = nullptr) {
        char* const word = ::strtok_r(next, kDelimiters, &rest);
        platform::trace(verbose > 7, "commandline_parser: [%d] strok=%s\n", count,
                        word == nullptr ? "<NULL>" : word);
        if (word == nullptr || count == kMostWords) {
            return count;
        }
        argv[count] = word;
        ++count;
        if (count == kFirstWords && !growArray(argv)) {
            writeLog(kLogError, "ovard(): commandline_parser realloc errpr!");
            platform::releaseMemory(copy);
            platform::releaseMemory(argv);
            argv = nullptr;
            return 0;
        }
    }
}

void AppManager::commandline_parser_cleanup(int /*argc*/, char**& argv) {
    if (argv == nullptr) {
        return;
    }
    platform::releaseMemory(argv[0]);
    argv[0] = nullptr;
    platform::releaseMemory(argv);
    argv = nullptr;
}

bool CommandWords::isCut() const {
    if (count_ < kMostWords) {
        return false;
    }
    int words = 0;
    const char* next = text_ + std::strspn(text_, kDelimiters);
    for (; *next != '\0'; ++words) {
        next += std::strcspn(next, kDelimiters);
        next += std::strspn(next, kDelimiters);
    }
    return words > kMostWords;
}
