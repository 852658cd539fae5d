// The control channel: one Unix-domain stream socket, one client at a time.

#ifndef OVARD_SERVER_APP_SERVER_H
#define OVARD_SERVER_APP_SERVER_H

#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/Log.h"
#include "platform/System.h"
#include "records/reqcmd.h"
#include "records/response_struct.h"
#include "server/FaultNews.h"

/// Owns the listening socket, the connection of the client being served, and the daemon's log
/// handle.
///
/// `recvCommand` runs on the main thread and `sendCommand` on the command thread, after the main
/// thread has moved on. They share the connection descriptor as one word without a lock: a
/// connection accepted while a reply is pending replaces the older one, which is then neither
/// answered nor closed. Deliberate: a client must not expect concurrent requests to be answered.
/// Whoever closes a connection takes it out of the word first, so that nobody closes it twice.
class AppServer {
public:
    /// Path of the control socket.
    static constexpr const char* kSocketPath = "/tmp/appmon_sock";

    AppServer();
    AppServer(const AppServer&) = delete;
    AppServer& operator=(const AppServer&) = delete;

    /// Closes the descriptors of this object, then those of the process-wide instance, and frees
    /// that. Not virtual; `AppManager` adds a virtual destructor.
    ~AppServer();

    /// The process-wide AppServer (not the manager), created on the first call.
    static AppServer* Instance();

    /// Executes one request. Does nothing here; returns 0.
    virtual int processCmd(const reqcmd& request);

    /// Opens the log and the listening socket. Returns 0; every failure ends the process with
    /// status 1. Sets the file-creation mask to 0 for the rest of the process's life.
    int initCommunication();

    /// Serves one connection attempt: waits at most 2 seconds for a client, then reads one request
    /// in up to three receive calls, each of which waits for the client. Bytes that a short record
    /// does not reach keep what `request` held. Returns the bytes read (1 to 1216); 0 when the
    /// connection vanished or nothing came; -1 on time-out, error, or when the monitor is asked to
    /// end. The connection stays open for the reply. When the time is over, and once in 2 seconds
    /// after a client that nobody waits behind, a socket file that has vanished or has been
    /// replaced is made anew; the log tells when that begins, once a minute at most, and when it
    /// ends.
    int recvCommand(reqcmd& request);

    /// Closes the current connection, if there is one, without a reply. Any thread.
    void dropClient();

    /// Shows `reply` on the console, writes it whole to the current connection and closes that.
    /// Returns 0, or -1 when it could not be written. `reply` must be valid for reading.
    int sendCommand(response_struct* reply);

    /// Closes both descriptors, removes the socket file, closes the log. Returns the log's result.
    int closeCommunication();

    /// Writes a request, field by field, to the console.
    void displayRequestCmd(const reqcmd& request);

    /// Writes a reply to the console.
    void displayResponseCmd(const response_struct& reply);

    /// Adds O_NONBLOCK to the flags of `fd`. Returns 0 or -1.
    int make_socket_non_blocking(int fd);

    /// Formats one line (at most 2047 characters, longer ones are cut) and writes it to the
    /// daemon's log at a syslog level. Any thread.
    [[gnu::format(printf, 3, 4)]] void writeLog(int level, const char* format, ...);

private:
    [[noreturn]] void failSetUp(const char* errorText, const char* logText);
    int openListeningSocket();
    int bindToPath(int fd);
    bool waitForClient();
    bool nobodyWaits();
    bool isSocketFileLost() const;
    void keepReachable();
    void tellReachable(bool isReachable);
    bool listenAnew();
    int acceptClient();
    int receiveRequest(int fd, reqcmd& request);
    int receiveOnce(int fd, char* buffer, std::size_t size);
    void closeConnection(int fd);

    static AppServer* m_pInstance;

    zor_log log_;
    sockaddr_un peerAddress_;           // main thread only
    int listeningSocket_ = -1;          // main thread only
    std::atomic<int> connection_{-1};   // see the class comment
    platform::FileIdentity socketFile_; // main thread only; of the listening socket
    std::int64_t nextLookMs_ = 0;       // main thread only; at that file, monotonic
    FaultNews lossNews_;                // main thread only; of that file
};

#endif // OVARD_SERVER_APP_SERVER_H
