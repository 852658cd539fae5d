#include "server/AppServer.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/Console.h"
#include "platform/Socket.h"
#include "platform/System.h"
#include "platform/Text.h"
#include "platform/Time.h"
#include "platform/Trace.h"
#include "platform/UniqueFd.h"
#include "platform/Wait.h"

namespace {

constexpr int kAttempts = 3;
constexpr int kBacklog = 64;
constexpr int kClientWaitMs = 2000;
constexpr int kSocketFileLookMs = 2000;

constexpr int kLogOptions = 3;    // the pid in every line, the console as fallback
constexpr int kLogFacility = 144; // local2

/// recvCommand and its steps: no request this time.
constexpr int kNoRequest = -1;

/// The process-wide instance, of a type of its own so that it can be deleted although the
/// destructor of AppServer is not virtual.
class StandaloneAppServer final : public AppServer {};

/// The client went away before it could be accepted or answered.
bool connectionVanished(int error) {
    return error == EINVAL || error == ENOTCONN;
}

} // namespace

AppServer* AppServer::m_pInstance = nullptr;

AppServer::AppServer() {
    std::memset(&peerAddress_, 0, sizeof peerAddress_);
}

AppServer::~AppServer() {
    if (listeningSocket_ != -1) {
        platform::shutDownWriting(listeningSocket_);
        platform::closeDescriptor(listeningSocket_);
        listeningSocket_ = -1;
    }
    dropClient();
    if (m_pInstance != nullptr && m_pInstance != this) {
        auto* instance = static_cast<StandaloneAppServer*>(m_pInstance);
        m_pInstance = nullptr;
        delete instance;
    }
}

AppServer* AppServer::Instance() {
    if (m_pInstance == nullptr) {
        m_pInstance = new StandaloneAppServer;
    }
    return m_pInstance;
}

int AppServer::processCmd(const reqcmd& /*request*/) {
    return 0;
}

int AppServer::initCommunication() {
    (void)Instance();
    if (platform::removeFile(kSocketPath) != 0 && errno != ENOENT) {
        platform::printError("remove socket path error");
        // Deliberate: the log is not open yet, so this line goes nowhere.
        writeLog(kLogError, "initCommunication: remove socket path error error");
    }
    zor_log log;
    open_zor_log(&log, "Ovard", kLogOptions, kLogFacility);
    log_ = log;
    writeLog(kLogInfo, "App monitor started");
    // Every local user may talk to the monitor. Deliberate: the mask stays 0.
    ::umask(0);
    return openListeningSocket();
}

int AppServer::openListeningSocket() {
    for (int attempt = 0; attempt < kAttempts && listeningSocket_ == -1; ++attempt) {
        if (attempt > 0) {
            platform::yieldProcessor();
        }
        listeningSocket_ = platform::openUnixStreamSocket();
    }
    if (listeningSocket_ == -1) {
        failSetUp(nullptr, "initCommunication() socket error, exit");
    }
    (void)make_socket_non_blocking(listeningSocket_); // It was created so.
    if (platform::allowAddressReuse(listeningSocket_) != 0) {
        failSetUp("setsockopt error", "setsockopt error, exit");
    }
    if (bindToPath(listeningSocket_) != 0) {
        failSetUp("bind error", "bind error, exit");
    }
    if (platform::listenOnSocket(listeningSocket_, kBacklog) != 0) {
        failSetUp("listen error", "listen error, exit");
    }
    socketFile_ = platform::identifyFile(kSocketPath);
    nextLookMs_ = platform::monotonicMilliseconds() + kSocketFileLookMs;
    return 0;
}

int AppServer::bindToPath(int fd) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    platform::copyToField(address.sun_path, kSocketPath);
    int result = -1;
    for (int attempt = 0; attempt < kAttempts && result != 0; ++attempt) {
        if (attempt > 0) {
            platform::yieldProcessor();
        }
        result = platform::bindSocket(fd, address);
    }
    return result;
}

/// Whether the socket file has been removed, or is another one. The open socket keeps its inode, so
/// that no other file can have its identity.
bool AppServer::isSocketFileLost() const {
    const platform::FileIdentity file = platform::identifyFile(kSocketPath);
    if (!file.isKnown()) {
        return errno == ENOENT || errno == ENOTDIR; // Else it only cannot be told.
    }
    return !platform::isSameFile(file, socketFile_);
}

/// Somebody may have removed the socket file, put another one there, or mounted another folder over
/// it: then nobody can connect. What is there instead is replaced, as at the start.
void AppServer::keepReachable() {
    nextLookMs_ = platform::monotonicMilliseconds() + kSocketFileLookMs;
    const bool isThere = !isSocketFileLost();
    tellReachable(isThere);
    if (!isThere && listenAnew()) {
        tellReachable(true);
    }
}

void AppServer::tellReachable(bool isReachable) {
    if (!lossNews_.isDue(!isReachable)) {
        return;
    }
    if (isReachable) {
        writeLog(kLogInfo, "%s is the control socket again", kSocketPath);
    } else {
        writeLog(kLogError, "%s is not the control socket any more", kSocketPath);
    }
}

/// Puts a new socket in place of the one that nobody can connect to. False when none can be had;
/// the old one then stays, for its file may come back. Not by renaming: everybody finds the monitor
/// by the path to which its socket was bound (/proc/net/unix). So a file may get in between.
bool AppServer::listenAnew() {
    platform::UniqueFd fresh(platform::openUnixStreamSocket());
    if (!fresh.valid()) {
        return false;
    }
    (void)platform::removeFile(kSocketPath); // What stays there is in the way of the next call.
    if (bindToPath(fresh.get()) != 0 || platform::listenOnSocket(fresh.get(), kBacklog) != 0) {
        return false;
    }
    const platform::FileIdentity file = platform::identifyFile(kSocketPath);
    if (!file.isKnown()) {
        return false; // It is lost already.
    }
    (void)platform::closeDescriptor(listeningSocket_);
    listeningSocket_ = fresh.release();
    socketFile_ = file;
    return true;
}

void AppServer::failSetUp(const char* errorText, const char* logText) {
    if (errorText != nullptr) {
        platform::printError(errorText);
    }
    writeLog(kLogError, "%s", logText);
    platform::exitMonitor(1);
}

int AppServer::make_socket_non_blocking(int fd) {
    if (platform::addNonBlockingFlag(fd) == -1) {
        platform::printError("fcntl");
        return -1;
    }
    return 0;
}

int AppServer::recvCommand(reqcmd& request) {
    std::memset(&peerAddress_, 0, sizeof peerAddress_);
    if (!waitForClient()) {
        return kNoRequest;
    }
    const int fd = acceptClient();
    if (fd < 0) {
        return connectionVanished(errno) ? 0 : kNoRequest;
    }
    // Once the connection is published the command thread may answer an earlier request on it and
    // close it; the number could then mean something else. So it is received on a copy.
    const platform::UniqueFd own(platform::duplicateConnection(fd));
    if (!own.valid()) {
        writeLog(kLogDebug, "recvCommand(): accept error=%d", errno);
        (void)platform::closeDescriptor(fd);
        return kNoRequest;
    }
    // Deliberate: a connection left open by an earlier request without a reply is not closed.
    connection_ = fd;
    if (platform::monotonicMilliseconds() >= nextLookMs_ && nobodyWaits()) {
        keepReachable(); // Not earlier: the client came by the socket that this may close.
    }
    platform::copyToField(peerAddress_.sun_path, kSocketPath);
    return receiveRequest(own.get(), request);
}

/// True when a client is waiting; false on time-out, error, or when the monitor is asked to end.
bool AppServer::waitForClient() {
    const std::int64_t deadline = platform::monotonicMilliseconds() + kClientWaitMs;
    for (;;) {
        const std::int64_t leftMs = deadline - platform::monotonicMilliseconds();
        const int timeoutMs = leftMs > 0 ? static_cast<int>(leftMs) : 0;
        const auto result = platform::waitReadable(listeningSocket_, timeoutMs);
        if (result == platform::WaitResult::TimedOut) {
            keepReachable();
        }
        if (result != platform::WaitResult::Interrupted) {
            return result == platform::WaitResult::Ready;
        }
    }
}

/// True when no further client has come so far.
bool AppServer::nobodyWaits() {
    return platform::waitReadable(listeningSocket_, 0) == platform::WaitResult::TimedOut;
}

/// The new connection, or -1 with errno; logged unless the client has just gone away.
int AppServer::acceptClient() {
    for (int attempt = 1;; ++attempt) {
        const int fd = platform::acceptConnection(listeningSocket_, peerAddress_);
        if (fd >= 0) {
            return fd;
        }
        const int error = errno;
        if (connectionVanished(error)) {
            return -1;
        }
        if (attempt == kAttempts) {
            writeLog(kLogDebug, "recvCommand(): accept error=%d", error);
            errno = error;
            return -1;
        }
        platform::yieldProcessor();
    }
}

int AppServer::receiveRequest(int fd, reqcmd& request) {
    auto* const record = reinterpret_cast<char*>(&request);
    std::size_t total = 0;
    for (int call = 0; call < kAttempts && total < sizeof request; ++call) {
        const int count = receiveOnce(fd, record + total, sizeof request - total);
        if (count < 0) {
            return kNoRequest;
        }
        total += static_cast<std::size_t>(count);
    }
    return static_cast<int>(total);
}

/// One receive call, which waits for the client. An interruption counts as no bytes, as the end of
/// the stream does.
int AppServer::receiveOnce(int fd, char* buffer, std::size_t size) {
    ssize_t count = -1;
    do {
        const auto waited = platform::waitReadable(fd, -1);
        if (waited == platform::WaitResult::Terminating) {
            return kNoRequest;
        }
        if (waited == platform::WaitResult::Interrupted) {
            return 0;
        }
        if (waited == platform::WaitResult::Failed) {
            break;
        }
        count = platform::receiveBytes(fd, buffer, size);
    } while (count < 0 && errno == EAGAIN);
    const int error = errno;
    if (count < 0 && error == EINTR) {
        return 0;
    }
    if (count < 0) {
        writeLog(kLogDebug, "recvCommand(): recvfrom error %d, %s", error, peerAddress_.sun_path);
        return kNoRequest;
    }
    return static_cast<int>(count);
}

void AppServer::dropClient() {
    closeConnection(connection_.exchange(-1));
}

int AppServer::sendCommand(response_struct* reply) {
    displayResponseCmd(*reply);
    const int fd = connection_.exchange(-1); // The next client may come before the end of this.
    const auto* const record = reinterpret_cast<const char*>(reply);
    std::size_t done = 0;
    int error = 0;
    for (int attempt = 0; attempt < kAttempts && done < sizeof *reply; ++attempt) {
        if (attempt > 0) {
            platform::yieldProcessor();
        }
        errno = 0;
        const ssize_t count = platform::sendBytes(fd, record + done, sizeof *reply - done);
        error = errno;
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (connectionVanished(error)) {
            break;
        }
    }
    const bool answered = done == sizeof *reply || connectionVanished(error);
    if (!answered) {
        writeLog(kLogDebug, "sendCommand(): sendto error=%d", error);
    }
    closeConnection(fd);
    return answered ? 0 : -1;
}

void AppServer::closeConnection(int fd) {
    if (fd != -1) {
        (void)platform::closeDescriptor(fd);
    }
}

int AppServer::closeCommunication() {
    if (listeningSocket_ != -1) {
        platform::closeDescriptor(listeningSocket_);
        listeningSocket_ = -1;
    }
    dropClient();
    if (platform::removeFile(kSocketPath) != 0 && errno != ENOENT) {
        platform::printError("closeCommunication: remove socket path error");
        writeLog(kLogError, "remove socket path error error");
    }
    return close_zor_log(&log_);
}

void AppServer::displayRequestCmd(const reqcmd& request) {
    platform::trace(true,
                    "Request Command:\n"
                    "\tname = %.64s\n"
                    "\tversion = %.32s\n"
                    "\taction = %d\n"
                    "\tcmd = \"%.1024s\"\n"
                    "\tpidfile = \"%.64s\"\n"
                    "\tporttype = %d\n"
                    "\tportnum = %d\n"
                    "\tdelay = %d\n"
                    "\tkeepalive = %d\n"
                    "\tnowait = %d\n"
                    "\trequest.heartbeat = %d\n"
                    "\trequest.restart_type = %d\n"
                    "\trequest.last_runtime_life_limit = %d\n",
                    request.name, request.version, request.action, request.cmd, request.pidfile,
                    request.porttype, request.portnum, request.delay,
                    request.keepalive != 0 ? 1 : 0, request.nowait != 0 ? 1 : 0,
                    request.heartbeat != 0 ? 1 : 0, request.restart_type,
                    request.last_runtime_life_limit);
}

void AppServer::displayResponseCmd(const response_struct& reply) {
    char error[64] = "";
    if (reply.code != 0) {
        (void)std::snprintf(error, sizeof error, " Error is detected with code =%d\n", reply.code);
    }
    platform::trace(true, "%s%.1024s\n", error, reply.message);
}

void AppServer::writeLog(int level, const char* format, ...) {
    char text[platform::kLogTextSize];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments); // Longer texts are cut.
    va_end(arguments);
    (void)write_zor_log(log_, level, text, 0); // Nowhere else to report a failing log.
}
