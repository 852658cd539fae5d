// Runs a fuzz target once over each of the files that are named. Stands in for the fuzzer where the
// compiler has none, so that the seeds are tests like any others.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s cannot be read\n", path);
        return false;
    }
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    std::printf("%s\n", path);
    std::fflush(stdout); // An input that ends the program is the last one named.
    return LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()),
                                  content.size()) == 0;
}

} // namespace

int main(int argc, char** argv) {
    bool passed = argc > 1;
    for (int index = 1; index < argc; ++index) {
        passed = replay(argv[index]) && passed;
    }
    return passed ? 0 : 1;
}
