// A shared-memory segment under a name of its own for the tests of the client side.

#ifndef OVARD_TESTS_UNIT_CLIENT_TEST_SEGMENT_H
#define OVARD_TESTS_UNIT_CLIENT_TEST_SEGMENT_H

#include <cstddef>
#include <ctime>
#include <string>

#include "platform/UniqueFd.h"

namespace client_test {

/// A name that no other test uses at the same time.
std::string uniqueSegmentName();

/// Makes a segment of zero bytes and removes it at the end.
class TestSegment {
public:
    explicit TestSegment(std::size_t size, const std::string& name = uniqueSegmentName());
    ~TestSegment();
    TestSegment(const TestSegment&) = delete;
    TestSegment& operator=(const TestSegment&) = delete;

    const char* name() const { return name_.c_str(); }

    /// Writes as the monitor does, with one call.
    void write(const void* bytes, std::size_t size, std::size_t offset = 0) const;
    void resize(std::size_t size) const;
    void setModified(std::time_t seconds, long nanoseconds) const;
    void remove() const;

private:
    std::string name_;
    platform::UniqueFd file_;
};

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_TEST_SEGMENT_H
