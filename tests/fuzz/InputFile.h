// The input as a file that can be named.
#ifndef SOLVANE_TESTS_FUZZ_INPUT_FILE_H
#define SOLVANE_TESTS_FUZZ_INPUT_FILE_H

#include "Target.h"

#include <string>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace SolvaneTest {

/// A file in memory, for its owner only.
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
