// A file in memory that only this process reaches, by a path.

#ifndef OVARD_TESTS_FUZZ_PRIVATE_FILE_H
#define OVARD_TESTS_FUZZ_PRIVATE_FILE_H

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "platform/UniqueFd.h"
#include "tests/fuzz/Require.h"

namespace fuzz {

class PrivateFile {
public:
    explicit PrivateFile(std::string_view content = {})
        : file_(::memfd_create("fuzz", MFD_CLOEXEC)) {
        const auto size = static_cast<ssize_t>(content.size());
        require(::write(file_.get(), content.data(), content.size()) == size,
                "a private file can be written");
    }

    /// Opens the file itself, from its beginning.
    std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

    std::string content() const {
        std::string bytes(static_cast<std::size_t>(::lseek(file_.get(), 0, SEEK_END)), '\0');
        require(::pread(file_.get(), bytes.data(), bytes.size(), 0) ==
                    static_cast<ssize_t>(bytes.size()),
                "a private file can be read");
        return bytes;
    }

private:
    platform::UniqueFd file_;
};

} // namespace fuzz

#endif // OVARD_TESTS_FUZZ_PRIVATE_FILE_H
