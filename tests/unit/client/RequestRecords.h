// Records and images of request files for the tests.

#ifndef OVARD_TESTS_UNIT_CLIENT_REQUEST_RECORDS_H
#define OVARD_TESTS_UNIT_CLIENT_REQUEST_RECORDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "client/ovardctl/RequestFile.h"
#include "records/codes.h"
#include "records/reqcmd.h"

namespace client_test {

/// The byte order that this machine does not have.
inline constexpr ovardctl::ByteOrder kOther =
    ovardctl::nativeByteOrder() == ovardctl::ByteOrder::Little ? ovardctl::ByteOrder::Big
                                                               : ovardctl::ByteOrder::Little;

/// A zeroed record with these fields; texts that are too long are cut.
reqcmd requestOf(std::int32_t action, const std::string& name, const std::string& cmd = "",
                 const std::string& pidfile = "");

/// A start in which there is nothing to complain about but that the program may be missing.
reqcmd startOf(const std::string& name);

/// The records as they lie in memory, one after the other.
std::string imageOf(const std::vector<reqcmd>& records);

/// Reads a whole file; fails the test when that cannot be read.
std::string contentOf(const std::string& path);

/// Writes a whole file.
void writeContent(const std::string& path, const std::string& content);

} // namespace client_test

#endif // OVARD_TESTS_UNIT_CLIENT_REQUEST_RECORDS_H
