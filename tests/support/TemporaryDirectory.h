// A test's own folder; the destructor deletes it with its contents.
#ifndef SOLVANE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H
#define SOLVANE_TESTS_SUPPORT_TEMPORARY_DIRECTORY_H

#include <filesystem>

namespace SolvaneTest {

class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory();

    std::filesystem::path const& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

} // namespace SolvaneTest

#endif
