#include "tests/target/Activity.h"

#include <gtest/gtest.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "platform/UniqueFd.h"
#include "tests/system/Datagrams.h"
#include "tests/system/Support.h"

namespace target {
namespace {

/// Work and rest follow each other in this time. The kernel looks every four milliseconds whose the
/// processor is; a share is many of these looks.
constexpr int kPeriodMs = 200;

constexpr std::size_t kPayload = 1000;

constexpr const char* kFolder = "/mnt";

double processorSecondsOfThread() {
    timespec used{};
    (void)::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used); // cannot fail for this clock
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

/// Works for that share of the time.
void workInPeriods(const std::atomic<bool>& isOver, int sharePercent,
                   const std::function<void()>& work) {
    const int workMs = kPeriodMs * sharePercent / 100;
    while (!isOver) {
        const double end = processorSecondsOfThread() + workMs / 1000.0;
        while (processorSecondsOfThread() < end) {
            work();
        }
        systemtest::sleepMs(kPeriodMs - workMs);
    }
}

void compute() {
    volatile unsigned rounds = 20000; // else the compiler would leave them out
    while (rounds > 0) {
        rounds = rounds - 1;
    }
}

/// Sends datagrams to itself, which the kernel delivers in a soft interrupt.
std::function<void()> datagramsToItself() {
    const auto socket =
        std::make_shared<platform::UniqueFd>(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = systemtest::internetAddress("127.0.0.1", systemtest::kDiscardPort);
    EXPECT_EQ(::bind(socket->get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    return [=] {
        std::string bytes(kPayload, 'x');
        (void)systemtest::sendTo(*socket, bytes, address); // that there is work is what counts
        (void)::recv(socket->get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    };
}

/// Sum of the 16-bit words of a message in ones' complement, as its header has it.
std::uint16_t checksumOf(const std::string& bytes) {
    std::uint32_t sum = 0;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
        std::uint16_t word = 0;
        std::memcpy(&word, bytes.data() + at, sizeof word);
        sum += word;
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~(sum + (sum >> 16)));
}

std::string echoRequest() {
    icmphdr header{};
    header.type = ICMP_ECHO;
    std::string bytes(sizeof header + kPayload, 'x');
    std::memcpy(bytes.data(), &header, sizeof header);
    header.checksum = checksumOf(bytes);
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

/// Waits for the answer. It does not sleep: where the machine's clock counts instructions, time
/// that it sleeps is over long before anybody outside has answered.
bool takeEchoReply(const platform::UniqueFd& socket) {
    const std::int64_t deadline = systemtest::monotonicMs() + systemtest::kPatienceMs;
    while (systemtest::monotonicMs() < deadline) {
        std::string bytes(sizeof(iphdr) + sizeof(icmphdr) + kPayload, '\0');
        const ssize_t size = ::recv(socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size == static_cast<ssize_t>(bytes.size()) && bytes[sizeof(iphdr)] == ICMP_ECHOREPLY) {
            return true;
        }
    }
    return false;
}

/// What a packet takes on the link: the header of ICMP is as long as that of UDP.
constexpr std::int64_t kPacketBytes = 14 + sizeof(iphdr) + sizeof(icmphdr) + kPayload;
static_assert(sizeof(icmphdr) == 8);

} // namespace

Load::Load() {
    constexpr int kLowPriority = 10;
    add(15, 0, compute);
    add(8, kLowPriority, compute);
    add(25, 0, datagramsToItself());
}

Load::~Load() {
    isOver_ = true;
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

void Load::add(int sharePercent, int nice, const std::function<void()>& work) {
    threads_.emplace_back([this, sharePercent, nice, work] {
        const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
        EXPECT_EQ(::setpriority(PRIO_PROCESS, thread, nice), 0);
        workInPeriods(isOver_, sharePercent, work);
    });
}

PageCache::PageCache() {
    constexpr std::size_t kBytes = std::size_t{4} << 20;
    EXPECT_EQ(::mount("ramfs", kFolder, "ramfs", 0, nullptr), 0);
    EXPECT_TRUE(systemtest::writeFile(std::string(kFolder) + "/file", std::string(kBytes, 'x')));
}

PageCache::~PageCache() {
    EXPECT_EQ(::umount(kFolder), 0);
}

Traffic talkTo(const std::string& address, int answered, int unanswered) {
    const platform::UniqueFd echoes(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    const sockaddr_in machine = systemtest::internetAddress(address, 0);
    for (int count = 0; count < answered; ++count) {
        EXPECT_TRUE(systemtest::sendTo(echoes, echoRequest(), machine) && takeEchoReply(echoes))
            << address << " " << count;
    }
    const platform::UniqueFd datagrams(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in nobody = systemtest::internetAddress(address, systemtest::kDiscardPort);
    for (int count = 0; count < unanswered; ++count) {
        EXPECT_TRUE(systemtest::sendTo(datagrams, std::string(kPayload, 'x'), nobody))
            << address << " " << count;
    }
    return {(answered + unanswered) * kPacketBytes, answered * kPacketBytes};
}

} // namespace target
