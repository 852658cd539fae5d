// A scripted control socket for the tests of the client side.

#ifndef OVARD_TESTS_UNIT_CLIENT_TEST_SERVER_H
#define OVARD_TESTS_UNIT_CLIENT_TEST_SERVER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/UniqueFd.h"
#include "records/reqcmd.h"
#include "records/response_struct.h"

namespace client_test {

/// Longer than any answer takes.
inline constexpr std::int32_t kAmpleMs = 20000;

/// A folder of its own under /tmp, removed with what is in it (files only).
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }

    /// Makes a link to the folder itself, in a new folder in it that everybody may write to;
    /// returns its path, empty on failure. It has a second name, as one that another user has found
    /// and put there.
    std::string plantLink() const;

private:
    std::string path_;
};

/// A listening socket at `path`, or one that is bound only when `backlog` is negative.
platform::UniqueFd bindSocket(const std::string& path, int type, int backlog);

/// Serves connections one after the other on a thread of its own, which takes no signals.
class TestServer {
public:
    /// Serves one connection; the descriptor is closed afterwards.
    using Handler = std::function<void(int fd)>;

    explicit TestServer(Handler handler);
    /// Waits for the handler that is at work.
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::string path() const { return folder_.file("sock"); }

private:
    void serve();

    TemporaryFolder folder_;
    Handler handler_;
    platform::UniqueFd listener_;
    platform::UniqueFd stopRead_;
    platform::UniqueFd stopWrite_;
    std::thread thread_;
};

/// Reads one whole request; a test failure when fewer bytes come.
reqcmd receiveRequest(int fd);

/// Waits until the other side has closed the connection.
void waitForClose(int fd);

/// Sends all of it, whether the other side still reads or not.
void sendBytes(int fd, const void* bytes, std::size_t size);

/// A reply with a message that is cut at the end of its field; a full field has no NUL.
response_struct makeReply(std::int32_t code, std::string_view message);

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_TEST_SERVER_H
