#include "tests/unit/client/TestSegment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include <gtest/gtest.h>

namespace client_test {

std::string uniqueSegmentName() {
    static std::atomic<int> number{0};
    return "/ovard_client_test." + std::to_string(::getpid()) + '.' + std::to_string(++number);
}

TestSegment::TestSegment(std::size_t size, const std::string& name)
    : name_(name)
    , file_(::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600)) {
    EXPECT_TRUE(file_.valid());
    resize(size);
}

TestSegment::~TestSegment() {
    (void)::shm_unlink(name_.c_str()); // the test may have removed it
}

void TestSegment::write(const void* bytes, std::size_t size, std::size_t offset) const {
    EXPECT_EQ(::pwrite(file_.get(), bytes, size, static_cast<off_t>(offset)),
              static_cast<ssize_t>(size));
}

void TestSegment::resize(std::size_t size) const {
    EXPECT_EQ(::ftruncate(file_.get(), static_cast<off_t>(size)), 0);
}

void TestSegment::setModified(std::time_t seconds, long nanoseconds) const {
    timespec times[2] = {};
    times[0].tv_sec = seconds;
    times[1].tv_sec = seconds;
    times[1].tv_nsec = nanoseconds;
    EXPECT_EQ(::futimens(file_.get(), times), 0);
}

void TestSegment::remove() const {
    EXPECT_EQ(::shm_unlink(name_.c_str()), 0);
}

} // namespace client_test
