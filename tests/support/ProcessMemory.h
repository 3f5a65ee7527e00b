// What stands in the memory of the test itself.
#ifndef SOLVANE_TESTS_SUPPORT_PROCESS_MEMORY_H
#define SOLVANE_TESTS_SUPPORT_PROCESS_MEMORY_H

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace SolvaneTest {

/// How often a text stands in this process's writable memory.
inline std::size_t occurrencesInMemory(std::string const& text)
{
    std::ifstream maps("/proc/self/maps");
    std::ifstream memory("/proc/self/mem", std::ios::binary);
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::size_t begin = 0;
        std::size_t end = 0;
        char dash = '-';
        std::string permissions;
        std::string rest;
        fields >> std::hex >> begin >> dash >> end >> permissions;
        std::getline(fields, rest);
        bool const isHeap = rest.find("[heap]") != std::string::npos ||
                            rest.find_first_not_of(" 0:") == std::string::npos;
        if (permissions.compare(0, 2, "rw") != 0 || !isHeap) {
            continue;
        }
        constexpr std::size_t most = 1UL << 28; // a sanitizer's shadow is larger
        if (end - begin > most) {
            continue;
        }
        // In parts, on the stack: a copy on the heap would be found, too.
        std::array<char, 1 << 16> bytes;
        for (std::size_t from = begin; from < end; from += bytes.size() - text.size() + 1) {
            memory.clear();
            memory.seekg(static_cast<std::streamoff>(from));
            memory.read(bytes.data(),
                        static_cast<std::streamsize>(std::min(bytes.size(), end - from)));
            std::string_view const content(bytes.data(), static_cast<std::size_t>(memory.gcount()));
            for (auto at = content.find(text); at != std::string_view::npos;
                 at = content.find(text, at + 1)) {
                ++count;
            }
        }
    }
    return count;
}

} // namespace SolvaneTest

#endif
