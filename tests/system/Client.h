// A client of the control socket, written on the record formats alone.

#ifndef OVARD_TESTS_SYSTEM_CLIENT_H
#define OVARD_TESTS_SYSTEM_CLIENT_H

#include <optional>
#include <string>

#include "records/codes.h"
#include "records/reqcmd.h"
#include "records/response_struct.h"
#include "tests/system/Support.h"

namespace systemtest {

/// A zeroed request with these fields; texts that are too long are cut.
reqcmd makeRequest(int action, const std::string& name = "", const std::string& cmd = "",
                   const std::string& pidfile = "");

/// The 1216 bytes of a request.
std::string bytesOf(const reqcmd& request);

/// What came back on a connection.
struct Received {
    std::string bytes;
    bool ended = false; ///< the other side closed it; false: the time was over
    bool reset = false; ///< it was closed with bytes of ours unread; `ended` is true too
};

/// One connection to the monitor.
class Client {
public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client();

    /// Connects; false when nobody listens.
    bool connect();

    bool send(const std::string& bytes);
    bool send(const reqcmd& request) { return send(bytesOf(request)); }

    /// Waits until the other side has read all that was sent.
    bool waitUntilRead(int timeoutMs = kPatienceMs) const;

    /// Reads until the other side closes the connection, until `limit` bytes have come (0: no
    /// limit), or until the time is over.
    Received receive(int timeoutMs, std::size_t limit = 0);

    /// Reads one whole reply.
    std::optional<response_struct> receiveReply(int timeoutMs = kPatienceMs);

    /// Ends the sending direction only.
    void endSending();

    void close();

    bool isOpen() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

/// Sends one request on a connection of its own and waits for the reply.
std::optional<response_struct> ask(const reqcmd& request, int timeoutMs = kPatienceMs);

/// Sends one request on a connection of its own, which is kept in `client`.
bool sendRequest(Client& client, const reqcmd& request);

/// The main loop goes on at once when a client comes and goes.
void turnMainLoop();

/// The text of a reply.
std::string messageOf(const response_struct& reply);

/// Somebody listens on the control socket. Does not disturb who does.
bool socketListens();

/// Somebody has connected to it, and may have gone again, and is not accepted yet.
bool clientWaits();

} // namespace systemtest

#endif // OVARD_TESTS_SYSTEM_CLIENT_H
