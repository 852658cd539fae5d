// Command lines for the tests of what ovardctl makes of them.

#ifndef OVARD_TESTS_UNIT_CLIENT_COMMAND_LINE_SUPPORT_H
#define OVARD_TESTS_UNIT_CLIENT_COMMAND_LINE_SUPPORT_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/ovardctl/CommandLine.h"

namespace client_test {

/// What the tool makes of these arguments.
inline ovardctl::CommandLine parse(std::vector<std::string> words,
                                   const char* meterRoot = nullptr) {
    words.insert(words.begin(), "ovardctl");
    std::vector<const char*> argv;
    for (const std::string& word : words) {
        argv.push_back(word.c_str());
    }
    argv.push_back(nullptr);
    return ovardctl::parseCommandLine(static_cast<int>(words.size()), argv.data(), meterRoot);
}

/// It refuses them with a whole line that holds `part`.
inline void expectUsageError(const ovardctl::CommandLine& commandLine, const std::string& part) {
    EXPECT_EQ(commandLine.verdict, ovardctl::Verdict::UsageError);
    EXPECT_NE(commandLine.text.find(part), std::string::npos) << commandLine.text;
    ASSERT_FALSE(commandLine.text.empty());
    EXPECT_EQ(commandLine.text.back(), '\n');
}

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_COMMAND_LINE_SUPPORT_H
