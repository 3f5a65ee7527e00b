// Made by mkdtemp, below the system's folder for temporary files.
#include "TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace SolvaneTest {

TemporaryDirectory::TemporaryDirectory()
{
    // The blank is intentional: paths with blanks must work.
    std::string name = std::filesystem::temp_directory_path() / "solvane test XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
    }
    m_path = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace SolvaneTest
