// Opens, reads and closes files and does nothing else.

#ifndef OVARD_TESTS_BENCH_BARE_FILE_LOOP_H
#define OVARD_TESTS_BENCH_BARE_FILE_LOOP_H

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// A yardstick for what reads many small files: even their names are ready before it starts.
class BareFileLoop {
public:
    /// Appends a file of which at most `bytes` are read, in one call.
    void add(std::string path, std::size_t bytes) {
        files_.push_back({std::move(path), bytes});
        longest_ = std::max(longest_, bytes);
    }

    /// Reads all files in the order in which they were added. The number of those that had
    /// something to read.
    int run() const {
        int count = 0;
        std::vector<char> buffer(longest_);
        for (const File& file : files_) {
            const int fd = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                count += ::read(fd, buffer.data(), file.bytes) > 0 ? 1 : 0;
                ::close(fd);
            }
            benchmark::DoNotOptimize(buffer.data());
        }
        return count;
    }

private:
    struct File {
        std::string path;
        std::size_t bytes;
    };

    std::vector<File> files_;
    std::size_t longest_ = 0;
};

} // namespace bench

#endif // OVARD_TESTS_BENCH_BARE_FILE_LOOP_H
