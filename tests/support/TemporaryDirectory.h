// A test's own folder; the destructor deletes it with its contents.
#ifndef SOLVANE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H
#define SOLVANE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace SolvaneTest {

class TemporaryDirectory {
public:
    TemporaryDirectory()
    {
        // The blank is on purpose: nothing in a test may trip over one.
        std::string name = std::filesystem::temp_directory_path() / "solvane test XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
        }
        m_path = name;
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    std::filesystem::path const& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

} // namespace SolvaneTest

#endif
