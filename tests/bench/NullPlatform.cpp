// A platform that does nothing, for the parts with consequences: processes, the machine, sockets,
// console and log. Linked in place of the platform's own sources, so that a benchmark times the
// monitor's own work and cannot touch anything; memory, clocks, threads and the yielding of the
// processor stay the real ones. Process work is not timed at all: it ends the program.

#include <sys/utsname.h>

#include <cstdlib>

#include "platform/Console.h"
#include "platform/Log.h"
#include "platform/Socket.h"
#include "platform/System.h"

namespace {

/// Any valid figure; no descriptor is ever opened.
constexpr int kDescriptor = 1000;

[[noreturn]] void refuseProcessWork() {
    std::abort();
}

} // namespace

namespace platform {

pid_t forkProcess() {
    refuseProcessWork();
}

int executeProgram(const char* /*path*/, char* const* /*argv*/) {
    refuseProcessWork();
}

pid_t waitForProcess(pid_t /*pid*/, int* /*status*/, int /*options*/) {
    refuseProcessWork();
}

int sendSignal(pid_t /*pid*/, int /*signal*/) {
    refuseProcessWork();
}

int setProcessPriority(pid_t /*pid*/, int /*priority*/) {
    refuseProcessWork();
}

void leaveProcess(int /*status*/) {
    refuseProcessWork();
}

void exitMonitor(int /*status*/) {
    refuseProcessWork();
}

int openPipe(int* /*ends*/) {
    refuseProcessWork();
}

ssize_t readDescriptor(int /*fd*/, void* /*buffer*/, std::size_t /*size*/) {
    refuseProcessWork();
}

ssize_t writeDescriptor(int /*fd*/, const void* /*buffer*/, std::size_t /*size*/) {
    refuseProcessWork();
}

pid_t currentProcessId() {
    return 1;
}

int closeDescriptor(int /*fd*/) {
    return 0;
}

int removeFile(const char* /*path*/) {
    return 0;
}

bool pathExists(const char* /*path*/) {
    return false;
}

FileIdentity identifyFile(const char* /*path*/) {
    return {1, 1};
}

void flushFileSystems() {}

int runShellCommand(const char* /*command*/) {
    refuseProcessWork();
}

int identifyKernel(utsname& /*identity*/) {
    return -1;
}

long uptimeSeconds() {
    return 1;
}

long clockTicksPerSecond() {
    return 100;
}

int openUnixStreamSocket() {
    return kDescriptor;
}

int addNonBlockingFlag(int /*fd*/) {
    return 0;
}

int allowAddressReuse(int /*fd*/) {
    return 0;
}

int bindSocket(int /*fd*/, const sockaddr_un& /*address*/) {
    return 0;
}

int listenOnSocket(int /*fd*/, int /*backlog*/) {
    return 0;
}

int acceptConnection(int /*fd*/, sockaddr_un& /*peer*/) {
    return kDescriptor;
}

ssize_t receiveBytes(int /*fd*/, void* /*buffer*/, std::size_t /*size*/) {
    return 0;
}

ssize_t sendBytes(int /*fd*/, const void* /*buffer*/, std::size_t size) {
    return static_cast<ssize_t>(size);
}

int duplicateConnection(int /*fd*/) {
    return -1;
}

void shutDownWriting(int /*fd*/) {}

void printConsole(std::string_view /*text*/) {}

void printError(const char* /*text*/) {}

void printErrorText(std::string_view /*text*/) {}

} // namespace platform

int open_zor_log(zor_log* handle, const char* ident, int options, int facility) {
    *handle = {ident, options, facility, 1};
    return 0;
}

int write_zor_log(const zor_log& /*handle*/, int /*level*/, const char* /*text*/,
                  int /*reserved*/) {
    return 0;
}

int close_zor_log(zor_log* /*handle*/) {
    return 0;
}
