// What a fuzz target is made of: one function that takes any bytes, and promises it may not break.
#ifndef SOLVANE_TESTS_FUZZ_TARGET_H
#define SOLVANE_TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

/// libFuzzer's entry, and the replay's.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace SolvaneTest {

/// Aborts the process if a promise is broken, which a fuzzer reports as a crash.
inline void require(bool holds, char const* promise)
{
    if (!holds) {
        std::fprintf(stderr, "broken promise: %s\n", promise);
        std::abort();
    }
}

inline std::string textOf(std::uint8_t const* data, std::size_t size)
{
    return {reinterpret_cast<char const*>(data), size};
}

/// The input taken apart at its NUL bytes; the last piece has the rest, further NULs included.
inline std::vector<std::string> piecesOf(std::string const& input, std::size_t count)
{
    std::vector<std::string> pieces;
    std::string::size_type begin = 0;
    while (pieces.size() + 1 < count) {
        auto const end = input.find('\0', begin);
        if (end == std::string::npos) {
            break;
        }
        pieces.push_back(input.substr(begin, end - begin));
        begin = end + 1;
    }
    pieces.push_back(input.substr(begin));
    pieces.resize(count);
    return pieces;
}

/// The input as a file in memory, for its owner only.
class InputFile {
public:
    InputFile(std::uint8_t const* data, std::size_t size) : m_file(memfd_create("input", 0))
    {
        require(fchmod(m_file, 0600) == 0 &&
                    write(m_file, data, size) == static_cast<ssize_t>(size),
                "the input fits into memory");
    }
    ~InputFile() { close(m_file); }
    InputFile(InputFile const&) = delete;
    InputFile& operator=(InputFile const&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(m_file); }

private:
    int m_file;
};

} // namespace SolvaneTest

#endif
