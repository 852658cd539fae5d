// A program whose functions would be guarded and checked if it were built like the others.

#include <cstdio>

int main(int count, char** words) {
    char text[64];
    const int size = std::snprintf(text, sizeof text - static_cast<unsigned>(count), "%s", *words);
    return std::puts(text) >= 0 && size > 0 ? 0 : 1;
}
