#include "tests/unit/client/TestServer.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gtest/gtest.h>

namespace client_test {

TemporaryFolder::TemporaryFolder() {
    char name[] = "/tmp/ovard-client-XXXXXX";
    if (::mkdtemp(name) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored; // Nothing more can be done about it.
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::plantLink() const {
    const std::string everybodys = file("everybodys");
    const std::string link = everybodys + "/link";
    const bool done = ::mkdir(everybodys.c_str(), 0777) == 0 &&
                      ::chmod(everybodys.c_str(), 0777) == 0 &&
                      ::symlink(path_.c_str(), file("found").c_str()) == 0 &&
                      ::link(file("found").c_str(), link.c_str()) == 0;
    return done ? link : std::string();
}

platform::UniqueFd bindSocket(const std::string& path, int type, int backlog) {
    platform::UniqueFd fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (backlog >= 0 && ::listen(fd.get(), backlog) != 0)) {
        throw std::runtime_error("cannot listen on " + path);
    }
    return fd;
}

TestServer::TestServer(Handler handler)
    : handler_(std::move(handler)) {
    listener_ = bindSocket(path(), SOCK_STREAM, 8);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    stopRead_.reset(ends[0]);
    stopWrite_.reset(ends[1]);
    sigset_t all;
    sigset_t saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    thread_ = std::thread([this] { serve(); });
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

TestServer::~TestServer() {
    stopWrite_.reset();
    thread_.join();
}

void TestServer::serve() {
    for (;;) {
        pollfd entries[] = {{stopRead_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        // The connection first, so that a request sent just before the end is still served.
        if (::poll(entries, 2, -1) > 0 && entries[1].revents != 0) {
            const platform::UniqueFd connection(
                ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            handler_(connection.get());
        } else if (entries[0].revents != 0) {
            return;
        }
    }
}

reqcmd receiveRequest(int fd) {
    reqcmd request{};
    EXPECT_EQ(platform::readFully(fd, &request, sizeof request), 1216);
    return request;
}

void waitForClose(int fd) {
    char byte;
    while (::recv(fd, &byte, 1, 0) > 0) {
    }
}

void sendBytes(int fd, const void* bytes, std::size_t size) {
    (void)::send(fd, bytes, size, MSG_NOSIGNAL); // the other side may be gone on purpose
}

response_struct makeReply(std::int32_t code, std::string_view message) {
    response_struct reply{};
    reply.code = code;
    reply.completed = 1;
    std::memcpy(reply.message, message.data(), std::min(message.size(), sizeof reply.message));
    return reply;
}

} // namespace client_test
