#include "platform/Network.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "platform/linux/TcpTable.h"

namespace {

using namespace testsupport;
using platform::isEstablishedOnPort22;
using platform::tableHasEstablishedOnPort22;

constexpr char kTail[] = " 00000000:00000000 02:000A7214 00000000     0        0 11213 2 0 20 4 29";
constexpr char kHeading[] = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when "
                            "retrnsmt   uid  timeout inode";
constexpr char kHeading6[] = "  sl  local_address                         remote_address"
                             "                        st tx_queue rx_queue tr tm->when retrnsmt"
                             "   uid  timeout inode";

/// An address as this machine's kernel prints it: its words, each as a number of the machine.
std::string kernelText(int family, const char* address) {
    unsigned char bytes[16] = {};
    EXPECT_EQ(::inet_pton(family, address, bytes), 1) << address;
    std::string text;
    for (std::size_t offset = 0; offset < (family == AF_INET6 ? 16U : 4U); offset += 4) {
        unsigned int word = 0;
        std::memcpy(&word, bytes + offset, sizeof word);
        char digits[9];
        (void)std::snprintf(digits, sizeof digits, "%08X", word);
        text += digits;
    }
    return text;
}

std::string tableLine(int family, const char* local, const std::string& localPort,
                      const char* remote, const std::string& remotePort, const std::string& state) {
    return "   0: " + kernelText(family, local) + ":" + localPort + " " +
           kernelText(family, remote) + ":" + remotePort + " " + state + kTail;
}

/// The peer as text, "ADDRESS PORT".
std::string peerText(const sockaddr_in6& peer) {
    char address[INET6_ADDRSTRLEN] = "";
    const auto* generic = reinterpret_cast<const sockaddr*>(&peer);
    (void)::inet_ntop(peer.sin6_family, get_in_addr(generic), address, sizeof address);
    return std::string(address) + " " + std::to_string(ntohs(peer.sin6_port));
}

TEST(TcpTable, FindsAnEstablishedConnectionOfTheRemoteShell) {
    sockaddr_in6 peer;
    std::memset(&peer, 0x55, sizeof peer);
    ASSERT_TRUE(isEstablishedOnPort22(
        tableLine(AF_INET, "192.168.1.2", "0016", "10.0.0.7", "D431", "01"), AF_INET, &peer));
    EXPECT_EQ(peer.sin6_family, AF_INET);
    EXPECT_EQ(peerText(peer), "10.0.0.7 54321");
}

TEST(TcpTable, FindsAnEstablishedConnectionOverIpv6) {
    sockaddr_in6 peer;
    std::memset(&peer, 0x55, sizeof peer);
    ASSERT_TRUE(isEstablishedOnPort22(
        tableLine(AF_INET6, "fe80::1", "0016", "2001:db8::1:2", "0400", "01"), AF_INET6, &peer));
    EXPECT_EQ(peer.sin6_family, AF_INET6);
    EXPECT_EQ(peerText(peer), "2001:db8::1:2 1024");
    EXPECT_EQ(peer.sin6_scope_id, 0U);
    EXPECT_EQ(peer.sin6_flowinfo, 0U);
}

TEST(TcpTable, ReadsTheWordsInTheByteOrderOfTheMachine) {
    // 127.0.0.1 and ::1 as kernels of either byte order print them.
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    const std::string loopback = "0100007F";
    const std::string loopback6 = "00000000000000000000000001000000";
#else
    const std::string loopback = "7F000001";
    const std::string loopback6 = "00000000000000000000000000000001";
#endif
    sockaddr_in6 peer = {};
    ASSERT_TRUE(isEstablishedOnPort22(
        "  12: " + loopback + ":0016 " + loopback + ":0001 01" + kTail, AF_INET, &peer));
    EXPECT_EQ(peerText(peer), "127.0.0.1 1");
    ASSERT_TRUE(isEstablishedOnPort22(
        "  12: " + loopback6 + ":0016 " + loopback6 + ":FFFF 01" + kTail, AF_INET6, &peer));
    EXPECT_EQ(peerText(peer), "::1 65535");
}

TEST(TcpTable, NeedsNobodyWhoTakesThePeer) {
    EXPECT_TRUE(isEstablishedOnPort22(
        tableLine(AF_INET, "127.0.0.1", "0016", "127.0.0.1", "1000", "01"), AF_INET, nullptr));
    EXPECT_FALSE(isEstablishedOnPort22(
        tableLine(AF_INET, "127.0.0.1", "0017", "127.0.0.1", "1000", "01"), AF_INET, nullptr));
}

TEST(TcpTable, IgnoresOtherPortsAndStates) {
    for (const char* port : {"0015", "0017", "1600", "0022", "0000", "10016"}) {
        EXPECT_FALSE(isEstablishedOnPort22(
            tableLine(AF_INET, "127.0.0.1", port, "127.0.0.1", "0016", "01"), AF_INET, nullptr))
            << port;
    }
    for (const char* state : {"00", "02", "03", "06", "08", "0A", "0B", "10", "11"}) {
        EXPECT_FALSE(isEstablishedOnPort22(
            tableLine(AF_INET, "127.0.0.1", "0016", "127.0.0.1", "1000", state), AF_INET, nullptr))
            << state;
    }
}

TEST(TcpTable, IgnoresWhatIsNoEntryAndLeavesThePeerAlone) {
    const std::vector<std::string> lines = {
        "",
        " ",
        "0:",
        kHeading,
        kHeading6,
        "   0: 0100007F:0016",
        "   0: 0100007F:0016 0100007F:1000",
        "   0: 0100007F:0016 0100007F:1000 ",
        "   0: 0100007F:0016 0100007F:1000 xx",
        "   0: 0100007F:0016 0100007F:1000 01x",
        "   0: 0100007F:0016 0100007F 01 ",
        "   0: 0100007F:0016 0100007F: 01 ",
        "   0: 0100007F: 0100007F:1000 01 ",
        "   0: 0100007F 0016 0100007F:1000 01",
        "   0: 0100007:0016 0100007F:1000 01 ",
        "   0: 0100007F0:0016 0100007F:1000 01 ",
        "   0: 0100007G:0016 0100007F:1000 01 ",
        "   0: -100007F:0016 0100007F:1000 01 ",
        "   0: 0x00007F:0016 0100007F:1000 01 ",
        "   0: 0100007F:0016 0100007F:100000000 01 ",
        "   0: 0100007F:0016 0100007F:1000 100000001 ",
        "   0: :0016 :1000 01 ",
        "   0: 00000000000000000000000001000000:0016 00000000000000000000000001000000:1000 01 ",
    };
    for (const std::string& line : lines) {
        sockaddr_in6 peer;
        sockaddr_in6 untouched;
        std::memset(&peer, 0x55, sizeof peer);
        std::memset(&untouched, 0x55, sizeof untouched);
        EXPECT_FALSE(isEstablishedOnPort22(line, AF_INET, &peer)) << line;
        EXPECT_EQ(std::memcmp(&peer, &untouched, sizeof peer), 0) << line;
    }
    EXPECT_FALSE(isEstablishedOnPort22(
        tableLine(AF_INET, "127.0.0.1", "0016", "127.0.0.1", "1000", "01"), AF_INET6, nullptr))
        << "an address of the other family";
}

/// A table file with a heading, `count` other connections and then `lines`.
class Table {
public:
    Table(int family, int count, const std::string& lines) {
        std::string text = std::string(family == AF_INET6 ? kHeading6 : kHeading) + "\n";
        const char* any = family == AF_INET6 ? "::" : "0.0.0.0";
        for (int index = 0; index < count; ++index) {
            text += tableLine(family, any, "0050", any, "1000", "01") + "\n";
        }
        writeText(path_, text + lines);
    }
    const char* path() const { return path_.c_str(); }

private:
    TemporaryDirectory directory_;
    std::string path_ = directory_.file("tcp");
};

TEST(TcpTable, IsSearchedToItsEnd) {
    const std::string wanted =
        tableLine(AF_INET, "10.0.0.1", "0016", "10.0.0.2", "0007", "01") + "\n";
    // More than one read, with lines across the edges of the reads.
    for (const int others : {0, 1, 37, 38, 39, 40, 500}) {
        sockaddr_in6 peer = {};
        EXPECT_TRUE(
            tableHasEstablishedOnPort22(Table(AF_INET, others, wanted).path(), AF_INET, &peer))
            << others;
        EXPECT_EQ(peerText(peer), "10.0.0.2 7") << others;
        EXPECT_FALSE(
            tableHasEstablishedOnPort22(Table(AF_INET, others, "").path(), AF_INET, nullptr))
            << others;
    }
}

TEST(TcpTable, ReportsTheFirstConnection) {
    const Table table(AF_INET6, 3,
                      tableLine(AF_INET6, "::1", "0016", "::2", "0001", "0A") + "\n" +
                          tableLine(AF_INET6, "::1", "0016", "::3", "0002", "01") + "\n" +
                          tableLine(AF_INET6, "::1", "0016", "::4", "0003", "01") + "\n");
    sockaddr_in6 peer = {};
    EXPECT_TRUE(tableHasEstablishedOnPort22(table.path(), AF_INET6, &peer));
    EXPECT_EQ(peerText(peer), "::3 2");
}

TEST(TcpTable, HoldsNothingWhenItCannotBeRead) {
    const TemporaryDirectory directory;
    EXPECT_FALSE(tableHasEstablishedOnPort22(directory.file("missing").c_str(), AF_INET, nullptr));
    EXPECT_FALSE(tableHasEstablishedOnPort22(directory.path().c_str(), AF_INET, nullptr));
    writeText(directory.file("empty"), "");
    EXPECT_FALSE(tableHasEstablishedOnPort22(directory.file("empty").c_str(), AF_INET, nullptr));
}

TEST(TcpTable, SurvivesALineWithoutEnd) {
    const std::string wanted =
        tableLine(AF_INET, "10.0.0.1", "0016", "10.0.0.2", "0007", "01") + "\n";
    const Table table(AF_INET, 1, std::string(10000, 'x') + "\n" + wanted);
    EXPECT_TRUE(tableHasEstablishedOnPort22(table.path(), AF_INET, nullptr));
    const Table endless(AF_INET, 1, std::string(100000, ' '));
    EXPECT_FALSE(tableHasEstablishedOnPort22(endless.path(), AF_INET, nullptr));
}

TEST(SocketAddress, ShowsItsAddressBytes) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    EXPECT_EQ(get_in_addr(reinterpret_cast<const sockaddr*>(&address)), &address.sin_addr);
    sockaddr_in6 address6 = {};
    address6.sin6_family = AF_INET6;
    EXPECT_EQ(get_in_addr(reinterpret_cast<const sockaddr*>(&address6)), &address6.sin6_addr);
}

constexpr int kNoNamespace = 100;

/// Brings up the loopback interface of this network namespace.
bool bringUpLoopback() {
    const platform::UniqueFd control(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    return ::ioctl(control.get(), SIOCSIFFLAGS, &request) == 0;
}

/// Connects to port 22 of this machine over `family` and asks; 0 when the answers are right.
int askWithAConnection(int family) {
    sockaddr_storage address = {};
    socklen_t size = sizeof(sockaddr_in);
    if (family == AF_INET) {
        auto& local = reinterpret_cast<sockaddr_in&>(address);
        local.sin_family = AF_INET;
        local.sin_port = htons(22);
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
        auto& local = reinterpret_cast<sockaddr_in6&>(address);
        local.sin6_family = AF_INET6;
        local.sin6_port = htons(22);
        local.sin6_addr = in6addr_loopback;
        size = sizeof(sockaddr_in6);
    }
    const platform::UniqueFd listener(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const platform::UniqueFd client(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* local = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(listener.get(), local, size) != 0 || ::listen(listener.get(), 1) != 0) {
        return kNoNamespace;
    }
    sockaddr_in6 peer = {};
    if (isEstablishedTCPconnectionOnPort22(&peer)) {
        return 1; // it listens only
    }
    if (::connect(client.get(), local, size) != 0) {
        return 2;
    }
    sockaddr_in6 own = {};
    socklen_t ownSize = sizeof own;
    ::getsockname(client.get(), reinterpret_cast<sockaddr*>(&own), &ownSize);
    if (!isEstablishedTCPconnectionOnPort22(nullptr) ||
        !isEstablishedTCPconnectionOnPort22(&peer)) {
        return 3;
    }
    return peerText(peer) == peerText(own) ? 0 : 4;
}

TEST(EstablishedOnPort22, IsSeenOnARealConnection) {
    for (const int family : {AF_INET, AF_INET6}) {
        const int result = runInChild([family] {
            const bool isAlone =
                ::unshare(CLONE_NEWNET) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
            return isAlone && bringUpLoopback() ? askWithAConnection(family) : kNoNamespace;
        });
        if (result == kNoNamespace) {
            GTEST_SKIP() << "no network namespace of its own for family " << family;
        }
        EXPECT_EQ(result, 0) << family;
    }
}

} // namespace
