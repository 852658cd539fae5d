#include "runtime/Footprint.h"

#include <malloc.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/unit/runtime/StartupSupport.h"

namespace {

/// How many heaps the process has.
int heapCount() {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = ::open_memstream(&text, &size);
    (void)::malloc_info(0, stream); // A text without heaps fails the tests.
    (void)std::fclose(stream);
    const std::string info(text, size);
    std::free(text);
    int count = 0;
    for (std::size_t at = info.find("<heap "); at != std::string::npos;
         at = info.find("<heap ", at + 1)) {
        ++count;
    }
    return count;
}

/// The heaps of a process in which a second thread has allocated memory while the first one lives.
int heapsOfTwoThreads() {
    std::thread([] { std::free(std::malloc(100)); }).join();
    return heapCount();
}

/// Where the program's code lies, and how much of it is resident.
struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    long residentKiB = -1;
};

Code findCode() {
    const auto address = reinterpret_cast<std::uintptr_t>(&releaseStartupMemory);
    std::ifstream mappings("/proc/self/smaps");
    Code code;
    for (std::string line; std::getline(mappings, line);) {
        std::istringstream words(line);
        Code mapping;
        char dash = '\0';
        if (words >> std::hex >> mapping.begin >> dash >> mapping.end && dash == '-') {
            code = mapping;
        } else if (code.begin <= address && address < code.end && line.rfind("Rss:", 0) == 0) {
            code.residentKiB = std::strtol(line.c_str() + 4, nullptr, 10);
            return code;
        }
    }
    ADD_FAILURE() << "the program has no code";
    return {};
}

/// Makes all of the program's code resident.
void touchCode() {
    const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const Code code = findCode();
    for (std::uintptr_t page = code.begin; page < code.end; page += pageSize) {
        (void)*reinterpret_cast<const volatile char*>(page);
    }
}

using FootprintTest = runtimetest::StartupTest;

class FootprintDeathTest : public FootprintTest {
protected:
    // The program begins anew: what earlier tests have allocated does not count.
    FootprintDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    ~FootprintDeathTest() override { GTEST_FLAG_SET(death_test_style, savedStyle_); }

private:
    std::string savedStyle_ = GTEST_FLAG_GET(death_test_style);
};

// Else the next test would show nothing.
TEST_F(FootprintDeathTest, ThreadsHaveHeapsOfTheirOwnUnlessToldOtherwise) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the heap is the sanitizer's";
#endif
    EXPECT_EXIT(std::_Exit(heapsOfTwoThreads()), testing::ExitedWithCode(2), "");
}

TEST_F(FootprintDeathTest, ThreadsShareOneHeap) {
    EXPECT_EXIT(
        {
            shareOneHeap();
            std::_Exit(heapsOfTwoThreads());
        },
        testing::ExitedWithCode(1), "");
}

TEST_F(FootprintDeathTest, MonitorHasOneHeap) {
    EXPECT_EXIT(
        {
            (void)run({"-?"});
            std::_Exit(heapsOfTwoThreads());
        },
        testing::ExitedWithCode(1), "");
}

TEST_F(FootprintTest, CodeIsReleased) {
    touchCode();
    const long before = findCode().residentKiB;
    releaseStartupMemory();
    EXPECT_LT(findCode().residentKiB, before / 2);
}

TEST_F(FootprintTest, MonitorReleasesItsCodeAfterTheFirstTurn) {
    touchCode();
    const long before = findCode().residentKiB;
    long atLoop = 0;
    atLoop_ = [&atLoop] { atLoop = findCode().residentKiB; };
    EXPECT_EQ(run({"-d"}), 0);
    EXPECT_EQ(atLoop, before);
    EXPECT_LT(findCode().residentKiB, before);
}

} // namespace
