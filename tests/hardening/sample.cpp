// Two functions: -fstack-protector-strong guards one, which its weaker forms do not, and
// _FORTIFY_SOURCE=2 checks the other, which 1 does not. Nothing else here is guarded or checked.

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace sample {

struct Record {
    char name[8];
    int number; // Behind the name: to level 1 all of the record would be room for it.
};

Record record;

/// Has no buffer, but gives the address of a local variable away.
[[gnu::noinline]] int numberIn(const char* text) {
    int number = 0;
    return std::sscanf(text, "%d", &number) == 1 ? number : 0;
}

/// Is not told which record it is.
[[gnu::noinline]] void setName(Record& target, const char* name, std::size_t size) {
    std::strncpy(target.name, name, size);
}

} // namespace sample

int main(int count, char** words) {
    sample::setName(sample::record, *words, static_cast<std::size_t>(count));
    return sample::numberIn(*words);
}
