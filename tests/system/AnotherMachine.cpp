#include "tests/system/AnotherMachine.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/system/SanitizerReports.h"
#include "tests/system/Support.h"

namespace systemtest {
namespace {

/// Of what is kept of the machine, the folder for reports; every user may write there.
constexpr const char* kReports = "/tmp";
constexpr const char* kReportName = "sanitizer";

constexpr int kPatientlyMs = 40000;

} // namespace

ProgramResult runOnAnotherMachine(const std::string& lines) {
    const std::string script = "OVARD='" + daemonProgram() + "'; CONTROL='" + controlProgram() +
                               "'; SAMPLE='" + sampleProgram() + "'\n" + lines;
    std::vector<std::string> environment =
        sanitizersReportingTo(std::string(kReports) + "/" + kReportName);
    environment.push_back("OVARD_SANDBOX_INIT=" + sandboxInitProgram());
    return runProgram(sandboxProgram(),
                      {"--keep", "--bring", folderOf(daemonProgram()), "--bring",
                       folderOf(controlProgram()), "--bring", folderOf(sampleProgram()),
                       "/bin/bash", "-c", script},
                      environment, kPatientlyMs);
}

Remains::Remains(const ProgramResult& result) {
    const std::string key = "sandbox: kept in ";
    for (const std::string& line : linesOf(result.errors)) {
        if (line.find(key) == 0) {
            folder_ = line.substr(key.size());
        }
    }
}

std::string Remains::of(const std::string& path) const {
    return readFile(folder_ + path);
}

std::string Remains::sanitizerReports() const {
    std::string reports;
    for (const std::string& path : entriesOf(folder_ + kReports)) {
        if (path.find(std::string("/") + kReportName + ".") != std::string::npos) {
            reports += readFile(path);
        }
    }
    return reports;
}

void expectRestart(const ProgramResult& result) {
    EXPECT_EQ(result.ending.text(), "status 90") << result.errors;
    EXPECT_EQ(countOf(result.errors, "sandbox: the machine inside was restarted\n"), 1U)
        << result.errors;
    const Remains remains(result);
    EXPECT_EQ(remains.of("/tmp/survived"), "");
    EXPECT_EQ(remains.sanitizerReports(), "");
}

} // namespace systemtest
